// Owning pointers for the FFmpeg objects the tool itself uses (PNG encoding,
// the plain loops of the bench command): one deleter per type.
#pragma once

#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

namespace cli {

struct FormatCloser { void operator()(AVFormatContext* p) const { avformat_close_input(&p); } };
struct CodecFreer { void operator()(AVCodecContext* p) const { avcodec_free_context(&p); } };
struct FrameFreer { void operator()(AVFrame* p) const { av_frame_free(&p); } };
struct PacketFreer { void operator()(AVPacket* p) const { av_packet_free(&p); } };
struct SwsFreer { void operator()(SwsContext* p) const { sws_freeContext(p); } };
struct SwrFreer { void operator()(SwrContext* p) const { swr_free(&p); } };

using FormatPtr = std::unique_ptr<AVFormatContext, FormatCloser>;
using CodecPtr = std::unique_ptr<AVCodecContext, CodecFreer>;
using FramePtr = std::unique_ptr<AVFrame, FrameFreer>;
using PacketPtr = std::unique_ptr<AVPacket, PacketFreer>;

}  // namespace cli
