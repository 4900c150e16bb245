// The decoder core over the scheduler and its tasks: the right frame for every
// timestamp in both rounding modes, the next frame after the last delivered,
// picture conversions, when the resampler is replaced, and filters.
// Which worker serves which decoder is the scheduler test's; many threads
// over many decoders are the public stress test's.
#include <random>

#include "ffdecoder_private.h"
#include "scheduler.h"
#include "support.h"

using namespace ff;
using testsupport::index_of;
using testsupport::VideoUnderTest;

class DecoderExactness : public testing::TestWithParam<const char*> {};

TEST_P(DecoderExactness, EveryTimestampGivesTheReferenceFrame) {
    const VideoUnderTest v = testsupport::load_video(GetParam());
    ASSERT_GT(v.reference.size(), 10u);
    FFDecoderPrivate d;
    ASSERT_TRUE(d.open(v.stream));
    auto* const pool = g_decoder_mgr.pool_of(v.stream);  // asked directly for the frame after t

    const long long second = v.stream->time_base.den / std::max<long long>(v.stream->time_base.num, 1);
    std::vector<long long> times{v.reference.front().pts - 10 * second, v.reference.back().pts + 10 * second};
    std::mt19937_64 rng(20261123);
    std::uniform_int_distribution<long long> pick(v.reference.front().pts - second, v.reference.back().pts + second);
    for (int i = 0; i < 150; ++i) times.push_back(pick(rng));
    for (size_t i = 0; i < v.reference.size(); i += 5)
        for (long long delta : {-1LL, 0LL, 1LL}) times.push_back(v.reference[i].pts + delta);

    for (long long t : times) {
        ASSERT_EQ(index_of(d.get_frame(t, nullptr)), testsupport::expect_down(v, t).index) << v.name << " down t=" << t;
        const auto after = pool->do_working(t, nullptr, true, d.id, d.name);
        ASSERT_EQ(index_of(after), testsupport::expect_next(v, t).index) << v.name << " next t=" << t;
    }
}

INSTANTIATE_TEST_SUITE_P(AllVideos, DecoderExactness,
                         testing::Values("h264_cfr.mp4", "h264_23976.mp4", "vfr.mkv", "ts_offset.ts",
                                         "vp9_opus.webm", "rotated.mp4", "subs.mkv", "nodecoder_first.mp4"));

// Cache hits, forward decoding and seeks are the task's and the scheduler's
// tests; here the decoder's own part: the next frame walks on from the last
// one it delivered, and at the end answers nothing or, asked to, the last
// again; then a frame back is scaled into pooled memory.
TEST(DecoderCore, TheNextFrameFollowsTheLastDeliveredAndPicturesAreScaledIntoPooledMemory) {
    const VideoUnderTest v = testsupport::load_video("h264_cfr.mp4");
    FFDecoderPrivate d;
    ASSERT_TRUE(d.open(v.stream));
    ASSERT_EQ(index_of(d.get_frame(v.reference[97].pts, nullptr)), 97);
    // Whether to repeat the last frame at the end, and the index expected (-1: nothing).
    const std::pair<bool, int> steps[] = {{false, 98}, {true, 99}, {false, -1}, {true, 99}};
    for (auto [repeat_last, want] : steps) EXPECT_EQ(index_of(d.get_next_frame(nullptr, repeat_last)), want);

    const auto frame = d.get_frame(v.reference[50].pts, nullptr);
    ASSERT_NE(frame, nullptr);
    // A divided width is rounded up to a multiple of 16, the height to even.
    // (The picture's time in microseconds shows in DecoderApi.StillsRawStreamsAndDividers,
    // which also needs the divider recorded to tell a still's pictures apart.)
    const struct { PixelFormat format; int divider, width, height; } conversions[] = {
        {PF_RGBA, 0, 320, 240}, {PF_RGBA, 1, 320, 240}, {PF_NV12, 2, 160, 120}, {PF_RGBA, 3, 112, 80}};
    for (auto [format, divider, width, height] : conversions) {
        SCOPED_TRACE(divider);
        const auto p = d.convert_to_dst_frame(frame.get(), RequireVideoFrame{{}, format, divider});
        ASSERT_NE(p, nullptr);
        EXPECT_TRUE(p->width == width && p->height == height && p->src_width == 320);
        EXPECT_EQ(p->data[0], p->buffer);
        EXPECT_EQ(p->linesize[0] % 32, 0);
        EXPECT_EQ(testmedia::picture_index(*p), 50);
        EXPECT_EQ(p->format, format == PF_RGBA ? AV_PIX_FMT_RGBA : AV_PIX_FMT_NV12);
        EXPECT_EQ(p->data[1] != nullptr, format == PF_NV12);
    }

    // No scaler for the format pair: nothing.
    EXPECT_EQ(d.convert_to_dst_frame(frame.get(), RequireVideoFrame{{}, PF_NONE}), nullptr);
}

// Identical requests keep the resampler; another format or rate replaces it,
// and one it cannot convert to frees it. The samples themselves are the audio
// exactness tests'.
TEST(DecoderCore, TheResamplerIsKeptOnlyForIdenticalRequests) {
    FFDecoderPrivate d;
    ASSERT_TRUE(d.open(testsupport::stream_of("pcm_s16.wav", STREAM_AUDIO)));
    testsupport::InstanceDecoding source("pcm_s16.wav");
    RequireAudioFrame req = testsupport::audio_request({0, 1}, {1, 1}, SF_S16, 48000);
    SwrContext* first = nullptr;
    for (int k = 0; k < 3 && source.next() >= 0; ++k) {
        ASSERT_NE(d.convert_to_dst_aframe(source.frame.get(), req), nullptr);
        if (!first) first = d.swr;
        EXPECT_EQ(d.swr, first);
    }
    req.format = SF_FLT;
    for (int rate : {48000, 44100}) {
        req.sample_rate = rate;
        const auto f = d.convert_to_dst_aframe(source.frame.get(), req);
        EXPECT_TRUE(f && f->sample_rate == rate && d.swr_dst_format == SF_FLT && d.swr_dst_rate == rate) << rate;
    }
    req.format = SF_NONE;
    EXPECT_EQ(d.convert_to_dst_aframe(source.frame.get(), req), nullptr);
    EXPECT_EQ(d.swr, nullptr);
}

// A filter graph installs on a video stream, a failed one leaves none behind,
// and a subtitle stream takes none (audio graphs are the Decoder2 tests').
TEST(DecoderCore, FiltersInstallOnlyOnVideoAndAudio) {
    FFDecoderPrivate video, subtitle;
    ASSERT_TRUE(video.open(testsupport::stream_of("subs.mkv", STREAM_VIDEO)));
    // That the graph is installed and applied shows in the mirrored pictures
    // of Decoder2Video.UserFiltersMirrorThePictureUntilRemoved.
    EXPECT_TRUE(video.open_filter("hflip"));
    EXPECT_FALSE(video.open_filter("no_such_filter"));
    EXPECT_EQ(video.filter, nullptr);

    ASSERT_TRUE(subtitle.open(testsupport::stream_of("subs.mkv", STREAM_SUBTITLE)));
    testmedia::LogCapture log;
    EXPECT_FALSE(subtitle.open_filter("null"));
    EXPECT_TRUE(testsupport::contains(log.take(), "\"no support for stream->type='2'\"\n"));
}
