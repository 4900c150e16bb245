// The speed/reverse/filter decoder: the filter text it builds, the limits of
// its setters, and the clip-to-stream time mapping observed on real frames
// (video frames show their index as bars, lossless audio is a ramp, the AAC
// files carry a 440 Hz tone whose pitch must survive a tempo change).

#include <cmath>
#include <cstring>
#include <memory>

#include "ffdecoder2.h"
#include "support.h"

using namespace ff;
using testsupport::contains;
using testsupport::index_at;
using testsupport::stderr_of;
using testsupport::stream_of;

namespace {

// What a mirrored picture of `index` reads as: the bars in reverse order.
int mirrored(int index) {
    int value = 0;
    for (int bit = 0; bit < 16; ++bit)
        if (index & (1 << bit)) value |= 1 << (15 - bit);
    return value;
}

}  // namespace

TEST(Decoder2Filters, CombineFiltersPutsTempoFirstAndDropsNeutralText) {
    const struct { StreamType type; const char* user; double speed; const char* want; } rows[] = {
        {STREAM_AUDIO, "", 1.5, "atempo=1.500000"},         {STREAM_AUDIO, "volume=2", 1.5, "atempo=1.500000, volume=2"},
        {STREAM_AUDIO, "anull", 1.0, ""},                   {STREAM_AUDIO, "volume=2", 1.0, "volume=2"},
        {STREAM_AUDIO, "null", 0.5, "atempo=0.500000"},     {STREAM_VIDEO, "hflip", 2.0, "hflip"},
        {STREAM_VIDEO, "null", 1.0, ""}};
    for (const auto& r : rows) EXPECT_EQ(combineFilters(r.type, r.user, r.speed), r.want) << r.user << " " << r.speed;
    // A speed that is not a number is not 1.0: the tempo filter is written.
    EXPECT_EQ(combineFilters(STREAM_AUDIO, "", std::nan("")).rfind("atempo=", 0), 0u);
}

TEST(Decoder2Setters, SpeedBoundsRefusalsAndFilterRebuilds) {
    // Never opened: nothing changes, failure reported.
    FFDecoder2 idle;
    EXPECT_FALSE(idle.setSpeed(2.0) || idle.setFilters("volume=2"));
    EXPECT_EQ(idle.speed(), 1.0);

    FFDecoder2 dec;
    ASSERT_TRUE(dec.open(stream_of("aac.m4a", STREAM_AUDIO)));
    std::string err = stderr_of([&] { EXPECT_TRUE(dec.setSpeed(3.0)); });
    EXPECT_TRUE(contains(err, "open filter: atempo=3.000000\n")) << err;
    EXPECT_TRUE(dec.setSpeed(0.5));
    for (double bad : {3.01, 0.49, 0.0, -1.0, std::nan("")}) {
        testmedia::LogCapture log;
        err = stderr_of([&] { EXPECT_FALSE(dec.setSpeed(bad)) << bad; });
        char expected[96];
        std::snprintf(expected, sizeof expected, "speed = %.3lf is invalid, limited: (0, 3.0]", bad);
        EXPECT_TRUE(contains(log.take(), expected) && dec.speed() == 0.5) << bad;
        EXPECT_FALSE(contains(err, "filter:")) << "a refused speed touched the filter: " << err;
    }
    ASSERT_TRUE(dec.setSpeed(1.5));
    err = stderr_of([&] { EXPECT_TRUE(dec.setFilters("volume=2")); });
    // The combined text is reported, then the graph opened with it.
    EXPECT_TRUE(contains(err, "[filter] type=1, *****-> atempo=1.500000, volume=2\nopen filter: atempo=1.500000, volume=2\n"))
        << err;
    ASSERT_TRUE(dec.setFilters("anull"));
    err = stderr_of([&] { EXPECT_TRUE(dec.setSpeed(1.0)); });
    EXPECT_TRUE(contains(err, "close filter: \n")) << err;
    EXPECT_FALSE(dec.setFilters("nosuchfilter=1"));
    // A combined text over 1023 characters is refused, never cut: cutting this
    // chain of "anull" items anywhere would still give a valid chain.
    std::string chain = "anull";
    while (chain.size() < 1100) chain += ",anull";
    stderr_of([&] { EXPECT_FALSE(dec.setFilters(chain.c_str())); });
    // Reverse is for video only: the audio decoder says so.
    EXPECT_EQ(stderr_of([&] { dec.setRevert(true); }), "(stream.type=1) unsupport revert ...\n");
}

