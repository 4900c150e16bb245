// The speed/reverse/filter decoder: the filter text it builds, the limits of
// its setters, and the clip-to-stream time mapping observed on real frames
// (video frames show their index as bars, lossless audio is a ramp, the AAC
// files carry a 440 Hz tone whose pitch must survive a tempo change).
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

extern "C" {
#include <libavutil/pixfmt.h>
}

#include "ffdecoder2.h"
#include "media.h"
#include "movie_info.h"

using namespace ff;

namespace {

const StreamCtx* stream_of(const char* name, StreamType type) {
    MovieCtx* mv = FFDecoder::probe(testmedia::path(name).c_str(), nullptr);
    if (!mv) return nullptr;
    if (type == STREAM_VIDEO) return mv->nb_video > 0 ? mv->streams[mv->video_indexes[0]] : nullptr;
    return mv->nb_audio > 0 ? mv->streams[mv->audio_indexes[0]] : nullptr;
}

// The index shown at clip time num/den, or -1 when there is no picture.
int index_at(FFDecoder2& dec, long long num, long long den) {
    const auto p = dec.getVideoFrame(RequireVideoFrame{Rational(num, den), PF_RGBA, 1, nullptr});
    if (!p || p->format != AV_PIX_FMT_RGBA) return -1;
    return testmedia::picture_index(*p);
}

// What a mirrored picture of `index` reads as: the bars in reverse order.
int mirrored(int index) {
    int value = 0;
    for (int bit = 0; bit < 16; ++bit)
        if (index & (1 << bit)) value |= 1 << (15 - bit);
    return value;
}

// `item` repeated with commas up to exactly `length` characters; the
// remainder is made of spaces after the first commas (the graph parser skips
// them), so the chain stays valid at any length.
std::string chain_of_length(const std::string& item, size_t length) {
    std::vector<std::string> items{item};
    size_t size = item.size();
    while (size + 1 + item.size() <= length) {
        items.push_back(item);
        size += 1 + item.size();
    }
    size_t spaces = length - size;  // fewer than one item's worth: there are commas enough
    std::string text = items[0];
    for (size_t i = 1; i < items.size(); ++i) {
        text += ",";
        if (spaces > 0) {
            text += " ";
            --spaces;
        }
        text += items[i];
    }
    return text;
}

template <typename F>
std::string stderr_of(F&& action) {
    testing::internal::CaptureStderr();
    action();
    return testing::internal::GetCapturedStderr();
}

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

}  // namespace

TEST(Decoder2Filters, CombineFiltersPutsTempoFirstAndDropsNeutralText) {
    EXPECT_EQ(combineFilters(STREAM_AUDIO, "", 1.5), "atempo=1.500000");
    EXPECT_EQ(combineFilters(STREAM_AUDIO, "volume=2", 1.5), "atempo=1.500000, volume=2");
    EXPECT_EQ(combineFilters(STREAM_AUDIO, "anull", 1.0), "");
    EXPECT_EQ(combineFilters(STREAM_AUDIO, "volume=2", 1.0), "volume=2");
    EXPECT_EQ(combineFilters(STREAM_AUDIO, "null", 0.5), "atempo=0.500000");
    EXPECT_EQ(combineFilters(STREAM_VIDEO, "", 2.0), "");
    EXPECT_EQ(combineFilters(STREAM_VIDEO, "hflip", 2.0), "hflip");
    EXPECT_EQ(combineFilters(STREAM_VIDEO, "null", 1.0), "");
    // A speed that is not a number is not 1.0: the tempo filter is written.
    EXPECT_EQ(combineFilters(STREAM_AUDIO, "", std::nan("")).rfind("atempo=", 0), 0u);
    // Too long for the graph's buffer is still returned whole, for the caller to refuse.
    EXPECT_EQ(combineFilters(STREAM_AUDIO, std::string(1100, 'x'), 2.0).size(), 17u + 1100u);

    const std::string err = stderr_of([] { combineFilters(STREAM_AUDIO, "volume=2", 1.5); });
    EXPECT_EQ(err, "[filter] type=1, *****-> atempo=1.500000, volume=2\n");
    EXPECT_EQ(stderr_of([] { combineFilters(STREAM_VIDEO, "", 3.0); }), "[filter] type=0, *****-> \n");
}

