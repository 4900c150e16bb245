// The frame cache task on its own: cache answers, forward decoding, seeks with
// backward correction, the cache limit and broken streams, checked through the
// frames' own indices and the decode counters.
#include <gtest/gtest.h>

#include "decode_counters.h"
#include "ffdec_task.h"
#include "ffdecoder.h"
#include "media.h"
#include "movie_info.h"

using namespace ff;

namespace {

constexpr long long kFrame = 512;  // h264_cfr.mp4: 25 fps in 1/12800

const StreamCtx* video_of(const char* name) {
    MovieCtx* mv = FFDecoder::probe(testmedia::path(name).c_str(), nullptr);
    if (!mv || mv->nb_video < 1) return nullptr;
    return mv->streams[mv->video_indexes[0]];
}

struct Counts {
    uint64_t frames = decode_counters().frames_decoded.load();
    uint64_t seeks = decode_counters().seeks.load();
    uint64_t decoded() const { return decode_counters().frames_decoded.load() - frames; }
    uint64_t sought() const { return decode_counters().seeks.load() - seeks; }
};

int index_of(const std::shared_ptr<AVFrame>& f) { return f ? testmedia::frame_index(f.get()) : -1; }

// A request as the scheduler makes it: the task's mutex handed over.
std::shared_ptr<AVFrame> ask(FFDec_Task& task, long long t, FFDec_Task::Ts_ROUND r = FFDec_Task::ROUND_DOWN,
                             std::atomic<bool>* cancel = nullptr) {
    task.mutex.lock();
    return task.pri_get_frame(t, true, cancel, r);
}

}  // namespace

TEST(FFDecTask, AnswersFromCacheForwardOrBySeeking) {
    const StreamCtx* sc = video_of("h264_cfr.mp4");
    ASSERT_NE(sc, nullptr);
    FFDec_Task task;
    EXPECT_EQ(task.cached_first_ts(), -1);
    ASSERT_TRUE(task.open(sc));
    EXPECT_EQ(task.max_frames, 4u);
    EXPECT_EQ(task.ts_per_sec, 12800);

    // A negative target seeks to the start.
    Counts c;
    EXPECT_EQ(index_of(ask(task, -100)), 0);
    EXPECT_TRUE(task.at_begin);
    EXPECT_EQ(c.sought(), 1u);

    // Within two seconds past the cache: forward, no seek.
    c = Counts();
    EXPECT_EQ(index_of(ask(task, 40 * kFrame)), 40);
    EXPECT_EQ(c.sought(), 0u);
    EXPECT_EQ(c.decoded(), 40u);

    // Between frames the one on screen: past the back frame it takes one more
    // frame to know; after that the cache answers without decoding.
    c = Counts();
    EXPECT_EQ(index_of(ask(task, 40 * kFrame + 100)), 40);
    EXPECT_EQ(c.decoded(), 1u);
    c = Counts();
    EXPECT_EQ(index_of(ask(task, 40 * kFrame + 100)), 40);
    EXPECT_EQ(index_of(ask(task, 39 * kFrame)), 39);
    EXPECT_EQ(c.decoded(), 0u);
    EXPECT_EQ(index_of(ask(task, 39 * kFrame, FFDec_Task::ROUND_NEXT)), 40);

    // More than two seconds ahead: the cache goes and the task seeks.
    c = Counts();
    EXPECT_EQ(index_of(ask(task, 95 * kFrame)), 95);
    EXPECT_GE(c.sought(), 1u);
    EXPECT_FALSE(task.at_begin);
    // Before the front: seeks even though the frame was decoded earlier.
    c = Counts();
    EXPECT_EQ(index_of(ask(task, 10 * kFrame)), 10);
    EXPECT_GE(c.sought(), 1u);

    // Past the end: the last frame, and at_end.
    EXPECT_EQ(index_of(ask(task, 500 * kFrame)), 99);
    EXPECT_TRUE(task.at_end);
    // ROUND_NEXT on the back frame at the end answers the back frame again.
    EXPECT_EQ(index_of(ask(task, 99 * kFrame, FFDec_Task::ROUND_NEXT)), 99);

    // The mutex is free after every request.
    EXPECT_TRUE(task.mutex.try_lock());
    task.mutex.unlock();
}

TEST(FFDecTask, CacheNeverExceedsItsLimitPlusOne) {
    const StreamCtx* sc = video_of("h264_cfr.mp4");
    ASSERT_NE(sc, nullptr);
    FFDec_Task task;
    ASSERT_TRUE(task.open(sc));
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(index_of(ask(task, i * kFrame)), i);
        std::lock_guard<std::mutex> lock(task.mutex);
        ASSERT_LE(task.frames.size(), task.max_frames + 1);
        ASSERT_EQ(task.last_ts, i * kFrame);
    }
}

TEST(FFDecTask, NextFrameWalksForwardAndRepeatsTheLast) {
    const StreamCtx* sc = video_of("h264_cfr.mp4");
    ASSERT_NE(sc, nullptr);
    FFDec_Task task;
    ASSERT_TRUE(task.open(sc));
    ASSERT_EQ(index_of(ask(task, 90 * kFrame)), 90);
    std::lock_guard<std::mutex> lock(task.mutex);
    for (int i = 91; i < 100; ++i) EXPECT_EQ(index_of(task.get_next_frame(nullptr, false)), i);
    EXPECT_EQ(task.get_next_frame(nullptr, false), nullptr);
    EXPECT_EQ(index_of(task.get_next_frame(nullptr, true)), 99);
    EXPECT_TRUE(task.at_end);
}

