// The cost of the foundation types on the per-record path of a whole-MFT
// scan: a record's worth of strings, arrays and a hash table entry, built and
// destroyed. Reports general-purpose heap allocations per record, which the
// pooled allocator and in-object short strings keep at (nearly) zero.
#include <orv/Allocator.h>
#include <orv/Array.h>
#include <orv/HashTable.h>
#include <orv/String.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<unsigned long long> g_operatorNewCalls{0};

} // namespace

// Counts every general-purpose C++ allocation in this program. (GCC cannot
// tell that these replacements pair malloc with free on purpose.)
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
void* operator new(std::size_t size) {
    ++g_operatorNewCalls;
    if (void* p = std::malloc(size == 0 ? 1 : size))
        return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

struct Summary {
    unsigned long long reference;
    orv::String name;
    unsigned long long sizes[4];
};

struct AttributeLine {
    orv::String name;
    bool resident;
};

void recordWorthOfObjects(benchmark::State& state) {
    const orv::String fileName("report-2024.txt");
    const unsigned long long heapBefore = orv::Allocator::heapAllocations();
    const unsigned long long newBefore = g_operatorNewCalls.load();
    for (auto _ : state) {
        orv::Array<AttributeLine> attributes;
        orv::Array<unsigned long long> external;
        orv::Array<unsigned long long> entries;
        orv::Array<unsigned long long> clusters;
        orv::Array<unsigned long long> indexRanges;
        attributes.append({ORV_LITERAL("$STANDARD_INFORMATION"), true});
        attributes.append({ORV_LITERAL("$FILE_NAME"), true});
        attributes.append({ORV_LITERAL("$DATA"), false});
        orv::String name(fileName);
        name.toUpper();
        clusters.append(1234);
        benchmark::DoNotOptimize(attributes.begin());
        benchmark::DoNotOptimize(name.getUCS2Buffer());
    }
    const double records = static_cast<double>(state.iterations());
    state.counters["heap_allocs_per_record"] =
        static_cast<double>(orv::Allocator::heapAllocations() - heapBefore) / records;
    state.counters["operator_new_per_record"] =
        static_cast<double>(g_operatorNewCalls.load() - newBefore) / records;
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(recordWorthOfObjects);

void hashTableOfSummaries(benchmark::State& state) {
    const unsigned long long records = static_cast<unsigned long long>(state.range(0));
    const unsigned long long heapBefore = orv::Allocator::heapAllocations();
    for (auto _ : state) {
        orv::HashTable<unsigned long long, Summary> table(static_cast<unsigned int>(records / 3));
        for (unsigned long long i = 0; i < records; ++i)
            table.insert(i, Summary{i, orv::String("file.txt"), {i, i, i, i}});
        benchmark::DoNotOptimize(table.lookup(records / 2));
    }
    const double total = static_cast<double>(state.iterations()) * static_cast<double>(records);
    state.counters["heap_allocs_per_record"] =
        static_cast<double>(orv::Allocator::heapAllocations() - heapBefore) / total;
    state.SetItemsProcessed(static_cast<long long>(total));
}
BENCHMARK(hashTableOfSummaries)->Arg(100000);

} // namespace

BENCHMARK_MAIN();
