#include "media.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/md5.h>
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
    const ff::UniqueSwsContext sws(sws_getContext(frame->width, frame->height, static_cast<AVPixelFormat>(frame->format),
                                                  frame->width, frame->height, AV_PIX_FMT_GRAY8, SWS_POINT, nullptr,
                                                  nullptr, nullptr));
    if (!sws) return -1;
    std::vector<uint8_t> gray(static_cast<size_t>(frame->width) * frame->height);
    uint8_t* dst[4] = {gray.data()};
    int dst_linesize[4] = {frame->width};
    sws_scale(sws.get(), frame->data, frame->linesize, 0, frame->height, dst, dst_linesize);
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

std::vector<RefFrame> reference_decode(const std::string& file, int stream_index) {
    std::vector<RefFrame> frames;
    cli::PlainStream d;
    ff::UniqueAVFrame frame = ff::make_frame();
    if (!d.open(file.c_str(), stream_index)) return frames;
    while (d.next(frame.get()) >= 0)
        frames.push_back({frame->best_effort_timestamp, frame_index(frame.get()), frame->key_frame != 0});
    return frames;
}

LogCapture::LogCapture() {
    fflush(stdout);
    testing::internal::CaptureStdout();
}

LogCapture::~LogCapture() {
    end_capture();
}

std::string LogCapture::take() {
    std::string text = end_capture();
    testing::internal::CaptureStdout();
    return text;
}

}  // namespace testmedia
