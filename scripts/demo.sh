#!/usr/bin/env bash
# Sets up, builds and runs the example host program on a few real inputs.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scripts/setup.sh
scripts/build.sh build >/dev/null
tool=build/tools/clipdec

media=build/media

echo "\$ clipdec info"
"$tool" info
echo
echo "\$ clipdec time 1001/30000 1/90000"
"$tool" time 1001/30000 1/90000
echo
echo "\$ clipdec md5 README.md"
"$tool" md5 README.md
echo
echo "\$ clipdec pool 1920x1080"
"$tool" pool 1920x1080
echo
for movie in h264_cfr.mp4 subs.mkv mp3_cover.mp3; do
  echo "\$ clipdec probe $media/$movie"
  "$tool" probe "$media/$movie"
  echo
done
echo "sample media: $root/$media"
