#!/usr/bin/env bash
# What the suite covers: builds build-coverage/ with gcc --coverage, runs every
# test through CTest, prints the line and branch coverage of src/ (gcovr) and
# the test/code line ratio.
#   scripts/coverage.sh
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scripts/setup.sh gcovr

# Atomic counters: threads of the library and of FFmpeg's callbacks update
# them at once, and plain ones can come out negative.
flags="--coverage -O0 -fprofile-update=atomic"
scripts/build.sh build-coverage -DCMAKE_BUILD_TYPE=Debug -DCLIPDEC_BUILD_BENCH=OFF \
  "-DCMAKE_CXX_FLAGS=$flags" "-DCMAKE_EXE_LINKER_FLAGS=--coverage" \
  "-DCMAKE_SHARED_LINKER_FLAGS=--coverage" "-DCMAKE_MODULE_LINKER_FLAGS=--coverage" >/dev/null
find build-coverage -name '*.gcda' -delete
ctest --test-dir build-coverage -j "$(nproc 2>/dev/null || echo 2)" --timeout 1200 --output-on-failure >/dev/null
# The per-file report goes to a file of the tree: gcovr replaces its output
# file instead of writing into it, so given /dev/null it would put a regular
# file in the device's place.
gcovr --root "$root" --filter "$root/src/" --object-directory build-coverage \
  --exclude-directories '.*/CMakeFiles/[0-9.]+/.*' --print-summary --txt build-coverage/coverage.txt
echo "per file: build-coverage/coverage.txt"
scripts/test_ratio.py
