// The scripted fake answers like Windows and records what was asked of it.
// (Its control replies are the backend's own, tested in ControlRepliesTest.)
#include "support/FakePlatform.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using kestrow::platform::ScopedApi;
using kestrow::test::FakePlatform;
using kestrow::test::widen;
namespace platform = kestrow::platform;

HANDLE open(const std::string& path) {
    return platform::CreateFileW(widen(path).c_str(), GENERIC_READ | GENERIC_WRITE,
                                 FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0,
                                 nullptr);
}

bool seek(HANDLE handle, std::int64_t offset, DWORD method = FILE_BEGIN,
          LARGE_INTEGER* position = nullptr) {
    LARGE_INTEGER distance;
    distance.QuadPart = offset;
    return platform::SetFilePointerEx(handle, distance, position, method) != FALSE;
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

TEST(FakePlatform, NamesResolveInEveryFormAndMissingOnesGiveWindowsCodes) {
    FakePlatform fake;
    fake.addVolume('C');
    fake.addDirectory('C', "\\Dir");
    fake.addFile('C', "$MFT", {{64, 1024}});
    ScopedApi scope(fake);
    for (const char* path : {"\\\\.\\C:\\$MFT", "C:\\$mft", "C:$MFT", "\\\\.\\C:$MFT"}) {
        SCOPED_TRACE(path);
        EXPECT_NE(platform::GetFileAttributesW(widen(path).c_str()), INVALID_FILE_ATTRIBUTES);
        HANDLE file = open(path);
        ASSERT_NE(file, INVALID_HANDLE_VALUE);
        platform::CloseHandle(file);
    }
    const std::pair<const char*, DWORD> missing[] = {
        {"\\\\.\\D:", ERROR_FILE_NOT_FOUND},
        {"\\\\.\\PhysicalDrive3", ERROR_FILE_NOT_FOUND},
        {"C:\\Dir\\missing.txt", ERROR_FILE_NOT_FOUND},
        {"C:\\NoDir\\missing.txt", ERROR_PATH_NOT_FOUND},
    };
    for (const auto& [path, code] : missing) {
        EXPECT_EQ(open(path), INVALID_HANDLE_VALUE) << path;
        EXPECT_EQ(platform::GetLastError(), code) << path;
    }
    EXPECT_EQ(platform::GetFileAttributesW(widen("D:\\x").c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
    EXPECT_EQ(fake.openHandles(), 0u);
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

    // FILE_END is the disk's size on a disk handle, the extent's on a volume.
    HANDLE whole = open("\\\\.\\PhysicalDrive0");
    LARGE_INTEGER position{};
    ASSERT_TRUE(seek(whole, -512, FILE_END, &position));
    EXPECT_EQ(position.QuadPart, (1 << 20) - 512);
    ASSERT_TRUE(seek(volume, -512, FILE_END, &position));
    EXPECT_EQ(position.QuadPart, 65536 - 512);
    EXPECT_FALSE(seek(volume, -70000, FILE_END, &position));
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_NEGATIVE_SEEK));
    platform::CloseHandle(whole);
    platform::CloseHandle(volume);
    EXPECT_EQ(fake.openHandles(), 0u);
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

} // namespace
