#include "audio_mixer_private.h"

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>

extern "C" {
#include <libavutil/samplefmt.h>
}

#include "guarded.h"
#include "log.h"
#include "utils/mempool.h"

namespace ff {

SDL_AudioFormat get_sdl_audio_fmt(SampleFormat f) {
    switch (f) {
        case SF_U8: return AF_U8;
        case SF_S16: return AF_S16LSB;
        case SF_S32: return AF_S32LSB;
        case SF_FLT: return AF_F32LSB;
        default:
            CLIPDEC_LOG(kLogError, kTagDefault, "unknow audio format: %d\n", static_cast<int>(f));
            return AF_U8;
    }
}

}  // namespace ff

// ---------------------------------------------------------------- sample loops
//
// Each routine looks at the format once and then runs one loop specialised
// for the layout (and, for mixing, for the range of the volume), so the loop
// body has no branch on the format. The loops work in blocks of a fixed
// number of samples: a trip count the compiler knows lets it vectorise the
// block even at -O2, where GCC's cheapest cost model refuses loops that would
// need a scalar remainder or alias checks. The remainder is a plain loop.

namespace {

using ff::SDL_AudioFormat;

constexpr size_t kBlock = 16;
constexpr bool kHostLittle = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;

inline uint8_t byte_swap(uint8_t v) { return v; }
inline uint16_t byte_swap(uint16_t v) { return __builtin_bswap16(v); }
inline uint32_t byte_swap(uint32_t v) { return __builtin_bswap32(v); }

template <size_t N> struct Bits;
template <> struct Bits<1> { using type = uint8_t; };
template <> struct Bits<2> { using type = uint16_t; };
template <> struct Bits<4> { using type = uint32_t; };

// Reads and writes one sample of type T stored in the given byte order at any
// alignment (PCM blocks carry no alignment promise).
template <typename T, bool Little>
inline T load(const unsigned char* p) {
    typename Bits<sizeof(T)>::type u;
    std::memcpy(&u, p, sizeof u);
    if constexpr (Little != kHostLittle) u = byte_swap(u);
    T v;
    std::memcpy(&v, &u, sizeof v);
    return v;
}

template <typename T, bool Little>
inline void store(unsigned char* p, T v) {
    typename Bits<sizeof(T)>::type u;
    std::memcpy(&u, &v, sizeof u);
    if constexpr (Little != kHostLittle) u = byte_swap(u);
    std::memcpy(p, &u, sizeof u);
}

// dst[i] = op(src[i], dst[i]) over `count` samples.
template <typename T, bool Little, typename Op>
void mix_samples(unsigned char* __restrict dst, const unsigned char* __restrict src, size_t count, Op op) {
    constexpr size_t S = sizeof(T);
    size_t i = 0;
    for (; i + kBlock <= count; i += kBlock) {
        unsigned char* __restrict d = dst + i * S;
        const unsigned char* __restrict s = src + i * S;
        for (size_t j = 0; j < kBlock; ++j)
            store<T, Little>(d + j * S, op(load<T, Little>(s + j * S), load<T, Little>(d + j * S)));
    }
    for (; i < count; ++i)
        store<T, Little>(dst + i * S, op(load<T, Little>(src + i * S), load<T, Little>(dst + i * S)));
}

template <typename W>
constexpr W clamp_to(W v, W lo, W hi) {
    return std::min(std::max(v, lo), hi);
}

// The volume is not clamped, so products are formed in 32 bits only while
// they cannot overflow there, and in 64 bits beyond.
template <typename W>
void mix_u8(unsigned char* dst, const unsigned char* src, size_t n, int volume) {
    const W vol = volume;
    mix_samples<uint8_t, true>(dst, src, n, [vol](uint8_t s, uint8_t d) -> uint8_t {
        const auto a = static_cast<uint8_t>((static_cast<W>(s) - 128) * vol / 128 + 128);
        return ff::mix8[d + a];
    });
}

template <typename W>
void mix_s8(unsigned char* dst, const unsigned char* src, size_t n, int volume) {
    const W vol = volume;
    mix_samples<int8_t, true>(dst, src, n, [vol](int8_t s, int8_t d) -> int8_t {
        const auto a = static_cast<int8_t>(static_cast<W>(s) * vol / 128);
        return static_cast<int8_t>(clamp_to<int32_t>(int32_t{d} + a, INT8_MIN, INT8_MAX));
    });
}

template <bool Little, typename W>
void mix_s16(unsigned char* dst, const unsigned char* src, size_t n, int volume) {
    const W vol = volume;
    mix_samples<int16_t, Little>(dst, src, n, [vol](int16_t s, int16_t d) -> int16_t {
        const auto a = static_cast<int16_t>(static_cast<W>(s) * vol / 128);
        return static_cast<int16_t>(clamp_to<int32_t>(int32_t{d} + a, INT16_MIN, INT16_MAX));
    });
}

// Unity gain, the mixer's usual case: s * 128 / 128 is s, so no multiply.
template <bool Little>
void mix_s16_unity(unsigned char* dst, const unsigned char* src, size_t n) {
    mix_samples<int16_t, Little>(dst, src, n, [](int16_t s, int16_t d) -> int16_t {
        return static_cast<int16_t>(clamp_to<int32_t>(int32_t{d} + s, INT16_MIN, INT16_MAX));
    });
}

template <bool Little, typename W>
void mix_u16(unsigned char* dst, const unsigned char* src, size_t n, int volume) {
    const W vol = volume;
    mix_samples<uint16_t, Little>(dst, src, n, [vol](uint16_t s, uint16_t d) -> uint16_t {
        const auto a = static_cast<uint16_t>(static_cast<W>(s) * vol / 128);
        // Both terms are unsigned, so only the upper limit can be crossed.
        return static_cast<uint16_t>(std::min<int32_t>(int32_t{d} + a, UINT16_MAX));
    });
}

template <bool Little>
void mix_s32(unsigned char* dst, const unsigned char* src, size_t n, int volume) {
    const int64_t vol = volume;
    mix_samples<int32_t, Little>(dst, src, n, [vol](int32_t s, int32_t d) -> int32_t {
        const int64_t a = s * vol / 128;
        return static_cast<int32_t>(clamp_to<int64_t>(int64_t{d} + a, INT32_MIN, INT32_MAX));
    });
}

// Floats are not clipped to 1.0, only kept finite at the largest float.
template <bool Little>
void mix_f32(unsigned char* dst, const unsigned char* src, size_t n, int volume) {
    const float gain = static_cast<float>(volume) * (1.0f / 128.0f);
    mix_samples<float, Little>(dst, src, n, [gain](float s, float d) -> float {
        return clamp_to<float>(d + s * gain, -FLT_MAX, FLT_MAX);
    });
}

// |volume| bounds below which the 32-bit product of a sample and the volume
// is exact: samples of at most 2^7, 2^15 and 2^16 in magnitude.
constexpr int kVol8Max = 1 << 23;
constexpr int kVolS16Max = 65535;
constexpr int kVolU16Max = 32767;

inline bool within(int volume, int bound) { return volume >= -bound && volume <= bound; }

template <bool Little>
void mix_s16_any(unsigned char* dst, const unsigned char* src, size_t n, int volume) {
    if (volume == 128)
        mix_s16_unity<Little>(dst, src, n);
    else if (within(volume, kVolS16Max))
        mix_s16<Little, int32_t>(dst, src, n, volume);
    else
        mix_s16<Little, int64_t>(dst, src, n, volume);
}

template <bool Little>
void mix_u16_any(unsigned char* dst, const unsigned char* src, size_t n, int volume) {
    if (within(volume, kVolU16Max))
        mix_u16<Little, int32_t>(dst, src, n, volume);
    else
        mix_u16<Little, int64_t>(dst, src, n, volume);
}

// ---------------------------------------------------------------- peaks

// The largest mag(sample) over `count` samples, lane-wise per block so that
// the block vectorises without a reduction.
template <typename T, bool Little, typename M, typename Mag>
M peak_of(const unsigned char* data, size_t count, Mag mag) {
    constexpr size_t S = sizeof(T);
    M lanes[kBlock] = {};
    size_t i = 0;
    for (; i + kBlock <= count; i += kBlock) {
        const unsigned char* p = data + i * S;
        for (size_t j = 0; j < kBlock; ++j) lanes[j] = std::max(lanes[j], mag(load<T, Little>(p + j * S)));
    }
    for (; i < count; ++i) lanes[0] = std::max(lanes[0], mag(load<T, Little>(data + i * S)));
    M best = lanes[0];
    for (size_t j = 1; j < kBlock; ++j) best = std::max(best, lanes[j]);
    return best;
}

// |s| with -2^31 counted as 0: it has no positive counterpart in 32 bits.
inline uint32_t s32_magnitude(int32_t s) {
    const uint32_t u = static_cast<uint32_t>(s);
    const uint32_t m = s < 0 ? 0u - u : u;
    return m > static_cast<uint32_t>(INT32_MAX) ? 0u : m;
}

template <bool Little>
double peak_s16(const unsigned char* data, size_t n) {
    return peak_of<int16_t, Little, int32_t>(data, n, [](int16_t s) { return std::abs(int32_t{s}); });
}

template <bool Little>
double peak_s32(const unsigned char* data, size_t n) {
    return peak_of<int32_t, Little, uint32_t>(data, n, s32_magnitude);
}

// std::max(lane, NaN) keeps the lane, which leaves NaN samples out.
template <bool Little>
double peak_f32(const unsigned char* data, size_t n) {
    return peak_of<float, Little, float>(data, n, [](float s) { return std::fabs(s); });
}

// (peak / full scale) * scale, truncated; kept inside int for infinite
// samples and outsized scales.
int scaled_peak(double peak, double full_scale, int scale) {
    const double v = peak / full_scale * scale;
    if (std::isnan(v)) return 0;
    if (v >= static_cast<double>(INT_MAX)) return INT_MAX;
    if (v <= static_cast<double>(INT_MIN)) return INT_MIN;
    return static_cast<int>(v);
}

}  // namespace

