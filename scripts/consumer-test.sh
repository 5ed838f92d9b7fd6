#!/usr/bin/env bash
# Installs the project into a temporary prefix and checks that every
# installed header compiles on its own against the installed tree, that
# libreplay.so exports no test hook, and builds, in a fresh directory, three
# small components against the installed tree only: a C++ one through
# find_package(libreplay), a C one through pkg-config and a C one through the
# loading proxy. Each records one item through the installed logger service
# and ReplayManager and checks that the replay hands it back. A server-side
# program built against the server component (find_package COMPONENTS server,
# and again through pkg-config libreplay-server) then reads the recorded log
# and runs a UDP server of its own.
# Then packs the .deb and checks its contents (with --dpkg-install: installs
# it with dpkg -i, runs ReplayManager --version and removes it again).
#   scripts/consumer-test.sh [--dpkg-install]     (BUILD_DIR: build/release)
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$(pwd)
build_dir=${BUILD_DIR:-build/release}
jobs=${JOBS:-2}

work=$(mktemp -d "${TMPDIR:-/tmp}/replay-consumer.XXXXXX")
pids=()
installed_deb=""
cleanup() {
  # An installed package would put libreplay.so on the loader's path for
  # the tests that follow (the proxy's tests need it absent).
  [ -n "$installed_deb" ] && { "${sudo_cmd[@]}" dpkg -r libreplay >/dev/null 2>&1 || true; }
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  [ -n "${KEEP_WORK:-}" ] && echo "kept $work" || rm -rf "$work"
}
trap cleanup EXIT
sudo_cmd=()
[ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
fail() { echo "consumer-test: $*" >&2; exit 1; }

echo "--- install into $work/prefix"
cmake --build "$build_dir" -j "$jobs" --target replay replayproxy ReplayManager replaylog replay-logger
cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
prefix=$work/prefix
libdir=$(dirname "$(find "$prefix" -name 'libreplay.so' | head -1)")
[ -f "$prefix/include/libreplay/ReplayClient.h" ] || fail "public header not installed"
[ -f "$prefix/include/libreplay/server/UDPSocketServer.h" ] || fail "server header not installed"
for private in MemoryBuffer.h ReplayFiles.h UDPServerReadThread.h operating_system.h; do
  [ -z "$(find "$prefix/include" -name "$private")" ] || fail "a private header was installed: $private"
done

echo "--- every installed header compiles alone against the installed tree"
headers=0
while IFS= read -r header; do
  name=${header#"$prefix/include/"}
  printf '#include <%s>\n' "$name" |
    c++ -std=c++17 -Wall -Wextra -Werror -pedantic -fsyntax-only -I"$prefix/include" -x c++ - ||
    fail "$name does not compile on its own"
  if grep -qE '#include +"(reference|ReplayManager)/' "$header"; then
    fail "$name includes a private header"
  fi
  headers=$((headers + 1))
done < <(find "$prefix/include" -name '*.h' | sort)
printf '#include <libreplay/ReplayClientC.h>\nint main(void) { return 0; }\n' |
  cc -std=c99 -Wall -Wextra -Werror -pedantic -fsyntax-only -I"$prefix/include" -x c - ||
  fail "ReplayClientC.h does not compile as C"
echo "$headers headers compile alone"

exported=$(nm -D --defined-only "$(find "$prefix" -name 'libreplay.so.*.*' | head -1)")
echo "libreplay.so exports $(wc -l <<<"$exported") symbols"
! grep -q 'ForTesting' <<<"$exported" || fail "libreplay.so exports a test hook"
version=$(sed -n 's/^project(libreplay VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
"$prefix/bin/ReplayManager" --version | grep -qF "ReplayManager $version (libreplay $version)" ||
  fail "ReplayManager --version does not give the project and library version"

echo "--- build the components in a fresh directory"
src=$repo/tests/consumer
cmake -S "$src" -B "$work/cxx" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cxx" >/dev/null
export PKG_CONFIG_PATH=$libdir/pkgconfig
# shellcheck disable=SC2046
cc -std=c99 -Wall -Wextra -Werror -o "$work/c_client" "$src/c_client.c" \
  $(pkg-config --cflags --libs libreplay) -Wl,-rpath,"$(pkg-config --variable=libdir libreplay)"
# shellcheck disable=SC2046
cc -std=c99 -Wall -Wextra -Werror -o "$work/proxy_client" "$src/proxy_client.c" \
  $(pkg-config --cflags --libs libreplayproxy)
# shellcheck disable=SC2046
c++ -std=c++17 -Wall -Wextra -Werror -o "$work/server_component_pc" "$src/server_component.cpp" \
  $(pkg-config --cflags --libs libreplay-server) -Wl,-rpath,"$(pkg-config --variable=libdir libreplay)"

echo "--- record and replay one item each"
root=$work/root
mkdir -p "$root/fs/usb0" "$root/tmp" "$root/run"
export REPLAY_TARGET_ROOT=$root ENABLE_REPLAY=1
# A loopback address of its own, so that parallel runs do not meet.
address=127.$((RANDOM % 200 + 20)).$((RANDOM % 250 + 1)).$((RANDOM % 250 + 1))
cd "$root/run"
printf 'serverIP:%s;\nnetworkingLatency:100;\nserverLeadTime:100;\n' "$address" >ReplayConfig.txt

"$prefix/bin/replay-logger" --ready-file "$root/logger.ready" >"$root/logger.out" 2>&1 &
pids+=($!)
for _ in $(seq 100); do [ -f "$root/logger.ready" ] && break; sleep 0.1; done
"$prefix/bin/ReplayManager" --bind "$address" --reorder-ms 0 --client-wait 20 \
  >"$root/server.out" 2>&1 </dev/null &
pids+=($!)
ctl() { "$prefix/bin/ReplayManager" send "$*"; }
for _ in $(seq 100); do ctl status >/dev/null 2>&1 && break; sleep 0.1; done

"$work/cxx/cxx_client" >"$root/cxx.out" 2>&1 &
cxx=$!
"$work/c_client" >"$root/c.out" 2>&1 &
c=$!
LD_LIBRARY_PATH=$libdir "$work/proxy_client" "$root/go" >"$root/proxy.out" 2>&1 &
proxy=$!
pids+=("$cxx" "$c" "$proxy")
for _ in $(seq 150); do
  [ "$(ctl clients | grep -c Running || true)" -ge 3 ] && break
  sleep 0.1
done
ctl record >/dev/null
touch "$root/go"
log=$root/fs/usb0/LOGFILE.DAT
# The proxy's item leaves the client with its next ping, up to about two
# seconds later.
for _ in $(seq 150); do
  grep -q 'speed 12.5' "$log" 2>/dev/null && grep -q position "$log" && break
  sleep 0.2
done
ctl stop >/dev/null
ctl wait >/dev/null
ctl replay "$log" >/dev/null
status=0
for name in cxx c proxy; do
  eval "pid=\$$name"
  if ! wait "$pid"; then
    echo "--- $name client failed:" >&2
    cat "$root/$name.out" >&2
    status=1
  fi
done
[ $status -eq 0 ] || { cat "$root/server.out" >&2; fail "a component did not get its item back"; }
echo "all three components got their item back"

echo "--- a server-side component reads the log and serves a datagram"
"$work/cxx/server_component" "$log" "position 48.1 11.5" "$address" ||
  fail "the server component built through find_package failed"
"$work/server_component_pc" "$log" "position 48.1 11.5" "$address" ||
  fail "the server component built through pkg-config failed"

echo "--- Debian package"
cd "$repo"
(cd "$build_dir" && cpack -G DEB >/dev/null 2>&1) || fail "cpack failed"
deb=$(ls -t "$build_dir"/libreplay_*.deb | head -1)
contents=$(dpkg-deb --contents "$deb")
for file in usr/bin/ReplayManager usr/bin/replaylog usr/lib/libreplay.so.0 \
  usr/include/libreplay/ReplayClientC.h usr/include/libreplay/server/UDPSocketServer.h \
  usr/lib/pkgconfig/libreplay.pc usr/lib/pkgconfig/libreplay-server.pc \
  usr/lib/cmake/libreplay/libreplayConfig.cmake; do
  grep -q "\./$file\( \|$\)" <<<"$contents" || fail "$deb lacks $file"
done
if [ "${1:-}" = "--dpkg-install" ]; then
  installed_deb=$deb
  "${sudo_cmd[@]}" dpkg -i "$deb" >/dev/null
  /usr/bin/ReplayManager --version
  man -w ReplayManager >/dev/null 2>&1 || [ -f /usr/share/man/man1/ReplayManager.1 ] ||
    fail "the package installed no manual page"
  "${sudo_cmd[@]}" dpkg -r libreplay >/dev/null
  installed_deb=""
else
  dpkg-deb -x "$deb" "$work/deb"
  "$work/deb/usr/bin/ReplayManager" --version
fi
echo "consumer-test: passed"
