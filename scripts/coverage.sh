#!/usr/bin/env bash
# Measures line coverage of src/ by the test suites: configures build-cov
# (Debug, --coverage, benchmarks off, Ninja), builds everything, runs ctest
# and prints, with gcovr, one summary line per folder of src/ and the total.
#
#   ./scripts/coverage.sh                 every test
#   ./scripts/coverage.sh Spatial Path    only the tests matching one of these
#                                         ctest -R regexes (joined with |)
#
# BUILD_DIR (default build-cov) and JOBS (default 2) can be set in the
# environment. The counters are updated atomically (the suites run threads;
# plain counters race and gcov then reads negative counts). Counters are reset before each run, so the figures are those
# of this run only. A failing test is reported but coverage is still printed;
# the script then exits non-zero.
set -euo pipefail
cd "$(dirname "$0")/.."

BUILD_DIR="${BUILD_DIR:-build-cov}"
JOBS="${JOBS:-2}"

generator=()
if [ ! -f "$BUILD_DIR/CMakeCache.txt" ]; then
  generator=(-G Ninja)
fi
cmake -S . -B "$BUILD_DIR" "${generator[@]}" -DCMAKE_BUILD_TYPE=Debug \
  -DKQ_BUILD_TESTS=ON -DKQ_BUILD_BENCH=OFF \
  -DCMAKE_CXX_FLAGS="--coverage -fprofile-update=atomic" \
  -DCMAKE_EXE_LINKER_FLAGS="--coverage" -DCMAKE_SHARED_LINKER_FLAGS="--coverage"
cmake --build "$BUILD_DIR" -j "$JOBS"

# Counters left by an earlier run would add to this one's.
find "$BUILD_DIR" -name '*.gcda' -delete

ctest_args=(--output-on-failure -j "$JOBS" --timeout 600)
if [ $# -gt 0 ]; then
  regex=$(IFS='|'; echo "$*")
  ctest_args+=(-R "$regex")
fi
status=0
(cd "$BUILD_DIR" && ctest "${ctest_args[@]}") || status=$?

# CMake's compiler probe was built with --coverage too but has no source here.
summary="$BUILD_DIR/coverage-summary.json"
gcovr --root . --object-directory "$BUILD_DIR" --filter 'src/' --exclude-directories '.*/CompilerIdCXX' \
  -j "$JOBS" --json-summary "$summary" > /dev/null

# gcovr 5 lists files only; add them up per folder (not counting subfolders:
# src/middleware and src/middleware/net are separate lines).
python3 - "$summary" <<'PY'
import collections, json, os, sys
data = json.load(open(sys.argv[1]))
folders = collections.defaultdict(lambda: [0, 0])
for entry in data["files"]:
    folder = folders[os.path.dirname(entry["filename"])]
    folder[0] += entry["line_covered"]
    folder[1] += entry["line_total"]
def line(name, covered, total):
    percent = 100.0 * covered / total if total else 0.0
    print(f"{name:<28} {covered:>6} / {total:<6} lines  {percent:5.1f}%")
print("Line coverage of src/:")
for name in sorted(folders):
    line(name, *folders[name])
line("TOTAL", data["line_covered"], data["line_total"])
PY

if [ "$status" -ne 0 ]; then
  echo "Some tests failed (ctest exit status $status)."
fi
exit "$status"
