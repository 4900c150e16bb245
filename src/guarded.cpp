#include "guarded.h"

namespace ff {

void log_caught(const char* where, const std::exception* e) noexcept {
    // Logging itself may fail (the host's sink throwing, no memory left):
    // nothing more can be done then.
    try {
        CLIPDEC_LOG(kLogError, kTagDefault, "%s: exception caught: %s", where ? where : "?",
                    e ? e->what() : "unknown exception");
    } catch (...) {
    }
}

}  // namespace ff
