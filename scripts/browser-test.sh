#!/usr/bin/env bash
# The web page in a real browser: starts the logger service, ReplayManager
# (its page on a free loopback port) and two demo clients under a fresh
# target root, then drives the page headless (web/tests/browser-test.mjs).
# The screenshot goes to the build directory.
#   scripts/browser-test.sh [BUILD_DIR]    (default build/release, built)
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$(pwd)
bin=$(cd "${1:-${BUILD_DIR:-build/release}}" && pwd)
root=$(mktemp -d "${TMPDIR:-/tmp}/replay-browser.XXXXXX")
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  rm -rf "$root"
}
trap cleanup EXIT

export REPLAY_TARGET_ROOT=$root ENABLE_REPLAY=1
mkdir -p "$root/fs/usb0" "$root/tmp" "$root/work"
cd "$root/work"
ip=127.0.0.$((RANDOM % 200 + 20))
printf 'serverIP:%s;\nnetworkingLatency:100;\nserverLeadTime:100;\n' "$ip" >ReplayConfig.txt

"$bin/logger/replay-logger" --ready-file "$root/logger.ready" >"$root/logger.out" 2>&1 &
pids+=($!)
for _ in $(seq 100); do [ -f "$root/logger.ready" ] && break; sleep 0.1; done

"$bin/server/ReplayManager" --bind "$ip" --reorder-ms 1000 --journal "" --http "$ip:0" \
  >"$root/server.out" 2>&1 </dev/null &
pids+=($!)
page=
for _ in $(seq 200); do
  page=$(grep -o 'web page http://[^ ]*/ (token [0-9a-f]*' "$root/server.out" || true)
  [ -n "$page" ] && break
  sleep 0.1
done
[ -n "$page" ] || { cat "$root/server.out"; echo "browser test: no web page"; exit 1; }
url=$(echo "$page" | awk '{print $3}')
token=$(echo "$page" | awk '{print $5}')

for name in gps can; do
  "$bin/examples/demo_client" "$name" "$root/$name.journal" --report-ms 500 >"$root/$name.out" 2>&1 &
  pids+=($!)
done

if ! node "$repo/web/tests/browser-test.mjs" "$url" "$token" "$bin/web-page.png"; then
  echo "--- server output"; grep -v DebugLogger "$root/server.out" | tail -40
  exit 1
fi
