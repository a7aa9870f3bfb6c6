#!/usr/bin/env bash
# Runs every benchmark program found in a bench build directory; builds nothing.
# Usage: bench/run.sh BUILD_DIR   (configured with -DARDENT_BUILD_BENCH=ON)
set -euo pipefail

if [ $# -ne 1 ] || [ ! -d "$1" ]; then
  echo "usage: $0 BENCH_BUILD_DIR" >&2
  exit 2
fi
B="$(cd "$1" && pwd)"
ran=0

if [ -x "$B/bench/bench_queue" ]; then
  echo "== queue: messages/s, N producers -> 1 consumer, lock-free vs mutex+deque"
  "$B/bench/bench_queue" --benchmark_counters_tabular=true
  ran=$((ran + 1))
fi

if [ -x "$B/bench/bench_policy" ]; then
  echo "== policy: parse time against the number of scan paths"
  "$B/bench/bench_policy"
  ran=$((ran + 1))
fi

if [ -x "$B/stage/bin/ardent-agent" ] && command -v python3 >/dev/null; then
  echo "== control socket: threads and mappings of the agent over 100,000 status requests"
  python3 "$(cd "$(dirname "$0")" && pwd)/control/control_bench.py" "$B" 100000
  ran=$((ran + 1))
fi

if [ -x "$B/bench/bench_watch" ]; then
  echo "== watch: close-to-event latency, checks of a 10 MB upload, burst of new files (real agent)"
  ARDENT_STAGE="$B/stage" "$B/bench/bench_watch"
  ran=$((ran + 1))
fi

HERE="$(cd "$(dirname "$0")" && pwd)"
if [ -x "$B/stage/bin/ardent-agent" ] && command -v yara >/dev/null; then
  echo "== scan: full pass with 1 and 2 threads beside yara -r -p 1 and -p 2, same rules, same tree"
  bash "$HERE/scan/run_scan_bench.sh" "$B"
  echo "== scan: peak RSS on a file built to make libyara record matches, and on the web-shell corpus"
  bash "$HERE/scan/run_hostile_bench.sh" "$B"
  echo "== scan: CPU share with --cpu-limit"
  bash "$HERE/scan/run_cpu_limit_bench.sh" "$B"
  ran=$((ran + 1))
fi

# Detection needs a corpus of web shells and ordinary trees, built apart (see
# bench/README.md); it runs only when one is named.
if [ -n "${ARDENT_DETECT_CORPUS:-}" ] && [ -x "$B/stage/bin/ardent-agent" ]; then
  echo "== detect: recall and false positives of the default rules (real agent)"
  c=$ARDENT_DETECT_CORPUS
  bash "$HERE/detect/run.sh" --agent "$B/stage/bin/ardent-agent" --malicious "$c/malicious" \
    --benign "$c"/benign/*
  ran=$((ran + 1))
fi

if [ "$ran" -eq 0 ]; then
  echo "no benchmark programs under $B/bench (configure with -DARDENT_BUILD_BENCH=ON and build)" >&2
  exit 1
fi
