// The decode scheduler, driven by scripted fake workers: which worker serves a
// request, how a request waits for a busy worker heading to its frame or
// already chosen for it, how a cancelled waiter gives up, and which worker a
// closing decoder removes.
//
// A fake keeps its "cache" as a map of timestamps to frames, guarded by the
// worker's own mutex like the real task, and can hold a job at a gate so that
// a test decides when it appends its frame and when it ends.
#include <ctime>
#include <future>
#include <map>
#include <new>

#include "scheduler.h"
#include "support.h"

namespace {

using Frame = std::shared_ptr<AVFrame>;
using Worker = ff::FrameScheduler::iWorker;
using testsupport::Counts;
using testsupport::Gate;
using testsupport::stuck;
using testsupport::wait_until;

long long target_of(long long ts, bool next) { return next ? ts + 1 : ts; }
constexpr long long kThrowing = 700;  // a job for this ts throws, as one out of memory would
constexpr long long kBarren = 90;  // a job for this ts ends without a frame

// Workers the pool deleted, and misuse seen: kept outside the fakes because the pool deletes what it removes.
struct Tracker {
    std::vector<int> gone;  // written where a removal runs; read once the requests that ran it returned
    std::atomic<int> misused{0};  // a job started on a busy worker or unlocked, or a worker deleted in use
};

// A job "decodes" the requested frame (with `next`, ts + 1) into `held`.
class FakeWorker : public Worker {
public:
    explicit FakeWorker(Tracker& t) : tracker(t) {}
    ~FakeWorker() override {
        // remove_worker locks and unlocks `mutex` before deleting: plain reads suffice.
        if (in_job.load() || busy || reserved_by != 0 || waiters != 0) ++tracker.misused;
        tracker.gone.push_back(id);
    }

    // Test-controlled state, guarded by `mutex`.
    std::map<long long, Frame> held;
    long long arrive_hi = -1;  // will_contain(ts) for ts <= arrive_hi
    bool broken = false;
    Gate* before_append = nullptr;
    Gate* after_append = nullptr;
    // What the jobs on this worker were given.
    int jobs = 0;
    const std::atomic<bool>* last_cancel = nullptr;

    // Keeps a new frame with pts `ts`, as if decoded, and gives it back.
    Frame hold(long long ts) {
        Frame& frame = held[ts] = ff::create_avframe_ptr(av_frame_alloc());
        if (frame) frame->pts = ts;
        return frame;
    }
    bool is_empty() const override { return held.empty(); }
    bool is_broken() const override { return broken; }
    long long cached_first_ts() const override { return held.empty() ? -1 : held.begin()->first; }
    bool is_contain(long long ts, bool next) override { return held.count(target_of(ts, next)) != 0; }
    bool will_contain(long long ts) override { return ts <= arrive_hi; }
    Frame get_exist_resource(long long ts, bool next) override {
        return is_contain(ts, next) ? held[target_of(ts, next)] : nullptr;
    }
    Frame do_job(long long ts, bool locked, std::atomic<bool>* cancel, bool next) override {
        if (!locked) ++tracker.misused;  // the scheduler always hands its locked mutex over
        std::unique_lock<std::mutex> lock(mutex, std::adopt_lock);
        if (ts == kThrowing) throw std::bad_alloc();  // `lock` still gives the mutex back
        if (in_job.exchange(true)) return ++tracker.misused, nullptr;  // keep out of the first job's cache
        ++jobs;
        last_cancel = cancel;
        auto pause = [&](Gate* gate) {  // a real task gives its mutex up while it decodes, and says so
            lock.unlock();
            cond.notify_all();
            if (!gate->wait()) stuck("gate never opened");
            lock.lock();
        };
        if (before_append) pause(before_append);
        Frame answer;
        if (ts != kBarren) {
            answer = hold(target_of(ts, next));
            cond.notify_all();
        }
        if (after_append) pause(after_append);
        in_job = false;
        return answer;
    }

private:
    Tracker& tracker;
    std::atomic<bool> in_job{false};
};

template <typename F>
auto with_lock(FakeWorker* w, F f) -> decltype(f(*w)) {
    std::lock_guard<std::mutex> lock(w->mutex);
    return f(*w);
}
int waiters_of(FakeWorker* w) { return with_lock(w, [](FakeWorker& x) { return x.waiters; }); }
long long pts(const Frame& f) { return f ? f->pts : -1; }

// A request on its own thread, so that the test can hold jobs meanwhile. Every
// test takes each answer, so the future's own wait never matters.
struct Async {
    std::future<Frame> result;
    Async(ff::FrameScheduler& s, long long ts, int owner, std::atomic<bool>* cancel = nullptr, bool next = false)
        : result(std::async(std::launch::async, [=, &s] { return s.do_working(ts, cancel, next, owner, "dec"); })) {}
    Frame get() {
        if (result.wait_for(testsupport::kHangGuard) != std::future_status::ready) stuck("request never returned");
        return result.get();
    }
};

// Workers left at the end of a test are removed (and so deleted) here.
struct Pool {
    Tracker t;  // first: outlives the workers deleted below
    ff::FrameScheduler sched;

