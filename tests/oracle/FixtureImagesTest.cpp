// The fixture images hold what Fixtures.h promises, as independent tools
// (The Sleuth Kit, NTFS-3G's tools, sfdisk) see it. If one of these fails,
// tests of the library that rely on the same promise cannot be trusted.
#include "support/Fixtures.h"
#include "support/Oracle.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <set>
#include <stdexcept>

namespace kestrow::test {
namespace {

using namespace oracle;

std::uint64_t sectorOffsetOf(const ImageFacts& facts) {
    return facts.volumeOffset / 512;
}

const FlsEntry* findEntry(const std::vector<FlsEntry>& entries, std::string_view path) {
    for (const auto& entry : entries)
        if (entry.path == path)
            return &entry;
    return nullptr;
}

std::string asString(const std::vector<std::uint8_t>& bytes) {
    return {bytes.begin(), bytes.end()};
}

// ---- Every image -------------------------------------------------------------------

class EveryImage : public ::testing::TestWithParam<ImageFacts> {};
class ImageWithSmallTree : public ::testing::TestWithParam<ImageFacts> {};
class ImageWithIndexedDir : public ::testing::TestWithParam<ImageFacts> {};

template <typename Predicate> std::vector<ImageFacts> imagesWhere(Predicate predicate) {
    std::vector<ImageFacts> chosen;
    for (const auto& facts : allImages())
        if (predicate(facts))
            chosen.push_back(facts);
    return chosen;
}

TEST_P(EveryImage, HasTheDocumentedSizeAndGeometry) {
    const auto& facts = GetParam();
    const auto image = imagePath(facts.image);
    ASSERT_TRUE(std::filesystem::is_regular_file(image)) << image;
    EXPECT_EQ(std::filesystem::file_size(image), facts.imageSize);

    const auto stats = fileSystemStats(image, sectorOffsetOf(facts));
    EXPECT_EQ(stats.fileSystemType, "NTFS");
    EXPECT_EQ(stats.label, facts.label);
    EXPECT_EQ(stats.sectorSize, facts.bytesPerSector);
    EXPECT_EQ(stats.clusterSize, facts.bytesPerCluster);
    EXPECT_EQ(stats.mftEntrySize, facts.bytesPerFileRecord);
    EXPECT_EQ(stats.indexRecordSize, facts.bytesPerIndexBlock);
    EXPECT_EQ(stats.rootDirectory, 5u);
    // mkntfs keeps the volume's last sector for the backup boot sector.
    EXPECT_EQ(stats.totalSectors, facts.volumeSize / facts.bytesPerSector - 1);
    EXPECT_EQ(stats.totalClusters, stats.totalSectors * stats.sectorSize / stats.clusterSize);
}

TEST_P(EveryImage, BitmapAndBlklsAgreeOnAllocatedClusters) {
    const auto& facts = GetParam();
    const auto image = imagePath(facts.image);
    const auto used = allocatedClusters(image, sectorOffsetOf(facts));
    std::vector<std::uint64_t> fromBitmap;
    for (std::uint64_t cluster = 0; cluster < used.size(); ++cluster)
        if (used[cluster])
            fromBitmap.push_back(cluster);
    EXPECT_EQ(fromBitmap, allocatedClusterList(image, sectorOffsetOf(facts)));
}

TEST_P(EveryImage, PassesTheClusterAccountingCheck) {
    const auto& facts = GetParam();
    const auto image = imagePath(facts.image);
    if (facts.isWholeDisk)
        EXPECT_EQ(volumeInconsistencies(image, facts.volumeOffset, facts.volumeSize), "");
    else
        EXPECT_EQ(volumeInconsistencies(image), "");
}

TEST(VolumeInconsistencies, ReportsAClusterMissingFromTheBitmap) {
    ScratchImage copy(richVolume());
    const auto inode = *findInode(copy.path(), rich::kLargePath);
    const auto record = inspectRecord(copy.path(), inode);
    const auto cluster = record.find(kData)->clusters.at(0);
    const auto bitmap = inspectRecord(copy.path(), 6);
    const auto bitmapCluster = bitmap.find(kData)->clusters.at(0);
    const auto byteOffset = bitmapCluster * 4096 + cluster / 8;
    auto byte = copy.read(byteOffset, 1);
    byte[0] = static_cast<std::uint8_t>(byte[0] & ~(1u << (cluster % 8)));
    copy.patch(byteOffset, byte);
    EXPECT_NE(volumeInconsistencies(copy.path()).find("missing cluster"), std::string::npos);
}

TEST_P(ImageWithSmallTree, HasItsPathsAndContent) {
    const auto& facts = GetParam();
    const auto image = imagePath(facts.image);
    const auto offset = sectorOffsetOf(facts);
    const auto entries = listFiles(image, offset, FlsSelection::AllocatedOnly);
    for (auto path : {kReadmePath, kReportPath, kDeepTextPath, kEmptyPath})
        EXPECT_NE(findEntry(entries, path), nullptr) << path;
    for (auto path : {kDocsDir, kSubDir}) {
        const auto* dir = findEntry(entries, path);
        ASSERT_NE(dir, nullptr) << path;
        EXPECT_TRUE(dir->isDirectory());
    }
    EXPECT_EQ(readContent(image, findEntry(entries, kReadmePath)->inode, offset), kReadmeText);
    EXPECT_EQ(readContent(image, findEntry(entries, kDeepTextPath)->inode, offset), kDeepText);
    EXPECT_EQ(readContent(image, findEntry(entries, kEmptyPath)->inode, offset), "");
    EXPECT_EQ(readContent(image, findEntry(entries, kReportPath)->inode, offset),
              asString(patternBytes(kReportSeed, 0, kReportSize)));

    const auto report = inspectRecord(image, findEntry(entries, kReportPath)->inode, offset);
    const auto* data = report.find(kData);
    ASSERT_NE(data, nullptr);
    EXPECT_FALSE(data->resident);
    EXPECT_EQ(data->size, kReportSize);
    const auto readme = inspectRecord(image, findEntry(entries, kReadmePath)->inode, offset);
    ASSERT_NE(readme.find(kData), nullptr);
    EXPECT_TRUE(readme.find(kData)->resident);
}

TEST_P(ImageWithIndexedDir, DirectoryNeedsSeveralIndexBlocks) {
    const auto& facts = GetParam();
    const auto image = imagePath(facts.image);
    const std::uint64_t offset = facts.volumeOffset / 512;
    const auto inode = findInode(image, kIndexedDir, offset);
    ASSERT_TRUE(inode.has_value());
    const auto record = inspectRecord(image, *inode, offset);
    const auto* allocation = record.find(kIndexAllocation, "$I30");
    ASSERT_NE(allocation, nullptr);
    const auto stats = fileSystemStats(image, offset);
    EXPECT_GE(allocation->size, 4u * stats.indexRecordSize);

    const auto entries = listFiles(image, offset, FlsSelection::AllocatedOnly);
    const auto prefix = std::string(kIndexedDir) + "/";
    const auto children = std::count_if(entries.begin(), entries.end(), [&](const FlsEntry& e) {
        return e.path.starts_with(prefix);
    });
    EXPECT_EQ(children, kIndexedDirEntries);
    EXPECT_NE(findEntry(entries, prefix + indexedEntryName(kIndexedDirEntries - 1)), nullptr);
}

INSTANTIATE_TEST_SUITE_P(Fixtures, EveryImage, ::testing::ValuesIn(allImages()), ImageTestName());
INSTANTIATE_TEST_SUITE_P(Fixtures, ImageWithSmallTree,
                         ::testing::ValuesIn(imagesWhere([](const ImageFacts& facts) {
                             return facts.hasSmallTree;
                         })),
                         ImageTestName());
INSTANTIATE_TEST_SUITE_P(Fixtures, ImageWithIndexedDir,
                         ::testing::ValuesIn(imagesWhere([](const ImageFacts& facts) {
                             return facts.hasIndexedDir;
                         })),
                         ImageTestName());

// ---- Whole disks ---------------------------------------------------------------------

TEST(MbrDisk, HasNtfsAtOneMibAndFat32AfterIt) {
    const auto dump = dumpPartitionTable(mbrDisk());
    EXPECT_EQ(dump.label, "dos");
    EXPECT_EQ(dump.labelId, "0x4b455354");
    ASSERT_EQ(dump.partitions.size(), 2u);
    EXPECT_EQ(dump.partitions[0].start, kMbrNtfsStartSector);
    EXPECT_EQ(dump.partitions[0].size, kMbrNtfsSectors);
    EXPECT_EQ(dump.partitions[0].type, "7");
    EXPECT_EQ(dump.partitions[1].start, kMbrFatStartSector);
    EXPECT_EQ(dump.partitions[1].type, "c");
    EXPECT_EQ(factsOf(FixtureImage::MbrDisk).volumeOffset, 1024u * 1024u);

    const auto table = listPartitions(mbrDisk());
    EXPECT_EQ(table.tableType, "DOS Partition Table");
    const auto partitions = table.partitions();
    ASSERT_EQ(partitions.size(), 2u);
    EXPECT_EQ(partitions[0].start, kMbrNtfsStartSector);
    EXPECT_EQ(partitions[1].start, kMbrFatStartSector);

    const auto fat = fileSystemStats(mbrDisk(), kMbrFatStartSector);
    EXPECT_EQ(fat.fileSystemType, "FAT32");
}

TEST(GptDisk, HasTheNtfsPartitionAtTwoMib) {
    const auto dump = dumpPartitionTable(gptDisk());
    EXPECT_EQ(dump.label, "gpt");
    ASSERT_EQ(dump.partitions.size(), 2u);
    EXPECT_EQ(dump.partitions[0].start, kGptSpacerStartSector);
    EXPECT_EQ(dump.partitions[0].size, kGptSpacerSectors);
    EXPECT_EQ(dump.partitions[1].start, kGptNtfsStartSector);
    EXPECT_EQ(dump.partitions[1].size, kGptNtfsSectors);
    EXPECT_EQ(dump.partitions[1].type, "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7");
    EXPECT_EQ(dump.partitions[1].name, "Kestrow NTFS");

    const auto partitions = listPartitions(gptDisk()).partitions();
    ASSERT_EQ(partitions.size(), 2u);
    EXPECT_EQ(partitions[1].start, kGptNtfsStartSector);
    EXPECT_EQ(partitions[1].length, kGptNtfsSectors);
}

// ---- The rich volume -------------------------------------------------------------------

class RichVolume : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        s_all = listFiles(richVolume());
        s_allocated = listFiles(richVolume(), 0, FlsSelection::AllocatedOnly);
        s_deleted = listFiles(richVolume(), 0, FlsSelection::DeletedOnly);
    }

