// Error texts, the thread's last error, structured exceptions and memory.
#include "Backends.h"

#include <kestrow/Platform.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

namespace platform = kestrow::platform;

std::string narrow(const platform::WideString& text) {
    return std::string(text.begin(), text.end());
}

// The backend's texts (on Windows without disks the system's own answer).
TEST(ErrorText, WindowsEnglishTextsWithTheirLineEnd) {
    platform::Api& backend = platform::diskImageApi();
    EXPECT_EQ(narrow(backend.errorMessage(2)), "The system cannot find the file specified.\r\n");
    EXPECT_EQ(narrow(backend.errorMessage(87)), "The parameter is incorrect.\r\n");
    EXPECT_EQ(narrow(backend.errorMessage(234)), "More data is available.\r\n");
    EXPECT_EQ(narrow(backend.errorMessage(38)), "Reached the end of the file.\r\n");
    EXPECT_EQ(narrow(backend.errorMessage(0)), "The operation completed successfully.\r\n");
    EXPECT_EQ(narrow(backend.errorMessage(0xDEAD)), "Unknown error 57005 (0x0000DEAD).\r\n");
}

TEST(LastError, IsKeptPerThread) {
    // The main thread reads its value back before join(): on Windows that is
    // the system's last error, which the waiting calls may overwrite.
    std::atomic<int> stage{0};
    DWORD seenByOther = 1;
    std::thread other([&] {
        while (stage.load() != 1)
            std::this_thread::yield();
        seenByOther = platform::GetLastError();
        platform::SetLastError(ERROR_CRC);
        stage = 2;
    });
    platform::SetLastError(ERROR_MORE_DATA);
    stage = 1;
    while (stage.load() != 2)
        std::this_thread::yield();
    const DWORD mine = platform::GetLastError();
    other.join();
    EXPECT_EQ(seenByOther, 0u);
    EXPECT_EQ(mine, static_cast<DWORD>(ERROR_MORE_DATA));
}

TEST(StructuredException, RaiseThrowsTheCode) {
    try {
        platform::RaiseException(7, 0, 0, nullptr);
        FAIL() << "RaiseException returned";
    } catch (const platform::StructuredException& exception) {
        EXPECT_EQ(exception.code(), 7u);
    }
}

// The backend's answer (on Windows without disks the system's own answer,
// which does not survive a null pointer).
TEST(MemoryStatus, ComesFromTheHostAndChecksTheLength) {
    platform::Api& backend = platform::diskImageApi();
    MEMORYSTATUSEX status{};
    status.dwLength = 60;
    EXPECT_FALSE(backend.GlobalMemoryStatusEx(&status));
    EXPECT_EQ(backend.GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_FALSE(backend.GlobalMemoryStatusEx(nullptr));
    status.dwLength = sizeof status;
    ASSERT_TRUE(backend.GlobalMemoryStatusEx(&status));
    EXPECT_GT(status.ullTotalPhys, 0u);
    EXPECT_GT(status.ullAvailPhys, 0u);
    EXPECT_LE(status.ullAvailPhys, status.ullTotalPhys);
    EXPECT_LE(status.dwMemoryLoad, 100u);
}

} // namespace
