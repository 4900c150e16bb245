// A host's lifecycle around the answers: a cancel, a close and cached
// requests that never wait for another decoder's decoding; a decoder that
// never opened and creates no pool; a close that cuts its own requests
// (pictures and audio) and its waiting requests short; open/reopen/close
// cycles that leave no task or thread behind; exceptions that never reach the
// host; setters that wait for the request under way. Asynchronous requests:
// newest-wins queuing, cancellation, close while requests wait, reopen and
// positioning, one worker per decoder, and a callback that closes its own
// decoder (many threads over many decoders are the public stress test's).
// Jobs are held mid-decode by the task's decode hook, or callbacks by gates,
// so every case is decided by order, not by timing.
#include <future>
#include <new>
#include <set>
#include <stdexcept>

#include "ffdec_task.h"
#include "ffdecoder2.h"
#include "process_stats.h"
#include "support.h"

using namespace ff;
using testsupport::Gate;
using testsupport::index_of;
using testsupport::wait_until;

namespace {

// While `holding`, holds every decoding job at the task's decode hook until
// its request is cancelled.
struct JobHold {
    static inline std::atomic<bool> holding{false};
    static inline std::atomic<int> held{0};

    static void hook(FFDec_Task*, const std::atomic<bool>* cancel) {
        ++held;
        wait_until([&] { return !holding || (cancel && cancel->load()); }, "a held job was never let go");
        --held;
    }
    JobHold() {
        holding = true;
        g_task_decode_hook = &JobHold::hook;
    }
    ~JobHold() {
        holding = false;
        wait_until([] { return held.load() == 0; }, "a held job never ended");
        g_task_decode_hook = nullptr;
    }
    static void wait_held(int n) { wait_until([n] { return held.load() >= n; }, "job never reached the hook"); }
};

constexpr auto kLimit = std::chrono::seconds(20);  // only against a hang; shorter than the hook's guard

// Work runs aside through std::async; done() is true when it finished within the limit.
template <typename T>
bool done(std::future<T>& f) { return f.wait_for(kLimit) == std::future_status::ready; }

RequireVideoFrame at_ms(long long ms, std::atomic<bool>* cancel = nullptr) {
    return {Rational(ms, 1000), PF_YUV420P, 1, cancel};
}

// The picture an asynchronous request is answered with; -2 when none comes.
int async_index(FFDecoder& dec, long long ms) {
    auto answered = std::make_shared<std::promise<int>>();
    dec.getVideoFrameAsync(at_ms(ms), [answered](std::shared_ptr<VFrameCtx> p) { answered->set_value(index_of(p)); });
    auto answer = answered->get_future();
    return answer.wait_for(kLimit) == std::future_status::ready ? answer.get() : -2;
}

// Queues a request whose callback keeps the decoder's worker until `release`
// opens, then hands the picture index on: requests queued meanwhile wait.
void occupy(FFDecoder& dec, Gate& release, const std::function<void(int)>& then = [](int) {}) {
    Gate running;  // the callback touches it no more once a waiter is through
    dec.getVideoFrameAsync(at_ms(0), [&running, &release, then](std::shared_ptr<VFrameCtx> p) {
        running.open();
        release.wait();
        then(testmedia::picture_index(*p));
    });
    ASSERT_TRUE(running.wait());
}

// A decoder whose requests throw, as one running out of memory would.
class ThrowingDecoder : public FFDecoder {
public:
    std::atomic<bool> fail{false};
    std::atomic<int> thrown{0};  // by a request, or by a host callback
    std::shared_ptr<VFrameCtx> pri_getVideoFrame(const RequireVideoFrame& req, int seq) override {
        if (fail) ++thrown, throw std::bad_alloc();
        return FFDecoder::pri_getVideoFrame(req, seq);
    }
};

class Video : public testing::Test {
protected:
    void SetUp() override {
        video = testsupport::load_video("h264_cfr.mp4");
        ASSERT_NE(video.stream, nullptr);
    }
    size_t workers() { return g_decoder_mgr.pool_of(video.stream)->worker_count(); }
    testsupport::VideoUnderTest video;
    FFDecoder dec;  // for the asynchronous cases; closed before the gates they use go
};

}  // namespace

