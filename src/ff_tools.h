// The library's exported free functions of the namespace ff that belong to no
// class: the host's access to the buffer pool, and more to come.
#pragma once

#include "clipdec_export.h"

namespace ff {

// Pooled memory for the host, see bg::mempool. A negative `size` returns null
// rather than being read as a request of some 4 GB.
CLIPDEC_API void* mem_malloc(int size, unsigned alignment);
CLIPDEC_API void mem_free(void* p);
// Gives back to the system the free buffers idle for more than `ms`
// milliseconds (0: all of them). The library never does this on its own.
CLIPDEC_API void mem_collection(unsigned ms);

}  // namespace ff