TEST(FFDecTask, CancelStillPicturesAndBrokenStreams) {
    const StreamCtx* sc = video_of("h264_cfr.mp4");
    ASSERT_NE(sc, nullptr);
    FFDec_Task task;
    ASSERT_TRUE(task.open(sc));
    std::atomic<bool> cancel{true};
    Counts c;
    EXPECT_EQ(ask(task, 50 * kFrame, FFDec_Task::ROUND_DOWN, &cancel), nullptr);
    EXPECT_EQ(c.decoded(), 0u);

    // A single picture answers every time, however asked.
    const StreamCtx* still = video_of("still.png");
    ASSERT_NE(still, nullptr);
    ASSERT_TRUE(still->still_image);
    FFDec_Task picture;
    ASSERT_TRUE(picture.open(still));
    const auto first = ask(picture, 0);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(testmedia::frame_index(first.get()), 5);
    EXPECT_EQ(ask(picture, 1000), first);
    EXPECT_EQ(ask(picture, -7, FFDec_Task::ROUND_NEXT), first);

    // Nothing to decode at all: broken, and later requests touch nothing.
    const StreamCtx* empty = video_of("header_only.mp4");
    ASSERT_NE(empty, nullptr);
    FFDec_Task broken;
    ASSERT_TRUE(broken.open(empty));
    testmedia::LogCapture log;
    EXPECT_EQ(ask(broken, 0), nullptr);
    EXPECT_NE(log.take().find("\"bad movie: unexpected eof\"\n"), std::string::npos);
    EXPECT_TRUE(broken.broken);
    const uint64_t packets = decode_counters().packets_read.load();
    c = Counts();
    EXPECT_EQ(ask(broken, 10), nullptr);
    EXPECT_EQ(c.sought(), 0u);
    EXPECT_EQ(decode_counters().packets_read.load(), packets);

    EXPECT_FALSE(FFDec_Task().open(nullptr));

    // A raw elementary stream cannot seek: the task starts over from the
    // beginning instead of ending up broken.
    const StreamCtx* raw = video_of("raw.h264");
    ASSERT_NE(raw, nullptr);
    FFDec_Task unseekable;
    ASSERT_TRUE(unseekable.open(raw));
    EXPECT_NE(ask(unseekable, raw->duration / 2), nullptr);
    EXPECT_FALSE(unseekable.broken);
    EXPECT_NE(ask(unseekable, 0), nullptr);
}

TEST(FFDecTask, OneFrameCacheAndAFirstFrameFarAfterTheStart) {
    // With a cache limit of 0 the frame on screen between two frames is still
    // the earlier one, though the cache keeps only the later.
    const StreamCtx* sc = video_of("h264_cfr.mp4");
    ASSERT_NE(sc, nullptr);
    FFDec_Task small;
    ASSERT_TRUE(small.open(sc));
    small.max_frames = 0;
    EXPECT_EQ(index_of(ask(small, 30 * kFrame + 100)), 30);

    // A stream said to start at 0 whose first frame comes at 10 s: a request
    // just before that frame goes back in growing steps, not second by second.
    const StreamCtx* ts = video_of("ts_offset.ts");
    ASSERT_NE(ts, nullptr);
    StreamCtx from_zero = *ts;
    from_zero.start_time = 0;
    FFDec_Task task;
    ASSERT_TRUE(task.open(&from_zero));
    Counts c;
    EXPECT_EQ(index_of(ask(task, ts->start_time - ts->start_time / 100)), 0);
    EXPECT_TRUE(task.at_begin);
    EXPECT_LE(c.sought(), 6u);
}

// Backward requests keep a window of the frames decoded on the way to each
// target, bounded by the budget: answers stay those of forward requests.
TEST(FFDecTask, BackwardRequestsKeepAWindowWithinTheirBudget) {
    const StreamCtx* sc = video_of("long_gop.mp4");  // 300 frames, key frames at 0 and 250
    ASSERT_NE(sc, nullptr);
    const size_t picture = 320 * 240 * 3 / 2;
    struct Case { const char* what; size_t budget; unsigned most_frames; };
    const Case cases[] = {{"no window", 0, 5}, {"eight frames", 8 * picture + 100, 9}, {"default", 256u << 20, 301}};
    uint64_t decoded[3] = {};
    for (int i = 0; i < 3; ++i) {
        SCOPED_TRACE(cases[i].what);
        FFDec_Task task;
        ASSERT_TRUE(task.open(sc));
        task.reverse_budget = cases[i].budget;
        Counts c;
        for (int k = 299; k >= 150; --k) {  // across the key frame at 250
            ASSERT_EQ(index_of(ask(task, k * kFrame)), k);
            std::lock_guard<std::mutex> lock(task.mutex);
            ASSERT_LE(task.frames.size(), cases[i].most_frames);
        }
        decoded[i] = c.decoded();
        // Forward again: the window closes and the cache is short once more.
        EXPECT_EQ(index_of(ask(task, 200 * kFrame)), 200);
        std::lock_guard<std::mutex> lock(task.mutex);
        EXPECT_TRUE(task.window_frames == 0 && task.frames.size() <= task.max_frames + 1);
    }
    EXPECT_LT(decoded[1], decoded[0]);
    EXPECT_LT(decoded[2], decoded[1]);
}
