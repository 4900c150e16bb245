// Request and result records that cross the decoder interface, and the
// library's own format codes.
//
// Requests are plain values the host fills in; decoders copy them. Results
// are shared read-only through std::shared_ptr: each holds one block of the
// buffer pool and returns it when the last reference goes, so a result
// outlives the decoder that made it.
#pragma once

#include <atomic>
#include <cstdint>

#include "clipdec_export.h"
#include "range.h"
#include "rational.h"

namespace ff {

// Pixel formats a host can ask for; each maps to one FFmpeg pixel format.
enum PixelFormat : int32_t { PF_NONE = 0, PF_RGBA = 1, PF_YUV420P = 2, PF_NV12 = 3 };

// Packed (interleaved) sample formats a host can ask for.
enum SampleFormat : int32_t { SF_NONE = 0, SF_U8 = 1, SF_S16 = 2, SF_S32 = 3, SF_FLT = 4 };

// Placed in a request's `format`, marks a positioning request: the decoder
// moves to the requested time and returns no frame.
constexpr int32_t FMT_SEEK_ONLY = 999111;

// How far a picture may be reduced; getImageDivider turns it into a divider.
enum MemoryMode : int32_t { MM_FULL = 0, MM_AUTO = 1, MM_EXPORT = 2 };

struct RequireVideoFrame {
    Rational time;                          // seconds from the stream's start
    PixelFormat format = PF_RGBA;           // or FMT_SEEK_ONLY
    int divider = 1;                        // > 1 shrinks the picture by that factor
    std::atomic<bool>* cancel = nullptr;    // null: the decoder's own stop flag
};

struct RequireAudioFrame {
    Range range;                            // [begin, end) in seconds from the stream's start
    SampleFormat format = SF_FLT;           // or FMT_SEEK_ONLY
    int sample_rate = 48000;
    int channels = 2;                       // FFmpeg's default layout for the count
    std::atomic<bool>* cancel = nullptr;    // null: the decoder's own stop flag
};

struct CLIPDEC_API VFrameCtx {
    int width = 0;                 // after division
    int height = 0;
    int format = 0;                // FFmpeg pixel format number
    uint8_t* data[8] = {};         // planes inside `buffer`
    int linesize[8] = {};
    int src_width = 0;             // the stream's full picture size
    int src_height = 0;
    int divider = 1;               // the request's divider, copied unchanged
    int64_t pts = 0;               // microseconds
    void* buffer = nullptr;        // pooled block holding every plane; owned
    int size = 0;
    // The picture's colour description (FFmpeg's AVColorSpace and
    // AVColorRange numbers): RGBA pictures are AVCOL_SPC_RGB in full range;
    // YUV pictures keep the source's matrix in limited range.
    int color_space = 0;
    int color_range = 0;

    VFrameCtx() = default;
    ~VFrameCtx();
    VFrameCtx(const VFrameCtx&) = delete;
    VFrameCtx& operator=(const VFrameCtx&) = delete;
};

struct CLIPDEC_API AFrameCtx {
    int channels = 0;
    int sample_rate = 0;
    int format = 0;                // FFmpeg sample format number
    bool planar = false;
    uint8_t* data[8] = {};         // planes inside `buffer` (one for packed formats)
    int linesize[8] = {};
    int nb_samples = 0;            // per channel
    int64_t pts = 0;               // the requested range's begin, microseconds
    void* buffer = nullptr;        // pooled block holding the samples; owned
    int size = 0;

    AFrameCtx() = default;
    ~AFrameCtx();
    AFrameCtx(const AFrameCtx&) = delete;
    AFrameCtx& operator=(const AFrameCtx&) = delete;
};

// The audio mixer's output buffer.
struct CLIPDEC_API PcmBuffer {
    uint8_t* data = nullptr;       // pooled block; owned
    int size = 0;                  // bytes of valid PCM
    int capacity = 0;              // bytes allocated

    PcmBuffer() = default;
    ~PcmBuffer();
    PcmBuffer(const PcmBuffer&) = delete;
    PcmBuffer& operator=(const PcmBuffer&) = delete;
};

// Format translations; unknown values map to the other side's "none"
// (-1 for FFmpeg, PF_NONE / SF_NONE for the library).
CLIPDEC_API int pixfmt_to_avpixfmt(PixelFormat f);
CLIPDEC_API PixelFormat avpixfmt_to_pixfmt(int av);
CLIPDEC_API int samplefmt_to_avsamplefmt(SampleFormat f);
CLIPDEC_API SampleFormat avsamplefmt_to_samplefmt(int av);

}  // namespace ff