    static std::uint64_t inodeOf(std::string_view path) {
        const auto* entry = findEntry(s_allocated, path);
        if (!entry)
            throw std::runtime_error("rich.img lacks " + std::string(path));
        return entry->inode;
    }

    static inline std::vector<FlsEntry> s_all, s_allocated, s_deleted;
};

TEST_F(RichVolume, MftDataHasSeveralRunsThatNtfsinfoAgreesWith) {
    const auto istat = inspectRecord(richVolume(), 0);
    const auto* data = istat.find(kData);
    ASSERT_NE(data, nullptr);
    EXPECT_GE(data->runs().size(), 3u);
    // Several runs, and not in ascending cluster order.
    const auto runs = data->runs();
    EXPECT_FALSE(std::is_sorted(runs.begin(), runs.end(), [](const auto& a, const auto& b) {
        return a.firstCluster < b.firstCluster;
    }));

    // Both tools name the same cluster for every cluster within the data size.
    const auto info = recordInfo(richVolume(), 0);
    const auto mftRuns = std::find_if(info.runLists.begin(), info.runLists.end(),
                                      [](const auto& list) { return list.first == "$DATA"; });
    ASSERT_NE(mftRuns, info.runLists.end());
    std::vector<std::uint64_t> fromNtfsinfo;
    for (const auto& run : mftRuns->second) {
        ASSERT_TRUE(run.lcn.has_value());
        for (std::uint64_t i = 0; i < run.length; ++i)
            fromNtfsinfo.push_back(*run.lcn + i);
    }
    const std::size_t inUse = (data->size + 4095) / 4096;
    ASSERT_GE(fromNtfsinfo.size(), inUse);
    ASSERT_GE(data->clusters.size(), inUse);
    fromNtfsinfo.resize(inUse);
    const std::vector<std::uint64_t> fromIstat(data->clusters.begin(),
                                               data->clusters.begin() + inUse);
    EXPECT_EQ(fromIstat, fromNtfsinfo);
}

