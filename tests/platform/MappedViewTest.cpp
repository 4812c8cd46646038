// Read-only views of attached disks and volumes: the disk-image backend maps
// what comes from an image file, under the rules Windows sets for
// CreateFileMappingW and MapViewOfFile, and nothing else.
#include "ByteSource.h"

#include "support/AttachedDisks.h"
#include "support/FakePlatform.h"
#include "support/Fixtures.h"

#include <kestrow/Platform.h>
#include <kestrow/WinTypes.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

namespace fs = std::filesystem;
namespace platform = kestrow::platform;
using kestrow::test::AttachedDisks;
using kestrow::test::widen;

constexpr std::uint64_t GRANULARITY = 64 * 1024;

// A disk image of pattern bytes whose size is not a multiple of the view
// granularity, so that views at its end are partial.
class PatternDisk : public ::testing::Test {
protected:
    static constexpr std::uint64_t SIZE = 5 * GRANULARITY + 3 * 512;

    void SetUp() override {
        char pattern[] = "/tmp/kestrow-views-XXXXXX";
        const int fd = ::mkstemp(pattern);
        ASSERT_GE(fd, 0);
        ::close(fd);
        path = pattern;
        bytes.resize(SIZE);
        for (std::size_t i = 0; i < bytes.size(); ++i)
            bytes[i] = static_cast<std::uint8_t>((i * 7 + i / 4096) & 0xFF);
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()),
                   static_cast<std::streamsize>(bytes.size()));
        attached = std::make_unique<AttachedDisks>(path);
        ASSERT_TRUE(attached->ok()) << attached->error();
        // The library opens its drive for reading and writing: so do these.
        drive = platform::CreateFileW(
            widen("\\\\.\\PhysicalDrive0").c_str(), GENERIC_READ | GENERIC_WRITE,
            FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
        ASSERT_NE(drive, INVALID_HANDLE_VALUE);
    }
    void TearDown() override {
        if (drive != INVALID_HANDLE_VALUE)
            platform::CloseHandle(drive);
        attached.reset();
        std::error_code ignored;
        fs::remove(path, ignored);
    }

    HANDLE readOnlyMapping(std::uint64_t maximumSize = 0) {
        return platform::CreateFileMappingW(drive, nullptr, PAGE_READONLY,
                                            static_cast<DWORD>(maximumSize >> 32),
                                            static_cast<DWORD>(maximumSize), nullptr);
    }
    static LPVOID view(HANDLE mapping, std::uint64_t offset, SIZE_T size,
                       DWORD access = FILE_MAP_READ) {
        return platform::MapViewOfFile(mapping, access, static_cast<DWORD>(offset >> 32),
                                       static_cast<DWORD>(offset), size);
    }
    bool showsImageBytes(LPCVOID at, std::uint64_t offset, std::size_t size) const {
        return std::memcmp(at, bytes.data() + offset, size) == 0;
    }

    fs::path path;
    std::vector<std::uint8_t> bytes;
    std::unique_ptr<AttachedDisks> attached;
    HANDLE drive = INVALID_HANDLE_VALUE;
};

TEST_F(PatternDisk, ViewsShowTheImageBytesAndZeroSizeMeansToTheEnd) {
    HANDLE mapping = readOnlyMapping();
    ASSERT_NE(mapping, nullptr) << platform::GetLastError();

    LPVOID middle = view(mapping, 2 * GRANULARITY, 3 * 4096);
    ASSERT_NE(middle, nullptr) << platform::GetLastError();
    EXPECT_TRUE(showsImageBytes(middle, 2 * GRANULARITY, 3 * 4096));

    LPVOID tail = view(mapping, 5 * GRANULARITY, 0);
    ASSERT_NE(tail, nullptr) << platform::GetLastError();
    EXPECT_TRUE(showsImageBytes(tail, 5 * GRANULARITY, SIZE - 5 * GRANULARITY));

    // Views live on after their mapping handle is closed, as on Windows.
    EXPECT_TRUE(platform::CloseHandle(mapping));
    EXPECT_TRUE(showsImageBytes(middle, 2 * GRANULARITY, 3 * 4096));

    EXPECT_TRUE(platform::UnmapViewOfFile(middle));
    EXPECT_TRUE(platform::UnmapViewOfFile(tail));
    // A view is given back once; an address that is no view's is refused.
    EXPECT_FALSE(platform::UnmapViewOfFile(middle));
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_INVALID_ADDRESS));
    EXPECT_FALSE(platform::UnmapViewOfFile(bytes.data()));
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_INVALID_ADDRESS));
}

