// Movie thumbnails: the divider rules, the picture every video file of the
// test set gives at a time and at a fraction of its duration (checked against
// a plain sequential decode), the reported duration, and the failures.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <string>

#include "decode_counters.h"
#include "support.h"
#include "ff_tools.h"
#include "ffdecoder.h"
#include "media.h"
#include "thumbnail_cache.h"
#include "utils/mempool.h"

using namespace ff;

namespace {

int round_up(int v, int m) { return (v + m - 1) / m * m; }

RequireMvImage request(int width, int height) {
    RequireMvImage req;
    req.width = width;
    req.height = height;
    req.format = PF_RGBA;
    return req;
}

struct Target {
    int width, height;
    int divider_320x240;  // worked out by hand from the rules
    int divider_64x64;
};

}  // namespace

TEST(ThumbnailDivider, FollowsTheWidthThenHeightRules) {
    EXPECT_EQ(movie_image_divider(1920, 1080, 320, 180), 6);
    // 5 from the width (384 wide), lowered to 4: 1080 / 5 = 216 is under half of 1000.
    EXPECT_EQ(movie_image_divider(1920, 1080, 400, 1000), 4);
    EXPECT_EQ(movie_image_divider(1920, 1080, 0, 0), 1);
    EXPECT_EQ(movie_image_divider(1920, 1080, -5, -5), 1);
    EXPECT_EQ(movie_image_divider(1920, 1080, 1920, 0), 1);  // not narrower than the stream
    // Height alone: 1080 / 7 = 154 <= 160; 80 > 154 false -> 7.
    EXPECT_EQ(movie_image_divider(1920, 1080, 0, 160), 7);
    // The height step lowers what the width chose: 1080 / 4 = 270 is under half of 600 -> 3.
    EXPECT_EQ(movie_image_divider(1920, 1080, 500, 600), 3);
    // ... and raises it: 1080 / 6 = 180 > 100 until D = 11 (98).
    EXPECT_EQ(movie_image_divider(1920, 1080, 320, 100), 11);
    // A huge frame against a 1-pixel target: 2^30 / 2^29 = 2 is still too wide.
    EXPECT_EQ(movie_image_divider(1 << 30, 16, 1, 0), (1 << 29) + 1);
}

TEST(Thumbnail, EveryVideoFileGivesThePredictedPictureAtTheDividedSize) {
    // raw.h264 is left out: its plain decode has no timestamps to predict
    // from (DecoderApi.RawStreamWithoutTimestampsGivesTheFrameOfEachTime).
    const char* files[] = {"h264_cfr.mp4", "h264_23976.mp4",      "vfr.mkv",   "ts_offset.ts",
                           "vp9_opus.webm", "rotated.mp4",        "subs.mkv",  "nodecoder_first.mp4",
                           "still.png",    "mp3_cover.mp3"};
    // 320x240: 160x120 -> 2; 100 wide -> 320/4 = 80 <= 100 -> 4; 50 high -> 240/5 = 48 -> 5.
    // 64x64: only the height limit of 50 bites: 64/2 = 32 -> 2.
    const Target targets[] = {{160, 120, 2, 1}, {100, 0, 4, 1}, {0, 50, 5, 2}, {0, 0, 1, 1}};
    for (const char* name : files) {
        const testsupport::VideoUnderTest v = testsupport::load_video(name);
        ASSERT_NE(v.stream, nullptr) << name;
        ASSERT_FALSE(v.reference.empty()) << name;
        const MovieCtx* movie = v.stream->movie;
        ASSERT_NE(movie, nullptr) << name;
        const int sw = v.stream->width, sh = v.stream->height;
        ASSERT_TRUE((sw == 320 && sh == 240) || (sw == 64 && sh == 64)) << name << " " << sw << "x" << sh;
        const long long start = v.stream->start_time == kNoPts ? 0 : v.stream->start_time;

        int turn = 0;
        for (const Target& t : targets) {
            const int d = sw == 320 ? t.divider_320x240 : t.divider_64x64;
            // Once at a time given in seconds (ratio ignored), once at a fraction.
            for (bool by_ratio : {false, true}) {
                RequireMvImage req = request(t.width, t.height);
                req.ratio = by_ratio ? 0.3 + 0.1 * turn : 0.95;
                req.time = by_ratio ? Rational(0, 0) : Rational(200 + 450 * turn, 1000);
                const Rational wanted =
                    by_ratio ? Rational(static_cast<long long>(static_cast<double>(movie->duration) * req.ratio),
                                        1000000)
                             : req.time;
                Rational duration(-1, 1);
                const auto picture = getMovieImage(testmedia::path(name).c_str(), req, &duration);
                const std::string where = std::string(name) + " target " + std::to_string(t.width) + "x" +
                                          std::to_string(t.height) + (by_ratio ? " ratio" : " time");
                ASSERT_NE(picture, nullptr) << where;
                EXPECT_EQ(duration.num, movie->duration) << where;
                EXPECT_EQ(duration.den, 1000000) << where;
                EXPECT_EQ(picture->divider, d) << where;
                EXPECT_EQ(picture->src_width, sw) << where;
                EXPECT_EQ(picture->width, d > 1 ? round_up(sw / d, 16) : sw) << where;
                EXPECT_EQ(picture->height, d > 1 ? round_up(sh / d, 2) : sh) << where;
                const long long ts = time_to_timestamp(wanted, v.stream->time_base) + start;
                EXPECT_EQ(testmedia::picture_index(*picture), testsupport::expect_down(v, ts).index) << where;
            }
            ++turn;
        }
    }
}

