// The library's exported free functions of the namespace ff that belong to no
// class: the buffer pool, the export picture size and image divider, movie
// descriptions and the hardware-decoding choice.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "clipdec_export.h"
#include "frame_records.h"
#include "movie_info.h"

namespace ff {

// Pooled memory for the host, see bg::mempool. A negative `size` returns null
// rather than being read as a request of some 4 GB.
CLIPDEC_API void* mem_malloc(int size, unsigned alignment);
CLIPDEC_API void mem_free(void* p);
// Gives back to the system the free buffers idle for more than `ms`
// milliseconds (0: all of them), after letting go of the cached thumbnails
// and the probe's parked decoders idle as long. The library never does this
// on its own.
CLIPDEC_API void mem_collection(unsigned ms);

// The export picture size; its pixel count (a 32-bit product) is what
// MM_EXPORT divides against. Each value is read and written whole.
CLIPDEC_API extern std::atomic<int32_t> g_export_width;
CLIPDEC_API extern std::atomic<int32_t> g_export_height;
CLIPDEC_API extern std::atomic<int32_t> g_w_h_multi;
CLIPDEC_API void setExportMVSize(int width, int height);

// The image divider (>= 1) that `mode` allows for a width x height picture:
// MM_FULL 1; MM_AUTO 4 from 3840x2160 pixels, 2 from 1920x1080, else 1;
// MM_EXPORT the pixel-count ratio to the export size, rounded half up (1 when
// no export size is set or the picture is not larger); any other mode 1.
CLIPDEC_API int getImageDivider(MemoryMode mode, int width, int height);

// A thumbnail request: one picture of a movie, shrunk by a whole divider to
// about a target size.
struct RequireMvImage {
    double ratio = 0.5;                     // position as a fraction of the duration; used when `time` is undefined
    Rational time{0, 0};                    // seconds; a zero denominator means no time is given
    int width = 0;                          // target width in pixels; <= 0: no width limit
    int height = 0;                         // target height in pixels; <= 0: no height limit
    PixelFormat format = PF_RGBA;
    std::atomic<bool>* cancel = nullptr;    // handed to the probe and to the picture request
    bool upright = false;                   // turn the picture as the stream's display matrix says
};

// The divider getMovieImage uses for a src_width x src_height stream and a
// target of width x height (<= 0: no limit on that side): the largest that
// keeps the picture within about the target and not under half of it. Hosts
// use it to ask for other pictures of the same size.
CLIPDEC_API int movie_image_divider(int src_width, int src_height, int width, int height);

// One picture of the movie at `path`, or empty. Probes the file, decodes on
// its first video stream that opens, at req.time (or at req.ratio of the
// duration), with the largest divider that keeps the picture at about the
// target size and not under half of it, turned upright when `req.upright`
// (the sizes then apply to the stored picture). `*duration` (may be null) receives
// the movie's duration as {microseconds, 1000000} once the probe succeeded,
// even when no picture results. The picture outlives the decoder that made it.
// The most recent pictures (32, at most 64 MB) are kept: the same path, time,
// target size and format again give the same picture without decoding.
CLIPDEC_API std::shared_ptr<VFrameCtx> getMovieImage(const char* path, const RequireMvImage& req, Rational* duration);

// A new picture holding `picture` turned by `how` (StreamCtx::orientation
// says how a stream's pictures are seen upright; a quarter turn swaps width
// and height), in pooled memory; the same picture for OR_NORMAL. Decoded
// pictures keep their stored orientation, so a host turns them itself in its
// compositor or through this. Works for the library's picture formats (RGBA,
// YUV420P, NV12); null for others, for a null picture, or when memory runs
// out.
CLIPDEC_API std::shared_ptr<VFrameCtx> getUprightImage(const std::shared_ptr<VFrameCtx>& picture, Orientation how);

// The peak level of an audio record on the scale 0 .. `scale` (see
// Audio_Volume_Peak); for planar records the first plane only. 0 for an
// empty pointer or a record without samples.
CLIPDEC_API int getAudioPeak(std::shared_ptr<AFrameCtx> frame, int scale);

// FFDecoder::probe under a second name.
CLIPDEC_API MovieCtx* getMovieInfo(const char* path, std::atomic<bool>* cancel);

// Hardware decoding for streams opened afterwards. `name` is an FFmpeg device
// type ("vaapi", "cuda", ...); null or empty picks the first type FFmpeg
// lists (false when it lists none). Whenever the device cannot be used,
// decoding falls back to software.
CLIPDEC_API bool hw_enable_device(const char* name);
CLIPDEC_API void hw_disable();
// The device types this FFmpeg build supports (FFmpeg's static strings).
CLIPDEC_API std::vector<const char*> hw_enum_devices();

}  // namespace ff
