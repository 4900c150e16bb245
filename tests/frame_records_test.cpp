// The library's frame records: format codes both ways, the image divider of
// each memory mode, audio frames and records laid out as asked, and the pool
// block a record returns once.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

extern "C" {
#include <libavutil/pixfmt.h>
#include <libavutil/samplefmt.h>
}

#include "ff_compat.h"
#include "ff_tools.h"
#include "frame_helpers.h"
#include "support.h"
#include "utils/mempool.h"

using namespace ff;

TEST(FrameRecords, FormatCodesTranslateBothWays) {
    const std::pair<PixelFormat, int> pixels[] = {
        {PF_RGBA, AV_PIX_FMT_RGBA}, {PF_YUV420P, AV_PIX_FMT_YUV420P}, {PF_NV12, AV_PIX_FMT_NV12}};
    for (const auto& [code, av] : pixels) EXPECT_TRUE(pixfmt_to_avpixfmt(code) == av && avpixfmt_to_pixfmt(av) == code);
    EXPECT_TRUE(pixfmt_to_avpixfmt(PF_NONE) == -1 && pixfmt_to_avpixfmt(static_cast<PixelFormat>(7)) == -1);
    EXPECT_TRUE(avpixfmt_to_pixfmt(AV_PIX_FMT_BGRA) == PF_NONE && avpixfmt_to_pixfmt(-1) == PF_NONE);

    const std::pair<SampleFormat, AVSampleFormat> samples[] = {
        {SF_U8, AV_SAMPLE_FMT_U8}, {SF_S16, AV_SAMPLE_FMT_S16}, {SF_S32, AV_SAMPLE_FMT_S32}, {SF_FLT, AV_SAMPLE_FMT_FLT}};
    for (const auto& [code, av] : samples)
        EXPECT_TRUE(samplefmt_to_avsamplefmt(code) == av && avsamplefmt_to_samplefmt(av) == code);
    EXPECT_EQ(samplefmt_to_avsamplefmt(SF_NONE), -1);
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
    setExportMVSize(1280, 720);
    EXPECT_EQ(g_w_h_multi.load(), 921600);

    // One thread sets sizes while others compute dividers: values are whole.
    std::vector<std::thread> threads;
    std::atomic<bool> bad{false};
    threads.emplace_back([] {
        for (int i = 0; i < 2000; ++i) setExportMVSize(i % 2 ? 1280 : 1920, i % 2 ? 720 : 1080);
    });
    for (int t = 0; t < 2; ++t)
        threads.emplace_back([&bad] {
            for (int i = 0; i < 2000; ++i) {
                const int d = getImageDivider(MM_EXPORT, 3840, 2160);
                if (d != 4 && d != 9) bad = true;
            }
        });
    for (auto& t : threads) t.join();
    EXPECT_FALSE(bad.load());
    setExportMVSize(0, 0);
}

TEST(FrameRecords, AudioFramesAndRecordsAreLaidOutAsAsked) {
    auto empty = create_avframe_with(2, 44100, AV_SAMPLE_FMT_S16, 0);
    ASSERT_TRUE(empty);
    EXPECT_TRUE(!empty->data[0] && compat_frame_channels(empty.get()) == 2 && empty->sample_rate == 44100);

    auto silent = create_avframe_with(2, 44100, AV_SAMPLE_FMT_S16, 1024);
    ASSERT_TRUE(silent && silent->data[0]);
    EXPECT_EQ(silent->data[1], nullptr);  // packed: one plane
    EXPECT_EQ(compat_frame_channel_layout(silent.get()), AV_CH_LAYOUT_STEREO);
    const auto* samples = reinterpret_cast<const int16_t*>(silent->data[0]);
    for (int i = 0; i < 2048; ++i) ASSERT_EQ(samples[i], 0);

    auto planar = create_avframe_with(6, 48000, AV_SAMPLE_FMT_FLTP, 16);
    ASSERT_TRUE(planar && planar->extended_data[5]);

    RequireAudioFrame req = testsupport::audio_request({3, 2}, {2, 1}, SF_FLT, 48000);
    auto ctx = create_audioframe_ctx(req, 480);
    ASSERT_TRUE(ctx);
    EXPECT_TRUE(ctx->size == 3840 && ctx->linesize[0] == 3840 && ctx->data[0] == ctx->buffer && !ctx->data[1]);
    EXPECT_TRUE(!ctx->planar && ctx->format == AV_SAMPLE_FMT_FLT && ctx->pts == 1500000);
    EXPECT_TRUE(bg::mempool::is_alignment(ctx->buffer, 16));

    EXPECT_FALSE(create_audioframe_ctx(testsupport::audio_request({3, 2}, {2, 1}, SF_NONE, 48000), 480));
    EXPECT_FALSE(create_audioframe_ctx(testsupport::audio_request({3, 2}, {2, 1}, SF_S16, 48000), 0));
    EXPECT_FALSE(create_audioframe_ctx(testsupport::audio_request({3, 2}, {2, 1}, SF_S16, 48000, 0), 480));
}

TEST(FrameRecords, RecordsReturnTheirBlockExactlyOnce) {
    void* block = bg::mempool::malloc(4096, 16);
    const auto before = bg::mempool::stats();
    {
        auto picture = std::make_shared<VFrameCtx>();
        EXPECT_EQ(picture->divider, 1);
        picture->buffer = block;
        auto copy = picture;  // shared, not copied
    }
    const auto after = bg::mempool::stats();
    EXPECT_TRUE(after.handed_out_count == before.handed_out_count - 1 && after.free_count == before.free_count + 1);
    // Null blocks: nothing freed.
    EXPECT_EQ(testsupport::stderr_of([] { VFrameCtx nothing; AFrameCtx none; PcmBuffer empty; }), "");
    EXPECT_EQ(bg::mempool::stats().free_count, after.free_count);
}