TEST(Decoder2Setters, SpeedBoundsUnopenedDecodersAndOverlongText) {
    // Never opened: nothing to read, nothing changes, failure reported.
    {
        FFDecoder2 idle;
        EXPECT_FALSE(idle.setSpeed(2.0));
        EXPECT_EQ(idle.speed(), 1.0);
        EXPECT_FALSE(idle.setFilters("volume=2"));
        EXPECT_FALSE(idle.pri_setFilters("anull"));
        idle.setRevert(true);
        EXPECT_EQ(idle.getVideoFrame(RequireVideoFrame{Rational(1, 1), PF_RGBA, 1, nullptr}), nullptr);
        // None of that took effect: once opened, the clip plays forward at 1x.
        const StreamCtx* video = stream_of("h264_cfr.mp4", STREAM_VIDEO);
        ASSERT_NE(video, nullptr);
        ASSERT_TRUE(idle.open(video));
        EXPECT_EQ(index_at(idle, 1, 1), 25);
    }

    const StreamCtx* audio = stream_of("aac.m4a", STREAM_AUDIO);
    ASSERT_NE(audio, nullptr);
    FFDecoder2 dec;
    ASSERT_TRUE(dec.open(audio));
    std::string err = stderr_of([&] { EXPECT_TRUE(dec.setSpeed(3.0)); });
    EXPECT_TRUE(contains(err, "open filter: atempo=3.000000\n")) << err;
    EXPECT_TRUE(dec.setSpeed(0.5));
    EXPECT_EQ(dec.speed(), 0.5);

    for (double bad : {3.01, 0.49, 0.0, -1.0, std::nan("")}) {
        testmedia::LogCapture log;
        err = stderr_of([&] { EXPECT_FALSE(dec.setSpeed(bad)) << bad; });
        char expected[96];
        std::snprintf(expected, sizeof expected, "speed = %.3lf is invalid, limited: (0, 3.0]", bad);
        EXPECT_TRUE(contains(log.take(), expected)) << bad;
        EXPECT_EQ(dec.speed(), 0.5) << bad;
        EXPECT_FALSE(contains(err, "filter:")) << "a refused speed touched the filter: " << err;
    }

    err = stderr_of([&] {
        EXPECT_TRUE(dec.setSpeed(1.5));
        EXPECT_TRUE(dec.setFilters("volume=2"));
    });
    EXPECT_TRUE(contains(err, "open filter: atempo=1.500000\n")) << err;
    EXPECT_TRUE(contains(err, "open filter: atempo=1.500000, volume=2\n")) << err;
    err = stderr_of([&] {
        EXPECT_TRUE(dec.setFilters("anull"));
        EXPECT_TRUE(dec.setSpeed(1.0));
    });
    EXPECT_TRUE(contains(err, "close filter: \n")) << err;
    EXPECT_FALSE(dec.setFilters("nosuchfilter=1"));

    // Reverse is for video only: the audio decoder says so and plays on.
    err = stderr_of([&] { dec.setRevert(true); });
    EXPECT_EQ(err, "(stream.type=1) unsupport revert ...\n");
    EXPECT_TRUE(dec.setFilters(nullptr));
    const auto a = dec.getAudioFrame(RequireAudioFrame{Range(Rational(1, 1), Rational(11, 10)), SF_FLT, 44100, 2, nullptr});
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->nb_samples, 4410);

    // 1023 characters fit the graph's description; more are refused, never
    // cut (a cut chain would still be valid here and be accepted).
    const std::string fits = chain_of_length("anull", 1023);
    ASSERT_EQ(fits.size(), 1023u);
    EXPECT_TRUE(dec.setFilters(fits.c_str()));
    EXPECT_TRUE(dec.pri_setFilters(fits.c_str()));
    EXPECT_FALSE(dec.setFilters((fits + ",anull").c_str()));
    EXPECT_FALSE(dec.pri_setFilters((fits + ",anull").c_str()));
    EXPECT_FALSE(dec.setSpeed(2.0)) << "the tempo filter in front of 1023 characters is too long";
    EXPECT_EQ(dec.speed(), 2.0);  // a valid speed is kept even when its filter fails
}

