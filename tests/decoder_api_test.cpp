// The host's decoder: pictures at any time, audio in exactly the requested
// spans (contiguous runs without drift, late starts as silence), positioning,
// request numbering and the never-opened decoder.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "decode_counters.h"
#include "support.h"
#include "ff_tools.h"
#include "ffdecoder.h"
#include "ffdecoder2.h"
#include "media.h"

using namespace ff;

namespace {

const StreamCtx* stream_of(const char* name, StreamType type) {
    MovieCtx* mv = FFDecoder::probe(testmedia::path(name).c_str(), nullptr);
    if (!mv) return nullptr;
    for (int i = 0; i < mv->nb_streams; ++i)
        if (mv->streams[i]->type == type) return mv->streams[i];
    return nullptr;
}

RequireAudioFrame audio_request(Rational begin, Rational end, SampleFormat format, int rate, int channels = 2) {
    RequireAudioFrame req;
    req.range = Range(begin, end);
    req.format = format;
    req.sample_rate = rate;
    req.channels = channels;
    return req;
}

// Checks an s16 stereo span against the ramp from sample `first` on.
::testing::AssertionResult is_ramp(const AFrameCtx& a, long long first) {
    const auto* s = reinterpret_cast<const int16_t*>(a.data[0]);
    for (int i = 0; i < a.nb_samples; ++i) {
        if (s[2 * i] != testmedia::ramp_sample(first + i, 0) || s[2 * i + 1] != testmedia::ramp_sample(first + i, 1))
            return ::testing::AssertionFailure() << "sample " << first + i << " is " << s[2 * i];
    }
    return ::testing::AssertionSuccess();
}

}  // namespace

TEST(DecoderApi, ContiguousAudioRequestsReproduceEverySample) {
    const StreamCtx* st = stream_of("ramp60.flac", STREAM_AUDIO);
    ASSERT_NE(st, nullptr);
    ASSERT_EQ(st->sample_rate, 44100);
    FFDecoder dec;
    ASSERT_TRUE(dec.open(st));
    const uint64_t seeks = decode_counters().seeks;
    long long next = 0;
    for (int i = 0; i < 3000; ++i) {  // 60 s in 20 ms requests: 882 samples each
        const auto a = dec.getAudioFrame(audio_request({i, 50}, {i + 1, 50}, SF_S16, 44100));
        ASSERT_NE(a, nullptr) << i;
        ASSERT_EQ(a->nb_samples, 882) << i;
        ASSERT_EQ(a->pts, i * 20000LL);
        ASSERT_TRUE(is_ramp(*a, next)) << "request " << i;
        next += a->nb_samples;
    }
    EXPECT_EQ(next, 60 * 44100);
    EXPECT_EQ(decode_counters().seeks - seeks, 1u);  // only the first request of the run seeks
    EXPECT_EQ(dec.getAudioFrame(audio_request({3000, 50}, {3001, 50}, SF_S16, 44100)), nullptr);  // past the end
}

TEST(DecoderApi, OtherRatesAddUpExactlyOverALongRun) {
    const StreamCtx* st = stream_of("ramp60.flac", STREAM_AUDIO);
    ASSERT_NE(st, nullptr);
    for (int rate : {48000, 22050}) {
        FFDecoder dec;
        ASSERT_TRUE(dec.open(st));
        long long total = 0;
        for (int i = 0; i < 3000; ++i) {
            const auto a = dec.getAudioFrame(audio_request({i, 50}, {i + 1, 50}, SF_FLT, rate));
            ASSERT_NE(a, nullptr) << rate << " request " << i;
            total += a->nb_samples;
        }
        EXPECT_EQ(total, 60LL * rate) << rate;
    }
    // 30 fps spans at 48 kHz: 1600 samples each.
    FFDecoder dec;
    ASSERT_TRUE(dec.open(st));
    ASSERT_NE(dec.getAudioFrame(audio_request({0, 1}, {1, 2}, SF_FLT, 48000)), nullptr);
    const auto a = dec.getAudioFrame(audio_request({1, 1}, {31, 30}, SF_FLT, 48000));
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->nb_samples, 1600);
}

// Decoders of one stream share decode tasks, and a WAV demuxer cuts its
// packets wherever a seek landed: the frame after a decoder's last one may
// come from a task cut elsewhere. Spans stay exact all the same.
TEST(DecoderApi, DecodersSharingAPcmStreamGetExactSpans) {
    const StreamCtx* st = stream_of("pcm_s16.wav", STREAM_AUDIO);
    ASSERT_NE(st, nullptr);
    FFDecoder decoders[2];
    for (FFDecoder& d : decoders) ASSERT_TRUE(d.open(st));
    std::mt19937 rng(17);
    for (int i = 0; i < 600; ++i) {
        const long long first = rng() % (3 * 48000);
        const long long length = 960 + rng() % 4000;
        const auto a = decoders[rng() % 2].getAudioFrame(
            audio_request({first, 48000}, {first + length, 48000}, SF_S16, 48000));
        ASSERT_NE(a, nullptr) << i;
        ASSERT_EQ(a->nb_samples, length);
        ASSERT_TRUE(is_ramp(*a, first)) << "request " << i << " at sample " << first;
    }
}

