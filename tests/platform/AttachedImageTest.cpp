// The backend end to end on an image file it opens itself (through the
// host's own file calls, POSIX or Win32), without any outside tool: the
// hand-built volume of MiniNtfs.h written to a temporary file.
#include "MiniNtfs.h"
#include "support/FakePlatform.h"
#include "support/Win32Calls.h"

#include <kestrow/Disks.h>
#include <kestrow/Platform.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

namespace {

namespace platform = kestrow::platform;
using kestrow::test::mini::MiniVolumeImage;

using kestrow::test::Handle;
using kestrow::test::narrow;
using kestrow::test::RetrievalPointer;
using kestrow::test::retrievalPointers;
using kestrow::test::widen;

class AttachedImage : public testing::Test {
protected:
    void SetUp() override {
        path =
            std::filesystem::temp_directory_path() /
            ("kestrow-mini-" +
             std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()) + ".img");
        const std::vector<std::uint8_t> bytes = MiniVolumeImage().assemble();
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()),
                   static_cast<std::streamsize>(bytes.size()));
        std::string error;
        ASSERT_TRUE(platform::attachDisks({path.string()}, error)) << error;
    }
    void TearDown() override {
        std::string error;
        platform::attachDisks({}, error);
        std::filesystem::remove(path);
    }

    static HANDLE open(const std::string& name, DWORD access = GENERIC_READ) {
        return platform::CreateFileW(widen(name).c_str(), access,
                                     FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0,
                                     nullptr);
    }

    std::filesystem::path path;
};

TEST_F(AttachedImage, VolumeInformationFreeSpaceAndExtent) {
    ASSERT_EQ(platform::attachedVolumes().size(), 1u);
    WCHAR label[32] = {};
    WCHAR fileSystem[32] = {};
    DWORD serial = 0;
    ASSERT_TRUE(platform::GetVolumeInformationW(widen("\\\\.\\C:\\").c_str(), label, 32, &serial,
                                                nullptr, nullptr, fileSystem, 32));
    EXPECT_EQ(narrow(label), "MINI");
    EXPECT_EQ(narrow(fileSystem), "NTFS");
    EXPECT_EQ(serial, 0x55667788u);
    DWORD spc = 0, bps = 0, freeClusters = 0, total = 0;
    ASSERT_TRUE(
        platform::GetDiskFreeSpaceW(widen("C:\\").c_str(), &spc, &bps, &freeClusters, &total));
    EXPECT_EQ(spc, 1u);
    EXPECT_EQ(bps, 512u);
    EXPECT_EQ(total, 256u);
    EXPECT_EQ(freeClusters, 244u);

    HANDLE volume = open("\\\\?\\C:", GENERIC_READ | GENERIC_WRITE);
    ASSERT_NE(volume, INVALID_HANDLE_VALUE);
    VOLUME_DISK_EXTENTS extents{};
    DWORD returned = 0;
    ASSERT_TRUE(platform::DeviceIoControl(volume, IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, nullptr, 0,
                                          &extents, sizeof extents, &returned, nullptr));
    EXPECT_EQ(extents.Extents[0].ExtentLength.QuadPart, 256 * 512);
    NTFS_VOLUME_DATA_BUFFER data{};
    ASSERT_TRUE(platform::DeviceIoControl(volume, FSCTL_GET_NTFS_VOLUME_DATA, nullptr, 0, &data,
                                          sizeof data, &returned, nullptr));
    EXPECT_EQ(data.BytesPerFileRecordSegment, 1024u);
    EXPECT_EQ(data.MftStartLcn.QuadPart, 16);
    EXPECT_EQ(data.FreeClusters.QuadPart, 244);
    EXPECT_TRUE(platform::CloseHandle(volume));
}

TEST_F(AttachedImage, FilesResolveReadAndMapTheirRuns) {
    EXPECT_EQ(platform::GetFileAttributesW(widen("C:\\HELLO.TXT").c_str()), 0x20u);
    EXPECT_NE(platform::GetFileAttributesW(widen("C:\\Sub").c_str()) & FILE_ATTRIBUTE_DIRECTORY,
              0u);

    HANDLE hello = open("\\\\.\\C:\\hello.txt");
    ASSERT_NE(hello, INVALID_HANDLE_VALUE);
    char text[32] = {};
    DWORD got = 0;
    ASSERT_TRUE(platform::ReadFile(hello, text, sizeof text, &got, nullptr));
    EXPECT_EQ(std::string(text, got), "hi there");
    platform::CloseHandle(hello);

    const Handle deep("C:\\Sub\\deep.bin", 0);
    ASSERT_TRUE(deep.valid());
    DWORD error = 0;
    EXPECT_EQ(retrievalPointers(deep.get(), error),
              (std::vector<RetrievalPointer>{{3, 150}, {5, -1}, {6, 160}}));
    EXPECT_EQ(error, 0u);
}

