#!/usr/bin/env bash
# One full pass of the hostile-input suite under valgrind's memcheck: any
# invalid access or definite leak fails the run.
#   scripts/valgrind.sh [extra gtest filter]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scripts/setup.sh valgrind
scripts/build.sh build >/dev/null
# libhwy's load-time RDTSCP would stop valgrind: a stand-in for its timer,
# exported under libhwy's symbol version so that it takes libhwy's place.
shim=build/valgrind-hwy-shim.so
printf 'HWY_0 { global: *; };\n' > build/valgrind-hwy-shim.map
g++ -O2 -shared -fPIC tests/valgrind/hwy_timer_shim.cpp -Wl,--version-script=build/valgrind-hwy-shim.map -o "$shim"
filter=${1:-'HostileInput*:*/HostileInput.*'}
LD_PRELOAD=$PWD/$shim valgrind --tool=memcheck --leak-check=full --errors-for-leak-kinds=definite --error-exitcode=99 \
  --num-callers=30 --log-file=build/valgrind.log \
  build/tests/clipdec_tests --gtest_filter="$filter" 2> >(grep -v -e '^"' -e '^$' >&2) | grep -E '^\[( *OK|  FAILED|  PASSED|==========)'
status=${PIPESTATUS[0]}
grep -E 'ERROR SUMMARY|definitely lost|indirectly lost|possibly lost|still reachable|total heap usage' build/valgrind.log
exit "$status"
