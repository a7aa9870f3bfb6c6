#!/usr/bin/env bash
# Full pass of `ardent-agent scan` beside `yara -r -p 1` with the same rules on
# the same generated tree. Prints a markdown table row set for bench/README.md.
#
# usage: bench/scan/run_scan_bench.sh BUILD_DIR [FILES]
set -euo pipefail
build=$(cd "$1" && pwd)
files=${2:-20000}
here=$(cd "$(dirname "$0")" && pwd)
repo=$(cd "$here/../.." && pwd)
work=$(mktemp -d /tmp/ardent-scan-bench-XXXXXX)
trap 'rm -rf "$work"' EXIT

rules="$repo/examples/rules/webshell.yar"
tree="$work/tree"
python3 "$here/make_tree.py" "$tree" "$files" >&2
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

# Best of three runs each (warm page cache for both tools).
measure() {  # prints "seconds maxrss_kib"
  local best="" rss=""
  for _ in 1 2 3; do
    /usr/bin/time -f "%e %M" -o "$work/time" "$@" >/dev/null 2>"$work/err" || true
    read -r s m < <(tail -n 1 "$work/time")
    if [ -z "$best" ] || awk "BEGIN{exit !($s < $best)}"; then best=$s; rss=$m; fi
  done
  echo "$best $rss"
}
read -r ours ours_rss < <(measure "$install/bin/ardent-agent" scan --install-dir "$install" \
    --policy "$work/policy.json" --events /dev/null --log-level warning)
# yara takes the agent's rule variables once for the whole tree; the string
# search, which is the cost, does not depend on their values.
defines=(-d filepath= -d filename= -d extension=php -d filetype=PHP -d layer_depth=0 -d longest_line=0
         -d control_pct=0 -d longest_literal=0 -d literal_entropy=0.0)
read -r theirs theirs_rss < <(measure yara -r -p 1 "${defines[@]}" "$rules" "$tree")

mib=$(awk "BEGIN{print $bytes/1048576}")
printf '| tool | seconds | files/s | MB/s | peak RSS (MiB) |\n|---|---|---|---|---|\n'
printf '| ardent-agent scan | %.2f | %.0f | %.1f | %.1f |\n' "$ours" "$(awk "BEGIN{print $files/$ours}")" \
  "$(awk "BEGIN{print $mib/$ours}")" "$(awk "BEGIN{print $ours_rss/1024}")"
printf '| yara -r -p 1 | %.2f | %.0f | %.1f | %.1f |\n' "$theirs" "$(awk "BEGIN{print $files/$theirs}")" \
  "$(awk "BEGIN{print $mib/$theirs}")" "$(awk "BEGIN{print $theirs_rss/1024}")"
printf '\nratio ours/yara: %.3f (%d files, %.1f MiB)\n' "$(awk "BEGIN{print $ours/$theirs}")" "$files" "$mib"
