// Mixing throughput of the sample loops (16-bit and float stereo, one core),
// a mixer cycle end to end, and a movie thumbnail: cold (first probe of the
// file), warm (the same request again) and warm at a time not asked before.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "audio_mixer.h"
#include "ff_tools.h"
#include "frame_helpers.h"

namespace {

std::string bench_file() {
    const char* dir = std::getenv("CLIPDEC_BENCH_MEDIA");
    return std::string(dir ? dir : "build/bench-media") + "/bench_1080p.mp4";
}

// Stereo frames per call: 20 ms at 48 kHz, the size of a typical mixer cycle.
constexpr int kFrames = 960;
constexpr int kChannels = 2;

template <typename T>
std::vector<T> signal(float amplitude, int phase) {
    std::vector<T> v(static_cast<size_t>(kFrames) * kChannels);
    for (size_t i = 0; i < v.size(); ++i)
        v[i] = static_cast<T>(amplitude * std::sin(0.01 * static_cast<double>(i + phase)));
    return v;
}

template <typename T>
void mix_loop(benchmark::State& state, ff::SDL_AudioFormat format, float amplitude) {
    const int volume = static_cast<int>(state.range(0));
    const std::vector<T> src = signal<T>(amplitude, 0);
    const std::vector<T> start = signal<T>(amplitude, 7);
    std::vector<T> dst = start;
    const auto len = static_cast<unsigned>(src.size() * sizeof(T));
    for (auto _ : state) {
        // Restoring the destination keeps the values from drifting into
        // permanent clipping; it is a memcpy of the same size, counted in.
        std::memcpy(dst.data(), start.data(), len);
        SDL_MixAudioFormat(reinterpret_cast<unsigned char*>(dst.data()),
                           reinterpret_cast<const unsigned char*>(src.data()), format, len, volume);
        benchmark::ClobberMemory();
    }
    state.counters["samples_per_s"] =
        benchmark::Counter(static_cast<double>(src.size()), benchmark::Counter::kIsIterationInvariantRate);
}

void BM_MixS16Stereo(benchmark::State& state) { mix_loop<int16_t>(state, ff::AF_S16LSB, 30000.0f); }
void BM_MixF32Stereo(benchmark::State& state) { mix_loop<float>(state, ff::AF_F32LSB, 0.9f); }

// One cycle of a mixer with three sources, including the FIFO traffic.
void BM_MixerCycle3Sources(benchmark::State& state) {
    ff::AudioMixer mixer(48000, kChannels, ff::SF_S16);
    ff::RequireAudioFrame req;
    req.format = ff::SF_S16;
    req.sample_rate = 48000;
    req.channels = kChannels;
    std::shared_ptr<ff::AFrameCtx> frame = ff::create_audioframe_ctx(req, kFrames);
    const std::vector<int16_t> s = signal<int16_t>(9000.0f, 0);
    std::memcpy(frame->data[0], s.data(), s.size() * sizeof(int16_t));
    int keys[3];
    long long k = 0;
    for (auto _ : state) {
        mixer.begin(ff::Range(ff::Rational(k, 50), ff::Rational(k + 1, 50)));
        for (int& key : keys) mixer.getBuffer(&key)->write(frame, 128);
        benchmark::DoNotOptimize(mixer.end());
        ++k;
    }
    state.counters["samples_per_s"] = benchmark::Counter(static_cast<double>(kFrames) * kChannels * 3,
                                                         benchmark::Counter::kIsIterationInvariantRate);
}

ff::RequireMvImage middle_at_320x180() {
    ff::RequireMvImage req;
    req.ratio = 0.5;
    req.width = 320;
    req.height = 180;
    req.format = ff::PF_RGBA;
    return req;
}

void BM_ThumbnailCold(benchmark::State& state) {
    const std::string file = bench_file();
    if (access(file.c_str(), R_OK) != 0) {
        state.SkipWithError("bench media missing: run scripts/bench.sh");
        return;
    }
    // The probe cache is keyed by the path string: a fresh hard link is a first probe.
    static int serial = 0;
    const ff::RequireMvImage req = middle_at_320x180();
    for (auto _ : state) {
        state.PauseTiming();
        const std::string link =
            file + ".thumb" + std::to_string(getpid()) + "_" + std::to_string(serial++) + ".mp4";
        unlink(link.c_str());
        const bool linked = ::link(file.c_str(), link.c_str()) == 0;
        state.ResumeTiming();
        auto picture = ff::getMovieImage(linked ? link.c_str() : file.c_str(), req, nullptr);
        if (!picture) state.SkipWithError("no picture");
        benchmark::DoNotOptimize(picture);
        state.PauseTiming();
        picture.reset();
        unlink(link.c_str());
        state.ResumeTiming();
    }
}

void BM_ThumbnailWarm(benchmark::State& state) {
    const std::string file = bench_file();
    const ff::RequireMvImage req = middle_at_320x180();
    if (!ff::getMovieImage(file.c_str(), req, nullptr)) {
        state.SkipWithError("bench media missing: run scripts/bench.sh");
        return;
    }
    for (auto _ : state) benchmark::DoNotOptimize(ff::getMovieImage(file.c_str(), req, nullptr));
}

// Warm probe, but a time no earlier call asked for: the picture is decoded
// from the key frame before it (the decoder lives for one call only).
void BM_ThumbnailWarmNewTime(benchmark::State& state) {
    const std::string file = bench_file();
    ff::RequireMvImage req = middle_at_320x180();
    if (!ff::getMovieImage(file.c_str(), req, nullptr)) {
        state.SkipWithError("bench media missing: run scripts/bench.sh");
        return;
    }
    static long long step = 0;
    for (auto _ : state) {
        req.time = ff::Rational(5000 + (++step % 1000), 1000);  // 5 s and a new millisecond each time
        benchmark::DoNotOptimize(ff::getMovieImage(file.c_str(), req, nullptr));
    }
}

BENCHMARK(BM_MixS16Stereo)->Arg(128)->Arg(100);
BENCHMARK(BM_MixF32Stereo)->Arg(128)->Arg(100);
BENCHMARK(BM_MixerCycle3Sources);
BENCHMARK(BM_ThumbnailCold)->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK(BM_ThumbnailWarm)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ThumbnailWarmNewTime)->Unit(benchmark::kMillisecond)->Iterations(10);

}  // namespace
