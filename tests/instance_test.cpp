#include <gtest/gtest.h>

#include "decode_counters.h"
#include "ff_ptr.h"
#include "ffdec_instance.h"
#include "media.h"

using namespace ff;
using testmedia::LogCapture;

namespace {

struct Opened {
    Instance inst;
    UniqueAVPacket pkt = make_packet();
    UniqueAVFrame frame = make_frame();
};

}  // namespace

TEST(Instance, DecodesEveryFrameInOrderThenDrains) {
    Opened o;
    ASSERT_TRUE(o.inst.open(testmedia::path("h264_cfr.mp4").c_str(), 0));
    const auto reference = testmedia::reference_decode(testmedia::path("h264_cfr.mp4"), 0);
    ASSERT_EQ(reference.size(), 100u);
    for (size_t i = 0; i < reference.size(); ++i) {
        ASSERT_GE(o.inst.get_frame(o.pkt.get(), o.frame.get()), 0) << i;
        EXPECT_EQ(testmedia::frame_index(o.frame.get()), static_cast<int>(i));
        EXPECT_EQ(o.frame->best_effort_timestamp, reference[i].pts);
    }
    // Drained: end of stream, again and again, until a flushing seek.
    EXPECT_EQ(o.inst.get_frame(o.pkt.get(), o.frame.get()), AVERROR_EOF);
    EXPECT_EQ(o.inst.get_frame(o.pkt.get(), o.frame.get()), AVERROR_EOF);
    ASSERT_TRUE(o.inst.seek(0, true));
    ASSERT_GE(o.inst.get_frame(o.pkt.get(), o.frame.get()), 0);
    EXPECT_EQ(testmedia::frame_index(o.frame.get()), 0);
}

TEST(Instance, AudioInstanceSkipsOtherStreamsAndReadsExactSamples) {
    Opened o;
    ASSERT_TRUE(o.inst.open(testmedia::path("h264_cfr.mp4").c_str(), 1));
    int frames = 0;
    while (o.inst.get_frame(o.pkt.get(), o.frame.get()) >= 0) {
        ASSERT_GT(o.frame->nb_samples, 0);
        ASSERT_EQ(o.frame->width, 0);
        ++frames;
    }
    EXPECT_GT(frames, 180);  // 4 s of AAC at 1024 samples a frame

    Opened wav;
    ASSERT_TRUE(wav.inst.open(testmedia::path("pcm_s16.wav").c_str(), 0));
    int64_t n = 0;
    while (wav.inst.get_frame(wav.pkt.get(), wav.frame.get()) >= 0) {
        const auto* s = reinterpret_cast<const int16_t*>(wav.frame->data[0]);
        for (int i = 0; i < wav.frame->nb_samples; ++i, ++n) {
            ASSERT_EQ(s[2 * i], testmedia::ramp_sample(n, 0)) << n;
            ASSERT_EQ(s[2 * i + 1], testmedia::ramp_sample(n, 1)) << n;
        }
    }
    EXPECT_EQ(n, 4 * 48000);
}

TEST(Instance, SeeksVideoToKeyFrameAndAudioWithinMicroseconds) {
    Opened v;
    ASSERT_TRUE(v.inst.open(testmedia::path("h264_cfr.mp4").c_str(), 0));
    const AVRational tb = v.inst.avstream()->time_base;  // 1/12800: 512 per frame
    const auto seeks = decode_counters().seeks.load();
    ASSERT_TRUE(v.inst.seek(60 * 512, true));
    EXPECT_EQ(decode_counters().seeks.load(), seeks + 1);
    // The seek lands on a key frame before the target, past the start; decoding
    // forward from there reaches the target in order.
    ASSERT_GE(v.inst.get_frame(v.pkt.get(), v.frame.get()), 0);
    int index = testmedia::frame_index(v.frame.get());
    EXPECT_GT(index, 25);
    EXPECT_LE(index, 60);
    while (index < 60) {
        ASSERT_GE(v.inst.get_frame(v.pkt.get(), v.frame.get()), 0);
        const int next = testmedia::frame_index(v.frame.get());
        ASSERT_EQ(next, index + 1);
        index = next;
    }
    EXPECT_EQ(v.frame->best_effort_timestamp, 60 * 512);
    EXPECT_EQ(tb.den, 12800);

    Opened a;
    ASSERT_TRUE(a.inst.open(testmedia::path("pcm_s16.wav").c_str(), 0));
    LogCapture log;
    ASSERT_TRUE(a.inst.seek(48000, true));
    EXPECT_EQ(log.take(), "\"[seek convert] ---> audio target = 1000000 usec\"\n");
    ASSERT_GE(a.inst.get_frame(a.pkt.get(), a.frame.get()), 0);
    EXPECT_EQ(av_rescale_q(a.frame->best_effort_timestamp, a.inst.avstream()->time_base, {1, 1000000}), 1000000);
    EXPECT_EQ(reinterpret_cast<const int16_t*>(a.frame->data[0])[0], testmedia::ramp_sample(48000, 0));
}

