#include "plain_ffmpeg.h"

#include <algorithm>
#include <vector>

extern "C" {
#include <libavutil/channel_layout.h>
}

namespace cli {

// The frame on screen at `target` (stream time base): the key frame at or
// before it, then forward to the last frame not after it. MP4 seeks by
// decoding time, so the key frame found may show after the target; the loop
// then steps back a second, as any correct host loop has to.
const AVFrame* plain_frame_at(PlainStream& s, int64_t target, ff::UniqueAVFrame& cur, ff::UniqueAVFrame& prev) {
    int64_t seek_ts = target;
    if (!s.seek(seek_ts)) return nullptr;
    bool first = true;
    bool have_prev = false;
    for (;;) {
        if (s.next(cur.get()) < 0) return have_prev ? prev.get() : nullptr;
        const int64_t pts = cur->best_effort_timestamp;
        if (first && pts > target && seek_ts > s.start()) {
            seek_ts = std::max(seek_ts - s.ticks_per_second(), s.start());
            if (!s.seek(seek_ts)) return nullptr;
            continue;
        }
        first = false;
        if (pts == target) return cur.get();
        if (pts > target) return have_prev ? prev.get() : cur.get();
        std::swap(cur, prev);
        have_prev = true;
    }
}

// Float at `rate` and `channels` from whatever the decoder gives; set up on the first
// frame, since only decoded frames tell the real layout and rate.
bool open_resampler(ff::UniqueSwrContext& swr, const AVFrame* frame, int rate, int channels) {
    AVChannelLayout out_layout{};
    AVChannelLayout in_layout{};
    av_channel_layout_default(&out_layout, channels);
    // Without a known channel order, FFmpeg's default layout for the count
    // is taken, as the library does.
    if (frame->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC)
        av_channel_layout_default(&in_layout, frame->ch_layout.nb_channels);
    else if (av_channel_layout_copy(&in_layout, &frame->ch_layout) < 0)
        return false;
    SwrContext* raw = nullptr;
    const int made = swr_alloc_set_opts2(&raw, &out_layout, AV_SAMPLE_FMT_FLT, rate, &in_layout,
                                         static_cast<AVSampleFormat>(frame->format), frame->sample_rate, 0, nullptr);
    av_channel_layout_uninit(&in_layout);
    av_channel_layout_uninit(&out_layout);
    swr.reset(raw);
    return made >= 0 && raw && swr_init(raw) >= 0;
}

long long plain_resample(PlainStream& s, int rate, int channels, long long wanted, std::vector<float>* kept) {
    ff::UniqueAVFrame frame(av_frame_alloc());
    if (!frame) return -1;
    ff::UniqueSwrContext swr;
    std::vector<float> out;
    long long converted = 0;
    // Converts to the end of `kept` (or into one reused buffer); null input
    // drains what the resampler still holds.
    std::vector<float>& into = kept ? *kept : out;
    auto convert = [&](const uint8_t** in, int count) {
        const int room = swr_get_out_samples(swr.get(), count);
        if (room < 0) return false;
        const size_t at = kept ? into.size() : 0;
        into.resize(at + static_cast<size_t>(room) * channels);
        uint8_t* dst[1] = {reinterpret_cast<uint8_t*>(into.data() + at)};
        const int got = swr_convert(swr.get(), dst, room, in, count);
        into.resize(at + static_cast<size_t>(std::max(got, 0)) * channels);
        if (got < 0) return false;
        converted += got;
        return true;
    };
    while ((wanted < 0 || converted < wanted) && s.next(frame.get()) >= 0) {
        if (!swr && !open_resampler(swr, frame.get(), rate, channels)) return converted;
        if (!convert(const_cast<const uint8_t**>(frame->extended_data), frame->nb_samples)) return converted;
    }
    if (wanted < 0 && swr) convert(nullptr, 0);
    return converted;
}

}  // namespace cli
