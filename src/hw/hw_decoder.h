// Process-wide choice of a hardware decoding device, applied to every stream
// instance: codec contexts are wired to the device when the decoder supports
// it, and frames that live on the device are copied to system memory on
// receipt, so everything above sees software frames only. Any failure falls
// back to software decoding silently (with a log line).
//
// HWDecoder is a never-destroyed singleton. `mutex` (innermost, taken alone)
// guards the device name and device context; the device type is atomic so
// that decoding threads read it without a lock. Hosts are expected to choose
// the device before opening streams, but changing it while streams decode is
// safe: a context keeps the wiring it was allocated with.
#pragma once

#include <atomic>
#include <mutex>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/hwcontext.h>
}

#include "ff_compat.h"

namespace ff {

struct HWDecoderPrivate {
    std::atomic<AVHWDeviceType> device_type{AV_HWDEVICE_TYPE_NONE};  // NONE: off
    AVBufferRef* device_ctx = nullptr;  // the device wired contexts share (a reference)
    char device_name[32] = {};
    std::mutex mutex;  // guards device_ctx and device_name
};

// Attached to a codec context wired for hardware, in its `opaque` pointer.
struct HWCodecState {
    int state;                // 1 set up, 2 hardware frames seen, 0 refused by the last get_format
    AVPixelFormat hw_pix_fmt; // surface format of the matching hardware configuration
    void* prev_opaque;        // the context's opaque value before this record
};

class HWDecoder {
public:
    static HWDecoder* instance();

    bool enable_device(const char* name);
    void disable();
    std::vector<const char*> enum_devices();

    // In place of avcodec_alloc_context3 / avcodec_receive_frame / avcodec_free_context.
    AVCodecContext* hw_codec_alloc_context3(AVCodecPtr codec);
    int hw_codec_receive_frame(AVCodecContext* ctx, AVFrame* frame);
    // Frees the context and the hardware record attached to it.
    void hw_codec_free_context(AVCodecContext** ctx);

    HWDecoderPrivate* private_data() { return d; }

private:
    HWDecoder();
    ~HWDecoder();
    HWDecoderPrivate* d;
};

// The get_format callback of wired contexts: the hardware surface format when
// offered, otherwise the first (software) format, marking the context software.
AVPixelFormat get_hw_format(AVCodecContext* ctx, const AVPixelFormat* fmts);
// Attaches the process's device of the chosen type to `ctx`, creating it on
// first use or when the chosen type changed.
int hw_decoder_init(AVCodecContext* ctx, HWDecoderPrivate* d);
bool device_has_type(const AVBufferRef* device, AVHWDeviceType type);
// Completes a transfer from the device: `system` (holding the pictures in
// system memory) takes `frame`'s properties and then its place in `frame`.
int finish_transfer(AVFrame* frame, AVFrame* system);
// The hardware record of a context, or null when it was not wired. Only this
// layer sets `opaque` on the contexts the library decodes with, all of which
// it allocates, so a non-null value is always such a record.
HWCodecState* hw_codec_state(const AVCodecContext* ctx);

}  // namespace ff
