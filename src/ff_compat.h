// Every difference between the FFmpeg 4.x interface the library is written
// against and the releases it builds with lives here, each guard saying which
// release changed what. Deprecation warnings stay inside this header.
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavfilter/version.h>
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libavutil/version.h>
}

// FFmpeg 5.0 (libavcodec 59) made codec look-ups return `const AVCodec*`.
#if LIBAVCODEC_VERSION_MAJOR >= 59
#define CLIPDEC_AVCODEC_CONST const
#else
#define CLIPDEC_AVCODEC_CONST
#endif

// FFmpeg 5.1 (libavutil 57.24) added AVChannelLayout (`ch_layout`) and
// deprecated the 64-bit mask plus separate count that the library works with.
#if LIBAVUTIL_VERSION_INT >= AV_VERSION_INT(57, 24, 100)
#define CLIPDEC_HAS_CH_LAYOUT 1
#else
#define CLIPDEC_HAS_CH_LAYOUT 0
#endif

#define CLIPDEC_COMPAT_DEPRECATED_BEGIN \
    _Pragma("GCC diagnostic push") _Pragma("GCC diagnostic ignored \"-Wdeprecated-declarations\"")
#define CLIPDEC_COMPAT_DEPRECATED_END _Pragma("GCC diagnostic pop")

namespace ff {

using AVCodecPtr = CLIPDEC_AVCODEC_CONST AVCodec*;

// FFmpeg 5.0 (libavcodec 59) removed avcodec_register_all: codecs are
// registered statically. On older releases it is called.
inline void compat_register_all() {
#if LIBAVCODEC_VERSION_MAJOR < 59
    avcodec_register_all();
#endif
}

// FFmpeg's default channel mask for a channel count (0 when it has none).
inline uint64_t compat_default_channel_layout(int channels) {
#if CLIPDEC_HAS_CH_LAYOUT
    AVChannelLayout layout{};
    av_channel_layout_default(&layout, channels);
    const uint64_t mask = layout.order == AV_CHANNEL_ORDER_NATIVE ? layout.u.mask : 0;
    av_channel_layout_uninit(&layout);
    return mask;
#else
    return static_cast<uint64_t>(av_get_default_channel_layout(channels));
#endif
}

inline int compat_codecpar_channels(const AVCodecParameters* par) {
#if CLIPDEC_HAS_CH_LAYOUT
    return par->ch_layout.nb_channels;
#else
    return par->channels;
#endif
}

// The stream's channel mask, 0 when the container gives none (or no mask).
inline uint64_t compat_codecpar_channel_layout(const AVCodecParameters* par) {
#if CLIPDEC_HAS_CH_LAYOUT
    return par->ch_layout.order == AV_CHANNEL_ORDER_NATIVE ? par->ch_layout.u.mask : 0;
#else
    return par->channel_layout;
#endif
}

inline int compat_frame_channels(const AVFrame* frame) {
#if CLIPDEC_HAS_CH_LAYOUT
    return frame->ch_layout.nb_channels;
#else
    return frame->channels;
#endif
}

inline uint64_t compat_frame_channel_layout(const AVFrame* frame) {
#if CLIPDEC_HAS_CH_LAYOUT
    return frame->ch_layout.order == AV_CHANNEL_ORDER_NATIVE ? frame->ch_layout.u.mask : 0;
#else
    return frame->channel_layout;
#endif
}

// Sets a frame's channel count and mask. A mask that does not describe
// `channels` channels is replaced by the default layout for the count.
inline void compat_frame_set_channels(AVFrame* frame, int channels, uint64_t mask) {
#if CLIPDEC_HAS_CH_LAYOUT
    av_channel_layout_uninit(&frame->ch_layout);
    if (mask == 0 || av_channel_layout_from_mask(&frame->ch_layout, mask) < 0 ||
        frame->ch_layout.nb_channels != channels) {
        av_channel_layout_uninit(&frame->ch_layout);
        av_channel_layout_default(&frame->ch_layout, channels);
    }
    // The old fields are still read by parts of FFmpeg 5.x; keep them in step.
    CLIPDEC_COMPAT_DEPRECATED_BEGIN
    frame->channels = channels;
    frame->channel_layout = compat_frame_channel_layout(frame);
    CLIPDEC_COMPAT_DEPRECATED_END
#else
    frame->channels = channels;
    frame->channel_layout = mask;
#endif
}

}  // namespace ff

extern "C" {
#include <libswresample/swresample.h>
}

namespace ff {

// FFmpeg 5.1 (libswresample 4.5) replaced swr_alloc_set_opts with
// swr_alloc_set_opts2 taking AVChannelLayout. Configures `*swr` (allocated
// when null) to turn frames shaped like `in` into `out_channels` channels of
// FFmpeg's default layout, `out_format`, `out_rate`. Returns < 0 on failure.
inline int compat_swr_configure(SwrContext** swr, int out_channels, AVSampleFormat out_format, int out_rate,
                                const AVFrame* in) {
#if CLIPDEC_HAS_CH_LAYOUT
    AVChannelLayout out_layout{};
    av_channel_layout_default(&out_layout, out_channels);
    // An input without a known channel order is read in the default order for its count.
    AVChannelLayout in_layout{};
    if (in->ch_layout.order != AV_CHANNEL_ORDER_NATIVE || av_channel_layout_copy(&in_layout, &in->ch_layout) < 0)
        av_channel_layout_default(&in_layout, in->ch_layout.nb_channels);
    const int ret = swr_alloc_set_opts2(swr, &out_layout, out_format, out_rate, &in_layout,
                                        static_cast<AVSampleFormat>(in->format), in->sample_rate, 0, nullptr);
    av_channel_layout_uninit(&out_layout);
    av_channel_layout_uninit(&in_layout);
    return ret;
#else
    const uint64_t in_layout = in->channel_layout ? in->channel_layout
                                                  : static_cast<uint64_t>(av_get_default_channel_layout(in->channels));
    *swr = swr_alloc_set_opts(*swr, av_get_default_channel_layout(out_channels), out_format, out_rate, in_layout,
                              static_cast<AVSampleFormat>(in->format), in->sample_rate, 0, nullptr);
    return *swr ? 0 : AVERROR(ENOMEM);
#endif
}

}  // namespace ff

// FFmpeg 5.1 (libavfilter 8.44) gave AVFilterLink a `ch_layout` and
// deprecated its `channel_layout` mask and `channels` count.
#if LIBAVFILTER_VERSION_INT >= AV_VERSION_INT(8, 44, 100)
#define CLIPDEC_LINK_HAS_CH_LAYOUT 1
#else
#define CLIPDEC_LINK_HAS_CH_LAYOUT 0
#endif

namespace ff {

// FFmpeg's readable description of the channel layout a link carries
// ("stereo", "5.1(side)", ...), written into `buf` (always terminated when
// `size` > 0).
inline void compat_link_channel_layout_describe(const AVFilterLink* link, char* buf, size_t size) {
    if (!buf || size == 0) return;
    buf[0] = '\0';
    if (!link) return;
#if CLIPDEC_LINK_HAS_CH_LAYOUT
    if (av_channel_layout_describe(&link->ch_layout, buf, size) < 0) buf[0] = '\0';
#else
    CLIPDEC_COMPAT_DEPRECATED_BEGIN
    av_get_channel_layout_string(buf, static_cast<int>(size), link->channels, link->channel_layout);
    CLIPDEC_COMPAT_DEPRECATED_END
#endif
}

}  // namespace ff
