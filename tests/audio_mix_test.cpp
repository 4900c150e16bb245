// Sample-level mixing and peak metering in every layout, the mixer's cycles
// (sample clock, FIFO carry-over, buffer reuse, misuse), and a long mix of
// three decoded sources checked against a sum computed here.
#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstring>
#include <deque>
#include <random>
#include <vector>

extern "C" {
#include <libavutil/samplefmt.h>
}

#include "audio_mixer.h"
#include "audio_mixer_private.h"
#include "ff_tools.h"
#include "ffdecoder.h"
#include "frame_helpers.h"
#include "media.h"

using namespace ff;

namespace {

template <typename T>
std::vector<unsigned char> bytes_of(std::initializer_list<T> values) {
    std::vector<unsigned char> out(values.size() * sizeof(T));
    std::memcpy(out.data(), values.begin(), out.size());
    return out;
}

template <typename T>
T sample_at(const std::vector<unsigned char>& bytes, size_t i) {
    T v;
    std::memcpy(&v, bytes.data() + i * sizeof(T), sizeof v);
    return v;
}

// Big-endian bytes of a 16- or 32-bit pattern, written out by hand.
std::vector<unsigned char> be16(std::initializer_list<int> values) {
    std::vector<unsigned char> out;
    for (int v : values) {
        const auto u = static_cast<uint16_t>(v);
        out.push_back(static_cast<unsigned char>(u >> 8));
        out.push_back(static_cast<unsigned char>(u & 0xFF));
    }
    return out;
}
int be16_at(const std::vector<unsigned char>& b, size_t i) { return (b[2 * i] << 8) | b[2 * i + 1]; }

std::vector<unsigned char> be32(std::initializer_list<uint32_t> values) {
    std::vector<unsigned char> out;
    for (uint32_t u : values)
        for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<unsigned char>(u >> shift));
    return out;
}
uint32_t be32_at(const std::vector<unsigned char>& b, size_t i) {
    return (uint32_t{b[4 * i]} << 24) | (uint32_t{b[4 * i + 1]} << 16) | (uint32_t{b[4 * i + 2]} << 8) | b[4 * i + 3];
}
uint32_t float_bits(float f) {
    uint32_t u;
    std::memcpy(&u, &f, sizeof u);
    return u;
}
float bits_float(uint32_t u) {
    float f;
    std::memcpy(&f, &u, sizeof f);
    return f;
}

void mix(std::vector<unsigned char>& dst, const std::vector<unsigned char>& src, SDL_AudioFormat f, int volume,
         unsigned len = UINT_MAX) {
    SDL_MixAudioFormat(dst.data(), src.data(), f, len == UINT_MAX ? static_cast<unsigned>(src.size()) : len, volume);
}

template <typename F>
std::string stderr_of(F&& action) {
    testing::internal::CaptureStderr();
    action();
    return testing::internal::GetCapturedStderr();
}

std::shared_ptr<AFrameCtx> s16_frame(int channels, const std::vector<int16_t>& interleaved) {
    RequireAudioFrame req;
    req.format = SF_S16;
    req.channels = channels;
    req.sample_rate = 44100;
    auto f = create_audioframe_ctx(req, static_cast<int>(interleaved.size()) / channels);
    std::memcpy(f->data[0], interleaved.data(), interleaved.size() * sizeof(int16_t));
    return f;
}

// Stereo frame whose sample i carries base + i on both channels.
std::shared_ptr<AFrameCtx> counting_frame(int samples, int base) {
    std::vector<int16_t> v(static_cast<size_t>(samples) * 2);
    for (int i = 0; i < samples; ++i) v[2 * i] = v[2 * i + 1] = static_cast<int16_t>(base + i);
    return s16_frame(2, v);
}

const int16_t* s16(const PcmBuffer& b) { return reinterpret_cast<const int16_t*>(b.data); }

Range span(long long b_num, long long e_num, long long den) {
    return Range(Rational(b_num, den), Rational(e_num, den));
}

}  // namespace

// ---------------------------------------------------------------- mixing

