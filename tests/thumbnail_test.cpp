// Movie thumbnails: the divider rules, the picture every video file of the
// test set gives at a time and at a fraction of its duration and the
// filmstrips it gives (checked against a plain sequential decode), the
// filmstrip's fast mode and the requests that give no strip, the reported
// duration, the failures, the cache, and upright pictures.

#include <atomic>
#include <cmath>

#include "support.h"
#include "ff_tools.h"
#include "filmstrip.h"
#include "rational_convert.h"
#include "thumbnail_cache.h"
#include "utils/mempool.h"

using namespace ff;
using testsupport::expect_down;

TEST(ThumbnailDivider, FollowsTheWidthThenHeightRules) {
    // Stream size, target size, divider. From the width first, then the
    // height step lowers it (1080 / 5 = 216 is under half of 1000 -> 4;
    // 1080 / 4 = 270 is under half of 600 -> 3) or raises it (1080 / 6 = 180 >
    // 100 until 11 gives 98); height alone: 1080 / 7 = 154 <= 160. No target
    // or one not narrower than the stream: 1. A huge frame against a 1-pixel
    // target: 2^30 / 2^29 = 2 is still too wide.
    const int rows[][5] = {{1920, 1080, 320, 180, 6}, {1920, 1080, 400, 1000, 4}, {1920, 1080, 0, 0, 1},
                           {1920, 1080, -5, -5, 1},   {1920, 1080, 1920, 0, 1},   {1920, 1080, 0, 160, 7},
                           {1920, 1080, 500, 600, 3}, {1920, 1080, 320, 100, 11}, {1 << 30, 16, 1, 0, (1 << 29) + 1}};
    for (const auto& r : rows) EXPECT_EQ(movie_image_divider(r[0], r[1], r[2], r[3]), r[4]) << r[2] << "x" << r[3];
}

// Both against a plain sequential decode: a thumbnail is the frame on screen
// at its time, a filmstrip's exact mode gives the same, its fast mode the key
// frame at or before the time, and each strip picture says its own time.
TEST(Thumbnail, EveryVideoFileGivesThePredictedPicturesAndFilmstrips) {
    // raw.h264 is left out: its plain decode has no timestamps to predict
    // from (DecoderApi.StillsRawStreamsAndDividers).
    const char* files[] = {"h264_cfr.mp4", "h264_23976.mp4", "vfr.mkv", "ts_offset.ts", "vp9_opus.webm", "rotated.mp4",
                           "subs.mkv", "long_gop.mp4", "nodecoder_first.mp4", "still.png", "mp3_cover.mp3"};
    // 320x240: 160x120 -> 2; 100 wide -> 320/4 = 80 <= 100 -> 4; 50 high -> 240/5 = 48 -> 5.
    // 64x64: only the height limit of 50 bites: 64/2 = 32 -> 2.
    // Target width, height; the picture's size for 320x240 and 64x64, divided by hand. Every width
    // comes out a multiple of 16: the rounding up is checked with the decoder core's conversions.
    const struct { int width, height, size_320x240[2], size_64x64[2]; } targets[] = {
        {160, 120, {160, 120}, {64, 64}}, {100, 0, {80, 60}, {64, 64}}, {0, 50, {64, 48}, {32, 32}},
        {0, 0, {320, 240}, {64, 64}}};
    for (const char* name : files) {
        SCOPED_TRACE(name);
        const testsupport::VideoUnderTest v = testsupport::load_video(name);  // frames in presentation order
        const StreamCtx* st = v.stream;
        ASSERT_TRUE(st && st->movie && !v.reference.empty());
        const MovieCtx* movie = st->movie;
        const int sw = st->width, sh = st->height;
        ASSERT_TRUE((sw == 320 && sh == 240) || (sw == 64 && sh == 64)) << sw << "x" << sh;
        const long long start = st->start_time == kNoPts ? 0 : st->start_time;

        for (const auto& t : targets) {
            const int turn = static_cast<int>(&t - targets);
            const int* size = sw == 320 ? t.size_320x240 : t.size_64x64;
            // Once at a time given in seconds (ratio ignored), once at a fraction.
            for (bool by_ratio : {false, true}) {
                SCOPED_TRACE(testing::Message() << t.width << "x" << t.height << (by_ratio ? " by ratio" : " by time"));
                RequireMvImage req{by_ratio ? 0.3 + 0.1 * turn : 0.95,
                                   by_ratio ? Rational(0, 0) : Rational(200 + 450 * turn, 1000), t.width, t.height};
                const Rational wanted =
                    by_ratio ? Rational(static_cast<long long>(movie->duration * req.ratio), 1000000) : req.time;
                // The duration it reports is checked below, with the failures (the cancelled video).
                const auto picture = getMovieImage(testmedia::path(name).c_str(), req, nullptr);
                ASSERT_NE(picture, nullptr);
                EXPECT_EQ(picture->width, size[0]);
                EXPECT_EQ(picture->height, size[1]);
                const long long ts = time_to_timestamp(wanted, st->time_base) + start;
                EXPECT_EQ(testmedia::picture_index(*picture), expect_down(v, ts).index);
            }
        }

        // Filmstrips are for videos, not for an audio file's cover picture.
        if (std::string(name) == "mp3_cover.mp3") continue;
        testsupport::VideoUnderTest keys;  // what fast strips show: the key frame at or before each time
        std::copy_if(v.reference.begin(), v.reference.end(), std::back_inserter(keys.reference),
                     [](const testmedia::RefFrame& f) { return f.key; });
        ASSERT_FALSE(keys.reference.empty());
        for (bool fast : {false, true}) {
            SCOPED_TRACE(fast ? "fast strip" : "exact strip");
            const RequireFilmstrip req{6, 160, 0, PF_RGBA, fast};
            const std::vector<FilmstripPicture> strip = getFilmstrip(testmedia::path(name).c_str(), req);
            ASSERT_EQ(strip.size(), 6u);
            const Rational duration = st->duration != kNoPts ? timestamp_to_time(st->duration, st->time_base)
                                                             : Rational(movie->duration, 1000000);  // a still picture
            for (int i = 0; i < 6; ++i) {
                const FilmstripPicture& p = strip[i];
                EXPECT_EQ(p.asked, duration * Rational(2 * i + 1, 12));
                const auto& want = expect_down(fast ? keys : v, start + time_to_timestamp(p.asked, st->time_base));
                ASSERT_TRUE(p.picture) << i;
                EXPECT_EQ(testmedia::picture_index(*p.picture), want.index) << i;
                EXPECT_EQ(p.picture->width, 160) << i;
                EXPECT_EQ(time_to_timestamp(p.shown, Rational(1, 1000000)),
                          av_rescale_q(want.pts - start, rational_convert(st->time_base), AVRational{1, 1000000}))
                    << i;
            }
        }
    }
}

