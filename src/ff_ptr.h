// Owning pointers for FFmpeg objects: one deleter per type, so every error
// path frees what it took. Used everywhere inside the library except where a
// record fixes a raw field (the decoder's scaler, sample queue and resampler,
// a filter manager's graph, the mixer writer's queue), and by the tool and the
// benchmarks for their plain FFmpeg loops.
#pragma once

#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavfilter/avfilter.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/dict.h>
#include <libavutil/frame.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
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

struct SwsContextDeleter {
    void operator()(SwsContext* p) const { sws_freeContext(p); }
};
struct SwrContextDeleter {
    void operator()(SwrContext* p) const { swr_free(&p); }  // closes the resampler first
};
struct AVAudioFifoDeleter {
    void operator()(AVAudioFifo* p) const { av_audio_fifo_free(p); }
};
struct AVFilterGraphDeleter {
    void operator()(AVFilterGraph* p) const { avfilter_graph_free(&p); }
};
// Frees the whole list from `p` on.
struct AVFilterInOutDeleter {
    void operator()(AVFilterInOut* p) const { avfilter_inout_free(&p); }
};

using UniqueAVFormatInput = std::unique_ptr<AVFormatContext, AVFormatInputDeleter>;
using UniqueAVCodecContext = std::unique_ptr<AVCodecContext, AVCodecContextDeleter>;
using UniqueAVFrame = std::unique_ptr<AVFrame, AVFrameDeleter>;
using UniqueAVPacket = std::unique_ptr<AVPacket, AVPacketDeleter>;
using UniqueAVDictionary = std::unique_ptr<AVDictionary, AVDictionaryDeleter>;
using UniqueAVBufferRef = std::unique_ptr<AVBufferRef, AVBufferRefDeleter>;
using UniqueSwsContext = std::unique_ptr<SwsContext, SwsContextDeleter>;
using UniqueSwrContext = std::unique_ptr<SwrContext, SwrContextDeleter>;
using UniqueAVAudioFifo = std::unique_ptr<AVAudioFifo, AVAudioFifoDeleter>;
using UniqueAVFilterGraph = std::unique_ptr<AVFilterGraph, AVFilterGraphDeleter>;
using UniqueAVFilterInOut = std::unique_ptr<AVFilterInOut, AVFilterInOutDeleter>;

inline UniqueAVFrame make_frame() { return UniqueAVFrame(av_frame_alloc()); }
inline UniqueAVPacket make_packet() { return UniqueAVPacket(av_packet_alloc()); }

// avfilter_graph_parse_ptr takes both list heads by address, consumes what it
// connects and leaves in them whatever it left unconnected (also on failure):
// the lists leave their owners for the call, and the owners take back what it
// hands back.
inline int parse_filter_graph(AVFilterGraph* graph, const char* descr, UniqueAVFilterInOut& inputs,
                              UniqueAVFilterInOut& outputs) {
    AVFilterInOut* in = inputs.release();
    AVFilterInOut* out = outputs.release();
    const int ret = avfilter_graph_parse_ptr(graph, descr, &in, &out, nullptr);
    inputs.reset(in);
    outputs.reset(out);
    return ret;
}

}  // namespace ff