TEST(AudioMixSamples, FormatCodesMapAndUnknownOnesAreLogged) {
    EXPECT_EQ(get_sdl_audio_fmt(SF_U8), AF_U8);
    EXPECT_EQ(get_sdl_audio_fmt(SF_S16), AF_S16LSB);
    EXPECT_EQ(get_sdl_audio_fmt(SF_S32), AF_S32LSB);
    EXPECT_EQ(get_sdl_audio_fmt(SF_FLT), AF_F32LSB);
    testmedia::LogCapture log;
    EXPECT_EQ(get_sdl_audio_fmt(SF_NONE), AF_U8);
    EXPECT_EQ(get_sdl_audio_fmt(static_cast<SampleFormat>(77)), AF_U8);
    // The literal's own text, its backslash-n included, then the line end.
    EXPECT_EQ(log.take(), "\"unknow audio format: 0\\n\"\n\"unknow audio format: 77\\n\"\n");
}

TEST(AudioMixSamples, Signed16ClipsTruncatesTowardZeroAndKeeps16Bits) {
    auto dst = bytes_of<int16_t>({10000, -10000, 0, 0, 0, 123});
    const auto src = bytes_of<int16_t>({30000, -30000, 1001, -1001, 127, 0});
    mix(dst, src, AF_S16LSB, 128);
    EXPECT_EQ(sample_at<int16_t>(dst, 0), 32767);
    EXPECT_EQ(sample_at<int16_t>(dst, 1), -32768);

    dst = bytes_of<int16_t>({0, 0, 0, 0});
    mix(dst, bytes_of<int16_t>({1001, -1001, 1, -1}), AF_S16LSB, 64);
    EXPECT_EQ(sample_at<int16_t>(dst, 0), 500);
    EXPECT_EQ(sample_at<int16_t>(dst, 1), -500);  // not -501: toward zero, not down
    EXPECT_EQ(sample_at<int16_t>(dst, 2), 0);
    EXPECT_EQ(sample_at<int16_t>(dst, 3), 0);

    // Above unity the scaled source is cut to 16 bits before the sum.
    dst = bytes_of<int16_t>({0, 100});
    mix(dst, bytes_of<int16_t>({20000, 20000}), AF_S16LSB, 256);
    EXPECT_EQ(sample_at<int16_t>(dst, 0), -25536);
    EXPECT_EQ(sample_at<int16_t>(dst, 1), -25436);
    // A volume too large for a 32-bit product still follows the same rule.
    dst = bytes_of<int16_t>({0});
    mix(dst, bytes_of<int16_t>({3}), AF_S16LSB, 1 << 20);
    EXPECT_EQ(sample_at<int16_t>(dst, 0), static_cast<int16_t>(3 * (1 << 13)));
}

TEST(AudioMixSamples, BigEndianLayoutsReadAndWriteTheirByteOrder) {
    auto dst = be16({10000, 0x0102});
    mix(dst, be16({30000, 0x0001}), AF_S16MSB, 128);
    EXPECT_EQ(be16_at(dst, 0), 32767);
    EXPECT_EQ(be16_at(dst, 1), 0x0103);  // read as little-endian this would be 0x0202 + ...

    auto u = be16({60000, 0x0100});
    mix(u, be16({10000, 0x0001}), AF_U16MSB, 128);
    EXPECT_EQ(be16_at(u, 0), 65535);
    EXPECT_EQ(be16_at(u, 1), 0x0101);

    auto s32 = be32({static_cast<uint32_t>(2000000000), 0x00000100});
    mix(s32, be32({static_cast<uint32_t>(2000000000), 0x00000001}), AF_S32MSB, 128);
    EXPECT_EQ(be32_at(s32, 0), static_cast<uint32_t>(INT32_MAX));
    EXPECT_EQ(be32_at(s32, 1), 0x00000101u);

    auto f = be32({float_bits(0.75f)});
    mix(f, be32({float_bits(0.5f)}), AF_F32MSB, 128);
    EXPECT_EQ(bits_float(be32_at(f, 0)), 1.25f);
}

