#include "bg_time.h"

#include <ctime>

#include "bg_time_internal.h"

namespace bg::time {
namespace {

// CLOCK_MONOTONIC read in nanoseconds is a counter with a frequency of
// 1,000,000,000 ticks per second; the arithmetic below is written for any
// frequency so that it stays the same should another counter be used.
constexpr long long kCounterFrequency = 1000000000LL;
constexpr long long kNanosPerSecond = 1000000000LL;

long long read_counter() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * kNanosPerSecond + ts.tv_nsec;
}

detail::Reading read_now() {
    const detail::Anchor& a = detail::anchor();
    return detail::split(read_counter(), a);
}

}  // namespace

namespace detail {

Anchor make_anchor(long long freq, long long counter, long long wall_sec) {
    Anchor a{};
    a.freq = freq != 0 ? freq : 1;
    a.addsec = wall_sec - counter / a.freq;
    return a;
}

const Anchor& anchor() {
    // The guard of a function-local static runs the initialiser exactly once
    // even when the first calls race, and every other caller waits for it and
    // then sees the finished values; after that the read is a plain load.
    // The guard is what the "inited" flag of a hand-made version would be.
    static const Anchor a = [] {
        const long long counter = read_counter();
        const long long wall = static_cast<long long>(::time(nullptr));
        return make_anchor(kCounterFrequency, counter, wall);
    }();
    return a;
}

Reading split(long long counter, const Anchor& a) {
    Reading r{};
    r.sec = counter / a.freq + a.addsec;
    // The remainder is below freq, so the product stays in range for any
    // frequency under about 9.2e9.
    r.nsec = (counter % a.freq) * kNanosPerSecond / a.freq;
    return r;
}

long long to_nano(const Reading& r) { return r.sec * kNanosPerSecond + r.nsec; }
long long to_usec(const Reading& r) { return r.sec * 1000000LL + r.nsec / 1000; }
long long to_msec(const Reading& r) { return r.sec * 1000LL + r.nsec / 1000000; }

}  // namespace detail

void cpu_pts(long long* sec, long long* nsec) {
    // Read even when both pointers are null: the first call must anchor.
    const detail::Reading r = read_now();
    if (sec) {
        *sec = r.sec;
    }
    if (nsec) {
        *nsec = r.nsec;
    }
}

long long cpu_nano_pts() { return detail::to_nano(read_now()); }
long long cpu_usec_pts() { return detail::to_usec(read_now()); }
long long cpu_msec_pts() { return detail::to_msec(read_now()); }

}  // namespace bg::time
