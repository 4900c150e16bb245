// Sample-level mixing and peak metering in every layout, and the mixer's
// cycles: sample clock, FIFO carry-over, volumes and clipping per source,
// buffer reuse, misuse.

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstring>

#include "audio_mixer.h"
#include "audio_mixer_private.h"
#include "support.h"

using namespace ff;
using testsupport::stderr_of;
using testsupport::stdout_of;

namespace {

using Bytes = std::vector<unsigned char>;

template <typename T>
Bytes bytes_of(std::initializer_list<T> values) {
    Bytes out(values.size() * sizeof(T));
    std::memcpy(out.data(), values.begin(), out.size());
    return out;
}

// Big-endian bytes of 16- or 32-bit patterns, written out by hand.
template <int Bits, typename T>
Bytes big_endian(std::initializer_list<T> values) {
    Bytes out;
    for (T v : values)
        for (int shift = Bits - 8; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(uint32_t(v) >> shift));
    return out;
}
Bytes be16(std::initializer_list<int> values) { return big_endian<16>(values); }
Bytes be32(std::initializer_list<uint32_t> values) { return big_endian<32>(values); }
uint32_t float_bits(float f) { uint32_t u; std::memcpy(&u, &f, sizeof u); return u; }

void mix(Bytes& dst, const Bytes& src, SDL_AudioFormat f, int volume) {
    SDL_MixAudioFormat(dst.data(), src.data(), f, static_cast<unsigned>(src.size()), volume);
}

std::shared_ptr<AFrameCtx> s16_frame(int channels, const std::vector<int16_t>& interleaved) {
    auto f = create_audioframe_ctx(RequireAudioFrame{Range(), SF_S16, 44100, channels, nullptr},
                                   static_cast<int>(interleaved.size()) / channels);
    std::memcpy(f->data[0], interleaved.data(), interleaved.size() * sizeof(int16_t));
    return f;
}

// Stereo frame whose sample i carries base + i on both channels.
std::shared_ptr<AFrameCtx> counting_frame(int samples, int base) {
    std::vector<int16_t> v(static_cast<size_t>(samples) * 2);
    for (int i = 0; i < 2 * samples; ++i) v[i] = static_cast<int16_t>(base + i / 2);
    return s16_frame(2, v);
}

const int16_t* s16(const PcmBuffer& b) { return reinterpret_cast<const int16_t*>(b.data); }

Range span(long long b_num, long long e_num, long long den) { return Range(Rational(b_num, den), Rational(e_num, den)); }

}  // namespace

