#include "color_conversion.h"

#include "ff_ptr.h"

extern "C" {
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
}

namespace ff {
namespace {

// The customary boundary between standard and high definition.
bool is_hd_size(int width, int height) { return width >= 1280 || height > 576; }

bool is_yuv(AVPixelFormat format) {
    const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(format);
    return desc && !(desc->flags & (AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_PAL)) && desc->nb_components >= 3;
}

// A matrix libswscale has coefficients for, or UNSPECIFIED.
AVColorSpace supported_matrix(AVColorSpace tag) {
    switch (tag) {
        case AVCOL_SPC_BT709:
        case AVCOL_SPC_FCC:
        case AVCOL_SPC_SMPTE240M:
        case AVCOL_SPC_BT470BG:
        case AVCOL_SPC_SMPTE170M:
        case AVCOL_SPC_BT2020_NCL:
            return tag;
        // libswscale has no constant-luminance path; the non-constant
        // matrix is the closest it offers.
        case AVCOL_SPC_BT2020_CL:
            return AVCOL_SPC_BT2020_NCL;
        default:
            return AVCOL_SPC_UNSPECIFIED;
    }
}

int sws_matrix(AVColorSpace matrix) {
    switch (matrix) {
        case AVCOL_SPC_BT709: return SWS_CS_ITU709;
        case AVCOL_SPC_FCC: return SWS_CS_FCC;
        case AVCOL_SPC_SMPTE240M: return SWS_CS_SMPTE240M;
        case AVCOL_SPC_BT2020_NCL: return SWS_CS_BT2020;
        default: return SWS_CS_ITU601;
    }
}

// The `yuvj` formats are their plain twins in full range; libswscale wants
// the twin and the range said separately (and warns about the old names).
AVPixelFormat without_jpeg_range(AVPixelFormat format) {
    switch (format) {
        case AV_PIX_FMT_YUVJ420P: return AV_PIX_FMT_YUV420P;
        case AV_PIX_FMT_YUVJ422P: return AV_PIX_FMT_YUV422P;
        case AV_PIX_FMT_YUVJ444P: return AV_PIX_FMT_YUV444P;
        case AV_PIX_FMT_YUVJ440P: return AV_PIX_FMT_YUV440P;
        case AV_PIX_FMT_YUVJ411P: return AV_PIX_FMT_YUV411P;
        default: return format;
    }
}

bool is_jpeg_format(AVPixelFormat format) { return without_jpeg_range(format) != format; }

// Chroma at full horizontal resolution (4:4:4, RGB) or at half of it on
// every line (4:2:2): detail that the default path would halve again.
bool has_fine_horizontal_chroma(const AVPixFmtDescriptor& desc) {
    if (desc.flags & AV_PIX_FMT_FLAG_RGB) return true;
    return desc.log2_chroma_w == 0 || (desc.log2_chroma_w == 1 && desc.log2_chroma_h == 0);
}

}  // namespace

bool ScalerSettings::operator==(const ScalerSettings& o) const {
    return src_width == o.src_width && src_height == o.src_height && src_format == o.src_format &&
           dst_width == o.dst_width && dst_height == o.dst_height && dst_format == o.dst_format &&
           flags == o.flags && src_matrix == o.src_matrix && src_full_range == o.src_full_range &&
           dst_matrix == o.dst_matrix && dst_full_range == o.dst_full_range;
}

AVColorSpace source_matrix(const AVFrame& frame) {
    const AVColorSpace tagged = supported_matrix(frame.colorspace);
    if (tagged != AVCOL_SPC_UNSPECIFIED) return tagged;
    return is_hd_size(frame.width, frame.height) ? AVCOL_SPC_BT709 : AVCOL_SPC_SMPTE170M;
}

bool source_full_range(const AVFrame& frame) {
    if (frame.color_range == AVCOL_RANGE_JPEG) return true;
    if (frame.color_range == AVCOL_RANGE_MPEG) return false;
    const auto format = static_cast<AVPixelFormat>(frame.format);
    return is_jpeg_format(format) || !is_yuv(format);
}

int scaler_flags_for(AVPixelFormat src_format, bool resizing) {
    const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(src_format);
    const bool fine_chroma = desc && has_fine_horizontal_chroma(*desc);
    const bool deep = desc && desc->comp[0].depth > 8;
    // 8-bit 4:2:0, nearly every camera and delivery format, keeps libswscale's
    // fast path: sequential playback stays at the plain decoder's pace.
    if (!fine_chroma && !deep) return SWS_FAST_BILINEAR;
    // By default libswscale reads and writes chroma at half the horizontal
    // resolution on its way to RGB, which smears 4:4:4 and 4:2:2 detail
    // (1-pixel coloured lines come out misplaced: under 10 dB at 4:4:4).
    // Above 8 bits, and for 4:2:2, the default rounding and the fast
    // special-case converters band and misplace chroma too.
    const int careful_chroma = SWS_FULL_CHR_H_INT | SWS_FULL_CHR_H_INP | SWS_ACCURATE_RND;
    // Resized pictures are previews and keep the fast bilinear filter. At full
    // size the filter only interpolates chroma (luma is copied), so bicubic,
    // which brings these sources to a careful conversion's result, costs little.
    return careful_chroma | (resizing ? SWS_FAST_BILINEAR : SWS_BICUBIC);
}

ScalerSettings scaler_settings_for(const AVFrame& frame, int dst_width, int dst_height, AVPixelFormat dst_format) {
    ScalerSettings s;
    const auto src_format = static_cast<AVPixelFormat>(frame.format);
    s.src_width = frame.width;
    s.src_height = frame.height;
    s.src_format = without_jpeg_range(src_format);
    s.dst_width = dst_width;
    s.dst_height = dst_height;
    s.dst_format = dst_format;
    s.flags = scaler_flags_for(src_format, frame.width != dst_width || frame.height != dst_height);
    s.src_matrix = source_matrix(frame);
    s.src_full_range = source_full_range(frame);
    s.dst_matrix = s.src_matrix;
    s.dst_full_range = !is_yuv(dst_format);
    return s;
}

SwsContext* prepare_scaler(SwsContext** sws, ScalerSettings* current, const ScalerSettings& wanted) {
    if (*sws && *current == wanted) return *sws;
    sws_freeContext(*sws);
    *sws = nullptr;
    *current = ScalerSettings();
    // libswscale asserts on formats it cannot handle; ask it first.
    const bool convertible = sws_isSupportedInput(wanted.src_format) > 0 &&
                             sws_isSupportedOutput(wanted.dst_format) > 0 && wanted.src_width > 0 &&
                             wanted.src_height > 0 && wanted.dst_width > 0 && wanted.dst_height > 0;
    if (!convertible) return nullptr;
    UniqueSwsContext owned(sws_alloc_context());
    SwsContext* ctx = owned.get();
    if (!ctx) return nullptr;
    // The ranges go in before initialisation: libswscale sets up its range
    // conversion there, and for sources above 8 bits only there.
    const bool configured =
        av_opt_set_int(ctx, "srcw", wanted.src_width, 0) >= 0 && av_opt_set_int(ctx, "srch", wanted.src_height, 0) >= 0 &&
        av_opt_set_int(ctx, "src_format", wanted.src_format, 0) >= 0 &&
        av_opt_set_int(ctx, "dstw", wanted.dst_width, 0) >= 0 && av_opt_set_int(ctx, "dsth", wanted.dst_height, 0) >= 0 &&
        av_opt_set_int(ctx, "dst_format", wanted.dst_format, 0) >= 0 &&
        av_opt_set_int(ctx, "sws_flags", wanted.flags, 0) >= 0 &&
        av_opt_set_int(ctx, "src_range", wanted.src_full_range ? 1 : 0, 0) >= 0 &&
        av_opt_set_int(ctx, "dst_range", wanted.dst_full_range ? 1 : 0, 0) >= 0;
    if (!configured || sws_init_context(ctx, nullptr, nullptr) < 0) return nullptr;
    // The matrices: libswscale otherwise takes every source as BT.601. (Its
    // answer is not checked: between two YUV formats of one matrix it reports
    // that there was nothing to change.)
    sws_setColorspaceDetails(ctx, sws_getCoefficients(sws_matrix(wanted.src_matrix)), wanted.src_full_range ? 1 : 0,
                             sws_getCoefficients(sws_matrix(wanted.dst_matrix)), wanted.dst_full_range ? 1 : 0, 0,
                             1 << 16, 1 << 16);
    *sws = owned.release();
    *current = wanted;
    return ctx;
}

}  // namespace ff
