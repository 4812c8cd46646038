// The scripted fake answers like Windows and records what was asked of it.
#include "support/FakePlatform.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

using kestrow::platform::RetrievalRun;
using kestrow::platform::ScopedApi;
using kestrow::test::FakePlatform;
using kestrow::test::widen;
namespace platform = kestrow::platform;

HANDLE open(const std::string& path) {
    return platform::CreateFileW(widen(path).c_str(), GENERIC_READ | GENERIC_WRITE,
                                 FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0,
                                 nullptr);
}

bool seek(HANDLE handle, std::int64_t offset) {
    LARGE_INTEGER distance;
    distance.QuadPart = offset;
    return platform::SetFilePointerEx(handle, distance, nullptr, FILE_BEGIN) != FALSE;
}

TEST(FakePlatform, InstalledFakeAnswersInsteadOfTheBackendAndIsRemovedAfterwards) {
    FakePlatform fake;
    fake.addVolume('C');
    {
        ScopedApi scope(fake);
        EXPECT_EQ(&platform::current(), &fake);
        HANDLE volume = open("\\\\.\\C:");
        ASSERT_NE(volume, INVALID_HANDLE_VALUE);
        EXPECT_EQ(fake.openHandles(), 1u);
        EXPECT_TRUE(platform::CloseHandle(volume));
    }
    EXPECT_NE(&platform::current(), &fake);
    EXPECT_EQ(fake.createFileCount(), 1u);
    EXPECT_EQ(fake.closeHandleCount(), 1u);
    EXPECT_EQ(fake.openHandles(), 0u);
}

TEST(FakePlatform, MissingNamesGiveTheCodesWindowsGives) {
    FakePlatform fake;
    fake.addVolume('C');
    fake.addDirectory('C', "\\Dir");
    ScopedApi scope(fake);
    EXPECT_EQ(open("\\\\.\\D:"), INVALID_HANDLE_VALUE);
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(open("\\\\.\\PhysicalDrive3"), INVALID_HANDLE_VALUE);
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(open("C:\\Dir\\missing.txt"), INVALID_HANDLE_VALUE);
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(open("C:\\NoDir\\missing.txt"), INVALID_HANDLE_VALUE);
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
    EXPECT_EQ(platform::GetFileAttributesW(widen("D:\\x").c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
    EXPECT_EQ(fake.openHandles(), 0u);
}

TEST(FakePlatform, FilesResolveInEveryFormTheLibraryUses) {
    FakePlatform fake;
    fake.addVolume('C');
    fake.addFile('C', "$MFT", {{64, 1024}});
    ScopedApi scope(fake);
    for (const char* path : {"\\\\.\\C:\\$MFT", "C:\\$mft", "C:$MFT", "\\\\.\\C:$MFT"}) {
        SCOPED_TRACE(path);
        EXPECT_NE(platform::GetFileAttributesW(widen(path).c_str()), INVALID_FILE_ATTRIBUTES);
        HANDLE file = open(path);
        ASSERT_NE(file, INVALID_HANDLE_VALUE);
        platform::CloseHandle(file);
    }
    EXPECT_EQ(fake.openHandles(), 0u);
}

TEST(FakePlatform, RetrievalPointersNeedingSeveralGrowthsReturnWhatFitsEachTime) {
    FakePlatform fake;
    fake.addVolume('C');
    std::vector<RetrievalRun> runs;
    for (int i = 0; i < 5000; ++i)
        runs.push_back({(i + 1) * 2, 1000 + i * 4});
    fake.addFile('C', "\\$MFT", runs);
    ScopedApi scope(fake);
    HANDLE file = open("\\\\.\\C:\\$MFT");
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    STARTING_VCN_INPUT_BUFFER input{};
    std::vector<std::uint8_t> out(16032);
    DWORD returned = 0;
    EXPECT_FALSE(platform::DeviceIoControl(file, FSCTL_GET_RETRIEVAL_POINTERS, &input, sizeof input,
                                           out.data(), static_cast<DWORD>(out.size()), &returned,
                                           nullptr));
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(returned, 16032u);
    DWORD count = 0;
    std::memcpy(&count, out.data(), sizeof count);
    EXPECT_EQ(count, 1001u);
    out.resize(out.size() * 5);
    EXPECT_TRUE(platform::DeviceIoControl(file, FSCTL_GET_RETRIEVAL_POINTERS, &input, sizeof input,
                                          out.data(), static_cast<DWORD>(out.size()), &returned,
                                          nullptr));
    EXPECT_EQ(returned, 16u + 5000u * 16u);
    EXPECT_EQ(fake.deviceIoControlCount(FSCTL_GET_RETRIEVAL_POINTERS), 2u);
    platform::CloseHandle(file);
}

TEST(FakePlatform, ResidentFileHasNoRunsAndAnswersEndOfFile) {
    FakePlatform fake;
    fake.addVolume('C');
    fake.addFile('C', "\\small.txt");
    ScopedApi scope(fake);
    HANDLE file = open("C:\\small.txt");
    STARTING_VCN_INPUT_BUFFER input{};
    RETRIEVAL_POINTERS_BUFFER out{};
    DWORD returned = 7;
    EXPECT_FALSE(platform::DeviceIoControl(file, FSCTL_GET_RETRIEVAL_POINTERS, &input, sizeof input,
                                           &out, sizeof out, &returned, nullptr));
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_HANDLE_EOF));
    EXPECT_EQ(returned, 0u);
    platform::CloseHandle(file);
}

