// Ten pictures spread over the 20-second 1080p H.264 file with a key frame
// every 250 frames, 240 pixels wide, three ways:
//
//   BM_Filmstrip/0  getFilmstrip, exact (the picture on screen at each time)
//   BM_Filmstrip/1  getFilmstrip, fast (the key frame at or before each time)
//   BM_Filmstrip/2  ten separate getMovieImage calls at the same times
//
// The probe is warm on every side; thumbnails are taken at times no earlier
// iteration asked for, so the thumbnail cache never answers.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdlib>
#include <string>

#include "bench_media.h"
#include "ff_tools.h"
#include "ffdecoder.h"
#include "filmstrip.h"

namespace {

constexpr int kPictures = 10;

void BM_Filmstrip(benchmark::State& state) {
    const std::string file = benchmedia::path("bench_1080p_gop250.mp4");
    if (access(file.c_str(), R_OK) != 0 || !ff::FFDecoder::probe(file.c_str(), nullptr))
        return state.SkipWithError("bench media missing: run scripts/bench.sh");
    const int mode = static_cast<int>(state.range(0));
    static long long shift = 0;  // microseconds added to the thumbnails' times, new every iteration
    for (auto _ : state) {
        if (mode < 2) {
            ff::RequireFilmstrip req;
            req.count = kPictures;
            req.width = 240;
            req.fast = mode == 1;
            if (ff::getFilmstrip(file.c_str(), req).size() != kPictures) state.SkipWithError("short strip");
            continue;
        }
        ++shift;
        for (int i = 0; i < kPictures; ++i) {
            ff::RequireMvImage req;
            req.time = ff::Rational((2 * i + 1) * 1000000LL + shift, 1000000);
            req.width = 240;
            if (!ff::getMovieImage(file.c_str(), req, nullptr)) state.SkipWithError("no picture");
        }
    }
}

}  // namespace

BENCHMARK(BM_Filmstrip)->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