TEST_F(RichVolume, BigDirectoryHasManyIndexBlocksAndAllItsEntries) {
    const auto record = inspectRecord(richVolume(), inodeOf(rich::kBigDir));
    const auto* allocation = record.find(kIndexAllocation, "$I30");
    ASSERT_NE(allocation, nullptr);
    EXPECT_GE(allocation->size, 20u * 4096u);
    const auto prefix = std::string(rich::kBigDir) + "/";
    const auto children =
        std::count_if(s_allocated.begin(), s_allocated.end(),
                      [&](const FlsEntry& e) { return e.path.starts_with(prefix); });
    EXPECT_EQ(children, rich::kBigDirEntries);
}

TEST_F(RichVolume, HardLinkedFileOverflowsIntoAnAttributeList) {
    const auto inode = inodeOf(rich::kHardLinkTarget);
    const auto record = inspectRecord(richVolume(), inode);
    EXPECT_TRUE(record.has(kAttributeList));
    EXPECT_EQ(record.links, static_cast<std::uint32_t>(rich::kHardLinkCount));
    for (int i = 1; i < rich::kHardLinkCount; ++i) {
        const auto* entry = findEntry(s_allocated, rich::hardLinkName(i));
        ASSERT_NE(entry, nullptr) << rich::hardLinkName(i);
        EXPECT_EQ(entry->inode, inode);
    }
    EXPECT_EQ(readContent(richVolume(), inode), rich::kHardLinkText);
}

