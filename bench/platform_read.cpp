// ReadFile through the disk-image backend against plain pread on the same
// file: the library reads whole MFT runs in chunks of up to hundreds of MiB,
// so the backend must add nothing but a handle lookup per call.
//
// The disk is a 256 MiB temporary file of pseudo-random bytes (in the page
// cache after the first pass, so the figures compare the code paths, not
// the medium). Argument: the chunk size in KiB.
#include <kestrow/Disks.h>
#include <kestrow/Platform.h>

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

namespace {

namespace platform = kestrow::platform;

constexpr std::size_t kDiskBytes = 256u << 20;

const std::string& diskPath() {
    static const std::string path = [] {
        const auto file = std::filesystem::temp_directory_path() /
                          ("kestrow-bench-disk-" + std::to_string(::getpid()) + ".img");
        std::vector<std::uint32_t> block(1u << 18);
        std::mt19937 random(42);
        std::FILE* out = std::fopen(file.c_str(), "wb");
        for (std::size_t written = 0; written < kDiskBytes; written += block.size() * 4) {
            for (auto& word : block)
                word = random();
            std::fwrite(block.data(), 4, block.size(), out);
        }
        std::fclose(out);
        std::string error;
        if (!platform::attachDisks({file.string()}, error))
            std::fprintf(stderr, "attach failed: %s\n", error.c_str());
        return file.string();
    }();
    return path;
}

void backendReadFile(benchmark::State& state) {
    diskPath();
    const std::size_t chunk = static_cast<std::size_t>(state.range(0)) << 10;
    std::vector<std::uint8_t> buffer(chunk);
    const std::u16string name = u"\\\\.\\PhysicalDrive0";
    const platform::WideString wide(name.begin(), name.end());
    HANDLE disk = platform::CreateFileW(wide.c_str(), GENERIC_READ | GENERIC_WRITE,
                                        FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                        0, nullptr);
    if (disk == INVALID_HANDLE_VALUE) {
        state.SkipWithError("cannot open the disk");
        return;
    }
    for (auto _ : state) {
        LARGE_INTEGER start{};
        platform::SetFilePointerEx(disk, start, nullptr, FILE_BEGIN);
        for (std::size_t done = 0; done < kDiskBytes; done += chunk) {
            DWORD got = 0;
            if (!platform::ReadFile(disk, buffer.data(), static_cast<DWORD>(chunk), &got,
                                    nullptr)) {
                state.SkipWithError("ReadFile failed");
                break;
            }
            benchmark::DoNotOptimize(buffer.data());
        }
    }
    platform::CloseHandle(disk);
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * kDiskBytes);
}

void plainPread(benchmark::State& state) {
    const int fd = ::open(diskPath().c_str(), O_RDONLY);
    const std::size_t chunk = static_cast<std::size_t>(state.range(0)) << 10;
    std::vector<std::uint8_t> buffer(chunk);
    for (auto _ : state) {
        for (std::size_t done = 0; done < kDiskBytes; done += chunk) {
            benchmark::DoNotOptimize(::pread(fd, buffer.data(), chunk, static_cast<off_t>(done)));
        }
    }
    ::close(fd);
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * kDiskBytes);
}

BENCHMARK(backendReadFile)->Arg(4)->Arg(1024)->Arg(65536)->Unit(benchmark::kMillisecond);
BENCHMARK(plainPread)->Arg(4)->Arg(1024)->Arg(65536)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::filesystem::remove(diskPath());
    return 0;
}
