#!/usr/bin/env bash
# Installs the Debian 12 packages the build, the service and the tests need,
# only those that are missing, then the viewer's npm packages (npm ci in
# web/). Run as root (or with sudo available).
set -euo pipefail
cd "$(dirname "$0")/.."

PACKAGES=(
  build-essential cmake pkg-config
  libboost-serialization-dev libboost-filesystem-dev libboost-thread-dev libboost-system-dev libboost-dev
  libsqlite3-dev nlohmann-json3-dev libeigen3-dev
  liburdfdom-dev liburdfdom-headers-dev libtinyxml-dev libconsole-bridge-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  python3 python3-websockets curl
  clang libclang-rt-14-dev gcovr
  libtf2-dev libhiredis-dev redis-server
)
# The viewer's and its tests' tools: Node and npm from Debian only when no
# npm is installed (another Node's npm conflicts with Debian's package), and
# Debian's chromium for the browser test (never a downloaded browser).
if ! command -v npm >/dev/null 2>&1; then
  PACKAGES+=(nodejs npm)
fi
if [ ! -x /usr/bin/chromium ]; then
  PACKAGES+=(chromium)
fi

missing=()
for package in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing missing packages: ${missing[*]}"
  SUDO=""
  if [ "$(id -u)" -ne 0 ]; then
    SUDO="sudo"
  fi
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# three.js (served by the viewer) and the test clients, as pinned by
# web/package-lock.json; no browser download, Debian's chromium is used.
if [ ! -d web/node_modules ] || [ web/package-lock.json -nt web/node_modules/.package-lock.json ]; then
  (cd web && PLAYWRIGHT_SKIP_BROWSER_DOWNLOAD=1 npm ci --no-audit --no-fund)
fi
