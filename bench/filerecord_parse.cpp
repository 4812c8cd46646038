// Records parsed per second: every MFT record slot of a fixture image, parsed
// from memory as the MFT side hands them over (one buffer view per record).
//
//   bench_filerecord_parse [--image=<path>] [benchmark options]
//
// The image defaults to rich.img in the fixture directory ($KESTROW_FIXTURE_DIR
// or the build tree's fixtures); build the fixtures first (ctest -R
// build_fixture_images). The image must hold a bare NTFS volume.
#include <kestrow/Disks.h>
#include <libKestrow/FileRecord.h>
#include <libKestrow/Volume.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace {

struct LoadedMft {
    std::unique_ptr<Volume> volume;
    std::vector<unsigned char> records; // every record slot, back to back
    std::uint32_t recordSize = 0;
    std::size_t inUse = 0;
    std::string error;
};

std::string g_imagePath;

std::vector<unsigned char> readAt(std::ifstream& file, std::uint64_t offset, std::size_t size) {
    std::vector<unsigned char> bytes(size);
    file.seekg(static_cast<std::streamoff>(offset));
    file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(size));
    if (!file)
        bytes.clear();
    return bytes;
}

// Attaches the image and reads its whole MFT, following the $MFT record's
// own runs (the library's parse of record 0).
LoadedMft& loadedMft() {
    static LoadedMft mft = [] {
        LoadedMft m;
        std::string error;
        if (!kestrow::platform::attachDisks({g_imagePath}, error)) {
            m.error = "cannot attach " + g_imagePath + ": " + error;
            return m;
        }
        char letter = 0;
        for (const auto& v : kestrow::platform::attachedVolumes())
            if (v.fileSystem == "NTFS" && v.offset == 0)
                letter = v.letter;
        if (letter == 0) {
            m.error = g_imagePath + " is not a bare NTFS volume";
            return m;
        }
        m.volume = std::make_unique<Volume>(letter);
        m.recordSize = m.volume->bytesPerFileRecord();
        const std::uint32_t cluster = m.volume->bytesPerCluster();

        std::ifstream file(g_imagePath, std::ios::binary);
        const std::vector<unsigned char> boot = readAt(file, 0, 512);
        if (boot.size() != 512 || m.recordSize == 0 || cluster == 0) {
            m.error = "cannot read the geometry of " + g_imagePath;
            return m;
        }
        std::uint64_t mftCluster = 0;
        std::memcpy(&mftCluster, &boot[0x30], 8);
        std::vector<unsigned char> first = readAt(file, mftCluster * cluster, m.recordSize);
        orv::Buffer<unsigned char> view(first.data(), first.size());
        const FileRecord mftRecord(view, FileReference::BASE_MFT_RECORD(), *m.volume);
        std::uint64_t wanted = mftRecord.dataSize();
        for (const ClusterRange& range : mftRecord.getClusterRanges()) {
            if (wanted == 0)
                break;
            std::uint64_t bytes = range.count * cluster;
            if (bytes > wanted)
                bytes = wanted;
            const std::vector<unsigned char> run = readAt(file, range.start * cluster, bytes);
            m.records.insert(m.records.end(), run.begin(), run.end());
            wanted -= bytes;
        }
        for (std::size_t at = 0; at + m.recordSize <= m.records.size(); at += m.recordSize)
            if (std::memcmp(&m.records[at], "FILE", 4) == 0 && (m.records[at + 0x16] & 1))
                ++m.inUse;
        return m;
    }();
    return mft;
}

void BM_ParseEveryRecordSlot(benchmark::State& state) {
    LoadedMft& mft = loadedMft();
    if (!mft.error.empty()) {
        state.SkipWithError(mft.error.c_str());
        return;
    }
    const std::size_t slots = mft.records.size() / mft.recordSize;
    std::size_t valid = 0;
    for (auto _ : state) {
        for (std::size_t k = 0; k < slots; ++k) {
            orv::Buffer<unsigned char> view(&mft.records[k * mft.recordSize], mft.recordSize);
            const FileRecord record(view, FileReference(k, 0), *mft.volume);
            valid += record.isValid();
            benchmark::DoNotOptimize(record.getAttributes().size());
        }
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * slots));
    state.counters["slots"] = static_cast<double>(slots);
    state.counters["in_use"] = static_cast<double>(mft.inUse);
    benchmark::DoNotOptimize(valid);
}
BENCHMARK(BM_ParseEveryRecordSlot)->Unit(benchmark::kMillisecond);

// The same records with the summary the record map keeps built from each.
void BM_ParseAndSummarise(benchmark::State& state) {
    LoadedMft& mft = loadedMft();
    if (!mft.error.empty()) {
        state.SkipWithError(mft.error.c_str());
        return;
    }
    const std::size_t slots = mft.records.size() / mft.recordSize;
    for (auto _ : state) {
        for (std::size_t k = 0; k < slots; ++k) {
            orv::Buffer<unsigned char> view(&mft.records[k * mft.recordSize], mft.recordSize);
            const FileRecord record(view, FileReference(k, 0), *mft.volume);
            if (record.isValid()) {
                RecordSummary summary(record);
                benchmark::DoNotOptimize(summary.dataSize);
            }
        }
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * slots));
}
BENCHMARK(BM_ParseAndSummarise)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
    const char* dir = std::getenv("KESTROW_FIXTURE_DIR");
    g_imagePath = std::string(dir != nullptr ? dir : KESTROW_FIXTURE_DIR) + "/rich.img";
    std::vector<char*> rest;
    for (int i = 0; i < argc; ++i) {
        if (std::strncmp(argv[i], "--image=", 8) == 0)
            g_imagePath = argv[i] + 8;
        else
            rest.push_back(argv[i]);
    }
    int count = static_cast<int>(rest.size());
    benchmark::Initialize(&count, rest.data());
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
