#!/usr/bin/env bash
# Installs the library into a scratch prefix, then builds and runs a tiny host
# against it twice: through the CMake package and through pkg-config.
# Also checks that only the public interface is exported.
set -euo pipefail
src=$1 bin=$2 work=$3
rm -rf "$work"
mkdir -p "$work"
prefix="$work/prefix"

cmake --install "$bin" --prefix "$prefix" >/dev/null
lib=$(find "$prefix" -name 'libclipdec.so' | head -n 1)
pc=$(find "$prefix" -name 'clipdec.pc' | head -n 1)
[ -n "$lib" ] && [ -n "$pc" ] || { echo "install is missing libclipdec.so or clipdec.pc"; exit 1; }
libdir=$(dirname "$lib")

# Internal code stays hidden; the public interface is exported.
exports=$(nm -D --defined-only -C "$lib")
grep -q 'ff::Rational::operator+' <<<"$exports" || { echo "public symbol not exported"; exit 1; }
if grep -q 'ff::rational_convert' <<<"$exports"; then echo "internal symbol exported"; exit 1; fi

# The installed tool runs without help from the environment.
"$prefix/bin/clipdec" probe "$bin/media/h264_cfr.mp4" | grep -q '320x240' || { echo "installed tool failed"; exit 1; }

echo "-- CMake package"
cmake -S "$src/tests/consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
LD_LIBRARY_PATH="$libdir" "$work/cmake-build/consumer"

echo "-- pkg-config"
flags=$(PKG_CONFIG_PATH=$(dirname "$pc") pkg-config --cflags --libs clipdec)
# shellcheck disable=SC2086
g++ -std=c++17 -Wall -Wextra -Werror "$src/tests/consumer/main.cpp" -o "$work/pc-consumer" $flags
LD_LIBRARY_PATH="$libdir" "$work/pc-consumer"

echo "-- examples/"
cmake -S "$src/examples" -B "$work/examples-build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/examples-build" >/dev/null
out=$(LD_LIBRARY_PATH="$libdir" "$work/examples-build/minimal_host" "$bin/media/h264_cfr.mp4")
echo "$out"
grep -q 'picture at 1 s: 320x240 RGBA, shown from 1.000 s' <<<"$out" || { echo "example host: wrong picture"; exit 1; }
grep -q 'audio 0.05-0.10 s: 2400 samples' <<<"$out" || { echo "example host: wrong audio span"; exit 1; }

echo "-- Python"
module=$(find "$prefix" -path '*/dist-packages/clipdec/__init__.py' | head -n 1)
if [ -n "$module" ]; then
  # From elsewhere than the source tree, without LD_LIBRARY_PATH: the module
  # finds the installed library itself.
  out=$(cd "$work" && PYTHONPATH=$(dirname "$(dirname "$module")") /usr/bin/python3 -c "
import clipdec
with clipdec.VideoDecoder('$bin/media/h264_cfr.mp4') as v:
    f = v.frame_at(1)
print('python picture', f.data.shape, f.pts)
" 2>/dev/null | grep '^python picture')
  echo "$out"
  grep -q "python picture (240, 320, 4) 1" <<<"$out" || { echo "installed Python module failed"; exit 1; }
else
  echo "(no Python module in this tree)"
fi