TEST_F(RichVolume, NamedStreamsOverflowIntoAnAttributeList) {
    const auto inode = inodeOf(rich::kStreamsPath);
    EXPECT_TRUE(inspectRecord(richVolume(), inode).has(kAttributeList));
    EXPECT_EQ(readContent(richVolume(), inode), rich::kStreamsText);
    for (int i = 0; i < rich::kStreamCount; ++i) {
        const auto path = std::string(rich::kStreamsPath) + ":" + rich::streamName(i);
        const auto* entry = findEntry(s_allocated, path);
        ASSERT_NE(entry, nullptr) << path;
        // icat is slow on records with an attribute list: read a few streams.
        if (i != 0 && i != rich::kStreamCount / 2 && i != rich::kStreamCount - 1)
            continue;
        const auto spec =
            std::to_string(entry->inode) + "-128-" + std::to_string(entry->attributeId.value_or(0));
        EXPECT_EQ(readContent(richVolume(), spec), rich::streamContent(i)) << path;
    }
}

TEST_F(RichVolume, DataOfOneFileLivesOnlyInAnExtensionRecord) {
    const auto inode = inodeOf(rich::kDataElsewherePath);
    const auto record = inspectRecord(richVolume(), inode);
    const auto* list = record.find(kAttributeList);
    ASSERT_NE(list, nullptr);
    EXPECT_TRUE(list->resident);

    const auto info = recordInfo(richVolume(), inode);
    const auto data =
        std::find_if(info.attributes.begin(), info.attributes.end(),
                     [](const NtfsinfoAttribute& a) { return a.typeName == "$DATA"; });
    ASSERT_NE(data, info.attributes.end());
    EXPECT_NE(data->record, inode);
    for (const auto& attribute : info.attributes) {
        if (attribute.typeName != "$DATA") {
            EXPECT_EQ(attribute.record, inode) << attribute.typeName;
        }
    }
    EXPECT_EQ(inspectRecord(richVolume(), data->record).baseRecord, inode);

    EXPECT_EQ(readContent(richVolume(), inode),
              asString(patternBytes(rich::kDataElsewhereSeed, 0, rich::kDataElsewhereSize)));
}

