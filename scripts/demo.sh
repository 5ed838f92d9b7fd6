#!/usr/bin/env bash
# Builds the project and runs the main job.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

jobs=${JOBS:-$(nproc)}
cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/release -j "$jobs"
build/release/examples/replay_tour
