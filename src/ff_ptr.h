// Owning pointers for FFmpeg objects: one deleter per type, so every error
// path frees what it took. Used everywhere inside the library except where a
// record fixes a raw field.
#pragma once

#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/frame.h>
}

namespace ff {

struct AVFormatInputDeleter {
    void operator()(AVFormatContext* p) const { avformat_close_input(&p); }
};
struct AVCodecContextDeleter {
    void operator()(AVCodecContext* p) const { avcodec_free_context(&p); }
};
struct AVFrameDeleter {
    void operator()(AVFrame* p) const { av_frame_free(&p); }
};
struct AVPacketDeleter {
    void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct AVDictionaryDeleter {
    void operator()(AVDictionary* p) const { av_dict_free(&p); }
};
struct AVBufferRefDeleter {
    void operator()(AVBufferRef* p) const { av_buffer_unref(&p); }
};

using UniqueAVFormatInput = std::unique_ptr<AVFormatContext, AVFormatInputDeleter>;
using UniqueAVCodecContext = std::unique_ptr<AVCodecContext, AVCodecContextDeleter>;
using UniqueAVFrame = std::unique_ptr<AVFrame, AVFrameDeleter>;
using UniqueAVPacket = std::unique_ptr<AVPacket, AVPacketDeleter>;
using UniqueAVDictionary = std::unique_ptr<AVDictionary, AVDictionaryDeleter>;
using UniqueAVBufferRef = std::unique_ptr<AVBufferRef, AVBufferRefDeleter>;

inline UniqueAVFrame make_frame() { return UniqueAVFrame(av_frame_alloc()); }
inline UniqueAVPacket make_packet() { return UniqueAVPacket(av_packet_alloc()); }

}  // namespace ff
