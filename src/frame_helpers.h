// Construction helpers for FFmpeg frames and audio result records.
#pragma once

#include <memory>

extern "C" {
#include <libavutil/frame.h>
}

#include "frame_records.h"

namespace ff {

// An audio frame with the default layout for `channels` and buffers for
// nb_samples samples whose content is left as allocated (for callers that
// overwrite it at once). Empty when allocation fails or nb_samples < 1.
std::shared_ptr<AVFrame> create_avframe_buffers(int channels, int sample_rate, int format, int nb_samples);

// Shares `f`; the last release calls av_frame_free. A null `f` gives an empty pointer.
std::shared_ptr<AVFrame> create_avframe_ptr(AVFrame* f);

// An audio frame with the default layout for `channels`. With nb_samples >= 1
// its buffers are allocated and silent; otherwise it has none (an output frame
// for the resampler to fill). `format` is an FFmpeg sample format number.
// Empty when allocation fails.
std::shared_ptr<AVFrame> create_avframe_with(int channels, int sample_rate, int format, int nb_samples);

// A zeroed audio record in pooled memory for `nb_samples` samples per channel
// in the request's format, rate and channel count; pts is the request's begin.
// Empty when the format is not a real sample format, the channel or sample
// count is below 1, or memory runs out.
std::shared_ptr<AFrameCtx> create_audioframe_ctx(const RequireAudioFrame& req, int nb_samples);

}  // namespace ff
