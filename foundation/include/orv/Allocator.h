// The foundation's small-block allocator.
//
// Array representations, hash buckets and string texts are allocated and
// freed once per record during a whole-MFT scan: millions of times. They come
// from size-classed free lists instead of the general-purpose heap, cut from
// large arenas that the system hands out in one piece. The pool
// lives in the library, so a block allocated on one side of the DLL boundary
// may be freed on the other.
#pragma once

#include <kestrow/Export.h>

#include <cstddef>

namespace orv {

struct KESTROW_API Allocator {
    // Returns a block of at least `size` bytes, aligned for any fundamental
    // type; throws std::bad_alloc when memory is exhausted.
    static void* allocate(std::size_t size);
    // The same, with every byte 0.
    static void* allocateZeroed(std::size_t size);
    // Returns a block obtained from allocate(size) or allocateZeroed(size)
    // with the same size.
    static void deallocate(void* block, std::size_t size) noexcept;

    // The number of blocks taken from the general-purpose heap so far (by
    // this thread), large blocks and pool slabs included. For benchmarks and
    // tests that check the pool is doing its job.
    static unsigned long long heapAllocations() noexcept;

    // The largest size served from the pool; larger blocks go to the heap.
    static constexpr std::size_t MAX_POOLED_SIZE = 1024;
    // Blocks of at least this size (the record buffer, the record map's
    // chains) come from the system in whole pages instead, on huge pages
    // where it has them, and go back to it when freed.
    static constexpr std::size_t LARGE_BLOCK_SIZE = 1024 * 1024;
};

} // namespace orv
