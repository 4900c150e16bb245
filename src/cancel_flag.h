// The library's cancel flags: a null pointer is a flag nobody raises.
#pragma once

#include <atomic>

namespace ff {

inline bool cancelled(const std::atomic<bool>* cancel) { return cancel && cancel->load(); }

}  // namespace ff