TEST(AudioMixSamples, EightBitLayoutsUseTheTableAndClampPerType) {
    EXPECT_EQ(mix8[0], 0);
    EXPECT_EQ(mix8[128], 0);
    EXPECT_EQ(mix8[129], 1);
    EXPECT_EQ(mix8[381], 253);
    EXPECT_EQ(mix8[382], 254);
    EXPECT_EQ(mix8[511], 254);

    auto u = bytes_of<uint8_t>({200, 128, 128, 10});
    mix(u, bytes_of<uint8_t>({200, 128, 0, 10}), AF_U8, 128);
    EXPECT_EQ(u[0], 254);  // mix8[400]: the ceiling is 254, not 255
    EXPECT_EQ(u[1], 128);  // silence plus silence
    EXPECT_EQ(u[2], 0);
    EXPECT_EQ(u[3], 0);    // 10 + 10 - 128 is below the floor

    u = bytes_of<uint8_t>({128, 128});
    mix(u, bytes_of<uint8_t>({0, 255}), AF_U8, 64);
    EXPECT_EQ(u[0], 64);   // (0 - 128) * 64 / 128 + 128 = 64
    EXPECT_EQ(u[1], 191);  // (127 * 64 / 128 = 63) + 128

    auto s = bytes_of<int8_t>({100, -100, 0});
    mix(s, bytes_of<int8_t>({100, -100, -3}), AF_S8, 128);
    EXPECT_EQ(static_cast<int8_t>(s[0]), 127);
    EXPECT_EQ(static_cast<int8_t>(s[1]), -128);
    s = bytes_of<int8_t>({0});
    mix(s, bytes_of<int8_t>({-3}), AF_S8, 64);
    EXPECT_EQ(static_cast<int8_t>(s[0]), -1);
}

TEST(AudioMixSamples, Unsigned16And32BitAndFloatFollowTheirRows) {
    auto u = bytes_of<uint16_t>({60000, 1000, 0});
    mix(u, bytes_of<uint16_t>({10000, 3, 40000}), AF_U16LSB, 128);
    EXPECT_EQ(sample_at<uint16_t>(u, 0), 65535);
    EXPECT_EQ(sample_at<uint16_t>(u, 1), 1003);
    // The scaled value keeps its low 16 bits: 80000 becomes 14464, not 65535.
    u = bytes_of<uint16_t>({0, 1000});
    mix(u, bytes_of<uint16_t>({40000, 3}), AF_U16LSB, 256);
    EXPECT_EQ(sample_at<uint16_t>(u, 0), 14464);
    EXPECT_EQ(sample_at<uint16_t>(u, 1), 1006);

    auto s = bytes_of<int32_t>({2000000000, -2000000000, -2000000000, 0});
    mix(s, bytes_of<int32_t>({2000000000, -2000000000, 2000000000, -3}), AF_S32LSB, 128);
    EXPECT_EQ(sample_at<int32_t>(s, 0), INT32_MAX);
    EXPECT_EQ(sample_at<int32_t>(s, 1), INT32_MIN);
    EXPECT_EQ(sample_at<int32_t>(s, 2), 0);
    EXPECT_EQ(sample_at<int32_t>(s, 3), -3);
    // 64-bit arithmetic: 2e9 * 2 is not cut to 32 bits before the sum.
    s = bytes_of<int32_t>({-2000000000, 0});
    mix(s, bytes_of<int32_t>({2000000000, -3}), AF_S32LSB, 256);
    EXPECT_EQ(sample_at<int32_t>(s, 0), 2000000000);
    EXPECT_EQ(sample_at<int32_t>(s, 1), -6);
    s = bytes_of<int32_t>({0});
    mix(s, bytes_of<int32_t>({-3}), AF_S32LSB, 64);
    EXPECT_EQ(sample_at<int32_t>(s, 0), -1);

    auto f = bytes_of<float>({0.75f, FLT_MAX, -FLT_MAX, 0.0f});
    mix(f, bytes_of<float>({0.5f, FLT_MAX, -FLT_MAX, 0.5f}), AF_F32LSB, 128);
    EXPECT_EQ(sample_at<float>(f, 0), 1.25f);  // no clamp at 1.0
    EXPECT_EQ(sample_at<float>(f, 1), FLT_MAX);
    EXPECT_EQ(sample_at<float>(f, 2), -FLT_MAX);
    EXPECT_EQ(sample_at<float>(f, 3), 0.5f);
    f = bytes_of<float>({0.0f});
    mix(f, bytes_of<float>({0.5f}), AF_F32LSB, 64);
    EXPECT_EQ(sample_at<float>(f, 0), 0.25f);
}

