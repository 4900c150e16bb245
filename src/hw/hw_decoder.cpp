#include "hw/hw_decoder.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include "ff_ptr.h"
#include "log.h"

namespace ff {
namespace {

// The first configuration of `codec` that takes a device context of `type`.
const AVCodecHWConfig* find_hw_config(AVCodecPtr codec, AVHWDeviceType type) {
    for (int i = 0;; ++i) {
        const AVCodecHWConfig* cfg = avcodec_get_hw_config(codec, i);
        if (!cfg) return nullptr;
        if ((cfg->methods & AV_CODEC_HW_CONFIG_METHOD_HW_DEVICE_CTX) && cfg->device_type == type) return cfg;
    }
}

// A frame still on the device: in the surface format of the context's
// configuration, or carrying a pool of device frames (the decoder's own
// choice of surface).
bool on_device(const AVFrame* frame, const HWCodecState& record) {
    return frame->hw_frames_ctx || frame->format == record.hw_pix_fmt;
}

// Replaces a device frame by its copy in system memory. A frame in the
// surface format without its pool cannot be read back (FFmpeg would follow
// the missing pool), so it is an error rather than a transfer.
int transfer_to_system(AVFrame* frame) {
    UniqueAVFrame sw = make_frame();
    const int err = !frame->hw_frames_ctx ? AVERROR(EINVAL)
                    : sw                  ? av_hwframe_transfer_data(sw.get(), frame, 0)
                                          : AVERROR(ENOMEM);
    if (err < 0) {
        CLIPDEC_LOG(kLogError, kTagHw, "[hwdec] error transferring the data to system memory");
        av_frame_unref(frame);
        return err;
    }
    return finish_transfer(frame, sw.get());
}

}  // namespace

HWDecoder::HWDecoder() : d(new HWDecoderPrivate()) {}
HWDecoder::~HWDecoder() { delete d; }

HWDecoder* HWDecoder::instance() {
    // Never destroyed: contexts wired to its device may outlive static destruction.
    static HWDecoder* const decoder = new HWDecoder();
    return decoder;
}

std::vector<const char*> HWDecoder::enum_devices() {
    std::vector<const char*> names;
    std::string list;
    AVHWDeviceType type = AV_HWDEVICE_TYPE_NONE;
    while ((type = av_hwdevice_iterate_types(type)) != AV_HWDEVICE_TYPE_NONE) {
        const char* name = av_hwdevice_get_type_name(type);
        names.push_back(name);
        list += name;
        list += ',';
    }
    CLIPDEC_LOG(kLogError, kTagHw, "[hw]# available device types: %s", list.c_str());
    return names;
}

bool HWDecoder::enable_device(const char* name) {
    if (!name || !*name) {
        const std::vector<const char*> names = enum_devices();
        // Without any device type in this FFmpeg build there is no default.
        if (names.empty()) return false;
        name = names.front();
        CLIPDEC_LOG(kLogError, kTagHw, "[hw]# Use default HWDevice: '%s'", name);
    }
    const AVHWDeviceType type = av_hwdevice_find_type_by_name(name);
    if (type == AV_HWDEVICE_TYPE_NONE) {
        CLIPDEC_LOG(kLogError, kTagHw, "Device type '%s' is not supported.", name);
        enum_devices();
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        std::strncpy(d->device_name, name, sizeof d->device_name - 1);
        d->device_name[sizeof d->device_name - 1] = '\0';
    }
    d->device_type.store(type);
    return true;
}

void HWDecoder::disable() {
    d->device_type.store(AV_HWDEVICE_TYPE_NONE);
    CLIPDEC_LOG(kLogError, kTagHw, "disable HWdevice, 用户选择禁用硬件解码器");
}

AVCodecContext* HWDecoder::hw_codec_alloc_context3(AVCodecPtr codec) {
    if (!codec || codec->type != AVMEDIA_TYPE_VIDEO) return avcodec_alloc_context3(codec);
    const AVHWDeviceType type = d->device_type.load();
    if (type == AV_HWDEVICE_TYPE_NONE) {
        CLIPDEC_LOG(kLogDebug, kTagHw, "type==none, 用户未启用硬件解码");
        return avcodec_alloc_context3(codec);
    }
    const AVCodecHWConfig* cfg = find_hw_config(codec, type);
    if (!cfg) {
        std::string device;
        {
            std::lock_guard<std::mutex> lock(d->mutex);
            device = d->device_name;
        }
        CLIPDEC_LOG(kLogError, kTagHw, "Decoder '%s' does not support device type '%s'", codec->name,
                    device.c_str());
        return avcodec_alloc_context3(codec);
    }
    AVCodecContext* ctx = avcodec_alloc_context3(codec);
    if (!ctx || cfg->pix_fmt == AV_PIX_FMT_NONE) return ctx;

    auto* record = static_cast<HWCodecState*>(std::malloc(sizeof(HWCodecState)));
    if (!record) return ctx;  // software decoding
    const auto previous_get_format = ctx->get_format;
    ctx->get_format = get_hw_format;
    if (hw_decoder_init(ctx, d) < 0) {
        ctx->get_format = previous_get_format;
        std::free(record);
        return ctx;
    }
    *record = HWCodecState{1, cfg->pix_fmt, ctx->opaque};
    ctx->opaque = record;
    return ctx;
}

int hw_decoder_init(AVCodecContext* ctx, HWDecoderPrivate* d) {
    std::lock_guard<std::mutex> lock(d->mutex);
    // One device per process, shared by every wired context (probe, tasks,
    // rewinds): each holds a reference of its own. A device of another type
    // than the one now chosen is let go (contexts keep theirs alive).
    const AVHWDeviceType type = d->device_type.load();
    if (!device_has_type(d->device_ctx, type)) {
        av_buffer_unref(&d->device_ctx);
        const int err = av_hwdevice_ctx_create(&d->device_ctx, type, nullptr, nullptr, 0);
        if (err < 0) {
            CLIPDEC_LOG(kLogError, kTagHw, "Failed to create specified HW device. ==> %s", d->device_name);
            return err;
        }
    }
    ctx->hw_device_ctx = av_buffer_ref(d->device_ctx);
    return ctx->hw_device_ctx ? 0 : AVERROR(ENOMEM);
}

bool device_has_type(const AVBufferRef* device, AVHWDeviceType type) {
    return device && device->data && reinterpret_cast<const AVHWDeviceContext*>(device->data)->type == type;
}

int finish_transfer(AVFrame* frame, AVFrame* system) {
    // Everything but the pictures themselves (timing, aspect ratio, colour
    // description, side data) stays as the decoder described the frame.
    const int err = av_frame_copy_props(system, frame);
    av_frame_unref(frame);
    if (err < 0) {
        av_frame_unref(system);
        return err;
    }
    av_frame_move_ref(frame, system);
    return 0;
}

HWCodecState* hw_codec_state(const AVCodecContext* ctx) {
    return ctx ? static_cast<HWCodecState*>(ctx->opaque) : nullptr;
}

AVPixelFormat get_hw_format(AVCodecContext* ctx, const AVPixelFormat* fmts) {
    HWCodecState* record = hw_codec_state(ctx);
    if (!record) return fmts ? fmts[0] : AV_PIX_FMT_NONE;
    if (!fmts) return AV_PIX_FMT_NONE;
    for (const AVPixelFormat* p = fmts; *p != AV_PIX_FMT_NONE; ++p) {
        if (*p == record->hw_pix_fmt) {
            // Offered again after a refusal (a new sequence): hardware it is.
            if (record->state == 0) record->state = 1;
            return *p;
        }
    }
    record->state = 0;
    CLIPDEC_LOG(kLogError, kTagHw, "Failed to get HW surface format. 当前硬解码不支持该像素格式");
    return fmts[0];
}

int HWDecoder::hw_codec_receive_frame(AVCodecContext* ctx, AVFrame* frame) {
    const int ret = avcodec_receive_frame(ctx, frame);
    // The context's own record decides, not the process-wide choice: a context
    // wired before hw_disable() still delivers device frames, which must be
    // transferred like any other.
    HWCodecState* record = hw_codec_state(ctx);
    if (ret != 0 || !record || ctx->codec_type != AVMEDIA_TYPE_VIDEO) return ret;
    // Whatever the record's state, a frame still on the device goes to system
    // memory: a context that once fell back to software may be offered the
    // hardware format again.
    if (!on_device(frame, *record)) return 0;
    if (record->state == 1) {
        record->state = 2;
        std::string device;
        {
            std::lock_guard<std::mutex> lock(d->mutex);
            device = d->device_name;
        }
        CLIPDEC_LOG(kLogError, kTagHw, "[hwdec] device '%s' is OK for '%s'", device.c_str(),
                    avcodec_get_name(ctx->codec_id));
    }
    return transfer_to_system(frame);
}

void HWDecoder::hw_codec_free_context(AVCodecContext** ctx) {
    if (!ctx || !*ctx) return;
    if (HWCodecState* record = hw_codec_state(*ctx)) {
        (*ctx)->opaque = record->prev_opaque;
        std::free(record);
    }
    avcodec_free_context(ctx);
}

}  // namespace ff
