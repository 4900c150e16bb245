// Backward playback against forward playback on the 20-second 1080p25 H.264
// file with a key frame every 250 frames (10 s), every picture at full size
// in RGBA, through one decoder:
//
//   BM_Playback/0  forward, every frame
//   BM_Playback/1  backward, every frame: FFDecoder2 in reverse mode (-1x)
//   BM_Playback/2  backward, every other frame: reverse at speed 2 (-2x)
//   BM_Playback/3  backward, every frame, asked for at descending times of
//                  a plain FFDecoder (the direction is learnt from the
//                  second request)
//   BM_Playback/4  forward, every other frame (2x), beside /2
//
// items_per_second is pictures per second; growth_mb is how far resident
// memory rose above its level before the run (the window kept for backward
// play is bounded by "dec.reverse_mb", 256 MB unless the host says
// otherwise). Which frame each picture is, the tests check; here a run only
// fails when a picture is missing.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include "bench_media.h"
#include "decode_counters.h"
#include "ffdecoder2.h"
#include "movie_info.h"
#include "process_stats.h"

namespace {

constexpr int kFrames = 500;  // 20 s at 25 fps

// The stream time the n-th request of `mode` reads, as clip time for the
// decoder of that mode.
ff::Rational clip_time(int mode, int n, const ff::Rational& duration) {
    switch (mode) {
    case 0: return ff::Rational(n, 25);
    case 4: return ff::Rational(n, 25);  // read at 2n / 25 by the speed
    case 3: return ff::Rational(kFrames - 1 - n, 25);
    default: {
        // Reverse reads duration - t (t scaled by the speed first): frame
        // kFrames - 1 - step * n sits at that stream time.
        const ff::Rational stream_time(kFrames - 1 - (mode == 2 ? 2 : 1) * n, 25);
        const ff::Rational t = duration - stream_time;
        return mode == 2 ? t * ff::Rational(1, 2) : t;
    }
    }
}

void BM_Playback(benchmark::State& state) {
    const ff::StreamCtx* stream = benchmedia::video(state, "bench_1080p_gop250.mp4");
    if (!stream) return;
    const int mode = static_cast<int>(state.range(0));
    const int requests = mode == 2 || mode == 4 ? kFrames / 2 : kFrames;
    const ff::Rational duration = ff::timestamp_to_time(stream->duration, stream->time_base);
    int pictures = 0;
    double growth = 0;
    const uint64_t decoded_before = ff::decode_counters().frames_decoded.load();
    for (auto _ : state) {
        state.PauseTiming();
        ff::FFDecoder2 decoder;
        decoder.open(stream);
        if (mode == 1 || mode == 2) decoder.setRevert(true);
        if (mode == 2 || mode == 4) decoder.setSpeed(2.0);
        const double base = processstats::resident_mb();
        state.ResumeTiming();
        for (int n = 0; n < requests; ++n) {
            ff::RequireVideoFrame req;
            req.time = clip_time(mode, n, duration);
            req.format = ff::PF_RGBA;
            if (!decoder.getVideoFrame(req)) return state.SkipWithError("missing picture");
            ++pictures;
            if (n % 25 == 0) growth = std::max(growth, processstats::resident_mb() - base);
        }
    }
    state.SetItemsProcessed(pictures);
    state.counters["growth_mb"] = growth;
    state.counters["decoded_per_picture"] =
        static_cast<double>(ff::decode_counters().frames_decoded.load() - decoded_before) / std::max(pictures, 1);
}

}  // namespace

BENCHMARK(BM_Playback)->Arg(0)->Arg(1)->Arg(2)->Arg(3)->Arg(4)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);
