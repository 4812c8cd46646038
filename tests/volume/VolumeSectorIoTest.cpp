// Raw sector reads and sector dumps, on the fake platform.
#include "VolumeTestSupport.h"

#include <orv/Format.h>

#include <cstring>

namespace kestrow::test::volume {
namespace {

// Disk 0 filled with a byte pattern that differs from sector to sector.
class SectorIo : public FakeVolumeTest {
protected:
    SectorIo() {
        for (std::size_t i = 0; i < disk.bytes.size(); ++i)
            disk.bytes[i] = static_cast<std::uint8_t>((i * 7 + i / 512) & 0xFF);
    }

    std::vector<std::uint8_t> diskBytes(std::uint64_t offset, std::size_t count) const {
        return {disk.bytes.begin() + static_cast<std::ptrdiff_t>(offset),
                disk.bytes.begin() + static_cast<std::ptrdiff_t>(offset + count)};
    }

    static std::vector<std::uint8_t> contents(const orv::Buffer<unsigned char>& buffer) {
        return {buffer.data(), buffer.data() + buffer.size()};
    }

    // Volume C:'s readBytesFromSector on disk 0 into a zeroed buffer of
    // `bufferSize` bytes, with the log and the fake's calls cleared first;
    // `lastError` keeps the error the read left.
    bool readDrive(std::uint64_t sector, std::uint32_t count, std::size_t bufferSize) {
        Volume volume('C');
        VolumeHandle drive = openDevice("\\\\.\\PhysicalDrive0");
        buffer.resize(bufferSize, true);
        log.clear();
        fake.clearLog();
        const bool read = volume.readBytesFromSector(drive, sector, count, buffer);
        lastError = platform::GetLastError(); // before the handles close
        return read;
    }

    static std::string dumpText(const std::vector<std::uint8_t>& bytes) {
        return utf8(orv::HexDumpFormat(bytes.data(), static_cast<unsigned int>(bytes.size()), 3, 0)
                        .toString());
    }

