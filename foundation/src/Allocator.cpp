#include <orv/Allocator.h>

#include <kestrow/Platform.h>

#include <cstdlib>
#include <mutex>
#include <new>

// Sanitizer builds serve every block from the heap so that out-of-bounds and
// use-after-free errors inside pooled blocks are still caught.
#if defined(__SANITIZE_ADDRESS__)
#define ORV_POOL_DISABLED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ORV_POOL_DISABLED 1
#endif
#endif

namespace orv {

namespace {

[[maybe_unused]] constexpr std::size_t GRANULE = 16;
[[maybe_unused]] constexpr std::size_t CLASS_COUNT = Allocator::MAX_POOLED_SIZE / GRANULE;
// Each size class keeps one slab partly used, and an arena on huge pages is
// charged whole: small slabs keep that slack small (about 1.5 MiB less than
// 64 KiB slabs for a 100k-record map).
[[maybe_unused]] constexpr std::size_t SLAB_SIZE = 16 * 1024;
// Slabs are cut from arenas taken from the system in one piece: a whole-MFT
// scan fills hundreds of slabs, and an arena of the largest size costs one
// call and, where the system has huge pages, one page fault. Arenas start
// small and double up to that size, so that a program that allocates little
// holds little.
[[maybe_unused]] constexpr std::size_t FIRST_ARENA_SIZE = 256 * 1024;
[[maybe_unused]] constexpr std::size_t ARENA_SIZE = 2 * 1024 * 1024;

thread_local unsigned long long t_heapAllocations = 0;

#if !defined(ORV_POOL_DISABLED)
// Rare paths kept out of line, so that the common ones inline small.
#if defined(__GNUC__) || defined(__clang__)
#define ORV_NOINLINE __attribute__((noinline))
#elif defined(_MSC_VER)
#define ORV_NOINLINE __declspec(noinline)
#else
#define ORV_NOINLINE
#endif

struct FreeBlock {
    FreeBlock* next;
};

// A block from the system (zeroed); throws std::bad_alloc when there is none.
void* systemBlock(std::size_t size) {
    void* block =
        kestrow::platform::VirtualAlloc(nullptr, size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
    if (block == nullptr)
        throw std::bad_alloc();
    ++t_heapAllocations;
    return block;
}

// Free lists per size class, then the unused rest of each class's slab. A
// slab is handed out block by block as it is needed, so its pages are first
// touched by their first user. Slabs are never returned to the system: the
// pool only ever holds as much as the peak of live blocks.
class Pool {
public:
    void* allocate(std::size_t size) {
        const std::size_t cls = classOf(size);
        if (FreeBlock* block = m_free[cls]) {
            m_free[cls] = block->next;
            return block;
        }
        const std::size_t blockSize = cls * GRANULE;
        if (m_slabEnd[cls] - m_slabNext[cls] < static_cast<std::ptrdiff_t>(blockSize))
            refill(cls);
        void* block = m_slabNext[cls];
        m_slabNext[cls] += blockSize;
        return block;
    }

    void deallocate(void* block, std::size_t size) {
        const std::size_t cls = classOf(size);
        auto* freed = static_cast<FreeBlock*>(block);
        freed->next = m_free[cls];
        m_free[cls] = freed;
    }

    Pool* nextOrphan = nullptr;

private:
    static std::size_t classOf(std::size_t size) { return (size + GRANULE - 1) / GRANULE; }

    // A new slab for the class, from the current arena or a new one. The few
    // bytes left at the end of the old slab are not used.
    ORV_NOINLINE void refill(std::size_t cls) {
        if (m_arenaEnd - m_arenaNext < static_cast<std::ptrdiff_t>(SLAB_SIZE)) {
            m_arenaNext = static_cast<unsigned char*>(systemBlock(m_arenaSize));
            m_arenaEnd = m_arenaNext + m_arenaSize;
            if (m_arenaSize < ARENA_SIZE)
                m_arenaSize *= 2;
        }
        m_slabNext[cls] = m_arenaNext;
        m_slabEnd[cls] = m_arenaNext + SLAB_SIZE;
        m_arenaNext += SLAB_SIZE;
    }

    FreeBlock* m_free[CLASS_COUNT + 1] = {};
    unsigned char* m_slabNext[CLASS_COUNT + 1] = {};
    unsigned char* m_slabEnd[CLASS_COUNT + 1] = {};
    unsigned char* m_arenaNext = nullptr;
    unsigned char* m_arenaEnd = nullptr;
    std::size_t m_arenaSize = FIRST_ARENA_SIZE;
};

// Each thread works on a pool of its own, without locking. When a thread
// ends, its pool (with every block still in use elsewhere) is handed to the
// next thread that starts one. Blocks freed by a thread that is already
// shutting down go to a shared, locked pool.
std::mutex g_sharedMutex;
Pool g_sharedPool;
Pool* g_orphans = nullptr;

// Every allocation asks for the thread's pool. In a shared library the
// general TLS model makes that a call into the dynamic loader each time; the
// initial-exec model reads it at a fixed offset instead. The two variables
// are a few bytes, well within what the loader keeps for libraries loaded
// later as well.
#if defined(__ELF__) && (defined(__GNUC__) || defined(__clang__))
#define ORV_FAST_TLS __attribute__((tls_model("initial-exec")))
#else
#define ORV_FAST_TLS
#endif

thread_local Pool* t_pool ORV_FAST_TLS = nullptr;
thread_local bool t_exiting ORV_FAST_TLS = false;

struct PoolGuard {
    ~PoolGuard() {
        std::lock_guard<std::mutex> lock(g_sharedMutex);
        if (t_pool != nullptr) {
            t_pool->nextOrphan = g_orphans;
            g_orphans = t_pool;
        }
        t_pool = nullptr;
        t_exiting = true;
    }
};

// The first allocation of a thread (and every one while it exits): kept out
// of line so that the common case below stays a few instructions.
ORV_NOINLINE Pool* firstThreadPool() {
    if (t_pool != nullptr || t_exiting)
        return t_pool;
    thread_local PoolGuard guard;
    (void)guard;
    std::lock_guard<std::mutex> lock(g_sharedMutex);
    if (g_orphans != nullptr) {
        t_pool = g_orphans;
        g_orphans = g_orphans->nextOrphan;
    } else {
        t_pool = new Pool();
    }
    return t_pool;
}

inline Pool* threadPool() {
    Pool* pool = t_pool;
    return pool != nullptr ? pool : firstThreadPool();
}

#endif

void* heapAllocate(std::size_t size) {
    void* block = std::malloc(size == 0 ? 1 : size);
    if (block == nullptr)
        throw std::bad_alloc();
    ++t_heapAllocations;
    return block;
}

} // namespace

void* Allocator::allocate(std::size_t size) {
#if !defined(ORV_POOL_DISABLED)
    if (size != 0 && size <= MAX_POOLED_SIZE) {
        if (Pool* pool = threadPool())
            return pool->allocate(size);
        std::lock_guard<std::mutex> lock(g_sharedMutex);
        return g_sharedPool.allocate(size);
    }
    if (size >= LARGE_BLOCK_SIZE)
        return systemBlock(size);
#endif
    return heapAllocate(size);
}

void* Allocator::allocateZeroed(std::size_t size) {
#if !defined(ORV_POOL_DISABLED)
    if (size >= LARGE_BLOCK_SIZE)
        return systemBlock(size); // the system's blocks come zeroed
#endif
    void* block = std::calloc(size == 0 ? 1 : size, 1);
    if (block == nullptr)
        throw std::bad_alloc();
    ++t_heapAllocations;
    return block;
}

void Allocator::deallocate(void* block, std::size_t size) noexcept {
    if (block == nullptr)
        return;
#if !defined(ORV_POOL_DISABLED)
    if (size != 0 && size <= MAX_POOLED_SIZE) {
        if (Pool* pool = threadPool()) {
            pool->deallocate(block, size);
            return;
        }
        std::lock_guard<std::mutex> lock(g_sharedMutex);
        g_sharedPool.deallocate(block, size);
        return;
    }
    if (size >= LARGE_BLOCK_SIZE) {
        kestrow::platform::VirtualFree(block, 0, MEM_RELEASE);
        return;
    }
#else
    (void)size;
#endif
    std::free(block);
}

unsigned long long Allocator::heapAllocations() noexcept {
    return t_heapAllocations;
}

} // namespace orv
