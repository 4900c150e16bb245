// Memory stability of steady playback and export: decoders of every file play
// pictures and 20 ms audio spans in real order, looping, while an export pass
// reads the same files at another speed, size and rate, and thumbnails are
// taken at new times; resident memory and the buffer pool are sampled all
// along. At the end the decoders close and mem_collection(0) gives the pool's
// free blocks back to the system.
//
//   clipdec_soak [--seconds N] [--every S] FILE...
#include <clipdec/clipdec.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "process_stats.h"

namespace {

using processstats::resident_mb;

double mb(std::size_t bytes) { return static_cast<double>(bytes) / (1024.0 * 1024.0); }

struct Counts {
    std::atomic<long long> pictures{0}, spans{0}, thumbnails{0}, loops{0};
};

const ff::StreamCtx* first_of(const ff::MovieCtx* movie, ff::StreamType type) {
    const int count = type == ff::STREAM_VIDEO ? movie->nb_video : movie->nb_audio;
    const int8_t* list = type == ff::STREAM_VIDEO ? movie->video_indexes : movie->audio_indexes;
    return count > 0 && list[0] >= 0 ? movie->streams[list[0]] : nullptr;
}

ff::Rational length_of(const ff::StreamCtx* st) {
    if (!st || st->duration == ff::kNoPts || st->time_base.den == 0) return ff::Rational(1, 1);
    return ff::timestamp_to_time(st->duration, st->time_base);
}

// One pass over a file: a picture every 40 ms of clip time, the 20 ms audio
// spans between, `speed` and `divider` as the pass wants.
void play_once(const ff::MovieCtx* movie, double speed, int divider, ff::PixelFormat pixels, int rate,
               const std::atomic<bool>& stop, Counts& counts) {
    ff::FFDecoder2 video, audio;
    const ff::StreamCtx* vs = first_of(movie, ff::STREAM_VIDEO);
    const ff::StreamCtx* as = first_of(movie, ff::STREAM_AUDIO);
    const bool has_video = vs && video.open(vs);
    const bool has_audio = as && audio.open(as);
    if (speed != 1.0) {
        if (has_video) video.setSpeed(speed);
        if (has_audio) audio.setSpeed(speed);
    }
    const ff::Rational length = length_of(has_video ? vs : as) * ff::Rational(100, static_cast<long long>(speed * 100));
    const long long steps = static_cast<long long>(length.to_double() * 25);
    for (long long k = 0; k < steps && !stop; ++k) {
        if (has_video) {
            ff::RequireVideoFrame req;
            req.time = ff::Rational(k, 25);
            req.format = pixels;
            req.divider = divider;
            counts.pictures += video.getVideoFrame(req) != nullptr;
        }
        if (has_audio) {
            ff::RequireAudioFrame req;
            req.sample_rate = rate;
            for (int half = 0; half < 2; ++half) {
                req.range = ff::Range(ff::Rational(2 * k + half, 50), ff::Rational(2 * k + half + 1, 50));
                counts.spans += audio.getAudioFrame(req) != nullptr;
            }
        }
    }
    ++counts.loops;
}

void print_sample(double seconds, const Counts& counts) {
    const bg::mempool::PoolStats pool = bg::mempool::stats();
    std::printf("%7.0f s  resident %8.1f MB  pool in use %7.1f MB (%zu)  pool free %7.1f MB (%zu)  "
                "pictures %lld  spans %lld  thumbnails %lld\n",
                seconds, resident_mb(), mb(pool.handed_out_bytes), pool.handed_out_count, mb(pool.free_bytes),
                pool.free_count, counts.pictures.load(), counts.spans.load(), counts.thumbnails.load());
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    int seconds = 600, every = 30;
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--seconds") && i + 1 < argc) seconds = std::atoi(argv[++i]);
        else if (!std::strcmp(argv[i], "--every") && i + 1 < argc) every = std::atoi(argv[++i]);
        else files.emplace_back(argv[i]);
    }
    std::vector<const ff::MovieCtx*> movies;
    for (const std::string& f : files)
        if (const ff::MovieCtx* m = ff::getMovieInfo(f.c_str(), nullptr)) movies.push_back(m);
    if (movies.empty() || seconds <= 0 || every <= 0) {
        std::fprintf(stderr, "usage: clipdec_soak [--seconds N] [--every S] FILE...\n");
        return 2;
    }

    std::atomic<bool> stop{false};
    Counts counts;
    std::vector<std::thread> threads;
    // Playback: full-size RGBA and 48 kHz float, in order, looping.
    threads.emplace_back([&] {
        for (size_t i = 0; !stop; ++i) play_once(movies[i % movies.size()], 1.0, 1, ff::PF_RGBA, 48000, stop, counts);
    });
    // Export: speed 1.5, half-size YUV and 44.1 kHz, looping over the same files.
    threads.emplace_back([&] {
        for (size_t i = 1; !stop; ++i)
            play_once(movies[i % movies.size()], 1.5, 2, ff::PF_YUV420P, 44100, stop, counts);
    });
    // Thumbnails at times not asked before, once a second.
    threads.emplace_back([&] {
        for (long long k = 0; !stop; ++k) {
            ff::RequireMvImage req;
            req.width = 320;
            req.ratio = static_cast<double>((k * 7919) % 1000) / 1000.0;
            counts.thumbnails += ff::getMovieImage(movies[k % movies.size()]->path, req, nullptr) != nullptr;
            for (int i = 0; i < 10 && !stop; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    });

    const auto start = std::chrono::steady_clock::now();
    auto elapsed = [&] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(); };
    print_sample(0, counts);
    for (int t = every; t <= seconds; t += every) {
        while (elapsed() < t) std::this_thread::sleep_for(std::chrono::milliseconds(200));
        print_sample(elapsed(), counts);
    }
    stop = true;
    for (std::thread& t : threads) t.join();

    std::printf("decoders closed:\n");
    print_sample(elapsed(), counts);
    ff::mem_collection(0);
    std::printf("after mem_collection(0):\n");
    print_sample(elapsed(), counts);
    std::printf("loops %lld\n", counts.loops.load());
    return 0;
}
