#!/usr/bin/env bash
# Builds and runs every test: the plain build, then the whole suite under
# AddressSanitizer + UndefinedBehaviorSanitizer and under ThreadSanitizer,
# then every fuzz target for a short fixed time from its seed corpus, then a
# two-minute soak run, then the web page in headless Chromium. After the plain build, scripts/consumer-test.sh builds
# components against the installed tree and installs the .deb.
#   scripts/test.sh            everything (what CI runs)
#   scripts/test.sh --quick    the plain build only
# FUZZ_SECONDS (default 20) and SOAK_MINUTES (default 2) change the last two.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

jobs=${JOBS:-$(nproc)}
started=$SECONDS
stage() { echo "=== $1 (at $(((SECONDS - started) / 60)) min $(((SECONDS - started) % 60)) s) ==="; }
run_suite() {
  local name=$1
  shift
  stage "$name"
  cmake -S . -B "build/$name" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "build/$name" -j "$jobs"
  ctest --test-dir "build/$name" -j "$jobs" --output-on-failure
}

run_suite release
if [ "${1:-}" != "--quick" ]; then
  stage "install, consumers and .deb"
  BUILD_DIR=build/release JOBS=$jobs scripts/consumer-test.sh --dpkg-install
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
    run_suite asan-ubsan -DREPLAY_SANITIZE=address,undefined
  TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    run_suite tsan -DREPLAY_SANITIZE=thread
  stage fuzz
  scripts/fuzz.sh "${FUZZ_SECONDS:-20}"
  stage soak
  BUILD_DIR=build/release scripts/soak.sh "${SOAK_MINUTES:-2}"
  stage "web page in a browser"
  scripts/browser-test.sh build/release
fi
stage done
