#include "first_video.h"

#include <algorithm>

#include "ffdecoder.h"
#include "movie_info.h"

namespace ff {

std::unique_ptr<FFDecoder> open_first_video(const MovieCtx* movie) {
    std::unique_ptr<FFDecoder> chosen;
    const int count = std::min(movie->nb_video, kMaxStreamsPerType);
    for (int i = 0; i < count; ++i) {
        const int position = movie->video_indexes[i];
        if (position < 0 || position >= movie->nb_streams || !movie->streams[position]) continue;
        auto decoder = std::make_unique<FFDecoder>();
        // Every video stream gets its decoder opened, in probe order; the
        // first one that opens serves, the others are let go at once rather
        // than held until the picture is taken.
        if (decoder->open(movie->streams[position]) && !chosen) chosen = std::move(decoder);
    }
    return chosen;
}

}  // namespace ff
