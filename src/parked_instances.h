// Work of the probe kept for the first decoder of a stream. Probing a video
// stream opens the file, reads its stream information and decodes its first
// frames; the first picture a host then asks for needs exactly that. So the
// probe parks the instance, positioned after those frames, together with the
// frames, and the first decode task opened on the stream adopts both instead
// of opening and decoding again.
//
// Parked work is bounded: at most kMaxParked instances, none older than
// kMaxAge (checked whenever something is parked or adopted), all released by
// mem_collection and when the last decoder of their movie closes. `mutex`
// guards `entries`; nothing else is locked while it is held, and instances
// are destroyed after it is released (closing a decoder joins its threads).
// It is taken inside a decoder's request mutex (a decoder's open adopts, its
// close releases its movie's work).
#pragma once

#include <chrono>
#include <cstddef>
#include <list>
#include <memory>
#include <mutex>
#include <vector>

extern "C" {
#include <libavutil/frame.h>
}

namespace ff {

class Instance;
struct MovieCtx;
struct StreamCtx;

struct ParkedStart {
    std::unique_ptr<Instance> instance;
    std::vector<std::shared_ptr<AVFrame>> frames;  // the stream's first frames, in presentation order

    ParkedStart();
    ParkedStart(ParkedStart&&) noexcept;
    ParkedStart& operator=(ParkedStart&&) noexcept;
    ~ParkedStart();
};

class ParkedInstances {
public:
    static constexpr size_t kMaxParked = 8;
    static constexpr std::chrono::seconds kMaxAge{10};

    static ParkedInstances& instance();

    void park(const StreamCtx* stream, ParkedStart start);
    // Takes the work parked for `stream`; false when there is none.
    bool adopt(const StreamCtx* stream, ParkedStart* out);
    // Releases what was parked more than `ms` milliseconds ago (0: all).
    void release_older_than(unsigned ms);
    // Releases what was parked for any stream of `movie`.
    void release_movie(const MovieCtx* movie);
    size_t size();

private:
    using Clock = std::chrono::steady_clock;
    struct Entry {
        const StreamCtx* stream;
        ParkedStart start;
        Clock::time_point parked;
    };
    // With `mutex` held: moves the entries `pred` picks into `out`.
    template <typename Pred>
    void take_if(Pred pred, std::list<Entry>& out);

    std::mutex mutex;
    std::list<Entry> entries;  // oldest first
};

}  // namespace ff