TEST(AudioMixSamples, PartialSamplesVolumeZeroAndBadInputTouchNothing) {
    // 3 bytes of 16-bit audio: one sample; the odd byte stays.
    auto d16 = bytes_of<uint8_t>({0x10, 0x00, 0x55});
    mix(d16, bytes_of<uint8_t>({0x01, 0x00, 0x77}), AF_S16LSB, 128, 3);
    EXPECT_EQ(d16, bytes_of<uint8_t>({0x11, 0x00, 0x55}));
    // 7 bytes of 32-bit audio: one sample.
    auto d32 = bytes_of<uint8_t>({1, 0, 0, 0, 9, 9, 9});
    mix(d32, bytes_of<uint8_t>({1, 0, 0, 0, 1, 1, 1}), AF_S32LSB, 128, 7);
    EXPECT_EQ(d32, bytes_of<uint8_t>({2, 0, 0, 0, 9, 9, 9}));
    auto d1 = bytes_of<uint8_t>({9});
    mix(d1, bytes_of<uint8_t>({1}), AF_F32LSB, 128, 1);
    EXPECT_EQ(d1[0], 9);

    // Volume 0 returns before looking at the format: no report, no change.
    auto keep = bytes_of<int16_t>({5, 6});
    const auto before = keep;
    EXPECT_EQ(stderr_of([&] { mix(keep, bytes_of<int16_t>({100, 100}), static_cast<SDL_AudioFormat>(12), 0); }), "");
    EXPECT_EQ(keep, before);
    for (int code : {10, 12, -1}) {
        const std::string err =
            stderr_of([&] { mix(keep, bytes_of<int16_t>({100, 100}), static_cast<SDL_AudioFormat>(code), 128); });
        EXPECT_NE(err.find("MixAudio: unknown audio format"), std::string::npos) << code;
        EXPECT_EQ(keep, before) << code;
    }
    // Null buffers are refused, not dereferenced.
    SDL_MixAudioFormat(nullptr, keep.data(), AF_S16LSB, 4, 128);
    SDL_MixAudioFormat(keep.data(), nullptr, AF_S16LSB, 4, 128);
    EXPECT_EQ(keep, before);
}

// Long random blocks through every layout against a one-sample-at-a-time
// model, so block boundaries and the remainder are covered.
TEST(AudioMixSamples, LongBlocksMatchASampleBySampleModel) {
    std::mt19937 rng(11);
    for (int volume : {128, 100, 64, 200, -50}) {
        for (size_t n : {size_t{1}, size_t{15}, size_t{16}, size_t{17}, size_t{1000}, size_t{1029}}) {
            std::vector<int16_t> a(n), b(n);
            std::vector<float> fa(n), fb(n);
            std::vector<uint8_t> ua(n), ub(n);
            for (size_t i = 0; i < n; ++i) {
                a[i] = static_cast<int16_t>(rng());
                b[i] = static_cast<int16_t>(rng());
                fa[i] = static_cast<float>(static_cast<int32_t>(rng()) % 20000) / 10000.0f;
                fb[i] = static_cast<float>(static_cast<int32_t>(rng()) % 20000) / 10000.0f;
                ua[i] = static_cast<uint8_t>(rng());
                ub[i] = static_cast<uint8_t>(rng());
            }
            auto out16 = b;
            SDL_MixAudioFormat(reinterpret_cast<unsigned char*>(out16.data()),
                               reinterpret_cast<const unsigned char*>(a.data()), AF_S16LSB,
                               static_cast<unsigned>(n * 2), volume);
            auto outf = fb;
            SDL_MixAudioFormat(reinterpret_cast<unsigned char*>(outf.data()),
                               reinterpret_cast<const unsigned char*>(fa.data()), AF_F32LSB,
                               static_cast<unsigned>(n * 4), volume);
            auto outu = ub;
            SDL_MixAudioFormat(outu.data(), ua.data(), AF_U8, static_cast<unsigned>(n), volume);
            for (size_t i = 0; i < n; ++i) {
                const int scaled = static_cast<int16_t>(a[i] * volume / 128);
                ASSERT_EQ(out16[i], std::clamp(b[i] + scaled, -32768, 32767)) << volume << " " << n << " " << i;
                ASSERT_EQ(outf[i], fb[i] + fa[i] * (static_cast<float>(volume) / 128.0f)) << volume << " " << i;
                const int u8 = static_cast<uint8_t>((ua[i] - 128) * volume / 128 + 128);
                ASSERT_EQ(outu[i], std::clamp(ub[i] + u8 - 128, 0, 254)) << volume << " " << i;
            }
        }
    }
}

// ---------------------------------------------------------------- peaks

