// Filmstrips: fast mode decodes key frames only, and the requests that give
// no strip. The pictures of every video file's strips are checked with the
// thumbnails (Thumbnail.EveryVideoFileGivesThePredictedPicturesAndFilmstrips).

#include "filmstrip.h"
#include "support.h"

using namespace ff;

TEST(Filmstrip, FastModeDecodesOnlyKeyFramesAndCancelEndsTheStrip) {
    const std::string file = testmedia::path("long_gop.mp4");  // key frames at 0 and 10 s
    RequireFilmstrip req{12, 0, 0, PF_RGBA, true};
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
