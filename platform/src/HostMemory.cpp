#include "Backends.h"

#if !defined(_WIN32)

#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace kestrow::platform {

namespace {

// The kB figures of /proc/meminfo that GlobalMemoryStatusEx needs.
struct MemInfo {
    unsigned long long totalKiB = 0;
    unsigned long long availableKiB = 0;
    unsigned long long swapTotalKiB = 0;
    unsigned long long swapFreeKiB = 0;
    bool haveTotal = false;
    bool haveAvailable = false;
};

bool readProcMeminfo(MemInfo& info) {
    std::FILE* file = std::fopen("/proc/meminfo", "r");
    if (file == nullptr)
        return false;
    char line[256];
    while (std::fgets(line, sizeof line, file) != nullptr) {
        char key[64];
        unsigned long long value = 0;
        if (std::sscanf(line, "%63[^:]: %llu", key, &value) != 2)
            continue;
        if (std::strcmp(key, "MemTotal") == 0) {
            info.totalKiB = value;
            info.haveTotal = true;
        } else if (std::strcmp(key, "MemAvailable") == 0) {
            info.availableKiB = value;
            info.haveAvailable = true;
        } else if (std::strcmp(key, "SwapTotal") == 0) {
            info.swapTotalKiB = value;
        } else if (std::strcmp(key, "SwapFree") == 0) {
            info.swapFreeKiB = value;
        }
    }
    std::fclose(file);
    return info.haveTotal && info.haveAvailable;
}

bool readSysconf(MemInfo& info) {
    const long pageSize = sysconf(_SC_PAGESIZE);
    const long pages = sysconf(_SC_PHYS_PAGES);
#if defined(_SC_AVPHYS_PAGES)
    const long freePages = sysconf(_SC_AVPHYS_PAGES);
#else
    const long freePages = -1;
#endif
    if (pageSize <= 0 || pages <= 0 || freePages < 0)
        return false;
    info.totalKiB = static_cast<unsigned long long>(pages) * pageSize / 1024;
    info.availableKiB = static_cast<unsigned long long>(freePages) * pageSize / 1024;
    return true;
}

// The user-mode address space of a 64-bit Windows process (128 TiB).
constexpr DWORDLONG kUserAddressSpace = 0x00007FFFFFFE0000ull;

} // namespace

bool queryHostMemory(MEMORYSTATUSEX& status) {
    MemInfo info;
    if (!readProcMeminfo(info) && !readSysconf(info))
        return false;
    status.ullTotalPhys = info.totalKiB * 1024;
    status.ullAvailPhys = info.availableKiB * 1024;
    status.ullTotalPageFile = (info.totalKiB + info.swapTotalKiB) * 1024;
    status.ullAvailPageFile = (info.availableKiB + info.swapFreeKiB) * 1024;
    status.ullTotalVirtual = kUserAddressSpace;
    status.ullAvailVirtual = kUserAddressSpace;
    status.ullAvailExtendedVirtual = 0;
    status.dwMemoryLoad =
        info.totalKiB == 0
            ? 0
            : static_cast<DWORD>(100 -
                                 (info.availableKiB * 100 + info.totalKiB / 2) / info.totalKiB);
    return true;
}

} // namespace kestrow::platform

#endif // !_WIN32