TEST(AudioMixPeak, MeasuresEveryLayoutAgainstItsFullScale) {
    EXPECT_EQ(Audio_Volume_Peak(AF_S16LSB, bytes_of<int16_t>({100, -16384}).data(), 4, 100), 50);
    EXPECT_EQ(Audio_Volume_Peak(AF_S16LSB, bytes_of<int16_t>({-32768}).data(), 2, 32767), 32768);
    EXPECT_EQ(Audio_Volume_Peak(AF_S16MSB, be16({100, -16384}).data(), 4, 100), 50);
    EXPECT_EQ(Audio_Volume_Peak(AF_U8, std::vector<unsigned char>(64, 128).data(), 64, 100), 0);
    EXPECT_EQ(Audio_Volume_Peak(AF_U8, bytes_of<uint8_t>({128, 255}).data(), 2, 100), 100);
    EXPECT_EQ(Audio_Volume_Peak(AF_U8, bytes_of<uint8_t>({0}).data(), 1, 127), 128);
    EXPECT_EQ(Audio_Volume_Peak(AF_S8, bytes_of<int8_t>({-128, 5}).data(), 2, 127), 128);
    EXPECT_EQ(Audio_Volume_Peak(AF_S32LSB, bytes_of<int32_t>({INT32_MIN, 1000}).data(), 8, INT32_MAX), 1000);
    EXPECT_EQ(Audio_Volume_Peak(AF_S32LSB, bytes_of<int32_t>({INT32_MIN}).data(), 4, 100), 0);
    EXPECT_EQ(Audio_Volume_Peak(AF_S32MSB, be32({0xC0000000u}).data(), 4, 100), 50);  // -2^30
    // Float full scale is 1.0; NaN is left out; infinity stays inside int.
    EXPECT_EQ(Audio_Volume_Peak(AF_F32LSB, bytes_of<float>({0.25f, NAN, -0.5f}).data(), 12, 100), 50);
    EXPECT_EQ(Audio_Volume_Peak(AF_F32LSB, bytes_of<float>({-1.0f}).data(), 4, 100), 100);
    EXPECT_EQ(Audio_Volume_Peak(AF_F32MSB, be32({float_bits(0.75f)}).data(), 4, 100), 75);
    EXPECT_EQ(Audio_Volume_Peak(AF_F32LSB, bytes_of<float>({INFINITY}).data(), 4, 100), INT_MAX);
    EXPECT_EQ(Audio_Volume_Peak(AF_F32LSB, bytes_of<float>({INFINITY}).data(), 4, 0), 0);
    // Unmeasured layouts, partial samples, empty and null buffers.
    EXPECT_EQ(Audio_Volume_Peak(AF_U16LSB, bytes_of<uint16_t>({65535}).data(), 2, 100), 0);
    EXPECT_EQ(Audio_Volume_Peak(static_cast<SDL_AudioFormat>(12), bytes_of<int16_t>({-32768}).data(), 2, 100), 0);
    EXPECT_EQ(Audio_Volume_Peak(AF_S16LSB, bytes_of<uint8_t>({100, 0, 0xFF}).data(), 3, 32767), 100);
    EXPECT_EQ(Audio_Volume_Peak(AF_S16LSB, bytes_of<uint8_t>({0xFF}).data(), 1, 100), 0);
    EXPECT_EQ(Audio_Volume_Peak(AF_S16LSB, nullptr, 100, 100), 0);
}

TEST(AudioMixPeak, TheLoudestSampleCountsWhereverItSits) {
    for (size_t n : {size_t{1}, size_t{16}, size_t{17}, size_t{100}}) {
        for (size_t at = 0; at < n; at += 7) {
            std::vector<int16_t> v(n, 10);
            v[at] = -3277;
            EXPECT_EQ(Audio_Volume_Peak(AF_S16LSB, reinterpret_cast<const unsigned char*>(v.data()),
                                        static_cast<unsigned>(n * 2), 100), 10) << n << " " << at;
            std::vector<float> f(n, 0.01f);
            f[n - 1 - at] = -0.375f;  // exact in binary, unlike 0.42
            EXPECT_EQ(Audio_Volume_Peak(AF_F32LSB, reinterpret_cast<const unsigned char*>(f.data()),
                                        static_cast<unsigned>(n * 4), 100), 37) << n << " " << at;
        }
    }
}

