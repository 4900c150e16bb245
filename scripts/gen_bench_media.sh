#!/usr/bin/env bash
# Generates the benchmarks' media into OUT_DIR:
#   bench_1080p.mp4         10 s of 1080p25 H.264 (B-frames, key frame every 2 s)
#                           with a stereo AAC track;
#   bench_1080p_gop250.mp4  20 s of 1080p25 H.264 with a key frame every 250
#                           frames (10 s), where a far seek decodes for long;
#   bench_short_720p.mp4    2 s of 720p25 H.264 with AAC, a clip as imported
#                           by the hundred;
#   bench_60s.m4a           60 s of stereo AAC (a tone under noise);
#   bench_hour.wav          an hour of 48 kHz stereo 16-bit PCM (691 MB).
set -euo pipefail
out=${1:?usage: gen_bench_media.sh OUT_DIR}
mkdir -p "$out"
ff() { ffmpeg -hide_banner -loglevel error -nostdin -y "$@"; }
exact=(-fflags +bitexact -map_metadata -1 -movflags +faststart)
# generate NAME FFMPEG_ARGS...: writes NAME once, through a temporary file so that
# an interrupted run leaves nothing half-written behind.
generate() {
  local name=$1
  shift
  [ -s "$out/$name" ] && return 0
  ff "$@" "${exact[@]}" "$out/$name.tmp.${name##*.}"
  mv "$out/$name.tmp.${name##*.}" "$out/$name"
}
generate bench_1080p.mp4 -f lavfi -i "testsrc2=s=1920x1080:r=25:d=10" \
  -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=10" \
  -c:v libx264 -preset veryfast -crf 23 -bf 2 -g 50 -pix_fmt yuv420p -c:a aac -b:a 128k -ac 2
generate bench_1080p_gop250.mp4 -f lavfi -i "testsrc2=s=1920x1080:r=25:d=20" \
  -c:v libx264 -preset veryfast -crf 23 -bf 2 -g 250 -keyint_min 250 -sc_threshold 0 -pix_fmt yuv420p
generate bench_short_720p.mp4 -f lavfi -i "testsrc2=s=1280x720:r=25:d=2" \
  -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=2" \
  -c:v libx264 -preset veryfast -crf 23 -bf 2 -g 50 -pix_fmt yuv420p -c:a aac -b:a 128k -ac 2
generate bench_60s.m4a -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=60" \
  -f lavfi -i "anoisesrc=d=60:c=pink:r=48000:a=0.1" \
  -filter_complex "[0][1]amix=inputs=2,aformat=channel_layouts=stereo" -c:a aac -b:a 128k
generate bench_hour.wav -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=3600" -ac 2 -c:a pcm_s16le
