// The decoder thumbnails and filmstrips read a movie's pictures with.
#pragma once

#include <memory>

namespace ff {

class FFDecoder;
struct MovieCtx;

// A decoder opened on the first video stream of `movie` whose decoder opens,
// or null.
std::unique_ptr<FFDecoder> open_first_video(const MovieCtx* movie);

}  // namespace ff
