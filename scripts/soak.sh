#!/usr/bin/env bash
# Ten minutes (or SECONDS) of steady playback and export over three files,
# sampling resident memory and the buffer pool; then mem_collection(0):
#   scripts/soak.sh [SECONDS]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
seconds=${1:-600}
scripts/setup.sh
scripts/build.sh build >/dev/null
scripts/gen_bench_media.sh build/bench-media
build/bench/clipdec_soak --seconds "$seconds" --every 30 \
  build/bench-media/bench_1080p.mp4 build/media/h264_cfr.mp4 build/media/pcm_s16.wav \
  2> >(grep -v -e '^"' -e '^$' -e 'filter' -e '^Output' >&2)
