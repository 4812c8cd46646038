// Shared handles: the last copy closes, failed opens and wrapped invalid
// handles close nothing; the file-system query asks the platform.
#include "support/FakePlatform.h"

#include <orv/SharedResource.h>
#include <orv/System.h>

#include <gtest/gtest.h>

namespace {

namespace platform = kestrow::platform;
using kestrow::test::FakePlatform;

using Handle = orv::SharedResource<orv::DescriptorStorage<HANDLE, -1, orv::FileHandleResManager>>;

orv::CreateFileOpenArgs driveArgs() {
    return orv::CreateFileOpenArgs(orv::String("\\\\.\\PhysicalDrive0"), 0xC0000000u, 3, 3, 0);
}

class SharedResource : public ::testing::Test {
protected:
    SharedResource() { fake.addDisk(0, 4096); }
    FakePlatform fake;
    platform::ScopedApi scope{fake};
};

TEST_F(SharedResource, EmptyHandleReleasesNothing) {
    Handle handle;
    EXPECT_FALSE(handle.isValid());
    EXPECT_EQ(handle.get(), INVALID_HANDLE_VALUE);
    handle.release();
    EXPECT_EQ(fake.closeHandleCount(), 0u);
}

TEST_F(SharedResource, LastCopyCloses) {
    {
        Handle first;
        ASSERT_TRUE(first.open(driveArgs()));
        Handle second(first);
        EXPECT_EQ(first.shareCount(), 2u);
        EXPECT_EQ(second.get(), first.get());
        first.release();
        EXPECT_FALSE(first.isValid());
        EXPECT_EQ(fake.closeHandleCount(), 0u);
        EXPECT_TRUE(second.isValid());
        Handle third(std::move(second));
        EXPECT_FALSE(second.isValid());
        EXPECT_EQ(fake.closeHandleCount(), 0u);
    }
    EXPECT_EQ(fake.createFileCount(), 1u);
    EXPECT_EQ(fake.closeHandleCount(), 1u);
    EXPECT_EQ(fake.openHandles(), 0u);
}

TEST_F(SharedResource, FailedOpenAndWrappedInvalidHandlesCloseNothing) {
    fake.failOpen("\\\\.\\PhysicalDrive0", ERROR_FILE_NOT_FOUND);
    Handle failed;
    EXPECT_FALSE(failed.open(driveArgs()));
    EXPECT_EQ(failed.shareCount(), 0u);
    failed.release();
    {
        Handle handle;
        handle.wrap(INVALID_HANDLE_VALUE);
        EXPECT_EQ(handle.shareCount(), 1u);
        EXPECT_FALSE(handle.isValid());
    }
    EXPECT_EQ(fake.closeHandleCount(), 0u);
    {
        Handle handle;
        handle.wrap(reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(77)));
    }
    EXPECT_EQ(fake.closeHandleCount(), 1u);
}

TEST_F(SharedResource, ReopeningReleasesThePreviousHandle) {
    Handle handle;
    ASSERT_TRUE(handle.open(driveArgs()));
    ASSERT_TRUE(handle.open(driveArgs()));
    EXPECT_EQ(fake.closeHandleCount(), 1u);
    handle.release();
    EXPECT_EQ(fake.closeHandleCount(), 2u);
    EXPECT_EQ(fake.openHandles(), 0u);
}

TEST_F(SharedResource, FileSystemExistsAsksThePlatform) {
    fake.addVolume('C');
    fake.addDirectory('C', "\\Dir");
    EXPECT_TRUE(orv::FileSystem::exists(orv::String("C:\\Dir")));
    EXPECT_FALSE(orv::FileSystem::exists(orv::String("Q:\\")));
}

} // namespace