// A filmstrip's fast mode decodes key frames only, one picture serving every
// time in a group of pictures (which key frame each time shows is checked for
// every file above); no pictures asked, no strip. The files and the raised
// cancel flag that give no strip are those that give no thumbnail (below).
TEST(Filmstrip, FastModeDecodesOnlyKeyFramesAndSharesTheirPictures) {
    const std::string file = testmedia::path("long_gop.mp4");  // key frames at 0 and 10 s
    const testsupport::Counts before = testsupport::Counts::now();
    const std::vector<FilmstripPicture> strip = getFilmstrip(file.c_str(), RequireFilmstrip{12, 0, 0, PF_RGBA, true});
    ASSERT_EQ(strip.size(), 12u);
    EXPECT_LE(before.since().frames, 12u + 2u);  // the probe's two, then key frames
    EXPECT_TRUE(strip[0].picture && strip[0].picture == strip[9].picture);  // one group of pictures, one picture
    EXPECT_TRUE(getFilmstrip(file.c_str(), RequireFilmstrip{0, 0, 0, PF_RGBA, true}).empty());
}

// No file, a missing, empty or audio-only file, a video without frames and a
// raised cancel flag give no thumbnail; the duration is set whenever the probe
// describes the file, picture or not, and left as it was otherwise. None of
// them gives a filmstrip either.
TEST(Thumbnail, FailuresLeaveOrSetTheDurationAsDocumented) {
    const std::string missing = testmedia::path("no_such_file.mp4"), header = testmedia::path("header_only.mp4"),
                      empty = testmedia::path("empty.mp4"), audio = testmedia::path("aac.m4a"),
                      video = testmedia::path("h264_cfr.mp4");
    const MovieCtx* header_movie = FFDecoder::probe(header.c_str(), nullptr);
    std::atomic<bool> cancel{true};
    // File, cancel flag, the duration then reported (-1: left as it was).
    const struct { const char* file; std::atomic<bool>* cancel; long long duration; } rows[] = {
        {nullptr, nullptr, -1}, {missing.c_str(), nullptr, -1}, {empty.c_str(), nullptr, -1},
        // Audio only: no picture, but the duration is known.
        {audio.c_str(), nullptr, FFDecoder::probe(audio.c_str(), nullptr)->duration},
        {header.c_str(), nullptr, header_movie ? header_movie->duration : -1},  // a video without frames
        {video.c_str(), &cancel, 4000000}};
    std::string logged;
    for (const auto& r : rows) {
        Rational duration(7, 3);
        std::shared_ptr<VFrameCtx> picture;
        const RequireMvImage req{0.5, Rational(0, 0), 0, 0, PF_RGBA, r.cancel};
        logged += testsupport::stdout_of([&] { picture = getMovieImage(r.file, req, &duration); });
        const std::string file = r.file ? r.file : "no file";
        EXPECT_EQ(picture, nullptr) << file;
        EXPECT_TRUE(r.duration < 0 ? duration.num == 7 && duration.den == 3
                                   : duration.num == r.duration && duration.den == 1000000) << file;
        // Fast mode, so that the cancel reaches the key frame reader's loop.
        EXPECT_TRUE(getFilmstrip(r.file, RequireFilmstrip{6, 0, 0, PF_RGBA, true, r.cancel}).empty()) << file;
    }
    EXPECT_TRUE(testsupport::contains(logged, "\"@@获取视频封面和信息失败：" + missing + "\"\n"));
    EXPECT_EQ(getMovieImage(empty.c_str(), RequireMvImage{}, nullptr), nullptr);
    // A NaN position reads as 0 s.
    EXPECT_NE(getMovieImage(video.c_str(), RequireMvImage{std::nan("")}, nullptr), nullptr);
}