TEST_F(PatternDisk, ViewsFollowTheAlignmentAndBoundsOfWindows) {
    HANDLE mapping = readOnlyMapping();
    ASSERT_NE(mapping, nullptr);
    for (std::uint64_t offset : {std::uint64_t{512}, std::uint64_t{4096}, GRANULARITY + 4096}) {
        EXPECT_EQ(view(mapping, offset, 4096), nullptr) << offset;
        EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_MAPPED_ALIGNMENT)) << offset;
    }
    // Past the end, and ending past the end.
    EXPECT_EQ(view(mapping, 6 * GRANULARITY, 512), nullptr);
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(view(mapping, 5 * GRANULARITY, 4 * 512), nullptr);
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    // The last byte exactly.
    LPVOID last = view(mapping, 5 * GRANULARITY, 3 * 512);
    ASSERT_NE(last, nullptr);
    EXPECT_TRUE(showsImageBytes(last, 5 * GRANULARITY, 3 * 512));
    platform::UnmapViewOfFile(last);
    platform::CloseHandle(mapping);

    // A mapping smaller than the disk ends its views' room there.
    HANDLE small = readOnlyMapping(2 * GRANULARITY);
    ASSERT_NE(small, nullptr);
    EXPECT_EQ(view(small, GRANULARITY, GRANULARITY + 512), nullptr);
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    LPVOID whole = view(small, 0, 0);
    ASSERT_NE(whole, nullptr);
    EXPECT_TRUE(showsImageBytes(whole, 0, 2 * GRANULARITY));
    platform::UnmapViewOfFile(whole);
    platform::CloseHandle(small);

    // A read-only mapping cannot grow the disk.
    EXPECT_EQ(readOnlyMapping(SIZE + 1), nullptr);
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
}

TEST_F(PatternDisk, NothingWritableIsOffered) {
    for (DWORD protection :
         {PAGE_READWRITE, PAGE_WRITECOPY, PAGE_EXECUTE_READWRITE, PAGE_EXECUTE_WRITECOPY}) {
        EXPECT_EQ(platform::CreateFileMappingW(drive, nullptr, protection, 0, 0, nullptr), nullptr)
            << protection;
        EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_WRITE_PROTECT)) << protection;
    }
    HANDLE mapping = readOnlyMapping();
    ASSERT_NE(mapping, nullptr);
    for (DWORD access : {static_cast<DWORD>(FILE_MAP_WRITE), FILE_MAP_READ | FILE_MAP_WRITE,
                         static_cast<DWORD>(FILE_MAP_ALL_ACCESS), static_cast<DWORD>(FILE_MAP_COPY),
                         FILE_MAP_READ | FILE_MAP_EXECUTE}) {
        EXPECT_EQ(view(mapping, 0, 4096, access), nullptr) << std::hex << access;
        EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED))
            << std::hex << access;
    }
    platform::CloseHandle(mapping);
}

TEST_F(PatternDisk, AMappingHandleIsNoFile) {
    HANDLE mapping = readOnlyMapping();
    ASSERT_NE(mapping, nullptr);
    std::uint8_t sector[512];
    DWORD got = 0;
    EXPECT_FALSE(platform::ReadFile(mapping, sector, sizeof sector, &got, nullptr));
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    LARGE_INTEGER distance{};
    EXPECT_FALSE(platform::SetFilePointerEx(mapping, distance, nullptr, FILE_BEGIN));
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    // Nor is it something to map again, or a view of it a mapping.
    EXPECT_EQ(platform::CreateFileMappingW(mapping, nullptr, PAGE_READONLY, 0, 0, nullptr),
              nullptr);
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_EQ(view(drive, 0, 4096), nullptr);
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_TRUE(platform::CloseHandle(mapping));
    EXPECT_FALSE(platform::CloseHandle(mapping));
}

