// One worker thread and its job queue: runs a decoder's asynchronous requests
// one at a time, in the order they were queued. An exception thrown by a job
// is caught and logged there, and the loop goes on.
//
// The loop's state is shared with the thread, so that destroying the helper
// from its own thread (a callback that closes its decoder) cannot leave the
// loop reading freed memory: the thread is then detached and ends by itself.
//
// Locks: the queue's own mutex guards the waiting jobs and is never held
// while a job runs or is destroyed; `quit` is atomic; `thread` is written
// only by the constructor and destructor. The destructor joins the thread, so
// it must run with no lock held that a job may wait for (the decoder destroys
// its helper with neither its request mutex nor its async mutex held).
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <thread>

#include "blocking_queue.h"

namespace ff {

class AsyncHelper {
public:
    using Job = std::function<void()>;

    AsyncHelper();
    // Stops the loop, drops the waiting jobs unrun and joins the thread (unless
    // called from the worker itself).
    ~AsyncHelper();
    AsyncHelper(const AsyncHelper&) = delete;
    AsyncHelper& operator=(const AsyncHelper&) = delete;

    // Drops every waiting job, then queues `job`: only the newest request waits.
    void replace_waiting(Job job);

    bool on_worker_thread() const;

private:
    struct State {
        std::atomic<bool> quit{false};
        BlockingQueue<Job> queue;
    };
    std::shared_ptr<State> state;
    std::thread* thread;
};

}  // namespace ff
