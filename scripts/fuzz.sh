#!/usr/bin/env bash
# Builds the libFuzzer targets of tests/fuzz with clang (AddressSanitizer and
# UndefinedBehaviorSanitizer too) in build-fuzz and runs each for SECONDS
# (default 30), starting from its committed seeds in tests/fuzz/corpus/<name>
# and, for a target that writes its own (the archive), those it writes
# (new finds go to a scratch folder; the committed corpus is not changed).
#
#   ./scripts/fuzz.sh [SECONDS] [NAME ...]
#
# A crash, a leak or an input that runs longer than 1 s fails the run; its
# input is kept in build-fuzz/findings/<name>/. Ends with one line per target
# (executions, result). JOBS (default 2) parallel targets at a time.
set -euo pipefail
cd "$(dirname "$0")/.."

SECONDS_EACH="${1:-30}"
shift || true
BUILD_DIR="${BUILD_DIR:-build-fuzz}"
JOBS="${JOBS:-2}"
FLAGS="-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer -g"

cmake -S . -B "$BUILD_DIR" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKQ_FUZZ=ON \
  -DKQ_BUILD_TESTS=OFF -DKQ_BUILD_BENCH=OFF -DCMAKE_CXX_FLAGS="$FLAGS" \
  -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=address,undefined" >/dev/null
names=("$@")
if [ ${#names[@]} -eq 0 ]; then
  for source in tests/fuzz/*_fuzz.cpp; do names+=("$(basename "$source" _fuzz.cpp)"); done
fi
cmake --build "$BUILD_DIR" -j "$JOBS" --target "${names[@]/#/kq_fuzz_}"

run() {
  local name="$1" scratch="$BUILD_DIR/scratch/$1" findings="$BUILD_DIR/findings/$1" seeds="$BUILD_DIR/seeds/$1"
  rm -rf "$scratch" "$seeds" && mkdir -p "$scratch" "$findings" "$seeds"
  local binary="$BUILD_DIR/tests/fuzz/kq_fuzz_$name" corpora=()
  [ -d "tests/fuzz/corpus/$name" ] && corpora+=("tests/fuzz/corpus/$name")
  # A target that writes its own seeds (from the format's writer) does so first.
  if grep -q KQ_FUZZ_WRITE_SEEDS "tests/fuzz/${name}_fuzz.cpp"; then
    KQ_FUZZ_WRITE_SEEDS="$seeds" "$binary" && corpora+=("$seeds")
  fi
  local status=0
  ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 "$binary" "$scratch" "${corpora[@]}" \
    -max_total_time="$SECONDS_EACH" -timeout=1 -rss_limit_mb=2048 -max_len=65536 -print_final_stats=1 \
    -artifact_prefix="$findings/" >"$BUILD_DIR/$name.log" 2>&1 || status=$?
  local runs
  runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$BUILD_DIR/$name.log" | grep -o '[0-9]*$' || echo "?")
  if [ $status -eq 0 ]; then
    echo "fuzz $name: $runs executions in ${SECONDS_EACH} s, no crash, leak or timeout"
  else
    echo "fuzz $name: FAILED after $runs executions (see $BUILD_DIR/$name.log, input in $findings/)"
  fi
  return $status
}

failed=0
pids=()
for name in "${names[@]}"; do
  run "$name" &
  pids+=($!)
  if [ ${#pids[@]} -ge "$JOBS" ]; then
    wait "${pids[0]}" || failed=1
    pids=("${pids[@]:1}")
  fi
done
for pid in "${pids[@]}"; do wait "$pid" || failed=1; done
exit $failed
