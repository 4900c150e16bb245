#include "picture_orientation.h"

#include <cmath>
#include <cstring>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
}

#include "ff_tools.h"
#include "guarded.h"
#include "utils/mempool.h"

namespace ff {
namespace {

bool near_angle(double a, double b) { return std::fabs(a - b) < 1.0; }

// The quarter turn nearest to `rotation` (degrees, any value), 0 to 270.
int nearest_quarter_turn(double rotation) {
    const long turns = std::lround(rotation / 90.0) % 4;
    return static_cast<int>((turns + 4) % 4) * 90;
}

bool swaps_sides(Orientation how) {
    return how == OR_ROTATE_90 || how == OR_ROTATE_270 || how == OR_TRANSPOSE || how == OR_TRANSVERSE;
}

// The source pixel that lands on (dx, dy) of the turned picture, for a
// source of sw x sh pixels.
void source_of(Orientation how, int dx, int dy, int sw, int sh, int* sx, int* sy) {
    switch (how) {
        case OR_ROTATE_90: *sx = dy; *sy = sh - 1 - dx; return;
        case OR_ROTATE_180: *sx = sw - 1 - dx; *sy = sh - 1 - dy; return;
        case OR_ROTATE_270: *sx = sw - 1 - dy; *sy = dx; return;
        case OR_HFLIP: *sx = sw - 1 - dx; *sy = dy; return;
        case OR_VFLIP: *sx = dx; *sy = sh - 1 - dy; return;
        case OR_TRANSPOSE: *sx = dy; *sy = dx; return;
        case OR_TRANSVERSE: *sx = sw - 1 - dy; *sy = sh - 1 - dx; return;
        default: *sx = dx; *sy = dy; return;
    }
}

// Turns one plane of sw x sh pixels of `bytes` bytes each.
void turn_plane(Orientation how, const uint8_t* src, int src_linesize, int sw, int sh, int bytes, uint8_t* dst,
                int dst_linesize) {
    const int dw = swaps_sides(how) ? sh : sw;
    const int dh = swaps_sides(how) ? sw : sh;
    for (int dy = 0; dy < dh; ++dy) {
        uint8_t* row = dst + static_cast<size_t>(dy) * dst_linesize;
        for (int dx = 0; dx < dw; ++dx) {
            int sx = 0, sy = 0;
            source_of(how, dx, dy, sw, sh, &sx, &sy);
            std::memcpy(row + static_cast<size_t>(dx) * bytes,
                        src + static_cast<size_t>(sy) * src_linesize + static_cast<size_t>(sx) * bytes, bytes);
        }
    }
}

struct PlaneLayout {
    int count = 0;
    int bytes[3] = {};  // bytes per pixel of each plane
    int shift = 0;      // chroma planes' subsampling on both sides (4:2:0)
};

bool layout_of(int format, PlaneLayout* layout) {
    switch (format) {
        case AV_PIX_FMT_RGBA: *layout = {1, {4, 0, 0}, 0}; return true;
        case AV_PIX_FMT_YUV420P: *layout = {3, {1, 1, 1}, 1}; return true;
        case AV_PIX_FMT_NV12: *layout = {2, {1, 2, 0}, 1}; return true;
        default: return false;
    }
}

}  // namespace

Orientation orientation_of(const AVStream* st, double rotation) {
    const auto* m = st ? reinterpret_cast<const int32_t*>(
                             av_stream_get_side_data(st, AV_PKT_DATA_DISPLAYMATRIX, nullptr))
                       : nullptr;
    const int theta = nearest_quarter_turn(rotation);
    // A matrix that also mirrors shows it in the signs of its terms; a
    // rotation given only as a tag never mirrors.
    if (near_angle(theta, 90)) return m && m[3] > 0 ? OR_TRANSPOSE : OR_ROTATE_90;
    if (near_angle(theta, 270)) return m && m[3] < 0 ? OR_TRANSVERSE : OR_ROTATE_270;
    if (near_angle(theta, 180)) {
        const bool hflip = !m || m[0] < 0;
        const bool vflip = !m || m[4] < 0;
        if (hflip && vflip) return OR_ROTATE_180;
        return hflip ? OR_HFLIP : vflip ? OR_VFLIP : OR_NORMAL;
    }
    return m && m[4] < 0 ? OR_VFLIP : OR_NORMAL;
}

namespace {

std::shared_ptr<VFrameCtx> upright_image(const std::shared_ptr<VFrameCtx>& picture, Orientation how) {
    if (!picture || how == OR_NORMAL) return picture;
    PlaneLayout layout;
    if (how < OR_NORMAL || how > OR_TRANSVERSE || !layout_of(picture->format, &layout) || picture->width <= 0 ||
        picture->height <= 0)
        return {};
    const auto format = static_cast<AVPixelFormat>(picture->format);
    const int width = swaps_sides(how) ? picture->height : picture->width;
    const int height = swaps_sides(how) ? picture->width : picture->height;
    const int size = av_image_get_buffer_size(format, width, height, 32);
    if (size <= 0) return {};
    // The record first: a block it owns cannot leak if making it throws.
    auto turned = std::make_shared<VFrameCtx>();
    void* buffer = bg::mempool::malloc(static_cast<unsigned>(size), 16);
    if (!buffer) return {};
    turned->buffer = buffer;
    turned->size = size;
    turned->width = width;
    turned->height = height;
    turned->format = picture->format;
    av_image_fill_arrays(turned->data, turned->linesize, static_cast<const uint8_t*>(buffer), format, width, height,
                         32);
    turned->src_width = swaps_sides(how) ? picture->src_height : picture->src_width;
    turned->src_height = swaps_sides(how) ? picture->src_width : picture->src_height;
    turned->divider = picture->divider;
    turned->pts = picture->pts;
    turned->color_space = picture->color_space;
    turned->color_range = picture->color_range;
    for (int p = 0; p < layout.count; ++p) {
        const int shift = p == 0 ? 0 : layout.shift;
        // Subsampled planes round up, as the picture's own layout does.
        const int sw = (picture->width + (1 << shift) - 1) >> shift;
        const int sh = (picture->height + (1 << shift) - 1) >> shift;
        turn_plane(how, picture->data[p], picture->linesize[p], sw, sh, layout.bytes[p], turned->data[p],
                   turned->linesize[p]);
    }
    return turned;
}

}  // namespace

std::shared_ptr<VFrameCtx> getUprightImage(const std::shared_ptr<VFrameCtx>& picture, Orientation how) {
    return guarded("getUprightImage", std::shared_ptr<VFrameCtx>(), [&] { return upright_image(picture, how); });
}

}  // namespace ff
