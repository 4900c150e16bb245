// Filmstrips on every video file of the test media: exact mode gives the
// frame on screen at each time, fast mode the key frame at or before it, and
// each picture says its own time; both against a plain FFmpeg decode.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "support.h"
#include "filmstrip.h"
#include "rational_convert.h"

using namespace ff;

namespace {

struct Shown {
    long long pts;
    int index;
    bool key;
};

// Every frame of the stream in presentation order, with its key-frame flag.
std::vector<Shown> plain_frames(const std::string& file, int stream) {
    std::vector<Shown> frames;
    testmedia::PlainDecoding plain;
    if (!plain.open(file, AVMEDIA_TYPE_VIDEO, stream)) return frames;
    plain.each_frame([&](AVFrame* f) {
        frames.push_back({f->best_effort_timestamp, testmedia::frame_index(f), f->key_frame != 0});
        return true;
    });
    std::sort(frames.begin(), frames.end(), [](const Shown& a, const Shown& b) { return a.pts < b.pts; });
    return frames;
}

// The last frame (or key frame) at or before ts; the first such frame when
// none is.
const Shown* last_at_or_before(const std::vector<Shown>& frames, long long ts, bool keys_only) {
    const Shown* found = nullptr;
    for (const Shown& f : frames)
        if (!keys_only || f.key) {
            if (found && f.pts > ts) break;
            found = &f;
        }
    return found;
}

}  // namespace

TEST(Filmstrip, ExactAndFastModesOnEveryVideoFile) {
    const char* files[] = {"h264_cfr.mp4", "h264_23976.mp4", "vfr.mkv",   "ts_offset.ts", "vp9_opus.webm",
                           "rotated.mp4",  "subs.mkv",       "long_gop.mp4", "nodecoder_first.mp4", "still.png"};
    for (const char* name : files) {
        const testsupport::VideoUnderTest v = testsupport::load_video(name);
        ASSERT_NE(v.stream, nullptr) << name;
        const std::vector<Shown> frames = plain_frames(testmedia::path(name), v.stream->index);
        const long long start = v.stream->start_time == kNoPts ? 0 : v.stream->start_time;
        for (bool fast : {false, true}) {
            SCOPED_TRACE(std::string(name) + (fast ? " fast" : " exact"));
            RequireFilmstrip req;
            req.count = 6;
            req.width = 160;
            req.fast = fast;
            const std::vector<FilmstripPicture> strip = getFilmstrip(testmedia::path(name).c_str(), req);
            ASSERT_EQ(strip.size(), 6u);
            const Rational duration = v.stream->duration != kNoPts
                                          ? timestamp_to_time(v.stream->duration, v.stream->time_base)
                                          : Rational(v.stream->movie->duration, 1000000);  // a still picture
            for (int i = 0; i < 6; ++i) {
                const FilmstripPicture& p = strip[i];
                EXPECT_EQ(p.asked, duration * Rational(2 * i + 1, 12));
                const Shown* want = last_at_or_before(frames, start + time_to_timestamp(p.asked, v.stream->time_base), fast);
                ASSERT_TRUE(want && p.picture) << i;
                EXPECT_EQ(testmedia::picture_index(*p.picture), want->index) << i;
                EXPECT_EQ(p.picture->width, 160) << i;
                EXPECT_EQ(time_to_timestamp(p.shown, Rational(1, 1000000)),
                          av_rescale_q(want->pts - start, rational_convert(v.stream->time_base), AVRational{1, 1000000}))
                    << i;
            }
        }
    }
}

TEST(Filmstrip, FastModeDecodesOnlyKeyFramesAndCancelEndsTheStrip) {
    const std::string file = testmedia::path("long_gop.mp4");  // key frames at 0 and 10 s
    RequireFilmstrip req;
    req.count = 12;
    req.fast = true;
    const testsupport::Counts before = testsupport::Counts::now();
    const std::vector<FilmstripPicture> strip = getFilmstrip(file.c_str(), req);
    ASSERT_EQ(strip.size(), 12u);
    EXPECT_LE(before.since().frames, 12u + 2u);  // the probe's two, then key frames
    EXPECT_EQ(strip[0].picture, strip[9].picture);  // one group of pictures, one picture
    EXPECT_EQ(testmedia::picture_index(*strip[10].picture), 250);

    // Nothing: a raised cancel flag, no pictures asked, no video, no file.
    std::atomic<bool> cancel{true};
    req.cancel = &cancel;
    EXPECT_TRUE(getFilmstrip(file.c_str(), req).empty());
    req.count = 0;
    req.cancel = nullptr;
    EXPECT_TRUE(getFilmstrip(file.c_str(), req).empty());
    EXPECT_TRUE(getFilmstrip(testmedia::path("pcm_s16.wav").c_str(), RequireFilmstrip()).empty());
    EXPECT_TRUE(getFilmstrip(nullptr, RequireFilmstrip()).empty());
}
