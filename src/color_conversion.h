// How a decoded picture's colours are carried into the picture a host asked
// for: which matrix and range the source really uses, which scaler flags keep
// its chroma and alpha, and the scaler settings that say when a cached
// libswscale context must be rebuilt.
//
// The source's colour description:
// - matrix: the frame's own tag (BT.709; BT.601 as SMPTE 170M or BT.470BG;
//   SMPTE 240M; FCC; BT.2020, constant luminance taken as non-constant).
//   Untagged frames (or tags libswscale has no matrix for) follow the
//   customary convention: BT.709 when the picture is at least 1280 wide or
//   taller than 576 lines, BT.601 otherwise.
// - range: the frame's own tag; untagged YUV is limited range unless its
//   format is a `yuvj` one; untagged RGB, gray and palette pictures are full.
// The target's: RGB targets are full range; YUV targets keep the source's
// matrix in limited range (what a reader of yuv420p or NV12 expects).
#pragma once

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

namespace ff {

// Everything a scaler context is built from; equal settings reuse it.
struct ScalerSettings {
    int src_width = 0;
    int src_height = 0;
    AVPixelFormat src_format = AV_PIX_FMT_NONE;  // `yuvj` formats as their plain twins
    int dst_width = 0;
    int dst_height = 0;
    AVPixelFormat dst_format = AV_PIX_FMT_NONE;
    int flags = 0;
    AVColorSpace src_matrix = AVCOL_SPC_UNSPECIFIED;
    bool src_full_range = false;
    AVColorSpace dst_matrix = AVCOL_SPC_UNSPECIFIED;
    bool dst_full_range = false;

    bool operator==(const ScalerSettings& o) const;
    bool operator!=(const ScalerSettings& o) const { return !(*this == o); }
};

// The matrix `frame` was encoded with: its tag, or the convention above.
AVColorSpace source_matrix(const AVFrame& frame);
// Whether `frame` uses the full range of its sample values.
bool source_full_range(const AVFrame& frame);
// Scaler flags for pictures of `src_format`, converted at their own size or
// resized.
int scaler_flags_for(AVPixelFormat src_format, bool resizing);
// The settings that convert `frame` into a dst_width x dst_height picture of
// `dst_format`.
ScalerSettings scaler_settings_for(const AVFrame& frame, int dst_width, int dst_height, AVPixelFormat dst_format);

// A context for `wanted`: `*sws` itself when `*current` already equals it,
// otherwise a new one that replaces (and frees) `*sws`. Null, with `*sws`
// freed, when libswscale cannot convert between the formats.
SwsContext* prepare_scaler(SwsContext** sws, ScalerSettings* current, const ScalerSettings& wanted);

}  // namespace ff
