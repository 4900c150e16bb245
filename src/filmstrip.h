// A strip of pictures along a video clip, as an editor draws on its timeline:
// N pictures evenly spread over the stream, in one call on one decoder.
#pragma once

#include <atomic>
#include <memory>
#include <vector>

#include "clipdec_export.h"
#include "frame_records.h"
#include "rational.h"

namespace ff {

struct RequireFilmstrip {
    int count = 10;                       // pictures, at (i + 0.5) * duration / count
    int width = 0;                        // target size, as getMovieImage sizes its picture
    int height = 0;
    PixelFormat format = PF_RGBA;
    // Exact: the picture on screen at each time. Fast: the key frame at or
    // before each time, decoding key frames only.
    bool fast = false;
    std::atomic<bool>* cancel = nullptr;  // ends the strip early with what it has
};

struct FilmstripPicture {
    std::shared_ptr<VFrameCtx> picture;
    Rational asked;  // the time asked for, in seconds from the stream's start
    Rational shown;  // the picture's own time, in seconds from the stream's start
};

// The strip of the first video stream of the file at `path` that opens, in
// time order. Empty when the file has no decodable video or its duration is
// unknown; shorter when cancelled or when a picture cannot be had.
CLIPDEC_API std::vector<FilmstripPicture> getFilmstrip(const char* path, const RequireFilmstrip& req);

}  // namespace ff