TEST(Instance, SeekWithoutFlushKeepsBufferedFrames) {
    Opened o;
    ASSERT_TRUE(o.inst.open(testmedia::path("h264_cfr.mp4").c_str(), 0));
    for (int i = 0; i < 10; ++i) ASSERT_GE(o.inst.get_frame(o.pkt.get(), o.frame.get()), 0);
    // With B-frames the decoder holds frames it has not given out yet; without
    // a flush they still come out first, continuing the sequence.
    ASSERT_TRUE(o.inst.seek(0, false));
    ASSERT_GE(o.inst.get_frame(o.pkt.get(), o.frame.get()), 0);
    EXPECT_EQ(testmedia::frame_index(o.frame.get()), 10);
}

TEST(Instance, ReadsPacketsAndSubtitles) {
    Opened o;
    ASSERT_TRUE(o.inst.open(testmedia::path("subs.mkv").c_str(), 1));
    AVSubtitle sub{};
    ASSERT_GE(o.inst.get_subtitle(o.pkt.get(), &sub), 0);
    ASSERT_GE(sub.num_rects, 1u);
    EXPECT_NE(std::string(sub.rects[0]->ass).find("first"), std::string::npos);
    avsubtitle_free(&sub);
    EXPECT_NE(o.inst.get_subtitle_header(), nullptr);

    Opened p;
    ASSERT_TRUE(p.inst.open(testmedia::path("subs.mkv").c_str(), 2));
    int packets = 0;
    while (p.inst.get_packet(p.pkt.get()) >= 0) {
        EXPECT_EQ(p.pkt->stream_index, 2);
        ++packets;
    }
    EXPECT_EQ(packets, 2);
}

TEST(Instance, FailuresAreLoggedAndLeaveNothingBroken) {
    struct Case {
        const char* file;
        int stream;
        const char* message;
    };
    const Case cases[] = {
        {"missing.mp4", 0, "\"failed to open: %s, %s\"\n"},
        {"empty.mp4", 0, "\"failed to open: %s, %s\"\n"},
        {"h264_cfr.mp4", 2, "\"stream index out of range: %s, [%d], %u\"\n"},
        {"h264_cfr.mp4", -1, "\"stream index out of range: %s, [%d], %u\"\n"},
        {"nodecoder_first.mp4", 0, "\"failed to find decoder for: %s, [%d], %d\"\n"},
    };
    for (const auto& c : cases) {
        const std::string file = testmedia::path(c.file);
        LogCapture log;
        Opened o;
        EXPECT_FALSE(o.inst.open(file.c_str(), c.stream)) << c.file;
        const std::string text = log.take();
        // Messages are printed formatted; compare the fixed head of each.
        const std::string head(c.message + 1, std::string(c.message).find('%') - 1);
        EXPECT_EQ(text.rfind("\"" + head, 0), 0u) << c.file << ": " << text;
        EXPECT_LT(o.inst.get_frame(o.pkt.get(), o.frame.get()), 0);
        EXPECT_FALSE(o.inst.seek(0, true));
        o.inst.close();
        EXPECT_FALSE(o.inst.is_open());
    }

    // A truncated file opens and decodes what is there, then ends.
    Opened t;
    ASSERT_TRUE(t.inst.open(testmedia::path("truncated.mp4").c_str(), 0));
    int frames = 0;
    while (t.inst.get_frame(t.pkt.get(), t.frame.get()) >= 0) ++frames;
    EXPECT_GT(frames, 10);
    EXPECT_LT(frames, 100);
}