TEST(AudioMixPeak, RecordsAreMeasuredWholeOrByTheirFirstPlane) {
    auto frame = s16_frame(2, {100, -200, 16384, 5});
    EXPECT_EQ(getAudioPeak(frame, 100), 50);
    EXPECT_EQ(getAudioPeak(nullptr, 100), 0);

    // A planar record: only the first plane is read (as unsigned 8-bit, the
    // layout unknown codes fall back to).
    std::vector<uint8_t> planes(8);
    std::fill(planes.begin(), planes.begin() + 4, 128);  // first plane silent
    auto planar = std::make_shared<AFrameCtx>();
    planar->format = AV_SAMPLE_FMT_U8P;
    planar->planar = true;
    planar->channels = 2;
    planar->nb_samples = 4;
    planar->data[0] = planes.data();
    planar->data[1] = planes.data() + 4;
    planar->linesize[0] = 4;
    testmedia::LogCapture log;
    EXPECT_EQ(getAudioPeak(planar, 100), 0);
    EXPECT_NE(log.take().find("unknow audio format: 0"), std::string::npos);
}

// ---------------------------------------------------------------- mixer cycles

TEST(AudioMixCycles, SampleClockCountsFromTheRunsStartWithoutDrift) {
    AudioMixerPrivate m(44100, 2, SF_S16);
    EXPECT_EQ(m.range.begin.den, 0);
    EXPECT_EQ(m.range.end.den, 0);
    EXPECT_EQ(m.end(), nullptr);  // no buffer before the first cycle

    m.begin(span(0, 1, 30));
    EXPECT_EQ(m.need_samples, 1470);
    ASSERT_NE(m.buffer, nullptr);
    EXPECT_EQ(m.buffer->size, 5880);
    EXPECT_TRUE(std::all_of(m.buffer->data, m.buffer->data + 5880, [](uint8_t b) { return b == 0; }));
    m.end();
    EXPECT_EQ(m.need_samples, 0);

    AudioMixerPrivate thirds(44100, 2, SF_S16);
    for (int k = 0; k < 3; ++k) {
        thirds.begin(span(k, k + 1, 3));
        EXPECT_EQ(thirds.need_samples, 14700) << k;
        thirds.end();
    }
    EXPECT_EQ(thirds.pos, 44100);

    // Cycles of one 44.1 kHz sample at 48 kHz: the count alternates between
    // 1 and 2 and the total after k cycles is k * 48000 / 44100 rounded half up.
    AudioMixerPrivate odd(48000, 1, SF_FLT);
    long long total = 0;
    for (long long k = 1; k <= 3000; ++k) {
        odd.begin(span(k - 1, k, 44100));
        total += odd.need_samples;
        const long long r = (2 * k * 48000 + 44100) / (2 * 44100);
        ASSERT_EQ(total, r) << k;
        ASSERT_EQ(odd.buffer->size, odd.need_samples * 4) << k;
        odd.end();
    }
}

TEST(AudioMixCycles, SurplusCarriesIntoTheNextCycleAndJumpsDropIt) {
    AudioMixerPrivate m(44100, 2, SF_S16);
    auto writer = std::static_pointer_cast<PcmWriter>(m.getBuffer(&m));
    m.begin(span(0, 1, 30));
    EXPECT_TRUE(writer->write(counting_frame(2048, 1), 128));
    auto out = m.end();
    for (int i = 0; i < 1470; ++i) ASSERT_EQ(s16(*out)[2 * i], 1 + i) << i;
    EXPECT_EQ(writer->pending(), 578);

    m.begin(span(1, 2, 30));
    EXPECT_TRUE(writer->write(counting_frame(2048, 10001), 128));
    out = m.end();
    for (int i = 0; i < 578; ++i) ASSERT_EQ(s16(*out)[2 * i + 1], 1471 + i) << i;
    for (int i = 578; i < 1470; ++i) ASSERT_EQ(s16(*out)[2 * i + 1], 10001 + (i - 578)) << i;
    EXPECT_EQ(writer->pending(), 1156);

    // [5, 6) does not continue [1/30, 2/30): queues are emptied and the clock restarts at 5 s.
    m.begin(span(5, 6, 1));
    EXPECT_EQ(writer->pending(), 0);
    EXPECT_EQ(m.start, Rational(5, 1));
    EXPECT_EQ(m.need_samples, 44100);
    EXPECT_EQ(m.pos, 44100);
    m.end();
}