void SDL_MixAudioFormat(unsigned char* dst, const unsigned char* src, ff::SDL_AudioFormat format, unsigned int len,
                        int volume) {
    if (volume == 0) return;
    if (format < ff::AF_U8 || format > ff::AF_F32MSB) {
        perror("MixAudio: unknown audio format");
        return;
    }
    if (!dst || !src) return;
    const size_t n8 = len, n16 = len / 2, n32 = len / 4;
    switch (format) {
        case ff::AF_U8:
            if (within(volume, kVol8Max)) mix_u8<int32_t>(dst, src, n8, volume);
            else mix_u8<int64_t>(dst, src, n8, volume);
            break;
        case ff::AF_S8:
            if (within(volume, kVol8Max)) mix_s8<int32_t>(dst, src, n8, volume);
            else mix_s8<int64_t>(dst, src, n8, volume);
            break;
        case ff::AF_S16LSB: mix_s16_any<true>(dst, src, n16, volume); break;
        case ff::AF_S16MSB: mix_s16_any<false>(dst, src, n16, volume); break;
        case ff::AF_U16LSB: mix_u16_any<true>(dst, src, n16, volume); break;
        case ff::AF_U16MSB: mix_u16_any<false>(dst, src, n16, volume); break;
        case ff::AF_S32LSB: mix_s32<true>(dst, src, n32, volume); break;
        case ff::AF_S32MSB: mix_s32<false>(dst, src, n32, volume); break;
        case ff::AF_F32LSB: mix_f32<true>(dst, src, n32, volume); break;
        case ff::AF_F32MSB: mix_f32<false>(dst, src, n32, volume); break;
    }
}

