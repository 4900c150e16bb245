// The clock: every resolution agrees by truncation for any counter value,
// the live clock is wall time and never goes back, and threads racing to be
// the first caller agree on one anchoring.
#include <array>
#include <atomic>
#include <ctime>
#include <tuple>

#include "support.h"
#include "utils/bg_time.h"
#include "utils/bg_time_internal.h"

namespace {

namespace t = bg::time;
namespace d = bg::time::detail;

long long wall() { return static_cast<long long>(std::time(nullptr)); }

// Every entry point, as whole seconds.
long long (*const kSeconds[])() = {
    [] { long long s = 0; t::cpu_pts(&s, nullptr); return s; },
    [] { return t::cpu_nano_pts() / 1000000000LL; },
    [] { return t::cpu_usec_pts() / 1000000LL; },
    [] { return t::cpu_msec_pts() / 1000LL; },
};

// The resolutions must agree by truncation for any counter value, including
// frequencies that are not a power of ten and the last tick before a second.
TEST(BgTimeTest, ResolutionsAgreeByTruncation) {
    for (long long freq : {1000000000LL, 10000000LL, 3579545LL, 3LL, 1LL}) {
        const d::Anchor a = d::make_anchor(freq, 7 * freq + freq / 2, 1700000000LL);
        // Up to about a month of uptime; the results stay far from overflow.
        for (long long k : {0LL, 1LL, freq - 1, freq, 123456789LL * 7 + 5, freq * 2600000 + freq / 3}) {
            const d::Reading r = d::split(k, a);
            EXPECT_EQ(std::make_tuple(r.sec, r.nsec >= 0 && r.nsec < 1000000000LL, d::to_usec(r), d::to_msec(r)),
                      std::make_tuple(k / freq + 1700000000LL - 7, true, d::to_nano(r) / 1000, d::to_nano(r) / 1000000))
                << "freq " << freq << " counter " << k;
        }
    }
    // 2 ticks of a 3 Hz counter are 666,666,666.67 ns: truncated, not rounded.
    const d::Reading r = d::split(2, d::make_anchor(3, 0, 100));
    EXPECT_EQ(std::make_tuple(r.sec, r.nsec, d::to_usec(r), d::to_msec(r)),
              std::make_tuple(100LL, 666666666LL, 100666666LL, 100666LL));
    const d::Anchor one = d::make_anchor(0, 50, 1000);  // a zero frequency is taken as one
    EXPECT_EQ(std::make_pair(one.freq, d::split(60, one).sec), std::make_pair(1LL, 1010LL));
}

TEST(BgTimeTest, LiveClockIsWallTimeAndNeverDecreases) {
    for (auto seconds : kSeconds) EXPECT_NEAR(seconds(), wall(), 1);
    long long nsec = -1;
    t::cpu_pts(nullptr, &nsec);
    EXPECT_TRUE(nsec >= 0 && nsec <= 999999999) << nsec;
    t::cpu_pts(nullptr, nullptr);  // must simply not crash

    std::array<long long, 3> last{};
    for (int i = 0; i < 100000; ++i) {
        const std::array<long long, 3> now = {t::cpu_msec_pts(), t::cpu_usec_pts(), t::cpu_nano_pts()};
        // Read later, so never behind the coarser readings before it.
        ASSERT_TRUE(now[0] >= last[0] && now[1] >= last[1] && now[2] >= last[2] &&
                    now[1] / 1000 >= now[0] && now[2] / 1000 >= now[1]) << i;
        last = now;
    }
}

// Runs in a fresh process (see the test below), so that these threads really
// are the first callers and race for the anchoring.
void first_calls_from_many_threads() {
    std::vector<std::array<long long, 3>> seen(16);  // freq, addsec, sec
    std::atomic<bool> go{false};
    const long long before = wall();
    std::vector<std::thread> threads;
    for (int i = 0; i < 16; ++i) {
        threads.emplace_back([&, i] {
            while (!go.load()) std::this_thread::yield();
            const long long sec = kSeconds[i % 4]();  // every entry point gets to be first
            seen[i] = {d::anchor().freq, d::anchor().addsec, sec};
        });
    }
    go.store(true);
    for (std::thread& t : threads) t.join();
    for (const auto& s : seen)
        if (s[0] != seen[0][0] || s[1] != seen[0][1] || s[2] < before - 1 || s[2] > wall() + 1) std::exit(1);
    std::exit(0);
}

TEST(BgTimeDeathTest, FirstCallsFromManyThreadsAgree) {
    // "threadsafe" re-executes the test binary for this test alone, so the
    // clock is not yet anchored there.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(first_calls_from_many_threads(), testing::ExitedWithCode(0), "");
}

}  // namespace
