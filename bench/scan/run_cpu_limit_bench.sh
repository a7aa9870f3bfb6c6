#!/usr/bin/env bash
# Process CPU share of a full pass with and without --cpu-limit.
# usage: bench/scan/run_cpu_limit_bench.sh BUILD_DIR [FILES] [PERCENT]
set -euo pipefail
build=$(cd "$1" && pwd)
files=${2:-5000}
limit=${3:-25}
here=$(cd "$(dirname "$0")" && pwd)
repo=$(cd "$here/../.." && pwd)
work=$(mktemp -d /tmp/ardent-cpu-bench-XXXXXX)
trap 'rm -rf "$work"' EXIT
python3 "$here/make_tree.py" "$work/tree" "$files" >&2
mkdir -p "$work/install"/{bin,data/webshell,data/upload,policy,log,run,share}
ln -s "$build/stage/lib" "$work/install/lib"
ln -s "$build/stage/module" "$work/install/module"
ln -s "$build/stage/bin/ardent-agent" "$work/install/bin/ardent-agent"
rules="$repo/examples/rules/webshell.yar"
sha=$(sha256sum "$rules" | cut -c1-64)
cat > "$work/policy.json" <<JSON
{"feature_name":"detect_webshell","content":{"customize_scan_paths":["$work/tree"],"default_scan_paths":[],
 "lib_version":"cpu","lib_url":"file://$rules","lib_hash":"$sha","file_type":"",
 "auto_scan_task":{"task_condition":{"type":"daily","at":"03:00"}}}}
JSON
printf '| --cpu-limit | wall s | CPU s (user+sys) | CPU share of one core |\n|---|---|---|---|\n'
for l in 0 "$limit"; do
  /usr/bin/time -f "%e %U %S" -o "$work/t" "$work/install/bin/ardent-agent" scan --install-dir "$work/install" \
    --policy "$work/policy.json" --events /dev/null --log-level warning --upload-dir "$work/install/data/upload" \
    --cpu-limit "$l" >/dev/null 2>&1 || true
  read -r e u s < <(tail -n 1 "$work/t")
  printf '| %s | %s | %.2f | %.0f %% |\n' "$l" "$e" "$(awk "BEGIN{print $u+$s}")" "$(awk "BEGIN{print 100*($u+$s)/$e}")"
done