// FFmpeg's MP2 decoder delivers s16p while the stream's parameters say fltp:
// the sample queue and a filter follow what the decoder really delivers.
TEST(DecoderApi, AudioWhoseDecodedFormatDiffersFromTheStreamParameters) {
    const StreamCtx* st = stream_of("ts_offset.ts", STREAM_AUDIO);
    ASSERT_NE(st, nullptr);
    for (const char* filter : {"", "volume=0.5"}) {
        FFDecoder2 dec;
        ASSERT_TRUE(dec.open(st));
        if (*filter) {
            ASSERT_TRUE(dec.setFilters(filter));
        }
        long long total = 0;
        for (int i = 0; i < 100; ++i) {  // 2 s in 20 ms spans of 960 samples
            const auto a = dec.getAudioFrame(audio_request({i, 50}, {i + 1, 50}, SF_FLT, 48000));
            ASSERT_NE(a, nullptr) << filter << " request " << i;
            total += a->nb_samples;
        }
        EXPECT_EQ(total, 96000) << filter;
    }
}

TEST(DecoderApi, SpansStartExactlyAtTheirSampleAndLateStartsAreSilent) {
    const StreamCtx* st = stream_of("ramp60.flac", STREAM_AUDIO);
    ASSERT_NE(st, nullptr);
    FFDecoder dec;
    ASSERT_TRUE(dec.open(st));
    std::mt19937 rng(99);
    for (int i = 0; i < 20; ++i) {
        const long long first = rng() % (50 * 44100);
        const auto a = dec.getAudioFrame(audio_request({first, 44100}, {first + 4410, 44100}, SF_S16, 44100));
        ASSERT_NE(a, nullptr);
        ASSERT_EQ(a->nb_samples, 4410);
        EXPECT_TRUE(is_ramp(*a, first)) << "span at sample " << first;
    }
    // A third of a second falls between samples: rounded to the nearest.
    const auto third = dec.getAudioFrame(audio_request({1, 3}, {2, 3}, SF_S16, 44100));
    ASSERT_NE(third, nullptr);
    EXPECT_TRUE(is_ramp(*third, 14700));

    // Before the stream's start: silence up to 0 s, then the first samples.
    testmedia::LogCapture log;
    const auto late = dec.getAudioFrame(audio_request({-1, 4}, {1, 4}, SF_S16, 44100));
    ASSERT_NE(late, nullptr);
    ASSERT_EQ(late->nb_samples, 22050);
    const auto* s = reinterpret_cast<const int16_t*>(late->data[0]);
    for (int i = 0; i < 11025 * 2; ++i) ASSERT_EQ(s[i], 0) << i;
    EXPECT_EQ(s[2 * 11025], testmedia::ramp_sample(0, 0));
    EXPECT_NE(log.take().find("first packet lost, fill silence"), std::string::npos);

    // Far before: the silence is limited to 192000 samples.
    const auto far = dec.getAudioFrame(audio_request({-5, 1}, {-49, 10}, SF_S16, 44100));
    ASSERT_NE(far, nullptr);
    EXPECT_EQ(far->nb_samples, 4410);
    EXPECT_NE(log.take().find("\"nb_drain is too bigger: 220500, limit to 192000\"\n"), std::string::npos);
}

TEST(DecoderApi, PositioningFetchesWithoutAnswerAndStartsANewRun) {
    const StreamCtx* st = stream_of("pcm_s16.wav", STREAM_AUDIO);
    ASSERT_NE(st, nullptr);
    FFDecoder dec;
    ASSERT_TRUE(dec.open(st));
    ASSERT_NE(dec.getAudioFrame(audio_request({0, 1}, {1, 2}, SF_S16, 48000)), nullptr);
    // Positioning decodes up to the time and answers nothing.
    const uint64_t frames = decode_counters().frames_decoded;
    dec.pri_seek({7, 2}, false);
    EXPECT_GT(decode_counters().frames_decoded - frames, 0u);
    // The span right after the positioned time starts a run of its own, served
    // from the frames the positioning left in the cache.
    const uint64_t after_seek = decode_counters().frames_decoded;
    const auto a = dec.getAudioFrame(audio_request({7, 2}, {18, 5}, SF_S16, 48000));
    ASSERT_NE(a, nullptr);
    EXPECT_TRUE(is_ramp(*a, 168000));
    EXPECT_LE(decode_counters().frames_decoded - after_seek, 6u);
    RequireAudioFrame seek_only = audio_request({3, 1}, {3, 1}, SF_S16, 48000);
    seek_only.format = static_cast<SampleFormat>(FMT_SEEK_ONLY);
    EXPECT_EQ(dec.getAudioFrame(seek_only), nullptr);
}

