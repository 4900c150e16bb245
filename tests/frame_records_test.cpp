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
#include "utils/mempool.h"

using namespace ff;

TEST(FrameRecords, FormatCodesTranslateBothWays) {
    EXPECT_EQ(pixfmt_to_avpixfmt(PF_RGBA), AV_PIX_FMT_RGBA);
    EXPECT_EQ(pixfmt_to_avpixfmt(PF_YUV420P), AV_PIX_FMT_YUV420P);
    EXPECT_EQ(pixfmt_to_avpixfmt(PF_NV12), AV_PIX_FMT_NV12);
    EXPECT_EQ(pixfmt_to_avpixfmt(PF_NONE), -1);
    EXPECT_EQ(pixfmt_to_avpixfmt(static_cast<PixelFormat>(7)), -1);
    EXPECT_EQ(avpixfmt_to_pixfmt(AV_PIX_FMT_NV12), PF_NV12);
    EXPECT_EQ(avpixfmt_to_pixfmt(AV_PIX_FMT_BGRA), PF_NONE);
    EXPECT_EQ(avpixfmt_to_pixfmt(-1), PF_NONE);

    const std::pair<SampleFormat, AVSampleFormat> samples[] = {
        {SF_U8, AV_SAMPLE_FMT_U8}, {SF_S16, AV_SAMPLE_FMT_S16}, {SF_S32, AV_SAMPLE_FMT_S32}, {SF_FLT, AV_SAMPLE_FMT_FLT}};
    for (const auto& [code, av] : samples) {
        EXPECT_EQ(samplefmt_to_avsamplefmt(code), av);
        EXPECT_EQ(avsamplefmt_to_samplefmt(av), code);
    }
    EXPECT_EQ(samplefmt_to_avsamplefmt(SF_NONE), -1);
    EXPECT_EQ(avsamplefmt_to_samplefmt(AV_SAMPLE_FMT_FLTP), SF_NONE);
    EXPECT_EQ(avsamplefmt_to_samplefmt(AV_SAMPLE_FMT_DBL), SF_NONE);
    EXPECT_EQ(avsamplefmt_to_samplefmt(-1), SF_NONE);
}

TEST(FrameRecords, ImageDividerFollowsTheMode) {
    EXPECT_EQ(getImageDivider(MM_FULL, 7680, 4320), 1);
    EXPECT_EQ(getImageDivider(MM_AUTO, 1920, 1080), 2);
    EXPECT_EQ(getImageDivider(MM_AUTO, 1920, 1079), 1);
    EXPECT_EQ(getImageDivider(MM_AUTO, 3840, 2160), 4);
    EXPECT_EQ(getImageDivider(static_cast<MemoryMode>(9), 3840, 2160), 1);

    setExportMVSize(0, 0);
    EXPECT_EQ(getImageDivider(MM_EXPORT, 3840, 2160), 1);  // no export size yet
    setExportMVSize(1280, 720);
    EXPECT_EQ(g_w_h_multi.load(), 921600);
    EXPECT_EQ(getImageDivider(MM_EXPORT, 1920, 1080), 2);  // 2.25 + 0.5, truncated
    EXPECT_EQ(getImageDivider(MM_EXPORT, 1280, 720), 1);   // not larger
    setExportMVSize(1920, 1080);
    EXPECT_EQ(getImageDivider(MM_EXPORT, 3840, 2160), 4);  // pixel ratio, not width ratio
    EXPECT_EQ(getImageDivider(MM_EXPORT, 2400, 1350), 2);  // 1.5625 + 0.5

    // One thread sets sizes while others compute dividers: values are whole.
    std::vector<std::thread> threads;
    std::atomic<bool> bad{false};
    threads.emplace_back([] {
        for (int i = 0; i < 2000; ++i) setExportMVSize(i % 2 ? 1280 : 1920, i % 2 ? 720 : 1080);
    });
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&bad] {
            for (int i = 0; i < 2000; ++i) {
                const int d = getImageDivider(MM_EXPORT, 3840, 2160);
                if (d != 4 && d != 9) bad = true;
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_FALSE(bad.load());
    setExportMVSize(0, 0);
}

TEST(FrameRecords, AudioFramesAndRecordsAreLaidOutAsAsked) {
    auto empty = create_avframe_with(2, 44100, AV_SAMPLE_FMT_S16, 0);
    ASSERT_TRUE(empty);
    EXPECT_EQ(empty->data[0], nullptr);
    EXPECT_EQ(compat_frame_channels(empty.get()), 2);
    EXPECT_EQ(empty->sample_rate, 44100);

    auto silent = create_avframe_with(2, 44100, AV_SAMPLE_FMT_S16, 1024);
    ASSERT_TRUE(silent && silent->data[0]);
    EXPECT_EQ(silent->data[1], nullptr);  // packed: one plane
    EXPECT_EQ(compat_frame_channel_layout(silent.get()), AV_CH_LAYOUT_STEREO);
    const auto* samples = reinterpret_cast<const int16_t*>(silent->data[0]);
    for (int i = 0; i < 2048; ++i) ASSERT_EQ(samples[i], 0);

    auto planar = create_avframe_with(6, 48000, AV_SAMPLE_FMT_FLTP, 16);
    ASSERT_TRUE(planar);
    EXPECT_NE(planar->extended_data[5], nullptr);

    RequireAudioFrame req;
    req.range = Range({3, 2}, {2, 1});
    req.format = SF_FLT;
    req.sample_rate = 48000;
    req.channels = 2;
    auto ctx = create_audioframe_ctx(req, 480);
    ASSERT_TRUE(ctx);
    EXPECT_EQ(ctx->size, 3840);
    EXPECT_EQ(ctx->linesize[0], 3840);
    EXPECT_EQ(ctx->data[0], ctx->buffer);
    EXPECT_EQ(ctx->data[1], nullptr);
    EXPECT_FALSE(ctx->planar);
    EXPECT_EQ(ctx->format, AV_SAMPLE_FMT_FLT);
    EXPECT_EQ(ctx->pts, 1500000);
    EXPECT_TRUE(bg::mempool::is_alignment(ctx->buffer, 16));

    req.format = SF_NONE;
    EXPECT_FALSE(create_audioframe_ctx(req, 480));
    req.format = SF_S16;
    EXPECT_FALSE(create_audioframe_ctx(req, 0));
    req.channels = 0;
    EXPECT_FALSE(create_audioframe_ctx(req, 480));
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
    EXPECT_EQ(after.handed_out_count, before.handed_out_count - 1);
    EXPECT_EQ(after.free_count, before.free_count + 1);

    testing::internal::CaptureStderr();
    { VFrameCtx nothing; AFrameCtx none; PcmBuffer empty; }  // null blocks: nothing freed
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(bg::mempool::stats().free_count, after.free_count);
}
