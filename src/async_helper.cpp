#include "async_helper.h"

#include "guarded.h"

namespace ff {

AsyncHelper::AsyncHelper() : state(std::make_shared<State>()), thread(nullptr) {
    std::shared_ptr<State> shared = state;
    thread = new std::thread([shared] {
        while (!shared->quit) {
            Job job;
            if (!shared->queue.take(job)) break;
            // A job that throws ends; the worker goes on with the next one.
            guarded_void("asynchronous request", job);
        }
    });
}

AsyncHelper::~AsyncHelper() {
    state->quit = true;
    state->queue.close();
    if (on_worker_thread()) {
        thread->detach();  // we are inside a job; the loop ends when it returns
    } else {
        thread->join();
    }
    delete thread;
}

void AsyncHelper::replace_waiting(Job job) {
    state->queue.clear();
    state->queue.put(std::move(job));
}

bool AsyncHelper::on_worker_thread() const { return thread && thread->get_id() == std::this_thread::get_id(); }

}  // namespace ff
