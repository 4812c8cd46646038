// FileRecordMap on real NTFS images: child lists against NTFS-3G's ntfsls,
// path lookup against The Sleuth Kit's ifind, the logged failures, and the
// merged and unique child lists on copies of images whose names were patched.
#include "support/AttachedDisks.h"
#include "support/Fixtures.h"
#include "support/LogCapture.h"
#include "support/Oracle.h"

#include <kestrow/Disks.h>
#include <libKestrow/FileRecordMap.h>
#include <libKestrow/MasterFileTable.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace fs = std::filesystem;
namespace oracle = kestrow::test::oracle;
using kestrow::test::FixtureImage;
using kestrow::test::LogCapture;

namespace {

constexpr unsigned long long ROOT = 5;
const std::string VOLUME_PATH = "\\\\.\\C:\\";

orv::String text(const std::string& utf8) {
    return orv::String::fromUtf8(utf8);
}

std::string windowsFull(std::string_view relative) {
    return VOLUME_PATH + kestrow::test::windowsPath(relative);
}

// One image attached as the only disk, its volume C:, its table with the
// record map built, and a FileRecordMap over it.
struct MappedImage {
    explicit MappedImage(const fs::path& image, bool buildRecordMap = true) {
        std::string error;
        attached = kestrow::platform::attachDisks({image.string()}, error);
        if (!attached)
            ADD_FAILURE() << "cannot attach " << image << ": " << error;
        volume = std::make_unique<Volume>('C');
        table = std::make_unique<MasterFileTable>(*volume);
        if (buildRecordMap)
            table->buildRecordMap();
        map = std::make_unique<FileRecordMap>(*table);
    }
    ~MappedImage() { close(); }
    // Closes the map, the table and the volume, and detaches the image.
    void close() {
        map.reset();
        table.reset();
        volume.reset();
        kestrow::test::AttachedDisks::detach();
    }

    unsigned long long recordCount() {
        unsigned long long count = 0;
        EXPECT_TRUE(table->getNumMftRecords(count));
        return count;
    }

    // The names of the records listed, from the record hash table.
    std::multiset<std::string> namesOf(const orv::Array<unsigned long long>& indices) {
        std::multiset<std::string> names;
        for (unsigned long long index : indices) {
            const RecordSummary* summary = table->getRecordHashTable().lookup(index);
            names.insert(summary ? summary->name.toUtf8()
                                 : "<missing " + std::to_string(index) + ">");
        }
        return names;
    }

    std::vector<unsigned long long> childrenByIndex(unsigned long long index) {
        orv::Array<unsigned long long> children;
        EXPECT_TRUE(map->getChildIndices(FileReference(index, 0), children)) << index;
        return {children.begin(), children.end()};
    }

    std::vector<unsigned long long> childrenByPath(const std::string& path) {
        orv::Array<unsigned long long> children;
        EXPECT_TRUE(map->getChildIndices(text(path), children)) << path;
        return {children.begin(), children.end()};
    }

    unsigned long long indexOf(const std::string& path) {
        FileReference found;
        EXPECT_TRUE(map->getIndex(text(path), found)) << path;
        return found.index;
    }

