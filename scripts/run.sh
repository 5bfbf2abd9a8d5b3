#!/usr/bin/env bash
# Builds the service (Release) and runs it in the foreground:
#   sudo ./scripts/run.sh [options of kqworldrepresentation, see --help]
# Installs the missing Debian packages first. BUILD_DIR (default
# build-release) and JOBS (default: number of cores) can be set in the
# environment. Ctrl-C stops the service and saves the world.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/install-deps.sh

BUILD_DIR="${BUILD_DIR:-build-release}"
JOBS="${JOBS:-$(nproc)}"
cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=Release -DKQ_BUILD_TESTS=OFF -DKQ_BUILD_BENCH=OFF >/dev/null
cmake --build "$BUILD_DIR" -j "$JOBS" --target kqworldrepresentation kq
echo "kq client: $BUILD_DIR/tools/kq" >&2
# Where the viewer answers, from the options given (the service logs it too).
host=127.0.0.1 port=9480 token="${KQ_TOKEN:-}"
args=("$@")
for ((i = 0; i < ${#args[@]}; i++)); do
  case "${args[i]}" in
    --host) host="${args[i + 1]:-$host}" ;;
    --port) port="${args[i + 1]:-$port}" ;;
    --token) token="${args[i + 1]:-}" ;;
  esac
done
case "$host" in 0.0.0.0 | ::) host=127.0.0.1 ;; esac
echo "viewer: http://$host:$port/${token:+?token=$token}  (Foxglove: ws://$host:$port/foxglove)" >&2
exec "$BUILD_DIR/tools/kqworldrepresentation" "$@"
