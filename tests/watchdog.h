// Fails loudly instead of hanging the suite: aborts the process, naming what
// was running, when a piece of work does not finish in time.
#pragma once

#include "support.h"  // also brings <chrono>, <string> and <thread>

namespace testsupport {

// Neither copied nor moved: its thread refers to it.
class Watchdog {
public:
    Watchdog(std::string what, std::chrono::seconds limit)
        : what_(std::move(what)), thread_([this, limit] {
              if (!done_.wait(limit)) stuck((what_ + ": not done in time, deadlock or hang?").c_str());
          }) {}
    ~Watchdog() {
        done_.open();
        thread_.join();
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    std::string what_;
    Gate done_;
    std::thread thread_;
};

}  // namespace testsupport
