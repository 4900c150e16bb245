// Asynchronous requests: newest-wins queuing, cancellation, close while
// requests wait, reopen and positioning, one worker per decoder, and a
// callback that closes its own decoder. Many threads over many decoders are
// the public stress test's.
#include <functional>
#include <set>
#include <thread>

#include "support.h"

using namespace ff;
using testsupport::Gate;

namespace {

RequireVideoFrame at_ms(long long ms, std::atomic<bool>* cancel = nullptr) {
    return {Rational(ms, 1000), PF_YUV420P, 1, cancel};
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

class DecoderAsync : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(dec.open(testsupport::stream_of("h264_cfr.mp4", STREAM_VIDEO))); }
    FFDecoder dec;
};

}  // namespace

TEST_F(DecoderAsync, NewestRequestReplacesTheWaitingOnes) {
    Gate release, last_done;
    std::mutex mutex;
    std::vector<int> delivered;
    auto record = [&](int index) {
        std::lock_guard<std::mutex> lock(mutex);
        delivered.push_back(index);
    };
    occupy(dec, release, record);
    for (int i = 1; i <= 9; ++i) {
        dec.getVideoFrameAsync(at_ms(i * 400), [&, i](std::shared_ptr<VFrameCtx> p) {
            record(testmedia::picture_index(*p));
            if (i == 9) last_done.open();
        });
    }
    release.open();
    ASSERT_TRUE(last_done.wait());
    dec.close();  // joins the worker: nothing else can arrive
    EXPECT_EQ(delivered, (std::vector<int>{0, 90}));
}

TEST_F(DecoderAsync, CancelledAndClosedRequestsNeverCallBackAndReopenAnswersAgain) {
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

TEST_F(DecoderAsync, FirstRequestsRacingCreateOneWorkerAndCallbacksMayClose) {
    std::mutex mutex;
    std::set<std::thread::id> workers;
    std::vector<std::thread> threads;
    testsupport::Barrier start(8);
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            dec.getVideoFrameAsync(at_ms(100 * t), [&](std::shared_ptr<VFrameCtx>) {
                std::lock_guard<std::mutex> lock(mutex);
                workers.insert(std::this_thread::get_id());
            });
        });
    }
    for (auto& th : threads) th.join();
    // Every request but the newest may be discarded; the newest is answered.
    // (Closing right away could make it stale before the worker takes it.)
    testsupport::wait_until([&] { std::lock_guard<std::mutex> lock(mutex); return !workers.empty(); },
                            "the newest request was never answered");
    dec.close();
    EXPECT_EQ(workers.size(), 1u);

    // A callback that closes its own decoder neither deadlocks nor crashes.
    ASSERT_TRUE(dec.reopen());
    Gate closed;
    dec.getVideoFrameAsync(at_ms(500), [&](std::shared_ptr<VFrameCtx>) {
        dec.close();
        closed.open();
    });
    EXPECT_TRUE(closed.wait());
}
