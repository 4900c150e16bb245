// The frame cache task on its own: cache answers, forward decoding, seeks with
// backward correction, the next-frame walk, the cache limit, backward windows
// and broken streams, checked through the frames' own indices and the decode
// counters.
#include "ffdec_task.h"
#include "support.h"

using namespace ff;
using testsupport::Counts;
using testsupport::index_of;
using testsupport::stream_of;

namespace {

constexpr long long kFrame = 512;  // h264_cfr.mp4: 25 fps in 1/12800

// A request as the scheduler makes it: the task's mutex handed over.
std::shared_ptr<AVFrame> ask(FFDec_Task& task, long long t, FFDec_Task::Ts_ROUND r = FFDec_Task::ROUND_DOWN,
                             std::atomic<bool>* cancel = nullptr) {
    task.mutex.lock();
    return task.pri_get_frame(t, true, cancel, r);
}

}  // namespace

TEST(FFDecTask, WalkThroughCacheForwardSeekAndEnd) {
    FFDec_Task task;
    EXPECT_EQ(task.cached_first_ts(), -1);
    ASSERT_TRUE(task.open(stream_of("h264_cfr.mp4", STREAM_VIDEO)));
    EXPECT_EQ(task.max_frames, 4u);
    // STEP: get_next_frame after the last delivered; LAST: the same, repeating the last at the end.
    // The seek rows pin the two-second reach of decoding forward, and with it the task's units per second.
    enum Ask { DOWN, AFTER, STEP, LAST };
    struct Row { const char* what; Ask ask; long long t; int index; uint64_t decoded, seeks; bool at_begin, at_end; };
    const Row rows[] = {
        {"negative target seeks to the start", DOWN, -100, 0, 1, 1, true, false},
        {"within two seconds: forward", DOWN, 40 * kFrame, 40, 40, 0, false, false},
        {"past the back frame: one more to know", DOWN, 40 * kFrame + 100, 40, 1, 0, false, false},
        {"then from the cache", DOWN, 40 * kFrame + 100, 40, 0, 0, false, false},
        {"an earlier cached frame", DOWN, 39 * kFrame, 39, 0, 0, false, false},
        {"the cached frame after", AFTER, 39 * kFrame, 40, 0, 0, false, false},
        {"far ahead: seek", DOWN, 95 * kFrame, 95, 23, 1, false, false},
        {"before the front: seek", DOWN, 10 * kFrame, 10, 11, 1, false, false},
        {"far ahead again: seek", DOWN, 90 * kFrame, 90, 18, 1, false, false},
        {"the next frame", STEP, 0, 91, 1, 0, false, false},
        {"forward to the one before the last", DOWN, 98 * kFrame, 98, 7, 0, false, false},
        {"the next frame: the last", STEP, 0, 99, 1, 0, false, false},
        {"the next frame runs into the end: nothing", STEP, 0, -1, 0, 0, false, true},
        {"at the end, repeating the last", LAST, 0, 99, 0, 0, false, true},
        {"past the end: the last", DOWN, 500 * kFrame, 99, 0, 0, false, true},
        {"the frame after the last is the last", AFTER, 99 * kFrame, 99, 0, 0, false, true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        const Counts c = Counts::now();
        // In no pool the test has the task to itself: the walk needs no mutex.
        const std::shared_ptr<AVFrame> f =
            row.ask == STEP || row.ask == LAST
                ? task.get_next_frame(nullptr, row.ask == LAST)
                : ask(task, row.t, row.ask == AFTER ? FFDec_Task::ROUND_NEXT : FFDec_Task::ROUND_DOWN);
        EXPECT_EQ(index_of(f), row.index);
        EXPECT_EQ(c.since().frames, row.decoded);
        EXPECT_EQ(c.since().seeks, row.seeks);
        ASSERT_TRUE(task.mutex.try_lock());  // free after every request
        std::lock_guard<std::mutex> lock(task.mutex, std::adopt_lock);
        // A step back keeps a window of frames; otherwise the cache stays within its limit.
        EXPECT_LE(task.frames.size(), std::max(task.max_frames, task.window_frames) + 1);
        EXPECT_EQ(task.at_begin, row.at_begin);
        EXPECT_EQ(task.at_end, row.at_end);
    }
}

// A cancelled request decodes nothing; a still picture is decoded once; a
// stream with nothing to decode is broken for good; a cache limit of 0 and a
// first frame far after the stream's start still give the frame on screen.
TEST(FFDecTask, CancelStillPicturesAndBrokenStreams) {
    FFDec_Task task;
    ASSERT_TRUE(task.open(stream_of("h264_cfr.mp4", STREAM_VIDEO)));
    std::atomic<bool> cancel{true};
    Counts c = Counts::now();
    EXPECT_EQ(ask(task, 50 * kFrame, FFDec_Task::ROUND_DOWN, &cancel), nullptr);
    EXPECT_EQ(c.since().frames, 0u);

    // A single picture answers every time, however asked, without decoding again.
    FFDec_Task picture;
    ASSERT_TRUE(picture.open(stream_of("still.png", STREAM_VIDEO)));
    const auto first = ask(picture, 0);
    EXPECT_EQ(index_of(first), 5);
    EXPECT_EQ(ask(picture, 1000), first);
    EXPECT_EQ(ask(picture, -7, FFDec_Task::ROUND_NEXT), first);

    // Nothing to decode at all: broken, so later requests touch nothing (a
    // task not marked broken would seek again for its empty cache).
    FFDec_Task broken;
    ASSERT_TRUE(broken.open(stream_of("header_only.mp4", STREAM_VIDEO)));
    testmedia::LogCapture log;
    EXPECT_EQ(ask(broken, 0), nullptr);
    EXPECT_TRUE(testsupport::contains(log.take(), "\"bad movie: unexpected eof\"\n"));
    c = Counts::now();
    EXPECT_EQ(ask(broken, 10), nullptr);
    EXPECT_TRUE(c.since().seeks == 0 && c.since().packets == 0);
    EXPECT_FALSE(FFDec_Task().open(nullptr));

    // The cancelled task, its cache still empty, with a cache limit of 0: the
    // frame on screen between two frames is still the earlier one, though the
    // cache keeps only the later.
    task.max_frames = 0;
    EXPECT_EQ(index_of(ask(task, 30 * kFrame + 100)), 30);

    // A stream said to start at 0 whose first frame comes at 10 s: a request
    // just before that frame goes back in growing steps, not second by second.
    const StreamCtx* ts = stream_of("ts_offset.ts", STREAM_VIDEO);
    ASSERT_NE(ts, nullptr);
    StreamCtx from_zero = *ts;
    from_zero.start_time = 0;
    FFDec_Task late;
    ASSERT_TRUE(late.open(&from_zero));
    c = Counts::now();
    EXPECT_EQ(index_of(ask(late, ts->start_time - ts->start_time / 100)), 0);
    EXPECT_TRUE(late.at_begin);
    EXPECT_LE(c.since().seeks, 6u);
}

// Backward requests keep a window of the frames decoded on the way to each
// target, bounded by the budget: answers stay those of forward requests.
TEST(FFDecTask, BackwardRequestsKeepAWindowWithinTheirBudget) {
    const StreamCtx* sc = stream_of("long_gop.mp4", STREAM_VIDEO);  // 300 frames, key frames at 0 and 250
    const size_t picture = 320 * 240 * 3 / 2;
    struct Case { const char* what; size_t budget; unsigned most_frames; };
    const Case cases[] = {{"no window", 0, 5}, {"eight frames", 8 * picture + 100, 9}, {"default", 256u << 20, 301}};
    uint64_t decoded[3] = {};
    for (int i = 0; i < 3; ++i) {
        SCOPED_TRACE(cases[i].what);
        FFDec_Task task;
        ASSERT_TRUE(task.open(sc));
        task.reverse_budget = cases[i].budget;
        const Counts c = Counts::now();
        for (int k = 299; k >= 150; --k) {  // across the key frame at 250
            ASSERT_EQ(index_of(ask(task, k * kFrame)), k);
            std::lock_guard<std::mutex> lock(task.mutex);
            ASSERT_LE(task.frames.size(), cases[i].most_frames);
        }
        decoded[i] = c.since().frames;
        // Forward again: the window closes and the cache is short once more.
        EXPECT_EQ(index_of(ask(task, 200 * kFrame)), 200);
        std::lock_guard<std::mutex> lock(task.mutex);
        EXPECT_TRUE(task.window_frames == 0 && task.frames.size() <= task.max_frames + 1);
    }
    EXPECT_LT(decoded[1], decoded[0]);
    EXPECT_LT(decoded[2], decoded[1]);
}
