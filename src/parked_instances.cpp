#include "parked_instances.h"

#include "ffdec_instance.h"
#include "movie_info.h"

namespace ff {

ParkedStart::ParkedStart() = default;
ParkedStart::ParkedStart(ParkedStart&&) noexcept = default;
ParkedStart& ParkedStart::operator=(ParkedStart&&) noexcept = default;
ParkedStart::~ParkedStart() = default;

ParkedInstances& ParkedInstances::instance() {
    // Never destroyed: a host may still close decoders while the process exits.
    static ParkedInstances* parked = new ParkedInstances();
    return *parked;
}

template <typename Pred>
void ParkedInstances::take_if(Pred pred, std::list<Entry>& out) {
    for (auto it = entries.begin(); it != entries.end();) {
        const auto next = std::next(it);
        if (pred(*it)) out.splice(out.end(), entries, it);
        it = next;
    }
}

void ParkedInstances::park(const StreamCtx* stream, ParkedStart start) {
    if (!stream || !start.instance) return;
    std::list<Entry> released;  // destroyed after the lock
    std::lock_guard<std::mutex> lock(mutex);
    const Clock::time_point now = Clock::now();
    take_if([&](const Entry& e) { return e.stream == stream || now - e.parked > kMaxAge; }, released);
    entries.push_back(Entry{stream, std::move(start), now});
    while (entries.size() > kMaxParked) released.splice(released.end(), entries, entries.begin());
}

bool ParkedInstances::adopt(const StreamCtx* stream, ParkedStart* out) {
    std::list<Entry> taken;
    {
        std::lock_guard<std::mutex> lock(mutex);
        const Clock::time_point now = Clock::now();
        take_if([&](const Entry& e) { return e.stream == stream || now - e.parked > kMaxAge; }, taken);
    }
    for (Entry& e : taken) {
        if (e.stream != stream || Clock::now() - e.parked > kMaxAge) continue;
        *out = std::move(e.start);
        return true;
    }
    return false;
}

void ParkedInstances::release_older_than(unsigned ms) {
    std::list<Entry> released;
    std::lock_guard<std::mutex> lock(mutex);
    const Clock::time_point now = Clock::now();
    take_if([&](const Entry& e) { return ms == 0 || now - e.parked >= std::chrono::milliseconds(ms); }, released);
}

void ParkedInstances::release_movie(const MovieCtx* movie) {
    std::list<Entry> released;
    std::lock_guard<std::mutex> lock(mutex);
    take_if([&](const Entry& e) { return e.stream->movie == movie; }, released);
}

size_t ParkedInstances::size() {
    std::lock_guard<std::mutex> lock(mutex);
    return entries.size();
}

}  // namespace ff
