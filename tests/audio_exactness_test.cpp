// Audio that is the same however it is asked for: at another rate than the
// stream's, new runs and contiguous runs match a conversion of the whole
// stream; a speed change's first run seeks like any other; irregular AAC
// timestamps place the same samples at a position whichever way it is reached.

#include <cmath>
#include <random>

#include "ffdecoder2.h"
#include "support.h"

using namespace ff;

namespace {

// Stereo float samples, interleaved.
using Samples = std::vector<float>;

// The whole audio stream of `file` decoded plainly and converted in one go by
// a fresh resampler to `rate` (stereo float), from its first sample on: the
// tool's plain loop, which sets its resampler up apart from the library.
Samples whole_stream(const char* file, int rate) {
    cli::PlainStream d;
    Samples out;
    if (d.open(testmedia::path(file).c_str(), -1, AVMEDIA_TYPE_AUDIO)) cli::plain_resample(d, rate, 2, -1, &out);
    return out;
}

// What `dec` gives for [begin, end) in requests of `step` samples at `rate`
// (begin and end in samples of that rate); a missing answer adds nothing.
Samples take(FFDecoder& dec, long long begin, long long end, long long step, int rate) {
    Samples into;
    for (long long at = begin; at < end; at += step) {
        const long long to = std::min(at + step, end);
        const auto a = dec.getAudioFrame(testsupport::audio_request({at, rate}, {to, rate}, SF_FLT, rate));
        if (a) into.insert(into.end(), reinterpret_cast<const float*>(a->data[0]),
                           reinterpret_cast<const float*>(a->data[0]) + 2 * a->nb_samples);
    }
    return into;
}

// Whether `got` is `count` samples that match `ref` from output sample `first`
// on, after `settle` samples.
::testing::AssertionResult matches(const Samples& got, long long count, const Samples& ref, long long first,
                                   long long settle, double tolerance) {
    if (got.size() != static_cast<size_t>(2 * count))
        return ::testing::AssertionFailure() << got.size() / 2 << " samples instead of " << count;
    for (size_t i = static_cast<size_t>(2 * settle); i < got.size(); ++i) {
        const size_t r = static_cast<size_t>(2 * first) + i;
        if (r >= ref.size()) return ::testing::AssertionFailure() << "sample " << i / 2 << " beyond the stream";
        if (std::fabs(got[i] - ref[r]) > tolerance)
            return ::testing::AssertionFailure() << "sample " << i / 2 << " (output " << first + i / 2 << ") is "
                                                 << got[i] << ", the whole stream's " << ref[r];
    }
    return ::testing::AssertionSuccess();
}

}  // namespace

TEST(AudioExactness, EveryRateMatchesTheWholeStreamsConversion) {
    // The first 4 s of each source, whatever its own rate.
    const struct { const char* file; int in_rate; } sources[] = {
        {"ramp60.flac", 44100}, {"pcm_s16.wav", 48000}, {"ramp96k.flac", 96000}, {"ramp11k.flac", 11025}};
    std::mt19937 rng(2024);
    for (const auto& source : sources) {
        const StreamCtx* st = testsupport::stream_of(source.file, STREAM_AUDIO);
        ASSERT_TRUE(st && st->sample_rate == source.in_rate) << source.file;
        for (int rate : {48000, 44100}) {
            SCOPED_TRACE(std::string(source.file) + " at " + std::to_string(rate));
            const Samples ref = whole_stream(source.file, rate);
            // A reference shorter than a request shows in `matches` as samples beyond the stream.
            const long long length = 4LL * rate;
            FFDecoder dec;
            ASSERT_TRUE(dec.open(st));
            // New runs at random begins, one request each.
            for (int i = 0; i < 6; ++i) {
                const long long first = rng() % (length - rate / 2);
                const Samples got = take(dec, first, first + rate / 10, rate / 10, rate);
                EXPECT_TRUE(matches(got, rate / 10, ref, first, 64, 1e-3)) << "run at " << first;
            }
            // A contiguous run of 20 ms requests over a second, then to the end:
            // totals exact, no drift.
            const long long first = rng() % (length / 2);
            const Samples got = take(dec, first, first + rate, rate / 50, rate);
            EXPECT_TRUE(matches(got, rate, ref, first, 64, 1e-3)) << "contiguous run at " << first;
            // From the very start: no settling at all, as the whole stream's.
            EXPECT_TRUE(matches(take(dec, 0, rate / 5, rate / 50, rate), rate / 5, ref, 0, 0, 1e-3));
        }
    }
}

