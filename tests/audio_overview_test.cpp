// The waveform overview against a plain FFmpeg decode of the same file: every
// bucket's minimum, maximum and RMS per channel, the buckets cut at rounded
// sample positions and tiling the stream exactly, cancel, and the cache.

#include <cmath>

#include "audio_overview.h"
#include "support.h"

using namespace ff;

namespace {

// Every sample of the file's audio stream, per channel, in full scale,
// converted here independently of the library.
std::vector<std::vector<double>> plain_samples(const std::string& file) {
    std::vector<std::vector<double>> channels;
    cli::PlainStream plain;
    const UniqueAVFrame f = make_frame();
    if (!plain.open(file.c_str(), -1, AVMEDIA_TYPE_AUDIO)) return channels;
    while (plain.next(f.get()) >= 0) {
        const int count = f->ch_layout.nb_channels;
        const auto format = static_cast<AVSampleFormat>(f->format), packed = av_get_packed_sample_fmt(format);
        if (packed != AV_SAMPLE_FMT_S16 && packed != AV_SAMPLE_FMT_S32 && packed != AV_SAMPLE_FMT_FLT) {
            ADD_FAILURE() << "no reference for format " << f->format;
            break;
        }
        const bool planar = av_sample_fmt_is_planar(format);
        channels.resize(static_cast<size_t>(count));
        for (int c = 0; c < count; ++c) {
            const uint8_t* plane = f->extended_data[planar ? c : 0];
            for (int i = 0; i < f->nb_samples; ++i) {
                const int at = planar ? i : i * count + c;
                channels[c].push_back(packed == AV_SAMPLE_FMT_S16   ? reinterpret_cast<const int16_t*>(plane)[at] / 32768.0
                                      : packed == AV_SAMPLE_FMT_S32 ? reinterpret_cast<const int32_t*>(plane)[at] / 2147483648.0
                                                                    : reinterpret_cast<const float*>(plane)[at]);
            }
        }
    }
    return channels;
}

}  // namespace

TEST(AudioOverview, EveryBucketIsThatOfThePlainDecode) {
    const struct { const char* file; Rational bucket; } cases[] = {
        {"pcm_s16.wav", Rational(1, 100)},     // 480 samples a bucket
        {"ramp11k.flac", Rational(7, 1000)},   // 77.175: boundaries rounded, never drifting
        {"flac_6ch.flac", Rational(1, 30)},
        {"tone_f32.wav", Rational(1, 100)},    // 441 samples of float
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        const std::string file = testmedia::path(c.file);
        const auto reference = plain_samples(file);
        const auto overview = getAudioOverview(file.c_str(), -1, c.bucket);
        ASSERT_TRUE(!reference.empty() && overview);
        const long long total = static_cast<long long>(reference[0].size());
        ASSERT_TRUE(overview->channels == static_cast<int>(reference.size()) && overview->samples == total);
        const double per_bucket = static_cast<double>(c.bucket.num) * overview->sampleRate / c.bucket.den;
        ASSERT_EQ(overview->buckets, static_cast<int>(std::ceil(total / per_bucket - 1e-9)));
        for (int k = 0; k < overview->buckets; ++k) {
            const long long begin = std::llround(k * per_bucket);
            const long long end = std::min<long long>(std::llround((k + 1) * per_bucket), total);
            ASSERT_EQ(overview->bucketStart(k), begin);
            for (int ch = 0; ch < overview->channels; ++ch) {
                double lo = 2, hi = -2, squares = 0;
                for (long long i = begin; i < end; ++i) {
                    const double v = reference[ch][i];
                    lo = std::min(lo, v), hi = std::max(hi, v), squares += v * v;
                }
                const size_t at = static_cast<size_t>(k * overview->channels + ch);
                ASSERT_FLOAT_EQ(overview->min[at], static_cast<float>(lo)) << k << "/" << ch;
                ASSERT_FLOAT_EQ(overview->max[at], static_cast<float>(hi)) << k << "/" << ch;
                ASSERT_NEAR(overview->rms[at], std::sqrt(squares / (end - begin)), 1e-6) << k << "/" << ch;
            }
        }
    }
}

TEST(AudioOverview, CancelsReportsProgressAndAnswersAgainFromItsCache) {
    const std::string file = testmedia::path("ramp60.flac");
    std::atomic<bool> cancel{false};
    double last = 0;
    int reports = 0;
    EXPECT_EQ(getAudioOverview(file.c_str(), -1, Rational(1, 100), &cancel, [&](double f) {
                  cancel = f >= 0.2;
                  last = f, ++reports;
              }),
              nullptr);
    EXPECT_TRUE(reports > 0 && last < 0.3);

    cancel = false;
    reports = 0;
    const auto first = getAudioOverview(file.c_str(), -1, Rational(1, 100), &cancel, [&](double f) { last = f, ++reports; });
    ASSERT_NE(first, nullptr);
    EXPECT_TRUE(last == 1.0 && reports >= 50 && reports <= 101);
    const testsupport::Counts before = testsupport::Counts::now();
    EXPECT_EQ(getAudioOverview(file.c_str(), -1, Rational(10, 1000)), first);  // the same bucket, reduced
    EXPECT_EQ(before.since().frames, 0u);

    // Nothing to measure: no file, no audio, no positive bucket.
    const std::string video = testmedia::path("h264_23976.mp4");
    const struct { const char* file; int stream; Rational bucket; } nothing[] = {
        {nullptr, -1, Rational(1, 100)}, {video.c_str(), -1, Rational(1, 100)}, {file.c_str(), -1, Rational(0, 1)},
        {file.c_str(), 5, Rational(1, 100)}};
    for (const auto& n : nothing) EXPECT_EQ(getAudioOverview(n.file, n.stream, n.bucket), nullptr) << n.stream;
}