TEST_F(RichVolume, LongNamesCarryTheirShortNames) {
    for (const auto& named : rich::kShortNamedFiles) {
        const auto info = recordInfo(richVolume(), inodeOf(named.path));
        const auto longName = named.path.substr(named.path.rfind('/') + 1);
        std::set<std::pair<std::string, std::string>> names;
        for (const auto& name : info.fileNames)
            names.emplace(name.name, name.nameSpace);
        const std::set<std::pair<std::string, std::string>> expected = {
            {std::string(longName), "Win32"}, {std::string(named.shortName), "DOS"}};
        EXPECT_EQ(names, expected) << named.path;
    }
    const auto shortListing = listDirectory(richVolume(), rich::kNamesDir, true);
    for (const auto& named : rich::kShortNamedFiles)
        EXPECT_NE(std::find(shortListing.begin(), shortListing.end(), named.shortName),
                  shortListing.end())
            << named.shortName << " not in " << ::testing::PrintToString(shortListing);
    const auto plain = recordInfo(richVolume(), inodeOf(rich::kPlain83Path));
    ASSERT_EQ(plain.fileNames.size(), 1u);
    EXPECT_EQ(plain.fileNames[0].name, "PLAIN.TXT");
}

TEST_F(RichVolume, NonAsciiNamesAreListedExactly) {
    for (auto path : rich::kUnicodePaths)
        EXPECT_NE(findEntry(s_allocated, path), nullptr) << path;
    // The emoji is stored as a surrogate pair: two UTF-16 units.
    const auto emoji = utf8ToUtf16(rich::kUnicodePaths[4]);
    EXPECT_NE(emoji.find(u'\xD83D'), std::u16string::npos);
}

TEST_F(RichVolume, FragmentedFilesHaveManyRunsAndTheirContent) {
    for (auto [path, seed] : {std::pair{rich::kFragmentedA, rich::kFragmentedSeedA},
                              std::pair{rich::kFragmentedB, rich::kFragmentedSeedB}}) {
        const auto inode = inodeOf(path);
        const auto istat = inspectRecord(richVolume(), inode);
        const auto* data = istat.find(kData);
        ASSERT_NE(data, nullptr) << path;
        EXPECT_GE(data->runs().size(), 10u) << path;
        EXPECT_EQ(data->size, rich::kFragmentedSize);
        EXPECT_EQ(readContent(richVolume(), inode),
                  asString(patternBytes(seed, 0, rich::kFragmentedSize)))
            << path;
    }
}

TEST_F(RichVolume, SparseFileHasAHoleBetweenItsChunks) {
    const auto inode = inodeOf(rich::kSparsePath);
    const auto istat = inspectRecord(richVolume(), inode);
    const auto* data = istat.find(kData);
    ASSERT_NE(data, nullptr);
    EXPECT_TRUE(data->sparse);
    EXPECT_EQ(data->size, rich::kSparseSize);
    const auto runs = data->runs();
    ASSERT_EQ(runs.size(), 3u);
    EXPECT_FALSE(runs[0].sparse);
    EXPECT_TRUE(runs[1].sparse);
    EXPECT_FALSE(runs[2].sparse);

    const auto content = readContent(richVolume(), inode);
    ASSERT_EQ(content.size(), rich::kSparseSize);
    EXPECT_EQ(content.substr(0, rich::kSparseChunk),
              asString(patternBytes(rich::kSparseSeed, 0, rich::kSparseChunk)));
    EXPECT_EQ(
        content.substr(rich::kSparseSecondOffset),
        asString(patternBytes(rich::kSparseSeed, rich::kSparseSecondOffset, rich::kSparseChunk)));
    const auto hole =
        content.substr(rich::kSparseChunk, rich::kSparseSecondOffset - rich::kSparseChunk);
    EXPECT_TRUE(std::all_of(hole.begin(), hole.end(), [](char c) { return c == 0; }));
}

