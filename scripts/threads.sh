#!/usr/bin/env bash
# Checks every lock contract at compile time: builds the libraries and the
# programs with clang++ -Wthread-safety -Werror, so that a member read
# without its lock (GUARDED_BY) or a helper called without the locks it
# states (REQUIRES) fails the build. Usage: ./scripts/threads.sh
# BUILD_DIR (default build-threads) and JOBS (default: cores) may be set.
set -euo pipefail
cd "$(dirname "$0")/.."

BUILD_DIR="${BUILD_DIR:-build-threads}"
JOBS="${JOBS:-$(nproc)}"
command -v clang++ >/dev/null || { echo "threads.sh: clang++ is missing (./scripts/install-deps.sh installs it)" >&2; exit 1; }
generator=()
command -v ninja >/dev/null && generator=(-G Ninja)

cmake -S . -B "$BUILD_DIR" "${generator[@]}" -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_CXX_FLAGS="-Wthread-safety -Werror" -DKQ_BUILD_TESTS=OFF -DKQ_BUILD_BENCH=OFF >/dev/null
cmake --build "$BUILD_DIR" -j "$JOBS"
echo "threads.sh: every lock contract holds (clang -Wthread-safety)"
