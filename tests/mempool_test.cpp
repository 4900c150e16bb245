#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ff_tools.h"
#include "utils/mempool.h"
#include "utils/mempool_testing.h"

namespace {

namespace mp = bg::mempool;

const char kWarning[] = "\"[mempool] *warnning* free to pool: bufflist not exist.\"\n";

// Sizes whose classes no other code of the library asks for, so that buffers
// of other tests in this process cannot show up in these lists.
constexpr unsigned kOddSize = 1000003;  // class 1000032

std::atomic<long long> g_fake_now{0};

// handed out count, handed out bytes, free count, free bytes
using Counts = std::array<std::size_t, 4>;
Counts counts() {
    const mp::PoolStats s = mp::stats();
    return {s.handed_out_count, s.handed_out_bytes, s.free_count, s.free_bytes};
}

std::string free_and_capture_stderr(void* p) {
    testing::internal::CaptureStderr();
    mp::free(p);
    return testing::internal::GetCapturedStderr();
}

TEST(MempoolAlignedTest, PowerOfTwoAlignmentsOnly) {
    for (unsigned alignment : {0u, 1u, 2u, 16u, 4096u}) {
        void* p = bg::mem::aligned_malloc(100, alignment);
        EXPECT_TRUE(p && bg::mem::is_aligned(p, alignment == 0 ? 1 : alignment)) << alignment;
        bg::mem::aligned_free(p);
    }
    EXPECT_EQ(bg::mem::aligned_malloc(64, 3), nullptr);
    EXPECT_EQ(bg::mem::aligned_malloc(64, 48), nullptr);
    alignas(16) static unsigned char block[32];
    EXPECT_FALSE(bg::mem::is_aligned(block + 8, 16));
    EXPECT_TRUE(mp::is_alignment(block + 8, 8));
}

TEST(MempoolReuseTest, ClassesOrderAndStats) {
    mp::collection(0);  // nobody else's buffer may be waiting
    void* a = mp::malloc(100, 16);
    ASSERT_NE(a, nullptr);
    std::memset(a, 1, 128);  // sizes round up to 32: the whole class is usable
    mp::free(a);
    EXPECT_EQ(mp::malloc(128, 16), a);
    void* c = mp::malloc(129, 16);  // next class: a different buffer
    EXPECT_NE(c, a);
    mp::free(a);
    mp::free(c);

    // The oldest free buffer is reused first; the stats follow each state.
    const Counts c0 = counts();
    void* x = mp::malloc(kOddSize, 16);
    void* y = mp::malloc(kOddSize, 16);
    ASSERT_TRUE(x && y);
    EXPECT_EQ(counts(), (Counts{c0[0] + 2, c0[1] + 2 * 1000032, c0[2], c0[3]}));
    mp::free(x);
    mp::free(y);
    EXPECT_EQ(counts(), (Counts{c0[0], c0[1], c0[2] + 2, c0[3] + 2 * 1000032}));
    EXPECT_EQ(mp::malloc(kOddSize, 16), x);
    EXPECT_EQ(mp::malloc(kOddSize, 16), y);
    mp::free(x);
    mp::free(y);

    const Counts before = counts();
    EXPECT_EQ(mp::malloc(0xFFFFFFF0u, 16), nullptr);  // too large for a class
    EXPECT_EQ(counts(), before);
}

TEST(MempoolWarningTest, ForeignAndSecondFreeWarnAndChangeNothing) {
    char* foreign = static_cast<char*>(std::malloc(64));
    std::memset(foreign, 0x3c, 64);
    Counts before = counts();
    EXPECT_EQ(free_and_capture_stderr(foreign), kWarning);
    EXPECT_EQ(counts(), before);
    for (int i = 0; i < 64; ++i) ASSERT_EQ(foreign[i], 0x3c);
    std::free(foreign);  // still ours: ASan would catch a release by the pool

    mp::collection(0);
    void* p = mp::malloc(kOddSize, 16);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(free_and_capture_stderr(p), "");
    before = counts();
    EXPECT_EQ(free_and_capture_stderr(p), kWarning);
    EXPECT_EQ(counts(), before);
    // Were it listed twice, two callers would be handed the same memory.
    EXPECT_EQ(mp::malloc(kOddSize, 16), p);
    void* b = mp::malloc(kOddSize, 16);
    EXPECT_NE(b, p);
    mp::free(p);
    mp::free(b);
}

TEST(MempoolCollectionTest, ZeroReleasesAllFreeButNotHandedOut) {
    EXPECT_EQ(ff::mem_malloc(-1, 16), nullptr);
    void* kept = ff::mem_malloc(static_cast<int>(kOddSize), 16);  // the exported layer
    void* returned = mp::malloc(kOddSize, 16);
    ASSERT_TRUE(kept && returned);
    EXPECT_TRUE(mp::is_alignment(kept, 16));
    ff::mem_free(returned);
    const Counts before = counts();
    ff::mem_collection(0);
    EXPECT_EQ(counts(), (Counts{before[0], before[1], 0, 0}));
    std::memset(kept, 0x11, kOddSize);  // still valid memory
    EXPECT_EQ(free_and_capture_stderr(kept), "");
    EXPECT_EQ(mp::stats().free_count, 1u);
    mp::collection(0);
}

TEST(MempoolCollectionTest, ReleasesOnlyBuffersIdleLongerThanAge) {
    mp::collection(0);
    void* old_buf = mp::malloc(kOddSize, 16);
    void* young = mp::malloc(kOddSize, 16);
    ASSERT_TRUE(old_buf && young);
    mp::set_clock_for_testing([] { return g_fake_now.load(); });
    g_fake_now = 0;
    mp::free(old_buf);  // idle since 0
    g_fake_now = 1000;
    mp::free(young);  // idle since 1000
    g_fake_now = 1500;
    mp::collection(1000);
    EXPECT_EQ(mp::stats().free_count, 1u);
    g_fake_now = 2000;
    mp::collection(1000);  // the young one, idle exactly 1000 ms: kept
    EXPECT_EQ(mp::stats().free_count, 1u);
    g_fake_now = 2001;
    mp::collection(1000);  // 1001 ms: released
    EXPECT_EQ(mp::stats().free_count, 0u);
    mp::set_clock_for_testing(nullptr);
}

}  // namespace