    FakeWorker* add(const std::function<void(FakeWorker&)>& setup = {}) {
        auto* w = new FakeWorker(t);
        if (setup) setup(*w);  // not shared yet
        sched.add_worker(w);
        return w;
    }
    Frame get(long long ts, int owner, bool next = false, std::atomic<bool>* cancel = nullptr) {
        return Async(sched, ts, owner, cancel, next).get();
    }
    ~Pool() {
        for (size_t n = sched.worker_count(); n > 0; --n) sched.remove_worker(nullptr, true);
        EXPECT_EQ(t.misused.load(), 0);
    }
};

}  // namespace

TEST(SchedulerChoice, PicksWorkerInPreferenceOrder) {
    struct W { std::vector<long long> holds; bool arriving; int owner; int64_t last_used; bool broken = false; };
    struct Case { const char* what; std::vector<W> workers; size_t expected; bool next = false; };
    const W empty{{}, false, 0, 0};
    const std::vector<W> holders{empty, {{100, 101}, false, 0, 0}, {{50}, true, 1, 0}, {{100}, false, 0, 0}};
    // Decoder 1 asks for frame 100 (or the one after it); arriving workers head up to 200.
    const Case cases[] = {
        {"holding first, the last holder added", holders, 3},
        {"holding the frame after ts", holders, 1, true},
        {"arriving own, list order", {{{95}, true, 2, 0}, {{60}, true, 1, 0}, empty, {{70}, true, 1, 0}}, 1},
        {"arriving other: latest cache, before empty and own",
         {{{50}, true, 2, 0}, {{80}, true, 3, 0}, {{60}, true, 2, 0}, empty, {{1000}, false, 1, 0}}, 1},
        {"arriving other, equal caches: later added", {{{80}, true, 2, 0}, {{80}, true, 3, 0}}, 1},
        {"first empty before own and LRU", {{{1000}, false, 1, 5}, {{2000}, false, 2, 1}, empty, empty}, 2},
        {"own before LRU", {{{1000}, false, 2, 10}, {{2000}, false, 1, 500}, {{3000}, false, 3, 20}}, 1},
        {"least recently used", {{{1000}, false, 2, 300}, {{2000}, false, 3, 100}, {{3000}, false, 4, 200}}, 1},
        {"LRU equals: later added", {{{1000}, false, 2, 300}, {{2000}, false, 3, 100}, {{3000}, false, 4, 100}}, 2},
        {"a lone worker takes everything", {{{1000}, false, 9, 1}}, 0},
        {"a broken worker last, though empty and own", {{{}, false, 1, 0, true}, {{1000}, false, 2, 300}}, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Pool p;
        std::vector<FakeWorker*> ws;
        for (const W& w : c.workers) {
            ws.push_back(p.add([&](FakeWorker& x) {
                for (long long ts : w.holds) x.hold(ts);
                x.arrive_hi = w.arriving ? 200 : -1;
                x.owner = w.owner;
                x.last_used = w.last_used;
                x.broken = w.broken;
            }));
        }
        FakeWorker* want = ws[c.expected];
        const Frame cached = with_lock(want, [&](FakeWorker& x) { return x.get_exist_resource(100, c.next); });
        const Counts c0 = Counts::now();
        const Frame f = p.get(100, 1, c.next);
        EXPECT_EQ(pts(f), target_of(100, c.next));
        EXPECT_TRUE(!cached || f == cached);  // a hit answers the cached object itself, without a job
        EXPECT_EQ(c0.since().hits, cached ? 1u : 0u);
        // The job ran on the worker preferred, or on none: another's frame is another object.
        with_lock(want, [&](FakeWorker& x) { EXPECT_EQ(x.jobs, cached ? 0 : 1); });
    }
}

// With no worker a request answers null and says so; a job runs with its
// request's owner, time and cancel flag and leaves the worker idle, also when
// it throws.
TEST(SchedulerChoice, EmptyPoolJobContractAndFailingJob) {
    Pool p;
    const std::string out = testsupport::stdout_of([&] { EXPECT_EQ(p.get(100, 1), nullptr); });
    EXPECT_NE(out.find("\"worker-list empty\"\n"), std::string::npos) << out;

    FakeWorker* w = p.add();
    std::atomic<bool> cancel{false};
    const int64_t before = static_cast<int64_t>(std::time(nullptr));
    EXPECT_EQ(pts(p.get(100, 3, true, &cancel)), 101);
    with_lock(w, [&](FakeWorker& x) {
        EXPECT_TRUE(!x.busy && x.owner == 3 && x.last_used >= before && x.last_cancel == &cancel);
    });

    // A job that throws answers nothing and leaves the worker idle.
    EXPECT_EQ(p.get(kThrowing, 1), nullptr);
    with_lock(w, [](FakeWorker& x) { EXPECT_FALSE(x.busy); });
    EXPECT_EQ(pts(p.get(800, 1)), 800);
}

// A request waits for a busy worker heading to its frame (an idle one could
// decode it, but would seek): the job appends the frame or ends without it
// (the waiter takes the worker over); the waiter is cancelled or not. A
// worker chosen for a frame draws the next request for it even when it cannot
// tell it will reach it and an idle worker would reach it by decoding on.
TEST(SchedulerWait, WaiterGetsFrameTakesOverOrGivesUpWhenCancelled) {
    const struct Case { const char* what; bool barren, cancelled, only_chosen; } cases[] = {
        {"frame appended", false, false, false},
        {"job ends barren: taken over", true, false, false},
        {"cancelled mid-job", false, true, false},
        {"cancelled, job barren", true, true, false},
        {"waits on the worker chosen, not an idle one arriving", false, false, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Gate gate, finish;
        Pool p;
        FakeWorker* busy = p.add([&](FakeWorker& x) {
            x.arrive_hi = c.only_chosen ? -1 : 200;
            x.before_append = &gate;
            x.after_append = &finish;
        });
        const Counts c0 = Counts::now();
        Async a(p.sched, c.barren ? kBarren : 100, 1);
        // The scheduler counts a job under the worker's mutex before it runs it.
        wait_until([&] { return c0.since().jobs > 0; }, "job never started");
        // Idle: empty, or on its way to the frame.
        p.add([&](FakeWorker& x) { if (c.only_chosen) x.hold(50), x.arrive_hi = 200; });
        std::atomic<bool> cancel{false};
        Async b(p.sched, 100, 2, c.only_chosen ? nullptr : &cancel);  // one waits with no flag at all
        wait_until([&] { return waiters_of(busy) > 0 || c0.since().jobs > 1; }, "request never waited");
        Frame fb;  // answered while the gates still hold a's job (unless that job is barren)
        const std::string out = testsupport::stdout_of([&] {
            cancel = c.cancelled;
            if (!c.cancelled || c.barren) gate.open();
            if (c.barren) finish.open();
            with_lock(busy, [](FakeWorker& x) { x.cond.notify_all(); });  // as a task giving its mutex up
            fb = b.get();
        });
        gate.open();
        finish.open();
        const Frame fa = a.get();
        const Counts c1 = c0.since();
        const unsigned jobs = c.barren && !c.cancelled ? 2 : 1;
        // a gets what its own job returned, as in SchedulerChoice; b's answer is the point here.
        EXPECT_EQ(pts(fb), c.cancelled ? -1 : 100);
        EXPECT_TRUE(c.cancelled || c.barren || fb == fa);  // the appended frame, taken mid-job
        char line[128];
        std::snprintf(line, sizeof line, "\"worker cancelled: %p, %s\"\n", static_cast<Worker*>(busy), busy->name);
        EXPECT_EQ(out.find(line) != std::string::npos, c.cancelled) << out;
        EXPECT_EQ(c1.jobs, jobs);
        EXPECT_EQ(c1.waits, 1u);
        EXPECT_EQ(c1.hits, c.barren || c.cancelled ? 0u : 1u);
        with_lock(busy, [&](FakeWorker& x) {
            EXPECT_TRUE(!x.busy && x.waiters == 0 && x.jobs == int(jobs) && x.owner == int(jobs));
        });
    }
}

// A closing decoder removes one idle worker, never one in use; a removal that
// finds none is done as soon as a worker comes free.
TEST(SchedulerRemoval, RemovesOnlyTheLeastRecentlyUsedIdleWorker) {
    {  // Running, awaited, reserved by a walk, or with a request inside (its
       // mutex held, so removal must not wait for it): never a victim. A broken
       // worker goes before the least recently used one.
        Pool p;
        FakeWorker* busy = p.add([](FakeWorker& x) { x.last_used = 1, x.busy = true; });
        FakeWorker* awaited = p.add([](FakeWorker& x) { x.last_used = 10, x.waiters = 1; });
        FakeWorker* reserved = p.add([](FakeWorker& x) { x.last_used = 20, x.reserved_by = ~uint64_t{0}; });
        FakeWorker* inside = p.add([](FakeWorker& x) { x.last_used = 30; });
        const int lru = p.add([](FakeWorker& x) { x.last_used = 400; })->id;
        const int recent = p.add([](FakeWorker& x) { x.last_used = 500; })->id;
        const int broken = p.add([](FakeWorker& x) { x.broken = true, x.last_used = 900; })->id;
        p.sched.remove_worker(busy, true);  // only that one, and it is in use
        EXPECT_TRUE(p.t.gone.empty());
        // The request inside is this thread holding the worker's mutex, so the removals run on another thread
        // (trying a mutex one's own thread holds is undefined); one that waited for the mutex would never return.
        std::unique_lock<std::mutex> request_inside(inside->mutex);
        auto removals = std::async(std::launch::async, [&] {
            for (int i = 0; i < 4; ++i) p.sched.remove_worker(nullptr, true);  // the fourth finds none: deferred
        });
        if (removals.wait_for(testsupport::kHangGuard) != std::future_status::ready) stuck("a removal waited");
        request_inside.unlock();
        EXPECT_EQ(p.t.gone, (std::vector<int>{broken, lru, recent}));
        for (FakeWorker* w : {busy, awaited}) with_lock(w, [](FakeWorker& x) { x.busy = false, x.waiters = 0; });
        // The next request settles the deferred removal first, then decodes
        // on the first empty worker it may take (not the reserved one).
        const int busy_id = busy->id;
        EXPECT_EQ(pts(p.get(10, 1)), 10);
        EXPECT_EQ(p.t.gone, (std::vector<int>{broken, lru, recent, busy_id}));
        with_lock(awaited, [](FakeWorker& x) { EXPECT_EQ(x.jobs, 1); });
        with_lock(reserved, [](FakeWorker& x) { x.reserved_by = 0; });
    }
    {  // The second request passes the busy first worker over. Every worker
       // busy: nothing goes now, one idle worker as soon as a job ends.
        Gate gate;
        Pool p;
        for (int i = 0; i < 2; ++i) p.add([&](FakeWorker& x) { x.before_append = &gate; });
        const Counts c0 = Counts::now();
        Async a(p.sched, 10, 1);
        wait_until([&] { return c0.since().jobs > 0; }, "job never started");
        Async c(p.sched, 20, 2);
        // On the second worker: the first one's job is held.
        wait_until([&] { return c0.since().jobs > 1; }, "second job never started");
        p.sched.remove_worker(nullptr, true);
        EXPECT_EQ(p.sched.worker_count(), 2u);
        gate.open();
        EXPECT_EQ(pts(a.get()) + pts(c.get()), 30);
        EXPECT_EQ(p.sched.worker_count(), 1u);
    }
}
