// The real Win32 path of the platform boundary, the one the DLL takes when no
// disks are attached. Under Wine it answers from Wine's own drives and
// message tables; the expectations are those of Windows.
#include "Backends.h"

#include <kestrow/Disks.h>
#include <kestrow/Platform.h>

#include "support/Fixtures.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace platform = kestrow::platform;
using kestrow::test::bareVolume;
using kestrow::test::readFileBytes;

namespace {

std::wstring widePath(const std::filesystem::path& path) {
    return path.wstring();
}

// The root of the drive Windows (or Wine) runs from, such as "C:\".
std::wstring systemDriveRoot() {
    wchar_t directory[MAX_PATH] = {};
    const UINT length = ::GetWindowsDirectoryW(directory, MAX_PATH);
    if (length < 3)
        return L"C:\\";
    return std::wstring(directory, 3);
}

// A drive letter that names no drive, as a root path; empty when all are taken.
std::wstring unusedDriveRoot() {
    const DWORD drives = ::GetLogicalDrives();
    for (int letter = 'Z'; letter >= 'D'; --letter) {
        if ((drives & (1u << (letter - 'A'))) == 0)
            return std::wstring(1, static_cast<wchar_t>(letter)) + L":\\";
    }
    return {};
}

class Win32Path : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(platform::disksAttached()) << "KESTROW_DISKS must not be set for these tests";
    }
};

TEST_F(Win32Path, AnswersWhenNoDisksAreAttached) {
    EXPECT_EQ(&platform::current(), &platform::win32Api());
}

// ---- Memory ---------------------------------------------------------------------

TEST_F(Win32Path, GlobalMemoryStatusExReportsTheMachinesMemory) {
    MEMORYSTATUSEX status = {};
    status.dwLength = sizeof status;
    ASSERT_TRUE(platform::GlobalMemoryStatusEx(&status));
    EXPECT_GT(status.ullTotalPhys, 0u);
    EXPECT_LE(status.ullAvailPhys, status.ullTotalPhys);
    EXPECT_LE(status.dwMemoryLoad, 100u);
    EXPECT_GT(status.ullTotalVirtual, 0u);

    MEMORYSTATUSEX direct = {};
    direct.dwLength = sizeof direct;
    ASSERT_TRUE(::GlobalMemoryStatusEx(&direct));
    EXPECT_EQ(status.ullTotalPhys, direct.ullTotalPhys);
    EXPECT_EQ(status.ullTotalVirtual, direct.ullTotalVirtual);
}