// Each row: layout, volume, destination, source, expected destination.
TEST(AudioMixSamples, EveryLayoutClipsScalesAndKeepsItsByteOrder) {
    struct Row { SDL_AudioFormat f; int vol; Bytes dst, src, want; };
    const uint32_t big = 2000000000u;
    const Row rows[] = {
        {AF_S16LSB, 128, bytes_of<int16_t>({10000, -10000}), bytes_of<int16_t>({30000, -30000}), bytes_of<int16_t>({32767, -32768})},
        // Toward zero, not down: -1001 / 2 is -500.
        {AF_S16LSB, 64, bytes_of<int16_t>({0, 0, 0, 0}), bytes_of<int16_t>({1001, -1001, 1, -1}), bytes_of<int16_t>({500, -500, 0, 0})},
        // Above unity the scaled source is cut to 16 bits before the sum, even past a 32-bit product.
        {AF_S16LSB, 256, bytes_of<int16_t>({0, 100}), bytes_of<int16_t>({20000, 20000}), bytes_of<int16_t>({-25536, -25436})},
        {AF_S16LSB, 1 << 20, bytes_of<int16_t>({0}), bytes_of<int16_t>({3}), bytes_of<int16_t>({3 * (1 << 13)})},
        {AF_S16MSB, 128, be16({10000, 0x0102}), be16({30000, 0x0001}), be16({32767, 0x0103})},
        {AF_U16MSB, 128, be16({60000, 0x0100}), be16({10000, 0x0001}), be16({65535, 0x0101})},
        {AF_S32MSB, 128, be32({big, 0x100}), be32({big, 0x1}), be32({uint32_t{INT32_MAX}, 0x101})},
        {AF_F32MSB, 128, be32({float_bits(0.75f)}), be32({float_bits(0.5f)}), be32({float_bits(1.25f)})},
        // mix8: the ceiling is 254, not 255; 10 + 10 - 128 is below the floor.
        {AF_U8, 128, bytes_of<uint8_t>({200, 128, 128, 10}), bytes_of<uint8_t>({200, 128, 0, 10}), bytes_of<uint8_t>({254, 128, 0, 0})},
        {AF_U8, 64, bytes_of<uint8_t>({128, 128}), bytes_of<uint8_t>({0, 255}), bytes_of<uint8_t>({64, 191})},
        {AF_S8, 128, bytes_of<int8_t>({100, -100}), bytes_of<int8_t>({100, -100}), bytes_of<int8_t>({127, -128})},
        {AF_S8, 64, bytes_of<int8_t>({0}), bytes_of<int8_t>({-3}), bytes_of<int8_t>({-1})},
        {AF_U16LSB, 128, bytes_of<uint16_t>({60000, 1000}), bytes_of<uint16_t>({10000, 3}), bytes_of<uint16_t>({65535, 1003})},
        // The scaled value keeps its low 16 bits: 80000 becomes 14464, not 65535.
        {AF_U16LSB, 256, bytes_of<uint16_t>({0, 1000}), bytes_of<uint16_t>({40000, 3}), bytes_of<uint16_t>({14464, 1006})},
        {AF_S32LSB, 128, bytes_of<int32_t>({2000000000, -2000000000, -2000000000, 0}),
         bytes_of<int32_t>({2000000000, -2000000000, 2000000000, -3}), bytes_of<int32_t>({INT32_MAX, INT32_MIN, 0, -3})},
        // 64-bit arithmetic: 2e9 * 2 is not cut to 32 bits before the sum.
        {AF_S32LSB, 256, bytes_of<int32_t>({-2000000000, 0}), bytes_of<int32_t>({2000000000, -3}), bytes_of<int32_t>({2000000000, -6})},
        {AF_S32LSB, 64, bytes_of<int32_t>({0}), bytes_of<int32_t>({-3}), bytes_of<int32_t>({-1})},
        // Float is not clamped at 1.0.
        {AF_F32LSB, 128, bytes_of<float>({0.75f, FLT_MAX, -FLT_MAX}), bytes_of<float>({0.5f, FLT_MAX, -FLT_MAX}),
         bytes_of<float>({1.25f, FLT_MAX, -FLT_MAX})},
        {AF_F32LSB, 64, bytes_of<float>({0.0f}), bytes_of<float>({0.5f}), bytes_of<float>({0.25f})},
        // Only whole samples are mixed; the trailing partial byte stays.
        {AF_S16LSB, 128, Bytes{0x10, 0x00, 0x55}, Bytes{0x01, 0x00, 0x77}, Bytes{0x11, 0x00, 0x55}},
    };
    for (Row r : rows) {
        mix(r.dst, r.src, r.f, r.vol);
        EXPECT_EQ(r.dst, r.want) << "layout " << r.f << " at volume " << r.vol;
    }
}

// An unknown sample format is reported and read as U8; an unknown layout is
// reported and, like volume 0 or a null buffer, leaves the destination as it
// was. (Partial samples: the last row of the table above.)
TEST(AudioMixSamples, UnknownFormatsVolumeZeroAndNullBuffersTouchNothing) {
    SDL_AudioFormat none = AF_S16LSB, unknown = AF_S16LSB;
    // The literal's own text, its backslash-n included, then the line end.
    EXPECT_EQ(testsupport::stdout_of([&] {
                  none = get_sdl_audio_fmt(SF_NONE), unknown = get_sdl_audio_fmt(static_cast<SampleFormat>(77));
              }),
              "\"unknow audio format: 0\\n\"\n\"unknow audio format: 77\\n\"\n");
    EXPECT_TRUE(none == AF_U8 && unknown == AF_U8);

    // Volume 0 returns before looking at the format: no report, no change.
    auto keep = bytes_of<int16_t>({5, 6});
    EXPECT_EQ(stderr_of([&] { mix(keep, bytes_of<int16_t>({100, 100}), static_cast<SDL_AudioFormat>(12), 0); }), "");
    for (int code : {10, 12, -1})
        EXPECT_TRUE(testsupport::contains(stderr_of([&] { mix(keep, bytes_of<int16_t>({100, 100}), static_cast<SDL_AudioFormat>(code), 128); }),
                                          "MixAudio: unknown audio format")) << code;
    SDL_MixAudioFormat(nullptr, keep.data(), AF_S16LSB, 4, 128);
    SDL_MixAudioFormat(keep.data(), nullptr, AF_S16LSB, 4, 128);
    EXPECT_EQ(keep, bytes_of<int16_t>({5, 6}));
}

