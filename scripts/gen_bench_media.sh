#!/usr/bin/env bash
# Generates the benchmarks' media into OUT_DIR: a 10-second 1080p H.264 MP4
# (25 fps, B-frames, key frame every 2 s) with a stereo AAC track.
set -euo pipefail
out=${1:?usage: gen_bench_media.sh OUT_DIR}
mkdir -p "$out"
[ -s "$out/bench_1080p.mp4" ] && exit 0
ffmpeg -hide_banner -loglevel error -nostdin -y \
  -f lavfi -i "testsrc2=s=1920x1080:r=25:d=10" -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=10" \
  -c:v libx264 -preset veryfast -crf 23 -bf 2 -g 50 -pix_fmt yuv420p \
  -c:a aac -b:a 128k -ac 2 -fflags +bitexact -map_metadata -1 -movflags +faststart \
  "$out/bench_1080p.mp4.tmp.mp4"
mv "$out/bench_1080p.mp4.tmp.mp4" "$out/bench_1080p.mp4"
