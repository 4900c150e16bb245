// Internal pieces of the clock, split out so that the arithmetic can be
// checked against chosen counter values instead of whatever the counter
// happens to read. Not part of the public interface.
#pragma once

namespace bg::time::detail {

// Where the counter stands relative to wall-clock time. Written once, before
// any reading, and immutable afterwards, so it needs no lock.
struct Anchor {
    long long freq;    // counter ticks per second, never 0
    long long addsec;  // wall-clock seconds minus counter seconds at anchoring
};

// One counter value split into whole seconds and nanoseconds within them.
struct Reading {
    long long sec;
    long long nsec;
};

// The anchor for a counter of frequency `freq` that read `counter` when the
// wall clock read `wall_sec`. A frequency of 0 is taken as 1.
Anchor make_anchor(long long freq, long long counter, long long wall_sec);

// The process-wide anchor, set on first use.
const Anchor& anchor();

Reading split(long long counter, const Anchor& a);
long long to_nano(const Reading& r);
long long to_usec(const Reading& r);
long long to_msec(const Reading& r);

}  // namespace bg::time::detail
