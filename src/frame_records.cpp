#include "frame_records.h"

extern "C" {
#include <libavutil/pixfmt.h>
#include <libavutil/samplefmt.h>
}

#include "utils/mempool.h"

namespace ff {
namespace {

struct PixelPair {
    PixelFormat code;
    AVPixelFormat av;
};
constexpr PixelPair kPixelFormats[] = {
    {PF_RGBA, AV_PIX_FMT_RGBA}, {PF_YUV420P, AV_PIX_FMT_YUV420P}, {PF_NV12, AV_PIX_FMT_NV12}};

struct SamplePair {
    SampleFormat code;
    AVSampleFormat av;
};
constexpr SamplePair kSampleFormats[] = {{SF_U8, AV_SAMPLE_FMT_U8},
                                         {SF_S16, AV_SAMPLE_FMT_S16},
                                         {SF_S32, AV_SAMPLE_FMT_S32},
                                         {SF_FLT, AV_SAMPLE_FMT_FLT}};

void release_block(void* block) {
    if (block) bg::mempool::free(block);
}

}  // namespace

VFrameCtx::~VFrameCtx() { release_block(buffer); }
AFrameCtx::~AFrameCtx() { release_block(buffer); }
PcmBuffer::~PcmBuffer() { release_block(data); }

int pixfmt_to_avpixfmt(PixelFormat f) {
    for (const auto& p : kPixelFormats)
        if (p.code == f) return p.av;
    return AV_PIX_FMT_NONE;
}

PixelFormat avpixfmt_to_pixfmt(int av) {
    for (const auto& p : kPixelFormats)
        if (p.av == av) return p.code;
    return PF_NONE;
}

int samplefmt_to_avsamplefmt(SampleFormat f) {
    for (const auto& s : kSampleFormats)
        if (s.code == f) return s.av;
    return AV_SAMPLE_FMT_NONE;
}

SampleFormat avsamplefmt_to_samplefmt(int av) {
    for (const auto& s : kSampleFormats)
        if (s.av == av) return s.code;
    return SF_NONE;
}

}  // namespace ff