TEST(FakePlatform, VolumeOverTwoDisksReportsMoreDataWithTheCountInTheHeader) {
    FakePlatform fake;
    auto& volume = fake.addVolume('E');
    volume.extents = {{0, 1 << 20, 8 << 20}, {1, 1 << 20, 8 << 20}};
    ScopedApi scope(fake);
    HANDLE handle = open("\\\\?\\E:");
    VOLUME_DISK_EXTENTS extents{};
    DWORD returned = 0;
    EXPECT_FALSE(platform::DeviceIoControl(handle, IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, nullptr, 0,
                                           &extents, sizeof extents, &returned, nullptr));
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_MORE_DATA));
    EXPECT_EQ(returned, sizeof extents);
    EXPECT_EQ(extents.NumberOfDiskExtents, 2u);
    platform::CloseHandle(handle);
}

TEST(FakePlatform, FatVolumeHasGeometryButNoNtfsData) {
    FakePlatform fake;
    fake.addFatVolume('F');
    ScopedApi scope(fake);
    WCHAR name[64] = {};
    EXPECT_TRUE(platform::GetVolumeInformationW(widen("\\\\.\\F:\\").c_str(), nullptr, 0, nullptr,
                                                nullptr, nullptr, name, 64));
    EXPECT_EQ(kestrow::test::narrow(name), "FAT32");
    HANDLE handle = open("\\\\?\\F:");
    NTFS_VOLUME_DATA_BUFFER data{};
    DWORD returned = 0;
    EXPECT_FALSE(platform::DeviceIoControl(handle, FSCTL_GET_NTFS_VOLUME_DATA, nullptr, 0, &data,
                                           sizeof data, &returned, nullptr));
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_INVALID_FUNCTION));
    platform::CloseHandle(handle);
}

