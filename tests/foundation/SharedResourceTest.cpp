#include <kestrow/Platform.h>
#include <orv/SharedResource.h>
#include <orv/System.h>

#include <gtest/gtest.h>

#include <map>

namespace {

namespace platform = kestrow::platform;

// Hands out numbered handles and records every open and close.
class HandleCounter : public platform::Api {
public:
    HANDLE CreateFileW(LPCWSTR name, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD,
                       HANDLE) override {
        lastPath = orv::String(name, static_cast<unsigned int>(std::char_traits<WCHAR>::length(name)));
        if (failOpen) {
            SetLastError(ERROR_FILE_NOT_FOUND);
            return INVALID_HANDLE_VALUE;
        }
        HANDLE h = reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(++opened));
        open[h] = true;
        return h;
    }
    BOOL CloseHandle(HANDLE h) override {
        ++closed;
        open.erase(h);
        return TRUE;
    }
    BOOL ReadFile(HANDLE, LPVOID, DWORD, LPDWORD, LPOVERLAPPED) override { return FALSE; }
    BOOL SetFilePointerEx(HANDLE, LARGE_INTEGER, PLARGE_INTEGER, DWORD) override { return FALSE; }
    BOOL DeviceIoControl(HANDLE, DWORD, LPVOID, DWORD, LPVOID, DWORD, LPDWORD,
                         LPOVERLAPPED) override {
        return FALSE;
    }
    BOOL GetVolumeInformationW(LPCWSTR, LPWSTR, DWORD, LPDWORD, LPDWORD, LPDWORD, LPWSTR,
                               DWORD) override {
        return FALSE;
    }
    BOOL GetDiskFreeSpaceW(LPCWSTR, LPDWORD, LPDWORD, LPDWORD, LPDWORD) override { return FALSE; }
    DWORD GetFileAttributesW(LPCWSTR name) override {
        return orv::String(name, 3) == "C:\\" ? FILE_ATTRIBUTE_DIRECTORY : INVALID_FILE_ATTRIBUTES;
    }
    BOOL GlobalMemoryStatusEx(LPMEMORYSTATUSEX) override { return FALSE; }

    int opened = 0;
    int closed = 0;
    bool failOpen = false;
    orv::String lastPath;
    std::map<HANDLE, bool> open;
};

using Handle = orv::SharedResource<orv::DescriptorStorage<HANDLE, -1, orv::FileHandleResManager>>;

orv::CreateFileOpenArgs driveArgs() {
    return orv::CreateFileOpenArgs(orv::String("\\\\.\\PhysicalDrive0"), 0xC0000000u, 3, 3, 0);
}

TEST(SharedResource, EmptyHandleReleasesNothing) {
    HandleCounter api;
    platform::ScopedApi scope(api);
    Handle handle;
    EXPECT_FALSE(handle.isValid());
    EXPECT_EQ(handle.get(), INVALID_HANDLE_VALUE);
    handle.release();
    EXPECT_EQ(api.closed, 0);
}

TEST(SharedResource, LastCopyCloses) {
    HandleCounter api;
    platform::ScopedApi scope(api);
    {
        Handle first;
        ASSERT_TRUE(first.open(driveArgs()));
        EXPECT_TRUE(api.lastPath == "\\\\.\\PhysicalDrive0");
        Handle second(first);
        EXPECT_EQ(first.shareCount(), 2u);
        EXPECT_EQ(second.get(), first.get());
        first.release();
        EXPECT_FALSE(first.isValid());
        EXPECT_EQ(api.closed, 0);
        EXPECT_TRUE(second.isValid());
        Handle third(std::move(second));
        EXPECT_FALSE(second.isValid());
        EXPECT_EQ(api.closed, 0);
    }
    EXPECT_EQ(api.opened, 1);
    EXPECT_EQ(api.closed, 1);
    EXPECT_TRUE(api.open.empty());
}

TEST(SharedResource, FailedOpenKeepsNoManager) {
    HandleCounter api;
    api.failOpen = true;
    platform::ScopedApi scope(api);
    Handle handle;
    EXPECT_FALSE(handle.open(driveArgs()));
    EXPECT_EQ(handle.shareCount(), 0u);
    handle.release();
    EXPECT_EQ(api.closed, 0);
}

TEST(SharedResource, WrappedInvalidHandleIsReleasedWithoutClose) {
    HandleCounter api;
    platform::ScopedApi scope(api);
    {
        Handle handle;
        handle.wrap(INVALID_HANDLE_VALUE);
        EXPECT_EQ(handle.shareCount(), 1u);
        EXPECT_FALSE(handle.isValid());
    }
    EXPECT_EQ(api.closed, 0);
    {
        Handle handle;
        handle.wrap(reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(77)));
    }
    EXPECT_EQ(api.closed, 1);
}

TEST(SharedResource, ReopeningReleasesThePreviousHandle) {
    HandleCounter api;
    platform::ScopedApi scope(api);
    Handle handle;
    ASSERT_TRUE(handle.open(driveArgs()));
    ASSERT_TRUE(handle.open(driveArgs()));
    EXPECT_EQ(api.closed, 1);
    handle.release();
    EXPECT_EQ(api.closed, 2);
}

TEST(FileSystem, ExistsAsksThePlatform) {
    HandleCounter api;
    platform::ScopedApi scope(api);
    EXPECT_TRUE(orv::FileSystem::exists(orv::String("C:\\")));
    EXPECT_FALSE(orv::FileSystem::exists(orv::String("Q:\\")));
}

} // namespace