TEST(AudioMixPeak, MeasuresEveryLayoutAgainstItsFullScale) {
    struct Row { SDL_AudioFormat f; Bytes data; int full; int want; };
    const Row rows[] = {
        {AF_S16LSB, bytes_of<int16_t>({100, -16384}), 100, 50}, {AF_S16LSB, bytes_of<int16_t>({-32768}), 32767, 32768},
        {AF_S16MSB, be16({100, -16384}), 100, 50}, {AF_U8, Bytes(64, 128), 100, 0},
        {AF_U8, bytes_of<uint8_t>({128, 255}), 100, 100}, {AF_S8, bytes_of<int8_t>({-128, 5}), 127, 128},
        {AF_S32LSB, bytes_of<int32_t>({INT32_MIN, 1000}), INT32_MAX, 1000}, {AF_S32LSB, bytes_of<int32_t>({INT32_MIN}), 100, 0},
        {AF_S32MSB, be32({0xC0000000u}), 100, 50},  // -2^30
        // Float full scale is 1.0; NaN is left out; infinity stays inside int.
        {AF_F32LSB, bytes_of<float>({0.25f, NAN, -0.5f}), 100, 50}, {AF_F32MSB, be32({float_bits(0.75f)}), 100, 75},
        {AF_F32LSB, bytes_of<float>({INFINITY}), 100, INT_MAX},
        // Unmeasured layouts and partial samples.
        {static_cast<SDL_AudioFormat>(12), bytes_of<int16_t>({-32768}), 100, 0},
        {AF_S16LSB, bytes_of<uint8_t>({100, 0, 0xFF}), 32767, 100}, {AF_S16LSB, bytes_of<uint8_t>({0xFF}), 100, 0},
    };
    for (const Row& r : rows)
        EXPECT_EQ(Audio_Volume_Peak(r.f, r.data.data(), static_cast<unsigned>(r.data.size()), r.full), r.want) << r.f;
    EXPECT_EQ(Audio_Volume_Peak(AF_S16LSB, nullptr, 100, 100), 0);
    // The loudest sample counts wherever it sits in a block.
    for (size_t n : {size_t{16}, size_t{17}, size_t{100}})
        for (size_t at = 0; at < n; at += 7) {
            std::vector<float> f(n, 0.01f);
            f[at] = -0.375f;
            EXPECT_EQ(Audio_Volume_Peak(AF_F32LSB, reinterpret_cast<const unsigned char*>(f.data()), static_cast<unsigned>(n * 4), 100), 37) << n << " " << at;
        }
}

