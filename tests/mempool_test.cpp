// The buffer pool: alignment, size classes reused oldest first, the counts it
// reports, warnings for foreign and second frees, and collection by age.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "ff_tools.h"
#include "support.h"
#include "utils/mempool.h"
#include "utils/mempool_testing.h"

namespace {

namespace mp = bg::mempool;

const char kWarning[] = "\"[mempool] *warnning* free to pool: bufflist not exist.\"\n";

// A size whose class (1000032) no other code of the library asks for, so that
// buffers of other tests in this process cannot show up in these lists.
constexpr unsigned kOddSize = 1000003;

std::atomic<long long> g_fake_now{0};

// handed out count, handed out bytes, free count, free bytes
using Counts = std::array<std::size_t, 4>;
Counts counts() {
    const mp::PoolStats s = mp::stats();
    return {s.handed_out_count, s.handed_out_bytes, s.free_count, s.free_bytes};
}

std::string free_warning(void* p) { return testsupport::stderr_of([p] { mp::free(p); }); }

TEST(MempoolTest, AlignmentsClassesOrderAndStats) {
    for (unsigned alignment : {0u, 1u, 2u, 16u, 4096u}) {
        void* p = bg::mem::aligned_malloc(100, alignment);
        EXPECT_TRUE(p && bg::mem::is_aligned(p, alignment == 0 ? 1 : alignment)) << alignment;
        bg::mem::aligned_free(p);
    }
    EXPECT_TRUE(bg::mem::aligned_malloc(64, 3) == nullptr && bg::mem::aligned_malloc(64, 48) == nullptr);
    alignas(16) static unsigned char block[32];
    EXPECT_TRUE(!bg::mem::is_aligned(block + 8, 16) && mp::is_alignment(block + 8, 8));

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
    EXPECT_TRUE(mp::malloc(kOddSize, 16) == x && mp::malloc(kOddSize, 16) == y);
    mp::free(x);
    mp::free(y);
    const Counts before = counts();
    EXPECT_EQ(mp::malloc(0xFFFFFFF0u, 16), nullptr);  // too large for a class
    EXPECT_EQ(counts(), before);
}

TEST(MempoolTest, ForeignAndSecondFreeWarnAndChangeNothing) {
    char* foreign = static_cast<char*>(std::malloc(64));
    std::memset(foreign, 0x3c, 64);
    Counts before = counts();
    EXPECT_EQ(free_warning(foreign), kWarning);
    EXPECT_EQ(counts(), before);
    for (int i = 0; i < 64; ++i) ASSERT_EQ(foreign[i], 0x3c);
    std::free(foreign);  // still ours: ASan would catch a release by the pool

    mp::collection(0);
    void* p = mp::malloc(kOddSize, 16);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(free_warning(p), "");
    before = counts();
    EXPECT_EQ(free_warning(p), kWarning);
    EXPECT_EQ(counts(), before);
    // Were it listed twice, two callers would be handed the same memory.
    EXPECT_EQ(mp::malloc(kOddSize, 16), p);
    void* b = mp::malloc(kOddSize, 16);
    EXPECT_NE(b, p);
    mp::free(p);
    mp::free(b);
}

TEST(MempoolTest, CollectionReleasesFreeBuffersIdleLongerThanAge) {
    // Age 0 releases every free buffer, none handed out; through the exported
    // layer, which first has the library's caches give back what they hold.
    ff::mem_collection(0);
    EXPECT_EQ(ff::mem_malloc(-1, 16), nullptr);
    void* kept = ff::mem_malloc(static_cast<int>(kOddSize), 16);
    void* returned = mp::malloc(kOddSize, 16);
    ASSERT_TRUE(kept && returned);
    EXPECT_TRUE(mp::is_alignment(kept, 16));
    ff::mem_free(returned);
    const Counts before = counts();
    ff::mem_collection(0);
    EXPECT_EQ(counts(), (Counts{before[0], before[1], 0, 0}));
    std::memset(kept, 0x11, kOddSize);  // still valid memory
    EXPECT_EQ(free_warning(kept), "");
    EXPECT_EQ(mp::stats().free_count, 1u);

    mp::collection(0);
    void* old_buf = mp::malloc(kOddSize, 16);
    void* young = mp::malloc(kOddSize, 16);
    ASSERT_TRUE(old_buf && young);
    mp::set_clock_for_testing([] { return g_fake_now.load(); });
    g_fake_now = 0;
    mp::free(old_buf);  // idle since 0
    g_fake_now = 1000;
    mp::free(young);  // idle since 1000
    // now, free buffers left: the young one, idle exactly 1000 ms, is kept; at 1001 ms released
    for (auto [now, left] : {std::pair<long long, std::size_t>{1500, 1}, {2000, 1}, {2001, 0}}) {
        g_fake_now = now;
        mp::collection(1000);
        EXPECT_EQ(mp::stats().free_count, left) << now;
    }
    mp::set_clock_for_testing(nullptr);
}

}  // namespace
