// The first picture of a file the process has not seen: what an editor pays
// for every clip it imports. Each trial opens a fresh hard link, so neither
// the probe cache nor anything else of the library has seen the path.
//
//   BM_FirstPicture/0   plain FFmpeg: open, stream information, decoder, first frame
//   BM_FirstPicture/1   clipdec: probe, open a decoder, the picture at 0 s (YUV 4:2:0)
//   BM_FirstPicture/2   clipdec as 1, converted to RGBA
//   BM_FirstPicture_PyAV  PyAV (python3-av): open, first frame as an RGBA array,
//                         run as a child process, its own timings per trial
//   BM_Import/0, /1     200 distinct short files from 2 threads (plain, clipdec):
//                         probe and first picture of each; items per second
//   BM_FirstPictureSteps/0, /1  where the time goes (plain, clipdec), as
//                         counters of milliseconds per step
//
// Reports only; the targets are read off the figures in docs/BENCHMARKS.md.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "bench_media.h"
#include "ffdecoder.h"
#include "movie_info.h"
#include "plain_ffmpeg.h"

namespace {

// A path to `file` nobody has opened yet.
std::string fresh_link(const std::string& file) {
    static std::atomic<int> serial{0};
    const std::string link = file + ".first" + std::to_string(getpid()) + "_" + std::to_string(serial++) + ".mp4";
    unlink(link.c_str());
    return ::link(file.c_str(), link.c_str()) == 0 ? link : std::string();
}

bool plain_first_frame(const std::string& path, AVFrame* frame) {
    cli::PlainStream plain;
    return plain.open(path.c_str(), -1) && plain.next(frame) == 0;
}

bool clipdec_first_picture(const std::string& path, ff::PixelFormat format) {
    ff::MovieCtx* movie = ff::FFDecoder::probe(path.c_str(), nullptr);
    if (!movie || movie->nb_video < 1) return false;
    ff::FFDecoder decoder;
    if (!decoder.open(movie->streams[movie->video_indexes[0]])) return false;
    ff::RequireVideoFrame req;
    req.time = ff::Rational(0, 1);
    req.format = format;
    return decoder.getVideoFrame(req) != nullptr;
}

bool first_picture(int side, const std::string& path, AVFrame* frame) {
    if (side == 0) return plain_first_frame(path, frame);
    return clipdec_first_picture(path, side == 1 ? ff::PF_YUV420P : ff::PF_RGBA);
}

void BM_FirstPicture(benchmark::State& state) {
    const std::string file = benchmedia::path("bench_1080p.mp4");
    if (access(file.c_str(), R_OK) != 0) return state.SkipWithError("bench media missing: run scripts/bench.sh");
    ff::UniqueAVFrame frame(av_frame_alloc());
    for (auto _ : state) {
        state.PauseTiming();
        const std::string link = fresh_link(file);
        state.ResumeTiming();
        if (!first_picture(static_cast<int>(state.range(0)), link, frame.get())) state.SkipWithError("no picture");
        state.PauseTiming();
        av_frame_unref(frame.get());
        unlink(link.c_str());
        state.ResumeTiming();
    }
}

// PyAV's figures come from a child process that prints one time per trial.
void BM_FirstPicture_PyAV(benchmark::State& state) {
    const std::string file = benchmedia::path("bench_1080p.mp4");
    const char* script_dir = std::getenv("CLIPDEC_BENCH_SCRIPTS");
    const std::string script = std::string(script_dir ? script_dir : "bench") + "/first_picture_pyav.py";
    const std::string command = "/usr/bin/python3 " + script + " " + file + " " +
                                std::to_string(state.max_iterations) + " 2>/dev/null";
    FILE* child = popen(command.c_str(), "r");
    if (!child) return state.SkipWithError("cannot run python3");
    for (auto _ : state) {
        double seconds = 0;
        if (std::fscanf(child, "%lf", &seconds) != 1) {
            state.SkipWithError("no PyAV timing (is python3-av installed?)");
            break;
        }
        state.SetIterationTime(seconds);
    }
    pclose(child);
}

void BM_Import(benchmark::State& state) {
    constexpr int kFiles = 200;
    const std::string file = benchmedia::path("bench_short_720p.mp4");
    if (access(file.c_str(), R_OK) != 0) return state.SkipWithError("bench media missing: run scripts/bench.sh");
    const int side = static_cast<int>(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        std::vector<std::string> links;
        for (int i = 0; i < kFiles; ++i) links.push_back(fresh_link(file));
        state.ResumeTiming();
        std::atomic<int> next{0}, failed{0};
        auto import = [&] {
            ff::UniqueAVFrame frame(av_frame_alloc());
            for (int i; (i = next++) < kFiles; av_frame_unref(frame.get()))
                if (!first_picture(side, links[i], frame.get())) ++failed;
        };
        std::thread other(import);
        import();
        other.join();
        state.PauseTiming();
        if (failed) state.SkipWithError("a file gave no picture");
        for (const std::string& link : links) unlink(link.c_str());
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kFiles);
}

// Milliseconds since the last call.
class StepClock {
public:
    double lap() {
        const auto now = std::chrono::steady_clock::now();
        const double ms = std::chrono::duration<double, std::milli>(now - last_).count();
        last_ = now;
        return ms;
    }

private:
    std::chrono::steady_clock::time_point last_ = std::chrono::steady_clock::now();
};

// The tool's plain loop, one step at a time.
void plain_steps(const std::string& path, AVFrame* frame, double* ms) {
    StepClock clock;
    cli::PlainStream plain;
    if (!plain.open_input(path.c_str())) return;
    ms[0] += clock.lap();
    plain.find_stream_info();
    ms[1] += clock.lap();
    const bool opened = plain.open_decoder(-1);
    ms[2] += clock.lap();
    if (opened) plain.next(frame);
    ms[3] += clock.lap();
}

void clipdec_steps(const std::string& path, double* ms) {
    StepClock clock;
    ff::MovieCtx* movie = ff::FFDecoder::probe(path.c_str(), nullptr);
    ms[0] += clock.lap();
    if (!movie || movie->nb_video < 1) return;
    ff::FFDecoder decoder;
    decoder.open(movie->streams[movie->video_indexes[0]]);
    ms[1] += clock.lap();
    ff::RequireVideoFrame req;
    req.time = ff::Rational(0, 1);
    req.format = ff::PF_RGBA;
    benchmark::DoNotOptimize(decoder.getVideoFrame(req));
    ms[2] += clock.lap();
}

void BM_FirstPictureSteps(benchmark::State& state) {
    const std::string file = benchmedia::path("bench_1080p.mp4");
    if (access(file.c_str(), R_OK) != 0) return state.SkipWithError("bench media missing: run scripts/bench.sh");
    const bool plain = state.range(0) == 0;
    double ms[4] = {};
    ff::UniqueAVFrame frame(av_frame_alloc());
    for (auto _ : state) {
        state.PauseTiming();
        const std::string link = fresh_link(file);
        state.ResumeTiming();
        if (plain) {
            plain_steps(link, frame.get(), ms);
        } else {
            clipdec_steps(link, ms);
        }
        state.PauseTiming();
        av_frame_unref(frame.get());
        unlink(link.c_str());
        state.ResumeTiming();
    }
    const double n = static_cast<double>(state.iterations());
    const char* const plain_names[] = {"open_ms", "stream_info_ms", "decoder_ms", "first_frame_ms"};
    const char* const clipdec_names[] = {"probe_ms", "open_ms", "picture_ms"};
    for (int i = 0; i < (plain ? 4 : 3); ++i) state.counters[plain ? plain_names[i] : clipdec_names[i]] = ms[i] / n;
}

}  // namespace

BENCHMARK(BM_FirstPictureSteps)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(15);
BENCHMARK(BM_FirstPicture)->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->Iterations(15);
BENCHMARK(BM_FirstPicture_PyAV)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(15);
BENCHMARK(BM_Import)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);