// Decoder a's job is held mid-decode; b and c are open on the same stream.
// b's requests waiting for that job end when cancelled or when b closes, and
// neither c's cached picture nor b's close waits for it; a's setter waits for
// it; a's own close cuts its held jobs short (pictures and audio).
TEST_F(Video, HeldJobsDelayNoOtherDecoderAndEndWithTheirOwnClose) {
    FFDecoder2 a;
    FFDecoder b, c;
    ASSERT_TRUE(a.open(video.stream) && b.open(video.stream) && c.open(video.stream));
    const size_t before = workers();
    ASSERT_EQ(index_of(c.getVideoFrame(at_ms(0))), 0);
    JobHold hold;
    auto far = std::async(std::launch::async, [&] { return a.getVideoFrame(at_ms(3000)); });
    JobHold::wait_held(1);
    // b's requests for the frame a's job heads to wait for that job.
    auto waiting = [&](std::atomic<bool>* flag) {
        const testsupport::Counts counts = testsupport::Counts::now();
        auto answer = std::async(std::launch::async, [&b, flag] { return b.getVideoFrame(at_ms(3000, flag)); });
        wait_until([&] { return counts.since().waits > 0; }, "request never waited");
        return answer;
    };
    std::atomic<bool> cancel{false};
    auto cancelled = waiting(&cancel);
    cancel = true;  // ends the wait, with no answer, while the job still runs
    const bool gave_up = done(cancelled);
    auto cut = waiting(nullptr);
    auto setter = std::async(std::launch::async, [&] { return a.setFilters("hflip"); });
    auto cached = std::async(std::launch::async, [&] { return c.getVideoFrame(at_ms(0)); });
    auto close = std::async(std::launch::async, [&] { b.close(); });  // also ends the second wait
    // All of them end while a's job is still held.
    const bool others_done = gave_up && done(cut) && done(cached) && done(close) && JobHold::held.load() == 1;
    JobHold::holding = false;
    ASSERT_TRUE(others_done);
    EXPECT_EQ(cancelled.get(), nullptr);
    EXPECT_EQ(cut.get(), nullptr);
    EXPECT_EQ(index_of(cached.get()), 0);
    EXPECT_EQ(workers(), before - 1);
    ASSERT_TRUE(done(setter) && done(far));
    EXPECT_EQ(index_of(far.get()), 75);  // built and converted without the new filter
    EXPECT_TRUE(setter.get());
    EXPECT_NE(index_of(a.getVideoFrame(at_ms(3000))), 75);  // mirrored from now on
    // Held again: only its own close lets it go.
    JobHold::holding = true;
    auto own = std::async(std::launch::async, [&] { return a.getVideoFrame(at_ms(1000)); });
    JobHold::wait_held(1);
    auto close_a = std::async(std::launch::async, [&] { a.close(); });
    ASSERT_TRUE(done(close_a) && done(own));
    EXPECT_EQ(own.get(), nullptr);
    // An audio request answers nothing or the exact samples decoded so far.
    FFDecoder sound;
    ASSERT_TRUE(sound.open(testsupport::stream_of("pcm_s16.wav", STREAM_AUDIO)));
    const RequireAudioFrame second = testsupport::audio_request({1, 1}, {2, 1}, SF_S16, 48000);
    auto span = std::async(std::launch::async, [&] { return sound.getAudioFrame(second); });
    JobHold::wait_held(1);
    auto close_sound = std::async(std::launch::async, [&] { sound.close(); });
    ASSERT_TRUE(done(close_sound) && done(span));
    const auto answer = span.get();
    EXPECT_TRUE(!answer || testsupport::is_ramp(*answer, 48000));
}

