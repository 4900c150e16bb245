// The library's exception boundary. Every public entry point runs its body
// through `guarded`, so that nothing thrown inside (out of memory, a host
// callback that throws, a failure to start a thread) reaches the host: the
// call answers its documented failure instead and the exception is logged at
// level 2 with the entry point's name.
#pragma once

#include <exception>
#include <utility>

#include "log.h"

namespace ff {

// Logs an exception caught at `where`; used by `guarded` and by the
// asynchronous worker around host callbacks.
void log_caught(const char* where, const std::exception* e) noexcept;

// `body()`, or `failure` when it throws.
template <typename R, typename F>
R guarded(const char* where, R failure, F&& body) noexcept {
    try {
        return std::forward<F>(body)();
    } catch (const std::exception& e) {
        log_caught(where, &e);
    } catch (...) {
        log_caught(where, nullptr);
    }
    return failure;
}

// `body()` for entry points without a result.
template <typename F>
void guarded_void(const char* where, F&& body) noexcept {
    try {
        std::forward<F>(body)();
    } catch (const std::exception& e) {
        log_caught(where, &e);
    } catch (...) {
        log_caught(where, nullptr);
    }
}

}  // namespace ff
