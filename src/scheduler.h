// Shares the decoding work of one stream among all decoders open on it.
//
// Each decoder adds one worker (a frame cache task) to its stream's pool when
// it opens and removes one idle worker when it closes. A request is served by
// the best worker of the pool: one holding the frame, one decoding towards it
// (wait for it, or take it over when idle), an idle one with an empty cache,
// one last used by the same decoder, the least recently used one. Requests run
// on the calling thread; the scheduler starts no threads.
//
// Locks, outermost first: the pool's shared mutex `pool_mutex` (shared for
// requests, exclusive for adding and removing workers) -> one worker's
// `mutex` -> the internal mutex of that worker's `cond`. A request never holds
// two worker mutexes at once, and never holds the pool mutex while it waits
// for a worker or runs a job; a job gives its worker's mutex up while it
// decodes, so the pool mutex is never held across decoding either. Removal,
// with the pool held exclusively, only tries the workers' mutexes while it
// chooses; then it locks the chosen one, idle and unreserved, which can only
// wait for a request that is just leaving it (nobody can enter it without the
// pool mutex). `idle_mutex` is taken alone. A decoder calls in with its own
// request mutex held, which comes before all of these.
//
// Guarded: `workers` by `pool_mutex`; `idle_epoch` by `idle_mutex`; each
// worker's scheduling fields by its `mutex`; `pending_removals` is atomic.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>
#include <vector>

namespace ff {

struct StreamCtx;

template <typename T>
class AbstractScheduler {
public:
    // A unit of decoding work with a short cache of results. The scheduler
    // reads and writes `owner`, `busy`, `last_used`, `reserved_by`,
    // `waiters`, `has_target`, `target_ts` and `target_next`, always under
    // `mutex`; `id` and `name` are set at construction.
    class iWorker {
    public:
        iWorker();
        virtual ~iWorker();
        iWorker(const iWorker&) = delete;
        iWorker& operator=(const iWorker&) = delete;

        virtual bool is_empty() const = 0;
        // A worker that can no longer decode anything (its stream ended with
        // nothing cached) is asked only when no other worker can take a job,
        // and goes first when a decoder closes.
        virtual bool is_broken() const { return false; }
        virtual long long cached_first_ts() const = 0;
        virtual bool is_contain(long long ts, bool next) = 0;
        virtual bool will_contain(long long ts) = 0;
        virtual T get_exist_resource(long long ts, bool next) = 0;
        // Called with `mutex` held when `locked`; returns with it released.
        virtual T do_job(long long ts, bool locked, std::atomic<bool>* cancel, bool next) = 0;

        int id;
        int owner = 0;          // decoder that last ran a job here
        char* name;             // "work_<id>", for log lines
        bool busy = false;      // a job runs here
        std::mutex mutex;
        std::condition_variable_any cond;  // notified on every appended frame and job end
        int64_t last_used = 0;  // wall-clock seconds of the last job's start and end

        // A request walking the pool keeps its fallback workers for itself
        // (0: free); nobody else starts a job on a reserved worker.
        uint64_t reserved_by = 0;
        // Requests waiting on `cond` or about to re-lock `mutex` after waking:
        // such a worker is never deleted.
        int waiters = 0;
        // The request a worker has been chosen for, from the moment of choice
        // to the end of its job: another request for the same frame waits for
        // it rather than decoding the frame a second time.
        bool has_target = false;
        long long target_ts = 0;
        bool target_next = false;
    };

    AbstractScheduler() = default;
    ~AbstractScheduler() = default;
    AbstractScheduler(const AbstractScheduler&) = delete;
    AbstractScheduler& operator=(const AbstractScheduler&) = delete;

