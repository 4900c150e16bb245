// The decoding engine (FFDecoderPrivate over the scheduler and its frame
// cache tasks) side by side with the tool's plain FFmpeg loop (cli::PlainStream), on the
// 10-second 1080p H.264 MP4 (25 fps, B-frames, key frame every 2 s):
//
//   BM_Seq_*              sequential reading of every frame, no conversion
//   BM_Rgba_*             sequential reading plus conversion to RGBA (argument: divider)
//   BM_Pair_Sequential    both sides alternating in one benchmark (argument:
//                         0 no conversion, otherwise the RGBA divider)
//   BM_Pair_RandomAccess  latency of pictures at pseudo-random times (fixed seed)
//   BM_Pair_Lockstep      two decoders of one stream, one thread each, a
//                         barrier per frame, against one decoder alone
//
// Every decode figure is wall time: FFmpeg decodes on its own frame threads,
// so the calling thread's CPU time says little (process CPU time is reported
// beside it). Opening and closing decoders is left out of the timed region on
// both sides. Benchmarks report; they assert nothing about time.
#include <benchmark/benchmark.h>

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/mathematics.h>
}

#include "decode_counters.h"
#include "ffdecoder.h"
#include "ffdecoder_private.h"
#include "frame_records.h"
#include "movie_info.h"
#include "plain_ffmpeg.h"
#include "rational.h"

