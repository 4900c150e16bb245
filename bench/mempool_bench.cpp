// Pool versus system allocator for picture-sized blocks, the pool's main
// load: one block taken and returned per frame. The first byte of every block
// is written, as a decoder would, so that fresh memory from the system pays
// for its page fault just as it would in use.
#include <cstdlib>

#include <benchmark/benchmark.h>

#include "utils/mempool.h"

namespace {

constexpr int kRgba1080p = 1920 * 1080 * 4;
constexpr int kYuv420_1080p = 1920 * 1080 * 3 / 2;

void touch(void* p) {
    static_cast<volatile unsigned char*>(p)[0] = 1;
    benchmark::DoNotOptimize(p);
}

void BM_PoolMallocFree(benchmark::State& state) {
    const unsigned size = static_cast<unsigned>(state.range(0));
    for (auto _ : state) {
        void* p = bg::mempool::malloc(size, 16);
        if (!p) {
            state.SkipWithError("pool allocation failed");
            break;
        }
        touch(p);
        bg::mempool::free(p);
    }
}

void BM_SystemMallocFree(benchmark::State& state) {
    const std::size_t size = static_cast<std::size_t>(state.range(0));
    for (auto _ : state) {
        void* p = nullptr;
        if (posix_memalign(&p, 16, size) != 0) {
            state.SkipWithError("posix_memalign failed");
            break;
        }
        touch(p);
        std::free(p);
    }
}

BENCHMARK(BM_PoolMallocFree)->Arg(kRgba1080p)->Arg(kYuv420_1080p)->Threads(1)->Threads(2);
BENCHMARK(BM_SystemMallocFree)->Arg(kRgba1080p)->Arg(kYuv420_1080p)->Threads(1)->Threads(2);

}  // namespace