    void add_worker(iWorker* w);
    // Removes a broken worker, else the least recently used one, that no
    // request uses, reserves or waits on (only `w` when given), and deletes it
    // when `del`. A worker whose mutex is held at that moment counts as in use:
    // removal never waits for another request's work. When every worker is in
    // use, the removal is remembered and done as soon as a job ends or the next
    // request arrives, so the pool does not keep a worker per close that met a
    // busy pool.
    void remove_worker(iWorker* w, bool del);
    // The frame for `ts` (`next`: the first frame after `ts`), or null.
    T do_working(long long ts, std::atomic<bool>* cancel, bool next, int owner_id, const char* who);

    size_t worker_count();

private:
    // Classification of a worker for one request, in preference order.
    enum class Rank { Holding, ArrivingOwn, ArrivingOther, Empty, Rest, Broken };
    struct Ranked {
        iWorker* worker;
        Rank rank;
        long long first_ts;
        int64_t last_used;
        bool own;
    };

    // One walk over the pool, in order_workers' preference, with the pool
    // mutex held shared: a worker holding the frame answers at once; the
    // first worker holding or decoding towards it is taken (reserved, when
    // free) or awaited (counted as a waiter, when busy); free workers passed
    // on the way are reserved as candidates.
    struct Choice {
        enum Kind { Candidates, NoWorkers, Hit, Run, Await } kind = Candidates;
        T answer;                            // Hit
        iWorker* worker = nullptr;           // Run, Await
        std::vector<iWorker*> candidates;    // reserved by the walk
    };
    Choice choose_worker(long long ts, bool next, int owner_id, uint64_t walk);
    // Marks `w` (its mutex held) as chosen for the frame at ts.
    static void name_target(iWorker* w, long long ts, bool next);
    // Takes the first candidate for the job, naming its target at once.
    iWorker* take_first_candidate(std::vector<iWorker*>& candidates, long long ts, bool next);
    uint64_t current_epoch();
    std::vector<iWorker*> order_workers(long long ts, bool next, int owner_id);
    void release_candidates(std::vector<iWorker*>& candidates, uint64_t walk);
    // Starts the job on `w`, whose mutex `lock` holds (the worker is free or
    // reserved by this request); returns its answer with the mutex released.
    T run_job(iWorker* w, std::unique_lock<std::mutex>& lock, long long ts, std::atomic<bool>* cancel, bool next,
              int owner_id);
    void wait_for_change(uint64_t seen_epoch);
    // Waits on `w` (whose mutex `lock` holds) for the frame or for the worker
    // to come free; null with the lock released when `cancel` is raised first.
    T await_worker(iWorker* w, std::unique_lock<std::mutex>& lock, long long ts, std::atomic<bool>* cancel,
                   bool next, int owner_id, bool* gave_up);
    // With `pool_mutex` held exclusively: removes one idle worker (only `only`
    // when given); false when none is idle.
    bool remove_idle_locked(iWorker* only, bool del);
    void settle_pending_removals();
    void announce_change();

    std::shared_timed_mutex pool_mutex;
    std::list<iWorker*> workers;  // in the order they were added
    std::atomic<int> pending_removals{0};  // removals deferred because every worker was in use

    // Wakes requests that found every worker busy when any worker frees up.
    std::mutex idle_mutex;
    std::condition_variable idle_cv;
    uint64_t idle_epoch = 0;  // guarded by idle_mutex
};

}  // namespace ff

struct AVFrame;

namespace ff {

// The one instantiation (defined in scheduler.cpp): pools of decoded frames.
using FrameScheduler = AbstractScheduler<std::shared_ptr<AVFrame>>;
extern template class AbstractScheduler<std::shared_ptr<AVFrame>>;

// Process-wide registry of pools, keyed by stream. Pools are never erased, so
// a pool pointer stays valid for the life of the process. `mutex` guards
// `pools` and is held only for the look-up or insertion, with nothing taken
// under it (callers may hold a decoder's request mutex).
struct DecoderManager {
    std::mutex mutex;
    std::unordered_map<const StreamCtx*, FrameScheduler> pools;

    DecoderManager() : pools(10) {}
    FrameScheduler* pool_of(const StreamCtx* stream);
};

extern DecoderManager& g_decoder_mgr;

}  // namespace ff
