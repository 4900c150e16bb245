// The library's process-wide clock. It reads like wall-clock time (seconds
// since 1970-01-01 UTC) but advances with a monotonic counter, so it never
// jumps when the system time is changed: frame-memory ages and the host's
// timings stay meaningful across clock adjustments. The wall clock is
// consulted once, on the first call of any of the four functions; from then
// on the value can drift from wall-clock time but never goes backwards.
//
// All functions may be called from any thread at any time, also for the first
// time concurrently; readings take no lock.
#pragma once

#include "../clipdec_export.h"

namespace bg::time {

// Whole seconds to `*sec` and nanoseconds within that second (0..999,999,999)
// to `*nsec`. A null pointer leaves its part unwritten.
CLIPDEC_API void cpu_pts(long long* sec, long long* nsec);

// The same instant in one unit. The sub-second part is always taken in
// nanoseconds first and truncated down, so for one counter reading
// msec == usec / 1000 == nano / 1000000.
CLIPDEC_API long long cpu_nano_pts();
CLIPDEC_API long long cpu_usec_pts();
CLIPDEC_API long long cpu_msec_pts();

}  // namespace bg::time
