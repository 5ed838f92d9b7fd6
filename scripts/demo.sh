#!/usr/bin/env bash
# The main job: builds the project, then records about ten seconds of three
# simulated navigation components through the logger service and the replay
# server, replays the log to them and reports what came back and when.
#   scripts/demo.sh            the demo, then everything stops
#   scripts/demo.sh --serve    then the logger service, the server and the demo
#                              clients keep running, and the web page's address
#                              and token are printed; Ctrl-C ends them
set -euo pipefail
serve=0
case "${1:-}" in
  --serve) serve=1 ;;
  "") ;;
  *) echo "usage: scripts/demo.sh [--serve]" >&2; exit 2 ;;
esac
cd "$(dirname "$0")/.."
repo=$(pwd)
scripts/install-deps.sh

jobs=${JOBS:-2}
record_seconds=${RECORD_SECONDS:-10}
build_dir=${BUILD_DIR:-build/release}
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build_dir" -j "$jobs" --target replay-logger ReplayManager demo_client replaylog

bin=$(cd "$build_dir" && pwd)
root=$(mktemp -d "${TMPDIR:-/tmp}/replay-demo.XXXXXX")
pids=()
cleanup() {
  for pid in "${pids[@]}"; do
    kill -TERM "$pid" 2>/dev/null || true
  done
  for pid in "${pids[@]}"; do
    wait "$pid" 2>/dev/null || true
  done
  [ -n "${KEEP_ROOT:-}" ] && echo "kept $root" || rm -rf "$root"
}
trap cleanup EXIT

export REPLAY_TARGET_ROOT=$root ENABLE_REPLAY=1
mkdir -p "$root/fs/usb0" "$root/tmp" "$root/work"
cd "$root/work"
printf 'serverIP:127.0.0.1;\nnetworkingLatency:100;\nserverLeadTime:100;\n' >ReplayConfig.txt

"$bin/logger/replay-logger" --ready-file "$root/logger.ready" >"$root/logger.out" 2>&1 &
pids+=($!)
for _ in $(seq 100); do [ -f "$root/logger.ready" ] && break; sleep 0.1; done

"$bin/server/ReplayManager" >"$root/server.out" 2>&1 </dev/null &
server_pid=$!
pids+=($server_pid)
ctl() { "$bin/server/ReplayManager" send "$*"; }
for _ in $(seq 100); do ctl status >/dev/null 2>&1 && break; sleep 0.1; done

clients=(gps can compass)
client_pids=()
for name in "${clients[@]}"; do
  "$bin/examples/demo_client" "$name" "$root/$name.journal" >"$root/$name.out" 2>&1 &
  client_pids+=($!)
  pids+=($!)
done
for _ in $(seq 100); do
  [ "$(ctl clients | tail -n +2 | grep -c Running || true)" -ge ${#clients[@]} ] && break
  sleep 0.1
done

echo "Recording ${record_seconds} s of ${clients[*]} ..."
ctl record "$record_seconds" >/dev/null
ctl wait >/dev/null
ctl status

log=$root/fs/usb0/LOGFILE.DAT
echo
"$bin/tools/replaylog/replaylog" info "$log" || true
echo
echo "Replaying ..."
ctl replay "$log"
ctl wait
ctl status | sed -n "/^replay /,/^[^ ]/p"
sleep 0.5

for pid in "${client_pids[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
status=0
for pid in "${client_pids[@]}"; do wait "$pid" || status=1; done
echo
echo "Report:"
for name in "${clients[@]}"; do
  grep -o 'demo_client .*' "$root/$name.out" || { echo "demo_client $name: no summary"; status=1; }
done
if [ $serve = 1 ]; then
  # Fresh clients that report their timing error to the page while replaying.
  for name in "${clients[@]}"; do
    "$bin/examples/demo_client" "$name" "$root/$name.journal" --report-ms 500 \
      >>"$root/$name.out" 2>&1 &
    pids+=($!)
  done
  page=$(grep -o 'web page .*' "$root/server.out" || true)
  echo
  if [ -n "$page" ]; then
    echo "Serving: $page"
    echo "Open the address in a browser and paste the token into its Token field."
  else
    echo "The server has no web page:"
    grep -i 'web page\|listen' "$root/server.out" || true
  fi
  echo "The logger service, the server and the clients (${clients[*]}) keep running"
  echo "under $root; Ctrl-C ends them."
  trap "exit 130" INT TERM
  # Until Ctrl-C, or until the server has ended (then the rest goes too).
  while kill -0 "$server_pid" 2>/dev/null; do sleep 1; done
fi
exit $status