TEST_F(RichVolume, DeletedItemsAreListedOnlyAsDeleted) {
    for (auto path :
         {rich::kDeletedFile, rich::kDeletedDir, rich::kDeletedDirChild, rich::kDeletedRootFile}) {
        const auto* deleted = findEntry(s_deleted, path);
        ASSERT_NE(deleted, nullptr) << path;
        EXPECT_TRUE(deleted->deleted);
        EXPECT_EQ(findEntry(s_allocated, path), nullptr) << path;
        EXPECT_FALSE(inspectRecord(richVolume(), deleted->inode).allocated) << path;
    }
    EXPECT_TRUE(findEntry(s_deleted, rich::kDeletedDir)->isDirectory());
    EXPECT_NE(findEntry(s_allocated, rich::kTrashDir), nullptr);
    // Every name fls lists without a selection is either allocated or deleted.
    EXPECT_EQ(s_all.size(), s_allocated.size() + s_deleted.size());
}

// ---- Scratch copies -------------------------------------------------------------------

TEST(ScratchImage, IsAPrivateCopyThatCanBePatched) {
    const auto original = bareVolume();
    const auto before = readFileBytes(original, 0, 512);
    std::filesystem::path copyPath;
    {
        ScratchImage copy(original);
        copyPath = copy.path();
        EXPECT_NE(copyPath, original);
        EXPECT_EQ(copy.size(), std::filesystem::file_size(original));
        EXPECT_EQ(copy.read(0, 512), before);
        // The boot sector's OEM name, then a field far into the image.
        const std::uint8_t oem[] = {'H', 'O', 'S', 'T', 'I', 'L', 'E', '!'};
        copy.patch(3, oem);
        copy.patchLe32(copy.size() - 4, 0xDEADBEEF);
        EXPECT_EQ(asString(copy.read(3, 8)), "HOSTILE!");
        const auto tail = copy.read(copy.size() - 4, 4);
        EXPECT_EQ(tail, (std::vector<std::uint8_t>{0xEF, 0xBE, 0xAD, 0xDE}));
        EXPECT_THROW(copy.patchLe16(copy.size() - 1, 1), std::runtime_error);
        EXPECT_THROW(copy.patch(copy.size() + 1, {}), std::runtime_error);
        EXPECT_EQ(copy.size(), std::filesystem::file_size(original));
    }
    EXPECT_FALSE(std::filesystem::exists(copyPath));
    EXPECT_EQ(readFileBytes(original, 0, 512), before);
}

TEST(MftRecordOffset, FindsRecordsInEveryRunOfTheMft) {
    const auto image = richVolume();
    // The root directory, in the first run, and the last records, which lie
    // in a later run of the fragmented $MFT.
    const auto root = readFileBytes(image, mftRecordOffset(image, 5), 4);
    EXPECT_EQ(asString(root), "FILE");
    const auto mft = inspectRecord(image, 0);
    auto runs = mft.find(kData)->runs();
    while (!runs.empty() && runs.back().sparse)
        runs.pop_back(); // allocated past the data size
    ASSERT_GE(runs.size(), 2u);
    const auto lastRecord = mft.find(kData)->size / 1024 - 1;
    const auto offset = mftRecordOffset(image, lastRecord);
    const auto& lastRun = runs.back();
    EXPECT_GE(offset, lastRun.firstCluster * 4096);
    EXPECT_LT(offset, (lastRun.firstCluster + lastRun.count) * 4096);
    EXPECT_THROW(mftRecordOffset(image, lastRecord + 1000), OracleError);
}

