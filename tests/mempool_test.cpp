#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "ff_tools.h"
#include "utils/mempool.h"
#include "utils/mempool_testing.h"

namespace {

const char kWarning[] = "\"[mempool] *warnning* free to pool: bufflist not exist.\"\n";

// Sizes whose classes no other code of the library asks for, so that buffers
// of other tests in this process cannot show up in these lists.
constexpr unsigned kOddSize = 1000003;     // class 1000032
constexpr unsigned kOtherOddSize = 777777; // class 777792

// A clock the tests move by hand, installed for the lifetime of the guard.
std::atomic<long long> g_fake_now{0};
long long fake_now() { return g_fake_now.load(); }

struct FakeClock {
    explicit FakeClock(long long start) {
        g_fake_now.store(start);
        bg::mempool::set_clock_for_testing(&fake_now);
    }
    ~FakeClock() { bg::mempool::set_clock_for_testing(nullptr); }
    void set(long long ms) { g_fake_now.store(ms); }
};

std::string free_and_capture_stderr(void* p) {
    testing::internal::CaptureStderr();
    bg::mempool::free(p);
    return testing::internal::GetCapturedStderr();
}

bool same_stats(const bg::mempool::PoolStats& a, const bg::mempool::PoolStats& b) {
    return a.handed_out_count == b.handed_out_count && a.handed_out_bytes == b.handed_out_bytes &&
           a.free_count == b.free_count && a.free_bytes == b.free_bytes;
}

// ------------------------------------------------------------ platform layer

TEST(MempoolAlignedTest, HonoursPowerOfTwoAlignments) {
    for (unsigned alignment : {0u, 1u, 2u, 4u, 8u, 16u, 64u, 4096u}) {
        void* p = bg::mem::aligned_malloc(100, alignment);
        ASSERT_NE(p, nullptr) << alignment;
        EXPECT_TRUE(bg::mem::is_aligned(p, alignment == 0 ? 1 : alignment)) << alignment;
        std::memset(p, 0x5a, 100);
        bg::mem::aligned_free(p);
    }
}

TEST(MempoolAlignedTest, RejectsAlignmentThatIsNoPowerOfTwo) {
    EXPECT_EQ(bg::mem::aligned_malloc(64, 3), nullptr);
    EXPECT_EQ(bg::mem::aligned_malloc(64, 48), nullptr);
    alignas(16) static unsigned char block[32];
    EXPECT_FALSE(bg::mem::is_aligned(block + 8, 16));
    EXPECT_TRUE(bg::mempool::is_alignment(block + 8, 8));
}

// ------------------------------------------------------------ reuse

TEST(MempoolReuseTest, SizesRoundedUpTo32ShareAClass) {
    bg::mempool::collection(0);  // nobody else's 128-byte buffer may be waiting
    void* a = bg::mempool::malloc(100, 16);
    ASSERT_NE(a, nullptr);
    std::memset(a, 1, 128);  // the whole class is usable
    bg::mempool::free(a);
    void* b = bg::mempool::malloc(128, 16);
    EXPECT_EQ(b, a);
    void* c = bg::mempool::malloc(129, 16);  // next class: a different buffer
    EXPECT_NE(c, a);
    bg::mempool::free(b);
    bg::mempool::free(c);
}

TEST(MempoolReuseTest, OldestFreeBufferIsReusedFirst) {
    bg::mempool::collection(0);
    void* a = bg::mempool::malloc(kOddSize, 16);
    void* b = bg::mempool::malloc(kOddSize, 16);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    bg::mempool::free(a);
    bg::mempool::free(b);
    void* first = bg::mempool::malloc(kOddSize, 16);
    void* second = bg::mempool::malloc(kOddSize, 16);
    EXPECT_EQ(first, a);
    EXPECT_EQ(second, b);
    bg::mempool::free(first);
    bg::mempool::free(second);
}

TEST(MempoolReuseTest, StatsFollowBuffersThroughTheirStates) {
    bg::mempool::collection(0);
    const bg::mempool::PoolStats s0 = bg::mempool::stats();
    void* p = bg::mempool::malloc(kOddSize, 16);
    ASSERT_NE(p, nullptr);
    const bg::mempool::PoolStats s1 = bg::mempool::stats();
    EXPECT_EQ(s1.handed_out_count, s0.handed_out_count + 1);
    EXPECT_EQ(s1.handed_out_bytes, s0.handed_out_bytes + 1000032);
    EXPECT_EQ(s1.free_count, s0.free_count);
    bg::mempool::free(p);
    const bg::mempool::PoolStats s2 = bg::mempool::stats();
    EXPECT_EQ(s2.handed_out_count, s0.handed_out_count);
    EXPECT_EQ(s2.free_count, s0.free_count + 1);
    EXPECT_EQ(s2.free_bytes, s0.free_bytes + 1000032);
}

TEST(MempoolReuseTest, Alignment16IsRespected) {
    bg::mempool::collection(0);
    std::vector<void*> blocks;
    for (unsigned size : {1u, 17u, 33u, 1000u, 4097u, kOtherOddSize}) {
        for (int i = 0; i < 4; ++i) {
            void* p = bg::mempool::malloc(size, 16);
            ASSERT_NE(p, nullptr);
            EXPECT_TRUE(bg::mempool::is_alignment(p, 16)) << size;
            blocks.push_back(p);
        }
    }
    for (void* p : blocks) {
        bg::mempool::free(p);
    }
}

TEST(MempoolReuseTest, SizeTooLargeForAClassGivesNull) {
    const bg::mempool::PoolStats before = bg::mempool::stats();
    EXPECT_EQ(bg::mempool::malloc(0xFFFFFFF0u, 16), nullptr);
    EXPECT_TRUE(same_stats(before, bg::mempool::stats()));
}

// ------------------------------------------------------------ bad returns

TEST(MempoolWarningTest, ForeignPointerWarnsAndIsLeftAlone) {
    char* foreign = static_cast<char*>(std::malloc(64));
    ASSERT_NE(foreign, nullptr);
    std::memset(foreign, 0x3c, 64);
    const bg::mempool::PoolStats before = bg::mempool::stats();
    EXPECT_EQ(free_and_capture_stderr(foreign), kWarning);
    EXPECT_TRUE(same_stats(before, bg::mempool::stats()));
    for (int i = 0; i < 64; ++i) {
        ASSERT_EQ(foreign[i], 0x3c);
    }
    std::free(foreign);  // still ours: ASan would catch a release by the pool
}

TEST(MempoolWarningTest, SecondFreeWarnsAndDoesNotDuplicate) {
    bg::mempool::collection(0);
    void* p = bg::mempool::malloc(kOddSize, 16);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(free_and_capture_stderr(p), "");
    const bg::mempool::PoolStats before = bg::mempool::stats();
    EXPECT_EQ(free_and_capture_stderr(p), kWarning);
    EXPECT_TRUE(same_stats(before, bg::mempool::stats()));
    // Were it listed twice, two callers would be handed the same memory.
    void* a = bg::mempool::malloc(kOddSize, 16);
    void* b = bg::mempool::malloc(kOddSize, 16);
    EXPECT_EQ(a, p);
    EXPECT_NE(b, p);
    bg::mempool::free(a);
    bg::mempool::free(b);
}

// ------------------------------------------------------------ collection

TEST(MempoolCollectionTest, ZeroReleasesAllFreeButNotHandedOut) {
    void* kept = bg::mempool::malloc(kOddSize, 16);
    void* returned = bg::mempool::malloc(kOtherOddSize, 16);
    ASSERT_NE(kept, nullptr);
    ASSERT_NE(returned, nullptr);
    bg::mempool::free(returned);
    const bg::mempool::PoolStats before = bg::mempool::stats();
    bg::mempool::collection(0);
    const bg::mempool::PoolStats after = bg::mempool::stats();
    EXPECT_EQ(after.free_count, 0u);
    EXPECT_EQ(after.free_bytes, 0u);
    EXPECT_EQ(after.handed_out_count, before.handed_out_count);
    std::memset(kept, 0x11, kOddSize);  // still valid memory
    EXPECT_EQ(free_and_capture_stderr(kept), "");
    EXPECT_EQ(bg::mempool::stats().free_count, 1u);
    bg::mempool::collection(0);
}

TEST(MempoolCollectionTest, ReleasesOnlyBuffersIdleLongerThanAge) {
    bg::mempool::collection(0);
    FakeClock clock(0);
    void* old_buf = bg::mempool::malloc(kOddSize, 16);
    void* young = bg::mempool::malloc(kOddSize, 16);
    ASSERT_NE(old_buf, nullptr);
    ASSERT_NE(young, nullptr);
    bg::mempool::free(old_buf);  // idle since 0
    clock.set(1000);
    bg::mempool::free(young);  // idle since 1000
    clock.set(1500);
    bg::mempool::collection(1000);
    EXPECT_EQ(bg::mempool::stats().free_count, 1u);
    // Only the young one is left to hand out.
    void* again = bg::mempool::malloc(kOddSize, 16);
    EXPECT_EQ(again, young);
    bg::mempool::free(again);
    bg::mempool::collection(0);
}

TEST(MempoolCollectionTest, ExactlyTheAgeIsNotOldEnough) {
    bg::mempool::collection(0);
    FakeClock clock(500);
    void* p = bg::mempool::malloc(kOddSize, 16);
    ASSERT_NE(p, nullptr);
    bg::mempool::free(p);
    clock.set(1500);
    bg::mempool::collection(1000);  // idle exactly 1000 ms: kept
    EXPECT_EQ(bg::mempool::stats().free_count, 1u);
    clock.set(1501);
    bg::mempool::collection(1000);  // 1001 ms: released
    EXPECT_EQ(bg::mempool::stats().free_count, 0u);
}

// ------------------------------------------------------------ exported layer

TEST(MempoolExportedTest, ForwardsToThePool) {
    EXPECT_EQ(ff::mem_malloc(-1, 16), nullptr);
    void* p = ff::mem_malloc(static_cast<int>(kOddSize), 16);
    ASSERT_NE(p, nullptr);
    EXPECT_TRUE(bg::mempool::is_alignment(p, 16));
    ff::mem_free(p);
    EXPECT_GE(bg::mempool::stats().free_count, 1u);
    ff::mem_collection(0);
    EXPECT_EQ(bg::mempool::stats().free_count, 0u);
}

// ------------------------------------------------------------ threads

// Many threads allocate, fill, verify and return buffers of a few classes at
// once. A buffer handed to two holders at a time shows up in the shared set
// of live pointers, or as a pattern overwritten by another thread.
TEST(MempoolStressTest, NoBufferIsHandedOutTwice) {
    constexpr int kThreads = 8;
    constexpr int kOps = 20000;
    static constexpr unsigned kSizes[] = {24, 100, 500, 1000, 2048, 4000};
    const bg::mempool::PoolStats before = bg::mempool::stats();

    std::mutex live_mutex;
    std::set<void*> live;  // guarded by live_mutex
    std::atomic<int> duplicates{0};
    std::atomic<int> corrupted{0};
    std::atomic<int> misaligned{0};
    std::atomic<int> failed{0};

    auto worker = [&](int id) {
        std::mt19937 rng(1234u + static_cast<unsigned>(id));
        std::vector<std::pair<unsigned char*, unsigned>> held;
        auto release = [&](std::size_t i) {
            auto [p, size] = held[i];
            const unsigned char mark = static_cast<unsigned char>(id * 31 + size);
            for (unsigned k = 0; k < size; ++k) {
                if (p[k] != mark) {
                    corrupted.fetch_add(1);
                    break;
                }
            }
            {
                std::lock_guard<std::mutex> lock(live_mutex);
                live.erase(p);  // before the pool may hand it to someone else
            }
            bg::mempool::free(p);
            held[i] = held.back();
            held.pop_back();
        };
        for (int op = 0; op < kOps; ++op) {
            if (held.size() < 8 && (held.empty() || rng() % 2 == 0)) {
                const unsigned size = kSizes[rng() % std::size(kSizes)];
                auto* p = static_cast<unsigned char*>(bg::mempool::malloc(size, 16));
                if (!p) {
                    failed.fetch_add(1);
                    continue;
                }
                if (!bg::mempool::is_alignment(p, 16)) {
                    misaligned.fetch_add(1);
                }
                {
                    std::lock_guard<std::mutex> lock(live_mutex);
                    if (!live.insert(p).second) {
                        duplicates.fetch_add(1);
                    }
                }
                std::memset(p, static_cast<unsigned char>(id * 31 + size), size);
                held.emplace_back(p, size);
            } else {
                release(rng() % held.size());
            }
        }
        while (!held.empty()) {
            release(held.size() - 1);
        }
    };

    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back(worker, i);
    }
    for (std::thread& t : threads) {
        t.join();
    }
    EXPECT_EQ(duplicates.load(), 0);
    EXPECT_EQ(corrupted.load(), 0);
    EXPECT_EQ(misaligned.load(), 0);
    EXPECT_EQ(failed.load(), 0);
    EXPECT_TRUE(live.empty());

    bg::mempool::collection(0);
    const bg::mempool::PoolStats after = bg::mempool::stats();
    EXPECT_EQ(after.free_count, 0u);
    EXPECT_EQ(after.free_bytes, 0u);
    EXPECT_EQ(after.handed_out_count, before.handed_out_count);
    EXPECT_EQ(after.handed_out_bytes, before.handed_out_bytes);
}

}  // namespace