// A volume may start anywhere on its disk (old partitions start at sector
// 63), not only on a page of the host: its views start where it does.
TEST_F(PatternDisk, SlicesStartingInsideAPageMapFromTheirOwnStart) {
    std::string error;
    const auto file = platform::disk::HostFile::open(path.string(), error);
    ASSERT_NE(file, nullptr) << error;
    const std::uint64_t start = 63 * 512;
    const platform::disk::SliceSource slice(file, start, SIZE - start);
    ASSERT_TRUE(slice.mappable());
    platform::disk::MappedBytes mapped;
    ASSERT_EQ(slice.mapReadOnly(GRANULARITY, 3 * 512, mapped), 0u);
    EXPECT_TRUE(showsImageBytes(mapped.bytes, start + GRANULARITY, 3 * 512));
    platform::disk::unmapBytes(mapped);
    // Nothing past the slice's end, even where the file goes on.
    const platform::disk::SliceSource inner(file, start, GRANULARITY);
    EXPECT_EQ(inner.mapReadOnly(GRANULARITY - 512, 1024, mapped),
              static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    const platform::disk::MemorySource memory(std::vector<std::uint8_t>(4096, 1));
    EXPECT_FALSE(memory.mappable());
    EXPECT_EQ(memory.mapReadOnly(0, 4096, mapped), static_cast<DWORD>(ERROR_NOT_SUPPORTED));
}

// A volume's views count from the volume's start, wherever its partition
// lies on the disk: they show what ReadFile reads there.
TEST(MappedVolumes, AVolumeViewShowsWhatReadFileReads) {
    const kestrow::test::ImageFacts& facts =
        kestrow::test::factsOf(kestrow::test::FixtureImage::MbrDisk);
    AttachedDisks attached(kestrow::test::imagePath(facts.image));
    ASSERT_TRUE(attached.ok()) << attached.error();
    HANDLE volume = platform::CreateFileW(widen("\\\\.\\C:").c_str(), GENERIC_READ,
                                          FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                          OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(volume, INVALID_HANDLE_VALUE);
    HANDLE mapping = platform::CreateFileMappingW(volume, nullptr, PAGE_READONLY, 0, 0, nullptr);
    ASSERT_NE(mapping, nullptr) << platform::GetLastError();
    for (std::uint64_t offset : {std::uint64_t{0}, 3 * GRANULARITY}) {
        std::vector<std::uint8_t> read(8192);
        LARGE_INTEGER at{};
        at.QuadPart = static_cast<LONGLONG>(offset);
        DWORD got = 0;
        ASSERT_TRUE(platform::SetFilePointerEx(volume, at, nullptr, FILE_BEGIN));
        ASSERT_TRUE(platform::ReadFile(volume, read.data(), 8192, &got, nullptr));
        ASSERT_EQ(got, 8192u);
        LPVOID shown =
            platform::MapViewOfFile(mapping, FILE_MAP_READ, 0, static_cast<DWORD>(offset), 8192);
        ASSERT_NE(shown, nullptr) << platform::GetLastError();
        EXPECT_EQ(std::memcmp(shown, read.data(), read.size()), 0) << "offset " << offset;
        platform::UnmapViewOfFile(shown);
    }
    // The volume's last byte is the end of its views' room.
    EXPECT_EQ(platform::CreateFileMappingW(volume, nullptr, PAGE_READONLY,
                                           static_cast<DWORD>((facts.volumeSize + 1) >> 32),
                                           static_cast<DWORD>(facts.volumeSize + 1), nullptr),
              nullptr);
    platform::CloseHandle(mapping);
    platform::CloseHandle(volume);
}

// Files inside a volume are made of clusters anywhere on it: they are read,
// never mapped. Nor is anything mapped for an Api that has no views.
TEST(MappedVolumes, FilesAndApisWithoutViewsAreNotMapped) {
    {
        AttachedDisks attached(kestrow::test::imagePath(kestrow::test::FixtureImage::Bare));
        ASSERT_TRUE(attached.ok()) << attached.error();
        HANDLE file = platform::CreateFileW(widen("C:\\$MFT").c_str(), GENERIC_READ,
                                            FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
        ASSERT_NE(file, INVALID_HANDLE_VALUE);
        EXPECT_EQ(platform::CreateFileMappingW(file, nullptr, PAGE_READONLY, 0, 0, nullptr),
                  nullptr);
        EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_NOT_SUPPORTED));
        platform::CloseHandle(file);
        EXPECT_EQ(platform::CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READONLY, 0,
                                               4096, nullptr),
                  nullptr);
        EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_NOT_SUPPORTED));
    }
    kestrow::test::FakePlatform fake;
    fake.addDisk(0, 1 << 20);
    platform::ScopedApi scope(fake);
    HANDLE drive = platform::CreateFileW(widen("\\\\.\\PhysicalDrive0").c_str(), GENERIC_READ,
                                         FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(drive, INVALID_HANDLE_VALUE);
    EXPECT_EQ(platform::CreateFileMappingW(drive, nullptr, PAGE_READONLY, 0, 0, nullptr), nullptr);
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_NOT_SUPPORTED));
    EXPECT_EQ(platform::MapViewOfFile(drive, FILE_MAP_READ, 0, 0, 0), nullptr);
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_NOT_SUPPORTED));
    EXPECT_FALSE(platform::UnmapViewOfFile(&fake));
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_NOT_SUPPORTED));
    platform::CloseHandle(drive);
}

} // namespace