TEST(Thumbnail, FailuresLeaveOrSetTheDurationAsDocumented) {
    testmedia::LogCapture log;
    const std::string missing = testmedia::path("no_such_file.mp4");
    Rational duration(7, 3);
    EXPECT_EQ(getMovieImage(missing.c_str(), request(0, 0), &duration), nullptr);
    EXPECT_EQ(duration.num, 7);
    EXPECT_EQ(duration.den, 3);
    EXPECT_NE(log.take().find("\"@@获取视频封面和信息失败：" + missing + "\"\n"), std::string::npos);
    EXPECT_EQ(getMovieImage(nullptr, request(0, 0), &duration), nullptr);
    EXPECT_EQ(getMovieImage(testmedia::path("empty.mp4").c_str(), request(0, 0), nullptr), nullptr);
    EXPECT_EQ(duration.num, 7);

    // Audio only: no picture, but the duration is known.
    const std::string audio = testmedia::path("aac.m4a");
    const MovieCtx* mv = FFDecoder::probe(audio.c_str(), nullptr);
    ASSERT_NE(mv, nullptr);
    EXPECT_EQ(getMovieImage(audio.c_str(), request(0, 0), &duration), nullptr);
    EXPECT_EQ(duration.num, mv->duration);
    EXPECT_EQ(duration.den, 1000000);

    // A video without frames, an unknown duration times a ratio, a raised cancel flag.
    const std::string header = testmedia::path("header_only.mp4");
    duration = Rational(7, 3);
    const auto none = getMovieImage(header.c_str(), request(0, 0), &duration);
    if (const MovieCtx* h = FFDecoder::probe(header.c_str(), nullptr)) {
        EXPECT_EQ(duration.num, h->duration);
    }
    EXPECT_EQ(none, nullptr);
    const std::string video = testmedia::path("h264_cfr.mp4");
    RequireMvImage odd = request(0, 0);
    odd.ratio = std::nan("");
    EXPECT_NE(getMovieImage(video.c_str(), odd, nullptr), nullptr);  // NaN position reads as 0 s
    std::atomic<bool> cancel{true};
    RequireMvImage cancelled = request(0, 0);
    cancelled.cancel = &cancel;
    duration = Rational(7, 3);
    EXPECT_EQ(getMovieImage(video.c_str(), cancelled, &duration), nullptr);
    EXPECT_EQ(duration.den, 1000000);
    log.take();
}

