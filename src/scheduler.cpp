#include "scheduler.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>

extern "C" {
#include <libavutil/frame.h>
}

#include "cancel_flag.h"
#include "decode_counters.h"
#include "log.h"

namespace ff {

DecoderManager& g_decoder_mgr = *new DecoderManager();

FrameScheduler* DecoderManager::pool_of(const StreamCtx* stream) {
    std::lock_guard<std::mutex> lock(mutex);
    return &pools[stream];  // constructed in place on first use, never erased
}

namespace {

// Walks are numbered so that a reservation names its owner.
std::atomic<uint64_t> g_next_walk{1};

}  // namespace

template <typename T>
AbstractScheduler<T>::iWorker::iWorker() {
    static std::atomic<int> s_count{0};
    id = ++s_count;
    name = static_cast<char*>(std::malloc(16));
    if (name) std::snprintf(name, 16, "work_%d", id);
}

template <typename T>
AbstractScheduler<T>::iWorker::~iWorker() {
    std::free(name);
}

template <typename T>
size_t AbstractScheduler<T>::worker_count() {
    std::shared_lock<std::shared_timed_mutex> lock(pool_mutex);
    return workers.size();
}

template <typename T>
void AbstractScheduler<T>::add_worker(iWorker* w) {
    if (!w) return;
    CLIPDEC_SCOPE("add_worker", nullptr);
    {
        std::unique_lock<std::shared_timed_mutex> lock(pool_mutex);
        workers.push_back(w);
    }
    announce_change();
}

template <typename T>
void AbstractScheduler<T>::remove_worker(iWorker* w, bool del) {
    CLIPDEC_SCOPE("remove_worker", nullptr);
    std::unique_lock<std::shared_timed_mutex> lock(pool_mutex);
    const bool removed = remove_idle_locked(w, del);
    if (!removed && !w && del) ++pending_removals;
    while (pending_removals > 0 && remove_idle_locked(nullptr, true)) --pending_removals;
}

template <typename T>
bool AbstractScheduler<T>::remove_idle_locked(iWorker* only, bool del) {
    iWorker* victim = nullptr;
    bool victim_broken = false;
    int64_t recorded = 0;
    for (iWorker* x : workers) {
        if (only && x != only) continue;
        // A held mutex means a request is inside the worker right now: in use.
        // Waiting for it would stall every request of the stream behind the
        // exclusive pool lock.
        std::unique_lock<std::mutex> guard(x->mutex, std::try_to_lock);
        if (!guard.owns_lock()) continue;
        // A worker running, chosen for, or awaited by a request stays.
        if (x->busy || x->reserved_by != 0 || x->waiters > 0) continue;
        const bool broken = x->is_broken();
        const bool older = recorded == 0 || x->last_used < recorded;
        if (!victim || (broken && !victim_broken) || (broken == victim_broken && older)) {
            victim = x;
            victim_broken = broken;
            recorded = x->last_used;
        }
    }
    if (!victim) return false;
    workers.remove(victim);
    // Idle and unreserved with the pool locked exclusively: nobody can enter
    // it any more, this only waits for a request that was just leaving.
    { std::lock_guard<std::mutex> nobody_inside(victim->mutex); }
    if (del) {
        CLIPDEC_SCOPE("remove_worker", "del wk");
        delete victim;
    }
    return true;
}

template <typename T>
void AbstractScheduler<T>::settle_pending_removals() {
    if (pending_removals.load() == 0) return;
    std::unique_lock<std::shared_timed_mutex> lock(pool_mutex);
    while (pending_removals > 0 && remove_idle_locked(nullptr, true)) --pending_removals;
}

template <typename T>
std::vector<typename AbstractScheduler<T>::iWorker*> AbstractScheduler<T>::order_workers(long long ts, bool next,
                                                                                        int owner_id) {
    std::vector<iWorker*> ordered;
    if (workers.size() == 1) {
        ordered.push_back(workers.front());
        return ordered;
    }
    std::vector<iWorker*> holding, heading, arriving_own, empty, rest_own, broken;
    std::vector<Ranked> arriving_other, rest_other;
    for (iWorker* w : workers) {
        std::lock_guard<std::mutex> guard(w->mutex);
        if (w->is_contain(ts, next)) {
            holding.insert(holding.begin(), w);
        } else if (w->has_target && w->target_ts == ts && w->target_next == next) {
            // Already chosen for this very frame: waiting for it beats starting
            // a second decode of the same frame on a worker of one's own.
            heading.push_back(w);
        } else if (w->is_broken()) {
            broken.push_back(w);
        } else if (w->will_contain(ts)) {
            if (w->owner == owner_id) {
                arriving_own.push_back(w);
            } else {
                // Latest-starting cache first; a newcomer goes before equals.
                const Ranked r{w, Rank::ArrivingOther, w->cached_first_ts(), w->last_used, false};
                auto it = arriving_other.begin();
                while (it != arriving_other.end() && it->first_ts > r.first_ts) ++it;
                arriving_other.insert(it, r);
            }
        } else if (w->is_empty()) {
            empty.push_back(w);
        } else if (w->owner == owner_id) {
            rest_own.push_back(w);
        } else {
            // Least recently used first; a newcomer goes before equals.
            const Ranked r{w, Rank::Rest, 0, w->last_used, false};
            auto it = rest_other.begin();
            while (it != rest_other.end() && it->last_used < r.last_used) ++it;
            rest_other.insert(it, r);
        }
    }
    ordered = holding;
    ordered.insert(ordered.end(), heading.begin(), heading.end());
    ordered.insert(ordered.end(), arriving_own.begin(), arriving_own.end());
    for (const Ranked& r : arriving_other) ordered.push_back(r.worker);
    ordered.insert(ordered.end(), empty.begin(), empty.end());
    ordered.insert(ordered.end(), rest_own.begin(), rest_own.end());
    for (const Ranked& r : rest_other) ordered.push_back(r.worker);
    ordered.insert(ordered.end(), broken.begin(), broken.end());
    return ordered;
}

template <typename T>
void AbstractScheduler<T>::release_candidates(std::vector<iWorker*>& candidates, uint64_t walk) {
    for (iWorker* w : candidates) {
        std::lock_guard<std::mutex> guard(w->mutex);
        if (w->reserved_by == walk) w->reserved_by = 0;
        w->cond.notify_all();
    }
    if (!candidates.empty()) announce_change();
    candidates.clear();
}

template <typename T>
T AbstractScheduler<T>::run_job(iWorker* w, std::unique_lock<std::mutex>& lock, long long ts,
                                std::atomic<bool>* cancel, bool next, int owner_id) {
    w->reserved_by = 0;
    w->has_target = true;
    w->target_ts = ts;
    w->target_next = next;
    w->busy = true;
    w->owner = owner_id;
    w->last_used = static_cast<int64_t>(std::time(nullptr));
    count(decode_counters().jobs);
    lock.release();  // do_job takes over the locked mutex and returns it unlocked
    T answer;
    try {
        answer = w->do_job(ts, true, cancel, next);
    } catch (...) {
        // A job that throws (out of memory) answers nothing; the worker must
        // still become idle again.
        answer = T();
    }
    {
        std::lock_guard<std::mutex> guard(w->mutex);
        w->busy = false;
        w->has_target = false;
        w->last_used = static_cast<int64_t>(std::time(nullptr));
        w->cond.notify_all();
    }
    announce_change();
    settle_pending_removals();
    return answer;
}

template <typename T>
void AbstractScheduler<T>::announce_change() {
    {
        std::lock_guard<std::mutex> guard(idle_mutex);
        ++idle_epoch;
    }
    idle_cv.notify_all();
}

template <typename T>
void AbstractScheduler<T>::wait_for_change(uint64_t seen_epoch) {
    // Every worker is busy or reserved: sleep until one of them frees up (the
    // timeout only bounds the cost of a missed corner case).
    std::unique_lock<std::mutex> lock(idle_mutex);
    idle_cv.wait_for(lock, std::chrono::milliseconds(20), [&] { return idle_epoch != seen_epoch; });
}

namespace {
// How often a waiting request looks at its cancel flag: nobody notifies the
// worker's condition when a request is cancelled.
constexpr auto kCancelPoll = std::chrono::milliseconds(5);
}  // namespace

template <typename T>
T AbstractScheduler<T>::await_worker(iWorker* w, std::unique_lock<std::mutex>& lock, long long ts,
                                     std::atomic<bool>* cancel, bool next, int owner_id, bool* gave_up) {
    for (;;) {
        if (w->is_contain(ts, next)) {
            --w->waiters;
            T answer = w->get_exist_resource(ts, next);
            count(decode_counters().cache_hits);
            return answer;
        }
        // Looked at before taking the worker over as well: the job it waited
        // for may have ended before this request first held the mutex, and a
        // cancelled request starts no job.
        if (cancelled(cancel)) {
            CLIPDEC_LOG(kLogDebug, kTagDefault, "worker cancelled: %p, %s", static_cast<void*>(w), w->name);
            --w->waiters;
            lock.unlock();
            *gave_up = true;
            return T();
        }
        if (!w->busy && w->reserved_by == 0) {
            --w->waiters;
            return run_job(w, lock, ts, cancel, next, owner_id);
        }
        w->cond.wait_for(lock, kCancelPoll);
    }
}

template <typename T>
typename AbstractScheduler<T>::Choice AbstractScheduler<T>::choose_worker(long long ts, bool next, int owner_id,
                                                                         uint64_t walk) {
    Choice choice;
    std::shared_lock<std::shared_timed_mutex> pool(pool_mutex);
    if (workers.empty()) {
        choice.kind = Choice::NoWorkers;
        return choice;
    }
    for (iWorker* w : order_workers(ts, next, owner_id)) {
        std::unique_lock<std::mutex> lock(w->mutex);
        if (w->is_contain(ts, next)) {
            choice.kind = Choice::Hit;
            choice.answer = w->get_exist_resource(ts, next);
            return choice;
        }
        const bool free = !w->busy && w->reserved_by == 0;
        const bool heading_here = w->has_target && w->target_ts == ts && w->target_next == next;
        if (heading_here || w->will_contain(ts)) {
            choice.worker = w;
            if (free) {
                choice.kind = Choice::Run;
                w->reserved_by = walk;
                name_target(w, ts, next);
            } else {
                // Counted before the pool lock goes, so no removal can
                // delete the worker before this request waits on it.
                choice.kind = Choice::Await;
                ++w->waiters;
            }
            return choice;
        }
        if (free) {
            w->reserved_by = walk;
            choice.candidates.push_back(w);
        }
    }
    return choice;
}

template <typename T>
void AbstractScheduler<T>::name_target(iWorker* w, long long ts, bool next) {
    w->has_target = true;
    w->target_ts = ts;
    w->target_next = next;
}

template <typename T>
typename AbstractScheduler<T>::iWorker* AbstractScheduler<T>::take_first_candidate(std::vector<iWorker*>& candidates,
                                                                                   long long ts, bool next) {
    iWorker* chosen = candidates.front();
    candidates.erase(candidates.begin());
    // Named before the other candidates go, so that a request for the same
    // frame arriving now waits for this job instead of starting one.
    std::lock_guard<std::mutex> guard(chosen->mutex);
    name_target(chosen, ts, next);
    return chosen;
}

template <typename T>
T AbstractScheduler<T>::do_working(long long ts, std::atomic<bool>* cancel, bool next, int owner_id,
                                   const char* who) {
    const uint64_t walk = g_next_walk.fetch_add(1);
    settle_pending_removals();  // a removal deferred while a request was inside a worker
    for (int round = 0;; ++round) {
        // Only the first round is unconditional: a request cancelled while it
        // looped for a free worker ends here instead of starting a job.
        if (round > 0 && cancelled(cancel)) return T();
        const uint64_t epoch = current_epoch();
        Choice choice = choose_worker(ts, next, owner_id, walk);
        if (choice.kind == Choice::NoWorkers) {
            CLIPDEC_LOG(kLogDebug, who ? who : kTagDefault, "worker-list empty");
            return T();
        }
        if (choice.kind == Choice::Hit) {
            release_candidates(choice.candidates, walk);
            count(decode_counters().cache_hits);
            return choice.answer;
        }
        if (choice.kind == Choice::Await) {
            // Reservations are never held while waiting, so two requests can
            // never wait on each other.
            release_candidates(choice.candidates, walk);
            count(decode_counters().waits);
            std::unique_lock<std::mutex> lock(choice.worker->mutex);
            bool gave_up = false;
            T answer = await_worker(choice.worker, lock, ts, cancel, next, owner_id, &gave_up);
            if (!gave_up) return answer;
            continue;
        }
        iWorker* chosen = choice.worker;
        if (!chosen && !choice.candidates.empty()) chosen = take_first_candidate(choice.candidates, ts, next);
        release_candidates(choice.candidates, walk);
        if (chosen) {
            std::unique_lock<std::mutex> lock(chosen->mutex);
            return run_job(chosen, lock, ts, cancel, next, owner_id);
        }
        wait_for_change(epoch);
    }
}

template <typename T>
uint64_t AbstractScheduler<T>::current_epoch() {
    std::lock_guard<std::mutex> guard(idle_mutex);
    return idle_epoch;
}

template class AbstractScheduler<std::shared_ptr<AVFrame>>;

}  // namespace ff
