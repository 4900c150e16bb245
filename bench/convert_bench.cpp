// The price of faithful colours: one 1080p picture of each source kind to
// full-size RGBA, converted as the library converts it (the source's matrix
// and range, careful chroma for 4:4:4, 4:2:2 and deep sources) and with
// libswscale's default conversion (fast bilinear, BT.601, no more).
// Arguments: the source format, then 1 for the library's settings, 0 for the
// default.
#include <benchmark/benchmark.h>

#include <vector>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixdesc.h>
}

#include "color_conversion.h"
#include "ff_ptr.h"

namespace {

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;

// A 1080p frame of `format` holding a busy, deterministic pattern.
ff::UniqueAVFrame pattern_frame(AVPixelFormat format) {
    ff::UniqueAVFrame frame = ff::make_frame();
    frame->format = format;
    frame->width = kWidth;
    frame->height = kHeight;
    frame->colorspace = AVCOL_SPC_BT709;
    frame->color_range = AVCOL_RANGE_MPEG;
    if (av_frame_get_buffer(frame.get(), 32) < 0) return {};
    const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(format);
    const bool deep = desc->comp[0].depth > 8;
    for (int p = 0; p < 3; ++p) {
        const int w = p ? AV_CEIL_RSHIFT(kWidth, desc->log2_chroma_w) : kWidth;
        const int h = p ? AV_CEIL_RSHIFT(kHeight, desc->log2_chroma_h) : kHeight;
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const int v = 64 + (x * 7 + y * 3 + p * 50) % 832;  // 10-bit limited-range values
                if (deep) reinterpret_cast<uint16_t*>(frame->data[p] + y * frame->linesize[p])[x] = static_cast<uint16_t>(v);
                else frame->data[p][y * frame->linesize[p] + x] = static_cast<uint8_t>(v >> 2);
            }
    }
    return frame;
}

void BM_Convert_ToRgba(benchmark::State& state) {
    const auto format = static_cast<AVPixelFormat>(state.range(0));
    const bool faithful = state.range(1) != 0;
    ff::UniqueAVFrame frame = pattern_frame(format);
    ff::UniqueSwsContext sws;
    ff::ScalerSettings current;
    ff::ScalerSettings wanted = ff::scaler_settings_for(*frame, kWidth, kHeight, AV_PIX_FMT_RGBA);
    // prepare_scaler works on the decoder's own raw field: the owner lends
    // the context for the call and takes back what it leaves.
    const auto prepare = [&] {
        SwsContext* raw = sws.release();
        ff::prepare_scaler(&raw, &current, wanted);
        sws.reset(raw);
    };
    if (!faithful) {
        wanted = ff::ScalerSettings();
        sws.reset(sws_getContext(kWidth, kHeight, format, kWidth, kHeight, AV_PIX_FMT_RGBA, SWS_FAST_BILINEAR,
                                 nullptr, nullptr, nullptr));
    } else {
        prepare();
    }
    if (!frame || !sws) {
        state.SkipWithError("no frame or no scaler");
        return;
    }
    std::vector<uint8_t> rgba(static_cast<size_t>(kWidth) * kHeight * 4);
    uint8_t* dst[4] = {rgba.data()};
    int dst_linesize[4] = {kWidth * 4};
    for (auto _ : state) {
        if (faithful) prepare();  // the per-picture check the decoder makes
        sws_scale(sws.get(), frame->data, frame->linesize, 0, kHeight, dst, dst_linesize);
        benchmark::DoNotOptimize(rgba.data());
    }
    state.SetLabel(std::string(av_get_pix_fmt_name(format)) + (faithful ? " faithful" : " default"));
}

void conversion_cases(benchmark::internal::Benchmark* b) {
    for (AVPixelFormat f : {AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUV420P10LE, AV_PIX_FMT_YUV422P10LE, AV_PIX_FMT_YUV444P,
                            AV_PIX_FMT_YUV444P10LE})
        for (int faithful : {0, 1}) b->Args({f, faithful});
}

}  // namespace

BENCHMARK(BM_Convert_ToRgba)->Apply(conversion_cases)->Unit(benchmark::kMillisecond);