TEST(AudioExactness, ASpeedChangesFirstRunSeeksLikeAnyOther) {
    const StreamCtx* st = testsupport::stream_of("ramp60.flac", STREAM_AUDIO);
    for (double speed : {2.0, 0.5}) {
        SCOPED_TRACE(speed);
        // Right after open; after a run elsewhere and back; after a run
        // elsewhere, close and reopen (the run state is reset, not continued);
        // after a change of speed on a decoder that played from 0 at speed 1.
        Samples runs[4];
        for (int way = 0; way < 4; ++way) {
            FFDecoder2 dec;
            ASSERT_TRUE(dec.open(st));
            if (way == 3) take(dec, 0, 4410, 441, 44100);
            ASSERT_TRUE(dec.setSpeed(speed));
            if (way == 1 || way == 2) take(dec, 44100 * 5, 44100 * 6, 882, 44100);
            if (way == 2) {
                dec.close();
                ASSERT_TRUE(dec.reopen() && dec.setSpeed(speed));
            }
            runs[way] = take(dec, 0, 44100, 882, 44100);
        }
        ASSERT_GT(runs[0].size(), 44100u);
        for (int way = 1; way < 4; ++way) EXPECT_EQ(runs[way], runs[0]) << way;
        // The first samples are the stream's first: the ramp starts at -1.0.
        EXPECT_NEAR(runs[0][0], -1.0, 0.01);
    }
}

TEST(AudioExactness, IrregularTimestampsPlaceTheSameSamplesEveryWay) {
    // FFmpeg's AAC decoder keeps a noise generator across seeks, so samples
    // decoded on different paths differ by a little noise; a sample's shift
    // on the 440 Hz tone shows as several times this.
    constexpr double kLossyNoise = 2e-3;
    // File, run starts, and a gap of silence in it ([0, 0): none).
    const struct { const char* file; std::vector<long long> run_starts; long long gap_begin, gap_end; } cases[] = {
        // Across the stretched first packet (silence from 1024 to 3528).
        {"aac_first_long.mp4", {0, 500, 2000, 3000, 5000, 43000}, 0, 0},
        // Across the gap (44032 to 48442). This file starts with the
        // encoder's priming packet, which a seek to the start passes over, so
        // a new run in its first frames decodes without that frame's overlap:
        // those positions are left out until a run there rewinds instead.
        {"aac_gap.mp4", {5000, 43000, 45000, 47000, 50000}, 44032, 48442},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        const StreamCtx* st = testsupport::stream_of(c.file, STREAM_AUDIO);
        ASSERT_NE(st, nullptr);
        const int rate = st->sample_rate;
        const long long length = rate * 3 / 2;
        FFDecoder a, b;
        ASSERT_TRUE(a.open(st) && b.open(st));
        const Samples contiguous = take(a, 0, length, rate / 50, rate), whole = take(b, 0, length, length, rate);
        EXPECT_TRUE(matches(contiguous, length, whole, 0, 0, kLossyNoise));
        for (long long first : c.run_starts) {
            const Samples run = take(b, first, first + 4096, 4096, rate);
            EXPECT_TRUE(matches(run, 4096, whole, first, 0, kLossyNoise)) << "run at " << first;
        }
        if (c.gap_end == 0) continue;
        // The gap is silent; the tone's crests just before it are not.
        for (long long i = c.gap_begin; i < c.gap_end; ++i) ASSERT_EQ(whole[2 * i], 0.0f) << "sample " << i;
        EXPECT_GT(*std::max_element(whole.begin() + 2 * (c.gap_begin - 1000), whole.begin() + 2 * c.gap_begin), 0.05f);
    }
}
