#!/usr/bin/env bash
# Peak RSS on a file crafted to make libyara record many matches: 16 rules
# that each search "<%" and "%>" (ascii wide) over 1 MiB of "<%%>".
# usage: bench/scan/run_hostile_bench.sh BUILD_DIR
set -euo pipefail
build=$(cd "$1" && pwd)
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
sha=$(sha256sum "$work/rules.yar" | cut -c1-64)
cat > "$work/policy.json" <<JSON
{"feature_name":"detect_webshell","content":{"customize_scan_paths":["$work/tree"],"default_scan_paths":[],
 "lib_version":"hostile","lib_url":"file://$work/rules.yar","lib_hash":"$sha","file_type":"",
 "auto_scan_task":{"task_condition":{"type":"daily","at":"03:00"}}}}
JSON
/usr/bin/time -f "%e %M" -o "$work/ours" "$work/install/bin/ardent-agent" scan --install-dir "$work/install" \
  --policy "$work/policy.json" --events /dev/null --log-level warning >/dev/null 2>&1 || true
/usr/bin/time -f "%e %M" -o "$work/yara" yara "$work/rules.yar" "$work/tree/page.jsp" >/dev/null 2>&1 || true
read -r os om < <(tail -n 1 "$work/ours")
read -r ys ym < <(tail -n 1 "$work/yara")
printf '| hostile 1 MiB file | seconds | peak RSS (MiB) |\n|---|---|---|\n'
printf '| ardent-agent scan | %s | %.1f |\n| yara | %s | %.1f |\n' "$os" "$(awk "BEGIN{print $om/1024}")" "$ys" "$(awk "BEGIN{print $ym/1024}")"
