#!/usr/bin/env bash
# Peak RSS on a file crafted to make libyara record many matches: 16 rules
# that each search "<%" and "%>" (ascii wide) over 1 MiB of "<%%>"; and, when
# the development corpus is present, of the default library over its web
# shells (read and matched only: never run or served; the kept copies go to a
# throwaway install tree).
# usage: bench/scan/run_hostile_bench.sh BUILD_DIR [CORPUS_DIR]
set -euo pipefail
build=$(cd "$1" && pwd)
corpus=${2:-/tmp/devcorpus/malicious}
here=$(cd "$(dirname "$0")" && pwd)
repo=$(cd "$here/../.." && pwd)
work=$(mktemp -d /tmp/ardent-hostile-XXXXXX)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/tree" "$work/install"/{bin,data/webshell,data/upload,policy,log,run,share}
ln -s "$build/stage/lib" "$work/install/lib"
ln -s "$build/stage/module" "$work/install/module"
ln -s "$build/stage/bin/ardent-agent" "$work/install/bin/ardent-agent"
python3 -c "import sys; sys.stdout.write('<%%>' * (1048576 // 4))" > "$work/tree/page.jsp"
for i in $(seq 1 16); do
  printf 'rule r%d { strings: $a = "<%%" ascii wide $b = "%%>" ascii wide condition: $a and $b }\n' "$i"
done > "$work/rules.yar"

policy() {  # rules tree -> policy file
  local sha
  sha=$(sha256sum "$1" | cut -c1-64)
  cat > "$work/policy.json" <<JSON
{"feature_name":"detect_webshell","content":{"customize_scan_paths":["$2"],"default_scan_paths":[],
 "lib_version":"v-$sha","lib_url":"file://$1","lib_hash":"$sha","file_type":"",
 "auto_scan_task":{"task_condition":{"type":"daily","at":"03:00"}}}}
JSON
}
ours() {  # extra options...
  /usr/bin/time -f "%e %M" -o "$work/ours" "$work/install/bin/ardent-agent" scan --install-dir "$work/install" \
    --policy "$work/policy.json" --events /dev/null --log-level warning --upload-dir "$work/install/data/upload" \
    "$@" >/dev/null 2>&1 || true
  tail -n 1 "$work/ours"
}
# A build from before --threads has one thread: the second row is left out.
one=() threads=()
if "$work/install/bin/ardent-agent" help scan | grep -q -- --threads; then
  one=(--threads 1) threads=(--threads 2)
fi

policy "$work/rules.yar" "$work/tree"
read -r os om < <(ours "${one[@]}")
read -r os2 om2 < <(ours "${threads[@]}")
/usr/bin/time -f "%e %M" -o "$work/yara" yara "$work/rules.yar" "$work/tree/page.jsp" >/dev/null 2>&1 || true
read -r ys ym < <(tail -n 1 "$work/yara")
mib() { awk "BEGIN{printf \"%.1f\", $1/1024}"; }
printf '| hostile 1 MiB file | seconds | peak RSS (MiB) |\n|---|---|---|\n'
printf '| ardent-agent scan | %s | %s |\n' "$os" "$(mib "$om")"
[ ${#threads[@]} -gt 0 ] && printf '| ardent-agent scan --threads 2 | %s | %s |\n' "$os2" "$(mib "$om2")"
printf '| yara | %s | %s |\n' "$ys" "$(mib "$ym")"

if [ -d "$corpus" ]; then
  rules="$repo/examples/rules/webshell.yar"
  policy "$rules" "$corpus"
  rm -rf "$work/install/data/webshell/"* "$work/install/data/upload/"*
  ours >/dev/null  # fetches the library
  rm -rf "$work/install/data/upload/"*
  read -r cs cm < <(ours "${one[@]}")
  rm -rf "$work/install/data/upload/"*
  read -r cs2 cm2 < <(ours "${threads[@]}")
  /usr/bin/time -f "%e %M" -o "$work/yara" yara -r -p 1 -d filepath= -d filename= -d extension=php \
    -d filetype=PHP -d layer_depth=0 -d longest_line=0 -d control_pct=0 -d longest_literal=0 \
    -d literal_entropy=0.0 "$rules" "$corpus" >/dev/null 2>&1 || true
  read -r ycs ycm < <(tail -n 1 "$work/yara")
  printf '\n| web-shell corpus, %d files, default library | seconds | peak RSS (MiB) |\n|---|---|---|\n' \
    "$(find "$corpus" -type f | wc -l)"
  printf '| ardent-agent scan | %s | %s |\n' "$cs" "$(mib "$cm")"
  [ ${#threads[@]} -gt 0 ] && printf '| ardent-agent scan --threads 2 | %s | %s |\n' "$cs2" "$(mib "$cm2")"
  printf '| yara -r -p 1 | %s | %s |\n' "$ycs" "$(mib "$ycm")"
else
  echo "(no web-shell corpus at $corpus: its peak RSS is not measured)"
fi
