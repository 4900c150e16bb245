// The mixer's working parts: the per-cycle sample clock and output buffer,
// the per-source writers with their FIFOs, and the 8-bit mixing table.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <unordered_map>

extern "C" {
#include <libavutil/audio_fifo.h>
}

#include "audio_mixer.h"
#include "range.h"
#include "rational.h"

namespace ff {

// Unsigned 8-bit sums: entry i is i - 128 clamped to 0 .. 254, indexed by
// destination plus scaled source (0 .. 510). The upper limit is 254, not 255.
constexpr std::array<uint8_t, 512> make_mix8() {
    std::array<uint8_t, 512> t{};
    for (int i = 0; i < 512; ++i) {
        const int x = i - 128;
        t[i] = static_cast<uint8_t>(x < 0 ? 0 : x > 254 ? 254 : x);
    }
    return t;
}
inline constexpr std::array<uint8_t, 512> mix8 = make_mix8();

class AudioMixerPrivate {
public:
    AudioMixerPrivate(int sample_rate, int channels, SampleFormat format);
    ~AudioMixerPrivate();
    AudioMixerPrivate(const AudioMixerPrivate&) = delete;
    AudioMixerPrivate& operator=(const AudioMixerPrivate&) = delete;

    void begin(const Range& r);
    std::shared_ptr<PcmBuffer> end();
    std::shared_ptr<PcmWriterBase> getBuffer(void* key);
    const Range& get_range() const { return range; }
    void getFormat(int* sample_rate, int* channels, SampleFormat* format);

    // Empties every writer's FIFO.
    void clear();
    // Mixes up to one cycle's worth of `fifo` into the output, from its first
    // byte on. False when there is nothing to mix or no cycle is open.
    bool merge(AVAudioFifo* fifo, int volume);

    // Whether a record may enter this mixer's FIFOs: packed, in the mixer's
    // format and channel count, with as many bytes as it claims samples.
    bool accepts(const AFrameCtx& frame) const;

    int sample_rate;
    int channels;
    SampleFormat format;
    std::unordered_map<void*, std::shared_ptr<PcmWriterBase>> writers;
    int64_t pos = 0;
    Rational start;
    Range range{Rational(0, 0), Rational(0, 0)};
    int need_samples = 0;
    std::shared_ptr<PcmBuffer> buffer;
};

class PcmWriter : public PcmWriterBase {
public:
    explicit PcmWriter(AudioMixerPrivate* mixer);
    ~PcmWriter() override;

    bool write(std::shared_ptr<AFrameCtx> frame, int volume) override;
    bool queue_and_mix(const std::shared_ptr<AFrameCtx>& frame, int volume);
    void reset();

    // Pending samples, for inspection; 0 without a FIFO.
    int pending() const;

    AVAudioFifo* fifo = nullptr;
    AudioMixerPrivate* mixer = nullptr;
};

}  // namespace ff
