// A small blocking queue of jobs: put appends, take waits for the oldest,
// clear drops everything waiting, close wakes every waiter for good.
// `mutex` guards `items` and `closed`; it is never held while an element runs.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

namespace ff {

template <typename T>
class BlockingQueue {
public:
    explicit BlockingQueue(std::function<void(T&)> discard = nullptr) : on_discard(std::move(discard)) {}
    virtual ~BlockingQueue() {
        close();
        std::lock_guard<std::mutex> lock(mutex);
        items.clear();  // without on_discard
    }
    BlockingQueue(const BlockingQueue&) = delete;
    BlockingQueue& operator=(const BlockingQueue&) = delete;

    void put(T item) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (closed) return;
            items.push_back(std::move(item));
        }
        not_empty.notify_one();
    }

    // Waits for an element; false once the queue is closed.
    bool take(T& out) {
        std::unique_lock<std::mutex> lock(mutex);
        not_empty.wait(lock, [this] { return closed || !items.empty(); });
        if (closed) return false;
        out = std::move(items.front());
        items.pop_front();
        lock.unlock();
        not_full.notify_one();
        return true;
    }

    // Drops every waiting element, oldest first. The discarded elements are
    // destroyed after the lock is released, so their destructors may do anything.
    void clear() {
        std::deque<T> dropped;
        {
            std::lock_guard<std::mutex> lock(mutex);
            dropped.swap(items);
        }
        if (on_discard)
            for (T& item : dropped) on_discard(item);
        not_full.notify_all();
    }

    void close() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            closed = true;
        }
        not_empty.notify_all();
        not_full.notify_all();
    }

    size_t size() {
        std::lock_guard<std::mutex> lock(mutex);
        return items.size();
    }

private:
    bool closed = false;
    std::mutex mutex;
    std::condition_variable_any not_empty;
    std::condition_variable_any not_full;
    std::deque<T> items;
    std::function<void(T&)> on_discard;
};

}  // namespace ff
