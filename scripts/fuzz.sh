#!/usr/bin/env bash
# Builds the libFuzzer targets with clang under ASan+UBSan and runs each one
# from its seed corpus (fuzz/corpus/<target>/ and tests/data/), failing on the
# first finding (crash, sanitizer report, leak, out-of-memory).
#   scripts/fuzz.sh [seconds-per-target] [target...]
#   FUZZ_RUNS=1000000 scripts/fuzz.sh      a fixed number of executions instead
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

seconds=${1:-30}
shift || true
jobs=${JOBS:-$(nproc)}
# clang, ASan+UBSan, tests off: the fuzz preset of CMakePresets.json.
cmake --preset fuzz >/dev/null

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for source in fuzz/*Fuzz.cpp; do targets+=("$(basename "$source" .cpp)"); done
fi
# Only the fuzz targets: the rest of the tree is built and tested elsewhere.
cmake --build --preset fuzz -j "$jobs" --target "${targets[@]}"

for target in "${targets[@]}"; do
  work=$(mktemp -d)
  [ -d "fuzz/corpus/$target" ] && cp -r "fuzz/corpus/$target/." "$work/"
  limit=(-max_total_time="$seconds")
  [ -n "${FUZZ_RUNS:-}" ] && limit=(-runs="$FUZZ_RUNS")
  echo "=== $target ==="
  log="build/fuzz/$target.log"
  status=0
  ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    "build/fuzz/fuzz/$target" "${limit[@]}" -print_final_stats=1 \
    -artifact_prefix="build/fuzz/$target-" "$work" tests/data >"$log" 2>&1 || status=$?
  grep -E "^stat::number_of_executed_units|^Done|ERROR|SUMMARY" "$log" || true
  rm -rf "$work"
  [ "$status" -eq 0 ] || { echo "$target: finding (exit $status), see $log"; exit 1; }
done