TEST(Thumbnail, TheSameRequestAgainIsAnsweredWithoutDecoding) {
    const std::string video = testmedia::path("h264_23976.mp4");
    RequireMvImage req{0.5, Rational(2, 1), 160};
    const auto first = getMovieImage(video.c_str(), req, nullptr);
    ASSERT_NE(first, nullptr);
    const testsupport::Counts before_again = testsupport::Counts::now();
    EXPECT_EQ(getMovieImage(video.c_str(), req, nullptr), first);
    EXPECT_EQ(before_again.since().frames, 0u);

    // Another time, size or format is a new picture.
    req.time = Rational(3, 1);
    const auto later = getMovieImage(video.c_str(), req, nullptr);
    EXPECT_TRUE(later && testsupport::index_of(later) != testsupport::index_of(first));
    req.time = Rational(2, 1);
    req.width = 80;
    const auto smaller = getMovieImage(video.c_str(), req, nullptr);
    EXPECT_LT(smaller ? smaller->width : 1000, first->width);

    // The cache stays within its bound on pictures.
    for (int i = 0; i < 40; ++i) {
        req.time = Rational(i, 10);
        ASSERT_NE(getMovieImage(video.c_str(), req, nullptr), nullptr) << i;
    }
    const testsupport::Counts before = testsupport::Counts::now();
    req.time = Rational(0, 10);  // the oldest of the 40: let go
    const auto held = getMovieImage(video.c_str(), req, nullptr);
    ASSERT_NE(held, nullptr);
    EXPECT_GT(before.since().frames, 0u);

    // mem_collection lets go of the cached pictures first, so that the pool
    // can give their blocks back; a picture the host holds (`held`) stays valid.
    mem_collection(60000);  // all were just used: nothing goes
    EXPECT_EQ(ThumbnailCache::instance().size(), ThumbnailCache::kMaxPictures);
    const size_t handed_out = bg::mempool::stats().handed_out_bytes;
    mem_collection(0);
    EXPECT_TRUE(ThumbnailCache::instance().size() == 0u && bg::mempool::stats().free_bytes == 0u);
    EXPECT_LE(bg::mempool::stats().handed_out_bytes + 28 * static_cast<size_t>(held->size), handed_out);
    EXPECT_EQ(testmedia::picture_index(*held), testmedia::picture_index(*getMovieImage(video.c_str(), req, nullptr)));
}

TEST(UprightImage, EveryOrientationPlacesEachPixelWhereADisplayShowsIt) {
    // A 3x2 RGBA picture whose red channel numbers its pixels:  0 1 2
    //                                                           3 4 5
    // The turned picture's size and red channels, row by row.
    const struct { Orientation how; int width, height, pixels[6]; } cases[] = {
        {OR_ROTATE_90, 2, 3, {3, 0, 4, 1, 5, 2}} /* a quarter clockwise */, {OR_ROTATE_180, 3, 2, {5, 4, 3, 2, 1, 0}},
        {OR_ROTATE_270, 2, 3, {2, 5, 1, 4, 0, 3}}, {OR_HFLIP, 3, 2, {2, 1, 0, 5, 4, 3}},
        {OR_VFLIP, 3, 2, {3, 4, 5, 0, 1, 2}},      {OR_TRANSPOSE, 2, 3, {0, 3, 1, 4, 2, 5}},
        {OR_TRANSVERSE, 2, 3, {5, 2, 4, 1, 3, 0}}};
    auto picture = std::make_shared<VFrameCtx>();
    picture->buffer = bg::mempool::malloc(64, 16);
    picture->size = 64, picture->format = AV_PIX_FMT_RGBA;
    picture->width = picture->src_width = 3;
    picture->height = picture->src_height = 2;
    picture->data[0] = static_cast<uint8_t*>(picture->buffer);
    picture->linesize[0] = 16;  // wider than a row, as pooled pictures are
    for (int i = 0; i < 6; ++i) picture->data[0][(i / 3) * 16 + (i % 3) * 4] = static_cast<uint8_t>(i);
    EXPECT_EQ(getUprightImage(picture, OR_NORMAL), picture);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.how);
        const std::shared_ptr<VFrameCtx> turned = getUprightImage(picture, c.how);
        ASSERT_TRUE(turned && turned->width == c.width && turned->height == c.height && turned->src_width == c.width);
        for (int i = 0; i < 6; ++i)
            EXPECT_EQ(turned->data[0][(i / c.width) * turned->linesize[0] + (i % c.width) * 4], c.pixels[i]) << i;
    }
    EXPECT_FALSE(getUprightImage(nullptr, OR_ROTATE_90) || getUprightImage(picture, static_cast<Orientation>(8)));
}
