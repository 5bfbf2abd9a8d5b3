#!/usr/bin/env bash
# Installs the Debian 12 packages the build, the service and the tests need,
# only those that are missing. Run as root (or with sudo available).
set -euo pipefail

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

missing=()
for package in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "Installing missing packages: ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then
  SUDO="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
