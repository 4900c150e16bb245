#include "playback_direction.h"

#include <mutex>
#include <unordered_set>

namespace ff {
namespace {

struct Backward {
    std::mutex mutex;
    std::unordered_set<int> ids;
};

Backward& backward() {
    static Backward* const set = new Backward();  // never destroyed: decoders may close at exit
    return *set;
}

}  // namespace

void set_plays_backward(int decoder_id, bool on) {
    Backward& b = backward();
    std::lock_guard<std::mutex> lock(b.mutex);
    if (on) {
        b.ids.insert(decoder_id);
    } else {
        b.ids.erase(decoder_id);
    }
}

bool plays_backward(int decoder_id) {
    Backward& b = backward();
    std::lock_guard<std::mutex> lock(b.mutex);
    return b.ids.count(decoder_id) != 0;
}

}  // namespace ff
