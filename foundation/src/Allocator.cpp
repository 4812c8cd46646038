#include <orv/Allocator.h>

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
[[maybe_unused]] constexpr std::size_t SLAB_SIZE = 64 * 1024;

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

// Free lists per size class. Slabs are never returned to the heap: the pool
// only ever holds as much as the peak of live blocks.
class Pool {
public:
    void* allocate(std::size_t size) {
        const std::size_t cls = classOf(size);
        if (m_free[cls] == nullptr)
            refill(cls);
        FreeBlock* block = m_free[cls];
        m_free[cls] = block->next;
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

    ORV_NOINLINE void refill(std::size_t cls) {
        const std::size_t blockSize = cls * GRANULE;
        void* slab = std::malloc(SLAB_SIZE);
        if (slab == nullptr)
            throw std::bad_alloc();
        ++t_heapAllocations;
        auto* bytes = static_cast<unsigned char*>(slab);
        FreeBlock* head = nullptr;
        for (std::size_t i = SLAB_SIZE / blockSize; i-- > 0;) {
            auto* block = reinterpret_cast<FreeBlock*>(bytes + i * blockSize);
            block->next = head;
            head = block;
        }
        m_free[cls] = head;
    }

    FreeBlock* m_free[CLASS_COUNT + 1] = {};
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
#endif
    return heapAllocate(size);
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
#else
    (void)size;
#endif
    std::free(block);
}

unsigned long long Allocator::heapAllocations() noexcept {
    return t_heapAllocations;
}

} // namespace orv
