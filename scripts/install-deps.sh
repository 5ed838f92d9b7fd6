#!/usr/bin/env bash
# Installs the Debian packages that the build, the tests, the benchmarks and
# the tools need. Does nothing when they are all present already.
set -euo pipefail

packages=(
  cmake ninja-build g++ clang libclang-rt-dev
  libgtest-dev libgmock-dev libbenchmark-dev libssl-dev
  libcli11-dev nlohmann-json3-dev libcpp-httplib-dev
  help2man pkgconf dpkg-dev
)

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" ||
    missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
sudo_cmd=()
[ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update
"${sudo_cmd[@]}" apt-get install -y --no-install-recommends "${missing[@]}"