    bool attached = false;
    std::unique_ptr<Volume> volume;
    std::unique_ptr<MasterFileTable> table;
    std::unique_ptr<FileRecordMap> map;
};

std::multiset<std::string> ntfslsNames(const fs::path& volume, const std::string& directory) {
    std::multiset<std::string> names;
    for (const std::string& name : oracle::listDirectory(volume, directory))
        if (name != "." && name != "..")
            names.insert(name);
    return names;
}

// The allocated names directly in the root, as fls -r -p lists them (system
// files included, which ntfsls leaves out; streams and virtual entries not).
std::set<std::string> flsRootNames(const fs::path& image) {
    std::set<std::string> names;
    for (const oracle::FlsEntry& entry : oracle::listFiles(image)) {
        const std::string path = entry.filePath();
        if (entry.deleted || entry.nameType == 'V' || path.find('/') != std::string::npos)
            continue;
        names.insert(path);
    }
    return names;
}

orv::Array<unsigned long long> toArray(const std::vector<unsigned long long>& values) {
    orv::Array<unsigned long long> array;
    for (unsigned long long v : values)
        array.append(v);
    return array;
}

// ---- Children against ntfsls ---------------------------------------------------

TEST(FileRecordMapChildren, RootChildrenUnderDotAndIndexFiveMatchNtfsls) {
    MappedImage image(kestrow::test::richVolume());
    const auto byIndex = image.childrenByIndex(ROOT);
    const auto byPath = image.childrenByPath(".");
    EXPECT_EQ(std::multiset<unsigned long long>(byIndex.begin(), byIndex.end()),
              std::multiset<unsigned long long>(byPath.begin(), byPath.end()));
    const auto names = image.namesOf(toArray(byIndex));
    EXPECT_EQ(std::set<std::string>(names.begin(), names.end()),
              flsRootNames(kestrow::test::richVolume()));
    EXPECT_EQ(names.size(), flsRootNames(kestrow::test::richVolume()).size());
    // ntfsls leaves the system files out.
    std::multiset<std::string> visible;
    for (const std::string& name : names)
        if (name[0] != '$')
            visible.insert(name);
    EXPECT_EQ(visible, ntfslsNames(kestrow::test::richVolume(), "/"));
    // The root is its own parent but is kept out of its own list.
    EXPECT_EQ(std::count(byIndex.begin(), byIndex.end(), ROOT), 0);
}

TEST(FileRecordMapChildren, NestedDirectoriesMatchNtfslsByPathAndByIndex) {
    MappedImage image(kestrow::test::sector4kVolume());
    for (const std::string dir : {"Docs", "Docs/Sub", "Indexed"}) {
        SCOPED_TRACE(dir);
        const auto byPath = image.childrenByPath(windowsFull(dir));
        const auto byIndex = image.childrenByIndex(image.indexOf(windowsFull(dir)));
        EXPECT_EQ(byPath, byIndex);
        EXPECT_EQ(image.namesOf(toArray(byPath)),
                  ntfslsNames(kestrow::test::sector4kVolume(), "/" + dir));
    }
    EXPECT_EQ(image.childrenByPath(windowsFull("Indexed")).size(),
              static_cast<std::size_t>(kestrow::test::kIndexedDirEntries));
}

TEST(FileRecordMapChildren, PartitionedDiskUsesTheVolumePathOfItsLetter) {
    MappedImage image(kestrow::test::mbrDisk());
    EXPECT_EQ(image.namesOf(toArray(image.childrenByPath(windowsFull("Docs")))),
              (std::multiset<std::string>{"Sub", "report.bin"}));
    EXPECT_EQ(image.namesOf(toArray(image.childrenByPath(windowsFull("Docs/Sub")))),
              (std::multiset<std::string>{"deep.txt"}));
}

TEST(FileRecordMapChildren, EveryRecordIsListedUnderItsOwnParentExactlyOnce) {
    MappedImage image(kestrow::test::richVolume());
    const auto& table = image.table->getRecordHashTable();
    const auto& indexMap = image.map->getFileIndexMap();
    ASSERT_EQ(indexMap.size(), image.recordCount());
    std::size_t listed = 0;
    for (std::uint32_t parent = 0; parent < indexMap.size(); ++parent) {
        for (unsigned long long child : indexMap[parent]) {
            const RecordSummary* summary = table.lookup(child);
            ASSERT_NE(summary, nullptr) << child;
            EXPECT_EQ(summary->parentMftIndex.index, parent) << child;
            ++listed;
        }
    }
    // Every summary but the root's is in exactly one list.
    EXPECT_EQ(listed, table.size() - 1);
}

TEST(FileRecordMapChildren, ChildrenOfAFileAreReachableByIndexOnly) {
    // The reserved records after the system files name $MFT (a file) as their
    // parent: they have a list under index 0, and no path key is made for it.
    MappedImage image(kestrow::test::bareVolume());
    const auto children = image.childrenByIndex(0);
    ASSERT_FALSE(children.empty());
    orv::Array<unsigned long long> byPath;
    LogCapture log;
    EXPECT_FALSE(image.map->getChildIndices(text(VOLUME_PATH + "$MFT"), byPath));
    EXPECT_TRUE(log.contains("125 Parent path not found: " + VOLUME_PATH + "$MFT"));
}

// ---- getIndex ------------------------------------------------------------------

TEST(FileRecordMapGetIndex, FindsTheRecordThatIfindNames) {
    MappedImage image(kestrow::test::richVolume());
    const std::vector<std::string> paths = {"Docs/Sub/deep.txt", "Docs", "large.bin",
                                            std::string(kestrow::test::rich::kFragmentedA),
                                            kestrow::test::rich::deepFilePath()};
    for (const std::string& path : paths) {
        SCOPED_TRACE(path);
        const auto expected = oracle::findInode(kestrow::test::richVolume(), path);
        ASSERT_TRUE(expected.has_value());
        EXPECT_EQ(image.indexOf(windowsFull(path)), *expected);
    }
}

TEST(FileRecordMapGetIndex, DirectoryComponentsMatchInAnyCaseTheLastOnlyAsStored) {
    MappedImage image(kestrow::test::richVolume());
    const auto deep = image.indexOf(windowsFull("Docs/Sub/deep.txt"));
    FileReference found;
    EXPECT_TRUE(image.map->getIndex(text("\\\\.\\c:\\DOCS\\sUb\\deep.txt"), found));
    EXPECT_EQ(found.index, deep);
    EXPECT_EQ(found.sequence, 0u);

    FileReference untouched(77, 3);
    LogCapture log;
    EXPECT_FALSE(image.map->getIndex(text(windowsFull("Docs/Sub/Deep.txt")), untouched));
    EXPECT_FALSE(image.map->getIndex(text(windowsFull("Docs/Sub/missing.txt")), untouched));
    EXPECT_EQ(untouched.index, 77u);
    EXPECT_EQ(untouched.sequence, 3u);
    EXPECT_TRUE(log.texts("libKestrow.FileRecordMap").empty()) << "getIndex fails silently";
}

TEST(FileRecordMapGetIndex, PathsWithoutTokensOrOffTheVolumeAreNotFound) {
    MappedImage image(kestrow::test::bareVolume());
    FileReference found;
    EXPECT_FALSE(image.map->getIndex(orv::String(), found));
    EXPECT_FALSE(image.map->getIndex(text("\\\\\\"), found));
    // The relative form is not the library's path form.
    EXPECT_FALSE(image.map->getIndex(text("$Extend\\$Quota"), found));
    EXPECT_TRUE(image.map->getIndex(text(VOLUME_PATH + "$Extend\\$Quota"), found));
}

// ---- Summaries and parents ---------------------------------------------------------

TEST(FileRecordMapSummaries, RecordPathGivesTheStoredSummaryAndParent) {
    MappedImage image(kestrow::test::richVolume());
    const auto deep = image.indexOf(windowsFull("Docs/Sub/deep.txt"));
    const auto sub = image.indexOf(windowsFull("Docs/Sub"));
    RecordSummary summary;
    ASSERT_TRUE(image.map->getRecordPath(FileReference(deep, 9), summary));
    EXPECT_EQ(summary.name.toUtf8(), "deep.txt");
    EXPECT_EQ(summary.dataSize, kestrow::test::kDeepText.size());
    FileReference parent;
    ASSERT_TRUE(image.map->getParentIndex(FileReference(deep, 0), parent));
    EXPECT_EQ(parent.index, sub);
    const auto istat = oracle::inspectRecord(kestrow::test::richVolume(), sub);
    EXPECT_EQ(parent.sequence, istat.sequence) << "the parent reference keeps its sequence";
}

TEST(FileRecordMapSummaries, MissingIndexLogsAndLeavesTheOutputsAlone) {
    MappedImage image(kestrow::test::bareVolume());
    const unsigned long long missing = image.recordCount() + 1000;
    RecordSummary summary;
    summary.name = text("kept");
    FileReference parent(42, 4);
    LogCapture log;
    EXPECT_FALSE(image.map->getRecordPath(FileReference(missing, 0), summary));
    EXPECT_FALSE(image.map->getParentIndex(FileReference(missing, 0), parent));
    EXPECT_EQ(summary.name.toUtf8(), "kept");
    EXPECT_EQ(parent.index, 42u);
    EXPECT_EQ(log.countStartingWith("106 Index not found: " + std::to_string(missing)), 2u);
    for (const auto& line : log.lines()) {
        if (line.logger == "libKestrow.FileRecordMap") {
            EXPECT_EQ(line.priority, 1);
        }
    }
}

// ---- Bounds and failures ---------------------------------------------------------

TEST(FileRecordMapBounds, IndexAtTheRecordCountFailsOneBelowSucceeds) {
    MappedImage image(kestrow::test::bareVolume());
    const unsigned long long count = image.recordCount();
    orv::Array<unsigned long long> children;
    children.append(99);
    LogCapture log;
    EXPECT_FALSE(image.map->getChildIndices(FileReference(count, 0), children));
    ASSERT_EQ(children.size(), 1u) << "left untouched";
    EXPECT_TRUE(log.contains("115 Parent index not found: " + std::to_string(count)));
    EXPECT_TRUE(image.map->getChildIndices(FileReference(count - 1, 0), children));

    orv::Array<orv::String> paths;
    EXPECT_FALSE(image.map->getUniqueChildPaths(FileReference(count, 0), paths));
    EXPECT_TRUE(log.contains("135 Parent index not found: " + std::to_string(count)));
    EXPECT_FALSE(image.map->getUniqueChildPaths(text("\\\\.\\C:\\nowhere"), paths));
    EXPECT_TRUE(log.contains("145 Parent path not found: \\\\.\\C:\\nowhere"));
    orv::Array<unsigned long long> unique;
    EXPECT_FALSE(image.map->getUniqueChildIndices(FileReference(count, 0), unique));
    EXPECT_FALSE(image.map->getUniqueChildIndices(text("\\\\.\\C:\\nowhere"), unique));
    EXPECT_EQ(log.countStartingWith("115 "), 2u);
    EXPECT_EQ(log.countStartingWith("125 "), 1u);
}

TEST(FileRecordMapBounds, MapBuiltBeforeTheRecordMapHasEmptyListsAndNoPaths) {
    MappedImage image(kestrow::test::bareVolume(), /*buildRecordMap=*/false);
    ASSERT_EQ(image.table->getRecordHashTable().size(), 0u);
    const unsigned long long count = image.recordCount();
    ASSERT_GT(count, 16u);
    EXPECT_EQ(image.map->getFileIndexMap().size(), count);
    EXPECT_EQ(image.map->getFileRecordMap().size(), 0u);
    for (unsigned long long i = 0; i < count; ++i) {
        orv::Array<unsigned long long> children;
        children.append(1);
        ASSERT_TRUE(image.map->getChildIndices(FileReference(i, 0), children));
        EXPECT_TRUE(children.empty());
    }
    LogCapture log;
    orv::Array<unsigned long long> children;
    EXPECT_FALSE(image.map->getChildIndices(text("."), children));
    EXPECT_TRUE(log.contains("125 Parent path not found: ."));
}

// ---- Unique children ---------------------------------------------------------------

TEST(FileRecordMapUnique, DistinctPathsKeepTheChildListOrder) {
    MappedImage image(kestrow::test::cluster512Volume());
    const std::string indexed = windowsFull("Indexed");
    const auto children = image.childrenByPath(indexed);
    orv::Array<unsigned long long> unique;
    ASSERT_TRUE(image.map->getUniqueChildIndices(text(indexed), unique));
    EXPECT_EQ(std::vector<unsigned long long>(unique.begin(), unique.end()), children);

    orv::Array<orv::String> paths;
    ASSERT_TRUE(image.map->getUniqueChildPaths(FileReference(image.indexOf(indexed), 0), paths));
    ASSERT_EQ(paths.size(), children.size());
    for (std::uint32_t i = 0; i < paths.size(); ++i)
        EXPECT_EQ(paths[i], image.table->findParentPath(FileReference(children[i], 0)));
}

// The record of `path` on a copy of `facts`'s image: its bytes' offset in the
// image, found through the table's run lookup.
std::uint64_t recordOffset(MappedImage& image, unsigned long long index) {
    MftExtent extent{};
    EXPECT_TRUE(image.table->getExtentForFileRecord(FileReference(index, 0), extent));
    return extent.startSector * image.volume->bytesPerSector() +
           (index - extent.firstRecord) * image.volume->bytesPerFileRecord();
}

// Overwrites every UTF-16 occurrence of `from` in the record with `to`
// (same length).
void renameInRecord(kestrow::test::ScratchImage& scratch, std::uint64_t offset,
                    std::uint32_t recordSize, const std::string& from, const std::string& to) {
    ASSERT_EQ(from.size(), to.size());
    auto bytes = scratch.read(offset, recordSize);
    std::vector<std::uint8_t> needle;
    for (char c : from) {
        needle.push_back(static_cast<std::uint8_t>(c));
        needle.push_back(0);
    }
    int replaced = 0;
    for (auto it = std::search(bytes.begin(), bytes.end(), needle.begin(), needle.end());
         it != bytes.end(); it = std::search(it + 1, bytes.end(), needle.begin(), needle.end())) {
        for (std::size_t i = 0; i < to.size(); ++i)
            it[2 * i] = static_cast<std::uint8_t>(to[i]);
        ++replaced;
    }
    ASSERT_GT(replaced, 0) << from;
    scratch.patch(offset, bytes);
}

TEST(FileRecordMapUnique, CoincidingChildPathsKeepTheFirstInListOrder) {
    kestrow::test::ScratchImage scratch(kestrow::test::sector4kVolume());
    const std::string first = kestrow::test::indexedEntryName(0);
    const std::string second = kestrow::test::indexedEntryName(1);
    unsigned long long firstIndex = 0;
    unsigned long long secondIndex = 0;
    {
        MappedImage original(scratch.path());
        firstIndex = original.indexOf(windowsFull("Indexed/" + first));
        secondIndex = original.indexOf(windowsFull("Indexed/" + second));
        const std::uint64_t offset = recordOffset(original, secondIndex);
        const std::uint32_t size = original.volume->bytesPerFileRecord();
        original.close();
        renameInRecord(scratch, offset, size, second, first);
    }
    MappedImage image(scratch.path());
    const std::string indexed = windowsFull("Indexed");
    const auto children = image.childrenByPath(indexed);
    orv::Array<unsigned long long> unique;
    ASSERT_TRUE(image.map->getUniqueChildIndices(text(indexed), unique));
    ASSERT_EQ(unique.size() + 1, children.size());

    // Expected: the child list with the later of the two namesakes dropped.
    const auto posFirst = std::find(children.begin(), children.end(), firstIndex);
    const auto posSecond = std::find(children.begin(), children.end(), secondIndex);
    ASSERT_NE(posFirst, children.end());
    ASSERT_NE(posSecond, children.end());
    std::vector<unsigned long long> expected = children;
    expected.erase(expected.begin() + (std::max(posFirst, posSecond) - children.begin()));
    EXPECT_EQ(std::vector<unsigned long long>(unique.begin(), unique.end()), expected);

    orv::Array<orv::String> paths;
    ASSERT_TRUE(image.map->getUniqueChildPaths(text(indexed), paths));
    EXPECT_EQ(paths.size(), unique.size());
}

TEST(FileRecordMapMerged, DirectoriesWithTheSamePathShareOneMergedList) {
    // "Names" renamed to "Links" on a copy: both directories now have the path
    // \\.\C:\Links, whose list is theirs joined, lower record first.
    kestrow::test::ScratchImage scratch(kestrow::test::richVolume());
    unsigned long long links = 0;
    unsigned long long names = 0;
    {
        MappedImage original(scratch.path());
        links = original.indexOf(windowsFull("Links"));
        names = original.indexOf(windowsFull("Names"));
        const std::uint64_t offset = recordOffset(original, names);
        const std::uint32_t size = original.volume->bytesPerFileRecord();
        original.close();
        renameInRecord(scratch, offset, size, "Names", "Links");
    }
    MappedImage image(scratch.path());
    const auto linksChildren = image.childrenByIndex(links);
    const auto namesChildren = image.childrenByIndex(names);
    ASSERT_FALSE(linksChildren.empty());
    ASSERT_FALSE(namesChildren.empty());
    std::vector<unsigned long long> expected = links < names ? linksChildren : namesChildren;
    const auto& later = links < names ? namesChildren : linksChildren;
    expected.insert(expected.end(), later.begin(), later.end());
    EXPECT_EQ(image.childrenByPath(windowsFull("Links")), expected);
    orv::Array<unsigned long long> none;
    LogCapture log;
    EXPECT_FALSE(image.map->getChildIndices(text(windowsFull("Names")), none));
}

// ---- Copy and move -----------------------------------------------------------------

TEST(FileRecordMapLifecycle, CopyAnswersLikeTheOriginal) {
    MappedImage image(kestrow::test::mbrDisk());
    const FileRecordMap copy(*image.map);
    EXPECT_EQ(copy.getFileRecordMap().size(), image.map->getFileRecordMap().size());
    ASSERT_EQ(copy.getFileIndexMap().size(), image.map->getFileIndexMap().size());
    for (std::uint32_t i = 0; i < copy.getFileIndexMap().size(); ++i) {
        const auto& a = copy.getFileIndexMap()[i];
        const auto& b = image.map->getFileIndexMap()[i];
        EXPECT_EQ(std::vector<unsigned long long>(a.begin(), a.end()),
                  std::vector<unsigned long long>(b.begin(), b.end()));
    }
    EXPECT_EQ(copy.getFileIndexMap().capacity(),
              orv::Array<int>::grownCapacity(image.map->getFileIndexMap().capacity()));
}

TEST(FileRecordMapLifecycle, MoveTakesTheIndexMapAndCopiesThePathMap) {
    MappedImage image(kestrow::test::mbrDisk());
    const unsigned int paths = image.map->getFileRecordMap().size();
    const std::uint32_t records = image.map->getFileIndexMap().size();
    FileRecordMap moved(std::move(*image.map));
    EXPECT_FALSE(image.map->getFileIndexMap().hasRepresentation());
    EXPECT_EQ(image.map->getFileRecordMap().size(), paths);
    EXPECT_EQ(moved.getFileIndexMap().size(), records);
    EXPECT_EQ(moved.getFileRecordMap().size(), paths);
    FileReference docs;
    EXPECT_TRUE(moved.getIndex(text(windowsFull("Docs")), docs));
    orv::Array<unsigned long long> children;
    EXPECT_TRUE(moved.getChildIndices(docs, children));
    EXPECT_EQ(children.size(), 2u);
}

} // namespace