// Steps on the 4 s, 25 fps stream: set speed and direction, then read the
// index shown at a clip time.
TEST(Decoder2Video, ClipTimesMapThroughSpeedAndReverse) {
    FFDecoder2 dec;
    ASSERT_TRUE(dec.open(stream_of("h264_cfr.mp4", STREAM_VIDEO)));
    const struct { double speed; bool reverse; long long num, den; int want; } steps[] = {
        {1.0, false, 1, 1, 25}, {2.0, false, 1, 1, 50},
        // 1.15 is 114/100 once truncated to hundredths: 1.0 s reads 1.14 s, 3 s
        // reads 3.42 s (3.45 s would be frame 86).
        {1.15, false, 1, 1, 28}, {1.15, false, 3, 1, 85},
        // Reverse: clip time t shows stream time 4 - t (the last frame at 0).
        {1.0, true, 0, 1, 99}, {1.0, true, 3, 2, 62}, {1.0, true, 4, 1, 0},
        // Speed first, then reverse: 0.5 s -> 1.0 s -> 3.0 s (not (4 - 0.5) * 2).
        {2.0, true, 1, 2, 75}, {1.15, true, 1, 1, 71}, {1.15, true, 3, 1, 14}};
    for (const auto& s : steps) {
        const std::string err = stderr_of([&] { EXPECT_TRUE(dec.setSpeed(s.speed)); });
        EXPECT_TRUE(contains(err, "[filter] type=0, *****-> \nclose filter: \n")) << "pictures need no filter: " << err;
        dec.setRevert(s.reverse);
        EXPECT_EQ(index_at(dec, {s.num, s.den}), s.want) << s.speed << (s.reverse ? " reverse at " : " at ") << s.num
                                                       << "/" << s.den;
    }
}

// Backward play on a stream with a key frame only every 250 frames gives, at
// -1x and -2x, exactly the pictures forward play gives, and decodes fewer
// frames than a run from the key frame for every few pictures would.
TEST(Decoder2Video, ReversePlaybackGivesTheFramesForwardPlaybackGives) {
    const StreamCtx* video = stream_of("long_gop.mp4", STREAM_VIDEO);
    constexpr int frames = 300;  // 12 s at 25 fps: a stream of another length fails the very first index
    for (int speed : {1, 2}) {
        SCOPED_TRACE(speed);
        FFDecoder2 dec;
        ASSERT_TRUE(dec.open(video));
        dec.setRevert(true);
        ASSERT_TRUE(dec.setSpeed(speed));
        const testsupport::Counts before = testsupport::Counts::now();
        // Clip time c reads stream time 12 s - speed * c: frame 299 - speed * n
        // at c = (speed * n + 1) / (25 * speed).
        for (int n = 0; speed * n < frames; ++n)
            ASSERT_EQ(index_at(dec, {speed * n + 1, 25 * speed}), frames - 1 - speed * n) << n;
        EXPECT_LT(before.since().frames, 2u * frames);
    }
}

TEST(Decoder2Video, UserFiltersMirrorThePictureUntilRemoved) {
    const StreamCtx* video = stream_of("h264_cfr.mp4", STREAM_VIDEO);
    FFDecoder2 dec;
    ASSERT_TRUE(dec.open(video));
    const std::string err = stderr_of([&] { EXPECT_TRUE(dec.setFilters("hflip")); });
    EXPECT_TRUE(contains(err, "open filter: hflip\n")) << err;
    EXPECT_EQ(index_at(dec, {1, 1}), mirrored(25));
    // Speed maps the time and keeps the user's filter.
    ASSERT_TRUE(dec.setSpeed(2.0));
    EXPECT_EQ(index_at(dec, {1, 1}), mirrored(50));
    ASSERT_TRUE(dec.setSpeed(1.0) && dec.setFilters(nullptr));
    EXPECT_EQ(index_at(dec, {1, 1}), 25);
    // pri_setFilters replaces the whole text without storing it: a rebuild
    // at speed 1 goes back to the stored (empty) text.
    ASSERT_TRUE(dec.pri_setFilters("hflip"));
    EXPECT_EQ(index_at(dec, {2, 1}), mirrored(50));
    ASSERT_TRUE(dec.setSpeed(1.0));
    EXPECT_EQ(index_at(dec, {2, 1}), 50);

    // Pictures that arrive in another format than the stream said get a
    // graph built for them: the same picture as from the true description.
    StreamCtx misdescribed = *video;
    misdescribed.pix_fmt = AV_PIX_FMT_YUV444P;
    FFDecoder2 told, misled;
    ASSERT_TRUE(told.open(video) && misled.open(&misdescribed));
    ASSERT_TRUE(told.setFilters("hflip") && misled.setFilters("hflip"));
    const RequireVideoFrame req{Rational(1, 1), PF_RGBA, 1, nullptr};
    const auto want = told.getVideoFrame(req), got = misled.getVideoFrame(req);
    ASSERT_TRUE(want && got && want->size == got->size);
    EXPECT_EQ(std::memcmp(want->data[0], got->data[0], static_cast<size_t>(want->size)), 0);
}

