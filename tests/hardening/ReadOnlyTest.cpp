// Nothing ever writes to a disk or an image: the backend holds every image
// open read-only, refuses every open of a file that asks to change it, offers
// no request that changes a device, and the library links no call that could
// write a file.
#include "ImageMap.h"

#include "support/FakePlatform.h"
#include "support/Fixtures.h"
#include "support/Oracle.h"

#include <kestrow/Disks.h>
#include <kestrow/Platform.h>
#include <kestrow/WinTypes.h>
#include <libKestrow/MasterFileTable.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <cerrno>
#include <fstream>

#include <fcntl.h>
#include <unistd.h>

namespace kestrow::test::hardening {
namespace {

namespace fs = std::filesystem;
namespace platform = kestrow::platform;
using kestrow::test::widen;

class AttachedScratch : public ::testing::TestWithParam<ImageFacts> {
protected:
    void SetUp() override {
        std::string error;
        ASSERT_TRUE(platform::attachDisks({scratch.path().string()}, error)) << error;
        before = scratch.read(0, static_cast<std::size_t>(scratch.size()));
    }
    void TearDown() override {
        std::string ignored;
        platform::attachDisks({}, ignored);
        EXPECT_EQ(scratch.read(0, static_cast<std::size_t>(scratch.size())), before)
            << "the image changed";
    }

    ScratchImage scratch{imagePath(GetParam().image)};
    std::vector<std::uint8_t> before;
};

// Every descriptor this process holds on `file`, by its path.
std::vector<int> descriptorsOn(const fs::path& file) {
    std::vector<int> found;
    const fs::path wanted = fs::canonical(file);
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        const fs::path target = fs::read_symlink(entry.path(), error);
        if (!error && target == wanted)
            found.push_back(std::stoi(entry.path().filename().string()));
    }
    return found;
}

TEST_P(AttachedScratch, TheImageIsHeldOpenForReadingOnly) {
    const std::vector<int> descriptors = descriptorsOn(scratch.path());
    ASSERT_FALSE(descriptors.empty()) << "the attached image is not held open";
    for (int fd : descriptors) {
        const int flags = ::fcntl(fd, F_GETFL);
        ASSERT_NE(flags, -1);
        EXPECT_EQ(flags & O_ACCMODE, O_RDONLY) << "descriptor " << fd;
    }
}

TEST_P(AttachedScratch, NoOpenOfAFileMayChangeIt) {
    // Windows' rights that change a file: FILE_WRITE_DATA, FILE_APPEND_DATA,
    // FILE_WRITE_EA, FILE_WRITE_ATTRIBUTES, DELETE, GENERIC_WRITE, GENERIC_ALL.
    const DWORD writingRights[] = {0x2, 0x4, 0x10, 0x100, 0x10000, GENERIC_WRITE, 0x10000000};
    const DWORD sharing[] = {0, FILE_SHARE_READ, FILE_SHARE_WRITE,
                             FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE};
    for (const char* path : {"C:\\$MFT", "C:\\$Bitmap", "C:\\$Boot"}) {
        for (DWORD rights : writingRights) {
            for (DWORD share : sharing) {
                for (DWORD disposition : {OPEN_EXISTING, OPEN_ALWAYS}) {
                    HANDLE handle =
                        platform::CreateFileW(widen(path).c_str(), GENERIC_READ | rights, share,
                                              nullptr, disposition, 0, nullptr);
                    EXPECT_EQ(handle, INVALID_HANDLE_VALUE)
                        << path << " rights " << std::hex << rights;
                    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_WRITE_PROTECT));
                    if (handle != INVALID_HANDLE_VALUE)
                        platform::CloseHandle(handle);
                }
            }
        }
        for (DWORD disposition : {CREATE_ALWAYS, TRUNCATE_EXISTING}) {
            HANDLE handle =
                platform::CreateFileW(widen(path).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                      disposition, 0, nullptr);
            EXPECT_EQ(handle, INVALID_HANDLE_VALUE) << path << " disposition " << disposition;
            EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_WRITE_PROTECT));
        }
    }
    for (DWORD disposition : {CREATE_NEW, CREATE_ALWAYS, OPEN_ALWAYS}) {
        HANDLE handle =
            platform::CreateFileW(widen("C:\\made-by-a-test.txt").c_str(), GENERIC_WRITE,
                                  FILE_SHARE_WRITE, nullptr, disposition, 0, nullptr);
        EXPECT_EQ(handle, INVALID_HANDLE_VALUE) << "disposition " << disposition;
        EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_WRITE_PROTECT));
    }
}

