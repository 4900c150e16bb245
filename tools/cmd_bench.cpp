// clipdec bench: the library's figures beside a plain FFmpeg loop on the same
// file, in one run. The plain loops are the ones a host would write without
// the library (send/receive, sws_scale, swr_convert), so the ratios show what
// the library's request model costs or saves on this machine and this file.
#include <clipdec/clipdec.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/imgutils.h>
#include <libavutil/mathematics.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include "cli_args.h"
#include "commands.h"
#include "json_writer.h"
#include "plain_ffmpeg.h"
#include "progress.h"

namespace cli {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kRandomRequests = 50;
constexpr unsigned kRandomSeed = 20240611;  // fixed, so runs compare request for request
constexpr int kSpansPerSecond = 50;         // 20 ms audio requests, a typical host callback
constexpr int kOutRate = 48000;
constexpr int kOutChannels = 2;

double seconds_since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }
double ratio(double a, double b) { return b > 0 ? a / b : NAN; }

double median_of(std::vector<double> v) {
    if (v.empty()) return NAN;
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

// ------------------------------------------------------------ the cases

struct Media {
    const char* path = nullptr;
    const ff::StreamCtx* video = nullptr;
    const ff::StreamCtx* audio = nullptr;   // null when the file has none
    double video_seconds = 0;               // the whole video stream
    double span_seconds = 0;                // what the sequential and audio cases cover
    std::vector<ff::Rational> frame_times;  // every frame's time within the span
};

struct Figures {
    bool measured = false;
    long long count = 0;  // frames, requests or samples behind the figures
    double library = NAN;
    double plain = NAN;
    double ratio = NAN;
};

Figures compare(long long count, double library, double plain) {
    return {true, count, library, plain, ratio(library, plain)};
}

double stream_seconds(const ff::StreamCtx* sc) {
    if (sc->duration != ff::kNoPts && sc->duration > 0)
        return ff::timestamp_to_time(sc->duration, sc->time_base).to_double();
    return sc->movie && sc->movie->duration > 0 ? static_cast<double>(sc->movie->duration) / 1e6 : 0;
}

Media load_media(const char* path, double seconds) {
    Media m;
    m.path = path;
    const ff::MovieCtx* movie = ff::getMovieInfo(path, nullptr);
    if (!movie) fail(kExitInput, "cannot open %s", path);
    if (movie->nb_video < 1 || !movie->streams[movie->video_indexes[0]]) fail(kExitInput, "%s: no video stream", path);
    m.video = movie->streams[movie->video_indexes[0]];
    if (movie->nb_audio > 0) m.audio = movie->streams[movie->audio_indexes[0]];
    const ff::Rational rate = m.video->frame_rate;
    if (rate.num <= 0 || rate.den <= 0) fail(kExitInput, "%s: the video cannot be decoded", path);
    m.video_seconds = stream_seconds(m.video);
    m.span_seconds = std::min(seconds, m.video_seconds);
    // Exact times k * den / num: the library gets each frame's own timestamp,
    // not a rounded neighbour that could land on the frame before. A still
    // picture (cover art reports rates such as 90000/1) has one frame.
    m.frame_times.push_back(ff::Rational(0, 1));
    for (long long k = 1; !m.video->still_image; ++k) {
        const ff::Rational t(k * rate.den, rate.num);
        if (t.to_double() >= m.span_seconds) break;
        m.frame_times.push_back(t);
    }
    return m;
}

void open_library(ff::FFDecoder& dec, const ff::StreamCtx* sc, const char* path) {
    if (!dec.open(sc)) fail(kExitInput, "%s: stream %d does not open", path, sc->index);
}

void open_plain(PlainStream& plain, const ff::StreamCtx* sc, const char* path) {
    if (!plain.open(path, sc->index)) fail(kExitInput, "%s: FFmpeg cannot open stream %d", path, sc->index);
}

// Pictures of `format` at every time of `times`; `after_each` runs after each
// request (progress, a barrier). Answers the pictures delivered.
long long read_pictures(ff::FFDecoder& dec, const std::vector<ff::Rational>& times, ff::PixelFormat format,
                        const std::function<void(size_t)>& after_each) {
    long long delivered = 0;
    for (size_t k = 0; k < times.size(); ++k) {
        ff::RequireVideoFrame req;
        req.time = times[k];
        req.format = format;
        if (dec.getVideoFrame(req)) ++delivered;
        after_each(k);
    }
    return delivered;
}

// What one side did in one pass: frames or samples, and wall seconds.
// Opening and closing stay out of the timed parts on both sides.
struct Pass {
    long long count = 0;
    double seconds = 0;
    void add(const Pass& p) {
        count += p.count;
        seconds += p.seconds;
    }
    double rate() const { return count > 0 && seconds > 0 ? static_cast<double>(count) / seconds : NAN; }
};

Pass library_sequential(const Media& m, Progress& progress, double progress_base) {
    ff::FFDecoder dec;
    open_library(dec, m.video, m.path);
    Pass p;
    const auto start = Clock::now();
    p.count = read_pictures(dec, m.frame_times, ff::PF_RGBA,
                            [&](size_t k) { progress.update(progress_base + static_cast<double>(k + 1)); });
    p.seconds = seconds_since(start);
    dec.close();
    if (p.count == 0) fail(kExitInput, "%s: no picture could be decoded", m.path);
    return p;
}

Pass plain_sequential(const Media& m, Progress& progress, double progress_base) {
    PlainStream plain;
    ff::UniqueAVFrame frame(av_frame_alloc());
    RgbaConverter rgba;
    open_plain(plain, m.video, m.path);
    if (!frame || !rgba.allocate(m.video->width, m.video->height)) fail(kExitInput, "out of memory");
    const long long wanted = static_cast<long long>(m.frame_times.size());
    Pass p;
    const auto start = Clock::now();
    while (p.count < wanted && plain.next(frame.get()) >= 0 && rgba.convert(frame.get())) {
        ++p.count;
        progress.update(progress_base + static_cast<double>(p.count));
    }
    p.seconds = seconds_since(start);
    return p;
}

// Library, plain, plain, library: a change in the machine's load during the
// run then weighs on both sides alike, which one pass each does not give.
Figures bench_sequential(const Media& m) {
    const double frames = static_cast<double>(m.frame_times.size());
    Progress progress("sequential pictures", 4 * frames, "frames");
    Pass library = library_sequential(m, progress, 0);
    Pass plain = plain_sequential(m, progress, frames);
    plain.add(plain_sequential(m, progress, 2 * frames));
    library.add(library_sequential(m, progress, 3 * frames));
    progress.finish();
    return compare(library.count / 2, library.rate(), plain.rate());
}

Figures bench_random_access(const Media& m) {
    ff::FFDecoder dec;
    PlainStream plain;
    ff::UniqueAVFrame cur(av_frame_alloc());
    ff::UniqueAVFrame prev(av_frame_alloc());
    RgbaConverter rgba;
    open_library(dec, m.video, m.path);
    open_plain(plain, m.video, m.path);
    if (!cur || !prev || !rgba.allocate(m.video->width, m.video->height)) fail(kExitInput, "out of memory");

    // Whole milliseconds keep the library's time exact and the plain side's
    // target identical; one frame short of the end, so every target has a picture.
    const double frame_seconds = ff::Rational(m.video->frame_rate.den, m.video->frame_rate.num).to_double();
    std::mt19937 rng(kRandomSeed);
    const long long last_ms = std::llround(std::max(m.video_seconds - frame_seconds, 0.0) * 1000);
    std::uniform_int_distribution<long long> pick(0, last_ms);
    std::vector<double> library_ms;
    std::vector<double> plain_ms;
    const auto run_library = [&](long long ms) {
        ff::RequireVideoFrame req;
        req.time = ff::Rational(ms, 1000);
        req.format = ff::PF_RGBA;
        const auto start = Clock::now();
        if (dec.getVideoFrame(req)) library_ms.push_back(seconds_since(start) * 1000);
    };
    const auto run_plain = [&](long long ms) {
        const int64_t target =
            av_rescale_q_rnd(ms, AVRational{1, 1000}, plain.time_base(), AV_ROUND_NEAR_INF) + plain.start();
        const auto start = Clock::now();
        const AVFrame* shown = plain_frame_at(plain, target, cur, prev);
        if (shown && rgba.convert(shown)) plain_ms.push_back(seconds_since(start) * 1000);
    };
    Progress progress("random access", 2.0 * kRandomRequests, "requests");
    // Alternating which side goes first spreads the page cache's and the
    // machine's moods evenly over both.
    for (int i = 0; i < kRandomRequests; ++i) {
        const long long ms = pick(rng);
        if (i % 2 == 0) {
            run_library(ms);
            run_plain(ms);
        } else {
            run_plain(ms);
            run_library(ms);
        }
        progress.update(2.0 * (i + 1));
    }
    progress.finish();
    dec.close();
    return compare(kRandomRequests, median_of(library_ms), median_of(plain_ms));
}

// Samples the library delivers in `spans` contiguous 20 ms requests.
Pass library_audio(const Media& m, long long spans) {
    ff::FFDecoder dec;
    open_library(dec, m.audio, m.path);
    Pass p;
    const auto start = Clock::now();
    for (long long k = 0; k < spans; ++k) {
        ff::RequireAudioFrame req;
        req.range = ff::Range(ff::Rational(k, kSpansPerSecond), ff::Rational(k + 1, kSpansPerSecond));
        req.format = ff::SF_FLT;
        req.sample_rate = kOutRate;
        req.channels = kOutChannels;
        const std::shared_ptr<ff::AFrameCtx> a = dec.getAudioFrame(req);
        if (!a) break;
        p.count += a->nb_samples;
    }
    p.seconds = seconds_since(start);
    dec.close();
    return p;
}

// The same samples through decode + swr_convert, stopping at `wanted`.
Pass plain_audio(const Media& m, long long wanted) {
    PlainStream plain;
    open_plain(plain, m.audio, m.path);
    Pass p;
    const auto start = Clock::now();
    const long long converted = plain_resample(plain, kOutRate, kOutChannels, wanted);
    p.seconds = seconds_since(start);
    if (converted < 0) fail(kExitInput, "out of memory");
    p.count = converted;
    return p;
}

// Seconds of audio per second of wall time: "how many times real time". A
// pass over ten seconds of AAC takes a few milliseconds, so passes alternate
// sides until each has run long enough for the clock and the machine's load
// to matter little.
Figures bench_audio(const Media& m) {
    if (!m.audio) return Figures{};
    constexpr double kMinSeconds = 0.5;
    constexpr int kMaxPasses = 200;
    const double span = std::min(m.span_seconds, stream_seconds(m.audio));
    const long long spans = std::max(1LL, static_cast<long long>(span * kSpansPerSecond));
    // The plain side converts what was asked for, even when the library
    // delivers less: a shortfall then shows in the library's figure.
    const long long wanted = spans * kOutRate / kSpansPerSecond;
    Pass library;
    Pass plain;
    for (int pass = 0; pass < kMaxPasses && (pass < 2 || std::min(library.seconds, plain.seconds) < kMinSeconds);
         ++pass) {
        if (pass % 2 == 0) {
            library.add(library_audio(m, spans));
            plain.add(plain_audio(m, wanted));
        } else {
            plain.add(plain_audio(m, wanted));
            library.add(library_audio(m, spans));
        }
    }
    const double library_realtime = library.count > 0 ? library.rate() / kOutRate : 0;
    return compare(spans * kOutRate / kSpansPerSecond, library_realtime, plain.rate() / kOutRate);
}

// A barrier reused for every frame: the decoders ask for the same frame at
// about the same moment, which is when the engine's sharing has to work.
class FrameBarrier {
public:
    explicit FrameBarrier(int parties) : parties_(parties) {}
    void arrive_and_wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        const unsigned long long generation = generation_;
        if (++waiting_ == parties_) {
            waiting_ = 0;
            ++generation_;
            cv_.notify_all();
            return;
        }
        cv_.wait(lock, [&] { return generation_ != generation; });
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    const int parties_;
    int waiting_ = 0;
    unsigned long long generation_ = 0;
};

// Wall seconds for `count` decoders of the stream, each on its own thread,
// reading every frame time in lockstep. One decoder alone goes through the
// same threads and barrier, so the comparison holds only the sharing.
double lockstep_seconds(const Media& m, int count, Progress& progress, double progress_base) {
    std::vector<std::unique_ptr<ff::FFDecoder>> decoders;
    for (int i = 0; i < count; ++i) {
        decoders.push_back(std::make_unique<ff::FFDecoder>());
        open_library(*decoders.back(), m.video, m.path);
    }
    FrameBarrier barrier(count);
    std::vector<std::thread> threads;
    const auto start = Clock::now();
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&, i] {
            // YUV 4:2:0 is a plain copy: the figure shows the shared decoding,
            // not one RGBA conversion per decoder.
            read_pictures(*decoders[static_cast<size_t>(i)], m.frame_times, ff::PF_YUV420P, [&](size_t k) {
                barrier.arrive_and_wait();
                // Progress is not thread-safe; the first thread alone reports.
                if (i == 0) progress.update(progress_base + static_cast<double>(k + 1));
            });
        });
    }
    for (std::thread& t : threads) t.join();
    const double seconds = seconds_since(start);
    for (auto& d : decoders) d->close();
    return seconds;
}