TEST_F(Win32Path, GlobalMemoryStatusExRefusesAWrongStructureLength) {
    MEMORYSTATUSEX status = {};
    status.dwLength = 0;
    platform::SetLastError(ERROR_SUCCESS);
    EXPECT_FALSE(platform::GlobalMemoryStatusEx(&status));
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

// ---- Volume information -----------------------------------------------------------

TEST_F(Win32Path, GetVolumeInformationWDescribesTheSystemDrive) {
    const std::wstring root = systemDriveRoot();
    wchar_t label[MAX_PATH + 1] = {};
    wchar_t fileSystem[MAX_PATH + 1] = {};
    DWORD serial = 0;
    DWORD maxComponent = 0;
    DWORD flags = 0;
    ASSERT_TRUE(platform::GetVolumeInformationW(root.c_str(), label, MAX_PATH + 1, &serial,
                                                &maxComponent, &flags, fileSystem, MAX_PATH + 1))
        << "error " << platform::GetLastError();
    EXPECT_NE(fileSystem[0], L'\0');
    EXPECT_GT(maxComponent, 0u);

    wchar_t directLabel[MAX_PATH + 1] = {};
    wchar_t directFileSystem[MAX_PATH + 1] = {};
    DWORD directSerial = 0;
    DWORD directMaxComponent = 0;
    DWORD directFlags = 0;
    ASSERT_TRUE(::GetVolumeInformationW(root.c_str(), directLabel, MAX_PATH + 1, &directSerial,
                                        &directMaxComponent, &directFlags, directFileSystem,
                                        MAX_PATH + 1));
    EXPECT_EQ(std::wstring(label), std::wstring(directLabel));
    EXPECT_EQ(std::wstring(fileSystem), std::wstring(directFileSystem));
    EXPECT_EQ(serial, directSerial);
    EXPECT_EQ(flags, directFlags);
}

TEST_F(Win32Path, GetVolumeInformationWFailsForADriveThatDoesNotExist) {
    const std::wstring root = unusedDriveRoot();
    if (root.empty())
        GTEST_SKIP() << "needs: a free drive letter from D: to Z:";
    wchar_t fileSystem[MAX_PATH + 1] = {L'x'};
    platform::SetLastError(ERROR_SUCCESS);
    EXPECT_FALSE(platform::GetVolumeInformationW(root.c_str(), nullptr, 0, nullptr, nullptr,
                                                 nullptr, fileSystem, MAX_PATH + 1));
    const DWORD error = platform::GetLastError();
    EXPECT_NE(error, static_cast<DWORD>(ERROR_SUCCESS));

    ::SetLastError(ERROR_SUCCESS);
    EXPECT_FALSE(::GetVolumeInformationW(root.c_str(), nullptr, 0, nullptr, nullptr, nullptr,
                                         fileSystem, MAX_PATH + 1));
    EXPECT_EQ(error, ::GetLastError());
}

TEST_F(Win32Path, GetDiskFreeSpaceWGivesAConsistentGeometry) {
    const std::wstring root = systemDriveRoot();
    DWORD sectorsPerCluster = 0;
    DWORD bytesPerSector = 0;
    DWORD freeClusters = 0;
    DWORD totalClusters = 0;
    ASSERT_TRUE(platform::GetDiskFreeSpaceW(root.c_str(), &sectorsPerCluster, &bytesPerSector,
                                            &freeClusters, &totalClusters));
    EXPECT_GT(sectorsPerCluster, 0u);
    EXPECT_GE(bytesPerSector, 512u);
    EXPECT_EQ(bytesPerSector & (bytesPerSector - 1), 0u) << "a power of two";
    EXPECT_GT(totalClusters, 0u);
    EXPECT_LE(freeClusters, totalClusters);
}

// ---- Files ----------------------------------------------------------------------

TEST_F(Win32Path, CreateFileWReportsMissingFilesAndPaths) {
    const std::wstring directory = widePath(kestrow::test::fixtureDir());
    platform::SetLastError(ERROR_SUCCESS);
    HANDLE file = platform::CreateFileW((directory + L"\\no-such-image.img").c_str(), GENERIC_READ,
                                        FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    EXPECT_EQ(file, INVALID_HANDLE_VALUE);
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));

    file = platform::CreateFileW((directory + L"\\no-such-dir\\image.img").c_str(), GENERIC_READ,
                                 FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    EXPECT_EQ(file, INVALID_HANDLE_VALUE);
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
}

TEST_F(Win32Path, GetFileAttributesWTellsDirectoriesFromFiles) {
    const DWORD directory =
        platform::GetFileAttributesW(widePath(kestrow::test::fixtureDir()).c_str());
    ASSERT_NE(directory, INVALID_FILE_ATTRIBUTES);
    EXPECT_NE(directory & FILE_ATTRIBUTE_DIRECTORY, 0u);

    const DWORD image = platform::GetFileAttributesW(widePath(bareVolume()).c_str());
    ASSERT_NE(image, INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(image & FILE_ATTRIBUTE_DIRECTORY, 0u);

    EXPECT_EQ(platform::GetFileAttributesW(
                  (widePath(kestrow::test::fixtureDir()) + L"\\missing").c_str()),
              INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
}

// Reads an image the way the library reads a device: seek, then read whole
// sectors, through the real calls.
TEST_F(Win32Path, ReadsAnImageAtAnyOffsetAndStopsAtItsEnd) {
    HANDLE file = platform::CreateFileW(widePath(bareVolume()).c_str(), GENERIC_READ,
                                        FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                        0, nullptr);
    ASSERT_NE(file, INVALID_HANDLE_VALUE) << "error " << platform::GetLastError();

    std::vector<std::uint8_t> sector(512);
    DWORD got = 0;
    ASSERT_TRUE(platform::ReadFile(file, sector.data(), 512, &got, nullptr));
    ASSERT_EQ(got, 512u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(sector.data()) + 3, 8), "NTFS    ");
    EXPECT_EQ(sector, readFileBytes(bareVolume(), 0, 512));

    LARGE_INTEGER distance = {};
    distance.QuadPart = 4096 * 3;
    LARGE_INTEGER position = {};
    ASSERT_TRUE(platform::SetFilePointerEx(file, distance, &position, FILE_BEGIN));
    EXPECT_EQ(position.QuadPart, 4096 * 3);
    ASSERT_TRUE(platform::ReadFile(file, sector.data(), 512, &got, nullptr));
    ASSERT_EQ(got, 512u);
    EXPECT_EQ(sector, readFileBytes(bareVolume(), 4096 * 3, 512));

    distance.QuadPart = 0;
    ASSERT_TRUE(platform::SetFilePointerEx(file, distance, &position, FILE_END));
    EXPECT_EQ(static_cast<std::uint64_t>(position.QuadPart),
              std::filesystem::file_size(bareVolume()));
    got = 1;
    EXPECT_TRUE(platform::ReadFile(file, sector.data(), 512, &got, nullptr));
    EXPECT_EQ(got, 0u) << "a read at the end of a file succeeds with nothing";

    distance.QuadPart = -1;
    platform::SetLastError(ERROR_SUCCESS);
    EXPECT_FALSE(platform::SetFilePointerEx(file, distance, &position, FILE_BEGIN));
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_NEGATIVE_SEEK));

    EXPECT_TRUE(platform::CloseHandle(file));
}