namespace {

constexpr int kFps = 25;                // frame rate of the benchmark file
constexpr int kRandomRequests = 200;    // pictures asked for per random-access run
constexpr unsigned kRandomSeed = 20240611;

using Clock = std::chrono::steady_clock;

std::string bench_file() {
    const char* dir = std::getenv("CLIPDEC_BENCH_MEDIA");
    return std::string(dir ? dir : "build/bench-media") + "/bench_1080p.mp4";
}

// The video stream of the benchmark file through the library's probe, or null
// (the benchmark is then skipped).
const ff::StreamCtx* bench_stream(benchmark::State& state) {
    const std::string file = bench_file();
    ff::MovieCtx* movie = access(file.c_str(), R_OK) == 0 ? ff::FFDecoder::probe(file.c_str(), nullptr) : nullptr;
    if (!movie || movie->nb_video < 1 || !movie->streams[movie->video_indexes[0]]) {
        state.SkipWithError("bench media missing: run scripts/bench.sh");
        return nullptr;
    }
    return movie->streams[movie->video_indexes[0]];
}

// CPU seconds of the whole process (every thread, FFmpeg's included): a
// figure that other load on the machine disturbs much less than wall time.
double process_cpu_seconds() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
           static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

// Resumes and pauses the benchmark's timing, adding up the process CPU time
// spent in the timed regions.
struct TimedCpu {
    double total = 0;
    double started = 0;
    void resume(benchmark::State& state) {
        state.ResumeTiming();
        started = process_cpu_seconds();
    }
    void pause(benchmark::State& state) {
        total += process_cpu_seconds() - started;
        state.PauseTiming();
    }
};

// Snapshot of the engine's process-wide counters; differences show how much
// the engine really decoded and sought.
struct CounterSnapshot {
    uint64_t decoded = ff::decode_counters().frames_decoded.load();
    uint64_t seeks = ff::decode_counters().seeks.load();
    uint64_t jobs = ff::decode_counters().jobs.load();
    uint64_t hits = ff::decode_counters().cache_hits.load();
    uint64_t waits = ff::decode_counters().waits.load();
};

void report_engine_counters(benchmark::State& state, const CounterSnapshot& before, double per) {
    const CounterSnapshot after;
    state.counters["decoded"] = benchmark::Counter(static_cast<double>(after.decoded - before.decoded) / per);
    state.counters["seeks"] = benchmark::Counter(static_cast<double>(after.seeks - before.seeks) / per);
    state.counters["jobs"] = benchmark::Counter(static_cast<double>(after.jobs - before.jobs) / per);
    state.counters["cache_hits"] = benchmark::Counter(static_cast<double>(after.hits - before.hits) / per);
    state.counters["waits"] = benchmark::Counter(static_cast<double>(after.waits - before.waits) / per);
}

// ------------------------------------------------------------ plain FFmpeg

// The size the engine gives a picture for `divider`: width rounded up to a
// multiple of 16 and height to an even number after the integer division.
void divided_size(int width, int height, int divider, int* out_w, int* out_h) {
    if (divider > 1) {
        width = (width / divider + 15) / 16 * 16;
        height = (height / divider + 1) / 2 * 2;
    }
    *out_w = width;
    *out_h = height;
}

// ------------------------------------------------------------ 1. sequential

// Engine: get_frame on the timestamp of every frame in turn (i / 25 s), until
// the end answers the last frame again.
void BM_Seq_EngineGetFrame(benchmark::State& state) {
    const ff::StreamCtx* sc = bench_stream(state);
    if (!sc) return;
    TimedCpu cpu;
    const CounterSnapshot before;
    int64_t frames = 0;
    for (auto _ : state) {
        state.PauseTiming();
        auto dec = std::make_unique<ff::FFDecoderPrivate>();
        if (!dec->open(sc)) {
            state.SkipWithError("engine open failed");
            return;
        }
        cpu.resume(state);
        long long last = AV_NOPTS_VALUE;
        for (long long i = 0;; ++i) {
            std::shared_ptr<AVFrame> f = dec->get_frame(dec->sec_to_stream_ts(ff::Rational(i, kFps)), &dec->stop);
            if (!f || f->pts == last) break;
            last = f->pts;
            benchmark::DoNotOptimize(f->data[0]);
            ++frames;
        }
        cpu.pause(state);
        dec->close();
        dec.reset();
        state.ResumeTiming();
    }
    state.counters["fps"] = benchmark::Counter(static_cast<double>(frames), benchmark::Counter::kIsRate);
    state.counters["cpu_ms_per_frame"] = frames ? cpu.total * 1000 / static_cast<double>(frames) : 0;
    state.counters["frames"] = benchmark::Counter(static_cast<double>(frames) / static_cast<double>(state.iterations()));
    report_engine_counters(state, before, static_cast<double>(state.iterations()));
}

// Engine: the first frame with get_frame(start), then get_next_frame to the end.
void BM_Seq_EngineNextFrame(benchmark::State& state) {
    const ff::StreamCtx* sc = bench_stream(state);
    if (!sc) return;
    TimedCpu cpu;
    const CounterSnapshot before;
    int64_t frames = 0;
    for (auto _ : state) {
        state.PauseTiming();
        auto dec = std::make_unique<ff::FFDecoderPrivate>();
        if (!dec->open(sc)) {
            state.SkipWithError("engine open failed");
            return;
        }
        cpu.resume(state);
        std::shared_ptr<AVFrame> f = dec->get_frame(dec->sec_to_stream_ts(ff::Rational(0, 1)), &dec->stop);
        while (f) {
            benchmark::DoNotOptimize(f->data[0]);
            ++frames;
            f = dec->get_next_frame(&dec->stop, false);
        }
        cpu.pause(state);
        dec->close();
        dec.reset();
        state.ResumeTiming();
    }
    state.counters["fps"] = benchmark::Counter(static_cast<double>(frames), benchmark::Counter::kIsRate);
    state.counters["cpu_ms_per_frame"] = frames ? cpu.total * 1000 / static_cast<double>(frames) : 0;
    state.counters["frames"] = benchmark::Counter(static_cast<double>(frames) / static_cast<double>(state.iterations()));
    report_engine_counters(state, before, static_cast<double>(state.iterations()));
}

void BM_Seq_Plain(benchmark::State& state) {
    const ff::StreamCtx* sc = bench_stream(state);
    if (!sc) return;
    TimedCpu cpu;
    int64_t frames = 0;
    for (auto _ : state) {
        state.PauseTiming();
        auto dec = std::make_unique<cli::PlainStream>();
        ff::UniqueAVFrame frame(av_frame_alloc());
        if (!dec->open(bench_file().c_str(), -1) || !frame) {
            state.SkipWithError("plain open failed");
            return;
        }
        cpu.resume(state);
        while (dec->next(frame.get()) >= 0) {
            benchmark::DoNotOptimize(frame->data[0]);
            ++frames;
        }
        cpu.pause(state);
        dec.reset();
        state.ResumeTiming();
    }
    state.counters["fps"] = benchmark::Counter(static_cast<double>(frames), benchmark::Counter::kIsRate);
    state.counters["cpu_ms_per_frame"] = frames ? cpu.total * 1000 / static_cast<double>(frames) : 0;
    state.counters["frames"] = benchmark::Counter(static_cast<double>(frames) / static_cast<double>(state.iterations()));
}

// ------------------------------------------------------------ 2. RGBA

void BM_Rgba_Engine(benchmark::State& state) {
    const ff::StreamCtx* sc = bench_stream(state);
    if (!sc) return;
    TimedCpu cpu;
    const int divider = static_cast<int>(state.range(0));
    ff::RequireVideoFrame req;
    req.format = ff::PF_RGBA;
    req.divider = divider;
    int64_t frames = 0;
    int out_w = 0;
    int out_h = 0;
    for (auto _ : state) {
        state.PauseTiming();
        auto dec = std::make_unique<ff::FFDecoderPrivate>();
        if (!dec->open(sc)) {
            state.SkipWithError("engine open failed");
            return;
        }
        cpu.resume(state);
        std::shared_ptr<AVFrame> f = dec->get_frame(dec->sec_to_stream_ts(ff::Rational(0, 1)), &dec->stop);
        while (f) {
            std::shared_ptr<ff::VFrameCtx> picture = dec->convert_to_dst_frame(f.get(), req);
            if (!picture) {
                state.SkipWithError("conversion failed");
                return;
            }
            benchmark::DoNotOptimize(picture->data[0]);
            out_w = picture->width;
            out_h = picture->height;
            ++frames;
            f = dec->get_next_frame(&dec->stop, false);
        }
        cpu.pause(state);
        dec->close();
        dec.reset();
        state.ResumeTiming();
    }
    state.counters["fps"] = benchmark::Counter(static_cast<double>(frames), benchmark::Counter::kIsRate);
    state.counters["cpu_ms_per_frame"] = frames ? cpu.total * 1000 / static_cast<double>(frames) : 0;
    state.counters["frames"] = benchmark::Counter(static_cast<double>(frames) / static_cast<double>(state.iterations()));
    state.counters["out_w"] = out_w;
    state.counters["out_h"] = out_h;
}

// Decode + sws_scale (fast bilinear) into one RGBA buffer of the engine's size.
void BM_Rgba_Plain(benchmark::State& state) {
    const ff::StreamCtx* sc = bench_stream(state);
    if (!sc) return;
    TimedCpu cpu;
    const int divider = static_cast<int>(state.range(0));
    int64_t frames = 0;
    int out_w = 0;
    int out_h = 0;
    for (auto _ : state) {
        state.PauseTiming();
        auto dec = std::make_unique<cli::PlainStream>();
        ff::UniqueAVFrame frame(av_frame_alloc());
        if (!dec->open(bench_file().c_str(), -1) || !frame) {
            state.SkipWithError("plain open failed");
            return;
        }
        const AVCodecParameters* par = dec->stream()->codecpar;
        divided_size(par->width, par->height, divider, &out_w, &out_h);
        cli::RgbaConverter rgba;
        if (!rgba.allocate(out_w, out_h)) {
            state.SkipWithError("no memory");
            return;
        }
        cpu.resume(state);
        while (dec->next(frame.get()) >= 0) {
            if (!rgba.convert(frame.get())) {
                state.SkipWithError("no scaler");
                break;
            }
            benchmark::DoNotOptimize(rgba.data());
            ++frames;
        }
        cpu.pause(state);
        dec.reset();
        state.ResumeTiming();
    }
    state.counters["fps"] = benchmark::Counter(static_cast<double>(frames), benchmark::Counter::kIsRate);
    state.counters["cpu_ms_per_frame"] = frames ? cpu.total * 1000 / static_cast<double>(frames) : 0;
    state.counters["frames"] = benchmark::Counter(static_cast<double>(frames) / static_cast<double>(state.iterations()));
    state.counters["out_w"] = out_w;
    state.counters["out_h"] = out_h;
}

// ------------------------------------------------------------ 3. random access

// ------------------------------------------------------------ paired runs
//
// The machine these figures come from is shared, so each pair below runs both
// sides inside the same benchmark, alternating which goes first: a load spike
// then hits both sides alike, and the ratio stays meaningful. The benchmark's
// time is the manual sum of both sides; the counters carry the comparison.

struct Pass {
    int64_t frames = 0;
    double seconds = 0;
    double cpu = 0;
    void add(const Pass& p) {
        frames += p.frames;
        seconds += p.seconds;
        cpu += p.cpu;
    }
};

double seconds_since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// Every frame through the engine: get_frame at the start, get_next_frame to
// the end; `divider` 0 delivers decoded frames, otherwise RGBA pictures of that
// divider. Opening and closing are not timed.
bool engine_pass(const ff::StreamCtx* sc, int divider, Pass* out) {
    auto dec = std::make_unique<ff::FFDecoderPrivate>();
    if (!dec->open(sc)) return false;
    ff::RequireVideoFrame req;
    req.format = ff::PF_RGBA;
    req.divider = divider;
    Pass p;
    const double cpu0 = process_cpu_seconds();
    const auto start = Clock::now();
    std::shared_ptr<AVFrame> f = dec->get_frame(dec->sec_to_stream_ts(ff::Rational(0, 1)), &dec->stop);
    while (f) {
        if (divider > 0) {
            std::shared_ptr<ff::VFrameCtx> picture = dec->convert_to_dst_frame(f.get(), req);
            if (!picture) return false;
            benchmark::DoNotOptimize(picture->data[0]);
        } else {
            benchmark::DoNotOptimize(f->data[0]);
        }
        ++p.frames;
        f = dec->get_next_frame(&dec->stop, false);
    }
    p.seconds = seconds_since(start);
    p.cpu = process_cpu_seconds() - cpu0;
    dec->close();
    out->add(p);
    return true;
}

// The plain loop; `divider` as above (sws_scale, fast bilinear, into one RGBA
// buffer of the engine's picture size).
bool plain_pass(int divider, Pass* out) {
    auto dec = std::make_unique<cli::PlainStream>();
    ff::UniqueAVFrame frame(av_frame_alloc());
    if (!dec->open(bench_file().c_str(), -1) || !frame) return false;
    int out_w = 0;
    int out_h = 0;
    const AVCodecParameters* par = dec->stream()->codecpar;
    divided_size(par->width, par->height, divider, &out_w, &out_h);
    cli::RgbaConverter rgba;
    if (divider > 0 && !rgba.allocate(out_w, out_h)) return false;
    Pass p;
    bool ok = true;
    const double cpu0 = process_cpu_seconds();
    const auto start = Clock::now();
    while (dec->next(frame.get()) >= 0) {
        if (divider > 0) {
            if (!rgba.convert(frame.get())) {
                ok = false;
                break;
            }
            benchmark::DoNotOptimize(rgba.data());
        } else {
            benchmark::DoNotOptimize(frame->data[0]);
        }
        ++p.frames;
    }
    p.seconds = seconds_since(start);
    p.cpu = process_cpu_seconds() - cpu0;
    out->add(p);
    return ok;
}

// Argument: 0 no conversion, 1 RGBA full size, 2 RGBA at divider 2.
void BM_Pair_Sequential(benchmark::State& state) {
    const ff::StreamCtx* sc = bench_stream(state);
    if (!sc) return;
    const int divider = static_cast<int>(state.range(0));
    Pass engine;
    Pass plain;
    int64_t round = 0;
    for (auto _ : state) {
        Pass e;
        Pass p;
        const bool engine_first = round++ % 2 == 0;
        bool ok = engine_first ? engine_pass(sc, divider, &e) && plain_pass(divider, &p)
                               : plain_pass(divider, &p) && engine_pass(sc, divider, &e);
        if (!ok) {
            state.SkipWithError("open or conversion failed");
            return;
        }
        state.SetIterationTime(e.seconds + p.seconds);
        engine.add(e);
        plain.add(p);
    }
    const double engine_fps = static_cast<double>(engine.frames) / engine.seconds;
    const double plain_fps = static_cast<double>(plain.frames) / plain.seconds;
    state.counters["engine_fps"] = engine_fps;
    state.counters["plain_fps"] = plain_fps;
    state.counters["ratio"] = engine_fps / plain_fps;  // target >= 0.95
    state.counters["engine_cpu_ms_per_frame"] = engine.cpu * 1000 / static_cast<double>(engine.frames);
    state.counters["plain_cpu_ms_per_frame"] = plain.cpu * 1000 / static_cast<double>(plain.frames);
    state.counters["frames"] = static_cast<double>(engine.frames) / static_cast<double>(state.iterations());
    state.counters["plain_frames"] = static_cast<double>(plain.frames) / static_cast<double>(state.iterations());
}

// ------------------------------------------------------------ 3. random access

// Pseudo-random times in milliseconds over the file's 10 seconds, the same
// sequence for both sides.
std::vector<int64_t> random_times_ms() {
    std::mt19937 rng(kRandomSeed);
    std::uniform_int_distribution<int64_t> pick(0, 9999);
    std::vector<int64_t> times(kRandomRequests);
    for (auto& t : times) t = pick(rng);
    return times;
}

double median_of(std::vector<double> v) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

double p90_of(std::vector<double> v) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, v.size() * 9 / 10)];
}