TEST_F(AttachedImage, CompressedStreamsAreMappedButNotReadAsPlainBytes) {
    HANDLE packed = open("C:\\packed.bin");
    ASSERT_NE(packed, INVALID_HANDLE_VALUE);
    char buffer[512];
    DWORD got = 7;
    EXPECT_FALSE(platform::ReadFile(packed, buffer, sizeof buffer, &got, nullptr));
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_NOT_SUPPORTED));
    EXPECT_EQ(got, 0u);
    DWORD error = 0;
    // The rest of the compression unit is not stored.
    EXPECT_EQ(retrievalPointers(packed, error),
              (std::vector<RetrievalPointer>{{4, 170}, {16, -1}}));
    EXPECT_EQ(error, 0u);
    platform::CloseHandle(packed);
}

TEST_F(AttachedImage, DiskHandleReadsTheImageUnderDeviceRules) {
    HANDLE disk = open("\\\\.\\PhysicalDrive0", GENERIC_READ | GENERIC_WRITE);
    ASSERT_NE(disk, INVALID_HANDLE_VALUE);
    std::vector<std::uint8_t> sector(1024);
    LARGE_INTEGER at;
    at.QuadPart = 16 * 512; // MFT record 0
    ASSERT_TRUE(platform::SetFilePointerEx(disk, at, nullptr, FILE_BEGIN));
    DWORD got = 0;
    ASSERT_TRUE(platform::ReadFile(disk, sector.data(), 1024, &got, nullptr));
    EXPECT_EQ(got, 1024u);
    EXPECT_EQ(std::memcmp(sector.data(), "FILE", 4), 0);
    EXPECT_FALSE(platform::ReadFile(disk, sector.data(), 1000, &got, nullptr));
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    platform::CloseHandle(disk);
}

} // namespace

namespace {

TEST_F(AttachedImage, HandlesKeepTheirOwnPositionsAcrossThreads) {
    const std::vector<std::uint8_t> expected = MiniVolumeImage().assemble();
    std::vector<std::thread> readers;
    std::atomic<int> mismatches{0};
    for (int t = 0; t < 4; ++t) {
        readers.emplace_back([&, t] {
            HANDLE disk = open("\\\\.\\PhysicalDrive0");
            if (disk == INVALID_HANDLE_VALUE) {
                ++mismatches;
                return;
            }
            std::vector<std::uint8_t> sector(512);
            for (int round = 0; round < 200; ++round) {
                const std::uint64_t index = static_cast<std::uint64_t>((t * 37 + round * 11) % 256);
                LARGE_INTEGER at;
                at.QuadPart = static_cast<LONGLONG>(index * 512);
                DWORD got = 0;
                if (!platform::SetFilePointerEx(disk, at, nullptr, FILE_BEGIN) ||
                    !platform::ReadFile(disk, sector.data(), 512, &got, nullptr) || got != 512 ||
                    std::memcmp(sector.data(), expected.data() + index * 512, 512) != 0)
                    ++mismatches;
            }
            platform::CloseHandle(disk);
        });
    }
    for (auto& reader : readers)
        reader.join();
    EXPECT_EQ(mismatches.load(), 0);
}

TEST_F(AttachedImage, ReattachingKeepsOpenHandlesOnTheirOwnDisk) {
    HANDLE before = open("\\\\.\\PhysicalDrive0");
    ASSERT_NE(before, INVALID_HANDLE_VALUE);
    // A second disk of zeros replaces the first.
    const std::filesystem::path zeros = path.string() + ".zeros";
    std::ofstream(zeros, std::ios::binary).close();
    std::filesystem::resize_file(zeros, 64 * 1024);
    std::string error;
    ASSERT_TRUE(platform::attachDisks({zeros.string()}, error)) << error;
    EXPECT_TRUE(platform::attachedVolumes().empty());

    std::vector<std::uint8_t> sector(512);
    DWORD got = 0;
    LARGE_INTEGER at;
    at.QuadPart = 16 * 512;
    ASSERT_TRUE(platform::SetFilePointerEx(before, at, nullptr, FILE_BEGIN));
    EXPECT_TRUE(platform::ReadFile(before, sector.data(), 512, &got, nullptr));
    EXPECT_EQ(std::memcmp(sector.data(), "FILE", 4), 0); // still the first image
    EXPECT_TRUE(platform::CloseHandle(before));

    HANDLE after = open("\\\\.\\PhysicalDrive0");
    ASSERT_NE(after, INVALID_HANDLE_VALUE);
    ASSERT_TRUE(platform::SetFilePointerEx(after, at, nullptr, FILE_BEGIN));
    EXPECT_TRUE(platform::ReadFile(after, sector.data(), 512, &got, nullptr));
    EXPECT_EQ(sector[0], 0u);
    EXPECT_TRUE(platform::CloseHandle(after));
    ASSERT_TRUE(platform::attachDisks({}, error));
    std::filesystem::remove(zeros);
}

} // namespace
