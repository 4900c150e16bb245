// Asynchronous requests: newest-wins queuing, cancellation, close while
// requests wait, one worker per decoder. Many threads over many decoders are
// the public stress test's.
#include <set>
#include <thread>

#include "support.h"

using namespace ff;
using testsupport::Gate;

namespace {

RequireVideoFrame at_ms(long long ms) {
    RequireVideoFrame req;
    req.time = Rational(ms, 1000);
    req.format = PF_YUV420P;
    return req;
}

}  // namespace

TEST(DecoderAsync, NewestRequestReplacesTheWaitingOnes) {
    const testsupport::VideoUnderTest v = testsupport::load_video("h264_cfr.mp4");
    FFDecoder dec;
    ASSERT_TRUE(dec.open(v.stream));
    Gate first_running, release_first, last_done;
    std::mutex mutex;
    std::vector<int> delivered;
    dec.getVideoFrameAsync(at_ms(0), [&](std::shared_ptr<VFrameCtx> p) {
        first_running.open();
        release_first.wait();
        std::lock_guard<std::mutex> lock(mutex);
        delivered.push_back(testmedia::picture_index(*p));
    });
    ASSERT_TRUE(first_running.wait());
    for (int i = 1; i <= 9; ++i) {
        dec.getVideoFrameAsync(at_ms(i * 400), [&, i](std::shared_ptr<VFrameCtx> p) {
            std::lock_guard<std::mutex> lock(mutex);
            delivered.push_back(testmedia::picture_index(*p));
            if (i == 9) last_done.open();
        });
    }
    release_first.open();
    ASSERT_TRUE(last_done.wait());
    dec.close();  // joins the worker: nothing else can arrive
    EXPECT_EQ(delivered, (std::vector<int>{0, 90}));
}

TEST(DecoderAsync, CancelledAndClosedRequestsNeverCallBack) {
    const testsupport::VideoUnderTest v = testsupport::load_video("h264_cfr.mp4");
    FFDecoder dec;
    ASSERT_TRUE(dec.open(v.stream));
    Gate running, release;
    std::atomic<int> calls{0};
    dec.getVideoFrameAsync(at_ms(100), [&](std::shared_ptr<VFrameCtx>) {
        running.open();
        release.wait();
        ++calls;
    });
    ASSERT_TRUE(running.wait());
    std::atomic<bool> cancel{true};
    RequireVideoFrame cancelled = at_ms(200);
    cancelled.cancel = &cancel;
    dec.getVideoFrameAsync(cancelled, [&](std::shared_ptr<VFrameCtx>) { calls += 100; });
    release.open();
    dec.close();  // the cancelled one is taken or dropped: either way no call
    EXPECT_EQ(calls.load(), 1);

    // Queued, then closed before it can run: no call, and the worker is gone.
    ASSERT_TRUE(dec.reopen());
    Gate busy, go;
    dec.getVideoFrameAsync(at_ms(300), [&](std::shared_ptr<VFrameCtx>) {
        busy.open();
        go.wait();
    });
    ASSERT_TRUE(busy.wait());
    dec.getVideoFrameAsync(at_ms(400), [&](std::shared_ptr<VFrameCtx>) { calls += 1000; });
    std::thread closer([&] { dec.close(); });
    testsupport::wait_until([&] { return !dec.isOpened(); }, "close never began");  // it now joins the worker
    go.open();
    closer.join();
    EXPECT_EQ(calls.load(), 1);

    // After reopen a new worker answers, also for positioning's empty callback.
    ASSERT_TRUE(dec.reopen());
    dec.pri_seek({1, 1}, true);
    Gate answered;
    dec.getVideoFrameAsync(at_ms(2000), [&](std::shared_ptr<VFrameCtx> p) {
        if (testmedia::picture_index(*p) == 50) answered.open();
    });
    EXPECT_TRUE(answered.wait());
    dec.close();  // the worker ends before the gates go
}

TEST(DecoderAsync, FirstRequestsRacingCreateOneWorkerAndCallbacksMayClose) {
    const testsupport::VideoUnderTest v = testsupport::load_video("vfr.mkv");
    auto dec = std::make_unique<FFDecoder>();
    ASSERT_TRUE(dec->open(v.stream));
    std::mutex mutex;
    std::set<std::thread::id> workers;
    std::atomic<int> answered{0};
    std::vector<std::thread> threads;
    std::atomic<bool> start{false};
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            while (!start) std::this_thread::yield();
            dec->getVideoFrameAsync(at_ms(100 * t), [&](std::shared_ptr<VFrameCtx>) {
                std::lock_guard<std::mutex> lock(mutex);
                workers.insert(std::this_thread::get_id());
                ++answered;
            });
        });
    }
    start = true;
    for (auto& th : threads) th.join();
    // Every request but the newest may be discarded; the newest is answered.
    // (Closing right away could make it stale before the worker takes it.)
    testsupport::wait_until([&] { return answered.load() > 0; }, "the newest request was never answered");
    dec->close();
    EXPECT_EQ(workers.size(), 1u);

    // A callback that closes its own decoder neither deadlocks nor crashes.
    ASSERT_TRUE(dec->reopen());
    Gate closed;
    dec->getVideoFrameAsync(at_ms(500), [&](std::shared_ptr<VFrameCtx>) {
        dec->close();
        closed.open();
    });
    EXPECT_TRUE(closed.wait());
    dec.reset();
}
