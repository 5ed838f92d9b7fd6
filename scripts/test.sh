#!/usr/bin/env bash
# Builds and runs every test: the plain build, then the naming check of
# scripts/tidy.sh, then the whole suite under AddressSanitizer +
# UndefinedBehaviorSanitizer and under ThreadSanitizer, then every fuzz target
# for a short fixed time from its seed corpus, then a two-minute soak run, then
# the web page in headless Chromium. After the plain build,
# scripts/consumer-test.sh builds components against the installed tree and
# installs the .deb. Each build is a preset of CMakePresets.json, in
# build/<preset>.
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
  local preset=$1
  stage "$preset"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs"
  # Timing tests may retry a run that a stall of the host spoiled; every
  # other test must pass at its first run.
  ctest --preset "$preset" -j "$jobs" -LE timing
  ctest --preset "$preset" -j "$jobs" -L timing --repeat until-pass:3
}

run_suite release
if [ "${1:-}" != "--quick" ]; then
  stage "install, consumers and .deb"
  BUILD_DIR=build/release JOBS=$jobs scripts/consumer-test.sh --dpkg-install
  stage "names (clang-tidy)"
  JOBS=$jobs scripts/tidy.sh build/release
  # The sanitizer options are the test presets' own.
  run_suite asan-ubsan
  run_suite tsan
  stage fuzz
  scripts/fuzz.sh "${FUZZ_SECONDS:-20}"
  stage soak
  BUILD_DIR=build/release scripts/soak.sh "${SOAK_MINUTES:-2}"
  stage "web page in a browser"
  scripts/browser-test.sh build/release
fi
stage done
