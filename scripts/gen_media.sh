#!/usr/bin/env bash
# Generates the project's test media, deterministically, into OUT_DIR:
#   scripts/gen_media.sh OUT_DIR
#
# Every video frame shows its own index as 16 vertical bars (bar k, counted
# from the left, is white when bit k of the frame number is set), big enough to
# survive lossy coding. Lossless audio carries its position: sample n of
# channel c holds (n + 1000*c) mod 65536 - 32768 as a 16-bit value. Lossy audio
# is a plain tone. Files stay a few seconds long so the suite stays fast.
set -euo pipefail
out=${1:?usage: gen_media.sh OUT_DIR}
mkdir -p "$out"
cd "$out"

ff() { ffmpeg -hide_banner -loglevel error -nostdin -y "$@"; }
# No encoder version strings or creation times: the bytes depend only on the inputs.
exact=(-fflags +bitexact -flags:v +bitexact -flags:a +bitexact -map_metadata -1)

bars="geq=lum='if(bitand(N\,pow(2\,floor(X*16/W)))\,235\,16)':cb=128:cr=128"
frames() {  # frames RATE SECONDS [SIZE] -> an indexed video source
  echo "color=c=black:s=${3:-320x240}:r=$1:d=$2,format=yuv420p,$bars"
}
ramp() {  # ramp CHANNELS RATE SECONDS -> a position-carrying audio source
  local exprs=() c
  for ((c = 0; c < $1; c++)); do exprs+=("(mod(n+$((1000 * c))\,65536)-32768)/32768"); done
  local joined
  joined=$(IFS='|'; echo "${exprs[*]}")
  echo "aevalsrc=exprs=$joined:s=$2:d=$3"
}
tone() { echo "sine=frequency=${1}:sample_rate=${2}:duration=${3}"; }
x264=(-c:v libx264 -preset veryfast -crf 18 -bf 2 -g 25 -threads 1 -pix_fmt yuv420p)

# H.264 with B-frames, constant 25 fps, with an AAC tone.
ff -f lavfi -i "$(frames 25 4)" -f lavfi -i "$(tone 440 48000 4)" \
   "${x264[@]}" -c:a aac -b:a 128k -ac 2 "${exact[@]}" -movflags +faststart h264_cfr.mp4
# 12 s of H.264 with a key frame every 250 frames: far seeks decode for long.
ff -f lavfi -i "$(frames 25 12)" "${x264[@]}" -g 250 -keyint_min 250 -sc_threshold 0 "${exact[@]}" long_gop.mp4
# H.264 at 24000/1001 fps.
ff -f lavfi -i "$(frames 24000/1001 3)" "${x264[@]}" "${exact[@]}" h264_23976.mp4
# Variable frame rate: frame intervals alternate between 30 ms and 50 ms.
ff -f lavfi -i "$(frames 25 3),settb=1/1000,setpts='N*40+if(mod(N\,2)\,-10\,0)'" \
   "${x264[@]}" -fps_mode passthrough "${exact[@]}" vfr.mkv
# MPEG-TS whose timeline starts at 10 s, with MP2 audio.
ff -f lavfi -i "$(frames 25 3)" -f lavfi -i "$(tone 1000 48000 3)" \
   "${x264[@]}" -c:a mp2 -output_ts_offset 10 "${exact[@]}" ts_offset.ts
# VP9 + Opus in WebM.
ff -f lavfi -i "$(frames 25 2)" -f lavfi -i "$(tone 660 48000 2)" \
   -c:v libvpx-vp9 -deadline realtime -cpu-used 8 -b:v 500k -g 25 -threads 1 \
   -c:a libopus -b:a 96k "${exact[@]}" vp9_opus.webm
# AAC in M4A.
ff -f lavfi -i "$(tone 440 44100 3)" -c:a aac -b:a 128k -ac 2 "${exact[@]}" aac.m4a
# MP3 with a cover picture (a single-picture stream next to the audio).
ff -f lavfi -i "$(frames 1 1 64x64)" -frames:v 1 "${exact[@]}" cover.png
ff -f lavfi -i "$(tone 440 44100 3)" -i cover.png -map 0:a -map 1:v -c:a libmp3lame -b:a 128k \
   -c:v png -disposition:v attached_pic -id3v2_version 3 "${exact[@]}" mp3_cover.mp3