// Steps of one mixer's cycles: the sample clock counts from the run's start
// without drift, the surplus of a source carries into the next cycle, a jump
// drops it, and a cycle of the same size reuses the same block.
TEST(AudioMixCycles, SampleClockSurplusAndJumps) {
    AudioMixerPrivate m(44100, 2, SF_S16);
    EXPECT_EQ(m.end(), nullptr);  // no buffer before the first cycle
    auto writer = std::static_pointer_cast<PcmWriter>(m.getBuffer(&m));
    m.begin(span(0, 1, 30));
    EXPECT_TRUE(m.need_samples == 1470 && writer->write(counting_frame(2048, 1), 128));
    auto out = m.end();
    ASSERT_EQ(out->size, 5880);
    for (int i = 0; i < 1470; ++i) ASSERT_EQ(s16(*out)[2 * i], 1 + i) << i;
    // The 578 samples left over open the next cycle.
    m.begin(span(1, 2, 30));
    EXPECT_TRUE(writer->write(counting_frame(2048, 10001), 128));
    out = m.end();
    for (int i = 0; i < 1470; ++i) ASSERT_EQ(s16(*out)[2 * i + 1], i < 578 ? 1471 + i : 10001 + (i - 578)) << i;
    EXPECT_EQ(writer->pending(), 1156);
    // [5, 6) does not continue [1/30, 2/30): queues are emptied and the clock restarts at 5 s.
    m.begin(span(5, 6, 1));
    EXPECT_TRUE(writer->pending() == 0 && m.start == Rational(5, 1) && m.need_samples == 44100);
    m.end();

    // One 44.1 kHz sample per cycle at 48 kHz: the total after k cycles is
    // k * 48000 / 44100 rounded half up.
    AudioMixerPrivate odd(48000, 1, SF_FLT);
    for (long long k = 1, total = 0; k <= 3000; ++k) {
        odd.begin(span(k - 1, k, 44100));
        total += odd.need_samples;
        ASSERT_EQ(total, (2 * k * 48000 + 44100) / (2 * 44100)) << k;
        ASSERT_EQ(odd.buffer->size, odd.need_samples * 4) << k;
        odd.end();
    }
}

// Misuse and bad records first, then the mixer still mixes: short sources
// fill the start of a cycle, sums clip, and a cycle of the same size reuses
// the block.
TEST(AudioMixCycles, MisuseIsRefusedThenShortSourcesFillTheStartAndSumsClip) {
    AudioMixer mixer(44100, 2, SF_S16);
    int early = 0, misfit = 0, a = 0, b = 0, c = 0;  // `misfit`, refused each time, never gets a queue
    bool before_begin = true, no_record = true, other_shape = true;
    EXPECT_EQ(stdout_of([&] { before_begin = mixer.getBuffer(&early)->write(counting_frame(10, 1), 128); }),
              "\"***ERROR***  need_samples <= 0, must call 'begin()'\"\n");
    EXPECT_EQ(stdout_of([&] { no_record = mixer.getBuffer(&early)->write(nullptr, 128); }), "");
    // Records of another shape would overrun the FIFO or the scratch block.
    mixer.begin(span(1, 2, 100));
    auto lying = counting_frame(100, 1);
    lying->nb_samples = 1000;
    const std::string refusals = stdout_of([&] {
        other_shape = mixer.getBuffer(&misfit)->write(s16_frame(6, std::vector<int16_t>(600, 1)), 128) ||
                      mixer.getBuffer(&misfit)->write(lying, 128);
    });
    EXPECT_FALSE(before_begin || no_record || other_shape) << refusals;
    mixer.begin(span(3, 2, 100));  // a range running backwards opens nothing
    EXPECT_EQ(mixer.end()->size, 0);
    // The refused records left nothing behind: this cycle holds a's samples only.
    mixer.begin(span(0, 1, 30));
    EXPECT_TRUE(mixer.getBuffer(&a)->write(counting_frame(1000, 1), 128));
    const auto first = mixer.end();
    ASSERT_EQ(first->size, 5880);
    for (int i = 0; i < 1470; ++i) ASSERT_EQ(s16(*first)[2 * i], i < 1000 ? 1 + i : 0) << i;
    // Same size: same block, zeroed again. Each source is scaled by its own
    // volume and the sum clipped after each: 30000 + 30000 clips to 32767,
    // then -20000 at half volume leaves 22767.
    mixer.begin(span(1, 2, 30));
    const struct { int* key; int16_t value; int volume; } sources[] = {{&a, 30000, 128}, {&b, 30000, 128}, {&c, -20000, 64}};
    for (const auto& w : sources) EXPECT_TRUE(mixer.getBuffer(w.key)->write(s16_frame(2, std::vector<int16_t>(2940, w.value)), w.volume));
    const auto second = mixer.end();
    ASSERT_EQ(second.get(), first.get());
    EXPECT_TRUE(std::all_of(s16(*second), s16(*second) + 2940, [](int16_t v) { return v == 22767; })) << s16(*second)[0];
}
