// Probing a well-formed 10-second 1080p H.264 MP4: cold (a path the cache has
// not seen) and cached.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdlib>
#include <string>

#include "decode_counters.h"
#include "ffdecoder.h"

namespace {

std::string bench_file() {
    const char* dir = std::getenv("CLIPDEC_BENCH_MEDIA");
    return std::string(dir ? dir : "build/bench-media") + "/bench_1080p.mp4";
}

void BM_ProbeCold(benchmark::State& state) {
    const std::string file = bench_file();
    if (access(file.c_str(), R_OK) != 0) {
        state.SkipWithError("bench media missing: run scripts/bench.sh");
        return;
    }
    // The cache is keyed by the path string: a fresh hard link is a cold probe.
    static int serial = 0;
    const uint64_t frames_before = ff::decode_counters().frames_decoded.load();
    for (auto _ : state) {
        state.PauseTiming();
        const std::string link = file + ".cold" + std::to_string(getpid()) + "_" + std::to_string(serial++) + ".mp4";
        unlink(link.c_str());
        const bool linked = ::link(file.c_str(), link.c_str()) == 0;
        state.ResumeTiming();
        benchmark::DoNotOptimize(ff::FFDecoder::probe(linked ? link.c_str() : file.c_str(), nullptr));
        state.PauseTiming();
        unlink(link.c_str());
        state.ResumeTiming();
    }
    state.counters["frames_decoded_per_probe"] = benchmark::Counter(
        static_cast<double>(ff::decode_counters().frames_decoded.load() - frames_before) / state.iterations());
}

void BM_ProbeCached(benchmark::State& state) {
    const std::string file = bench_file();
    if (!ff::FFDecoder::probe(file.c_str(), nullptr)) {
        state.SkipWithError("bench media missing: run scripts/bench.sh");
        return;
    }
    for (auto _ : state) benchmark::DoNotOptimize(ff::FFDecoder::probe(file.c_str(), nullptr));
}

BENCHMARK(BM_ProbeCold)->Unit(benchmark::kMillisecond)->Iterations(20);
BENCHMARK(BM_ProbeCached);

}  // namespace