// One alone, two, two, one, for the same reason as the sequential case.
Figures bench_shared_stream(const Media& m) {
    const double frames = static_cast<double>(m.frame_times.size());
    Progress progress("two decoders sharing a stream", 4 * frames, "frames");
    double one = lockstep_seconds(m, 1, progress, 0);
    double two = lockstep_seconds(m, 2, progress, frames);
    two += lockstep_seconds(m, 2, progress, 2 * frames);
    one += lockstep_seconds(m, 1, progress, 3 * frames);
    progress.finish();
    return compare(static_cast<long long>(m.frame_times.size()), two / 2, one / 2);
}

// ------------------------------------------------------------ output

struct Results {
    Figures sequential, random_access, audio, shared;
};

std::string figure_text(double value, const char* format) {
    if (!std::isfinite(value)) return "-";
    char text[64];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

void print_row(const char* name, const Figures& f, const char* library_format, const char* plain_format) {
    std::printf("%-30s %-20s %-20s %s\n", name, figure_text(f.library, library_format).c_str(),
                figure_text(f.plain, plain_format).c_str(), figure_text(f.ratio, "%.2f").c_str());
}

// Printed before the measurements start, so a long run shows what it works on.
void print_header(const Media& m) {
    const ff::Rational rate = m.video->frame_rate;
    std::printf("file: %s\n", m.path);
    std::printf("video: %dx%d, %lld/%lld fps (%.3f), %.3f s; sequential and audio cases over %.3f s\n",
                m.video->width, m.video->height, rate.num, rate.den, rate.to_double(), m.video_seconds,
                m.span_seconds);
    std::fflush(stdout);
}

void print_table(const Results& r) {
    std::printf("\n%-30s %-20s %-20s %s\n", "case", "library", "plain", "ratio");
    print_row("sequential pictures (RGBA)", r.sequential, "%.1f frames/s", "%.1f frames/s");
    print_row("random access (median)", r.random_access, "%.2f ms", "%.2f ms");
    if (r.audio.measured)
        print_row("audio spans (20 ms, 48 kHz)", r.audio, "%.1fx real time", "%.1fx real time");
    else
        std::printf("audio spans: no audio stream\n");
    print_row("two decoders sharing a stream", r.shared, "two %.3f s", "one %.3f s");
    std::printf("\nratio: library / plain; for the shared stream, two decoders / one (near 1.0 when shared)\n");
}

double rounded(double value) { return std::round(value * 1000) / 1000; }

void json_figures(JsonWriter& json, const char* key, const Figures& f, const char* count_key,
                  const char* library_key, const char* plain_key) {
    if (!f.measured) {
        json.null(key);
        return;
    }
    json.begin_object(key)
        .value(count_key, f.count)
        .value(library_key, rounded(f.library))
        .value(plain_key, rounded(f.plain))
        .value("ratio", rounded(f.ratio))
        .end_object();
}

void print_json(const Media& m, const Results& r) {
    const ff::Rational rate = m.video->frame_rate;
    JsonWriter json;
    json.begin_object()
        .value("file", m.path)
        .value("width", static_cast<long long>(m.video->width))
        .value("height", static_cast<long long>(m.video->height))
        .value("frame_rate", std::to_string(rate.num) + "/" + std::to_string(rate.den))
        .value("video_seconds", rounded(m.video_seconds))
        .value("span_seconds", rounded(m.span_seconds));
    json_figures(json, "sequential", r.sequential, "frames", "library_fps", "plain_fps");
    json_figures(json, "random_access", r.random_access, "requests", "library_median_ms", "plain_median_ms");
    json_figures(json, "audio_spans", r.audio, "samples", "library_realtime", "plain_realtime");
    json_figures(json, "shared_stream", r.shared, "frames", "two_decoders_s", "one_decoder_s");
    json.end_object();
    std::printf("%s\n", json.text().c_str());
}

void print_help() {
    std::printf(
        "usage: clipdec bench FILE [--seconds N] [--json]\n"
        "\n"
        "Measures the library against a plain FFmpeg loop on FILE, in one run:\n"
        "  sequential pictures   every frame from the start as full-size RGBA (frames/s)\n"
        "  random access         %d pictures at pseudo-random times (median latency)\n"
        "  audio spans           contiguous 20 ms requests, 48 kHz stereo float (times real time)\n"
        "  shared stream         two decoders of one stream in lockstep against one alone\n"
        "\n"
        "options:\n"
        "  --seconds N   media covered by the sequential and audio cases (default 10,\n"
        "                never more than the file)\n"
        "  --json        one JSON object instead of the table\n",
        kRandomRequests);
}

}  // namespace

int cmd_bench(const Args& args) {
    const Options opts("bench", args, {{"--seconds", true}, {"--json", false}});
    if (opts.help()) {
        print_help();
        return kExitOk;
    }
    if (opts.positional().size() != 1) fail(kExitUsage, "expected one FILE");
    const double seconds = opts.number("--seconds", 10, 0.5, 3600);
    const Media media = load_media(opts.positional()[0].c_str(), seconds);
    const bool json = opts.has("--json");
    if (!json) print_header(media);

    Results r;
    r.sequential = bench_sequential(media);
    r.random_access = bench_random_access(media);
    r.audio = bench_audio(media);
    r.shared = bench_shared_stream(media);
    if (json)
        print_json(media, r);
    else
        print_table(r);
    return kExitOk;
}

}  // namespace cli
