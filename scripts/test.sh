#!/usr/bin/env bash
# Sets up, builds and runs every test through CTest: a normal build, the whole
# suite under AddressSanitizer + UndefinedBehaviorSanitizer, and the suite
# under ThreadSanitizer. Exits non-zero on any failure.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scripts/setup.sh

jobs=$(nproc 2>/dev/null || echo 2)
run_ctest() {
  ctest --test-dir "$1" --output-on-failure -j "$jobs" --timeout 600
}

echo "== normal build"
scripts/build.sh build
run_ctest build

echo "== AddressSanitizer + UndefinedBehaviorSanitizer"
# The tool is built here too, so that its end-to-end tests run it under the sanitizers.
scripts/build.sh build-asan "-DCLIPDEC_SANITIZE=address;undefined" -DCLIPDEC_BUILD_BENCH=OFF
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_ctest build-asan

echo "== ThreadSanitizer"
scripts/build.sh build-tsan -DCLIPDEC_SANITIZE=thread \
  -DCLIPDEC_BUILD_BENCH=OFF -DCLIPDEC_BUILD_TOOLS=OFF
TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$root/tests/tsan.supp" \
  run_ctest build-tsan

echo "all tests passed"
scripts/test_ratio.py  # tests are kept to about a quarter to a third of the code
