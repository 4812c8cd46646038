// Large blocks of memory from the system: VirtualAlloc and VirtualFree.
#include "Backends.h"

#if defined(_WIN32)

namespace kestrow::platform {

LPVOID VirtualAlloc(LPVOID address, SIZE_T size, DWORD allocationType, DWORD protect) {
    return ::VirtualAlloc(address, size, allocationType, protect);
}

BOOL VirtualFree(LPVOID address, SIZE_T size, DWORD freeType) {
    return ::VirtualFree(address, size, freeType);
}

} // namespace kestrow::platform

#else

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <map>
#include <mutex>

namespace kestrow::platform {

namespace {

constexpr std::size_t HUGE_PAGE = std::size_t{2} << 20;

// The length of every live block, which munmap needs and VirtualFree is not
// given.
std::mutex g_blocksMutex;
std::map<void*, std::size_t>& blockLengths() {
    static auto* lengths = new std::map<void*, std::size_t>(); // outlives every static
    return *lengths;
}

std::size_t pageSize() {
    static const std::size_t page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    return page;
}

void* mapExactly(std::size_t length) {
    void* block =
        ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return block == MAP_FAILED ? nullptr : block;
}

// A block of `length` bytes (whole pages). One of 2 MiB or more is laid on a
// 2 MiB boundary where the kernel can back it with huge pages: the mapping is
// made that much larger and the ends cut off. Where the address space is too
// tight for that (a host under a limit), the block is mapped as it comes.
void* mapBlock(std::size_t length) {
    if (length < HUGE_PAGE || length > SIZE_MAX - HUGE_PAGE)
        return mapExactly(length);
    const std::size_t padded = length + HUGE_PAGE - pageSize();
    void* mapped = mapExactly(padded);
    if (mapped == nullptr) {
        mapped = mapExactly(length);
        if (mapped == nullptr)
            return nullptr;
    } else {
        const auto start = reinterpret_cast<std::uintptr_t>(mapped);
        const std::uintptr_t aligned = (start + HUGE_PAGE - 1) & ~(std::uintptr_t{HUGE_PAGE} - 1);
        if (aligned != start)
            ::munmap(mapped, aligned - start);
        const std::uintptr_t end = start + padded;
        if (end != aligned + length)
            ::munmap(reinterpret_cast<void*>(aligned + length), end - (aligned + length));
        mapped = reinterpret_cast<void*>(aligned);
    }
#if defined(MADV_HUGEPAGE)
    // Advice only: where the system has no huge pages the block stays as it
    // is, and only the whole 2 MiB stretches inside it can get one.
    ::madvise(mapped, length, MADV_HUGEPAGE);
#endif
    return mapped;
}

} // namespace

LPVOID VirtualAlloc(LPVOID address, SIZE_T size, DWORD allocationType, DWORD protect) {
    if (address != nullptr || size == 0 || (allocationType & MEM_COMMIT) == 0 ||
        (allocationType & ~(MEM_COMMIT | MEM_RESERVE)) != 0 || protect != PAGE_READWRITE) {
        setThreadLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    const std::size_t page = pageSize();
    if (size > SIZE_MAX - page) {
        setThreadLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    const std::size_t length = (size + page - 1) / page * page;
    void* block = mapBlock(length);
    if (block == nullptr) {
        setThreadLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    try {
        std::lock_guard<std::mutex> lock(g_blocksMutex);
        blockLengths()[block] = length;
    } catch (...) {
        ::munmap(block, length);
        setThreadLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    return block;
}

BOOL VirtualFree(LPVOID address, SIZE_T size, DWORD freeType) {
    if (freeType != MEM_RELEASE || size != 0) {
        setThreadLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    std::size_t length = 0;
    {
        std::lock_guard<std::mutex> lock(g_blocksMutex);
        const auto found = blockLengths().find(address);
        if (found == blockLengths().end()) {
            setThreadLastError(ERROR_INVALID_ADDRESS);
            return FALSE;
        }
        length = found->second;
        blockLengths().erase(found);
    }
    ::munmap(address, length);
    return TRUE;
}

} // namespace kestrow::platform

#endif
