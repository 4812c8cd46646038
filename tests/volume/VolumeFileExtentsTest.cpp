// File extents, the cluster bitmap and the used-cluster list, on the fake
// platform.
#include "VolumeTestSupport.h"

#include <cstring>
#include <random>

namespace kestrow::test::volume {
namespace {

using Extent = Volume::FileExtent;

std::vector<std::tuple<unsigned, unsigned long long, unsigned long long>>
asTuples(const orv::Array<Extent>& extents) {
    std::vector<std::tuple<unsigned, unsigned long long, unsigned long long>> tuples;
    for (const Extent& e : extents)
        tuples.emplace_back(e.diskNumber, e.startSector, e.endSector);
    return tuples;
}

std::vector<unsigned long long> asVector(const orv::Array<unsigned long long>& values) {
    return {values.begin(), values.end()};
}

using FileExtents = FakeVolumeTest;

// The lines of a getFileExtents call on `path` that reached the conversion,
// then `tail`.
std::vector<VolumeLine> conversionLines(const std::string& path, std::vector<VolumeLine> tail) {
    std::vector<VolumeLine> lines = {{1, "170 Opening file " + path},
                                     {1, "201 Getting file extent buffers"},
                                     {1, "231 Calculating file extents"},
                                     {1, "104 Getting volume extents"}};
    lines.insert(lines.end(), tail.begin(), tail.end());
    return lines;
}

TEST_F(FileExtents, RunsBecomePhysicalDiskSectors) {
    // Two runs of 10 and 5 clusters at LCNs 100 and 300, on a volume at byte
    // 1 MiB of disk 0, 4096-byte clusters, 512-byte sectors.
    fake.addFile('C', "\\$MFT", {{10, 100}, {15, 300}});
    Volume volume('C');
    orv::Array<Extent> extents;
    log.clear();

    ASSERT_TRUE(volume.getFileExtents(orv::String("C:\\$MFT"), extents));
    EXPECT_EQ(asTuples(extents),
              (std::vector<std::tuple<unsigned, unsigned long long, unsigned long long>>{
                  {0, 2848, 2928},
                  {0, 4448, 4488},
              }));
    EXPECT_EQ(volumeLines(), conversionLines("C:\\$MFT", {}));
}

TEST_F(FileExtents, OpensTheFileOnlyForTheControlRequest) {
    fake.addFile('C', "\\$MFT", {{10, 100}});
    Volume volume('C');
    fake.opens.clear();
    fake.controls.clear();
    orv::Array<Extent> extents;
    ASSERT_TRUE(volume.getFileExtents(orv::String("C:\\$MFT"), extents));

    ASSERT_GE(fake.opens.size(), 1u);
    EXPECT_EQ(fake.opens[0].path, "\\\\.\\C:\\$MFT");
    EXPECT_EQ(fake.opens[0].access, 0u);
    EXPECT_EQ(fake.opens[0].share, static_cast<DWORD>(FILE_SHARE_READ | FILE_SHARE_WRITE));
    EXPECT_EQ(fake.opens[0].disposition, static_cast<DWORD>(OPEN_EXISTING));
    EXPECT_EQ(fake.opens[0].flags, 0x60000000u);

    ASSERT_FALSE(fake.controls.empty());
    EXPECT_EQ(fake.controls[0].code, static_cast<DWORD>(FSCTL_GET_RETRIEVAL_POINTERS));
    EXPECT_EQ(fake.controls[0].inSize, 8u);
    EXPECT_EQ(fake.controls[0].outSize, 16032u);
}

TEST_F(FileExtents, SecondCallUsesTheCachedVolumeExtent) {
    fake.addFile('C', "\\$MFT", {{10, 100}});
    Volume volume('C');
    orv::Array<Extent> extents;
    ASSERT_TRUE(volume.getFileExtents(orv::String("C:\\$MFT"), extents));
    ASSERT_TRUE(volume.getFileExtents(orv::String("C:\\$MFT"), extents));
    EXPECT_EQ(extents.size(), 1u) << "the output is emptied first";
    EXPECT_EQ(fake.deviceIoControlCount(IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS), 1u);
}

TEST_F(FileExtents, ExtentsFollowTheVolumesDiskNumberAndClusterSize) {
    fake.addDisk(2, 1 << 20);
    c.extents = {{2, 0x7E00, VOLUME_LENGTH}};
    c.sectorsPerCluster = 1;
    fake.addFile('C', "\\Dir\\file.bin", {{3, 0}, {4, 7}});
    fake.addDirectory('C', "\\Dir");
    Volume volume('C');
    orv::Array<Extent> extents;
    ASSERT_TRUE(volume.getFileExtents(orv::String("C:\\Dir\\file.bin"), extents));
    EXPECT_EQ(asTuples(extents),
              (std::vector<std::tuple<unsigned, unsigned long long, unsigned long long>>{
                  {2, 0x3F, 0x42},
                  {2, 0x3F + 7, 0x3F + 8},
              }));
}

TEST_F(FileExtents, RunWithoutClustersOnDiskWrapsLikeAnyOther) {
    // LCN -1: (2^64 - 4096 + 1 MiB) mod 2^64 = 1044480 bytes.
    fake.addFile('C', "\\sparse.bin", {{4, -1}});
    Volume volume('C');
    orv::Array<Extent> extents;
    ASSERT_TRUE(volume.getFileExtents(orv::String("C:\\sparse.bin"), extents));
    EXPECT_EQ(asTuples(extents),
              (std::vector<std::tuple<unsigned, unsigned long long, unsigned long long>>{
                  {0, 2040, 2072}}));
}

TEST_F(FileExtents, ArgumentChecksRefuseSilentlyAndEmptyTheOutput) {
    fake.addFile('C', "\\$MFT", {{10, 100}});
    Volume volume('C');
    fake.opens.clear();
    log.clear();

    for (const char* path : {"C:", "C", "", "CC\\$MFT", "C:\\missing.txt"}) {
        orv::Array<Extent> extents;
        extents.append({9, 9, 9});
        EXPECT_FALSE(volume.getFileExtents(orv::String(path), extents)) << path;
        EXPECT_EQ(extents.size(), 0u) << path;
        EXPECT_EQ(extents.capacity(), 8u) << path;
    }
    EXPECT_TRUE(fake.opens.empty());
    EXPECT_TRUE(volumeLines().empty());
}

TEST_F(FileExtents, OnlyAVolumeNamedExactlyNtfsIsAsked) {
    fake.addFatVolume('D');
    fake.addFile('D', "\\file.txt", {{1, 100}});
    c.fileSystem = "ntfs";
    fake.addFile('C', "\\$MFT", {{10, 100}});
    for (char letter : {'C', 'D'}) {
        Volume volume(letter);
        fake.opens.clear();
        log.clear();
        orv::Array<Extent> extents;
        const std::string path = letter == 'C' ? "C:\\$MFT" : "D:\\file.txt";
        EXPECT_FALSE(volume.getFileExtents(orv::String(path.c_str()), extents)) << path;
        EXPECT_EQ(extents.size(), 0u);
        EXPECT_TRUE(fake.opens.empty()) << path;
        EXPECT_TRUE(volumeLines().empty()) << path;
    }
}

TEST_F(FileExtents, PathWithoutBackslashPassesTheChecks) {
    fake.addFile('C', "\\$MFT", {{10, 100}});
    Volume volume('C');
    fake.opens.clear();
    orv::Array<Extent> extents;
    EXPECT_TRUE(volume.getFileExtents(orv::String("C:$MFT"), extents));
    ASSERT_FALSE(fake.opens.empty());
    EXPECT_EQ(fake.opens[0].path, "\\\\.\\C:$MFT");
}

TEST_F(FileExtents, FileThatCannotBeOpenedIsReportedAsAFailure) {
    fake.addFile('C', "\\locked.bin", {{10, 100}});
    fake.failOpen("\\\\.\\C:\\locked.bin", ERROR_ACCESS_DENIED);
    Volume volume('C');
    log.clear();
    orv::Array<Extent> extents;
    EXPECT_FALSE(volume.getFileExtents(orv::String("C:\\locked.bin"), extents));
    EXPECT_EQ(volumeLines(),
              (std::vector<VolumeLine>{
                  {1, "170 Opening file C:\\locked.bin"},
                  {4, "186 Failed to open \\\\.\\C:\\locked.bin (reason: Access is denied.\r\n)"},
              }));
}

TEST_F(FileExtents, FileWithoutClustersLogsTheFailureAndStillConverts) {
    fake.addFile('C', "\\small.txt"); // resident data: no runs
    Volume volume('C');
    log.clear();
    orv::Array<Extent> extents;
    EXPECT_FALSE(volume.getFileExtents(orv::String("C:\\small.txt"), extents));
    EXPECT_EQ(extents.size(), 0u);
    EXPECT_EQ(volumeLines(),
              (std::vector<VolumeLine>{
                  {1, "170 Opening file C:\\small.txt"},
                  {1, "201 Getting file extent buffers"},
                  {4, "225 FSCTL_GET_RETRIEVAL_POINTERS failed: Reached the end of the file.\r\n"
                      ", bytesRet: 0"},
                  {1, "231 Calculating file extents"},
                  {1, "104 Getting volume extents"},
                  {1, "258 No extents were found"},
              }));
}

TEST_F(FileExtents, SuccessfulAnswerWithoutRunsGivesNothingAndNoMessage) {
    fake.addFile('C', "\\$MFT", {{10, 100}});
    Volume volume('C');
    volume.getVolumeExtents();
    fake.hook = [](DWORD code, LPVOID out, DWORD, LPDWORD returned) -> std::optional<BOOL> {
        if (code != FSCTL_GET_RETRIEVAL_POINTERS)
            return std::nullopt;
        std::memset(out, 0, 16);
        *returned = 16;
        return TRUE;
    };
    log.clear();
    orv::Array<Extent> extents;
    EXPECT_FALSE(volume.getFileExtents(orv::String("C:\\$MFT"), extents));
    EXPECT_EQ(log.countStartingWith("258 "), 0u);
    EXPECT_EQ(log.countStartingWith("231 "), 1u);
}

TEST_F(FileExtents, VolumeOnTwoDisksHasNoFileExtents) {
    fake.addDisk(1, 1 << 20);
    c.extents = {{0, VOLUME_OFFSET, VOLUME_LENGTH}, {1, 0, 1 << 20}};
    fake.addFile('C', "\\$MFT", {{10, 100}});
    Volume volume('C');
    log.clear();
    orv::Array<Extent> extents;
    EXPECT_FALSE(volume.getFileExtents(orv::String("C:\\$MFT"), extents));
    EXPECT_EQ(extents.size(), 0u);
    EXPECT_EQ(volumeLines(),
              conversionLines("C:\\$MFT", {{1, "373 Received a set of 0 volume extents"},
                                           {1, "258 No extents were found"}}));
}

TEST_F(FileExtents, VolumeWithoutSectorSizeHasNoFileExtents) {
    c.freeSpaceError = ERROR_ACCESS_DENIED;
    fake.addFile('C', "\\$MFT", {{10, 100}});
    Volume volume('C');
    orv::Array<Extent> extents;
    EXPECT_FALSE(volume.getFileExtents(orv::String("C:\\$MFT"), extents));
    EXPECT_EQ(log.countStartingWith("258 "), 1u);
}

TEST_F(FileExtents, ManyRunsGrowTheAreaFivefoldUntilTheyFit) {
    // 1001 runs fit the first area; 2500 need one growth (room for 5005).
    std::vector<platform::RetrievalRun> runs;
    for (int i = 0; i < 2500; ++i)
        runs.push_back({2 * (i + 1), 10 + 3 * i});
    fake.addFile('C', "\\$MFT", runs);
    Volume volume('C');
    orv::Array<Extent> extents;

    ASSERT_TRUE(volume.getFileExtents(orv::String("C:\\$MFT"), extents));
    EXPECT_EQ(fake.outSizesOf(FSCTL_GET_RETRIEVAL_POINTERS),
              (std::vector<DWORD>{16032, 16032 * 5}));
    ASSERT_EQ(extents.size(), 2500u);
    EXPECT_EQ(extents.capacity(), 4096u);
    for (unsigned i = 0; i < 2500; ++i) {
        const unsigned long long start = (VOLUME_OFFSET + (10 + 3ull * i) * 4096) / 512;
        ASSERT_EQ(extents[i].startSector, start) << i;
        ASSERT_EQ(extents[i].endSector, start + 2 * 8) << i;
    }
    EXPECT_EQ(log.countStartingWith("225 "), 0u);
}

TEST_F(FileExtents, AreaThatNeverSufficesEndsWithNoExtents) {
    // A system that always has more runs than the area holds.
    fake.addFile('C', "\\$MFT", {{10, 100}});
    Volume volume('C');
    fake.hook = [](DWORD code, LPVOID out, DWORD outSize, LPDWORD returned) -> std::optional<BOOL> {
        if (code != FSCTL_GET_RETRIEVAL_POINTERS)
            return std::nullopt;
        const DWORD fit = (outSize - 16) / 16;
        std::memcpy(out, &fit, sizeof fit);
        *returned = 32; // the header and the first run are all it writes here
        platform::SetLastError(ERROR_MORE_DATA);
        return FALSE;
    };
    log.clear();
    orv::Array<Extent> extents;

    EXPECT_FALSE(volume.getFileExtents(orv::String("C:\\$MFT"), extents));
    EXPECT_EQ(extents.size(), 0u);
    // Fivefold each time while the request can still be told the size (a
    // 32-bit count): 16032 x 5^7 is the last that fits, so eight requests
    // are made, within the limit of ten growths.
    std::vector<DWORD> expected;
    for (unsigned long long size = 16032; size <= 0xFFFFFFFFull; size *= 5)
        expected.push_back(static_cast<DWORD>(size));
    EXPECT_EQ(fake.outSizesOf(FSCTL_GET_RETRIEVAL_POINTERS), expected);
    EXPECT_LE(expected.size(), 10u);
    EXPECT_EQ(volumeLines(), conversionLines("C:\\$MFT", {{1, "258 No extents were found"}}));
}

TEST_F(FileExtents, MoreDataWithNothingReturnedIsAFailureNotAGrowth) {
    fake.addFile('C', "\\$MFT", {{10, 100}}).retrievalError = ERROR_MORE_DATA;
    Volume volume('C');
    log.clear();
    orv::Array<Extent> extents;
    EXPECT_FALSE(volume.getFileExtents(orv::String("C:\\$MFT"), extents));
    EXPECT_EQ(fake.outSizesOf(FSCTL_GET_RETRIEVAL_POINTERS), std::vector<DWORD>{16032});
    EXPECT_EQ(log.texts("libKestrow.Volume", 4),
              std::vector<std::string>{
                  "225 FSCTL_GET_RETRIEVAL_POINTERS failed: More data is available.\r\n"
                  ", bytesRet: 0"});
}

TEST_F(FileExtents, CountBeyondTheAreaIsNotReadPastIt) {
    fake.addFile('C', "\\$MFT", {{10, 100}});
    Volume volume('C');
    volume.getVolumeExtents();
    fake.hook = [](DWORD code, LPVOID out, DWORD, LPDWORD returned) -> std::optional<BOOL> {
        if (code != FSCTL_GET_RETRIEVAL_POINTERS)
            return std::nullopt;
        const DWORD claimed = 5000; // more than the 1001 the area holds
        std::memcpy(out, &claimed, sizeof claimed);
        *returned = 16032;
        return TRUE;
    };
    orv::Array<Extent> extents;
    EXPECT_TRUE(volume.getFileExtents(orv::String("C:\\$MFT"), extents));
    EXPECT_EQ(extents.size(), 1001u);
}

// ---- The cluster bitmap ---------------------------------------------------------------

class ClusterBitmap : public FakeVolumeTest {
protected:
    void setBitmap(std::vector<std::uint8_t> bytes, std::uint64_t clusters) {
        c.bitmap = std::move(bytes);
        c.bitmapClusters = clusters;
    }
};

TEST_F(ClusterBitmap, SmallVolumeIsAnsweredByTheFirstRequest) {
    setBitmap({0x0F, 0xF0, 0x01}, 20);
    Volume volume('C');
    orv::Buffer<unsigned char> bitmap;
    ASSERT_TRUE(volume.getVolumeClusterBitmap(bitmap));
    // 20 clusters: three bytes, the bits past the last cluster cleared.
    EXPECT_EQ(std::vector<std::uint8_t>(bitmap.data(), bitmap.data() + bitmap.size()),
              (std::vector<std::uint8_t>{0x0F, 0xF0, 0x01}));
    EXPECT_EQ(fake.outSizesOf(FSCTL_GET_VOLUME_BITMAP), std::vector<DWORD>{24});
}

TEST_F(ClusterBitmap, LargerVolumeIsAskedAgainWithTheExactSize) {
    std::vector<std::uint8_t> bytes(125);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<std::uint8_t>(i * 37 + 1);
    setBitmap(bytes, 1000);
    Volume volume('C');
    orv::Buffer<unsigned char> bitmap;
    ASSERT_TRUE(volume.getVolumeClusterBitmap(bitmap));
    EXPECT_EQ(std::vector<std::uint8_t>(bitmap.data(), bitmap.data() + bitmap.size()), bytes);
    EXPECT_EQ(fake.outSizesOf(FSCTL_GET_VOLUME_BITMAP), (std::vector<DWORD>{24, 125 + 23}));
    EXPECT_TRUE(log.texts("libKestrow.Volume").size() == 3u) << "nothing beyond construction";
}

TEST_F(ClusterBitmap, FailuresLeaveTheBitmapUntouched) {
    setBitmap(std::vector<std::uint8_t>(125, 0xFF), 1000);
    for (DWORD error : {DWORD(ERROR_INVALID_FUNCTION), DWORD(ERROR_INSUFFICIENT_BUFFER)}) {
        c.bitmapError = error;
        Volume volume('C');
        fake.controls.clear();
        unsigned char area[4] = {1, 2, 3, 4};
        orv::Buffer<unsigned char> bitmap(area, sizeof area);
        EXPECT_FALSE(volume.getVolumeClusterBitmap(bitmap));
        EXPECT_EQ(bitmap.data(), area);
        EXPECT_EQ(bitmap.size(), 4u);
        EXPECT_EQ(fake.outSizesOf(FSCTL_GET_VOLUME_BITMAP), std::vector<DWORD>{24})
            << "only more data is retried";
    }

    c.bitmapError = 0;
    Volume volume('C');
    c.openError = ERROR_ACCESS_DENIED;
    orv::Buffer<unsigned char> bitmap;
    EXPECT_FALSE(volume.getVolumeClusterBitmap(bitmap));
    EXPECT_EQ(bitmap.size(), 0u);
}

TEST_F(ClusterBitmap, SecondMoreDataGivesUp) {
    setBitmap(std::vector<std::uint8_t>(125, 0xFF), 1000);
    Volume volume('C');
    fake.hook = [](DWORD code, LPVOID out, DWORD, LPDWORD returned) -> std::optional<BOOL> {
        if (code != FSCTL_GET_VOLUME_BITMAP)
            return std::nullopt;
        const long long clusters = 1000;
        std::memset(out, 0, 16);
        std::memcpy(static_cast<unsigned char*>(out) + 8, &clusters, sizeof clusters);
        *returned = 16;
        platform::SetLastError(ERROR_MORE_DATA);
        return FALSE;
    };
    orv::Buffer<unsigned char> bitmap;
    EXPECT_FALSE(volume.getVolumeClusterBitmap(bitmap));
    EXPECT_EQ(fake.outSizesOf(FSCTL_GET_VOLUME_BITMAP), (std::vector<DWORD>{24, 148}));
}

TEST_F(ClusterBitmap, AbsurdClusterCountsAreRefused) {
    Volume volume('C');
    long long answered = 0;
    fake.hook = [&answered](DWORD code, LPVOID out, DWORD,
                            LPDWORD returned) -> std::optional<BOOL> {
        if (code != FSCTL_GET_VOLUME_BITMAP)
            return std::nullopt;
        std::memset(out, 0, 16);
        std::memcpy(static_cast<unsigned char*>(out) + 8, &answered, sizeof answered);
        *returned = 16;
        platform::SetLastError(ERROR_MORE_DATA);
        return FALSE;
    };
    for (long long clusters : {-8ll, 1ll << 40}) {
        answered = clusters;
        fake.controls.clear();
        orv::Buffer<unsigned char> bitmap;
        EXPECT_FALSE(volume.getVolumeClusterBitmap(bitmap)) << clusters;
        EXPECT_EQ(fake.outSizesOf(FSCTL_GET_VOLUME_BITMAP).size(), 1u) << clusters;
    }

    // A success whose count claims more bits than the answer holds.
    fake.hook = [](DWORD code, LPVOID out, DWORD, LPDWORD returned) -> std::optional<BOOL> {
        if (code != FSCTL_GET_VOLUME_BITMAP)
            return std::nullopt;
        const long long clusters = 4096;
        std::memset(out, 0xFF, 24);
        std::memcpy(static_cast<unsigned char*>(out) + 8, &clusters, sizeof clusters);
        *returned = 24;
        return TRUE;
    };
    orv::Buffer<unsigned char> bitmap;
    EXPECT_FALSE(volume.getVolumeClusterBitmap(bitmap));
    EXPECT_EQ(bitmap.size(), 0u);
}

using UsedClusters = ClusterBitmap;

TEST_F(UsedClusters, SetBitsFromTheLeastSignificantUp) {
    setBitmap({0x05, 0x00, 0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01}, 80);
    Volume volume('C');
    orv::Array<unsigned long long> clusters;
    ASSERT_TRUE(volume.getUsedClusters(clusters));
    EXPECT_EQ(asVector(clusters), (std::vector<unsigned long long>{0, 2, 23, 72}));
}

TEST_F(UsedClusters, AppendsToWhatTheArrayHeld) {
    setBitmap({0x05}, 8);
    Volume volume('C');
    orv::Array<unsigned long long> clusters;
    clusters.append(99);
    ASSERT_TRUE(volume.getUsedClusters(clusters));
    ASSERT_TRUE(volume.getUsedClusters(clusters));
    EXPECT_EQ(asVector(clusters), (std::vector<unsigned long long>{99, 0, 2, 0, 2}));
}

TEST_F(UsedClusters, BitsPastTheLastClusterAreReportedIfSet) {
    // A system that leaves the tail of the last byte set.
    Volume volume('C');
    fake.hook = [](DWORD code, LPVOID out, DWORD, LPDWORD returned) -> std::optional<BOOL> {
        if (code != FSCTL_GET_VOLUME_BITMAP)
            return std::nullopt;
        const long long clusters = 3;
        std::memset(out, 0, 24);
        std::memcpy(static_cast<unsigned char*>(out) + 8, &clusters, sizeof clusters);
        static_cast<unsigned char*>(out)[16] = 0x81;
        *returned = 17;
        return TRUE;
    };
    orv::Array<unsigned long long> clusters;
    ASSERT_TRUE(volume.getUsedClusters(clusters));
    EXPECT_EQ(asVector(clusters), (std::vector<unsigned long long>{0, 7}));
}

TEST_F(UsedClusters, AgreesWithABitByBitReadingOfALargeBitmap) {
    std::mt19937 random(20261122);
    const std::uint64_t clusterCount = 8 * 40000 + 5;
    std::vector<std::uint8_t> bytes((clusterCount + 7) / 8);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        // Runs of empty words, full words and mixed bytes.
        const unsigned kind = (i / 64) % 3;
        bytes[i] = kind == 0 ? 0 : kind == 1 ? 0xFF : static_cast<std::uint8_t>(random());
    }
    bytes.back() &= 0x1F;
    setBitmap(bytes, clusterCount);
    Volume volume('C');

    orv::Array<unsigned long long> clusters;
    ASSERT_TRUE(volume.getUsedClusters(clusters));
    std::vector<unsigned long long> expected;
    for (std::uint64_t k = 0; k < clusterCount; ++k)
        if (bytes[k / 8] & (1u << (k % 8)))
            expected.push_back(k);
    EXPECT_EQ(asVector(clusters), expected);
    EXPECT_EQ(clusters.capacity(), orv::Array<unsigned long long>::grownCapacity(
                                       static_cast<std::uint32_t>(expected.size())));
}

TEST_F(UsedClusters, FailureLeavesTheArrayAlone) {
    c.bitmapError = ERROR_INVALID_FUNCTION;
    Volume volume('C');
    orv::Array<unsigned long long> clusters;
    clusters.append(5);
    EXPECT_FALSE(volume.getUsedClusters(clusters));
    EXPECT_EQ(asVector(clusters), std::vector<unsigned long long>{5});
}

} // namespace
} // namespace kestrow::test::volume
