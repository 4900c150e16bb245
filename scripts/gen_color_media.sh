#!/usr/bin/env bash
# Generates the colour test media, deterministically, into OUT_DIR:
#   scripts/gen_color_media.sh OUT_DIR
#
# Each picture keeps the frame-index bars of the other test media in its top
# 9/16 (bar k white when bit k of the frame number is set), so the frame is
# still identified, and shows 16 flat patches of known 8-bit RGB below them:
# 8 columns by 2 rows filling the bottom 7/16. Patch p (column + 8 * row)
# holds PATCH_R/G/B[p] below; in the alpha media its alpha is
# PATCH_A[p % 3]. tests/color_fidelity_test.cpp holds the same table.
# The line media hold 1-pixel coloured lines below the bars instead.
#
# Each file is encoded losslessly or nearly so, so that the test measures the
# library's conversion and not the codec.
set -euo pipefail
out=${1:?usage: gen_color_media.sh OUT_DIR}
mkdir -p "$out"
cd "$out"

ff() { ffmpeg -hide_banner -loglevel error -nostdin -y "$@"; }
exact=(-fflags +bitexact -flags:v +bitexact -map_metadata -1)

#               red grn blu cyn mag yel skin1 skin2 skin3 blk g24 g64 g128 g192 wht orng
PATCH_R=(255 0   0   0   255 255 230 198 141 0   24  64  128 192 255 200)
PATCH_G=(0   255 0   255 0   255 180 134 85  0   24  64  128 192 255 100)
PATCH_B=(0   0   255 255 255 0   150 66  36  0   24  64  128 192 255 50)
PATCH_A=(255 128 0)

# pick ARRAY -> a geq expression giving ARRAY[p], with p in register 0.
pick() {
  local -n values=$1
  local expr=${values[15]} p
  for ((p = 14; p >= 0; p--)); do expr="if(eq(ld(0)\\,$p)\\,${values[$p]}\\,$expr)"; done
  echo "$expr"
}
in_bars='lt(16*Y\,9*H)'
bar='if(bitand(N\,pow(2\,floor(X*16/W)))\,255\,0)'
patch_index='st(0\,floor(X*8/W)+8*floor((16*Y-9*H)*2/(7*H)))'
channel() { echo "$patch_index;if($in_bars\\,$bar\\,$(pick "$1"))"; }
alphas=(); for ((p = 0; p < 16; p++)); do alphas+=("${PATCH_A[$((p % 3))]}"); done
alpha="$patch_index;if($in_bars\\,255\\,$(pick alphas))"

# patches SIZE FRAMES [alpha] -> an RGB(A) source of indexed frames with patches
patches() {
  local fmt=gbrp geq="geq=r='$(channel PATCH_R)':g='$(channel PATCH_G)':b='$(channel PATCH_B)'"
  if [ "${3:-}" = alpha ]; then fmt=rgba; geq="$geq:a='$alpha'"; fi
  echo "color=c=black:s=$1:r=25:d=$2,format=$fmt,$geq"
}
# lines SIZE -> an RGB source of indexed frames with 1-pixel coloured lines
lines() {
  local r="if($in_bars\\,$bar\\,if(eq(mod(X\\,3)\\,0)\\,255\\,if(eq(mod(Y\\,4)\\,1)\\,40\\,0)))"
  local g="if($in_bars\\,$bar\\,if(eq(mod(X\\,3)\\,1)\\,220\\,if(eq(mod(X+Y\\,5)\\,0)\\,255\\,30)))"
  local b="if($in_bars\\,$bar\\,if(eq(mod(X\\,3)\\,2)\\,255\\,if(eq(mod(Y\\,4)\\,3)\\,180\\,10)))"
  echo "color=c=black:s=$1:r=25:d=0.2,format=gbrp,geq=r='$r':g='$g':b='$b'"
}
# to_yuv MATRIX RANGE FORMAT -> an accurate RGB to YUV conversion
to_yuv() { echo "scale=out_color_matrix=$1:out_range=$2:flags=accurate_rnd+full_chroma_int+full_chroma_inp,format=$3"; }
tags() {  # tags MATRIX RANGE PRIMARIES TRANSFER -> the stream's colour description
  echo "-colorspace $1 -color_range $2 -color_primaries $3 -color_trc $4"
}
x264_lossless=(-c:v libx264 -qp 0 -preset veryfast -g 25 -threads 1)
x265_lossless=(-c:v libx265 -x265-params lossless=1:log-level=error:pools=1:frame-threads=1)