int Audio_Volume_Peak(ff::SDL_AudioFormat format, const unsigned char* data, unsigned int len, int scale) {
    if (!data) return 0;
    switch (format) {
        case ff::AF_U8: {
            const auto from_midpoint = [](uint8_t x) { return std::abs(int32_t{x} - 128); };
            return scaled_peak(peak_of<uint8_t, true, int32_t>(data, len, from_midpoint), 127.0, scale);
        }
        case ff::AF_S8: {
            const auto magnitude = [](int8_t s) { return std::abs(int32_t{s}); };
            return scaled_peak(peak_of<int8_t, true, int32_t>(data, len, magnitude), 127.0, scale);
        }
        case ff::AF_S16LSB: return scaled_peak(peak_s16<true>(data, len / 2), 32767.0, scale);
        case ff::AF_S16MSB: return scaled_peak(peak_s16<false>(data, len / 2), 32767.0, scale);
        case ff::AF_S32LSB: return scaled_peak(peak_s32<true>(data, len / 4), 2147483647.0, scale);
        case ff::AF_S32MSB: return scaled_peak(peak_s32<false>(data, len / 4), 2147483647.0, scale);
        // Full scale 1.0: the usual float range -1 .. 1 reads like the integer layouts.
        case ff::AF_F32LSB: return scaled_peak(peak_f32<true>(data, len / 4), 1.0, scale);
        case ff::AF_F32MSB: return scaled_peak(peak_f32<false>(data, len / 4), 1.0, scale);
        default: return 0;  // unsigned 16-bit and unknown layouts are not measured
    }
}

