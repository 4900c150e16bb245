#include "ff_tools.h"

#include "utils/mempool.h"

namespace ff {

void* mem_malloc(int size, unsigned alignment) {
    if (size < 0) {
        return nullptr;
    }
    return bg::mempool::malloc(static_cast<unsigned>(size), alignment);
}

void mem_free(void* p) { bg::mempool::free(p); }

void mem_collection(unsigned ms) { bg::mempool::collection(ms); }

}  // namespace ff
