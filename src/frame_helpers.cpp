#include "frame_helpers.h"

#include <cstring>

extern "C" {
#include <libavutil/samplefmt.h>
}

#include "ff_compat.h"
#include "ff_ptr.h"
#include "utils/mempool.h"

namespace ff {

std::shared_ptr<AVFrame> create_avframe_ptr(AVFrame* f) {
    if (!f) return {};
    return std::shared_ptr<AVFrame>(f, AVFrameDeleter());
}

namespace {

std::shared_ptr<AVFrame> audio_frame(int channels, int sample_rate, int format, int nb_samples) {
    std::shared_ptr<AVFrame> frame = create_avframe_ptr(av_frame_alloc());
    if (!frame) return {};
    compat_frame_set_channels(frame.get(), channels, compat_default_channel_layout(channels));
    frame->sample_rate = sample_rate;
    frame->nb_samples = nb_samples;
    frame->format = format;
    if (nb_samples >= 1 && av_frame_get_buffer(frame.get(), 1) < 0) return {};
    return frame;
}

}  // namespace

std::shared_ptr<AVFrame> create_avframe_with(int channels, int sample_rate, int format, int nb_samples) {
    std::shared_ptr<AVFrame> frame = audio_frame(channels, sample_rate, format, nb_samples);
    if (frame && nb_samples >= 1)
        av_samples_set_silence(frame->extended_data, 0, nb_samples, channels, static_cast<AVSampleFormat>(format));
    return frame;
}

std::shared_ptr<AVFrame> create_avframe_buffers(int channels, int sample_rate, int format, int nb_samples) {
    if (nb_samples < 1) return {};
    return audio_frame(channels, sample_rate, format, nb_samples);
}

std::shared_ptr<AFrameCtx> create_audioframe_ctx(const RequireAudioFrame& req, int nb_samples) {
    const auto fmt = static_cast<AVSampleFormat>(samplefmt_to_avsamplefmt(req.format));
    const int size = av_samples_get_buffer_size(nullptr, req.channels, nb_samples, fmt, 1);
    if (size < 0) return {};
    // The record first: a block it owns cannot leak if making it throws.
    auto ctx = std::make_shared<AFrameCtx>();
    void* block = bg::mempool::malloc(static_cast<unsigned>(size), 16);
    if (!block) return {};
    std::memset(block, 0, static_cast<size_t>(size));
    ctx->buffer = block;
    ctx->channels = req.channels;
    ctx->sample_rate = req.sample_rate;
    ctx->format = fmt;
    ctx->planar = av_sample_fmt_is_planar(fmt) != 0;
    ctx->nb_samples = nb_samples;
    ctx->size = size;
    ctx->pts = time_to_timestamp(req.range.begin, Rational(1, 1000000));
    av_samples_fill_arrays(ctx->data, ctx->linesize, static_cast<const uint8_t*>(block), req.channels,
                           nb_samples, fmt, 1);
    return ctx;
}

}  // namespace ff
