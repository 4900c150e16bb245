#include "mempool.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "bg_time.h"
#include "mempool_testing.h"

// ---------------------------------------------------------------- bg::mem

namespace bg::mem {

void* aligned_malloc(unsigned size, unsigned alignment) {
    if (alignment & (alignment - 1)) {
        return nullptr;  // not a power of two: no address can honour it
    }
    // posix_memalign wants a power of two that is also a multiple of the
    // pointer size; any smaller request (including 0, "don't care") is met by
    // pointer alignment anyway.
    std::size_t align = alignment;
    if (align < sizeof(void*)) {
        align = sizeof(void*);
    }
    void* p = nullptr;
    if (posix_memalign(&p, align, size) != 0) {
        return nullptr;
    }
    return p;
}

void aligned_free(void* p) { std::free(p); }

bool is_aligned(void* p, unsigned alignment) {
    return (reinterpret_cast<std::uintptr_t>(p) & (alignment - 1u)) == 0;
}

}  // namespace bg::mem

// ---------------------------------------------------------------- bg::mempool

namespace bg::mempool {

// One free buffer and the moment it came back.
struct BufferEntry {
    std::int64_t stamp_ms;
    void* buffer;
};

// The free buffers of one size class, oldest first.
// `mutex` guards `entries`; when both are held, PoolState::mutex is taken first.
struct BufferList {
    std::list<BufferEntry> entries;
    std::mutex mutex;
};

// The single pool.
// `mutex` guards `lists` and `sizes`; it is always taken before any
// BufferList::mutex (only collection() and stats() hold both).
struct PoolState {
    std::mutex mutex;
    // One list per size class ever asked for; never erased, so a shared
    // reference taken under `mutex` stays meaningful after unlocking.
    std::unordered_map<std::uint32_t, std::shared_ptr<BufferList>> lists;
    // Every handed-out buffer and its size class.
    std::unordered_map<void*, std::uint32_t> sizes;
};

namespace {

// Sizes above this would wrap around when rounded up to 32 bits.
constexpr unsigned kLargestRequest = 0xFFFFFFFFu - 31u;

std::uint32_t size_class(unsigned size) { return (size + 31u) & ~31u; }

// Callers may reach the pool from other translation units' static
// initialisers, before g_instance below has been assigned (the order between
// translation units is unspecified), so every operation goes through this
// function-local static, which exists from the first call on. It is a
// pointer to a never-deleted object so that buffers returned during static
// destruction still find a live pool.
PoolState* pool() {
    static PoolState* const state = new PoolState();
    return state;
}

// Null means the real clock. Constant-initialised, so it is valid before any
// static initialiser runs; atomic, because tests swap it while other threads
// may be stamping buffers.
std::atomic<long long (*)()> g_clock{nullptr};

long long now_ms() {
    long long (*clock)() = g_clock.load(std::memory_order_acquire);
    return clock ? clock() : bg::time::cpu_msec_pts();
}

void warn_unknown_buffer() {
    std::fputs("\"[mempool] *warnning* free to pool: bufflist not exist.\"\n", stderr);
    std::fflush(stderr);
}

}  // namespace

// Bound during static initialisation so that the pool exists before the host
// can call in; the operations themselves use pool(), see there.
PoolState* g_instance = pool();

void set_clock_for_testing(long long (*now)()) { g_clock.store(now, std::memory_order_release); }

void* malloc(unsigned size, unsigned alignment) {
    if (size > kLargestRequest) {
        return nullptr;
    }
    const std::uint32_t cls = size_class(size);
    PoolState* st = pool();

    std::shared_ptr<BufferList> list;
    {
        std::lock_guard<std::mutex> lock(st->mutex);
        std::shared_ptr<BufferList>& slot = st->lists[cls];
        if (!slot) {
            slot = std::make_shared<BufferList>();
        }
        list = slot;
    }

    void* p = nullptr;
    {
        std::lock_guard<std::mutex> lock(list->mutex);
        if (!list->entries.empty()) {
            p = list->entries.front().buffer;
            list->entries.pop_front();
        }
    }
    // Fresh memory is obtained outside the list mutex: a picture-sized block
    // may cost a system call, and other threads of this class should not wait
    // for it.
    if (!p) {
        p = bg::mem::aligned_malloc(cls, alignment);
        if (!p) {
            return nullptr;
        }
    }

    try {
        std::lock_guard<std::mutex> lock(st->mutex);
        st->sizes[p] = cls;
    } catch (...) {
        // The buffer is in no structure now; don't lose it.
        bg::mem::aligned_free(p);
        throw;
    }
    return p;
}

void free(void* p) {
    PoolState* st = pool();
    // The list node is made before any state changes and outside the locks,
    // so a failing allocation leaves the buffer handed out rather than lost,
    // and the list mutex is held only for a splice.
    std::list<BufferEntry> node;
    node.push_back(BufferEntry{0, p});

    std::shared_ptr<BufferList> list;
    {
        std::lock_guard<std::mutex> lock(st->mutex);
        auto it = st->sizes.find(p);
        if (it != st->sizes.end()) {
            list = st->lists.at(it->second);
            st->sizes.erase(it);
        }
    }
    if (!list) {
        warn_unknown_buffer();
        return;
    }

    std::lock_guard<std::mutex> lock(list->mutex);
    // Stamped under the list mutex: two threads returning buffers of one
    // class append in the order they read the clock, which keeps every list
    // sorted by stamp, and collection() relies on that to stop early.
    node.front().stamp_ms = now_ms();
    list->entries.splice(list->entries.end(), node);
}

void collection(unsigned ms) {
    PoolState* st = pool();
    std::lock_guard<std::mutex> pool_lock(st->mutex);
    const std::int64_t threshold = now_ms() - static_cast<std::int64_t>(ms);

    for (auto& kv : st->lists) {
        BufferList& list = *kv.second;
        std::list<BufferEntry> old;
        {
            std::lock_guard<std::mutex> lock(list.mutex);
            auto end = list.entries.begin();
            if (ms == 0) {
                end = list.entries.end();
            } else {
                while (end != list.entries.end() && end->stamp_ms < threshold) {
                    ++end;
                }
            }
            old.splice(old.end(), list.entries, list.entries.begin(), end);
        }
        // Released after dropping the list mutex; the pool mutex still keeps
        // collections from overlapping.
        for (const BufferEntry& e : old) {
            bg::mem::aligned_free(e.buffer);
        }
    }
}

bool is_alignment(void* p, unsigned alignment) { return bg::mem::is_aligned(p, alignment); }

PoolStats stats() {
    PoolStats s{};
    PoolState* st = pool();
    std::lock_guard<std::mutex> pool_lock(st->mutex);
    for (const auto& kv : st->sizes) {
        ++s.handed_out_count;
        s.handed_out_bytes += kv.second;
    }
    for (const auto& kv : st->lists) {
        std::lock_guard<std::mutex> lock(kv.second->mutex);
        const std::size_t n = kv.second->entries.size();
        s.free_count += n;
        s.free_bytes += n * kv.first;
    }
    return s;
}

}  // namespace bg::mempool
