// Test hooks of the buffer pool; not part of the public interface.
#pragma once

namespace bg::mempool {

// Makes the pool stamp and age free buffers with `now_ms` instead of
// bg::time::cpu_msec_pts, so that collection by age can be checked without
// sleeping. Null restores the real clock. The clock must never go backwards
// while buffers stamped by it are free, or collection may stop early.
void set_clock_for_testing(long long (*now_ms)());

}  // namespace bg::mempool
