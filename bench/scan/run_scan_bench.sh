#!/usr/bin/env bash
# Full pass of `ardent-agent scan` beside `yara -r` with the same rules on the
# same tree, one thread and two, in one run. Prints markdown for bench/README.md.
#
# usage: bench/scan/run_scan_bench.sh BUILD_DIR [FILES]
#
# The tree is the real applications of the development corpus when present
# (phpBB, Symfony, Struts, PHP snippets, and WordPress and phpMyAdmin from
# /tmp/benign-extra), hard-linked into one directory so both tools walk the
# same files; otherwise FILES generated files (make_tree.py, default 20,000).
# ARDENT_BENCH_TREES="DIR..." names other trees.
set -euo pipefail
build=$(cd "$1" && pwd)
files=${2:-20000}
here=$(cd "$(dirname "$0")" && pwd)
repo=$(cd "$here/../.." && pwd)
work=$(mktemp -d /tmp/ardent-scan-bench-XXXXXX)
trap 'rm -rf "$work"' EXIT

rules="$repo/examples/rules/webshell.yar"
tree="$work/tree"
trees=${ARDENT_BENCH_TREES:-}
if [ -z "$trees" ]; then
  for d in /tmp/devcorpus/benign/{phpbb,symfony,struts,php-snippets} /tmp/benign-extra/x-wordpress \
           /tmp/benign-extra/x-phpmyadmin; do
    [ -d "$d" ] && trees="$trees $d"
  done
fi
if [ -n "$trees" ]; then
  mkdir -p "$tree"
  for d in $trees; do
    cp -al "$d" "$tree/$(basename "$d")" 2>/dev/null || cp -a "$d" "$tree/$(basename "$d")"
  done
  what="real application tree:$(for d in $trees; do printf ' %s' "$(basename "$d")"; done)"
else
  python3 "$here/make_tree.py" "$tree" "$files" >&2
  what="generated tree (make_tree.py; the real application trees were not found)"
fi
files=$(find "$tree" -type f | wc -l)
bytes=$(du -sb "$tree" | cut -f1)

# An install tree of our own so the bench does not touch build/stage's data.
install="$work/install"
mkdir -p "$install"/{bin,data/webshell,data/upload,policy,log,run,share}
ln -s "$build/stage/lib" "$install/lib"
ln -s "$build/stage/module" "$install/module"
ln -s "$build/stage/bin/ardent-agent" "$install/bin/ardent-agent"
sha=$(sha256sum "$rules" | cut -c1-64)
cat > "$work/policy.json" <<JSON
{"feature_name":"detect_webshell","hash":"bench","content":{
 "customize_scan_paths":["$tree"],"default_scan_paths":[],
 "lib_version":"bench-$sha","lib_url":"file://$rules","lib_hash":"$sha",
 "file_type":"","max_file_size":10485760,"upload_file_count_per_day":0,
 "monitor_file_change":false,"monitor_container":false,
 "auto_scan_task":{"task_condition":{"type":"daily","at":"03:00"}}}}
JSON

agent=("$install/bin/ardent-agent" scan --install-dir "$install" --policy "$work/policy.json"
       --events /dev/null --log-level warning --upload-dir "$install/data/upload")
# A build from before --threads runs its one thread for both rows.
ours1=("${agent[@]}") ours2=("${agent[@]}")
if "$install/bin/ardent-agent" help scan | grep -q -- --threads; then
  ours1+=(--threads 1) ours2+=(--threads 2)
fi
# yara takes the agent's rule variables once for the whole tree; the string
# search, which is the cost, does not depend on their values.
defines=(-d filepath= -d filename= -d extension=php -d filetype=PHP -d layer_depth=0 -d longest_line=0
         -d control_pct=0 -d longest_literal=0 -d literal_entropy=0.0)
yara1=(yara -r -p 1 "${defines[@]}" "$rules" "$tree") yara2=(yara -r -p 2 "${defines[@]}" "$rules" "$tree")

# The rule library is fetched into the install tree by the first run.
"${ours1[@]}" >/dev/null 2>&1 || true

# Best wall time of three for each (warm page cache), the four taking turns
# so that the load of a shared machine falls on all of them alike.
declare -A wall cpu rss
once() {  # key command...
  local key=$1; shift
  /usr/bin/time -f "%e %U %S %M" -o "$work/time" "$@" >/dev/null 2>"$work/err" || true
  read -r s u y m < <(tail -n 1 "$work/time")
  if [ -z "${wall[$key]:-}" ] || awk "BEGIN{exit !($s < ${wall[$key]})}"; then
    wall[$key]=$s; cpu[$key]=$(awk "BEGIN{print $u + $y}"); rss[$key]=$m
  fi
}
for _ in 1 2 3; do
  once y1 "${yara1[@]}"
  once o1 "${ours1[@]}"
  once y2 "${yara2[@]}"
  once o2 "${ours2[@]}"
done
y1=${wall[y1]} y1c=${cpu[y1]} y1m=${rss[y1]}
y2=${wall[y2]} y2c=${cpu[y2]} y2m=${rss[y2]}
o1=${wall[o1]} o1c=${cpu[o1]} o1m=${rss[o1]}
o2=${wall[o2]} o2c=${cpu[o2]} o2m=${rss[o2]}

mib=$(awk "BEGIN{print $bytes/1048576}")
row() {  # name wall cpu rss
  printf '| %s | %.2f | %.2f | %.0f | %.1f | %.2f | %.2f |\n' "$1" "$2" "$3" "$(awk "BEGIN{print $files/$2}")" \
    "$(awk "BEGIN{print $4/1024}")" "$(awk "BEGIN{print $2/$y1}")" "$(awk "BEGIN{print $3/$y1c}")"
}
echo "$what: $files files, $(printf '%.1f' "$mib") MiB; best wall of three each"
echo
printf '| tool | wall s | CPU s | files/s | peak RSS (MiB) | wall / yara -p 1 | CPU / yara -p 1 |\n'
printf '|---|---|---|---|---|---|---|\n'
row "yara -r -p 1" "$y1" "$y1c" "$y1m"
row "yara -r -p 2" "$y2" "$y2c" "$y2m"
row "ardent-agent scan --threads 1" "$o1" "$o1c" "$o1m"
row "ardent-agent scan --threads 2" "$o2" "$o2c" "$o2m"
echo
verdict() { awk "BEGIN{exit !($1)}" && echo met || echo MISSED; }
printf 'goals: --threads 1 CPU %.2fx <= 0.9x (%s), wall %.2fx <= 1.0x (%s) of yara -p 1;\n' \
  "$(awk "BEGIN{print $o1c/$y1c}")" "$(verdict "$o1c <= 0.9*$y1c")" \
  "$(awk "BEGIN{print $o1/$y1}")" "$(verdict "$o1 <= $y1")"
printf '       --threads 2 wall %.2fx <= 0.6x of yara -p 1 (%s), %.2fx <= 1.0x of yara -p 2 (%s);\n' \
  "$(awk "BEGIN{print $o2/$y1}")" "$(verdict "$o2 <= 0.6*$y1")" \
  "$(awk "BEGIN{print $o2/$y2}")" "$(verdict "$o2 <= $y2")"
printf '       peak RSS %.1f MiB <= 64 MiB (%s)\n' "$(awk "BEGIN{print $o2m/1024}")" "$(verdict "$o2m <= 65536")"
