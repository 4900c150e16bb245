#!/usr/bin/env bash
# The stress tests for SECONDS (default 60) under ThreadSanitizer: 16 threads and
# 24 decoders over 4 files through the public interface.
#   scripts/stress.sh [SECONDS]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
seconds=${1:-60}
scripts/setup.sh
scripts/build.sh build-tsan -DCLIPDEC_SANITIZE=thread -DCLIPDEC_BUILD_BENCH=OFF -DCLIPDEC_BUILD_TOOLS=OFF >/dev/null
CLIPDEC_STRESS_SECONDS=$seconds \
TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$root/tests/tsan.supp" \
  build-tsan/tests/clipdec_tests --gtest_filter='PublicStress.*' 2> >(grep -v -e '^"' -e '^$' >&2)