// One engine decoder and one plain decoder open side by side; the requests
// alternate between them (which one goes first alternates too). Latencies are
// per request; the counters give both medians and their ratio.
void BM_Pair_RandomAccess(benchmark::State& state) {
    const ff::StreamCtx* sc = bench_stream(state);
    if (!sc) return;
    const std::vector<int64_t> times = random_times_ms();
    std::vector<double> engine_ms;
    std::vector<double> plain_ms;
    int64_t wrong = 0;
    uint64_t plain_decoded = 0;
    uint64_t plain_seeks = 0;
    uint64_t engine_decoded = 0;
    uint64_t engine_seeks = 0;
    for (auto _ : state) {
        auto dec = std::make_unique<ff::FFDecoderPrivate>();
        auto plain = std::make_unique<cli::PlainStream>();
        ff::UniqueAVFrame cur(av_frame_alloc());
        ff::UniqueAVFrame prev(av_frame_alloc());
        if (!dec->open(sc) || !plain->open(bench_file().c_str(), -1) || !cur || !prev) {
            state.SkipWithError("open failed");
            return;
        }
        const AVRational tb = plain->stream()->time_base;
        double iteration_seconds = 0;
        for (size_t i = 0; i < times.size(); ++i) {
            const int64_t t = times[i];
            const auto run_engine = [&] {
                const long long ts = dec->sec_to_stream_ts(ff::Rational(t, 1000));
                const CounterSnapshot before;
                const auto start = Clock::now();
                std::shared_ptr<AVFrame> f = dec->get_frame(ts, &dec->stop);
                const double s = seconds_since(start);
                const CounterSnapshot after;
                engine_decoded += after.decoded - before.decoded;
                engine_seeks += after.seeks - before.seeks;
                engine_ms.push_back(s * 1000);
                iteration_seconds += s;
                // The frame on screen: at or before the target.
                if (!f || f->best_effort_timestamp > ts) ++wrong;
            };
            const auto run_plain = [&] {
                const int64_t ts = av_rescale_q_rnd(t, AVRational{1, 1000}, tb, AV_ROUND_NEAR_INF) + plain->start();
                const auto start = Clock::now();
                // The tool's plain request: key frame at or before the target,
                // then forward to the frame on screen.
                const AVFrame* got = cli::plain_frame_at(*plain, ts, cur, prev);
                const double s = seconds_since(start);
                plain_ms.push_back(s * 1000);
                iteration_seconds += s;
                if (!got || got->best_effort_timestamp > ts) ++wrong;
            };
            if (i % 2 == 0) {
                run_engine();
                run_plain();
            } else {
                run_plain();
                run_engine();
            }
        }
        state.SetIterationTime(iteration_seconds);
        plain_decoded += plain->decoded;
        plain_seeks += plain->seeks;
        dec->close();
    }
    const double requests = static_cast<double>(engine_ms.size());
    const double engine_median = median_of(engine_ms);
    const double plain_median = median_of(plain_ms);
    state.counters["engine_median_ms"] = engine_median;
    state.counters["plain_median_ms"] = plain_median;
    state.counters["ratio"] = engine_median / plain_median;  // target <= 1.2
    state.counters["engine_p90_ms"] = p90_of(engine_ms);
    state.counters["plain_p90_ms"] = p90_of(plain_ms);
    state.counters["engine_decoded_per_req"] = static_cast<double>(engine_decoded) / requests;
    state.counters["plain_decoded_per_req"] = static_cast<double>(plain_decoded) / requests;
    state.counters["engine_seeks_per_req"] = static_cast<double>(engine_seeks) / requests;
    state.counters["plain_seeks_per_req"] = static_cast<double>(plain_seeks) / requests;
    state.counters["wrong"] = static_cast<double>(wrong);
}

