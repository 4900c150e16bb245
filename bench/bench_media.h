// The benchmarks' media (scripts/gen_bench_media.sh, in $CLIPDEC_BENCH_MEDIA
// or build/bench-media) and their video streams through the library's probe.
#pragma once

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdlib>
#include <string>

#include "ffdecoder.h"
#include "movie_info.h"

namespace benchmedia {

inline std::string path(const char* name) {
    const char* dir = std::getenv("CLIPDEC_BENCH_MEDIA");
    return std::string(dir ? dir : "build/bench-media") + "/" + name;
}

// The first video stream of the file, or null with the benchmark skipped.
inline const ff::StreamCtx* video(benchmark::State& state, const char* name) {
    const std::string file = path(name);
    ff::MovieCtx* movie = access(file.c_str(), R_OK) == 0 ? ff::FFDecoder::probe(file.c_str(), nullptr) : nullptr;
    if (!movie || movie->nb_video < 1) {
        state.SkipWithError("bench media missing: run scripts/bench.sh");
        return nullptr;
    }
    return movie->streams[movie->video_indexes[0]];
}

}  // namespace benchmedia