TEST(FakePlatform, VolumeHandleReadsItsExtentOfTheDiskUnderDeviceRules) {
    FakePlatform fake;
    auto& disk = fake.addDisk(0, 1 << 20);
    for (std::size_t i = 0; i < disk.bytes.size(); ++i)
        disk.bytes[i] = static_cast<std::uint8_t>(i / 512);
    fake.addVolume('C').extents = {{0, 4096, 65536}};
    ScopedApi scope(fake);
    HANDLE volume = open("\\\\.\\C:");
    std::vector<std::uint8_t> buffer(1024);
    DWORD got = 0;
    ASSERT_TRUE(seek(volume, 512));
    ASSERT_TRUE(platform::ReadFile(volume, buffer.data(), 1024, &got, nullptr));
    EXPECT_EQ(got, 1024u);
    EXPECT_EQ(buffer[0], 9u); // byte 4096 + 512 of the disk lies in sector 9
    EXPECT_FALSE(platform::ReadFile(volume, buffer.data(), 100, &got, nullptr));
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    ASSERT_TRUE(seek(volume, 65536 - 512));
    ASSERT_TRUE(platform::ReadFile(volume, buffer.data(), 1024, &got, nullptr));
    EXPECT_EQ(got, 512u); // only what exists before the end
    platform::CloseHandle(volume);
}

TEST(FakePlatform, InjectedFailuresHitTheirTargetOnly) {
    FakePlatform fake;
    fake.addDisk(0, 1 << 20);
    fake.failReadAtSector(0, 100, ERROR_CRC, 1);
    fake.failSeekAtOrAfter(900 * 1024, ERROR_SECTOR_NOT_FOUND);
    fake.failOpen("\\\\.\\PhysicalDrive0", 0); // 0: no failure
    ScopedApi scope(fake);
    HANDLE disk = open("\\\\.\\PhysicalDrive0");
    ASSERT_NE(disk, INVALID_HANDLE_VALUE);
    std::vector<std::uint8_t> buffer(4096);
    DWORD got = 0;
    ASSERT_TRUE(seek(disk, 96 * 512));
    EXPECT_FALSE(platform::ReadFile(disk, buffer.data(), 4096, &got, nullptr));
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_CRC));
    EXPECT_TRUE(platform::ReadFile(disk, buffer.data(), 4096, &got, nullptr)); // failed once only
    EXPECT_FALSE(seek(disk, 900 * 1024));
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_SECTOR_NOT_FOUND));
    platform::CloseHandle(disk);

    fake.failOpen("\\\\.\\physicaldrive0", ERROR_ACCESS_DENIED);
    EXPECT_EQ(open("\\\\.\\PhysicalDrive0"), INVALID_HANDLE_VALUE);
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(fake.reads().size(), 2u);
}

TEST(FakePlatform, MemoryStatusIsScriptable) {
    FakePlatform fake;
    ScopedApi scope(fake);
    MEMORYSTATUSEX status{};
    status.dwLength = sizeof status;
    fake.setAvailablePhysicalMemory(600ull << 20);
    ASSERT_TRUE(platform::GlobalMemoryStatusEx(&status));
    EXPECT_EQ(status.ullAvailPhys, 600ull << 20);
    fake.failMemoryStatus(ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_FALSE(platform::GlobalMemoryStatusEx(&status));
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
}

} // namespace

namespace {

TEST(FakePlatform, SeekFromTheEndUsesTheDeviceSize) {
    FakePlatform fake;
    fake.addDisk(0, 1 << 20);
    fake.addVolume('C').extents = {{0, 4096, 65536}};
    ScopedApi scope(fake);
    HANDLE disk = open("\\\\.\\PhysicalDrive0");
    HANDLE volume = open("\\\\.\\C:");
    LARGE_INTEGER back;
    back.QuadPart = -512;
    LARGE_INTEGER position{};
    ASSERT_TRUE(platform::SetFilePointerEx(disk, back, &position, FILE_END));
    EXPECT_EQ(position.QuadPart, (1 << 20) - 512);
    ASSERT_TRUE(platform::SetFilePointerEx(volume, back, &position, FILE_END));
    EXPECT_EQ(position.QuadPart, 65536 - 512);
    back.QuadPart = -70000;
    EXPECT_FALSE(platform::SetFilePointerEx(volume, back, &position, FILE_END));
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_NEGATIVE_SEEK));
    platform::CloseHandle(disk);
    platform::CloseHandle(volume);
    EXPECT_EQ(fake.openHandles(), 0u);
}

} // namespace
