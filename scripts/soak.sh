#!/usr/bin/env bash
# Builds the release tree and runs the soak: 20 demo clients recorded through
# the logger service and the replay server for MINUTES (default 30), then
# replayed; reports lost items (items handed over before the stop moment and
# missing are "lost at stop" and fail the run), replay timing and memory growth
# per process.
#   scripts/soak.sh [minutes] [replay-soak options...]
# Exit status: that of replay-soak (0 pass, 1 losses or growth, 3 no run).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

minutes=${1:-30}
shift || true
jobs=${JOBS:-$(nproc)}
build_dir=${BUILD_DIR:-build/release}
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build_dir" -j "$jobs" --target replay-soak

seconds=$(awk -v m="$minutes" 'BEGIN { printf "%d", m * 60 }')
exec "$build_dir/tools/soak/replay-soak" --duration "$seconds" "$@"
