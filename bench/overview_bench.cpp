// The waveform overview of a whole stream beside a plain FFmpeg decode loop
// of the same file (which only decodes):
//
//   BM_Overview/0, /1  60 s of stereo AAC: plain loop, getAudioOverview (10 ms buckets)
//   BM_Overview/2, /3  an hour of 48 kHz stereo 16-bit WAV: plain loop, overview
//
// Every overview reads a fresh hard link, so its cache never answers.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <string>

#include "audio_overview.h"
#include "bench_media.h"
#include "plain_ffmpeg.h"

namespace {

bool plain_decode_all(const std::string& path) {
    cli::PlainStream plain;
    if (!plain.open(path.c_str(), -1, AVMEDIA_TYPE_AUDIO)) return false;
    ff::UniqueAVFrame frame(av_frame_alloc());
    if (!frame) return false;
    while (plain.next(frame.get()) == 0) av_frame_unref(frame.get());
    return true;
}

void BM_Overview(benchmark::State& state) {
    const int mode = static_cast<int>(state.range(0));
    const std::string file = benchmedia::path(mode < 2 ? "bench_60s.m4a" : "bench_hour.wav");
    if (access(file.c_str(), R_OK) != 0) return state.SkipWithError("bench media missing: run scripts/bench.sh");
    static std::atomic<int> serial{0};
    for (auto _ : state) {
        if (mode % 2 == 0) {
            if (!plain_decode_all(file)) state.SkipWithError("plain decode failed");
            continue;
        }
        state.PauseTiming();
        const std::string link = file + ".overview" + std::to_string(getpid()) + "_" + std::to_string(serial++) +
                                 (mode < 2 ? ".m4a" : ".wav");
        unlink(link.c_str());
        const bool linked = ::link(file.c_str(), link.c_str()) == 0;
        state.ResumeTiming();
        if (!linked || !ff::getAudioOverview(link.c_str(), -1, ff::Rational(1, 100))) state.SkipWithError("no overview");
        state.PauseTiming();
        unlink(link.c_str());
        state.ResumeTiming();
    }
}

}  // namespace

BENCHMARK(BM_Overview)->Arg(0)->Arg(1)->Arg(2)->Arg(3)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
