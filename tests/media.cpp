#include "media.h"

#include <gtest/gtest.h>

#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
#include <libavutil/md5.h>
#include <libswscale/swscale.h>
}

namespace testmedia {

std::string path(const char* name) { return std::string(CLIPDEC_TEST_MEDIA) + "/" + name; }

namespace {

// Reads the bars from a plane whose samples are `step` bytes apart (luma,
// gray or the red of RGBA): the middle row, each bar's centre; or, for a
// picture turned a quarter counter-clockwise, the middle column from the bottom up.
int read_bars(const uint8_t* plane, int linesize, int width, int height, bool turned = false, int step = 1) {
    int value = 0;
    for (int bit = 0; bit < 16; ++bit) {
        const size_t at = turned ? static_cast<size_t>(height - 1 - (2 * bit + 1) * height / 32) * linesize + width / 2
                                 : static_cast<size_t>(height / 2) * linesize + (2 * bit + 1) * width / 32 * step;
        if (plane[at] > 128) value |= 1 << bit;
    }
    return value;
}

bool has_luma_plane(int format) {
    for (AVPixelFormat f : {AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUVJ420P, AV_PIX_FMT_YUV422P, AV_PIX_FMT_YUVJ422P,
                            AV_PIX_FMT_YUV444P, AV_PIX_FMT_YUVJ444P, AV_PIX_FMT_NV12, AV_PIX_FMT_GRAY8})
        if (format == f) return true;
    return false;
}

// Ends the capture; a failure gtest printed while it ran would be lost with
// the captured text, so a failed test gets the text echoed.
std::string end_capture() {
    fflush(stdout);
    std::string text = testing::internal::GetCapturedStdout();
    if (testing::Test::HasFailure()) fputs(text.c_str(), stdout);
    return text;
}

}  // namespace

int frame_index(const AVFrame* frame, bool turned) {
    if (!frame || frame->width < 32 || frame->height < 32 || !frame->data[0]) return -1;
    if (has_luma_plane(frame->format))
        return read_bars(frame->data[0], frame->linesize[0], frame->width, frame->height, turned);
    SwsContext* sws = sws_getContext(frame->width, frame->height, static_cast<AVPixelFormat>(frame->format),
                                     frame->width, frame->height, AV_PIX_FMT_GRAY8, SWS_POINT, nullptr, nullptr, nullptr);
    if (!sws) return -1;
    std::vector<uint8_t> gray(static_cast<size_t>(frame->width) * frame->height);
    uint8_t* dst[4] = {gray.data()};
    int dst_linesize[4] = {frame->width};
    sws_scale(sws, frame->data, frame->linesize, 0, frame->height, dst, dst_linesize);
    sws_freeContext(sws);
    return read_bars(gray.data(), frame->width, frame->width, frame->height, turned);
}

int picture_index(const ff::VFrameCtx& picture) {
    if (!picture.data[0] || picture.width < 32 || picture.height < 2) return -1;
    const bool rgba = picture.format == AV_PIX_FMT_RGBA;
    if (!rgba && picture.format != AV_PIX_FMT_YUV420P && picture.format != AV_PIX_FMT_NV12) return -1;
    return read_bars(picture.data[0], picture.linesize[0], picture.width, picture.height, false, rgba ? 4 : 1);
}

std::string picture_digest(const AVFrame* frame) {
    const auto format = static_cast<AVPixelFormat>(frame->format);
    const int size = av_image_get_buffer_size(format, frame->width, frame->height, 1);
    if (size < 0) return "";
    std::vector<uint8_t> pixels(size);  // the visible bytes of every plane, without padding
    av_image_copy_to_buffer(pixels.data(), size, frame->data, frame->linesize, format, frame->width, frame->height, 1);
    uint8_t sum[16];
    av_md5_sum(sum, pixels.data(), size);
    char hex[33];
    for (int i = 0; i < 16; ++i) snprintf(hex + 2 * i, 3, "%02x", sum[i]);
    return hex;
}

bool PlainDecoding::open(const std::string& path, AVMediaType type, int index) {
    AVFormatContext* f = nullptr;
    if (avformat_open_input(&f, path.c_str(), nullptr, nullptr) < 0) return false;
    format.reset(f);
    if (avformat_find_stream_info(f, nullptr) < 0) return false;
    stream = index >= 0 ? index : av_find_best_stream(f, type, -1, -1, nullptr, 0);
    if (stream < 0 || stream >= static_cast<int>(f->nb_streams)) return false;
    const AVStream* st = f->streams[stream];
    const AVCodec* decoder = avcodec_find_decoder(st->codecpar->codec_id);
    if (!decoder) return false;
    codec.reset(avcodec_alloc_context3(decoder));
    if (!codec || avcodec_parameters_to_context(codec.get(), st->codecpar) < 0) return false;
    codec->pkt_timebase = st->time_base;
    return avcodec_open2(codec.get(), decoder, nullptr) >= 0;
}

void PlainDecoding::each_frame(const std::function<bool(AVFrame*)>& take) {
    ff::UniqueAVPacket packet = ff::make_packet();
    ff::UniqueAVFrame frame = ff::make_frame();
    bool more = true;
    auto drain = [&] {
        while (more && avcodec_receive_frame(codec.get(), frame.get()) >= 0) {
            more = take(frame.get());
            av_frame_unref(frame.get());
        }
    };
    while (more && av_read_frame(format.get(), packet.get()) >= 0) {
        if (packet->stream_index == stream && avcodec_send_packet(codec.get(), packet.get()) >= 0) drain();
        av_packet_unref(packet.get());
    }
    if (!more) return;
    avcodec_send_packet(codec.get(), nullptr);
    drain();
}

std::vector<RefFrame> reference_decode(const std::string& file, int stream_index) {
    std::vector<RefFrame> frames;
    PlainDecoding d;
    if (!d.open(file, AVMEDIA_TYPE_UNKNOWN, stream_index)) return frames;
    d.each_frame([&](AVFrame* frame) {
        frames.push_back({frame->best_effort_timestamp, frame_index(frame), frame->key_frame != 0});
        return true;
    });
    return frames;
}

LogCapture::LogCapture() : active(true) {
    fflush(stdout);
    testing::internal::CaptureStdout();
}

LogCapture::~LogCapture() {
    if (active) end_capture();
}

std::string LogCapture::take() {
    std::string text = end_capture();
    testing::internal::CaptureStdout();
    return text;
}

}  // namespace testmedia
