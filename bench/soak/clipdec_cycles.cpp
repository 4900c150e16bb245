// What a host's open/reopen/close cycles leave behind. Each cycle, on every
// stream given: a new decoder and a long-lived one are opened, opened again
// while open, reopened, asked for a picture (or a span) asynchronously and
// synchronously, reopened, and closed; the new decoder is destroyed. The
// stream pools' worker count, the process's thread count and its resident
// memory are printed at the start (after a warm-up), every 100 cycles and at
// the end, and after mem_collection(0).
//
//   clipdec_cycles [--cycles N] FILE...
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "ff_tools.h"
#include "ffdecoder.h"
#include "movie_info.h"
#include "process_stats.h"
#include "scheduler.h"

namespace {

using processstats::resident_mb;
using processstats::thread_count;

size_t worker_count(const std::vector<const ff::StreamCtx*>& streams) {
    size_t n = 0;
    for (const ff::StreamCtx* st : streams) n += ff::g_decoder_mgr.pool_of(st)->worker_count();
    return n;
}

// One request of each kind, so that every cycle converts and starts a worker thread.
void ask(ff::FFDecoder& dec, const ff::StreamCtx* st, int cycle) {
    const ff::Rational t(cycle % 50, 25);
    if (st->type == ff::STREAM_VIDEO) {
        ff::RequireVideoFrame req;
        req.time = t;
        req.format = ff::PF_RGBA;
        std::promise<void> answered;
        dec.getVideoFrameAsync(req, [&](std::shared_ptr<ff::VFrameCtx>) { answered.set_value(); });
        answered.get_future().wait_for(std::chrono::seconds(10));
        dec.getVideoFrame(req);
    } else {
        ff::RequireAudioFrame req;
        req.range = ff::Range(t, t + ff::Rational(1, 50));
        std::promise<void> answered;
        dec.getAudioFrameAsync(req, [&](std::shared_ptr<ff::AFrameCtx>) { answered.set_value(); });
        answered.get_future().wait_for(std::chrono::seconds(10));
        dec.getAudioFrame(req);
    }
}

void cycle_once(std::vector<std::unique_ptr<ff::FFDecoder>>& kept, const std::vector<const ff::StreamCtx*>& streams,
                int cycle) {
    for (size_t i = 0; i < streams.size(); ++i) {
        ff::FFDecoder fresh;
        for (ff::FFDecoder* dec : {&fresh, kept[i].get()}) {
            dec->open(streams[i]);
            dec->open(streams[i]);
            dec->reopen();
            ask(*dec, streams[i], cycle);
            dec->reopen();
        }
        kept[i]->close();
    }
}

void report(const char* when, int cycle, const std::vector<const ff::StreamCtx*>& streams) {
    std::printf("%-12s cycle %5d: workers %zu, threads %d, resident %.1f MB\n", when, cycle, worker_count(streams),
                thread_count(), resident_mb());
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    int cycles = 1000;
    std::vector<const ff::StreamCtx*> streams;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--cycles") && i + 1 < argc) {
            cycles = std::atoi(argv[++i]);
            continue;
        }
        ff::MovieCtx* movie = ff::FFDecoder::probe(argv[i], nullptr);
        if (!movie) {
            std::fprintf(stderr, "cannot probe %s\n", argv[i]);
            return 1;
        }
        if (movie->nb_video > 0) streams.push_back(movie->streams[movie->video_indexes[0]]);
        if (movie->nb_audio > 0) streams.push_back(movie->streams[movie->audio_indexes[0]]);
    }
    if (streams.empty()) {
        std::fprintf(stderr, "usage: clipdec_cycles [--cycles N] FILE...\n");
        return 2;
    }
    std::vector<std::unique_ptr<ff::FFDecoder>> kept;
    for (size_t i = 0; i < streams.size(); ++i) kept.push_back(std::make_unique<ff::FFDecoder>());

    constexpr int kWarmUp = 20;  // caches, pools and FFmpeg's one-time state settle first
    for (int c = 0; c < kWarmUp; ++c) cycle_once(kept, streams, c);
    report("start", 0, streams);
    for (int c = 1; c <= cycles; ++c) {
        cycle_once(kept, streams, c);
        if (c % 100 == 0 || c == cycles) report(c == cycles ? "end" : "", c, streams);
    }
    ff::mem_collection(0);
    report("collected", cycles, streams);
    return 0;
}