TEST_P(AttachedScratch, DevicesOpenedForWritingOfferNothingThatWrites) {
    // The MFT's drive is opened for reading and writing, as on Windows; what
    // a write handle could ask of a device is refused.
    const DWORD changingRequests[] = {
        0x00090018, // FSCTL_LOCK_VOLUME
        0x00090020, // FSCTL_DISMOUNT_VOLUME
        0x0009C040, // FSCTL_SET_COMPRESSION
        0x000900C4, // FSCTL_SET_SPARSE
        0x0007C054, // IOCTL_DISK_SET_DRIVE_LAYOUT_EX
        0x0007C0A8, // IOCTL_DISK_DELETE_DRIVE_LAYOUT
        0x0007C008, // IOCTL_DISK_SET_PARTITION_INFO
        0x00090070, // FSCTL_MOVE_FILE
        0x000980C8, // FSCTL_SET_ZERO_DATA
    };
    for (const char* device : {"\\\\.\\PhysicalDrive0", "\\\\.\\C:"}) {
        HANDLE handle = platform::CreateFileW(widen(device).c_str(), GENERIC_READ | GENERIC_WRITE,
                                              FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                              OPEN_EXISTING, 0, nullptr);
        ASSERT_NE(handle, INVALID_HANDLE_VALUE) << device;
        std::uint8_t in[64] = {};
        std::uint8_t out[64] = {};
        for (DWORD request : changingRequests) {
            DWORD returned = 0;
            EXPECT_FALSE(platform::DeviceIoControl(handle, request, in, sizeof in, out, sizeof out,
                                                   &returned, nullptr))
                << device << " request " << std::hex << request;
        }
        platform::CloseHandle(handle);
    }
}

// The lines of /proc/self/maps that map `file` into this process.
std::string mappingsOf(const fs::path& file) {
    std::string found;
    const std::string wanted = fs::canonical(file).string();
    std::ifstream maps("/proc/self/maps");
    std::string line;
    while (std::getline(maps, line))
        if (line.size() >= wanted.size() &&
            line.compare(line.size() - wanted.size(), wanted.size(), wanted) == 0)
            found += line + "\n";
    return found;
}

// No image byte is reached through a mapping: a page of a file that shrank
// or sits on a failing medium would raise SIGBUS in the host, where a read
// returns an error the library reports. A walk that has built the record
// buffer leaves no mapping of the image in the process.
TEST_P(AttachedScratch, TheImageIsReadNeverMapped) {
    Volume volume('C');
    MasterFileTable table(volume);
    ASSERT_TRUE(table.initialized());
    ASSERT_TRUE(table.buildRecordMap());
    EXPECT_EQ(mappingsOf(scratch.path()), "");
}

INSTANTIATE_TEST_SUITE_P(Fixtures, AttachedScratch,
                         ::testing::ValuesIn(allImages().begin(), allImages().end()));

// The calls of the C library that could change a file or a device. Views of
// an image are mappings of a descriptor opened read-only, which cannot be made
// writable (see above); the library has no call that would try.
TEST(ReadOnlyLibrary, LinksNoCallThatWrites) {
    const oracle::ToolOutput symbols =
        oracle::runTool({"nm", "-D", "--undefined-only", KESTROW_LIBRARY_PATH});
    ASSERT_EQ(symbols.exitCode, 0) << symbols.err;
    std::set<std::string> imported;
    std::istringstream lines(symbols.out);
    std::string line;
    while (std::getline(lines, line)) {
        std::string name = line.substr(line.find_last_of(' ') + 1);
        imported.insert(name.substr(0, name.find('@')));
    }
    ASSERT_TRUE(imported.count("pread") || imported.count("pread64")) << "not the library expected";
    for (const char* call :
         {"write",     "pwrite",      "pwrite64", "writev",    "pwritev",     "pwritev2",
          "ftruncate", "ftruncate64", "truncate", "fallocate", "fallocate64", "unlink",
          "unlinkat",  "rename",      "renameat", "fsync",     "fdatasync",   "sync_file_range",
          "creat",     "creat64",     "mprotect", "msync",     "mremap"})
        EXPECT_EQ(imported.count(call), 0u) << "libKestrow imports " << call;
}

} // namespace
} // namespace kestrow::test::hardening