// ------------------------------------------------------------ 4. lockstep

// A barrier that parties may leave (a decoder that reached the end).
class Lockstep {
public:
    explicit Lockstep(int parties) : parties_(parties) {}
    void arrive_and_wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        const uint64_t gen = generation_;
        if (++waiting_ >= parties_) {
            release();
            return;
        }
        cv_.wait(lock, [&] { return generation_ != gen; });
    }
    void leave() {
        std::lock_guard<std::mutex> lock(mutex_);
        --parties_;
        if (waiting_ > 0 && waiting_ >= parties_) release();
    }

private:
    void release() {
        waiting_ = 0;
        ++generation_;
        cv_.notify_all();
    }
    std::mutex mutex_;
    std::condition_variable cv_;
    int parties_;
    int waiting_ = 0;
    uint64_t generation_ = 0;
};

// `n` decoders on one stream, each reading every frame in order on its own
// thread, all waiting for each other after each frame. Frames decoded come
// from the engine's counters.
bool lockstep_pass(const ff::StreamCtx* sc, int n, Pass* out, uint64_t* decoded) {
    std::vector<std::unique_ptr<ff::FFDecoderPrivate>> decs;
    for (int i = 0; i < n; ++i) {
        decs.push_back(std::make_unique<ff::FFDecoderPrivate>());
        if (!decs.back()->open(sc)) return false;
    }
    Lockstep barrier(n);
    std::atomic<int64_t> frames{0};
    const CounterSnapshot before;
    const double cpu0 = process_cpu_seconds();
    const auto start = Clock::now();
    std::vector<std::thread> threads;
    for (int i = 0; i < n; ++i) {
        threads.emplace_back([&, i] {
            ff::FFDecoderPrivate& dec = *decs[static_cast<size_t>(i)];
            std::shared_ptr<AVFrame> f = dec.get_frame(dec.sec_to_stream_ts(ff::Rational(0, 1)), &dec.stop);
            while (f) {
                benchmark::DoNotOptimize(f->data[0]);
                frames.fetch_add(1, std::memory_order_relaxed);
                barrier.arrive_and_wait();
                f = dec.get_next_frame(&dec.stop, false);
            }
            barrier.leave();
        });
    }
    for (auto& t : threads) t.join();
    Pass p;
    p.seconds = seconds_since(start);
    p.cpu = process_cpu_seconds() - cpu0;
    p.frames = frames.load();
    *decoded += CounterSnapshot().decoded - before.decoded;
    for (auto& d : decs) d->close();
    out->add(p);
    return true;
}