TEST(Decoder2Video, ClipTimesMapThroughSpeedAndReverse) {
    const StreamCtx* video = stream_of("h264_cfr.mp4", STREAM_VIDEO);
    ASSERT_NE(video, nullptr);
    FFDecoder2 dec;
    ASSERT_TRUE(dec.open(video));
    EXPECT_EQ(index_at(dec, 1, 1), 25);

    std::string err = stderr_of([&] { EXPECT_TRUE(dec.setSpeed(2.0)); });
    EXPECT_TRUE(contains(err, "close filter: \n")) << "pictures need no filter at a changed speed: " << err;
    EXPECT_EQ(index_at(dec, 1, 1), 50);
    EXPECT_EQ(index_at(dec, 3, 4), 37);  // 1.5 s
    // 1.15 is 114/100 once truncated to hundredths: 1.0 s reads 1.14 s.
    ASSERT_TRUE(dec.setSpeed(1.15));
    EXPECT_EQ(index_at(dec, 1, 1), 28);
    EXPECT_EQ(index_at(dec, 3, 1), 85);  // 3.42 s (3.45 s would be frame 86)

    // Reverse on the 4 s stream: clip time t shows stream time 4 - t.
    ASSERT_TRUE(dec.setSpeed(1.0));
    dec.setRevert(true);
    EXPECT_EQ(index_at(dec, 0, 1), 99);  // the last frame, on screen at 4 s
    EXPECT_EQ(index_at(dec, 3, 2), 62);  // 2.5 s
    EXPECT_EQ(index_at(dec, 4, 1), 0);
    // Speed first, then reverse: 0.5 s -> 1.0 s -> 3.0 s (not (4 - 0.5) * 2).
    ASSERT_TRUE(dec.setSpeed(2.0));
    EXPECT_EQ(index_at(dec, 1, 1), 50);
    EXPECT_EQ(index_at(dec, 1, 2), 75);
    ASSERT_TRUE(dec.setSpeed(1.15));
    EXPECT_EQ(index_at(dec, 1, 1), 71);  // 4 - 1.14 = 2.86 s
    EXPECT_EQ(index_at(dec, 3, 1), 14);  // 4 - 3.42 = 0.58 s
    // Off again: plain speed mapping.
    dec.setRevert(false);
    ASSERT_TRUE(dec.setSpeed(2.0));
    EXPECT_EQ(index_at(dec, 1, 2), 25);
    ASSERT_TRUE(dec.setSpeed(1.0));
    EXPECT_EQ(index_at(dec, 3, 2), 37);

    // The settings survive close and reopen.
    dec.setRevert(true);
    dec.close();
    ASSERT_TRUE(dec.reopen());
    EXPECT_EQ(index_at(dec, 1, 1), 75);
}

TEST(Decoder2Video, UserFiltersMirrorThePictureUntilRemoved) {
    const StreamCtx* video = stream_of("h264_cfr.mp4", STREAM_VIDEO);
    ASSERT_NE(video, nullptr);
    FFDecoder2 dec;
    ASSERT_TRUE(dec.open(video));
    const std::string err = stderr_of([&] { EXPECT_TRUE(dec.setFilters("hflip")); });
    EXPECT_TRUE(contains(err, "open filter: hflip\n")) << err;
    EXPECT_EQ(index_at(dec, 1, 1), mirrored(25));
    // Speed maps the time and keeps the user's filter.
    ASSERT_TRUE(dec.setSpeed(2.0));
    EXPECT_EQ(index_at(dec, 1, 1), mirrored(50));
    ASSERT_TRUE(dec.setFilters("null"));
    EXPECT_EQ(index_at(dec, 1, 1), 50);
    ASSERT_TRUE(dec.setFilters("hflip"));
    ASSERT_TRUE(dec.setSpeed(1.0));
    EXPECT_EQ(index_at(dec, 1, 1), mirrored(25));
    EXPECT_TRUE(dec.setFilters(nullptr));
    EXPECT_EQ(index_at(dec, 1, 1), 25);

    // pri_setFilters replaces the whole text without storing it.
    ASSERT_TRUE(dec.pri_setFilters("hflip"));
    EXPECT_EQ(index_at(dec, 2, 1), mirrored(50));
    ASSERT_TRUE(dec.setSpeed(1.0));  // rebuilt from the stored (empty) text
    EXPECT_EQ(index_at(dec, 2, 1), 50);

    // Exactly 1023 characters are accepted (four flips are no flip); a
    // longer text is refused rather than cut back to that valid chain.
    std::string fits = "hflip,hflip,hflip,hflip," + chain_of_length("null", 1023 - 24);
    ASSERT_EQ(fits.size(), 1023u);
    EXPECT_TRUE(dec.setFilters(fits.c_str()));
    EXPECT_EQ(index_at(dec, 1, 1), 25);
    EXPECT_FALSE(dec.setFilters((fits + ",hflip").c_str()));
}

