#!/usr/bin/env bash
# Generates the hostile-input suite, deterministically, into OUT_DIR from the
# test media in MEDIA_DIR (scripts/gen_media.sh):
#   scripts/gen_hostile.sh OUT_DIR MEDIA_DIR
#
# A file's name says what the library must answer:
#   ok_*    a real movie under an odd name: frames must come out
#   bad_*   not a movie at all: the probe must fail
#   any_*   damaged or absurd: any answer, as long as nothing crashes, hangs or leaks
set -euo pipefail
out=${1:?usage: gen_hostile.sh OUT_DIR MEDIA_DIR}
media=$(cd "${2:?usage: gen_hostile.sh OUT_DIR MEDIA_DIR}" && pwd)
rm -rf "$out"
mkdir -p "$out"
cd "$out"

ff() { ffmpeg -hide_banner -loglevel error -nostdin -y "$@"; }
exact=(-fflags +bitexact -flags:v +bitexact -flags:a +bitexact -map_metadata -1)
x264=(-c:v libx264 -preset veryfast -g 25 -threads 1 -pix_fmt yuv420p)
noise() {  # noise SEED BYTES FILE: deterministic pseudo-random bytes
  ff -f lavfi -i "anoisesrc=seed=$1:amplitude=1:r=48000:d=$(($2 / 48000 + 1))" -f u8 -ac 1 noise.raw
  head -c "$2" noise.raw > "$3"
  rm noise.raw
}
patch() {  # patch FILE OFFSET HEXBYTES: overwrite bytes in place
  printf "$(sed 's/\(..\)/\\x\1/g' <<<"$3")" | dd of="$1" bs=1 seek="$2" conv=notrunc status=none
}
truncate_at() {  # truncate_at SOURCE PERCENT NAME
  local size
  size=$(stat -c %s "$1")
  head -c $((size * $2 / 100)) "$1" > "$3"
}

cfr=$media/h264_cfr.mp4

# ---- nothing to read
: > bad_zero_bytes.mp4
mkdir bad_directory.mp4
ln -s does/not/exist.mp4 bad_dangling_link.mp4
ln -s /proc/self/mem bad_unreadable_proc_mem.mp4      # reading it fails with EIO, even for root
cp "$cfr" bad_no_permission.mp4 && chmod 000 bad_no_permission.mp4  # root still reads it
[ "$(id -u)" -eq 0 ] && mv bad_no_permission.mp4 any_no_permission_as_root.mp4

# ---- truncated at many points
for p in 1 3 10 25 50 75 90 99; do truncate_at "$cfr" "$p" "any_truncated_${p}pct.mp4"; done
for p in 5 50 95; do truncate_at "$media/vfr.mkv" "$p" "any_truncated_${p}pct.mkv"; done
for p in 20 60; do truncate_at "$media/ts_offset.ts" "$p" "any_truncated_${p}pct.ts"; done
head -c 30 "$media/pcm_s16.wav" > any_truncated_in_header.wav
mdat=$(grep -obUa mdat "$cfr" | head -n 1 | cut -d: -f1)
head -c $((mdat + 4)) "$cfr" > any_header_only.mp4

# ---- random and corrupted bytes
noise 11 64 any_random_64.mp4
noise 12 100000 any_random_100k.mkv
noise 13 5000 any_random_5k.wav
cp "$cfr" any_corrupt_middle.mp4
size=$(stat -c %s "$cfr")
for k in 3 4 5 6 7; do
  dd if=/dev/zero of=any_corrupt_middle.mp4 bs=1 count=512 seek=$((size * k / 10)) conv=notrunc status=none
done
cp "$media/vfr.mkv" any_corrupt_mkv.mkv
noise 14 4096 chunk.bin
dd if=chunk.bin of=any_corrupt_mkv.mkv bs=1 seek=2000 conv=notrunc status=none
rm chunk.bin

# ---- wrong extension
cp "$media/still.png" any_png_named.mp4
cp "$cfr" any_mp4_named.wav
cp "$media/pcm_s16.wav" any_wav_named.mkv

# ---- odd names of a good movie
cp "$cfr" "ok_name with spaces.mp4"
cp "$cfr" "ok_quote's \"double\".mp4"
cp "$cfr" "ok_ünïcødé 视频 ファイル.mp4"
cp "$cfr" "ok_semi;colon&amp|pipe.mp4"

# ---- absurd sizes in headers
printf 'YUV4MPEG2 W65536 H65536 F25:1 Ip A1:1 C420jpeg\nFRAME\n' > any_huge_y4m.y4m
head -c 4096 /dev/zero >> any_huge_y4m.y4m
printf 'YUV4MPEG2 W0 H0 F25:1 Ip A1:1 C420jpeg\nFRAME\n' > any_zero_size_y4m.y4m
cp "$media/still.png" any_huge_png.png
patch any_huge_png.png 16 7fffffff7fffffff        # IHDR width and height
cp "$media/still.png" any_zero_png.png
patch any_zero_png.png 16 0000000000000000
ff -f lavfi -i "color=c=red:s=64x64:d=1" -frames:v 1 "${exact[@]}" any_huge_bmp.bmp
patch any_huge_bmp.bmp 18 ffffff7fffffff7f        # BITMAPINFOHEADER width and height

# ---- impossible audio parameters
ff -f lavfi -i "sine=frequency=440:sample_rate=8000:duration=1" -c:a pcm_s16le "${exact[@]}" tone.wav
cp tone.wav any_zero_channels.wav && patch any_zero_channels.wav 22 0000
cp tone.wav any_zero_rate.wav && patch any_zero_rate.wav 24 00000000
cp tone.wav any_huge_data_size.wav && patch any_huge_data_size.wav 40 ffffffff
cp tone.wav any_absurd_channels.wav && patch any_absurd_channels.wav 22 ff7f
rm tone.wav

# ---- changes in mid-stream
ff -f lavfi -i "testsrc=size=320x240:rate=25:duration=1" "${x264[@]}" "${exact[@]}" -f mpegts big.ts
ff -f lavfi -i "testsrc=size=160x96:rate=25:duration=1" "${x264[@]}" "${exact[@]}" -f mpegts small.ts
cat big.ts small.ts big.ts > any_size_change.ts
ff -f lavfi -i "sine=frequency=440:sample_rate=44100:duration=1" -c:a libmp3lame "${exact[@]}" a.mp3
ff -f lavfi -i "sine=frequency=440:sample_rate=22050:duration=1" -c:a libmp3lame "${exact[@]}" b.mp3
cat a.mp3 b.mp3 a.mp3 > any_rate_change.mp3
ff -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=1" -c:a aac "${exact[@]}" -f adts a.aac
ff -f lavfi -i "sine=frequency=440:sample_rate=16000:duration=1" -ac 2 -c:a aac "${exact[@]}" -f adts b.aac
cat a.aac b.aac > any_rate_and_layout_change.aac
rm big.ts small.ts a.mp3 b.mp3 a.aac b.aac

# ---- many streams
maps=()
for ((i = 0; i < 40; i++)); do maps+=(-map 0:v); done
ff -f lavfi -i "testsrc=size=64x48:rate=5:duration=1" "${maps[@]}" -c:v mpeg4 "${exact[@]}" any_40_video_streams.mkv
cp "$media/audio40.mkv" any_40_audio_streams.mkv

# ---- text where a movie is expected
printf '1\n00:00:00,000 --> 99:99:99,999\n%s\n\n' "$(head -c 2000 /dev/zero | tr '\0' 'x')" > any_subtitles_only.srt
printf 'not a movie at all, just a sentence.\n' > any_plain_text.mp4

