// The stream instance under the tasks: every frame in order, then the end
// until a flushing seek; seeks to a key frame, within microseconds for audio,
// and without a flush; packets and subtitles; failures that are logged and
// leave nothing broken. Audio samples through the instance are checked whole
// by the audio exactness tests.
#include "support.h"

using namespace ff;

using Opened = testsupport::InstanceDecoding;
using testsupport::index_of;  // index_of(o.next_shared()): the next frame's index, -1 at the end or on failure

// Every frame in order, then the end again and again until a flushing seek;
// a seek without a flush goes on with what the decoder still holds.
TEST(Instance, DecodesEveryFrameInOrderThenEndsUntilASeek) {
    Opened o("h264_cfr.mp4");  // unopened, it would give no frame: the first index checked fails
    for (int i = 0; i < 100; ++i) ASSERT_EQ(index_of(o.next_shared()), i);
    EXPECT_EQ(o.next(), AVERROR_EOF);
    EXPECT_EQ(o.next(), AVERROR_EOF);
    ASSERT_TRUE(o.inst.seek(0, true));
    EXPECT_EQ(index_of(o.next_shared()), 0);
    // With B-frames the decoder holds frames it has not given out yet; without
    // a flush they still come out first, continuing the sequence.
    for (int i = 1; i < 10; ++i) ASSERT_GE(o.next(), 0);
    ASSERT_TRUE(o.inst.seek(0, false));
    EXPECT_EQ(index_of(o.next_shared()), 10);
}

// A video seek lands on a key frame before the target and decodes on to it;
// an audio seek lands within microseconds. (That every seek is counted is the
// task test's rows.)
TEST(Instance, SeeksVideoToAKeyFrameAndAudioWithinMicroseconds) {
    Opened v("h264_cfr.mp4");
    // Frame 60: 512 per frame in 1/12800. A file that did not open seeks nowhere either.
    ASSERT_TRUE(v.inst.seek(60 * 512, true));
    // On a key frame before the target, past the start; forward from there in
    // order, frame 60 at the very timestamp asked for.
    ASSERT_GE(v.next(), 0);
    EXPECT_TRUE(v.index() > 25 && v.index() <= 60) << v.index();
    for (int index = v.index(); index < 60; ++index) ASSERT_EQ(index_of(v.next_shared()), index + 1);
    EXPECT_EQ(v.frame->best_effort_timestamp, 60 * 512);

    Opened a("pcm_s16.wav");
    testmedia::LogCapture log;
    ASSERT_TRUE(a.inst.seek(48000, true));
    EXPECT_EQ(log.take(), "\"[seek convert] ---> audio target = 1000000 usec\"\n");
    ASSERT_GE(a.next(), 0);
    EXPECT_EQ(av_rescale_q(a.frame->best_effort_timestamp, a.inst.avstream()->time_base, {1, 1000000}), 1000000);
    EXPECT_EQ(reinterpret_cast<const int16_t*>(a.frame->data[0])[0], testmedia::ramp_sample(48000, 0));
}

// A subtitle stream gives its events and header; packets come only from the
// stream asked for.
TEST(Instance, ReadsPacketsAndSubtitles) {
    Opened o("subs.mkv", 1);
    AVSubtitle sub{};
    ASSERT_GE(o.inst.get_subtitle(o.pkt.get(), &sub), 0);
    ASSERT_GE(sub.num_rects, 1u);
    EXPECT_TRUE(testsupport::contains(sub.rects[0]->ass, "first"));
    avsubtitle_free(&sub);
    EXPECT_NE(o.inst.get_subtitle_header(), nullptr);

    Opened p("subs.mkv", 2);
    int packets = 0;
    for (; p.inst.get_packet(p.pkt.get()) >= 0; ++packets) EXPECT_EQ(p.pkt->stream_index, 2);
    EXPECT_EQ(packets, 2);
}

// A failed open says why in the log; the instance then decodes and seeks
// nothing, and closes cleanly.
TEST(Instance, FailuresAreLoggedAndLeaveNothingBroken) {
    const struct { const char* file; int stream; const char* head; } cases[] = {
        {"missing.mp4", 0, "\"failed to open: "},
        {"empty.mp4", 0, "\"failed to open: "},
        {"h264_cfr.mp4", 2, "\"stream index out of range: "},
        {"h264_cfr.mp4", -1, "\"stream index out of range: "},
        {"nodecoder_first.mp4", 0, "\"failed to find decoder for: "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        testmedia::LogCapture log;
        Opened o(c.file, c.stream);
        EXPECT_FALSE(o.ok);
        const std::string text = log.take();
        EXPECT_EQ(text.rfind(c.head, 0), 0u) << text;
        EXPECT_LT(o.next(), 0);
        EXPECT_FALSE(o.inst.seek(0, true));
        o.inst.close();
        EXPECT_FALSE(o.inst.is_open());
    }
    // A truncated file opens and decodes what is there, then ends (unopened,
    // it would give no frame at all).
    Opened t("truncated.mp4");
    int frames = 0;
    while (t.next() >= 0) ++frames;
    EXPECT_TRUE(frames > 10 && frames < 100) << frames;
}
