// This machine has no GPU: every device type FFmpeg lists must fail to open
// and leave decoding in software, with identical frames.

#include <cstring>
#include <tuple>

#include "ff_tools.h"
#include "hw/hw_decoder.h"
#include "support.h"

using namespace ff;
using testmedia::LogCapture;
using testsupport::contains;

namespace {

std::vector<std::string> decode_digests(const char* name) {
    std::vector<std::string> digests;
    testsupport::InstanceDecoding d(name);
    while (d.next() >= 0) digests.push_back(testmedia::picture_digest(d.frame.get()));
    return digests;
}

// Decodes one 16x16 GRAY8 picture of value 7 at pts 5 through the hardware
// layer, on a raw-video context carrying a hardware record that get_format
// refused (state 0); `surface`, the record's device format, may name GRAY8 to
// stand in for a frame left on the device.
int receive_through_refused_context(AVPixelFormat surface, AVFrame* frame) {
    AVCodecContext* ctx = avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_RAWVIDEO));
    if (!ctx) return AVERROR(ENOMEM);
    auto* record = static_cast<HWCodecState*>(std::malloc(sizeof(HWCodecState)));
    if (record) *record = HWCodecState{0, surface, nullptr};
    std::tie(ctx->width, ctx->height, ctx->pix_fmt, ctx->opaque) = std::make_tuple(16, 16, AV_PIX_FMT_GRAY8, record);
    UniqueAVPacket pkt = make_packet();
    int err = record ? av_new_packet(pkt.get(), 16 * 16) : AVERROR(ENOMEM);
    if (err >= 0) {
        std::memset(pkt->data, 7, 16 * 16);
        pkt->pts = 5;
        err = avcodec_open2(ctx, nullptr, nullptr);
    }
    if (err >= 0) err = avcodec_send_packet(ctx, pkt.get());
    if (err >= 0) err = HWDecoder::instance()->hw_codec_receive_frame(ctx, frame);
    HWDecoder::instance()->hw_codec_free_context(&ctx);
    return err;
}

}  // namespace

TEST(HwDecoder, ListsChoosesRefusesAndDisablesDeviceTypes) {
    LogCapture log;
    const std::vector<const char*> types = hw_enum_devices();
    std::string list;
    for (const char* t : types) list += std::string(t) + ",";
    const std::string available = "\"[hw]# available device types: " + list + "\"\n";
    EXPECT_EQ(log.take(), available);

    // A refused name is reported with the list; the default is the first listed type.
    EXPECT_FALSE(hw_enable_device("no-such-device"));
    EXPECT_EQ(log.take(), "\"Device type 'no-such-device' is not supported.\"\n" + available);

    if (!types.empty()) {
        EXPECT_TRUE(hw_enable_device(""));
        EXPECT_EQ(log.take(), available + "\"[hw]# Use default HWDevice: '" + types[0] + "'\"\n");
        // A refused name keeps the previous choice, the default just made.
        EXPECT_FALSE(hw_enable_device("no-such-device"));
        EXPECT_STREQ(HWDecoder::instance()->private_data()->device_name, types[0]);
    }
    hw_disable();
    EXPECT_TRUE(contains(log.take(), "\"disable HWdevice, 用户选择禁用硬件解码器\"\n"));
    EXPECT_EQ(HWDecoder::instance()->private_data()->device_type.load(), AV_HWDEVICE_TYPE_NONE);

    // Disabled: software contexts, the video one said so once, the audio one quietly.
    AVCodecContext* video = HWDecoder::instance()->hw_codec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_H264));
    ASSERT_TRUE(video && !hw_codec_state(video));
    EXPECT_EQ(log.take(), "\"type==none, 用户未启用硬件解码\"\n");
    AVCodecContext* audio = HWDecoder::instance()->hw_codec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_AAC));
    ASSERT_TRUE(audio && log.take().empty());
    HWDecoder::instance()->hw_codec_free_context(&video);
    HWDecoder::instance()->hw_codec_free_context(&audio);
}

TEST(HwDecoder, UnusableDeviceFallsBackToIdenticalSoftwareFrames) {
    const char* file = "h264_cfr.mp4";
    const std::vector<std::string> software = decode_digests(file);
    ASSERT_EQ(software.size(), 100u);
    const std::vector<const char*> types = hw_enum_devices();
    int tried = 0;
    for (const char* name : {"vaapi", "cuda", "vdpau"}) {
        if (std::none_of(types.begin(), types.end(), [&](const char* t) { return !std::strcmp(t, name); })) continue;
        ++tried;
        ASSERT_TRUE(hw_enable_device(name));
        LogCapture log;
        EXPECT_EQ(decode_digests(file), software) << name;
        const std::string text = log.take();
        EXPECT_TRUE(contains(text, std::string("\"Failed to create specified HW device. ==> ") + name + "\"\n") ||
                    contains(text, std::string("does not support device type '") + name + "'"))
            << name << ": " << text;
    }
    hw_disable();
    EXPECT_GT(tried, 0) << "FFmpeg lists none of vaapi, cuda, vdpau";
}

