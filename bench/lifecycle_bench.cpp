// Latencies of a host's lifecycle calls while a far seek decodes, on the
// 20-second 1080p25 H.264 file with a key frame every 250 frames: decoder A
// asks for the frame just before the second key frame (249 frames to decode
// from the first), and meanwhile, timed:
//
//   BM_Lifecycle/0  closing decoder B of the same stream
//   BM_Lifecycle/1  a picture decoder C already holds in its cache
//   BM_Lifecycle/2  closing A itself (its own request is cut short)
//
// The far seek counts as under way once A's job has decoded a few frames.
// Every iteration opens fresh decoders, outside the timed region. Reports
// only; the targets (median under 10 ms, 5 ms and 100 ms) are read off the
// figures in docs/BENCHMARKS.md.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>

#include "bench_media.h"
#include "decode_counters.h"
#include "ffdecoder.h"
#include "movie_info.h"

namespace {

using Clock = std::chrono::steady_clock;

ff::RequireVideoFrame picture_at(long long ms) {
    ff::RequireVideoFrame req;
    req.time = ff::Rational(ms, 1000);
    req.format = ff::PF_YUV420P;
    return req;
}

// Blocks until the decoders have handed out `frames` more frames.
void wait_decoded(uint64_t frames) {
    const uint64_t start = ff::decode_counters().frames_decoded.load();
    while (ff::decode_counters().frames_decoded.load() < start + frames)
        std::this_thread::sleep_for(std::chrono::microseconds(100));
}

enum Measured { kCloseOther = 0, kCachedPicture = 1, kCloseOwn = 2 };

void BM_Lifecycle(benchmark::State& state) {
    const ff::StreamCtx* stream = benchmedia::video(state, "bench_1080p_gop250.mp4");
    if (!stream) return;
    const auto measured = static_cast<Measured>(state.range(0));
    for (auto _ : state) {
        ff::FFDecoder a, b, c;
        a.open(stream);
        b.open(stream);
        c.open(stream);
        if (!c.getVideoFrame(picture_at(0))) {
            state.SkipWithError("no picture");
            return;
        }
        auto far = std::async(std::launch::async, [&] { return a.getVideoFrame(picture_at(9960)); });
        wait_decoded(5);
        const auto start = Clock::now();
        switch (measured) {
        case kCloseOther: b.close(); break;
        case kCachedPicture: benchmark::DoNotOptimize(c.getVideoFrame(picture_at(0))); break;
        case kCloseOwn: a.close(); break;
        }
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
        far.wait();
    }
}

}  // namespace

BENCHMARK(BM_Lifecycle)
    ->Arg(kCloseOther)
    ->Arg(kCachedPicture)
    ->Arg(kCloseOwn)
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime()
    ->Iterations(1)
    ->Repetitions(9)
    ->ReportAggregatesOnly(true);