// A decoder never opened, or whose open failed, asks the registry for no pool.
TEST_F(Video, ADecoderThatNeverOpenedCreatesNoPool) {
    StreamCtx unopenable = *video.stream;  // a stream no decoder has opened; its task cannot open
    unopenable.index = 99;
    auto registry = [&] {
        std::lock_guard<std::mutex> lock(g_decoder_mgr.mutex);
        return std::make_pair(g_decoder_mgr.pools.size(), g_decoder_mgr.pools.count(&unopenable));
    };
    const auto before = registry();
    {
        FFDecoder failed;
        EXPECT_FALSE(failed.open(&unopenable));
        for (FFDecoder* d : {&dec, &failed}) {  // the fixture's is never opened here
            EXPECT_EQ(d->getVideoFrame(at_ms(0)), nullptr);
            EXPECT_EQ(d->getAudioFrame(testsupport::audio_request({0, 1}, {1, 1}, SF_S16, 48000)), nullptr);
            for (bool async : {false, true}) d->pri_seek(Rational(1, 1), async);
            EXPECT_FALSE(d->reopen() || d->isOpened());
            EXPECT_EQ(d->getImageDivider(MM_AUTO), 1);
            d->close();
        }
    }
    EXPECT_EQ(before.second, 0u);
    EXPECT_EQ(registry(), before);
}

// Open, open while open, reopen and close, over and over, leave the pool's
// worker count and the process's thread count where they were.
TEST_F(Video, OpenReopenAndCloseCyclesLeaveNoTaskOrThread) {
    FFDecoder::memCollection(0);  // the probe's parked decoder (and its threads) goes first
    const size_t workers_before = workers();
    const int threads_before = processstats::thread_count();
    FFDecoder kept;
    for (int cycle = 0; cycle < 30; ++cycle) {
        FFDecoder d;
        for (FFDecoder* dec : {&d, &kept}) {
            ASSERT_TRUE(dec->open(video.stream));
            ASSERT_TRUE(dec->open(video.stream));  // open while open
            ASSERT_TRUE(dec->reopen());
            EXPECT_EQ(async_index(*dec, 40 * cycle), cycle);
            ASSERT_EQ(workers(), workers_before + (dec == &d ? 1 : 2));
        }
        kept.close();
    }
    EXPECT_EQ(workers(), workers_before);
    EXPECT_EQ(processstats::thread_count(), threads_before);
}

