// Contiguous 20 ms audio requests (48 kHz stereo float) through the decoder,
// against the plain FFmpeg decode + resample loop (tools/plain_ffmpeg.h) over
// the same AAC track.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <chrono>
#include <functional>
#include <string>

#include "ffdecoder.h"
#include "plain_ffmpeg.h"

namespace {

std::string bench_file() {
    const char* dir = std::getenv("CLIPDEC_BENCH_MEDIA");
    return std::string(dir ? dir : "build/bench-media") + "/bench_1080p.mp4";
}

const ff::StreamCtx* audio_stream(const std::string& file) {
    ff::MovieCtx* mv = ff::FFDecoder::probe(file.c_str(), nullptr);
    return mv && mv->nb_audio > 0 ? mv->streams[mv->audio_indexes[0]] : nullptr;
}

// The whole track through the decoder in contiguous 20 ms spans.
long long decoder_pass(const ff::StreamCtx* st, int rate) {
    long long samples = 0;
    {
        ff::FFDecoder dec;
        dec.open(st);
        for (long long i = 0;; ++i) {
            ff::RequireAudioFrame req;
            req.range = ff::Range({i, 50}, {i + 1, 50});
            req.format = ff::SF_FLT;
            req.sample_rate = rate;
            req.channels = 2;
            const auto a = dec.getAudioFrame(req);
            if (!a) break;
            samples += a->nb_samples;
        }
    }
    return samples;
}

// The same track through the tool's plain decode + resample loop.
long long plain_pass(const std::string& file, int rate) {
    cli::PlainStream plain;
    if (!plain.open(file.c_str(), -1, AVMEDIA_TYPE_AUDIO)) return 0;
    return std::max(cli::plain_resample(plain, rate, 2, -1), 0LL);
}

double seconds_of(const std::function<long long()>& pass, long long* samples) {
    const auto start = std::chrono::steady_clock::now();
    *samples = pass();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Argument: the output rate (48000, the track's own; 44100, converted).
// Both sides back to back in each iteration, alternating which goes first, so
// that a busy machine disturbs them alike; the ratio is what to read.
void BM_Pair_AudioSpans20ms(benchmark::State& state) {
    const std::string file = bench_file();
    const int rate = static_cast<int>(state.range(0));
    const ff::StreamCtx* st = audio_stream(file);
    if (!st) {
        state.SkipWithError("bench media missing: run scripts/bench.sh");
        return;
    }
    double engine_s = 0, plain_s = 0;
    long long engine_samples = 0, plain_samples = 0, n = 0;
    bool engine_first = true;
    for (auto _ : state) {
        long long e = 0, p = 0;
        if (engine_first) {
            engine_s += seconds_of([&] { return decoder_pass(st, rate); }, &e);
            plain_s += seconds_of([&] { return plain_pass(file, rate); }, &p);
        } else {
            plain_s += seconds_of([&] { return plain_pass(file, rate); }, &p);
            engine_s += seconds_of([&] { return decoder_pass(st, rate); }, &e);
        }
        engine_first = !engine_first;
        engine_samples += e;
        plain_samples += p;
        ++n;
    }
    state.counters["engine_samples_per_s"] = engine_samples / engine_s;
    state.counters["plain_samples_per_s"] = plain_samples / plain_s;
    state.counters["engine_vs_plain"] = (engine_samples / engine_s) / (plain_samples / plain_s);
    state.counters["samples_per_pass"] = static_cast<double>(engine_samples) / n;
}

BENCHMARK(BM_Pair_AudioSpans20ms)->Arg(48000)->Arg(44100)->Unit(benchmark::kMillisecond)->Iterations(40);

}  // namespace
