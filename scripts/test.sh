#!/usr/bin/env bash
# Builds everything and runs every test: ./scripts/test.sh
# Installs the missing Debian packages first, then checks the lock contracts
# with clang (scripts/threads.sh). BUILD_DIR (default build) and
# JOBS (default: number of cores) can be set in the environment.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/install-deps.sh

BUILD_DIR="${BUILD_DIR:-build}"
JOBS="${JOBS:-$(nproc)}"
cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$BUILD_DIR" -j "$JOBS"

# Every lock contract, checked by clang at compile time.
./scripts/threads.sh

cd "$BUILD_DIR"
ctest --output-on-failure -j "$JOBS" --timeout 600