TEST(AudioMixCycles, ShortSourcesFillTheStartAndSumsClip) {
    AudioMixer mixer(44100, 2, SF_S16);
    int a = 0, b = 0;
    mixer.begin(span(0, 1, 30));
    EXPECT_TRUE(mixer.getBuffer(&a)->write(counting_frame(1000, 1), 128));
    auto out = mixer.end();
    ASSERT_EQ(out->size, 5880);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(s16(*out)[2 * i], 1 + i);
    for (int i = 1000; i < 1470; ++i) ASSERT_EQ(s16(*out)[2 * i], 0);

    mixer.begin(span(1, 2, 30));
    EXPECT_TRUE(mixer.getBuffer(&a)->write(s16_frame(2, std::vector<int16_t>(2940, 20000)), 128));
    EXPECT_TRUE(mixer.getBuffer(&b)->write(s16_frame(2, std::vector<int16_t>(2940, 20000)), 128));
    out = mixer.end();
    for (int i = 0; i < 2940; ++i) ASSERT_EQ(s16(*out)[i], 32767) << i;
}

TEST(AudioMixCycles, OutputBufferIsReusedAndNeverShrinks) {
    AudioMixer mixer(48000, 2, SF_S16);
    int key = 0;
    mixer.begin(span(0, 1, 10));
    mixer.getBuffer(&key)->write(s16_frame(2, std::vector<int16_t>(9600, 7)), 128);
    const auto first = mixer.end();
    uint8_t* const block = first->data;
    EXPECT_EQ(first->capacity, 19200);

    mixer.begin(span(1, 2, 20));  // smaller: same block, zeroed again, capacity kept
    auto second = mixer.end();
    EXPECT_EQ(second.get(), first.get());
    EXPECT_EQ(second->data, block);
    EXPECT_EQ(second->size, 9600);
    EXPECT_EQ(second->capacity, 19200);
    EXPECT_EQ(s16(*second)[0], 0);

    testmedia::LogCapture log;  // the write outside a cycle reports itself
    EXPECT_FALSE(mixer.getBuffer(&key)->write(s16_frame(2, std::vector<int16_t>(4800, 9)), 128));  // queued
    mixer.begin(span(2, 6, 20));  // larger: a new buffer; the one the host holds lives on
    mixer.getBuffer(&key)->write(s16_frame(2, std::vector<int16_t>(2, 1)), 128);
    const auto third = mixer.end();
    EXPECT_NE(third.get(), first.get());
    EXPECT_EQ(third->capacity, 38400);
    EXPECT_EQ(s16(*third)[0], 9);          // the queued samples come first
    EXPECT_EQ(s16(*third)[4800], 1);       // then the new frame's
    EXPECT_EQ(first->size, 9600);
}

TEST(AudioMixCycles, MisuseIsReportedAndBadRecordsAreRefused) {
    AudioMixer mixer(44100, 2, SF_S16);
    int a = 0, b = 0;
    EXPECT_EQ(mixer.getBuffer(&a), mixer.getBuffer(&a));
    EXPECT_NE(mixer.getBuffer(&a), mixer.getBuffer(&b));
    mixer.getFormat(nullptr, nullptr, nullptr);
    int rate = 0, channels = 0;
    SampleFormat format = SF_NONE;
    mixer.getFormat(&rate, &channels, &format);
    EXPECT_EQ(rate, 44100);
    EXPECT_EQ(channels, 2);
    EXPECT_EQ(format, SF_S16);

    const std::string message = "\"***ERROR***  need_samples <= 0, must call 'begin()'\"\n";
    testmedia::LogCapture log;
    EXPECT_FALSE(mixer.getBuffer(&a)->write(counting_frame(10, 1), 128));  // before any begin
    EXPECT_EQ(log.take(), message);
    mixer.begin(span(0, 1, 100));
    mixer.end();
    EXPECT_FALSE(mixer.getBuffer(&a)->write(counting_frame(10, 1), 128));  // after end
    EXPECT_EQ(log.take(), message);
    EXPECT_FALSE(mixer.getBuffer(&a)->write(nullptr, 128));
    EXPECT_EQ(log.take(), "");

    // Records of another shape would overrun the FIFO or the scratch block.
    mixer.begin(span(1, 2, 100));
    EXPECT_FALSE(mixer.getBuffer(&b)->write(s16_frame(6, std::vector<int16_t>(600, 1)), 128));
    RequireAudioFrame freq;
    freq.format = SF_FLT;
    freq.channels = 2;
    EXPECT_FALSE(mixer.getBuffer(&b)->write(create_audioframe_ctx(freq, 100), 128));
    auto lying = counting_frame(100, 1);
    lying->nb_samples = 1000;
    EXPECT_FALSE(mixer.getBuffer(&b)->write(lying, 128));
    EXPECT_FALSE(log.take().empty());
    // A range running backwards opens nothing.
    mixer.begin(span(3, 2, 100));
    EXPECT_EQ(mixer.end()->size, 0);
    mixer.end();

    // A mixer that cannot mix (no sample format, no rate) stays harmless.
    AudioMixer broken(0, 2, SF_NONE);
    broken.begin(span(0, 1, 1));
    EXPECT_FALSE(broken.getBuffer(&a)->write(counting_frame(10, 1), 128));
    EXPECT_EQ(broken.end()->size, 0);
    AudioMixer no_format(48000, 2, SF_NONE);
    no_format.begin(span(0, 1, 1));
    EXPECT_EQ(no_format.end()->size, 0);
    log.take();

    // A writer that outlives its mixer writes nothing.
    std::shared_ptr<PcmWriterBase> orphan;
    {
        AudioMixer gone(44100, 2, SF_S16);
        orphan = gone.getBuffer(&a);
    }
    EXPECT_FALSE(orphan->write(counting_frame(10, 1), 128));
}

