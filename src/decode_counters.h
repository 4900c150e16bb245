// Process-wide counters of the decoding machinery, read by tests and
// benchmarks so that behaviour (how much was decoded, how often a stream was
// sought) is asserted rather than guessed. Relaxed atomics: they order nothing.
#pragma once

#include <atomic>
#include <cstdint>

namespace ff {

struct DecodeCounters {
    std::atomic<uint64_t> frames_decoded{0};  // frames handed out by stream instances
    std::atomic<uint64_t> packets_read{0};    // packets of their own stream read by instances
    std::atomic<uint64_t> seeks{0};           // seeks made by instances
    std::atomic<uint64_t> jobs{0};            // jobs the scheduler ran on a worker
    std::atomic<uint64_t> cache_hits{0};      // requests answered from a worker's cache without a job
    std::atomic<uint64_t> waits{0};           // requests that waited for a busy worker
};

DecodeCounters& decode_counters();

inline void count(std::atomic<uint64_t>& counter) { counter.fetch_add(1, std::memory_order_relaxed); }

}  // namespace ff