TEST(HwDecoder, RefusedSurfaceFormatTurnsTheContextToSoftware) {
    AVCodecContext* ctx = avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_H264));
    ASSERT_NE(ctx, nullptr);
    const AVPixelFormat offered[] = {AV_PIX_FMT_YUV420P, AV_PIX_FMT_VAAPI, AV_PIX_FMT_NONE};
    const AVPixelFormat software_only[] = {AV_PIX_FMT_YUV420P, AV_PIX_FMT_NONE};

    // Without a record the first format is taken.
    EXPECT_TRUE(get_hw_format(ctx, offered) == AV_PIX_FMT_YUV420P && get_hw_format(ctx, nullptr) == AV_PIX_FMT_NONE);
    // The record is freed with the context (the leak checker watches).
    int foreign = 0;
    auto* record = static_cast<HWCodecState*>(std::malloc(sizeof(HWCodecState)));
    *record = HWCodecState{1, AV_PIX_FMT_VAAPI, &foreign};
    ctx->opaque = record;
    EXPECT_TRUE(get_hw_format(ctx, offered) == AV_PIX_FMT_VAAPI && record->state == 1);
    LogCapture log;
    EXPECT_TRUE(get_hw_format(ctx, software_only) == AV_PIX_FMT_YUV420P && record->state == 0);
    EXPECT_EQ(log.take(), "\"Failed to get HW surface format. 当前硬解码不支持该像素格式\"\n");

    // Software frames of a context that fell back are passed through untouched;
    // a frame in its surface format still goes to the transfer, which fails
    // here without a pool to read it back from rather than passing it up.
    UniqueAVFrame frame = make_frame();
    ASSERT_EQ(receive_through_refused_context(AV_PIX_FMT_VAAPI, frame.get()), 0);
    EXPECT_TRUE(frame->format == AV_PIX_FMT_GRAY8 && frame->width == 16 && frame->pts == 5 && frame->data[0][0] == 7);
    av_frame_unref(frame.get());
    EXPECT_TRUE(receive_through_refused_context(AV_PIX_FMT_GRAY8, frame.get()) == AVERROR(EINVAL) && !frame->buf[0]);
    EXPECT_EQ(log.take(), "\"[hwdec] error transferring the data to system memory\"\n");
    // Offered the surface format again (a new sequence), it is hardware again,
    // so that its device frames are transferred.
    EXPECT_TRUE(get_hw_format(ctx, offered) == AV_PIX_FMT_VAAPI && record->state == 1);
    HWDecoder::instance()->hw_codec_free_context(&ctx);
    EXPECT_EQ(ctx, nullptr);
}

TEST(HwDecoder, TransferredFramesKeepEveryProperty) {
    // A software frame stands in for the device frame: the transfer's result
    // takes its timing and colour description, and with them the rest that
    // one av_frame_copy_props carries (aspect ratio, side data).
    UniqueAVFrame device = make_frame(), system = make_frame();
    std::tie(device->pts, device->best_effort_timestamp) = std::make_tuple(1200, 1201);
    std::tie(device->color_primaries, device->color_trc, device->colorspace, device->color_range) =
        std::make_tuple(AVCOL_PRI_BT2020, AVCOL_TRC_SMPTE2084, AVCOL_SPC_BT2020_NCL, AVCOL_RANGE_JPEG);
    std::tie(system->format, system->width, system->height) = std::make_tuple(AV_PIX_FMT_NV12, 64, 32);
    ASSERT_EQ(av_frame_get_buffer(system.get(), 0), 0);
    ASSERT_EQ(finish_transfer(device.get(), system.get()), 0);
    EXPECT_TRUE(device->format == AV_PIX_FMT_NV12 && device->width == 64 && device->data[0]);
    EXPECT_TRUE(device->pts == 1200 && device->best_effort_timestamp == 1201);
    EXPECT_TRUE(device->color_primaries == AVCOL_PRI_BT2020 && device->color_trc == AVCOL_TRC_SMPTE2084 &&
                device->colorspace == AVCOL_SPC_BT2020_NCL && device->color_range == AVCOL_RANGE_JPEG);
}