TEST(Decoder2Audio, TempoKeepsThePitchAndTheClipLength) {
    const StreamCtx* audio = stream_of("aac.m4a", STREAM_AUDIO);
    ASSERT_NE(audio, nullptr);
    ASSERT_EQ(audio->sample_rate, 44100);
    for (double speed : {2.0, 0.5}) {
        FFDecoder2 dec;
        ASSERT_TRUE(dec.open(audio));
        ASSERT_TRUE(dec.setSpeed(speed));
        std::vector<float> left;  // channel 0 of everything delivered
        int nulls = 0;
        for (int i = 0; i < 50; ++i) {  // 1 s of clip in 20 ms requests, read from 2 s or 0.5 s of stream
            const auto a = dec.getAudioFrame(
                RequireAudioFrame{Range(Rational(i, 50), Rational(i + 1, 50)), SF_FLT, 48000, 2, nullptr});
            if (!a) {
                // The tempo filter answers nothing while it gathers its first
                // 2048-sample window, which takes a few requests; never later.
                EXPECT_LT(i, 10) << "speed " << speed << ": gap in the middle of the run";
                ++nulls;
                continue;
            }
            EXPECT_LE(a->nb_samples, 960) << "speed " << speed << ", request " << i;
            const float* s = reinterpret_cast<const float*>(a->data[0]);
            for (int n = 0; n < a->nb_samples; ++n) left.push_back(s[2 * n]);
        }
        // Each request pulls at most one filtered frame of the 960 samples
        // (20 ms at 48 kHz) its span stands for, so the run is short by the
        // requests that answered nothing plus less than one frame that the
        // resampler keeps back: within (nulls + 1) * 960 of 1 s. Reading the
        // stream at 1x would deliver half or twice of it.
        const long long total = static_cast<long long>(left.size());
        EXPECT_LE(total, 48000) << speed;
        EXPECT_GE(total, 48000 - (nulls + 1) * 960) << speed << " with " << nulls << " empty answers";

        // Pitch from the rising zero crossings after the filter's start-up.
        std::vector<double> rising;
        for (size_t n = 4800; n + 1 < left.size(); ++n)
            if (left[n] < 0.0f && left[n + 1] >= 0.0f) rising.push_back(n + left[n] / (left[n] - left[n + 1]));
        ASSERT_GT(rising.size(), 100u) << speed;
        const double hz = (rising.size() - 1) * 48000.0 / (rising.back() - rising.front());
        EXPECT_NEAR(hz, 440.0, 4.4) << "speed " << speed << " changed the pitch";
    }
}

TEST(Decoder2Audio, SpeedScalesTheSpanReadFromTheStream) {
    const StreamCtx* ramp = stream_of("pcm_s16.wav", STREAM_AUDIO);
    ASSERT_NE(ramp, nullptr);
    ASSERT_EQ(ramp->sample_rate, 48000);
    FFDecoder2 dec;
    ASSERT_TRUE(dec.open(ramp));
    ASSERT_TRUE(dec.setSpeed(2.0));
    // Neutral filter in place of the tempo one: the samples read are seen as they are.
    ASSERT_TRUE(dec.pri_setFilters("anull"));
    EXPECT_EQ(dec.speed(), 2.0);
    long long next = 96000;  // clip 1.0 s at speed 2 is stream 2.0 s
    for (int i = 0; i < 2; ++i) {  // [1.0, 1.5) then the contiguous [1.5, 2.0)
        const auto a = dec.getAudioFrame(
            RequireAudioFrame{Range(Rational(2 + i, 2), Rational(3 + i, 2)), SF_S16, 48000, 2, nullptr});
        ASSERT_NE(a, nullptr) << i;
        ASSERT_EQ(a->nb_samples, 48000) << i;
        const int16_t* s = reinterpret_cast<const int16_t*>(a->data[0]);
        bool exact = true;
        for (int n = 0; n < a->nb_samples && exact; ++n)
            exact = s[2 * n] == testmedia::ramp_sample(next + n, 0) && s[2 * n + 1] == testmedia::ramp_sample(next + n, 1);
        EXPECT_TRUE(exact) << "request " << i << " does not carry stream samples from " << next;
        next += a->nb_samples;
    }
    // 1.15 reads 1.14: clip [1.0, 1.1) is stream [1.14, 1.254).
    ASSERT_TRUE(dec.setSpeed(1.15));
    ASSERT_TRUE(dec.pri_setFilters("anull"));
    const auto a = dec.getAudioFrame(RequireAudioFrame{Range(Rational(1, 1), Rational(11, 10)), SF_S16, 48000, 2, nullptr});
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->nb_samples, 5472);
    EXPECT_EQ(reinterpret_cast<const int16_t*>(a->data[0])[0], testmedia::ramp_sample(54720, 0));
}