// Two decoders in lockstep against one decoder alone, alternating.
void BM_Pair_Lockstep(benchmark::State& state) {
    const ff::StreamCtx* sc = bench_stream(state);
    if (!sc) return;
    Pass one;
    Pass two;
    uint64_t one_decoded = 0;
    uint64_t two_decoded = 0;
    const CounterSnapshot before;
    int64_t round = 0;
    for (auto _ : state) {
        Pass a;
        Pass b;
        const bool one_first = round++ % 2 == 0;
        const bool ok = one_first ? lockstep_pass(sc, 1, &a, &one_decoded) && lockstep_pass(sc, 2, &b, &two_decoded)
                                  : lockstep_pass(sc, 2, &b, &two_decoded) && lockstep_pass(sc, 1, &a, &one_decoded);
        if (!ok) {
            state.SkipWithError("engine open failed");
            return;
        }
        state.SetIterationTime(a.seconds + b.seconds);
        one.add(a);
        two.add(b);
    }
    const double iters = static_cast<double>(state.iterations());
    state.counters["one_ms"] = one.seconds * 1000 / iters;
    state.counters["two_ms"] = two.seconds * 1000 / iters;
    state.counters["ratio"] = two.seconds / one.seconds;  // target <= 1.15
    state.counters["one_cpu_ms"] = one.cpu * 1000 / iters;
    state.counters["two_cpu_ms"] = two.cpu * 1000 / iters;
    state.counters["one_decoded"] = static_cast<double>(one_decoded) / iters;
    state.counters["two_decoded"] = static_cast<double>(two_decoded) / iters;
    state.counters["two_delivered"] = static_cast<double>(two.frames) / iters;
    const CounterSnapshot after;
    state.counters["cache_hits"] = static_cast<double>(after.hits - before.hits) / iters;
    state.counters["waits"] = static_cast<double>(after.waits - before.waits) / iters;
}

// Single-side runs, fps as a rate over the benchmark's own (wall) time.
BENCHMARK(BM_Seq_Plain)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_Seq_EngineGetFrame)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_Seq_EngineNextFrame)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_Rgba_Plain)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);
BENCHMARK(BM_Rgba_Engine)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);
// Paired runs: the figures to compare.
BENCHMARK(BM_Pair_Sequential)->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(4);
BENCHMARK(BM_Pair_RandomAccess)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(1);
BENCHMARK(BM_Pair_Lockstep)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(4);

}  // namespace
