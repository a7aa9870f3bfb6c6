#!/usr/bin/env bash
# Scans the bundled demo web root with the default rules and shows what the
# agent found: the events (stdout of `ardent-agent scan`), its summary
# (stderr) and the files it kept for a second look (data/upload/).
#
#   bash scripts/demo.sh [build dir]      (make demo)
#
# Exits 0 when the demo behaved: every certain sample reported as an event,
# every suspicious sample kept, no ordinary page in either.
set -uo pipefail

repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$repo"
build=${1:-build}
stage=$(cd "$build" 2>/dev/null && pwd)/stage
agent=$stage/bin/ardent-agent
if [ ! -x "$agent" ]; then
  echo "demo: $agent not found; build first (make build)" >&2
  exit 2
fi

root=$repo/examples/webroot
certain=("uploads/avatar.php" "app/cmd.jsp" "legacy/old admin.aspx" "legacy/default.asp"
         "blog/wp-content/plugins/seo-cache/loader.php")
suspicious=("blog/wp-content/cache/obf.php" "blog/lib/rot13.php" "tools/ping.php")
ordinary=("index.php" "about us.php" "blog/index.php" "index.html")

# A fresh upload directory, so that what is listed below is this run's.
upload=$stage/data/upload
rm -rf "$upload"
mkdir -p "$upload"
chmod 700 "$upload"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

echo "== ardent-agent scan --rules examples/rules/webshell.yar --upload-dir $upload examples/webroot"
"$agent" scan --rules examples/rules/webshell.yar --upload-dir "$upload" examples/webroot >"$work/events" 2>"$work/summary"
rc=$?

echo
echo "== events (one JSON line each on stdout)"
if command -v python3 >/dev/null 2>&1; then
  while IFS= read -r line; do
    printf '%s\n' "$line" | python3 -m json.tool || printf '%s\n' "$line"
  done <"$work/events"
else
  cat "$work/events"
fi

echo
echo "== summary (stderr, exit status $rc)"
cat "$work/summary"

echo
echo "== kept for analysis in $upload"
ls -l "$upload"
for sidecar in "$upload"/*.json; do
  [ -e "$sidecar" ] && cat "$sidecar"
done

# --- did the demo behave?
problems=()
[ "$rc" -eq 1 ] || problems+=("scan exited $rc, expected 1 (certain findings)")
reported() {  # the path appears as a file_path of an event
  grep -qF "\"file_path\":\"$1\"" "$work/events"
}
kept() {  # the path appears in a sidecar
  cat "$upload"/*.json 2>/dev/null | grep -qF "\"path\":\"$1\""
}
for f in "${certain[@]}"; do
  reported "$root/$f" || problems+=("certain sample $f was not reported")
done
for f in "${suspicious[@]}"; do
  kept "$root/$f" || problems+=("suspicious sample $f was not kept")
  reported "$root/$f" && problems+=("suspicious sample $f was reported as certain")
done
for f in "${ordinary[@]}"; do
  if reported "$root/$f" || kept "$root/$f"; then
    problems+=("ordinary page $f was flagged")
  fi
done
events=$(grep -c . "$work/events")
[ "$events" -eq "${#certain[@]}" ] || problems+=("$events events, expected ${#certain[@]}")

echo
if [ ${#problems[@]} -eq 0 ]; then
  echo "demo: OK (${#certain[@]} web shells reported, ${#suspicious[@]} suspicious files kept, ordinary pages untouched)"
  exit 0
fi
for p in "${problems[@]}"; do
  echo "demo: FAILED: $p" >&2
done
exit 1
