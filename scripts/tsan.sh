#!/usr/bin/env bash
# Builds the test suites with ThreadSanitizer in build-tsan and runs them.
#
#   ./scripts/tsan.sh                      every test suite, through ctest
#   ./scripts/tsan.sh kq_module_tests ...  only these suites (faster on a
#                                          small machine); the other suites'
#                                          tests are left out of the run
#
# BUILD_DIR (default build-tsan) and JOBS (default 2) can be set in the
# environment; extra ctest options go in CTEST_ARGS (e.g. "-R Stress").
# Each report lands in $BUILD_DIR/tsan-reports/; the script ends with the
# SUMMARY lines of every report and fails when there was one.
set -euo pipefail
cd "$(dirname "$0")/.."

BUILD_DIR="${BUILD_DIR:-build-tsan}"
JOBS="${JOBS:-2}"
REPORTS="$PWD/$BUILD_DIR/tsan-reports"

cmake -S . -B "$BUILD_DIR" -DKQ_TSAN=ON -DKQ_BUILD_BENCH=OFF -DKQ_BUILD_TESTS=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  cmake --build "$BUILD_DIR" -j "$JOBS"
else
  cmake --build "$BUILD_DIR" -j "$JOBS" --target "${targets[@]}"
fi

rm -rf "$REPORTS"
mkdir -p "$REPORTS"
# halt_on_error=0: one run shows every race, not only the first.
export TSAN_OPTIONS="halt_on_error=0 second_deadlock_stack=1 history_size=4 log_path=$REPORTS/tsan ${TSAN_OPTIONS:-}"

# ThreadSanitizer needs the classic address-space layout; kernels with
# wide mmap randomisation make it stop at start-up, so run without it.
runner=()
if command -v setarch > /dev/null && setarch "$(uname -m)" -R true 2> /dev/null; then
  runner=(setarch "$(uname -m)" -R)
fi

status=0
(
  cd "$BUILD_DIR"
  if [ ${#targets[@]} -eq 0 ]; then
    "${runner[@]}" ctest --output-on-failure --timeout 900 ${CTEST_ARGS:-}
  else
    # Only the chosen suites' tests (the others show as *_NOT_BUILT).
    regex=""
    for target in "${targets[@]}"; do
      binary=$(find . -name "$target" -type f -perm -u+x | head -n 1)
      [ -n "$binary" ] || continue
      while read -r name; do
        regex="$regex|^${name//./\\.}\$"
      done < <("${runner[@]}" "$binary" --gtest_list_tests | awk '/^[^ ]/ {suite = $1} /^  / {print suite $1}')
    done
    "${runner[@]}" ctest --output-on-failure --timeout 900 -R "${regex#|}" ${CTEST_ARGS:-}
  fi
) || status=$?

if compgen -G "$REPORTS/tsan*" > /dev/null; then
  echo "ThreadSanitizer reports in $REPORTS:"
  grep -h "SUMMARY: ThreadSanitizer" "$REPORTS"/tsan* | sort | uniq -c
  status=1
else
  echo "ThreadSanitizer: no report."
fi
exit "$status"