TEST_F(Win32Path, CloseHandleRejectsAHandleThatIsNotOpen) {
    platform::SetLastError(ERROR_SUCCESS);
    EXPECT_FALSE(platform::CloseHandle(reinterpret_cast<HANDLE>(std::uintptr_t{0x1234})));
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
}

// ---- Error texts ------------------------------------------------------------------

// Wine keeps message texts of its own ("File not found." where Windows says
// "The system cannot find the file specified."); it is recognised by the
// export ntdll adds for it.
bool runningUnderWine() {
    const HMODULE ntdll = ::GetModuleHandleW(L"ntdll.dll");
    return ntdll != nullptr && ::GetProcAddress(ntdll, "wine_get_version") != nullptr;
}

// What FormatMessageW itself gives for the code in US English, or nothing.
std::wstring systemText(DWORD code) {
    wchar_t* text = nullptr;
    const DWORD length = ::FormatMessageW(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
        nullptr, code, MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US),
        reinterpret_cast<wchar_t*>(&text), 0, nullptr);
    std::wstring result(text != nullptr ? text : L"", length);
    ::LocalFree(text);
    return result;
}

// The texts are the system's own, in English, with the trailing "\r\n" that
// FormatMessageW leaves; on Windows they are the very texts the disk-image
// backend keeps for the same codes.
TEST_F(Win32Path, ErrorTextsAreTheSystemsEnglishTexts) {
    for (const DWORD code : {ERROR_SUCCESS, ERROR_FILE_NOT_FOUND, ERROR_PATH_NOT_FOUND,
                             ERROR_ACCESS_DENIED, ERROR_INVALID_HANDLE, ERROR_INVALID_PARAMETER,
                             ERROR_HANDLE_EOF, ERROR_NOT_SUPPORTED, ERROR_INSUFFICIENT_BUFFER}) {
        SCOPED_TRACE(code);
        const platform::WideString text = platform::errorMessage(code);
        ASSERT_GE(text.size(), 2u);
        EXPECT_EQ(text.substr(text.size() - 2), L"\r\n");
        EXPECT_EQ(text, systemText(code));
        if (!runningUnderWine()) {
            EXPECT_EQ(text, platform::englishErrorText(code));
        }
    }
}

TEST_F(Win32Path, ErrorTextOfAnUnknownCodeNamesTheCode) {
    const platform::WideString text = platform::errorMessage(0x2FFFFFFF);
    EXPECT_FALSE(text.empty());
    EXPECT_NE(text.find(L"\r\n"), platform::WideString::npos);
}

TEST_F(Win32Path, LastErrorIsTheThreadsLastError) {
    platform::SetLastError(ERROR_ACCESS_DENIED);
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    ::SetLastError(ERROR_INVALID_DRIVE);
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_INVALID_DRIVE));
}

// ---- Structured exceptions ------------------------------------------------------------

// This program's own directory, with a trailing backslash.
std::wstring ownDirectory() {
    wchar_t self[MAX_PATH] = {};
    const DWORD length = ::GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring path(self, length);
    path.erase(path.find_last_of(L"\\/") + 1);
    return path;
}

// A failed foundation assertion raises a real structured exception with code
// 7; nothing handles it, so Windows ends the process with that code.
TEST_F(Win32Path, AFailedAssertionEndsTheProcessWithCodeSeven) {
    std::wstring command = L"\"" + ownDirectory() + L"kestrow_raise_probe.exe\"";
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process = {};
    ASSERT_TRUE(::CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr,
                                 nullptr, &startup, &process))
        << "cannot start the probe: error " << ::GetLastError();
    const DWORD waited = ::WaitForSingleObject(process.hProcess, 60 * 1000);
    DWORD exitCode = 0;
    const BOOL haveCode = ::GetExitCodeProcess(process.hProcess, &exitCode);
    if (waited != WAIT_OBJECT_0)
        ::TerminateProcess(process.hProcess, 1);
    ::CloseHandle(process.hThread);
    ::CloseHandle(process.hProcess);
    ASSERT_EQ(waited, static_cast<DWORD>(WAIT_OBJECT_0)) << "the probe did not end";
    ASSERT_TRUE(haveCode);
    EXPECT_EQ(exitCode, 7u);
}

// The test programs themselves throw instead (ThrowingRaiseException.cpp).
TEST_F(Win32Path, TestProgramsSeeTheRaiseAsAnException) {
    try {
        platform::RaiseException(7, 0, 0, nullptr);
    } catch (const platform::StructuredException& e) {
        EXPECT_EQ(e.code(), 7u);
        return;
    }
    ADD_FAILURE() << "RaiseException returned";
}

} // namespace