    orv::Buffer<unsigned char> buffer;
    DWORD lastError = 0;
};

// ---- readBytesFromSector -------------------------------------------------------------

using ReadBytesFromSector = SectorIo;

TEST_F(ReadBytesFromSector, ReadsAtTheVolumesSectorSize) {
    ASSERT_TRUE(readDrive(0x800, 1024, 1024));
    EXPECT_EQ(contents(buffer), diskBytes(0x800 * 512, 1024));
    EXPECT_EQ(buffer.size(), 1024u) << "the buffer is not resized";
    EXPECT_TRUE(volumeLines().empty());
}

TEST_F(ReadBytesFromSector, ZeroBytesSucceedsAndLeavesTheBufferAsItWas) {
    Volume volume('C');
    VolumeHandle drive = openDevice("\\\\.\\PhysicalDrive0");
    orv::Buffer<unsigned char> buffer;
    buffer.resize(16, false);
    std::memset(buffer.data(), 0xAB, 16);
    unsigned char* const data = buffer.data();

    EXPECT_TRUE(volume.readBytesFromSector(drive, 1, 0, buffer));
    EXPECT_EQ(buffer.data(), data);
    EXPECT_EQ(contents(buffer), std::vector<std::uint8_t>(16, 0xAB));
}

TEST_F(ReadBytesFromSector, InvalidHandleIsRefusedWithAMessage) {
    Volume volume('C');
    VolumeHandle none;
    orv::Buffer<unsigned char> buffer;
    buffer.resize(512, true);
    log.clear();
    fake.clearLog();

    EXPECT_FALSE(volume.readBytesFromSector(none, 0, 512, buffer));
    EXPECT_EQ(volumeLines(), (std::vector<VolumeLine>{{1, "412 Handle is invalid"}}));
    EXPECT_EQ(fake.readCount(), 0u);
}

TEST_F(ReadBytesFromSector, FailedSeekNamesTheOffsetAndTheReason) {
    fake.failSeekAtOrAfter(0x100000, ERROR_INVALID_PARAMETER);
    EXPECT_FALSE(readDrive(0x800, 512, 512));
    EXPECT_EQ(volumeLines(), (std::vector<VolumeLine>{
                                 {1, "423 Failed to set file pointer at offset 1048576"},
                                 {1, "425 The parameter is incorrect.\r\n"},
                             }));
    EXPECT_EQ(fake.readCount(), 0u);
}

TEST_F(ReadBytesFromSector, HugeOffsetIsShownSigned) {
    // (2^55 - 1) x 512 = 2^64 - 512: the 64-bit offset reads as -512.
    EXPECT_FALSE(readDrive((1ull << 55) - 1, 512, 512));
    ASSERT_EQ(volumeLines().size(), 2u);
    EXPECT_EQ(volumeLines()[0].text, "423 Failed to set file pointer at offset -512");
    EXPECT_EQ(volumeLines()[1].text.substr(0, 4), "425 ");
}

TEST_F(ReadBytesFromSector, FailedReadNamesTheReason) {
    fake.failReadAtSector(0, 0x801, ERROR_CRC);
    EXPECT_FALSE(readDrive(0x800, 1024, 1024));
    EXPECT_EQ(volumeLines(),
              (std::vector<VolumeLine>{
                  {1, "437 Failed to read file: Data error (cyclic redundancy check).\r\n"}}));
}

TEST_F(ReadBytesFromSector, CountBeyondTheBufferIsRefusedWithoutReading) {
    EXPECT_FALSE(readDrive(0, 1024, 512));
    EXPECT_EQ(fake.readCount(), 0u);
    EXPECT_EQ(lastError, static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
}

TEST_F(ReadBytesFromSector, ReadsThroughTheVolumeDevice) {
    Volume volume('C');
    VolumeHandle device = openDevice("\\\\?\\C:");
    orv::Buffer<unsigned char> buffer;
    buffer.resize(512, true);
    ASSERT_TRUE(volume.readBytesFromSector(device, 2, 512, buffer));
    EXPECT_EQ(contents(buffer), diskBytes(VOLUME_OFFSET + 2 * 512, 512));
}

// ---- readFileBySector ------------------------------------------------------------------

using ReadFileBySector = SectorIo;

TEST_F(ReadFileBySector, ProbesEverySectorWithAClusterSizedRead) {
    Volume volume('C');
    VolumeHandle drive = openDevice("\\\\.\\PhysicalDrive0");
    orv::String errorText("untouched");
    fake.clearLog();
    log.clear();

    EXPECT_TRUE(Volume::readFileBySector(volume, drive, {0, 0x800, 0x804}, errorText));
    EXPECT_EQ(utf8(errorText), "untouched");
    // One sector apart, each a whole cluster long: the reads overlap.
    EXPECT_EQ(fake.reads(), (std::vector<std::pair<std::uint64_t, std::uint32_t>>{
                                {0x800 * 512, 4096},
                                {0x801 * 512, 4096},
                                {0x802 * 512, 4096},
                                {0x803 * 512, 4096},
                            }));
    EXPECT_TRUE(volumeLines().empty());
}

TEST_F(ReadFileBySector, EmptyExtentSucceedsWithoutTouchingTheHandle) {
    Volume volume('C');
    VolumeHandle none;
    orv::String errorText("untouched");
    fake.clearLog();
    EXPECT_TRUE(Volume::readFileBySector(volume, none, {0, 0x800, 0x800}, errorText));
    EXPECT_EQ(utf8(errorText), "untouched");
    EXPECT_TRUE(fake.calls().empty());
}

TEST_F(ReadFileBySector, FailedSeekAtTheThirdSectorNamesItsLba) {
    Volume volume('C');
    VolumeHandle drive = openDevice("\\\\.\\PhysicalDrive0");
    fake.failSeekAtOrAfter(0x802 * 512);
    orv::String errorText("previous text");
    log.clear();

    EXPECT_FALSE(Volume::readFileBySector(volume, drive, {0, 0x800, 0x810}, errorText));
    EXPECT_EQ(utf8(errorText), "Failed to read sectors at LBA 000000000802h");
    EXPECT_EQ(fake.reads().size(), 2u);
    EXPECT_TRUE(volumeLines().empty()) << "nothing is logged";
}

TEST_F(ReadFileBySector, FailedReadAtTheThirdSectorNamesItsLba) {
    // One sector per cluster, so that each read covers only its own sector.
    c.sectorsPerCluster = 1;
    Volume volume('C');
    VolumeHandle drive = openDevice("\\\\.\\PhysicalDrive0");
    fake.failReadAtSector(0, 0x802);
    orv::String errorText;

    EXPECT_FALSE(Volume::readFileBySector(volume, drive, {0, 0x800, 0x810}, errorText));
    EXPECT_EQ(utf8(errorText), "Failed to read sectors at LBA 000000000802h");
    EXPECT_EQ(fake.reads().size(), 3u);
}

TEST_F(ReadFileBySector, InvalidHandleFailsAtTheFirstSector) {
    Volume volume('C');
    VolumeHandle none;
    orv::String errorText;
    EXPECT_FALSE(
        Volume::readFileBySector(volume, none, {0, 0x123456789A, 0x123456789C}, errorText));
    EXPECT_EQ(utf8(errorText), "Failed to read sectors at LBA 00123456789Ah");
}

TEST_F(ReadFileBySector, ExtentEndingBeforeItStartsFailsWithoutWalkingTheDrive) {
    Volume volume('C');
    VolumeHandle drive = openDevice("\\\\.\\PhysicalDrive0");
    orv::String errorText;
    fake.clearLog();
    EXPECT_FALSE(Volume::readFileBySector(volume, drive, {0, 0x900, 0x800}, errorText));
    EXPECT_EQ(utf8(errorText), "Failed to read sectors at LBA 000000000900h");
    EXPECT_EQ(fake.readCount(), 0u);
}

// ---- dumpSectors -----------------------------------------------------------------------

using DumpSectors = SectorIo;

TEST_F(DumpSectors, HeaderLineThenTheHexDump) {
    VolumeHandle drive = openDevice("\\\\.\\PhysicalDrive0");
    orv::String text("old");
    log.clear();
    ASSERT_TRUE(Volume::dumpSectors(drive, 0x800, 2, 512, text));
    EXPECT_EQ(utf8(text),
              "   Sector: 800h, ByteOff: 100000h:\n" + dumpText(diskBytes(0x800 * 512, 1024)));
    EXPECT_TRUE(volumeLines().empty());
}

TEST_F(DumpSectors, UsesTheSectorSizeItIsGiven) {
    fake.addDisk(1, 1 << 20, 4096);
    fake.disk(1).bytes[3 * 4096] = 0x5A;
    VolumeHandle drive = openDevice("\\\\.\\PhysicalDrive1");
    orv::String text;
    ASSERT_TRUE(Volume::dumpSectors(drive, 3, 1, 4096, text));
    const std::string dump = utf8(text);
    EXPECT_TRUE(dump.starts_with("   Sector: 3h, ByteOff: 3000h:\n00000000  5A 00")) << dump;
    EXPECT_EQ(fake.reads(),
              (std::vector<std::pair<std::uint64_t, std::uint32_t>>{{3 * 4096, 4096}}));
}

TEST_F(DumpSectors, NoSectorsGivesTheHeaderOfAnEmptyBlock) {
    VolumeHandle drive = openDevice("\\\\.\\PhysicalDrive0");
    orv::String text("old");
    fake.clearLog();
    ASSERT_TRUE(Volume::dumpSectors(drive, 0x10, 0, 512, text));
    EXPECT_EQ(utf8(text), "   Sector: 10h, ByteOff: 2000h:\n" + dumpText({}));
    EXPECT_EQ(fake.callCount("SetFilePointerEx"), 1u);
    EXPECT_EQ(fake.reads(), (std::vector<std::pair<std::uint64_t, std::uint32_t>>{{0x2000, 0}}));
}

TEST_F(DumpSectors, FailuresLeaveTheTextAlone) {
    VolumeHandle none;
    orv::String text("old");
    EXPECT_FALSE(Volume::dumpSectors(none, 0, 1, 512, text));
    EXPECT_EQ(utf8(text), "old");

    VolumeHandle drive = openDevice("\\\\.\\PhysicalDrive0");
    fake.failReadAtSector(0, 5);
    EXPECT_FALSE(Volume::dumpSectors(drive, 5, 1, 512, text));
    EXPECT_EQ(utf8(text), "old");

    fake.failSeekAtOrAfter(1 << 20);
    EXPECT_FALSE(Volume::dumpSectors(drive, 0x800, 1, 512, text));
    EXPECT_EQ(utf8(text), "old");
    EXPECT_EQ(log.lines().size(), 0u) << "dumpSectors logs nothing";
}

} // namespace
} // namespace kestrow::test::volume
