// The host's decoder of one stream.
#pragma once

#include <atomic>

#include "clipdec_export.h"
#include "movie_info.h"

namespace ff {

class CLIPDEC_API FFDecoder {
public:
    // The description of the file at `path`: probed once, then answered from
    // a process-wide cache keyed by the exact path string. Null when the file
    // cannot be opened (nothing is cached then) or `path` is null. `cancel`,
    // when set, cuts duration measurements short.
    static MovieCtx* probe(const char* path, std::atomic<bool>* cancel);

    // Gives back to the system the pool's free buffers idle for more than `ms`
    // milliseconds (0: all).
    static void memCollection(unsigned ms);
};

}  // namespace ff
