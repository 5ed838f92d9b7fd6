#!/usr/bin/env bash
# Installs the Debian packages that the build, the tests, the benchmarks and
# the tools need, and the web page's npm packages pinned in
# web/package-lock.json. Does nothing when they are all present already.
set -euo pipefail

packages=(
  cmake ninja-build g++ clang clang-tidy libclang-rt-dev
  libgtest-dev libgmock-dev libbenchmark-dev libssl-dev
  libcli11-dev nlohmann-json3-dev libcpp-httplib-dev
  help2man pkgconf dpkg-dev
  chromium
)
# Node's own packaging may bring npm with it; Debian's splits it off.
command -v npm >/dev/null || packages+=(nodejs npm)

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" ||
    missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  sudo_cmd=()
  [ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
  export DEBIAN_FRONTEND=noninteractive
  "${sudo_cmd[@]}" apt-get update
  "${sudo_cmd[@]}" apt-get install -y --no-install-recommends "${missing[@]}"
fi

# The charting library the page loads and the browser test's driver, exactly
# as locked; installed again only when the lock file changed.
web=$(cd "$(dirname "$0")/../web" && pwd)
if ! cmp -s "$web/package-lock.json" "$web/node_modules/.installed-lock.json"; then
  npm ci --prefix "$web" --no-audit --no-fund
  cp "$web/package-lock.json" "$web/node_modules/.installed-lock.json"
fi
