// The movie probe: describes a whole file in a MovieCtx with one StreamCtx per
// usable stream, measuring what the container may not report reliably, and
// caches the record per path for the life of the process.
//
// g_mvctx_mtx guards g_mvctx_map (and the records it replaced) and is taken
// alone, only around the look-up and the final store, never while probing:
// two threads probing one new path both do the work, and the later store wins
// (both records stay valid).
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <unordered_map>

extern "C" {
#include <libavformat/avformat.h>
}

#include "movie_info.h"

namespace ff {

// Both live until the process ends and are never destroyed: records must stay
// valid (and reachable) as long as anything may hold a stream's address,
// including code that runs while other static objects are being destroyed.
extern std::unordered_map<std::string, MovieCtx*>& g_mvctx_map;
extern std::mutex& g_mvctx_mtx;

// The cached or newly probed record for `path`; null when it cannot be opened.
MovieCtx* probe_movie(const char* path, std::atomic<bool>* cancel);

// Describe one stream of the probe's own format context and append its
// record to `mv` (which must have room). `movie_duration` is the container's
// duration in microseconds and `unreliable` says it was estimated from the bit
// rate; a probe may overwrite `st->duration` with a measured value.
StreamCtx* probe_video_stream(MovieCtx* mv, AVStream* st, long long movie_duration, bool unreliable,
                              std::atomic<bool>* cancel);
StreamCtx* probe_audio_stream(MovieCtx* mv, AVStream* st, long long movie_duration, bool unreliable,
                              std::atomic<bool>* cancel);
// Null, and nothing appended, unless the stream is SubRip.
StreamCtx* probe_subtitle_stream(MovieCtx* mv, AVStream* st, long long movie_duration,
                                 bool unreliable, std::atomic<bool>* cancel);

// The stream's display rotation in degrees, in [-0.9, 359.1).
double get_rotation(AVStream* st);

}  // namespace ff
