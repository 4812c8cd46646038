// getUsedClusters on big volumes: the bitmap request, the scan and the array
// of cluster numbers. The volume is a stand-in Api that answers the volume
// requests from a bitmap in memory, so the figure is the library's own work.
//
// Argument: the cluster count (a 4 KiB-cluster volume of 2^27 clusters is
// 512 GiB). Bitmaps: "mixed" (stretches of free, full and random bytes, as a
// used volume looks) and "sparse" (one cluster in 4096 in use).
#include <kestrow/ControlReplies.h>
#include <kestrow/Platform.h>
#include <libKestrow/Volume.h>

#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

namespace {

namespace platform = kestrow::platform;

HANDLE const VOLUME_HANDLE = reinterpret_cast<HANDLE>(std::uintptr_t(0x40));

// Answers just enough for Volume('C') and the bitmap request.
class BitmapVolumeApi : public platform::Api {
public:
    explicit BitmapVolumeApi(std::vector<std::uint8_t> bitmap, std::uint64_t clusters)
        : m_bitmap(std::move(bitmap)), m_clusters(clusters) {}

    HANDLE CreateFileW(LPCWSTR, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD,
                       HANDLE) override {
        return VOLUME_HANDLE;
    }
    BOOL CloseHandle(HANDLE) override { return TRUE; }
    BOOL ReadFile(HANDLE, LPVOID, DWORD, LPDWORD, LPOVERLAPPED) override { return fail(); }
    BOOL SetFilePointerEx(HANDLE, LARGE_INTEGER, PLARGE_INTEGER, DWORD) override { return fail(); }
    BOOL DeviceIoControl(HANDLE, DWORD code, LPVOID in, DWORD inSize, LPVOID out, DWORD outSize,
                         LPDWORD returned, LPOVERLAPPED) override {
        DWORD error = ERROR_INVALID_FUNCTION;
        if (code == FSCTL_GET_NTFS_VOLUME_DATA) {
            NTFS_VOLUME_DATA_BUFFER data{};
            data.BytesPerFileRecordSegment = 1024;
            error = platform::replyNtfsVolumeData(data, out, outSize, returned);
        } else if (code == FSCTL_GET_VOLUME_BITMAP)
            error = platform::replyVolumeBitmap(m_clusters, &BitmapVolumeApi::readBitmap, this, in,
                                                inSize, out, outSize, returned);
        if (error == 0)
            return TRUE;
        SetLastError(error);
        return FALSE;
    }
    BOOL GetVolumeInformationW(LPCWSTR, LPWSTR name, DWORD, LPDWORD serial, LPDWORD, LPDWORD,
                               LPWSTR fileSystem, DWORD) override {
        name[0] = 0;
        *serial = 0;
        const WCHAR ntfs[] = {'N', 'T', 'F', 'S', 0};
        std::memcpy(fileSystem, ntfs, sizeof ntfs);
        return TRUE;
    }
    BOOL GetDiskFreeSpaceW(LPCWSTR, LPDWORD sectorsPerCluster, LPDWORD bytesPerSector,
                           LPDWORD freeClusters, LPDWORD totalClusters) override {
        *sectorsPerCluster = 8;
        *bytesPerSector = 512;
        *freeClusters = 0;
        *totalClusters = static_cast<DWORD>(m_clusters);
        return TRUE;
    }
    DWORD GetFileAttributesW(LPCWSTR) override { return INVALID_FILE_ATTRIBUTES; }
    BOOL GlobalMemoryStatusEx(LPMEMORYSTATUSEX) override { return fail(); }

private:
    BOOL fail() {
        SetLastError(ERROR_INVALID_FUNCTION);
        return FALSE;
    }
    static DWORD readBitmap(void* context, std::uint64_t first, std::uint8_t* out,
                            std::size_t length) {
        const auto& bitmap = static_cast<BitmapVolumeApi*>(context)->m_bitmap;
        std::memcpy(out, bitmap.data() + first, length);
        return 0;
    }

    std::vector<std::uint8_t> m_bitmap;
    std::uint64_t m_clusters;
};

std::vector<std::uint8_t> mixedBitmap(std::uint64_t clusters) {
    std::vector<std::uint8_t> bytes((clusters + 7) / 8);
    std::mt19937 random(7);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const unsigned stretch = static_cast<unsigned>((i / 4096) % 3);
        bytes[i] = stretch == 0 ? 0 : stretch == 1 ? 0xFF : static_cast<std::uint8_t>(random());
    }
    return bytes;
}

std::vector<std::uint8_t> sparseBitmap(std::uint64_t clusters) {
    std::vector<std::uint8_t> bytes((clusters + 7) / 8);
    for (std::size_t i = 0; i < bytes.size(); i += 512)
        bytes[i] = 1;
    return bytes;
}

void runUsedClusters(benchmark::State& state, std::vector<std::uint8_t> bitmap) {
    const auto clusters = static_cast<std::uint64_t>(state.range(0));
    BitmapVolumeApi api(std::move(bitmap), clusters);
    platform::ScopedApi scope(api);
    Volume volume('C');
    std::uint64_t found = 0;
    for (auto _ : state) {
        orv::Array<unsigned long long> used;
        if (!volume.getUsedClusters(used)) {
            state.SkipWithError("getUsedClusters failed");
            return;
        }
        found = used.size();
        benchmark::DoNotOptimize(used.begin());
    }
    state.counters["clusters"] = static_cast<double>(clusters);
    state.counters["used"] = static_cast<double>(found);
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * clusters));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * clusters / 8));
}

void BM_UsedClustersMixed(benchmark::State& state) {
    runUsedClusters(state, mixedBitmap(static_cast<std::uint64_t>(state.range(0))));
}

void BM_UsedClustersSparse(benchmark::State& state) {
    runUsedClusters(state, sparseBitmap(static_cast<std::uint64_t>(state.range(0))));
}

} // namespace

BENCHMARK(BM_UsedClustersMixed)
    ->Arg(1 << 20)
    ->Arg(1 << 24)
    ->Arg(1 << 27)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_UsedClustersSparse)
    ->Arg(1 << 20)
    ->Arg(1 << 24)
    ->Arg(1 << 27)
    ->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