# 16-bit PCM WAV, stereo ramp at 48 kHz.
ff -f lavfi -i "$(ramp 2 48000 4)" -c:a pcm_s16le "${exact[@]}" pcm_s16.wav
# A minute of stereo ramp at 44.1 kHz in FLAC, for long runs of audio requests.
ff -f lavfi -i "$(ramp 2 44100 60)" -c:a flac -sample_fmt s16 "${exact[@]}" ramp60.flac
# Stereo ramps at 96 and 11.025 kHz, for conversions to the usual rates.
ff -f lavfi -i "$(ramp 2 96000 4)" -c:a flac -sample_fmt s16 "${exact[@]}" ramp96k.flac
ff -f lavfi -i "$(ramp 2 11025 4)" -c:a flac -sample_fmt s16 "${exact[@]}" ramp11k.flac
# AAC whose timestamps are irregular. Without an edit list, the MP4 muxer
# stretches the first AAC packet over the time the B-frame video starts late
# (its second frame comes thousands of samples after the first); a timestamp
# filter opens a 4410-sample gap after about a second of another.
ff -f lavfi -i "$(frames 25 2)" -f lavfi -i "$(tone 440 44100 2)" "${x264[@]}" -c:a aac -b:a 128k \
   -use_editlist 0 "${exact[@]}" aac_first_long.mp4
ff -f lavfi -i "$(tone 440 44100 2)" -c:a aac -b:a 128k "${exact[@]}" aac_plain.m4a
ff -i aac_plain.m4a -c copy -bsf:a "setts=ts=if(gte(TS\,44032)\,TS+4410\,TS)" "${exact[@]}" aac_gap.mp4
# A 440 Hz tone at 44.1 kHz in 32-bit float WAV, two channels.
ff -f lavfi -i "$(tone 440 44100 2)" -ac 2 -c:a pcm_f32le "${exact[@]}" tone_f32.wav
# Six-channel FLAC ramp at 48 kHz.
ff -f lavfi -i "$(ramp 6 48000 3)" -c:a flac -sample_fmt s16 "${exact[@]}" flac_6ch.flac
# Matroska with a SubRip and an ASS track.
cat > subs.srt <<'SRT'
1
00:00:00,500 --> 00:00:01,500
<i>first</i> line

2
00:00:02,000 --> 00:00:03,000
second line
SRT
ff -i subs.srt subs.ass
ff -f lavfi -i "$(frames 25 3)" -i subs.srt -i subs.ass -map 0:v -map 1:s -map 2:s \
   "${x264[@]}" -c:s:0 srt -c:s:1 ass "${exact[@]}" subs.mkv
# A single still picture: frame 5's bars.
ff -f lavfi -i "$(frames 25 1),select='eq(n\,5)'" -frames:v 1 "${exact[@]}" still.png
# MP4 whose video is to be displayed rotated by 90 degrees.
# (The muxer takes the rotation only when the stream is copied, not encoded.)
ff -f lavfi -i "$(frames 25 2)" "${x264[@]}" "${exact[@]}" unrotated.mp4
ff -i unrotated.mp4 -c copy -metadata:s:v:0 rotate=90 "${exact[@]}" rotated.mp4
# A TTML subtitle stream (FFmpeg has no decoder for it) before the video.
ff -i subs.srt -f lavfi -i "$(frames 25 2)" -map 0:s -map 1:v -c:s ttml "${x264[@]}" \
   "${exact[@]}" nodecoder_first.mp4
# Forty audio streams.
maps=()
for ((i = 0; i < 40; i++)); do maps+=(-map 0:a); done
ff -f lavfi -i "$(ramp 1 8000 1)" "${maps[@]}" -c:a pcm_s16le "${exact[@]}" audio40.mkv
# Raw H.264 and ADTS AAC: no container duration, so it must be measured.
ff -f lavfi -i "$(frames 25 3)" "${x264[@]}" "${exact[@]}" -f h264 raw.h264
ff -f lavfi -i "$(tone 440 48000 3)" -c:a aac -b:a 128k "${exact[@]}" -f adts adts.aac
# Broken files: empty, truncated, random bytes.
: > empty.mp4
size=$(stat -c %s h264_cfr.mp4)
head -c $((size * 6 / 10)) h264_cfr.mp4 > truncated.mp4
# Header only: the index is complete but no media data follows it, so every
# stream ends before its first frame.
mdat=$(grep -obUa mdat h264_cfr.mp4 | head -n 1 | cut -d: -f1)
head -c $((mdat + 4)) h264_cfr.mp4 > header_only.mp4
ff -f lavfi -i "anoisesrc=seed=7:amplitude=1:r=8000:d=2" -f u8 -ac 1 random.bin
rm -f subs.ass unrotated.mp4 aac_plain.m4a
