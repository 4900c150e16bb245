// The buffer pool (alignment, size classes reused oldest first, the counts it
// reports, warnings for foreign and second frees, collection by age) and the
// frame records built on it: format codes both ways, the image divider of each
// memory mode, audio frames and records laid out as asked, the pool block a
// record returns once.

#include <array>
#include <atomic>
#include <cstring>
#include <utility>

#include "ff_compat.h"
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
    EXPECT_EQ(mp::malloc(0xFFFFFFF0u, 16), nullptr);  // too large for a class
}

TEST(MempoolTest, ForeignAndSecondFreeWarnAndChangeNothing) {
    char* foreign = static_cast<char*>(std::malloc(64));
    std::memset(foreign, 0x3c, 64);
    const Counts before = counts();
    EXPECT_EQ(free_warning(foreign), kWarning);
    EXPECT_EQ(counts(), before);
    for (int i = 0; i < 64; ++i) ASSERT_EQ(foreign[i], 0x3c);
    std::free(foreign);  // still ours: ASan would catch a release by the pool

    mp::collection(0);
    void* p = mp::malloc(kOddSize, 16);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(free_warning(p), "");
    EXPECT_EQ(free_warning(p), kWarning);
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

using namespace ff;

// A wrong forward code shows as a wrong picture or sample format in every
// conversion; the codes also translate back, and unknown ones to none.
TEST(FrameRecords, FormatCodesTranslateBack) {
    for (PixelFormat code : {PF_RGBA, PF_YUV420P, PF_NV12})
        EXPECT_EQ(avpixfmt_to_pixfmt(pixfmt_to_avpixfmt(code)), code);
    for (SampleFormat code : {SF_U8, SF_S16, SF_S32, SF_FLT})
        EXPECT_EQ(avsamplefmt_to_samplefmt(samplefmt_to_avsamplefmt(code)), code);
    EXPECT_TRUE(avpixfmt_to_pixfmt(AV_PIX_FMT_BGRA) == PF_NONE && avpixfmt_to_pixfmt(-1) == PF_NONE);
    for (int av : {int(AV_SAMPLE_FMT_FLTP), int(AV_SAMPLE_FMT_DBL), -1}) EXPECT_EQ(avsamplefmt_to_samplefmt(av), SF_NONE);
}

TEST(FrameRecords, ImageDividerFollowsTheMode) {
    // export width, height (0: none yet); mode, picture width, height; divider
    const int cases[][6] = {
        {0, 0, MM_FULL, 7680, 4320, 1},     {0, 0, MM_AUTO, 1920, 1080, 2},       {0, 0, MM_AUTO, 1920, 1079, 1},
        {0, 0, MM_AUTO, 3840, 2160, 4},     {0, 0, 9, 3840, 2160, 1},             {0, 0, MM_EXPORT, 3840, 2160, 1},
        {1280, 720, MM_EXPORT, 1920, 1080, 2},  // 2.25 + 0.5, truncated
        {1280, 720, MM_EXPORT, 1280, 720, 1},   // not larger
        {1920, 1080, MM_EXPORT, 3840, 2160, 4},  // pixel ratio, not width ratio
        {1920, 1080, MM_EXPORT, 2400, 1350, 2},  // 1.5625 + 0.5
    };
    for (const auto& c : cases) {
        setExportMVSize(c[0], c[1]);
        EXPECT_EQ(getImageDivider(static_cast<MemoryMode>(c[2]), c[3], c[4]), c[5]) << c[2] << " " << c[3];
    }
    // The divider reads the one stored product, never width and height apart,
    // so that a size set on another thread meanwhile is not seen half old, half new.
    // (A wrong stored product already gives the export rows above wrong dividers.)
    setExportMVSize(1280, 720);
    g_w_h_multi.store(1920 * 1080);  // as if another thread's product had just landed
    EXPECT_EQ(getImageDivider(MM_EXPORT, 3840, 2160), 4);
    setExportMVSize(0, 0);
}

TEST(FrameRecords, AudioFramesAndRecordsAreLaidOutAsAsked) {
    auto empty = create_avframe_with(2, 44100, AV_SAMPLE_FMT_S16, 0);
    ASSERT_TRUE(empty);
    EXPECT_TRUE(!empty->data[0] && compat_frame_channels(empty.get()) == 2 && empty->sample_rate == 44100);

    auto silent = create_avframe_with(2, 44100, AV_SAMPLE_FMT_S16, 1024);
    ASSERT_TRUE(silent && silent->data[0]);
    EXPECT_TRUE(!silent->data[1] && compat_frame_channel_layout(silent.get()) == AV_CH_LAYOUT_STEREO);  // packed
    const auto* samples = reinterpret_cast<const int16_t*>(silent->data[0]);
    for (int i = 0; i < 2048; ++i) ASSERT_EQ(samples[i], 0);

    auto planar = create_avframe_with(6, 48000, AV_SAMPLE_FMT_FLTP, 16);
    ASSERT_TRUE(planar && planar->extended_data[5]);

    RequireAudioFrame req = testsupport::audio_request({3, 2}, {2, 1}, SF_FLT, 48000);
    auto ctx = create_audioframe_ctx(req, 480);
    ASSERT_TRUE(ctx);
    EXPECT_TRUE(ctx->size == 3840 && ctx->linesize[0] == 3840 && ctx->data[0] == ctx->buffer && !ctx->data[1]);

    EXPECT_FALSE(create_audioframe_ctx(testsupport::audio_request({3, 2}, {2, 1}, SF_NONE, 48000), 480));
    EXPECT_FALSE(create_audioframe_ctx(testsupport::audio_request({3, 2}, {2, 1}, SF_S16, 48000), 0));
    EXPECT_FALSE(create_audioframe_ctx(testsupport::audio_request({3, 2}, {2, 1}, SF_S16, 48000, 0), 480));
}

TEST(FrameRecords, RecordsReturnTheirBlockExactlyOnce) {
    void* block = bg::mempool::malloc(4096, 16);
    const auto before = bg::mempool::stats();
    {
        VFrameCtx picture;
        picture.buffer = block;
    }
    const auto after = bg::mempool::stats();
    EXPECT_TRUE(after.handed_out_count == before.handed_out_count - 1 && after.free_count == before.free_count + 1);
    // Null blocks: nothing freed.
    EXPECT_EQ(testsupport::stderr_of([] { VFrameCtx nothing; AFrameCtx none; PcmBuffer empty; }), "");
}
