#!/usr/bin/env bash
# Builds the test suites with clang++, AddressSanitizer (leaks included) and
# UndefinedBehaviorSanitizer in build-asan and runs them.
#
#   ./scripts/sanitize.sh                      every test, through ctest (the
#                                              end-to-end tests run the
#                                              sanitized service binary)
#   ./scripts/sanitize.sh kq_spatial_tests ... only these suites (faster on a
#                                              small machine); the other
#                                              suites' tests are left out;
#                                              "kqworldrepresentation kq"
#                                              gives the end-to-end tests
#
# BUILD_DIR (default build-asan) and JOBS (default 2) can be set in the
# environment; extra ctest options go in CTEST_ARGS (e.g. "-R Stress").
# Every process writes its reports to $BUILD_DIR/asan-reports/ (log_path), so
# a report from a process whose output no test reads, such as the service
# binary run by the python end-to-end tests, still fails the run. The script
# ends with a one-line summary and fails on a test failure or any report.
set -euo pipefail
cd "$(dirname "$0")/.."

BUILD_DIR="${BUILD_DIR:-build-asan}"
JOBS="${JOBS:-2}"
REPORTS="$PWD/$BUILD_DIR/asan-reports"
FLAGS="-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined"

cmake -S . -B "$BUILD_DIR" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKQ_BUILD_TESTS=ON -DKQ_BUILD_BENCH=OFF -DKQ_TSAN=OFF \
  -DCMAKE_CXX_FLAGS="$FLAGS" \
  -DCMAKE_EXE_LINKER_FLAGS="$FLAGS" -DCMAKE_SHARED_LINKER_FLAGS="$FLAGS"

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  cmake --build "$BUILD_DIR" -j "$JOBS"
else
  cmake --build "$BUILD_DIR" -j "$JOBS" --target "${targets[@]}"
fi

rm -rf "$REPORTS"
mkdir -p "$REPORTS"
# Reports go to files named after the process (log_path.<pid>), whoever
# started it; stop at the first one so it cannot be buried under later noise.
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:log_path=$REPORTS/asan${ASAN_OPTIONS:+:$ASAN_OPTIONS}"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:log_path=$REPORTS/ubsan${UBSAN_OPTIONS:+:$UBSAN_OPTIONS}"

status=0
(
  cd "$BUILD_DIR"
  if [ ${#targets[@]} -eq 0 ]; then
    ctest --output-on-failure -j "$JOBS" --timeout 900 ${CTEST_ARGS:-}
  else
    # Only the chosen suites' tests (the others show as *_NOT_BUILT); the
    # service binary among the targets brings the end-to-end and web tests (they also
    # need the kq client built).
    regex=""
    for target in "${targets[@]}"; do
      if [ "$target" = kqworldrepresentation ]; then
        regex="$regex|^e2e_|^web_"
        continue
      fi
      [[ "$target" == *_tests ]] || continue
      binary=$(find . -name "$target" -type f -perm -u+x | head -n 1)
      [ -n "$binary" ] || continue
      while read -r name; do
        regex="$regex|^${name//./\\.}\$"
      done < <("$binary" --gtest_list_tests | awk '/^[^ ]/ {suite = $1} /^  / {print suite $1}')
    done
    ctest --output-on-failure -j "$JOBS" --timeout 900 -R "${regex#|}" ${CTEST_ARGS:-}
  fi
) || status=$?

reports=$(find "$REPORTS" -type f | wc -l)
if [ "$reports" -gt 0 ]; then
  echo "Sanitizer reports in $REPORTS:"
  grep -h "SUMMARY:" "$REPORTS"/* | sort | uniq -c || true
  status=1
fi
if [ "$status" -eq 0 ]; then
  echo "sanitize: all tests passed, no AddressSanitizer/LeakSanitizer/UndefinedBehaviorSanitizer report."
else
  echo "sanitize: FAILED (ctest or sanitizer; $reports report file(s) in $REPORTS)."
fi
exit "$status"
