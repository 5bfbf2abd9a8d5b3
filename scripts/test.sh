#!/usr/bin/env bash
# Builds everything and runs every test: ./scripts/test.sh
# Installs the missing Debian packages first; besides the suites it checks
# the lock contracts (scripts/threads.sh), runs the suites under ASan and
# UBSan (scripts/sanitize.sh) and fuzzes (scripts/fuzz.sh 30). BUILD_DIR (default build) and
# JOBS (default: number of cores) can be set in the environment.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/install-deps.sh

BUILD_DIR="${BUILD_DIR:-build}"
JOBS="${JOBS:-$(nproc)}"
cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$BUILD_DIR" -j "$JOBS"

# Every lock contract, checked by clang at compile time; the whole suite
# under AddressSanitizer and UndefinedBehaviorSanitizer; each fuzz target
# for 30 s from its seeds.
./scripts/threads.sh
./scripts/sanitize.sh
./scripts/fuzz.sh 30

cd "$BUILD_DIR"
ctest --output-on-failure -j "$JOBS" --timeout 600
