// What a fresh page of memory costs on this machine: 64 MiB of new anonymous
// memory touched page by page (one fault per 4 KiB page), the same made
// present up front (MAP_POPULATE), and the same on 2 MiB boundaries advised
// MADV_HUGEPAGE. Whole-MFT walks spend a good part of their time here, and
// the figure differs from machine to machine (virtual machines pay several
// microseconds a fault), so bench/run.sh prints it with its table.
//
// Prints one line per way: "<way> <microseconds per 4 KiB page> <faults>",
// the median of five runs of CPU time (user + system).
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <vector>

#if defined(__linux__)
#include <sys/mman.h>
#include <sys/resource.h>

namespace {

constexpr std::size_t BYTES = std::size_t{64} << 20;
constexpr std::size_t PAGE = 4096;
constexpr std::size_t HUGE_PAGE = std::size_t{2} << 20;

struct Usage {
    double cpuSeconds;
    long faults;
};

Usage usage() {
    rusage r{};
    ::getrusage(RUSAGE_SELF, &r);
    return {static_cast<double>(r.ru_utime.tv_sec + r.ru_stime.tv_sec) +
                static_cast<double>(r.ru_utime.tv_usec + r.ru_stime.tv_usec) / 1e6,
            r.ru_minflt};
}

enum class Way { Touched, Populated, HugePages };

// One run: map, touch every page, unmap. False when the memory was refused.
bool runOnce(Way way, Usage& cost) {
    const Usage before = usage();
    const int flags = MAP_PRIVATE | MAP_ANONYMOUS | (way == Way::Populated ? MAP_POPULATE : 0);
    const std::size_t mapped = way == Way::HugePages ? BYTES + HUGE_PAGE : BYTES;
    void* block = ::mmap(nullptr, mapped, PROT_READ | PROT_WRITE, flags, -1, 0);
    if (block == MAP_FAILED)
        return false;
    auto* bytes = static_cast<volatile unsigned char*>(block);
    if (way == Way::HugePages) {
        const auto start = reinterpret_cast<std::uintptr_t>(block);
        bytes = reinterpret_cast<volatile unsigned char*>((start + HUGE_PAGE - 1) &
                                                          ~(std::uintptr_t{HUGE_PAGE} - 1));
        ::madvise(const_cast<unsigned char*>(bytes), BYTES, MADV_HUGEPAGE);
    }
    for (std::size_t i = 0; i < BYTES; i += PAGE)
        bytes[i] = 1;
    const Usage after = usage();
    ::munmap(block, mapped);
    cost = {after.cpuSeconds - before.cpuSeconds, after.faults - before.faults};
    return true;
}

void report(const char* name, Way way) {
    std::vector<Usage> runs;
    for (int i = 0; i < 5; ++i) {
        Usage cost{};
        if (runOnce(way, cost))
            runs.push_back(cost);
    }
    if (runs.empty()) {
        std::printf("%s n/a 0\n", name);
        return;
    }
    std::sort(runs.begin(), runs.end(),
              [](const Usage& a, const Usage& b) { return a.cpuSeconds < b.cpuSeconds; });
    const Usage& median = runs[runs.size() / 2];
    std::printf("%s %.3f %ld\n", name, median.cpuSeconds * 1e6 / (BYTES / PAGE), median.faults);
}

} // namespace

int main() {
    report("touched", Way::Touched);
    report("populated", Way::Populated);
    report("hugepages", Way::HugePages);
    return 0;
}

#else

int main() {
    std::printf("touched n/a 0\npopulated n/a 0\nhugepages n/a 0\n");
    return 0;
}

#endif
