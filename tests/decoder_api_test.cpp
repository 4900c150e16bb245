// The host's decoder: pictures at any time, audio in exactly the requested
// spans (contiguous runs without drift, late starts as silence), positioning,
// request numbering and closed decoders. The never-opened decoder is the
// lifecycle test's.

#include <memory>
#include <random>

#include "ff_tools.h"
#include "ffdecoder2.h"
#include "support.h"

using namespace ff;
using testsupport::audio_request;
using testsupport::contains;
using testsupport::Counts;
using testsupport::is_ramp;
using testsupport::stdout_of;
using testsupport::stream_of;

// Runs of 20 ms requests: every answer is exactly 20 ms at its place, so the
// totals add up exactly; lossless spans carry the ramp without drift, and a
// contiguous run seeks only for its first request.
TEST(DecoderApi, ContiguousAudioRunsAddUpExactly) {
    // File, filter (null: the plain decoder), rate, format, requests, whether
    // the samples carry the ramp.
    struct Row { const char* file; const char* filter; int rate; SampleFormat format; int requests; bool ramp; };
    const Row rows[] = {
        {"ramp60.flac", nullptr, 44100, SF_S16, 3000, true},  // all of its 60 s
        {"ramp60.flac", nullptr, 48000, SF_FLT, 3000, false},
        {"ramp60.flac", nullptr, 22050, SF_FLT, 3000, false},
        // FFmpeg's MP2 decoder delivers s16p while the stream's parameters say
        // fltp: the sample queue and a filter follow what it really delivers.
        {"ts_offset.ts", "", 48000, SF_FLT, 100, false},
        {"ts_offset.ts", "volume=0.5", 48000, SF_FLT, 100, false},
        {"flac_6ch.flac", "volume=0.5", 48000, SF_FLT, 150, false},  // a 5.1 layout through a filter
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(std::string(r.file) + " at " + std::to_string(r.rate) + (r.filter ? " filtered" : ""));
        std::unique_ptr<FFDecoder> dec(r.filter ? new FFDecoder2 : new FFDecoder);
        ASSERT_TRUE(dec->open(stream_of(r.file, STREAM_AUDIO)));
        ASSERT_TRUE(!r.filter || !*r.filter || static_cast<FFDecoder2&>(*dec).setFilters(r.filter));
        const Counts before = Counts::now();
        for (int i = 0; i < r.requests; ++i) {
            const auto a = dec->getAudioFrame(audio_request({i, 50}, {i + 1, 50}, r.format, r.rate));
            ASSERT_TRUE(a && a->nb_samples == r.rate / 50 && a->pts == i * 20000LL) << i;
            if (r.ramp) { ASSERT_TRUE(is_ramp(*a, i * (r.rate / 50LL))) << "request " << i; }
        }
        // Only the first request of the run seeks; past the end there is nothing.
        EXPECT_TRUE(!r.ramp || (before.since().seeks == 1u &&
                                !dec->getAudioFrame(audio_request({3000, 50}, {3001, 50}, SF_S16, 44100))));
    }
}

// Decoders of one stream share decode tasks, and a WAV demuxer cuts its
// packets wherever a seek landed: the frame after a decoder's last one may
// come from a task cut elsewhere. Spans stay exact all the same.
TEST(DecoderApi, SpansStartExactlyAtTheirSampleAndLateStartsAreSilent) {
    std::mt19937 rng(17);
    // File, rate, random spans, the first sample they may start at.
    const struct { const char* file; int rate; int spans; long long range; } sources[] = {
        {"pcm_s16.wav", 48000, 600, 3 * 48000}, {"ramp60.flac", 44100, 40, 50 * 44100}};
    FFDecoder decoders[2];
    for (const auto& source : sources) {
        SCOPED_TRACE(source.file);
        for (FFDecoder& d : decoders) ASSERT_TRUE(d.open(stream_of(source.file, STREAM_AUDIO)));
        for (int i = 0; i < source.spans; ++i) {
            const long long first = rng() % source.range, length = 960 + rng() % 4000;
            const auto a = decoders[rng() % 2].getAudioFrame(
                audio_request({first, source.rate}, {first + length, source.rate}, SF_S16, source.rate));
            ASSERT_TRUE(a && a->nb_samples == length) << i;
            ASSERT_TRUE(is_ramp(*a, first)) << "request " << i << " at sample " << first;
        }
    }
    FFDecoder& dec = decoders[0];
    // A third of a second falls between samples: rounded to the nearest.
    const auto third = dec.getAudioFrame(audio_request({1, 3}, {2, 3}, SF_S16, 44100));
    EXPECT_TRUE(third && is_ramp(*third, 14700));

    // Before the stream's start: silence up to 0 s, then the first samples;
    // far before, the silence is limited to 192000 samples.
    std::shared_ptr<AFrameCtx> late, far;
    EXPECT_TRUE(contains(stdout_of([&] { late = dec.getAudioFrame(audio_request({-1, 4}, {1, 4}, SF_S16, 44100)); }),
                         "first packet lost, fill silence"));
    EXPECT_TRUE(contains(stdout_of([&] { far = dec.getAudioFrame(audio_request({-5, 1}, {-49, 10}, SF_S16, 44100)); }),
                         "\"nb_drain is too bigger: 220500, limit to 192000\"\n"));
    EXPECT_EQ(far ? far->nb_samples : -1, 4410);
    ASSERT_TRUE(late && late->nb_samples == 22050);
    const auto* s = reinterpret_cast<const int16_t*>(late->data[0]);
    EXPECT_TRUE(std::all_of(s, s + 11025 * 2, [](int16_t v) { return v == 0; }));
    EXPECT_TRUE(is_ramp(s + 2 * 11025, 2, 11025, 0));
}