// ---------------------------------------------------------------- the mixer

namespace ff {

PcmWriterBase::~PcmWriterBase() = default;

AudioMixerPrivate::AudioMixerPrivate(int sample_rate_, int channels_, SampleFormat format_)
    : sample_rate(sample_rate_), channels(channels_), format(format_) {}

AudioMixerPrivate::~AudioMixerPrivate() {
    // Writers the host still holds must not reach a mixer that is gone.
    for (auto& entry : writers) static_cast<PcmWriter*>(entry.second.get())->mixer = nullptr;
}

void AudioMixerPrivate::begin(const Range& r) {
    if (r.begin != range.end) {
        // A jump: samples queued for the old position would play at the wrong time.
        clear();
        pos = 0;
        start = r.begin;
    }
    range = r;

    // Measured from the run's start, never summed per cycle, so rounding
    // cannot accumulate.
    const int64_t ts = time_to_timestamp(r.end - start, Rational(1, sample_rate));
    const int64_t need = ts - pos;
    pos = ts;

    int size = 0;
    need_samples = 0;
    if (need > 0 && need <= INT_MAX) {
        size = av_samples_get_buffer_size(nullptr, channels, static_cast<int>(need),
                                          static_cast<AVSampleFormat>(samplefmt_to_avsamplefmt(format)), 1);
        if (size > 0) need_samples = static_cast<int>(need);
    } else if (need < 0 && need >= INT_MIN) {
        // A range running backwards: nothing to mix, and writes say why.
        need_samples = static_cast<int>(need);
    }
    if (size < 0) size = 0;

    if (!buffer || size > buffer->capacity) {
        auto fresh = std::make_shared<PcmBuffer>();
        if (size > 0) {
            fresh->data = static_cast<uint8_t*>(bg::mempool::malloc(static_cast<unsigned>(size), 16));
            if (fresh->data) {
                fresh->capacity = size;
            } else {
                size = 0;
                need_samples = 0;
            }
        }
        buffer = std::move(fresh);
    }
    buffer->size = size;
    if (size > 0) std::memset(buffer->data, 0, static_cast<size_t>(size));
}

std::shared_ptr<PcmBuffer> AudioMixerPrivate::end() {
    need_samples = 0;
    return buffer;
}

std::shared_ptr<PcmWriterBase> AudioMixerPrivate::getBuffer(void* key) {
    auto it = writers.find(key);
    if (it == writers.end()) it = writers.emplace(key, std::make_shared<PcmWriter>(this)).first;
    return it->second;
}

void AudioMixerPrivate::getFormat(int* sample_rate_out, int* channels_out, SampleFormat* format_out) {
    if (sample_rate_out) *sample_rate_out = sample_rate;
    if (channels_out) *channels_out = channels;
    if (format_out) *format_out = format;
}

void AudioMixerPrivate::clear() {
    // getBuffer is the only way into the map, and it makes PcmWriters only.
    for (auto& entry : writers) static_cast<PcmWriter*>(entry.second.get())->reset();
}

bool AudioMixerPrivate::accepts(const AFrameCtx& frame) const {
    const int fmt = samplefmt_to_avsamplefmt(format);
    const int bps = av_get_bytes_per_sample(static_cast<AVSampleFormat>(fmt));
    if (fmt < 0 || bps <= 0 || frame.format != fmt || frame.channels != channels || frame.planar) return false;
    if (frame.nb_samples < 0) return false;
    if (frame.nb_samples == 0) return true;
    const int64_t bytes = int64_t{frame.nb_samples} * channels * bps;
    return frame.data[0] != nullptr && frame.linesize[0] >= bytes;
}

bool AudioMixerPrivate::merge(AVAudioFifo* fifo, int volume) {
    if (!fifo || av_audio_fifo_size(fifo) <= 0) return false;
    if (need_samples <= 0) {
        CLIPDEC_LOG(kLogError, kTagDefault, "***ERROR***  need_samples <= 0, must call 'begin()'");
        return false;
    }
    const auto fmt = static_cast<AVSampleFormat>(samplefmt_to_avsamplefmt(format));
    const int frame_bytes = av_get_bytes_per_sample(fmt) * channels;
    // begin() sized the output for exactly this many bytes.
    const size_t block = static_cast<size_t>(frame_bytes) * static_cast<size_t>(need_samples);
    void* scratch = bg::mempool::malloc(static_cast<unsigned>(block), 16);
    if (!scratch) return false;
    std::memset(scratch, 0, block);
    uint8_t* planes[8] = {};
    int linesize = 0;
    av_samples_fill_arrays(planes, &linesize, static_cast<const uint8_t*>(scratch), channels, need_samples, fmt, 1);

    // At most one cycle's worth; the rest stays queued for the next cycle.
    const int n = av_audio_fifo_read(fifo, reinterpret_cast<void**>(planes), need_samples);
    const size_t bytes = n == need_samples ? block : n > 0 ? static_cast<size_t>(frame_bytes) * n : 0;
    SDL_MixAudioFormat(buffer->data, static_cast<const unsigned char*>(scratch), get_sdl_audio_fmt(format),
                       static_cast<unsigned>(bytes), volume);
    bg::mempool::free(scratch);
    return true;
}

// ---------------------------------------------------------------- writer

PcmWriter::PcmWriter(AudioMixerPrivate* mixer_) : mixer(mixer_) {}

PcmWriter::~PcmWriter() {
    if (fifo) av_audio_fifo_free(fifo);
    fifo = nullptr;
    mixer = nullptr;
}

bool PcmWriter::write(std::shared_ptr<AFrameCtx> frame, int volume) {
    return guarded("PcmWriterBase::write", false, [&] { return queue_and_mix(frame, volume); });
}

bool PcmWriter::queue_and_mix(const std::shared_ptr<AFrameCtx>& frame, int volume) {
    if (!frame || !mixer) return false;
    // The FIFO and the scratch block are laid out in the mixer's format: a
    // record of another shape would be read or written past its end.
    if (!mixer->accepts(*frame)) {
        CLIPDEC_LOG(kLogError, kTagDefault,
                    "mixer write: record of format %d, %d channels, planar %d, does not fit format %d, %d channels",
                    frame->format, frame->channels, frame->planar ? 1 : 0, samplefmt_to_avsamplefmt(mixer->format),
                    mixer->channels);
        return false;
    }
    if (!fifo) {
        fifo = av_audio_fifo_alloc(static_cast<AVSampleFormat>(frame->format), frame->channels, 1024);
        if (!fifo) return false;
    }
    if (frame->nb_samples > 0 &&
        av_audio_fifo_write(fifo, reinterpret_cast<void**>(frame->data), frame->nb_samples) < frame->nb_samples)
        return false;  // out of memory: nothing of the record was queued
    return mixer->merge(fifo, volume);
}

void PcmWriter::reset() {
    if (fifo) av_audio_fifo_reset(fifo);
}

int PcmWriter::pending() const { return fifo ? av_audio_fifo_size(fifo) : 0; }

// ---------------------------------------------------------------- facade

AudioMixer::AudioMixer(int sample_rate, int channels, SampleFormat format)
    : d(new AudioMixerPrivate(sample_rate, channels, format)) {}

AudioMixer::~AudioMixer() { delete d; }

void AudioMixer::begin(const Range& range) {
    guarded_void("AudioMixer::begin", [&] { d->begin(range); });
}

std::shared_ptr<PcmBuffer> AudioMixer::end() {
    return guarded("AudioMixer::end", std::shared_ptr<PcmBuffer>(), [&] { return d->end(); });
}

std::shared_ptr<PcmWriterBase> AudioMixer::getBuffer(void* key) {
    return guarded("AudioMixer::getBuffer", std::shared_ptr<PcmWriterBase>(), [&] { return d->getBuffer(key); });
}

const Range& AudioMixer::range() const { return d->get_range(); }

void AudioMixer::getFormat(int* sample_rate, int* channels, SampleFormat* format) {
    d->getFormat(sample_rate, channels, format);
}

}  // namespace ff