TEST(Decoder2Audio, TempoKeepsThePitchAndTheClipLength) {
    for (double speed : {2.0, 0.5}) {
        SCOPED_TRACE(speed);
        FFDecoder2 dec;
        ASSERT_TRUE(dec.open(stream_of("aac.m4a", STREAM_AUDIO)));
        ASSERT_TRUE(dec.setSpeed(speed));
        std::vector<float> left;  // channel 0 of everything delivered
        int nulls = 0, last_null = -1;
        const std::string logged = testsupport::stdout_of([&] {
            for (int i = 0; i < 50; ++i) {  // 1 s of clip in 20 ms requests, read from 2 s or 0.5 s of stream
                const auto a = dec.getAudioFrame(testsupport::audio_request({i, 50}, {i + 1, 50}, SF_FLT, 48000));
                if (!a) {
                    ++nulls, last_null = i;
                    continue;
                }
                const float* s = reinterpret_cast<const float*>(a->data[0]);
                for (int n = 0; n < a->nb_samples; ++n) left.push_back(s[2 * n]);
            }
        });
        // The tempo filter answers nothing while it gathers its first
        // 2048-sample window, which takes a few requests; never later.
        EXPECT_LT(last_null, 10) << "gap in the middle of the run";
        // Each request pulls at most one filtered frame of the 960 samples
        // (20 ms at 48 kHz) its span stands for, so the run is short by the
        // requests that answered nothing plus less than one frame that the
        // resampler keeps back: within (nulls + 1) * 960 of 1 s. Reading the
        // stream at 1x would deliver half or twice of it.
        EXPECT_FALSE(contains(logged, "buffersink error")) << "waiting for input is not an error: " << logged;
        const auto total = static_cast<long long>(left.size());
        EXPECT_TRUE(total <= 48000 && total >= 48000 - (nulls + 1) * 960) << total << " with " << nulls << " empty answers";
        // Pitch from the rising zero crossings after the filter's start-up.
        std::vector<double> rising;
        for (size_t n = 4800; n + 1 < left.size(); ++n)
            if (left[n] < 0.0f && left[n + 1] >= 0.0f) rising.push_back(n + left[n] / (left[n] - left[n + 1]));
        ASSERT_GT(rising.size(), 100u);
        const double hz = (rising.size() - 1) * 48000.0 / (rising.back() - rising.front());
        EXPECT_NEAR(hz, 440.0, 4.4) << "the speed changed the pitch";
    }
}

TEST(Decoder2Audio, SpeedScalesTheSpanReadFromTheStream) {
    FFDecoder2 dec;
    // Neutral filter in place of the tempo one: the samples read are seen as they are.
    ASSERT_TRUE(dec.open(stream_of("pcm_s16.wav", STREAM_AUDIO)) && dec.setSpeed(2.0) && dec.pri_setFilters("anull"));
    // Clip [1.0, 1.5) at speed 2 is stream [2.0, 3.0), then the contiguous [1.5, 2.0).
    for (int i = 0; i < 2; ++i) {
        const auto a = dec.getAudioFrame(testsupport::audio_request({2 + i, 2}, {3 + i, 2}, SF_S16, 48000));
        ASSERT_TRUE(a && a->nb_samples == 48000) << i;
        EXPECT_TRUE(testsupport::is_ramp(*a, 96000 + 48000 * i)) << "request " << i;
    }
}