// Three decoded sources in 20 ms cycles for 30 s. The reference keeps, per
// source, the samples delivered and not yet consumed, takes at most one
// cycle's worth from each at the cycle's start, and adds them in writing
// order, clipping after each source as the mixer does.
TEST(AudioMixEndToEnd, ThreeDecodedSourcesMixToTheReferenceSum) {
    const char* names[] = {"pcm_s16.wav", "ramp60.flac", "flac_6ch.flac"};
    const int volumes[] = {128, 100, 64};
    FFDecoder decoders[3];
    for (int i = 0; i < 3; ++i) {
        MovieCtx* mv = FFDecoder::probe(testmedia::path(names[i]).c_str(), nullptr);
        ASSERT_NE(mv, nullptr) << names[i];
        ASSERT_GE(mv->nb_audio, 1) << names[i];
        ASSERT_TRUE(decoders[i].open(mv->streams[mv->audio_indexes[0]])) << names[i];
    }

    AudioMixer mixer(48000, 2, SF_S16);
    int rate = 0, channels = 0;
    SampleFormat format = SF_NONE;
    mixer.getFormat(&rate, &channels, &format);

    std::deque<int16_t> pending[3];
    long long total = 0, delivered[3] = {}, nonzero = 0;
    for (long long k = 0; k < 1500; ++k) {
        const Range r(Rational(k, 50), Rational(k + 1, 50));
        mixer.begin(r);
        std::vector<int> expect(960 * 2, 0);
        for (int i = 0; i < 3; ++i) {
            RequireAudioFrame req;
            req.range = r;
            req.format = format;
            req.sample_rate = rate;
            req.channels = channels;
            const auto frame = decoders[i].getAudioFrame(req);
            if (frame) {
                const auto* s = reinterpret_cast<const int16_t*>(frame->data[0]);
                pending[i].insert(pending[i].end(), s, s + static_cast<size_t>(frame->nb_samples) * 2);
                delivered[i] += frame->nb_samples;
            }
            mixer.getBuffer(&decoders[i])->write(frame, volumes[i]);
            const size_t take = std::min(pending[i].size(), expect.size());
            for (size_t j = 0; j < take; ++j) {
                const int scaled = pending[i][j] * volumes[i] / 128;
                expect[j] = std::clamp(expect[j] + scaled, -32768, 32767);
            }
            pending[i].erase(pending[i].begin(), pending[i].begin() + static_cast<long>(take));
        }
        const auto out = mixer.end();
        ASSERT_EQ(out->size, 960 * 4) << k;
        const int16_t* got = s16(*out);
        for (size_t j = 0; j < expect.size(); ++j) {
            ASSERT_EQ(got[j], expect[j]) << "cycle " << k << " sample " << j;
            nonzero += got[j] != 0;
        }
        total += out->size / 4;
    }
    EXPECT_EQ(total, 30 * 48000);
    // Every source delivered at least its own length at 48 kHz (the wave and
    // the six-channel file end before 30 s; the long one runs throughout).
    EXPECT_GE(delivered[0], 4 * 48000);
    EXPECT_GE(delivered[1], 30 * 48000);
    EXPECT_GE(delivered[2], 3 * 48000);
    EXPECT_GT(nonzero, 30 * 48000);
}
