#!/usr/bin/env bash
# Runs every fuzz target of a build for a while, starting from its seeds in
# fuzz/corpus/<name>/ (new inputs go to a scratch corpus; the repository's
# seeds are not changed). Exits 1 when a target finds a crash, a leak, a
# timeout or a failed check; the input is kept under <build>/fuzz/artifacts/.
#
#   fuzz/run.sh BUILD_DIR SECONDS [NAME...]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:?build directory}
seconds=${2:-30}
shift 2 || true
names=("$@")
if [ ${#names[@]} -eq 0 ]; then
  mapfile -t names < <(grep -v '^$' "$build/fuzz/targets.txt")
fi

# Scratch files on tmpfs when there is one: some targets write a few files
# per input, and the upload store syncs what it writes.
if [ -z "${TMPDIR:-}" ] && [ -d /dev/shm ] && [ -w /dev/shm ]; then
  export TMPDIR=/dev/shm
fi
artifacts="$build/fuzz/artifacts"
mkdir -p "$artifacts"
# Leaks are findings; the symbolizer makes reports readable when present.
# A smaller quarantine and shorter allocation stacks than ASan's defaults:
# the targets allocate a lot per input, and reports stay readable.
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:quarantine_size_mb=64:malloc_context_size=10}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
if command -v llvm-symbolizer-14 >/dev/null; then
  export ASAN_SYMBOLIZER_PATH=${ASAN_SYMBOLIZER_PATH:-$(command -v llvm-symbolizer-14)}
fi

failed=()
for name in "${names[@]}"; do
  work=$(mktemp -d "${TMPDIR:-/tmp}/ardent-corpus-$name-XXXXXX")
  log="$artifacts/$name.log"
  extra=()
  case "$name" in
    # The control server reaps a request's thread only on its next round, so
    # every input ends with more allocations than frees and libFuzzer would
    # scan the whole heap for leaks after each request (a fourth of the speed).
    control_socket) extra=(-detect_leaks=0) ;;
  esac
  echo "== fuzz $name for ${seconds}s"
  if "$build/fuzz/${name}_fuzz" "$work" "fuzz/corpus/$name" \
       -max_total_time="$seconds" -timeout=30 -rss_limit_mb=2048 -print_final_stats=1 \
       -artifact_prefix="$artifacts/$name-" ${extra[@]+"${extra[@]}"} ${FUZZ_FLAGS:-} >"$log" 2>&1; then
    grep -E '^stat::number_of_executed_units|^stat::peak_rss_mb' "$log" | sed "s/^/   $name /"
  else
    echo "   $name FAILED: see $log" >&2
    tail -n 40 "$log" >&2
    failed+=("$name")
  fi
  rm -rf "$work"
done
if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz: findings in ${failed[*]}" >&2
  exit 1
fi
