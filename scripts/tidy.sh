#!/usr/bin/env bash
# Checks the naming rule (.clang-tidy) over the project's own code: server/,
# logger/ and tools/ with their headers, and the library files that hold none
# of the names the client interface and its log format fix. The library's
# other files carry those names in whatever form they have, and are not
# checked.
# Uses the compile database of a configured build (default build/release).
#   scripts/tidy.sh [build-dir]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
root=$(pwd)
[ -f "$build/compile_commands.json" ] ||
  { echo "no $build/compile_commands.json: configure that build first"; exit 2; }

library_sources=(ReplayManager/ReplayLogReader.cpp ReplayManager/ReplayLogStatistics.cpp
  ReplayManager/ReplayLogRecord.cpp ReplayManager/ReplayTime.cpp
  reference/src/sigpipe_safe_write.cpp reference/src/target_root.cpp)
library_headers='include/libreplay/server/ReplayLog(Reader|Statistics|Record)\.h'
mapfile -t sources < <(git ls-files 'server/*.cpp' 'logger/*.cpp' 'tools/*.cpp')
sources+=("${library_sources[@]}")
# Anchored at this tree: include/libreplay/server/ is not server/.
filter="^$root/((server|logger|tools)/|$library_headers)"
printf '%s\n' "${sources[@]}" |
  xargs -P "${JOBS:-$(nproc)}" -n 4 clang-tidy -p "$build" --quiet --header-filter="$filter" \
    2> >(grep -v -E '^[0-9]+ warnings? (and [0-9]+ errors? )?generated\.$' >&2)