TEST(Thumbnail, TheSameRequestAgainIsAnsweredWithoutDecoding) {
    const std::string video = testmedia::path("h264_23976.mp4");
    RequireMvImage req = request(160, 0);
    req.time = Rational(2, 1);
    const auto first = getMovieImage(video.c_str(), req, nullptr);
    ASSERT_NE(first, nullptr);
    const uint64_t decoded = decode_counters().frames_decoded;
    const auto again = getMovieImage(video.c_str(), req, nullptr);
    EXPECT_EQ(again, first);
    EXPECT_EQ(decode_counters().frames_decoded, decoded);

    // Another time, size or format is a new picture.
    req.time = Rational(3, 1);
    const auto later = getMovieImage(video.c_str(), req, nullptr);
    ASSERT_NE(later, nullptr);
    EXPECT_NE(later, first);
    EXPECT_NE(testmedia::picture_index(*later), testmedia::picture_index(*first));
    req.time = Rational(2, 1);
    req.width = 80;
    const auto smaller = getMovieImage(video.c_str(), req, nullptr);
    ASSERT_NE(smaller, nullptr);
    EXPECT_LT(smaller->width, first->width);

    // The cache stays within its bound on pictures.
    for (int i = 0; i < 40; ++i) {
        req.time = Rational(i, 10);
        ASSERT_NE(getMovieImage(video.c_str(), req, nullptr), nullptr) << i;
    }
    const uint64_t before = decode_counters().frames_decoded;
    req.time = Rational(0, 10);  // the oldest of the 40: let go
    ASSERT_NE(getMovieImage(video.c_str(), req, nullptr), nullptr);
    EXPECT_GT(decode_counters().frames_decoded, before);

    // mem_collection lets go of the cached pictures first, so that the pool
    // can give their blocks back; a picture the host holds stays valid.
    const auto held = getMovieImage(video.c_str(), req, nullptr);
    mem_collection(60000);  // all were just used: nothing goes
    EXPECT_EQ(ThumbnailCache::instance().size(), ThumbnailCache::kMaxPictures);
    const size_t handed_out = bg::mempool::stats().handed_out_bytes;
    mem_collection(0);
    EXPECT_EQ(ThumbnailCache::instance().size(), 0u);
    EXPECT_EQ(bg::mempool::stats().free_bytes, 0u);
    EXPECT_LE(bg::mempool::stats().handed_out_bytes + 28 * static_cast<size_t>(held->size), handed_out);
    EXPECT_EQ(testmedia::picture_index(*held), testmedia::picture_index(*getMovieImage(video.c_str(), req, nullptr)));
}


TEST(UprightImage, EveryOrientationPlacesEachPixelWhereADisplayShowsIt) {
    // A 3x2 RGBA picture whose red channel numbers its pixels:  0 1 2
    //                                                           3 4 5
    struct Case {
        Orientation how;
        int width, height;
        int pixels[6];  // the turned picture's red channels, row by row
    } cases[] = {
        {OR_ROTATE_90, 2, 3, {3, 0, 4, 1, 5, 2}},  // a quarter clockwise
        {OR_ROTATE_180, 3, 2, {5, 4, 3, 2, 1, 0}},
        {OR_ROTATE_270, 2, 3, {2, 5, 1, 4, 0, 3}},
        {OR_HFLIP, 3, 2, {2, 1, 0, 5, 4, 3}},
        {OR_VFLIP, 3, 2, {3, 4, 5, 0, 1, 2}},
        {OR_TRANSPOSE, 2, 3, {0, 3, 1, 4, 2, 5}},
        {OR_TRANSVERSE, 2, 3, {5, 2, 4, 1, 3, 0}},
    };
    auto picture = std::make_shared<VFrameCtx>();
    picture->buffer = bg::mempool::malloc(64, 16);
    picture->size = 64;
    picture->width = picture->src_width = 3;
    picture->height = picture->src_height = 2;
    picture->format = AV_PIX_FMT_RGBA;
    picture->data[0] = static_cast<uint8_t*>(picture->buffer);
    picture->linesize[0] = 16;  // wider than a row, as pooled pictures are
    for (int i = 0; i < 6; ++i) picture->data[0][(i / 3) * 16 + (i % 3) * 4] = static_cast<uint8_t>(i);
    EXPECT_EQ(getUprightImage(picture, OR_NORMAL), picture);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.how);
        const std::shared_ptr<VFrameCtx> turned = getUprightImage(picture, c.how);
        ASSERT_NE(turned, nullptr);
        ASSERT_EQ(turned->width, c.width);
        ASSERT_EQ(turned->height, c.height);
        EXPECT_EQ(turned->src_width, c.width);
        for (int i = 0; i < 6; ++i)
            EXPECT_EQ(turned->data[0][(i / c.width) * turned->linesize[0] + (i % c.width) * 4], c.pixels[i]) << i;
    }
    EXPECT_EQ(getUprightImage(nullptr, OR_ROTATE_90), nullptr);
    EXPECT_EQ(getUprightImage(picture, static_cast<Orientation>(8)), nullptr);
}
