// Block devices as disks: the sector size comes from the device (BLKSSZGET)
// and the size from BLKGETSIZE64. The devices are read-only loop devices
// over the fixture images; without the rights to make one the tests skip.
#include "support/FakePlatform.h"
#include "support/Fixtures.h"
#include "support/Oracle.h"

#include <kestrow/Disks.h>
#include <kestrow/Platform.h>

#include <gtest/gtest.h>

#include <unistd.h>

namespace {

namespace platform = kestrow::platform;
namespace oracle = kestrow::test::oracle;

// A read-only loop device over an image, detached when the object goes.
class LoopDevice {
public:
    LoopDevice(const std::filesystem::path& image, unsigned sectorSize) {
        if (::geteuid() != 0)
            return;
        const oracle::ToolOutput out =
            oracle::runTool({"losetup", "--find", "--show", "--read-only", "--sector-size",
                             std::to_string(sectorSize), image.string()});
        if (out.exitCode == 0 && out.out.rfind("/dev/", 0) == 0)
            m_device = out.out.substr(0, out.out.find('\n'));
    }
    ~LoopDevice() {
        if (!m_device.empty())
            oracle::runTool({"losetup", "--detach", m_device});
    }
    LoopDevice(const LoopDevice&) = delete;
    LoopDevice& operator=(const LoopDevice&) = delete;
    const std::string& device() const { return m_device; }

private:
    std::string m_device;
};

using kestrow::test::widen;

class BlockDevice : public testing::Test {
protected:
    void TearDown() override {
        std::string error;
        platform::attachDisks({}, error);
    }
};

TEST_F(BlockDevice, FourKilobyteSectorsComeFromTheDevice) {
    LoopDevice loop(kestrow::test::sector4kVolume(), 4096);
    if (loop.device().empty())
        GTEST_SKIP() << "needs: a loop device (root and /dev/loop-control)";
    std::string error;
    ASSERT_TRUE(platform::attachDisks({loop.device()}, error)) << error;
    const auto disks = platform::attachedDisks();
    ASSERT_EQ(disks.size(), 1u);
    EXPECT_EQ(disks[0].bytesPerSector, 4096u);
    EXPECT_EQ(disks[0].size,
              kestrow::test::factsOf(kestrow::test::FixtureImage::Sector4k).imageSize);
    WCHAR label[64] = {};
    ASSERT_TRUE(platform::GetVolumeInformationW(widen("C:\\").c_str(), label, 64, nullptr, nullptr,
                                                nullptr, nullptr, 0));
    EXPECT_EQ(std::string(label, label + 11), "KESTROW_4KN");

    HANDLE volume = platform::CreateFileW(widen("\\\\.\\C:").c_str(), GENERIC_READ, 3, nullptr,
                                          OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(volume, INVALID_HANDLE_VALUE);
    std::vector<std::uint8_t> buffer(4096);
    DWORD got = 0;
    EXPECT_FALSE(platform::ReadFile(volume, buffer.data(), 1024, &got, nullptr));
    EXPECT_EQ(platform::GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(platform::ReadFile(volume, buffer.data(), 4096, &got, nullptr));
    EXPECT_EQ(got, 4096u);
    platform::CloseHandle(volume);
}

TEST_F(BlockDevice, PartitionedDiskOnADeviceFindsItsVolumes) {
    LoopDevice loop(kestrow::test::mbrDisk(), 512);
    if (loop.device().empty())
        GTEST_SKIP() << "needs: a loop device (root and /dev/loop-control)";
    std::string error;
    ASSERT_TRUE(platform::attachDisks({loop.device()}, error)) << error;
    const auto volumes = platform::attachedVolumes();
    ASSERT_EQ(volumes.size(), 2u);
    EXPECT_EQ(volumes[0].offset, kestrow::test::kMbrNtfsStartSector * 512);
    EXPECT_EQ(volumes[1].fileSystem, "FAT32");
    EXPECT_EQ(platform::attachedDisks()[0].partitionTable, "MBR");
}

} // namespace