// Times map to the frame on screen in DecoderExactness (every timestamp of
// every video) and through this facade in the thumbnail, lifecycle and
// stress tests; here what the facade adds for still pictures and dividers.
TEST(DecoderApi, StillsAreKeptAndDividersFollowTheMode) {
    const testsupport::VideoUnderTest v = testsupport::load_video("h264_cfr.mp4");
    FFDecoder dec;
    ASSERT_TRUE(dec.open(v.stream));
    EXPECT_EQ(dec.streamContex(), v.stream);

    const StreamCtx* still = stream_of("still.png", STREAM_VIDEO);
    ASSERT_NE(still, nullptr);
    FFDecoder picture;
    ASSERT_TRUE(picture.open(still));
    RequireVideoFrame req;
    req.format = PF_RGBA;
    const auto first = picture.getVideoFrame(req);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(testmedia::picture_index(*first), 5);
    req.time = Rational(7, 1);
    req.format = PF_YUV420P;
    EXPECT_EQ(picture.getVideoFrame(req), first);  // the very same record
    req.divider = 2;
    const auto half = picture.getVideoFrame(req);
    ASSERT_NE(half, nullptr);
    EXPECT_NE(half, first);
    EXPECT_EQ(half->width, 160);

    FFDecoder audio;
    ASSERT_TRUE(audio.open(stream_of("pcm_s16.wav", STREAM_AUDIO)));
    EXPECT_EQ(audio.getImageDivider(MM_AUTO), 1);
    EXPECT_EQ(dec.getImageDivider(MM_FULL), 1);
}

// A raw H.264 stream carries no timestamps at all: its frames are numbered
// from the start at the stream's frame rate, also after rewinding for an
// earlier time (a raw stream cannot seek).
TEST(DecoderApi, RawStreamWithoutTimestampsGivesTheFrameOfEachTime) {
    const StreamCtx* st = stream_of("raw.h264", STREAM_VIDEO);
    ASSERT_NE(st, nullptr);
    ASSERT_EQ(st->frame_rate.num, 25);
    FFDecoder dec;
    ASSERT_TRUE(dec.open(st));
    for (long long ms : {0LL, 1000LL, 2000LL, 500LL, 2900LL, 200LL, 1500LL, 40LL, 39LL}) {
        RequireVideoFrame req;
        req.time = Rational(ms, 1000);
        const auto p = dec.getVideoFrame(req);
        ASSERT_NE(p, nullptr) << ms;
        EXPECT_EQ(testmedia::picture_index(*p), ms * 25 / 1000) << ms << " ms";
        EXPECT_EQ(p->pts, ms * 25 / 1000 * 40000) << ms << " ms";
    }
    RequireMvImage thumb;
    thumb.time = Rational(3, 2);
    const auto picture = getMovieImage(testmedia::path("raw.h264").c_str(), thumb, nullptr);
    ASSERT_NE(picture, nullptr);
    EXPECT_EQ(testmedia::picture_index(*picture), 37);
}

TEST(DecoderApi, ClosedAndNeverOpenedDecodersAnswerNothing) {
    const testsupport::VideoUnderTest v = testsupport::load_video("h264_cfr.mp4");
    FFDecoder dec;
    RequireVideoFrame req;
    req.time = Rational(1, 1);
    EXPECT_EQ(dec.getVideoFrame(req), nullptr);
    EXPECT_EQ(dec.getAudioFrame(audio_request({0, 1}, {1, 1}, SF_FLT, 48000)), nullptr);
    dec.pri_seek({1, 1}, false);
    dec.pri_seek({1, 1}, true);
    EXPECT_FALSE(dec.reopen());
    EXPECT_FALSE(dec.isOpened());
    EXPECT_EQ(dec.streamContex(), nullptr);
    EXPECT_EQ(dec.getImageDivider(MM_AUTO), 1);

    ASSERT_TRUE(dec.open(v.stream));
    EXPECT_TRUE(dec.isOpened());
    dec.close();
    EXPECT_FALSE(dec.isOpened());
    EXPECT_EQ(dec.getVideoFrame(req), nullptr);
    ASSERT_TRUE(dec.reopen());
    EXPECT_NE(dec.getVideoFrame(req), nullptr);

    // A request numbered before a close is stale afterwards.
    FFDecoder stale;
    ASSERT_TRUE(stale.open(v.stream));
    stale.close();
    ASSERT_TRUE(stale.reopen());
    testmedia::LogCapture log;
    EXPECT_EQ(stale.pri_getVideoFrame(req, 0), nullptr);
    EXPECT_NE(log.take().find("> 异步取画面，已过时： 1 (serials=0)"), std::string::npos);
    EXPECT_NE(stale.pri_getVideoFrame(req, 1), nullptr);
    FFDecoder audio;
    ASSERT_TRUE(audio.open(stream_of("pcm_s16.wav", STREAM_AUDIO)));
    audio.close();
    ASSERT_TRUE(audio.reopen());
    EXPECT_EQ(audio.pri_getAudioFrame(audio_request({3, 1}, {4, 1}, SF_FLT, 48000), 0), nullptr);
    EXPECT_NE(log.take().find("> 异步取音频，已过时： 3 (serials=0)"), std::string::npos);
}
