#include "image_file.h"

#include <clipdec/ff_ptr.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
}

#include <cstdio>
#include <memory>

namespace cli {

namespace {

struct FileCloser {
    void operator()(FILE* f) const { std::fclose(f); }
};

bool encode_png(const uint8_t* rgba, int linesize, int width, int height, AVPacket* out, std::string& error) {
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_PNG);
    ff::UniqueAVCodecContext ctx(codec ? avcodec_alloc_context3(codec) : nullptr);
    ff::UniqueAVFrame frame(av_frame_alloc());
    if (!ctx || !frame) {
        error = "no PNG encoder in this FFmpeg";
        return false;
    }
    ctx->width = width;
    ctx->height = height;
    ctx->pix_fmt = AV_PIX_FMT_RGBA;
    ctx->time_base = AVRational{1, 25};
    if (avcodec_open2(ctx.get(), codec, nullptr) < 0) {
        error = "the PNG encoder refused the picture size";
        return false;
    }
    // The encoder only reads the frame, so it may point at the caller's memory.
    frame->width = width;
    frame->height = height;
    frame->format = AV_PIX_FMT_RGBA;
    frame->data[0] = const_cast<uint8_t*>(rgba);
    frame->linesize[0] = linesize;
    if (avcodec_send_frame(ctx.get(), frame.get()) < 0 || avcodec_send_frame(ctx.get(), nullptr) < 0 ||
        avcodec_receive_packet(ctx.get(), out) < 0) {
        error = "PNG encoding failed";
        return false;
    }
    return true;
}

}  // namespace

bool write_png(const std::string& path, const uint8_t* rgba, int linesize, int width, int height, std::string& error) {
    if (!rgba || width <= 0 || height <= 0 || linesize < width * 4) {
        error = "no picture to write";
        return false;
    }
    ff::UniqueAVPacket packet(av_packet_alloc());
    if (!packet || !encode_png(rgba, linesize, width, height, packet.get(), error)) {
        if (!packet) error = "out of memory";
        return false;
    }
    std::unique_ptr<FILE, FileCloser> file(std::fopen(path.c_str(), "wb"));
    if (!file) {
        error = "cannot create " + path;
        return false;
    }
    const size_t size = static_cast<size_t>(packet->size);
    if (std::fwrite(packet->data, 1, size, file.get()) != size || std::fclose(file.release()) != 0) {
        error = "cannot write " + path;
        return false;
    }
    return true;
}

bool write_png(const std::string& path, const ff::VFrameCtx& picture, std::string& error) {
    if (picture.format != ff::pixfmt_to_avpixfmt(ff::PF_RGBA)) {
        error = "the picture is not RGBA";
        return false;
    }
    return write_png(path, picture.data[0], picture.linesize[0], picture.width, picture.height, error);
}

}  // namespace cli
