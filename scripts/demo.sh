#!/usr/bin/env bash
# The README's first command: sets up, builds the library and its command-line
# tool, generates a short sample movie and shows the tool working on it.
# Everything it writes goes to build-demo/.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scripts/setup.sh

echo "== building the library and the clipdec tool (build-demo/)"
cmake -S . -B build-demo -DCLIPDEC_BUILD_TESTS=OFF -DCLIPDEC_BUILD_BENCH=OFF >/dev/null
cmake --build build-demo -j "$(nproc 2>/dev/null || echo 2)" >/dev/null
tool=$root/build-demo/tools/clipdec
out=$root/build-demo/demo
rm -rf "$out"
mkdir -p "$out"

echo "== generating a 6-second sample movie and a tone"
# A moving test picture with a running clock, and a tone that swells and fades.
ffmpeg -nostdin -hide_banner -loglevel error -y \
  -f lavfi -i "testsrc2=size=640x360:rate=25:duration=6" \
  -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=6,volume='1.6+4.8*abs(sin(t))':eval=frame" \
  -c:v libx264 -preset veryfast -pix_fmt yuv420p -g 50 -c:a aac -b:a 128k -shortest "$out/sample.mp4"
ffmpeg -nostdin -hide_banner -loglevel error -y \
  -f lavfi -i "sine=frequency=660:sample_rate=44100:duration=3,volume=6,afade=t=in:d=1.5" -c:a pcm_s16le "$out/tone.wav"

run() {
  echo
  echo "\$ clipdec $*"
  "$tool" "$@"
}
run probe "$out/sample.mp4"
run thumb "$out/sample.mp4" --at 2.5 --size 320x0 -o "$out/thumb.png"
run frames "$out/sample.mp4" --from 1 --to 2 --fps 5 --size 160x0 -o "$out/frames"
run audio "$out/sample.mp4" --range 0:4 --rate 44100 -o "$out/audio.wav"
run mix "$out/sample.mp4@0.8" "$out/tone.wav@0.6+2" --peaks "$out/levels.png" -o "$out/mix.wav"
run waveform "$out/sample.mp4" -o "$out/waveform.png"
run filmstrip "$out/sample.mp4" -n 6 --size 160x0 -o "$out/filmstrip.png"

if [ -d "$root/build-demo/python/clipdec" ]; then
  echo
  echo "\$ python3 examples/python_quickstart.py sample.mp4"
  PYTHONPATH=$root/build-demo/python /usr/bin/python3 "$root/examples/python_quickstart.py" "$out/sample.mp4" \
    2> >(grep -v -e '^\[filter\]' -e '^close filter' >&2) | grep -v '^"'
fi

echo
echo "outputs in $out:"
echo "  thumb.png         the picture on screen at 2.5 s, 320 pixels wide"
echo "  frames/           five pictures a second from 1 s to 2 s"
echo "  audio.wav         the first 4 s of audio at 44.1 kHz"
echo "  mix.wav           the movie's audio with the tone entering at 2 s"
echo "  levels.png        the mix's peak levels"
echo "  waveform.png      the movie's audio waveform, with a time axis and a dBFS scale"
echo "  filmstrip.png     six pictures spread over the movie, each with its time"
echo "more: $tool --help"
