#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "utils/bg_time.h"
#include "utils/bg_time_internal.h"

namespace {

using bg::time::detail::Anchor;
using bg::time::detail::make_anchor;
using bg::time::detail::Reading;
using bg::time::detail::split;

constexpr long long kNotWritten = -12345;

TEST(BgTimeTest, NullPointersLeaveTheirPartAlone) {
    long long sec = kNotWritten;
    long long nsec = kNotWritten;
    bg::time::cpu_pts(nullptr, &nsec);
    EXPECT_GE(nsec, 0);
    EXPECT_LE(nsec, 999999999);

    nsec = kNotWritten;
    bg::time::cpu_pts(&sec, nullptr);
    EXPECT_GT(sec, 0);
    EXPECT_EQ(nsec, kNotWritten);

    bg::time::cpu_pts(nullptr, nullptr);  // must simply not crash
}

// The resolutions must agree by truncation for any counter value, including
// counters whose frequency is not a power of ten (the Windows counter is
// typically 10 MHz or the TSC rate) and the last tick before a second.
TEST(BgTimeTest, ResolutionsAgreeByTruncation) {
    const long long freqs[] = {1000000000LL, 10000000LL, 3579545LL, 3LL, 1LL};
    for (long long freq : freqs) {
        const Anchor a = make_anchor(freq, 7 * freq + freq / 2, 1700000000LL);
        EXPECT_EQ(a.freq, freq);
        EXPECT_EQ(a.addsec, 1700000000LL - 7);
        // Up to about a month of uptime; the results stay far from overflow.
        const long long counters[] = {0, 1, freq - 1, freq, 123456789LL * 7 + 5,
                                      freq * 2600000 + freq / 3};
        for (long long k : counters) {
            SCOPED_TRACE(testing::Message() << "freq " << freq << " counter " << k);
            const Reading r = split(k, a);
            EXPECT_GE(r.nsec, 0);
            EXPECT_LT(r.nsec, 1000000000LL);
            EXPECT_EQ(r.sec, k / freq + a.addsec);
            const long long ns = bg::time::detail::to_nano(r);
            const long long us = bg::time::detail::to_usec(r);
            const long long ms = bg::time::detail::to_msec(r);
            EXPECT_EQ(us, ns / 1000);
            EXPECT_EQ(ms, ns / 1000000);
            EXPECT_EQ(ms, us / 1000);
        }
    }
}

TEST(BgTimeTest, SubSecondIsFormedInNanosecondsThenTruncated) {
    // 2 ticks of a 3 Hz counter are 666,666,666.67 ns: truncated, not rounded.
    const Reading r = split(2, make_anchor(3, 0, 100));
    EXPECT_EQ(r.sec, 100);
    EXPECT_EQ(r.nsec, 666666666);
    EXPECT_EQ(bg::time::detail::to_usec(r), 100666666);
    EXPECT_EQ(bg::time::detail::to_msec(r), 100666);
}

TEST(BgTimeTest, ZeroFrequencyIsTakenAsOne) {
    const Anchor a = make_anchor(0, 50, 1000);
    EXPECT_EQ(a.freq, 1);
    EXPECT_EQ(a.addsec, 950);
    EXPECT_EQ(split(60, a).sec, 1010);
}

TEST(BgTimeTest, NeverDecreases) {
    long long last_ms = bg::time::cpu_msec_pts();
    long long last_us = bg::time::cpu_usec_pts();
    long long last_ns = bg::time::cpu_nano_pts();
    for (int i = 0; i < 100000; ++i) {
        const long long ms = bg::time::cpu_msec_pts();
        const long long us = bg::time::cpu_usec_pts();
        const long long ns = bg::time::cpu_nano_pts();
        ASSERT_GE(ms, last_ms);
        ASSERT_GE(us, last_us);
        ASSERT_GE(ns, last_ns);
        // Read later, so never behind the coarser readings before it.
        ASSERT_GE(us / 1000, ms);
        ASSERT_GE(ns / 1000, us);
        last_ms = ms;
        last_us = us;
        last_ns = ns;
    }
}

TEST(BgTimeTest, WithinOneSecondOfWallClock) {
    const long long before = static_cast<long long>(std::time(nullptr));
    const long long sec = bg::time::cpu_msec_pts() / 1000;
    const long long after = static_cast<long long>(std::time(nullptr));
    EXPECT_GE(sec, before - 1);
    EXPECT_LE(sec, after + 1);
    EXPECT_EQ(bg::time::detail::anchor().freq, 1000000000LL);
}

// Runs in a fresh process (see the test below), so that these threads really
// are the first callers and race for the anchoring.
void first_calls_from_many_threads() {
    constexpr int kThreads = 16;
    struct Seen {
        Anchor anchor;
        long long sec;
    };
    std::vector<Seen> seen(kThreads);
    std::atomic<bool> go{false};
    std::atomic<int> ready{0};
    const long long before = static_cast<long long>(std::time(nullptr));
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            ready.fetch_add(1);
            while (!go.load()) {
            }
            long long sec = 0;
            switch (i % 4) {  // every entry point gets to be first
            case 0: bg::time::cpu_pts(&sec, nullptr); break;
            case 1: sec = bg::time::cpu_nano_pts() / 1000000000LL; break;
            case 2: sec = bg::time::cpu_usec_pts() / 1000000LL; break;
            default: sec = bg::time::cpu_msec_pts() / 1000LL; break;
            }
            seen[i] = Seen{bg::time::detail::anchor(), sec};
        });
    }
    while (ready.load() < kThreads) {
    }
    go.store(true);
    for (std::thread& t : threads) {
        t.join();
    }
    const long long after = static_cast<long long>(std::time(nullptr));
    for (int i = 0; i < kThreads; ++i) {
        if (seen[i].anchor.freq != seen[0].anchor.freq ||
            seen[i].anchor.addsec != seen[0].anchor.addsec || seen[i].sec < before - 1 ||
            seen[i].sec > after + 1) {
            std::fprintf(stderr, "thread %d: freq %lld addsec %lld sec %lld (wall %lld..%lld)\n", i,
                         seen[i].anchor.freq, seen[i].anchor.addsec, seen[i].sec, before, after);
            std::exit(1);
        }
    }
    std::exit(0);
}

TEST(BgTimeDeathTest, FirstCallsFromManyThreadsAgree) {
    // "threadsafe" re-executes the test binary for this test alone, so the
    // clock is not yet anchored there.
    const std::string style = GTEST_FLAG_GET(death_test_style);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(first_calls_from_many_threads(), testing::ExitedWithCode(0), "");
    GTEST_FLAG_SET(death_test_style, style);
}

}  // namespace