# Tagged BT.709 and BT.601, limited range, in H.264.
ff -f lavfi -i "$(patches 1280x720 0.2),$(to_yuv bt709 tv yuv420p)" "${x264_lossless[@]}" \
   $(tags bt709 tv bt709 bt709) "${exact[@]}" color_bt709.mp4
ff -f lavfi -i "$(patches 640x480 0.2),$(to_yuv smpte170m tv yuv420p)" "${x264_lossless[@]}" \
   $(tags smpte170m tv smpte170m smpte170m) "${exact[@]}" color_bt601.mp4
# BT.2020 non-constant, 10 bits, tagged as PQ (HDR) in HEVC.
ff -f lavfi -i "$(patches 1280x720 0.2),$(to_yuv bt2020 tv yuv420p10le)" "${x265_lossless[@]}" \
   $(tags bt2020nc tv bt2020 smpte2084) "${exact[@]}" color_bt2020_10bit.mp4
# Full range: H.264 as yuvj420p, VP9 and HEVC tagged "pc".
ff -f lavfi -i "$(patches 1280x720 0.2),$(to_yuv bt709 pc yuvj420p)" "${x264_lossless[@]}" \
   $(tags bt709 pc bt709 bt709) "${exact[@]}" color_full_h264.mp4
ff -f lavfi -i "$(patches 1280x720 0.2),$(to_yuv bt709 pc yuv420p)" \
   -c:v libvpx-vp9 -lossless 1 -deadline realtime -cpu-used 8 -threads 1 \
   $(tags bt709 pc bt709 bt709) "${exact[@]}" color_full_vp9.webm
ff -f lavfi -i "$(patches 1280x720 0.2),$(to_yuv bt709 pc yuv420p)" "${x265_lossless[@]}" \
   $(tags bt709 pc bt709 bt709) "${exact[@]}" color_full_hevc.mp4
# Untagged: BT.601 for standard definition, BT.709 for HD, both limited range.
ff -f lavfi -i "$(patches 640x480 0.2),$(to_yuv bt601 tv yuv420p)" "${x264_lossless[@]}" \
   "${exact[@]}" color_untagged_sd.mp4
ff -f lavfi -i "$(patches 1280x720 0.2),$(to_yuv bt709 tv yuv420p)" "${x264_lossless[@]}" \
   "${exact[@]}" color_untagged_hd.mp4
# Alpha: ProRes 4444, PNG, QuickTime Animation and VP9 with alpha.
ff -f lavfi -i "$(patches 320x240 0.2 alpha),$(to_yuv smpte170m tv yuva444p10le)" \
   -c:v prores_ks -profile:v 4444 -alpha_bits 16 -qscale:v 1 -vendor apl0 \
   $(tags smpte170m tv smpte170m smpte170m) "${exact[@]}" alpha_prores4444.mov
ff -f lavfi -i "$(patches 320x240 0.2 alpha)" -c:v png -pix_fmt rgba "${exact[@]}" alpha_png.mov
ff -f lavfi -i "$(patches 320x240 0.2 alpha)" -c:v qtrle -pix_fmt argb "${exact[@]}" alpha_qtrle.mov
ff -f lavfi -i "$(patches 320x240 0.2 alpha),$(to_yuv bt601 tv yuva420p)" \
   -c:v libvpx-vp9 -lossless 1 -deadline realtime -cpu-used 8 -threads 1 -auto-alt-ref 0 \
   $(tags smpte170m tv smpte170m smpte170m) "${exact[@]}" alpha_vp9.webm
# Fine coloured detail in 10-bit 4:4:4 and 4:2:2 and in 12-bit 4:2:0 (lossless FFV1).
for fmt in yuv444p10le yuv422p10le yuv420p12le; do
  ff -f lavfi -i "$(lines 320x240),$(to_yuv bt709 tv $fmt)" -c:v ffv1 -threads 1 \
     $(tags bt709 tv bt709 bt709) "${exact[@]}" "lines_${fmt%le}.mkv"
done
