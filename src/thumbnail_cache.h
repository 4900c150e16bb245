// The most recent movie thumbnails. A host that redraws its timeline asks for
// the same pictures again and again; they come from here without opening a
// decoder. Pictures are read-only shared records, so every caller may hold
// the same one.
#pragma once

#include <chrono>
#include <cstddef>
#include <list>
#include <memory>
#include <mutex>
#include <string>

#include "frame_records.h"
#include "rational.h"

namespace ff {

struct ThumbnailKey {
    std::string path;
    Rational time;   // the picture's time in seconds, reduced
    int width = 0;   // the request's target size
    int height = 0;
    int format = 0;
    bool upright = false;

    bool operator==(const ThumbnailKey& other) const;
};

class ThumbnailCache {
public:
    // Bounds: pictures are kept while there are at most this many and their
    // memory stays under the byte limit; the least recently used go first.
    static constexpr size_t kMaxPictures = 32;
    static constexpr size_t kMaxBytes = 64u << 20;

    static ThumbnailCache& instance();

    std::shared_ptr<VFrameCtx> find(const ThumbnailKey& key);
    void insert(const ThumbnailKey& key, std::shared_ptr<VFrameCtx> picture);
    void clear();
    // Lets go of the pictures not asked for in the last `ms` milliseconds
    // (0: all), so that their pooled memory can be given back.
    void release_older_than(unsigned ms);
    size_t size();

private:
    using Clock = std::chrono::steady_clock;
    struct Entry {
        ThumbnailKey key;
        std::shared_ptr<VFrameCtx> picture;
        Clock::time_point used;
    };
    void evict_over_bounds();

    // Guards recent_ and bytes_. Under it only the buffer pool's locks, which
    // are innermost: insert, clear and eviction can drop the last reference
    // to a picture, whose pooled memory is then freed.
    std::mutex mutex_;
    std::list<Entry> recent_;  // most recent first
    size_t bytes_ = 0;
};

}  // namespace ff
