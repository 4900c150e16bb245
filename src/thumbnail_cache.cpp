#include "thumbnail_cache.h"

namespace ff {

namespace {

size_t picture_bytes(const VFrameCtx& picture) { return picture.size > 0 ? static_cast<size_t>(picture.size) : 0; }

}  // namespace

bool ThumbnailKey::operator==(const ThumbnailKey& other) const {
    // Times are stored reduced, so equal times have equal pairs.
    return path == other.path && time.num == other.time.num && time.den == other.time.den && width == other.width &&
           height == other.height && format == other.format && upright == other.upright;
}

ThumbnailCache& ThumbnailCache::instance() {
    // Never destroyed: pictures may still be asked for while the process exits.
    static ThumbnailCache* cache = new ThumbnailCache();
    return *cache;
}

std::shared_ptr<VFrameCtx> ThumbnailCache::find(const ThumbnailKey& key) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = recent_.begin(); it != recent_.end(); ++it) {
        if (!(it->key == key)) continue;
        it->used = Clock::now();
        recent_.splice(recent_.begin(), recent_, it);
        return recent_.front().picture;
    }
    return {};
}

void ThumbnailCache::insert(const ThumbnailKey& key, std::shared_ptr<VFrameCtx> picture) {
    if (!picture || picture_bytes(*picture) > kMaxBytes) return;
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = recent_.begin(); it != recent_.end(); ++it) {
        if (it->key == key) {
            bytes_ -= picture_bytes(*it->picture);
            recent_.erase(it);
            break;
        }
    }
    bytes_ += picture_bytes(*picture);
    recent_.push_front(Entry{key, std::move(picture), Clock::now()});
    evict_over_bounds();
}

void ThumbnailCache::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    recent_.clear();
    bytes_ = 0;
}

void ThumbnailCache::release_older_than(unsigned ms) {
    std::list<Entry> released;  // destroyed after the lock: freeing takes the pool's locks
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const Clock::time_point now = Clock::now();
        for (auto it = recent_.begin(); it != recent_.end();) {
            const auto next = std::next(it);
            if (ms == 0 || now - it->used >= std::chrono::milliseconds(ms)) {
                bytes_ -= picture_bytes(*it->picture);
                released.splice(released.end(), recent_, it);
            }
            it = next;
        }
    }
}

size_t ThumbnailCache::size() {
    std::lock_guard<std::mutex> lock(mutex_);
    return recent_.size();
}

void ThumbnailCache::evict_over_bounds() {
    while (!recent_.empty() && (recent_.size() > kMaxPictures || bytes_ > kMaxBytes)) {
        bytes_ -= picture_bytes(*recent_.back().picture);
        recent_.pop_back();
    }
}

}  // namespace ff