TEST(MftRecordOffset, CountsThePartitionOffsetAndRecordsSpanningClusters) {
    const auto offset = factsOf(FixtureImage::MbrDisk).volumeOffset;
    const auto record = mftRecordOffset(mbrDisk(), 5, offset / 512);
    EXPECT_GT(record, offset);
    EXPECT_EQ(asString(readFileBytes(mbrDisk(), record, 4)), "FILE");
    // 512-byte clusters: a record's second half starts one cluster later.
    const auto first = mftRecordOffset(cluster512Volume(), 5);
    const auto second = mftRecordOffset(cluster512Volume(), 5, 0, 512);
    EXPECT_EQ(asString(readFileBytes(cluster512Volume(), first, 4)), "FILE");
    EXPECT_EQ(second, first + 512); // the first run of the $MFT holds record 5 whole
}

TEST(ScratchImage, PatchedRecordIsSeenByTheTools) {
    ScratchImage copy(richVolume());
    const auto inode = *findInode(copy.path(), kReadmePath);
    // Clearing the in-use flag (record header offset 0x16) makes a deleted record.
    const auto flags = mftRecordOffset(copy.path(), inode) + 0x16;
    copy.patchLe16(flags, 0);
    EXPECT_FALSE(inspectRecord(copy.path(), inode).allocated);
    EXPECT_TRUE(inspectRecord(richVolume(), inode).allocated);
}

TEST(ScratchImage, ParentReferencesCanBeMadeToLoop) {
    ScratchImage copy(richVolume());
    const auto docs = *findInode(copy.path(), kDocsDir);
    const auto sub = *findInode(copy.path(), kSubDir);
    const auto subSequence = inspectRecord(copy.path(), sub).sequence;
    // Docs/Sub's parent is Docs; make Docs's parent Docs/Sub.
    const int patched = patchFileNameParents(copy, mftRecordOffset(copy.path(), docs), 1024,
                                             (std::uint64_t{subSequence} << 48) | sub);
    EXPECT_EQ(patched, 1);
    const auto looped = inspectRecord(copy.path(), docs);
    ASSERT_EQ(looped.fileNames.size(), 1u);
    EXPECT_EQ(looped.fileNames[0].parent, sub);
    EXPECT_EQ(looped.fileNames[0].parentSequence, subSequence);
    EXPECT_EQ(inspectRecord(copy.path(), sub).fileNames.at(0).parent, docs);
    EXPECT_EQ(inspectRecord(richVolume(), docs).fileNames.at(0).parent, 5u);
}

TEST(RawAttributes, WalksARealRecordAndRefusesDamagedOnes) {
    const auto image = richVolume();
    const auto inode = *findInode(image, rich::kShortNamedFiles[0].path);
    auto record = readFileBytes(image, mftRecordOffset(image, inode), 1024);
    const auto attributes = rawAttributes(record);
    const auto names = std::count_if(attributes.begin(), attributes.end(),
                                     [](const RawAttribute& a) { return a.type == 0x30; });
    EXPECT_EQ(names, 2); // the long name and the short one
    EXPECT_EQ(attributes.front().type, 0x10u);
    for (const auto& attribute : attributes)
        EXPECT_LE(attribute.offset + attribute.length, 1024u);

    auto badLength = record;
    badLength[attributes[1].offset + 4] = 0xF0; // length runs past the record
    badLength[attributes[1].offset + 5] = 0x0F;
    EXPECT_THROW(rawAttributes(badLength), std::runtime_error);
    auto notFile = record;
    notFile[0] = 'B';
    EXPECT_THROW(rawAttributes(notFile), std::runtime_error);
    EXPECT_THROW(rawAttributes(std::span(record).first(16)), std::runtime_error);
}

} // namespace
} // namespace kestrow::test