// An exception in a request (synchronous or asynchronous) or in the host's
// callback is caught and logged, and the decoder's worker goes on answering.
TEST_F(Video, NoExceptionReachesTheHostAndTheWorkerGoesOn) {
    const struct Case { const char* what; bool async, callback_throws; const char* logged; } cases[] = {
        {"request throws", false, false, "exception caught: std::bad_alloc"},
        {"asynchronous request throws", true, false, "exception caught: std::bad_alloc"},
        {"callback throws", true, true, "asynchronous callback: exception caught: host callback failed"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ThrowingDecoder throwing;
        ASSERT_TRUE(throwing.open(video.stream));
        throwing.fail = !c.callback_throws;
        testmedia::LogCapture log;
        if (c.async) {
            throwing.getVideoFrameAsync(at_ms(400), [&](std::shared_ptr<VFrameCtx>) {
                ++throwing.thrown;
                throw std::runtime_error("host callback failed");
            });
        } else {
            EXPECT_EQ(throwing.getVideoFrame(at_ms(400)), nullptr);
        }
        wait_until([&] { return throwing.thrown.load() > 0; }, "nothing threw");
        // The next asynchronous request is answered: the worker lives on.
        throwing.fail = false;
        EXPECT_EQ(async_index(throwing, 800), 20);
        const std::string text = log.take();
        EXPECT_TRUE(testsupport::contains(text, c.logged)) << text;
    }
}

// While the worker is busy, each new asynchronous request discards the ones
// still waiting: only the newest is answered.
TEST_F(Video, AsyncNewestRequestReplacesTheWaitingOnes) {
    ASSERT_TRUE(dec.open(video.stream));
    Gate release, last_done;
    std::vector<int> delivered;  // only the worker writes it, and the test reads it once the worker is joined
    occupy(dec, release, [&](int index) { delivered.push_back(index); });
    for (int i = 1; i <= 9; ++i) {
        dec.getVideoFrameAsync(at_ms(i * 400), [&, i](std::shared_ptr<VFrameCtx> p) {
            delivered.push_back(testmedia::picture_index(*p));
            if (i == 9) last_done.open();
        });
    }
    release.open();
    ASSERT_TRUE(last_done.wait());
    dec.close();  // joins the worker: nothing else can arrive
    EXPECT_EQ(delivered, (std::vector<int>{0, 90}));
}

// Asynchronous requests cancelled, or made stale by a close, never call back;
// after reopen a new worker answers, and a callback may close its decoder.
TEST_F(Video, AsyncCancelledAndClosedRequestsNeverCallBackReopenAnswersAndCallbacksMayClose) {
    ASSERT_TRUE(dec.open(video.stream));
    std::atomic<int> calls{0};
    Gate release;
    occupy(dec, release, [&](int) { ++calls; });
    std::atomic<bool> cancel{true};
    dec.getVideoFrameAsync(at_ms(200, &cancel), [&](std::shared_ptr<VFrameCtx>) { calls += 100; });
    release.open();
    dec.close();  // the cancelled one is taken or dropped: either way no call
    EXPECT_EQ(calls.load(), 1);

    // Queued, then closed before it can run: no call, and the worker is gone.
    ASSERT_TRUE(dec.reopen());
    Gate go;
    occupy(dec, go);
    dec.getVideoFrameAsync(at_ms(400), [&](std::shared_ptr<VFrameCtx>) { calls += 1000; });
    std::thread closer([&] { dec.close(); });
    wait_until([&] { return !dec.isOpened(); }, "close never began");  // it now joins the worker
    go.open();
    closer.join();
    EXPECT_EQ(calls.load(), 1);

    // After reopen a new worker answers, also for positioning's empty callback;
    // a callback that closes its own decoder neither deadlocks nor crashes.
    ASSERT_TRUE(dec.reopen());
    const testsupport::Counts counts = testsupport::Counts::now();
    dec.pri_seek({1, 1}, true);
    // Taken before the next request could replace it.
    wait_until([&] { return counts.since().jobs + counts.since().hits > 0; }, "positioning never ran");
    Gate answered;
    dec.getVideoFrameAsync(at_ms(2010), [&](std::shared_ptr<VFrameCtx> p) {  // between two frames: the earlier
        dec.close();  // the worker ends before the gates go
        if (testmedia::picture_index(*p) == 50) answered.open();
    });
    EXPECT_TRUE(answered.wait());
}

// A decoder's first asynchronous requests, made at once from many threads,
// start one worker thread between them.
TEST_F(Video, AsyncFirstRequestsRacingCreateOneWorker) {
    ASSERT_TRUE(dec.open(video.stream));
    std::mutex mutex;
    std::set<std::thread::id> workers;
    std::vector<std::thread> threads;
    testsupport::Gate start;  // all eight ask at once
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            start.wait();
            dec.getVideoFrameAsync(at_ms(100 * t), [&](std::shared_ptr<VFrameCtx>) {
                std::lock_guard<std::mutex> lock(mutex);
                workers.insert(std::this_thread::get_id());
            });
        });
    }
    start.open();
    for (auto& th : threads) th.join();
    // Every request but the newest may be discarded; the newest is answered.
    // (Closing right away could make it stale before the worker takes it.)
    wait_until([&] { std::lock_guard<std::mutex> lock(mutex); return !workers.empty(); },
               "the newest request was never answered");
    dec.close();
    EXPECT_EQ(workers.size(), 1u);
}
