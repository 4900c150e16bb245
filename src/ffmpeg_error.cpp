#include "ffmpeg_error.h"

extern "C" {
#include <libavutil/error.h>
}

namespace ff {
namespace {

constexpr unsigned kSlots = 10;
constexpr unsigned kSlotBytes = 512;

// Each thread writes its own ring. With one ring for the whole process, a
// slot could be refilled by another thread while a message is still reading
// it as soon as ten calls overlap anywhere; per thread, a text is guaranteed
// intact for the next ten calls of the thread that asked for it.
thread_local char t_error_ring[kSlots][kSlotBytes];
thread_local unsigned t_error_index = 0;

}  // namespace

const char* ffmpeg_error(int err) {
    // Unsigned wrap-around keeps the slot within 0..9 however many calls came before.
    char* slot = t_error_ring[t_error_index++ % kSlots];
    av_strerror(err, slot, kSlotBytes);
    return slot;
}

}  // namespace ff