// Times map to the frame on screen in DecoderExactness (every timestamp of
// every video) and through this facade in the thumbnail, lifecycle and
// stress tests; here what the facade adds for still pictures, dividers and
// a raw H.264 stream, whose frames carry no timestamps at all: they are
// numbered from the start at the stream's frame rate, also after rewinding
// for an earlier time (a raw stream cannot seek).
TEST(DecoderApi, StillsRawStreamsAndDividers) {
    FFDecoder picture;
    ASSERT_TRUE(picture.open(stream_of("still.png", STREAM_VIDEO)));
    const auto first = picture.getVideoFrame(RequireVideoFrame{});
    ASSERT_EQ(testsupport::index_of(first), 5);
    // Another time and format at full size: the very same record.
    EXPECT_EQ(picture.getVideoFrame(RequireVideoFrame{Rational(7, 1), PF_YUV420P, 1, nullptr}), first);
    const auto half = picture.getVideoFrame(RequireVideoFrame{Rational(7, 1), PF_YUV420P, 2, nullptr});
    EXPECT_TRUE(half && half != first && half->width == 160);

    // Audio has no pictures to divide; full memory never divides a video.
    // (Each mode's divider by picture size is the mempool test's table.)
    FFDecoder audio, raw;
    ASSERT_TRUE(audio.open(stream_of("pcm_s16.wav", STREAM_AUDIO)) && raw.open(stream_of("raw.h264", STREAM_VIDEO)));
    EXPECT_TRUE(audio.getImageDivider(MM_AUTO) == 1 && raw.getImageDivider(MM_FULL) == 1);
    // 25 frames a second: 40 ms, or 40000 us, a frame.
    for (long long ms : {0LL, 1000LL, 2000LL, 500LL, 2900LL, 200LL, 1500LL, 40LL, 39LL}) {
        const auto p = raw.getVideoFrame(RequireVideoFrame{Rational(ms, 1000), PF_RGBA, 1, nullptr});
        ASSERT_EQ(testsupport::index_of(p), ms * 25 / 1000) << ms << " ms";
        EXPECT_EQ(p->pts, ms * 25 / 1000 * 40000) << ms << " ms";
    }
    const RequireMvImage thumb{0.5, Rational(3, 2)};
    EXPECT_EQ(testsupport::index_of(getMovieImage(testmedia::path("raw.h264").c_str(), thumb, nullptr)), 37);
}

// Closed decoders answer nothing; reopened, they answer requests of the new
// number but not one numbered before the close; positioning answers nothing
// (though it fetches all the same).
TEST(DecoderApi, ClosedStaleAndPositioningRequestsAnswerNothing) {
    FFDecoder dec, audio;
    const RequireVideoFrame req{Rational(1, 1)};
    ASSERT_TRUE(dec.open(stream_of("h264_cfr.mp4", STREAM_VIDEO)) && dec.isOpened());
    ASSERT_TRUE(audio.open(stream_of("pcm_s16.wav", STREAM_AUDIO)));
    for (FFDecoder* d : {&dec, &audio}) d->close();
    EXPECT_FALSE(dec.isOpened() || dec.getVideoFrame(req));
    ASSERT_TRUE(dec.reopen() && audio.reopen());
    EXPECT_NE(dec.getVideoFrame(req), nullptr);  // numbered 1, as the close left the count
    std::shared_ptr<VFrameCtx> picture;
    std::shared_ptr<AFrameCtx> samples;
    EXPECT_TRUE(contains(stdout_of([&] { picture = dec.pri_getVideoFrame(req, 0); }), "> 异步取画面，已过时： 1 (serials=0)"));
    const RequireAudioFrame span = audio_request({3, 1}, {4, 1}, SF_FLT, 48000);
    EXPECT_TRUE(contains(stdout_of([&] { samples = audio.pri_getAudioFrame(span, 0); }), "> 异步取音频，已过时： 3 (serials=0)"));
    EXPECT_TRUE(!picture && !samples);

    ASSERT_NE(audio.getAudioFrame(audio_request({0, 1}, {1, 2}, SF_S16, 48000)), nullptr);
    // Positioning decodes up to the time and answers nothing.
    const Counts before = Counts::now();
    audio.pri_seek({7, 2}, false);
    EXPECT_GT(before.since().frames, 0u);
    // The span right after the positioned time starts a run of its own, served
    // from the frames the positioning left in the cache.
    const Counts after_seek = Counts::now();
    const auto a = audio.getAudioFrame(audio_request({7, 2}, {18, 5}, SF_S16, 48000));
    EXPECT_TRUE(a && is_ramp(*a, 168000));
    EXPECT_LE(after_seek.since().frames, 6u);
    // Well past the end (the cache keeps the stream's last frames): nothing.
    EXPECT_EQ(audio.getAudioFrame(audio_request({10, 1}, {11, 1}, SF_S16, 48000)), nullptr);
    const auto seek_only = static_cast<SampleFormat>(FMT_SEEK_ONLY);
    EXPECT_EQ(audio.getAudioFrame(audio_request({3, 1}, {3, 1}, seek_only, 48000)), nullptr);
}
