// Whole-MFT throughput on a large tree volume: loading the MFT's bytes (read
// into one buffer, as the record buffer does), buildRecordMap, and the full
// path of every record.
//
// The image is KESTROW_BENCH_IMAGE, or the 100k-file tree image in the bench
// image cache (bench/run.sh or `cmake --build <build> --target
// bench_tree_images_100k` builds it there).
#include <kestrow/Disks.h>
#include <libKestrow/MasterFileTable.h>
#include <orv/Logger.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

namespace {

std::filesystem::path benchImage() {
    if (const char* path = std::getenv("KESTROW_BENCH_IMAGE"))
        return path;
    return std::filesystem::path(KESTROW_BENCH_IMAGE_DIR) / "tree-100k.img";
}

// The image attached and its volume opened, once for the whole program.
Volume* openedVolume() {
    static std::unique_ptr<Volume> volume = [] {
        std::string error;
        if (!kestrow::platform::attachDisks({benchImage().string()}, error)) {
            std::fprintf(stderr, "cannot attach %s: %s\n", benchImage().string().c_str(),
                         error.c_str());
            return std::unique_ptr<Volume>();
        }
        auto opened = std::make_unique<Volume>('C');
        return opened->initialized() ? std::move(opened) : std::unique_ptr<Volume>();
    }();
    return volume.get();
}

unsigned long long recordSlots(MasterFileTable& table) {
    unsigned long long count = 0;
    table.getNumMftRecords(count);
    return count;
}

// The record buffer's size as the table chose it, from its sizing line
// "602 m_buffer.maxBufferSize: N" (the last one wins: the table halves the
// size and logs again when an allocation or a read fails).
struct BufferSizeWatch {
    unsigned long long bytes = 0;

    static void sink(void* context, const char*, int, const char* text) {
        static const char SIZE[] = "602 m_buffer.maxBufferSize: ";
        if (std::strncmp(text, SIZE, sizeof SIZE - 1) == 0)
            static_cast<BufferSizeWatch*>(context)->bytes =
                std::strtoull(text + sizeof SIZE - 1, nullptr, 10);
    }
};

std::unique_ptr<MasterFileTable> openTableWatchingBufferSize(Volume& volume,
                                                             unsigned long long& bufferBytes) {
    BufferSizeWatch watch;
    const orv::LOGGER_PRIORITY priority = orv::LogFactory::getPriority();
    orv::LogFactory::setSink(&BufferSizeWatch::sink, &watch);
    orv::LogFactory::setPriority(orv::LoggerPriority::LP_DEBUG);
    auto table = std::make_unique<MasterFileTable>(volume);
    orv::LogFactory::setPriority(priority);
    orv::LogFactory::setSink(nullptr, nullptr);
    bufferBytes = watch.bytes;
    return table;
}

// The ranges the buffered reader loads: from the start of each MFT run, in
// chunks of the record buffer's size (whole records).
struct MftChunks {
    orv::Array<Volume::FileExtent> runs;
    unsigned long long chunkBytes = 0;
    unsigned int bytesPerSector = 0;
    unsigned long long recordBytes = 0;

    MftChunks(MasterFileTable& table, const Volume& volume, unsigned long long bufferBytes)
        : runs(table.getMftExtents()), bytesPerSector(volume.bytesPerSector()),
          recordBytes(volume.bytesPerFileRecord()) {
        // 64 MiB when the sizing line was not seen.
        chunkBytes = bufferBytes != 0 ? bufferBytes : 64ULL << 20;
        if (recordBytes != 0 && chunkBytes >= recordBytes)
            chunkBytes -= chunkBytes % recordBytes;
    }

