// Fails loudly instead of hanging the suite: aborts the process, naming what
// was running, when a piece of work does not finish in time.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

namespace testsupport {

class Watchdog {
public:
    Watchdog(std::string what, std::chrono::seconds limit)
        : what_(std::move(what)), thread_([this, limit] {
              std::unique_lock<std::mutex> lock(mutex_);
              if (!cv_.wait_for(lock, limit, [this] { return done_; })) {
                  std::fprintf(stderr, "%s: not done within %lld s, deadlock or hang?\n", what_.c_str(),
                               static_cast<long long>(limit.count()));
                  std::abort();
              }
          }) {}
    ~Watchdog() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            done_ = true;
        }
        cv_.notify_all();
        thread_.join();
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    std::string what_;
    std::mutex mutex_;
    std::condition_variable cv_;
    bool done_ = false;
    std::thread thread_;
};

}  // namespace testsupport
