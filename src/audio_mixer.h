// Mixing several audio sources into one PCM buffer per time range, and the
// sample-level routines underneath: adding one PCM block into another with a
// volume, and measuring a block's peak level.
//
// A host creates an AudioMixer with the output rate, channel count and sample
// format, and then for each stretch of time:
//
//     mixer.begin(range);
//     for each source: mixer.getBuffer(source_key)->write(decoded, volume);
//     std::shared_ptr<PcmBuffer> pcm = mixer.end();
//
// The sources must deliver audio in the mixer's format and channel count (read
// them with getFormat and build the audio request from them); the mixer does
// not convert. Contiguous ranges share one sample clock measured from the
// start of the run, so cycle lengths that are not whole samples never add or
// drop samples over a long run, and a source that delivers more than a cycle
// needs carries the rest into the next cycle.
//
// One thread at a time may use a mixer and its writers; the mixer takes no locks.
#pragma once

#include <cstdint>
#include <memory>

#include "clipdec_export.h"
#include "frame_records.h"
#include "range.h"

namespace ff {

// PCM layouts of the mixing and metering routines. The values are this
// library's own (0 to 9), not the bit-coded constants of other audio APIs.
enum SDL_AudioFormat : int32_t {
    AF_U8 = 0,      // unsigned 8-bit, 128 is silence
    AF_S8 = 1,      // signed 8-bit
    AF_S16LSB = 2,  // signed 16-bit, little-endian
    AF_S16MSB = 3,  // signed 16-bit, big-endian
    AF_U16LSB = 4,  // unsigned 16-bit, little-endian
    AF_U16MSB = 5,  // unsigned 16-bit, big-endian
    AF_S32LSB = 6,  // signed 32-bit, little-endian
    AF_S32MSB = 7,  // signed 32-bit, big-endian
    AF_F32LSB = 8,  // 32-bit IEEE float, little-endian
    AF_F32MSB = 9,  // 32-bit IEEE float, big-endian
};

// The layout of a SampleFormat: SF_U8 -> AF_U8, SF_S16 -> AF_S16LSB,
// SF_S32 -> AF_S32LSB, SF_FLT -> AF_F32LSB. Anything else is logged as an
// error and gives AF_U8.
CLIPDEC_API SDL_AudioFormat get_sdl_audio_fmt(SampleFormat f);

// Per-source writer handed out by AudioMixer::getBuffer.
class CLIPDEC_API PcmWriterBase {
public:
    virtual ~PcmWriterBase();
    // Queues the record's samples and mixes up to one cycle's worth into the
    // mixer's output at `volume` (128 is unity gain, 0 adds nothing); samples
    // beyond the cycle stay queued for the next one. False for an empty
    // record, a record whose format or channel count differs from the
    // mixer's, a write outside a begin()/end() cycle (the samples stay
    // queued), or once the mixer is gone.
    virtual bool write(std::shared_ptr<AFrameCtx> frame, int volume) = 0;
};

class AudioMixerPrivate;

class CLIPDEC_API AudioMixer {
public:
    // `format` is the interleaved output format, also the format every source
    // must deliver.
    AudioMixer(int sample_rate, int channels, SampleFormat format);
    // Releases the writers' queues and the mixer's reference to its buffer.
    // Writers the host still holds stay valid objects but write nothing.
    ~AudioMixer();
    AudioMixer(const AudioMixer&) = delete;
    AudioMixer& operator=(const AudioMixer&) = delete;

    // Opens a cycle for `range` and zeroes its output. A range that does not
    // begin where the previous one ended starts a new run: every source's
    // queued samples are dropped and the sample clock restarts at range.begin.
    void begin(const Range& range);
    // Closes the cycle. The buffer's `size` bytes hold the mix, silence where
    // no source contributed. The same buffer is written again by the next
    // begin() unless that cycle needs more room. Empty before the first begin().
    std::shared_ptr<PcmBuffer> end();
    // The writer of source `key` (any pointer the host chooses; only compared),
    // created on first use and kept for the life of the mixer.
    std::shared_ptr<PcmWriterBase> getBuffer(void* key);
    // The range of the current or last cycle.
    const Range& range() const;
    // The three settings; null pointers are skipped.
    void getFormat(int* sample_rate, int* channels, SampleFormat* format);

private:
    AudioMixerPrivate* d;
};

}  // namespace ff

// Adds `len` bytes of `src` into `dst`, both interleaved samples of `format`,
// with the source scaled by `volume` (128 is unity gain; larger values
// amplify; integer layouts scale with integer division truncating toward
// zero). Sums are clipped at the limits of the sample type; unsigned 8-bit
// sums saturate at 254. Only whole samples are mixed: a trailing partial
// sample is left alone. A volume of 0 returns at once without looking at
// anything; an unknown `format` is reported with perror and changes nothing.
//
// Useful to hosts that mix their own PCM in the library's layouts. The name
// is in the global namespace but takes ff::SDL_AudioFormat, so it cannot
// collide with a C function of the same name from another audio library.
CLIPDEC_API void SDL_MixAudioFormat(unsigned char* dst, const unsigned char* src, ff::SDL_AudioFormat format,
                                    unsigned int len, int volume);

// The peak level of `len` bytes of `data` on the scale 0 .. `scale`: the
// largest sample magnitude over all channels, divided by the layout's full
// scale and multiplied by `scale`, truncated toward zero. Full scale is the
// largest positive sample value for the integer layouts (127, 32767,
// 2147483647; the most negative 8- and 16-bit values read slightly above
// `scale`) and 1.0 for 32-bit float, so a full-scale float signal reads
// `scale` like the integer ones. NaN samples and the 32-bit value -2^31 are
// left out. Unsigned 16-bit layouts and unknown codes are not measured (0).
// A mixer's output buffer can be metered with get_sdl_audio_fmt of its format.
CLIPDEC_API int Audio_Volume_Peak(ff::SDL_AudioFormat format, const unsigned char* data, unsigned int len, int scale);
