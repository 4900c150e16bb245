// Pooled memory for decoded pictures and audio blocks. These are large, come
// in few distinct sizes and are allocated and released at frame rate, so
// released buffers are kept in free lists by size class (the size rounded up
// to a multiple of 32) and handed out again, oldest first, instead of going
// back to the system allocator. Memory is given back to the system only when
// the host asks for it with collection().
//
// Every operation may be called from any thread. The pool lives for the whole
// process; buffers still free or handed out at exit are not released.
//
// Locks (in the .cpp): the pool's mutex guards the size classes and the
// handed-out buffers, each size class's mutex its free list; the pool's comes
// first, and only collection() and stats() hold both. Both are innermost to
// the rest of the library: callers may hold any lock (a decode task's, the
// thumbnail cache's), and the pool calls out to nothing while holding them.
#pragma once

#include <cstddef>

#include "../clipdec_export.h"

namespace bg::mem {

// `size` bytes at an address that is a multiple of `alignment`, or null.
// `alignment` must be a power of two; anything else gives null. 0 and values
// below the pointer size ask for no particular alignment and get at least
// pointer alignment, which satisfies them.
CLIPDEC_API void* aligned_malloc(unsigned size, unsigned alignment);

// Releases what aligned_malloc gave; null is ignored.
CLIPDEC_API void aligned_free(void* p);

// True when the address of `p` is a multiple of `alignment` (a power of two).
CLIPDEC_API bool is_aligned(void* p, unsigned alignment);

}  // namespace bg::mem

namespace bg::mempool {

// A buffer of exactly the size class of `size` bytes, or null when the system
// allocator fails or `size` is too large for a 32-bit size class. `alignment`
// matters only when fresh memory is needed: a reused buffer keeps the
// alignment its size class was first filled with, so a caller that needs a
// stronger one than its class usually gets should check with is_alignment().
CLIPDEC_API void* malloc(unsigned size, unsigned alignment);

// Returns a buffer to its free list. A pointer the pool did not hand out, or
// one already returned, only writes a warning to standard error.
CLIPDEC_API void free(void* p);

// Gives back to the system the free buffers idle for strictly longer than
// `ms` milliseconds; 0 gives back every free buffer. Handed-out buffers are
// not affected.
CLIPDEC_API void collection(unsigned ms);

// Same as bg::mem::is_aligned.
CLIPDEC_API bool is_alignment(void* p, unsigned alignment);

// The pool's contents, for diagnostics and memory-stability checks. Bytes are
// counted by size class. The snapshot is exact when no other thread is inside
// malloc() or free(); otherwise a buffer in transit may be in neither count.
struct PoolStats {
    std::size_t handed_out_count;
    std::size_t handed_out_bytes;
    std::size_t free_count;
    std::size_t free_bytes;
};

CLIPDEC_API PoolStats stats();

}  // namespace bg::mempool
