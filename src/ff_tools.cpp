#include "ff_tools.h"

#include <algorithm>
#include <cmath>
#include <memory>

#include "audio_mixer.h"
#include "ffdecoder.h"
#include "first_video.h"
#include "guarded.h"
#include "hw/hw_decoder.h"
#include "log.h"
#include "parked_instances.h"
#include "thumbnail_cache.h"
#include "utils/mempool.h"

namespace ff {

std::atomic<int32_t> g_export_width{0};
std::atomic<int32_t> g_export_height{0};
std::atomic<int32_t> g_w_h_multi{0};

namespace {

// 32-bit products wrap like the host's own int arithmetic, without UB.
int32_t product32(int a, int b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}

constexpr int32_t kPixels4K = 3840 * 2160;
constexpr int32_t kPixels1080p = 1920 * 1080;

}  // namespace

void* mem_malloc(int size, unsigned alignment) {
    if (size < 0) {
        return nullptr;
    }
    return bg::mempool::malloc(static_cast<unsigned>(size), alignment);
}

void mem_free(void* p) { bg::mempool::free(p); }

void mem_collection(unsigned ms) {
    guarded_void("mem_collection", [&] {
        // Cached thumbnails hold pooled blocks, and parked probe instances
        // decoder memory: let go of the idle ones first.
        ThumbnailCache::instance().release_older_than(ms);
        ParkedInstances::instance().release_older_than(ms);
        bg::mempool::collection(ms);
    });
}

void setExportMVSize(int width, int height) {
    g_export_width.store(width);
    g_export_height.store(height);
    g_w_h_multi.store(product32(width, height));
}

int getImageDivider(MemoryMode mode, int width, int height) {
    const int32_t pixels = product32(width, height);
    switch (mode) {
        case MM_AUTO:
            return pixels >= kPixels4K ? 4 : pixels >= kPixels1080p ? 2 : 1;
        case MM_EXPORT: {
            const int32_t export_pixels = g_w_h_multi.load();
            if (export_pixels < 1 || pixels <= export_pixels) return 1;
            const int divider = static_cast<int>(static_cast<double>(pixels) / export_pixels + 0.5);
            return divider < 1 ? 1 : divider;
        }
        default:
            return 1;
    }
}

int movie_image_divider(int src_width, int src_height, int width, int height) {
    int divider = 1;
    if (width > 0 && width < src_width) {
        // The smallest k >= 2 with src_width / k <= width, found directly
        // rather than by counting up from 2.
        const int k = std::max(2, src_width / (width + 1) + 1);
        // One step less when the picture would come out under half the target.
        divider = width / 2 > src_width / k ? k - 1 : k;
    }
    if (height > 0) {
        if (src_height / divider > height) divider = src_height / (height + 1) + 1;
        if (divider > 1 && height / 2 > src_height / divider) --divider;
    }
    return divider;
}

namespace {

// A double as microseconds, truncated toward zero; out-of-range values
// (an unknown duration times a ratio, NaN) give the nearest representable time.
int64_t truncate_to_int64(double v) {
    if (std::isnan(v)) return 0;
    if (v >= 9.2233720368547758e18) return INT64_MAX;
    if (v <= -9.2233720368547758e18) return INT64_MIN;
    return static_cast<int64_t>(v);
}

std::shared_ptr<VFrameCtx> movie_image(const char* path, const RequireMvImage& req, Rational* duration) {
    Rational unused;
    if (!duration) duration = &unused;

    MovieCtx* movie = FFDecoder::probe(path, req.cancel);
    if (!movie) {
        CLIPDEC_LOG(kLogError, kTagDefault, "@@获取视频封面和信息失败：%s", path ? path : "(null)");
        return {};
    }
    *duration = Rational(movie->duration, 1000000);
    if (movie->nb_video <= 0) return {};

    RequireVideoFrame frame_req;
    frame_req.time = req.time.den != 0
                         ? req.time
                         : Rational(truncate_to_int64(static_cast<double>(movie->duration) * req.ratio), 1000000);
    ThumbnailKey key{movie->path ? movie->path : "", frame_req.time, req.width, req.height, req.format, req.upright};
    key.time.reduce();
    // A raised cancel flag gets the empty answer a cancelled decode gives.
    const bool cancelled = req.cancel && req.cancel->load();
    if (!cancelled) {
        if (std::shared_ptr<VFrameCtx> again = ThumbnailCache::instance().find(key)) return again;
    }

    std::unique_ptr<FFDecoder> decoder = open_first_video(movie);
    if (!decoder) return {};

    const StreamCtx* stream = decoder->streamContex();
    frame_req.format = req.format;
    frame_req.divider = movie_image_divider(stream->width, stream->height, req.width, req.height);
    frame_req.cancel = req.cancel;
    // The picture's memory belongs to the record, so it survives the decoder.
    std::shared_ptr<VFrameCtx> picture = decoder->getVideoFrame(frame_req);
    if (req.upright) picture = getUprightImage(picture, stream->orientation);
    ThumbnailCache::instance().insert(key, picture);
    return picture;
}

}  // namespace

std::shared_ptr<VFrameCtx> getMovieImage(const char* path, const RequireMvImage& req, Rational* duration) {
    return guarded("getMovieImage", std::shared_ptr<VFrameCtx>(), [&] { return movie_image(path, req, duration); });
}

int getAudioPeak(std::shared_ptr<AFrameCtx> frame, int scale) {
    if (!frame) return 0;
    const SDL_AudioFormat format = get_sdl_audio_fmt(avsamplefmt_to_samplefmt(frame->format));
    const auto* bytes = static_cast<const unsigned char*>(frame->planar ? frame->data[0] : frame->buffer);
    const int len = frame->planar ? frame->linesize[0] : frame->size;
    if (!bytes || len <= 0) return 0;
    return Audio_Volume_Peak(format, bytes, static_cast<unsigned>(len), scale);
}

MovieCtx* getMovieInfo(const char* path, std::atomic<bool>* cancel) { return FFDecoder::probe(path, cancel); }

bool hw_enable_device(const char* name) {
    return guarded("hw_enable_device", false, [&] { return HWDecoder::instance()->enable_device(name); });
}
void hw_disable() { HWDecoder::instance()->disable(); }
std::vector<const char*> hw_enum_devices() {
    return guarded("hw_enum_devices", std::vector<const char*>(), [] { return HWDecoder::instance()->enum_devices(); });
}

}  // namespace ff