    // Calls load(sector, byteCount) for every chunk; false as soon as one fails.
    template <typename Load> bool forEach(Load load) const {
        for (const Volume::FileExtent& run : runs) {
            const unsigned long long runBytes = (run.endSector - run.startSector) * bytesPerSector;
            for (unsigned long long done = 0; done < runBytes; done += chunkBytes) {
                const unsigned long long n =
                    runBytes - done < chunkBytes ? runBytes - done : chunkBytes;
                if (!load(run.startSector + done / bytesPerSector, n))
                    return false;
            }
        }
        return true;
    }
};

// The table opened on the bench volume and the chunks its buffered reader
// loads; null, with the benchmark skipped, when the image is not available.
struct FloorSetup {
    std::unique_ptr<MasterFileTable> table;
    MftChunks chunks;
};

std::unique_ptr<FloorSetup> openForFloor(benchmark::State& state) {
    Volume* volume = openedVolume();
    if (volume == nullptr) {
        state.SkipWithError("bench image not available");
        return nullptr;
    }
    unsigned long long bufferBytes = 0;
    auto table = openTableWatchingBufferSize(*volume, bufferBytes);
    MftChunks chunks(*table, *volume, bufferBytes);
    return std::make_unique<FloorSetup>(FloorSetup{std::move(table), std::move(chunks)});
}

void reportMftBytes(benchmark::State& state, unsigned long long bytes, const MftChunks& chunks) {
    state.SetBytesProcessed(static_cast<long long>(state.iterations() * bytes));
    state.SetItemsProcessed(
        static_cast<long long>(state.iterations() * (bytes / chunks.recordBytes)));
    state.counters["records"] = static_cast<double>(bytes / chunks.recordBytes);
    state.counters["chunkBytes"] = static_cast<double>(chunks.chunkBytes);
}

// The floor for buildRecordMap: the same chunks read with ReadFile (pread in
// the disk-image backend) into one reused buffer of the table's size, as the
// record buffer loads them; nothing parsed.
void BM_ReadMftBytesIntoBuffer(benchmark::State& state) {
    const auto setup = openForFloor(state);
    if (!setup)
        return;
    MasterFileTable& table = *setup->table;
    const MftChunks& chunks = setup->chunks;
    orv::Buffer<unsigned char> buffer;
    buffer.resize(chunks.chunkBytes, false);
    unsigned long long bytes = 0;
    for (auto _ : state) {
        bytes = 0;
        const bool loaded = chunks.forEach([&](unsigned long long sector, unsigned long long n) {
            bytes += n;
            return table.getDataAtSector(sector, n, buffer);
        });
        if (!loaded) {
            state.SkipWithError("read failed");
            break;
        }
        benchmark::DoNotOptimize(buffer.data());
    }
    reportMftBytes(state, bytes, chunks);
}
BENCHMARK(BM_ReadMftBytesIntoBuffer)->Unit(benchmark::kMillisecond)->UseRealTime();

// buildRecordMap on a fresh table each time (the table only ever adds).
void BM_BuildRecordMap(benchmark::State& state) {
    Volume* volume = openedVolume();
    if (volume == nullptr) {
        state.SkipWithError("bench image not available");
        return;
    }
    unsigned long long slots = 0;
    unsigned int entries = 0;
    for (auto _ : state) {
        state.PauseTiming();
        auto table = std::make_unique<MasterFileTable>(*volume);
        slots = recordSlots(*table);
        state.ResumeTiming();
        table->buildRecordMap();
        state.PauseTiming();
        entries = table->getRecordHashTable().size();
        table.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(static_cast<long long>(state.iterations() * slots));
    state.counters["records"] = static_cast<double>(slots);
    state.counters["valid"] = static_cast<double>(entries);
}
BENCHMARK(BM_BuildRecordMap)->Unit(benchmark::kMillisecond)->UseRealTime();

// Opening the table (which primes the record buffer with the start of the
// MFT, up to the buffer's size) and building the map: the whole cost of a
// first map for a host.
void BM_OpenAndBuildRecordMap(benchmark::State& state) {
    Volume* volume = openedVolume();
    if (volume == nullptr) {
        state.SkipWithError("bench image not available");
        return;
    }
    unsigned long long slots = 0;
    for (auto _ : state) {
        auto table = std::make_unique<MasterFileTable>(*volume);
        slots = recordSlots(*table);
        table->buildRecordMap();
        state.PauseTiming();
        table.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(static_cast<long long>(state.iterations() * slots));
    state.counters["records"] = static_cast<double>(slots);
}
BENCHMARK(BM_OpenAndBuildRecordMap)->Unit(benchmark::kMillisecond)->UseRealTime();

// The full path of every record in the map.
void BM_FullPathOfEveryRecord(benchmark::State& state) {
    Volume* volume = openedVolume();
    if (volume == nullptr) {
        state.SkipWithError("bench image not available");
        return;
    }
    MasterFileTable table(*volume);
    table.buildRecordMap();
    const MasterFileTable::RecordHashTable& map = table.getRecordHashTable();
    unsigned long long characters = 0;
    for (auto _ : state) {
        characters = 0;
        for (auto it = map.begin(); it != map.end(); ++it)
            characters += table.findParentPath(FileReference(it.key(), 0)).size();
        benchmark::DoNotOptimize(characters);
    }
    state.SetItemsProcessed(static_cast<long long>(state.iterations() * map.size()));
    state.counters["paths"] = static_cast<double>(map.size());
    state.counters["avgLength"] = map.size() ? static_cast<double>(characters) / map.size() : 0;
}
BENCHMARK(BM_FullPathOfEveryRecord)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
