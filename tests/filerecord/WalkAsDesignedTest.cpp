// Every in-use record of every fixture image, and of the disk written by
// Windows when it is at hand, read through MasterFileTable and compared field
// by field with a plain reading of the walks as designed (support/
// WalkAsDesigned.h): the parse, the merge of extension records, the index
// entries before and after postProcessFileRecord, and every findParentPath
// path. The library's guards must cut exactly where that reading's first
// read outside its bytes does, never a step earlier.
#include "support/WalkAsDesigned.h"
#include "support/AttachedDisks.h"
#include "support/FieldDisk.h"
#include "support/Fixtures.h"

#include <kestrow/Disks.h>
#include <libKestrow/FileRecord.h>
#include <libKestrow/MasterFileTable.h>
#include <libKestrow/Volume.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <optional>
#include <set>

namespace kestrow::test {
namespace {

using designed::Geometry;
using designed::Record;

Record libraryFacts(const FileRecord& r) {
    Record facts;
    facts.valid = r.isValid();
    facts.ownIndex = r.mftIndex().index;
    facts.name.assign(reinterpret_cast<const char16_t*>(r.name().getUCS2Buffer()), r.name().size());
    facts.parent = r.parentMftIndex().index;
    facts.parentSequence = r.parentMftIndex().sequence;
    facts.fileAttributes = r.getFileAttributes();
    facts.creation = r.getCreationTime();
    facts.modification = r.getModificationTime();
    facts.lastRead = r.getLastReadTime();
    facts.allocatedSize = r.allocatedSize();
    facts.realSize = r.realSize();
    facts.dataSize = r.dataSize();
    for (const AttributeSummary& a : r.getAttributes())
        facts.attributes.emplace_back(a.name.toUtf8(), a.resident);
    facts.external.assign(r.getExternalAttributeReferences().begin(),
                          r.getExternalAttributeReferences().end());
    for (const ClusterRange& c : r.getClusterRanges())
        facts.clusterRanges.push_back({c.count, c.start});
    facts.indexEntries.assign(r.getIndexEntries().begin(), r.getIndexEntries().end());
    return facts;
}

// What the public API shows: the designed reading's inner state (the long-name
// flag, the $I30 runs) is not part of it.
Record shown(Record record) {
    record.longNameFound = false;
    record.indexAllocationRanges.clear();
    return record;
}

std::string describe(const Record& r) {
    std::string text =
        "valid " + std::to_string(r.valid) + " name \"" + utf16ToUtf8(r.name) + "\" parent " +
        std::to_string(r.parent) + "/" + std::to_string(r.parentSequence) + " flags " +
        std::to_string(r.fileAttributes) + " times " + std::to_string(r.creation) + "," +
        std::to_string(r.modification) + "," + std::to_string(r.lastRead) + " sizes " +
        std::to_string(r.allocatedSize) + "," + std::to_string(r.realSize) + "," +
        std::to_string(r.dataSize) + "\n  attributes:";
    for (const auto& [name, resident] : r.attributes)
        text += " " + name + (resident ? "/r" : "/n");
    text += "\n  external:";
    for (auto e : r.external)
        text += " " + std::to_string(e);
    text += "\n  ranges:";
    for (const auto& c : r.clusterRanges)
        text += " " + std::to_string(c.start) + "+" + std::to_string(c.count);
    text += "\n  entries:";
    for (auto e : r.indexEntries)
        text += " " + std::to_string(e);
    return text;
}

// The path of findParentPath(FileReference) as designed, over the summaries
// of every valid record. A loop (never on these volumes) ends the walk.
std::u16string designedPath(const std::map<std::uint64_t, Record>& table, std::uint64_t index,
                            const std::u16string& volumePath) {
    const auto start = table.find(index);
    if (start == table.end())
        return {};
    const Record* current = &start->second;
    std::u16string path = current->name;
    std::set<std::uint64_t> passed = {index};
    while (current->ownIndex != current->parent) {
        const auto parent = table.find(current->parent);
        if (parent == table.end() || !passed.insert(current->parent).second)
            return path;
        current = &parent->second;
        if (current->name.empty())
            return path;
        path = current->name == u"." ? volumePath + path : current->name + u"\\" + path;
    }
    return path;
}

// Bytes of the attached disk image, read as a drive is.
class DriveBytes {
public:
    explicit DriveBytes(const std::filesystem::path& image) : m_in(image, std::ios::binary) {
        m_in.seekg(0, std::ios::end);
        m_size = static_cast<std::uint64_t>(m_in.tellg());
    }
    bool read(std::uint64_t offset, std::uint64_t count, std::vector<std::uint8_t>& out) {
        if (offset > m_size || count > m_size - offset)
            return false;
        out.resize(count);
        m_in.clear();
        m_in.seekg(static_cast<std::streamoff>(offset));
        m_in.read(reinterpret_cast<char*>(out.data()), static_cast<std::streamsize>(count));
        return static_cast<std::uint64_t>(m_in.gcount()) == count;
    }

private:
    std::ifstream m_in;
    std::uint64_t m_size = 0;
};

// The 512-byte strides (1 for 0x1FE, 2 for 0x3FE...) whose last two bytes, where
// the update sequence number stands in a record as read, lie in the type code
// or the length of an attribute the walk passes.
std::set<std::size_t> headersOverSequenceNumbers(const std::vector<std::uint8_t>& bytes) {
    std::set<std::size_t> strides;
    auto le = [&](std::size_t at, unsigned width) {
        std::uint64_t v = 0;
        for (unsigned i = 0; i < width && at + i < bytes.size(); ++i)
            v |= std::uint64_t(bytes[at + i]) << (8 * i);
        return v;
    };
    std::size_t at = le(0x14, 2);
    const std::size_t inUse = le(0x18, 4);
    while (at + 8 <= bytes.size() && at < inUse && le(at, 4) != 0xFFFFFFFF) {
        const std::size_t sequenceNumber = (at / 512 + 1) * 512 - 2;
        if (sequenceNumber < at + 8)
            strides.insert(at / 512 + 1);
        const std::size_t length = le(at + 4, 4);
        if (length == 0)
            break;
        at += length;
    }
    return strides;
}

struct Tally {
    std::size_t inUse = 0, merged = 0, withBlocks = 0, straddling = 0, paths = 0;
    std::set<std::size_t> strides; // of the sequence numbers covered
};

// Compares every record slot of the NTFS volume `letter` on `image`.
void compareVolume(const std::filesystem::path& image, char letter, const std::string& label,
                   Tally& tally) {
    SCOPED_TRACE(label);
    Volume volume(letter);
    ASSERT_TRUE(volume.initialized());
    MasterFileTable mft(volume);
    ASSERT_TRUE(mft.initialized());
    Geometry geometry;
    geometry.bytesPerSector = volume.bytesPerSector();
    geometry.bytesPerCluster = volume.bytesPerCluster();
    geometry.bytesPerFileRecord = volume.bytesPerFileRecord();
    geometry.totalClusters = volume.totalClusters();
    geometry.baseCluster = volume.getVolumeExtents()[0].startingOffset / volume.bytesPerCluster();
    unsigned long long count = 0;
    ASSERT_TRUE(mft.getNumMftRecords(count));

    DriveBytes drive(image);
    auto recordBytes = [&](std::uint64_t index, std::vector<std::uint8_t>& out) {
        MftExtent extent;
        if (!mft.getExtentForFileRecord(FileReference(index, 0), extent))
            return false;
        const std::uint64_t sector =
            (index - extent.firstRecord) * geometry.bytesPerFileRecord / geometry.bytesPerSector +
            extent.startSector;
        return drive.read(sector * geometry.bytesPerSector, geometry.bytesPerFileRecord, out);
    };
    auto sectors = [&](std::uint64_t sector, std::uint64_t bytes, std::vector<std::uint8_t>& out) {
        return drive.read(sector * geometry.bytesPerSector, bytes, out);
    };

    std::map<std::uint64_t, Record> table;
    for (std::uint64_t index = 0; index < count; ++index) {
        std::vector<std::uint8_t> bytes;
        ASSERT_TRUE(recordBytes(index, bytes)) << "record " << index;
        Record expected = designed::parseRecord(bytes, index, geometry);
        FileRecord record;
        const bool valid = mft.getValidMftRecord(FileReference(index, 0), record);
        ASSERT_EQ(valid, expected.valid) << "record " << index;
        if (!valid)
            continue;
        ++tally.inUse;
        const std::set<std::size_t> strides = headersOverSequenceNumbers(bytes);
        tally.straddling += strides.empty() ? 0 : 1;
        tally.strides.insert(strides.begin(), strides.end());
        if (expected.dataSize == 0 && !expected.external.empty())
            ++tally.merged;
        designed::mergeExtensionRecords(expected, geometry, recordBytes);
        EXPECT_EQ(libraryFacts(record), shown(expected))
            << "record " << index << "\nlibrary:  " << describe(libraryFacts(record))
            << "\ndesigned: " << describe(shown(expected));
        table.emplace(index, expected);

        if (expected.indexAllocationRanges.empty())
            continue;
        ++tally.withBlocks;
        mft.postProcessFileRecord(record);
        designed::addIndexBlockEntries(expected, geometry, sectors);
        EXPECT_EQ(libraryFacts(record).indexEntries, expected.indexEntries)
            << "record " << index << " after postProcessFileRecord";
    }

    ASSERT_TRUE(mft.buildRecordMap());
    std::u16string prefix = u"\\\\.\\";
    prefix += static_cast<char16_t>(letter);
    prefix += u":\\";
    for (const auto& [index, summary] : table) {
        const orv::String path = mft.findParentPath(FileReference(index, 0));
        const std::u16string actual(reinterpret_cast<const char16_t*>(path.getUCS2Buffer()),
                                    path.size());
        EXPECT_EQ(utf16ToUtf8(actual), utf16ToUtf8(designedPath(table, index, prefix)))
            << "record " << index;
        ++tally.paths;
    }
}

void report(const std::string& label, const Tally& tally) {
    std::printf("%s: %zu records in use, %zu merged with extension records, %zu directories "
                "with index blocks, %zu with an attribute header over a sequence number (at",
                label.c_str(), tally.inUse, tally.merged, tally.withBlocks, tally.straddling);
    for (std::size_t stride : tally.strides)
        std::printf(" 0x%zX", stride * 512 - 2);
    std::printf("), %zu paths\n", tally.paths);
}

class WalkAsDesigned : public ::testing::TestWithParam<ImageFacts> {};

TEST_P(WalkAsDesigned, EveryInUseRecordAndPathOfTheImage) {
    const ImageFacts& facts = GetParam();
    AttachedDisks disks(imagePath(facts.image));
    ASSERT_TRUE(disks.ok()) << disks.error();
    char letter = 0;
    for (const platform::VolumeInfo& v : platform::attachedVolumes())
        if (v.fileSystem == "NTFS" && letter == 0)
            letter = v.letter;
    ASSERT_NE(letter, 0);
    Tally tally;
    compareVolume(imagePath(facts.image), letter, std::string(facts.fileName), tally);
    report(std::string(facts.fileName), tally);
    EXPECT_GT(tally.withBlocks, 0u);
    // The sweep directory puts attribute headers over the sequence number at
    // 0x1FE, and in 4 KiB records over the one at 0x3FE too (in a 1 KiB record
    // only the end marker can lie there).
    if (facts.hasSweepDir) {
        EXPECT_TRUE(tally.strides.count(1));
        EXPECT_TRUE(facts.bytesPerFileRecord < 4096 || tally.strides.count(2));
    }
}

INSTANTIATE_TEST_SUITE_P(AllImages, WalkAsDesigned, ::testing::ValuesIn(allImages()),
                         ImageTestName());

TEST(WalkAsDesignedOnWindowsDisk, EveryInUseRecordAndPathOfBothVolumes) {
    const std::optional<std::filesystem::path> image = fieldDisk();
    if (!image)
        GTEST_SKIP() << fieldDiskAbsence();
    AttachedDisks disks(*image);
    ASSERT_TRUE(disks.ok()) << disks.error();
    std::size_t volumes = 0;
    for (const platform::VolumeInfo& v : platform::attachedVolumes()) {
        if (v.fileSystem != "NTFS")
            continue;
        ++volumes;
        Tally tally;
        const std::string label = "Windows disk volume " + std::string(1, v.letter) + ":";
        compareVolume(*image, v.letter, label, tally);
        report(label, tally);
        EXPECT_GT(tally.inUse, 30u);
    }
    EXPECT_EQ(volumes, 2u);
}

} // namespace
} // namespace kestrow::test
