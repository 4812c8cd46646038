// MasterFileTable on real NTFS images, attached through the disk-image
// backend, compared with what The Sleuth Kit and NTFS-3G's tools say.
#include "support/AttachedDisks.h"
#include "support/Fixtures.h"
#include "support/Oracle.h"

#include <libKestrow/MasterFileTable.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <vector>

namespace fs = std::filesystem;
namespace oracle = kestrow::test::oracle;
using kestrow::test::FixtureImage;
using kestrow::test::ImageFacts;

namespace {

constexpr const char* VOLUME_PATH = "\\\\.\\C:\\";

std::string utf8(const orv::String& text) {
    return text.toUtf8();
}

// A volume and its table on an attached image.
struct OpenedImage {
    explicit OpenedImage(const fs::path& image) : attachment(image), volume('C'), table(volume) {}
    kestrow::test::AttachedDisks attachment;
    Volume volume;
    MasterFileTable table;
};

// What the independent tools say about one image's MFT, and the record
// arithmetic the table follows over it.
struct MftFacts {
    const ImageFacts* facts = nullptr;
    std::uint64_t sectorOffset = 0; // 512-byte units, for The Sleuth Kit
    std::uint32_t bytesPerRecord = 0;
    std::vector<oracle::NtfsinfoRun> runs; // $MFT's $DATA, from ntfsinfo

    struct Slots {
        std::uint64_t firstSlot;
        std::uint64_t slotCount; // by the table's formula (may hold phantoms)
        std::uint64_t firstReal; // real MFT record number of the run's first record
        std::uint64_t realCount; // records the run really holds
        std::optional<std::uint64_t> lcn;
        std::uint64_t startSector, endSector;
    };
    std::vector<Slots> slots;

    std::uint64_t slotTotal() const {
        return slots.empty() ? 0 : slots.back().firstSlot + slots.back().slotCount;
    }
    // The real record behind a slot of the table, or none for a phantom slot.
    std::optional<std::uint64_t> realRecord(std::uint64_t slot) const {
        for (const Slots& s : slots)
            if (slot >= s.firstSlot && slot < s.firstSlot + s.slotCount) {
                const std::uint64_t j = slot - s.firstSlot;
                if (j < s.realCount)
                    return s.firstReal + j;
                return std::nullopt;
            }
        return std::nullopt;
    }
    // The slot the table gives a real record.
    std::optional<std::uint64_t> slotOf(std::uint64_t real) const {
        for (const Slots& s : slots)
            if (real >= s.firstReal && real < s.firstReal + s.realCount)
                return s.firstSlot + (real - s.firstReal);
        return std::nullopt;
    }
    // Byte offset of a real record in the image.
    std::optional<std::uint64_t> imageOffsetOf(std::uint64_t real) const {
        for (const Slots& s : slots)
            if (s.lcn && real >= s.firstReal && real < s.firstReal + s.realCount)
                return facts->volumeOffset + *s.lcn * facts->bytesPerCluster +
                       (real - s.firstReal) * bytesPerRecord;
        return std::nullopt;
    }
};

MftFacts mftFactsOf(FixtureImage image) {
    MftFacts out;
    out.facts = &kestrow::test::factsOf(image);
    out.sectorOffset = out.facts->volumeOffset / 512;
    const oracle::FsstatResult stats =
        oracle::fileSystemStats(kestrow::test::imagePath(image), out.sectorOffset);
    out.bytesPerRecord = stats.mftEntrySize;
    // NTFS-3G's tools take whole volumes only.
    const kestrow::test::ScratchImage volume(kestrow::test::imagePath(image),
                                             out.facts->volumeOffset, out.facts->volumeSize);
    const oracle::NtfsinfoRecord mft = oracle::recordInfo(volume.path(), 0);
    for (const auto& [attribute, runs] : mft.runLists)
        if (attribute == "$DATA") {
            out.runs = runs;
            break;
        }

    // The table's arithmetic, 64-bit with wrapping for a run not on disk.
    const std::uint64_t bpc = out.facts->bytesPerCluster;
    const std::uint64_t bps = out.facts->bytesPerSector;
    std::uint64_t slot = 0;
    std::uint64_t real = 0;
    for (const oracle::NtfsinfoRun& run : out.runs) {
        const std::uint64_t lcn = run.lcn ? *run.lcn : ~0ULL;
        const std::uint64_t byteOffset = lcn * bpc + out.facts->volumeOffset;
        MftFacts::Slots s{};
        s.startSector = byteOffset / bps;
        s.endSector = (run.length * bpc + byteOffset) / bps;
        s.slotCount = (s.endSector - s.startSector + 1) * bps / out.bytesPerRecord;
        s.firstSlot = slot;
        s.firstReal = real;
        s.realCount = run.length * bpc / out.bytesPerRecord;
        s.lcn = run.lcn;
        out.slots.push_back(s);
        slot += s.slotCount;
        real += s.realCount;
    }
    return out;
}

const MftFacts& cachedFacts(FixtureImage image) {
    static std::map<FixtureImage, MftFacts> cache;
    auto it = cache.find(image);
    if (it == cache.end())
        it = cache.emplace(image, mftFactsOf(image)).first;
    return it->second;
}

// True when a $FILE_NAME of the raw record has a field the library reads
// (parent reference to the end of the name) over the last two bytes of a
// 512-byte stride: there the unapplied update sequence number stands in for
// the true bytes.
bool fileNameHitsFixup(const std::vector<std::uint8_t>& raw) {
    // The attributes are found in the record with its fix-ups applied: a
    // length over a sequence number reads wrong as it lies.
    const std::optional<std::vector<std::uint8_t>> record = kestrow::test::applyFixups(raw);
    if (!record)
        return false;
    for (const kestrow::test::RawAttribute& attribute : kestrow::test::rawAttributes(*record)) {
        if (attribute.type != 0x30 || !attribute.resident)
            continue;
        const std::size_t first = attribute.offset + 0x18;
        const std::size_t nameLength = record->at(attribute.offset + 0x58);
        const std::size_t end = attribute.offset + 0x5A + 2 * nameLength;
        for (std::size_t p = first; p < end; ++p)
            if (p % 512 >= 510)
                return true;
    }
    return false;
}

class MftOnImage : public ::testing::TestWithParam<FixtureImage> {
protected:
    void SetUp() override {
        m_facts = &cachedFacts(GetParam());
        m_opened = std::make_unique<OpenedImage>(kestrow::test::imagePath(GetParam()));
        ASSERT_TRUE(m_opened->attachment.ok()) << m_opened->attachment.error();
        ASSERT_TRUE(m_opened->volume.initialized());
        ASSERT_TRUE(m_opened->table.initialized());
    }

    const MftFacts& facts() const { return *m_facts; }
    MasterFileTable& table() { return m_opened->table; }
    fs::path image() const { return kestrow::test::imagePath(GetParam()); }

    std::vector<std::uint8_t> rawRecord(std::uint64_t real) const {
        const auto offset = facts().imageOffsetOf(real);
        if (!offset)
            return {};
        return kestrow::test::readFileBytes(image(), *offset, facts().bytesPerRecord);
    }

    // fls -r -p, allocated names only, without streams and virtual entries:
    // every path of each real record.
    std::map<std::uint64_t, std::vector<std::string>> pathsByRecord() const {
        std::map<std::uint64_t, std::vector<std::string>> out;
        for (const oracle::FlsEntry& entry : oracle::listFiles(
                 image(), facts().sectorOffset, oracle::FlsSelection::AllocatedOnly)) {
            if (entry.deleted || !entry.streamName().empty() || entry.nameType == 'V' ||
                entry.metaType == 'V' || entry.path.starts_with("$OrphanFiles"))
                continue;
            out[entry.inode].push_back(entry.path);
        }
        return out;
    }

    const MftFacts* m_facts = nullptr;
    std::unique_ptr<OpenedImage> m_opened;
};

} // namespace

TEST_P(MftOnImage, RunsAndRecordCountFollowTheToolsRunList) {
    ASSERT_FALSE(facts().runs.empty());
    const orv::Array<Volume::FileExtent> extents = table().getMftExtents();
    ASSERT_EQ(extents.size(), facts().slots.size());
    for (std::uint32_t i = 0; i < extents.size(); ++i) {
        EXPECT_EQ(extents[i].startSector, facts().slots[i].startSector) << "run " << i;
        EXPECT_EQ(extents[i].endSector, facts().slots[i].endSector) << "run " << i;
    }
    unsigned long long count = 0;
    ASSERT_TRUE(table().getNumMftRecords(count));
    EXPECT_EQ(count, facts().slotTotal());
    EXPECT_EQ(table().getRecordHashTable().chainCount(), static_cast<unsigned>(count / 3));

    // Every slot maps onto the run that holds it, by the same arithmetic.
    for (const MftFacts::Slots& s : facts().slots) {
        MftExtent extent{};
        ASSERT_TRUE(table().getExtentForFileRecord(FileReference(s.firstSlot, 0), extent));
        EXPECT_EQ(extent.firstRecord, s.firstSlot);
        EXPECT_EQ(extent.recordCount, s.slotCount);
    }
    MftExtent beyond{};
    EXPECT_FALSE(table().getExtentForFileRecord(FileReference(count, 0), beyond));
}

TEST_P(MftOnImage, FullPathsMatchTheSleuthKit) {
    ASSERT_TRUE(table().buildRecordMap());
    EXPECT_EQ(utf8(table().findParentPath(FileReference::ROOT_MFT_RECORD())), ".");

    const auto paths = pathsByRecord();
    std::size_t compared = 0, damagedNames = 0, sweptNames = 0;
    for (const auto& [real, names] : paths) {
        const auto slot = facts().slotOf(real);
        ASSERT_TRUE(slot.has_value()) << "record " << real;
        const std::string ours = utf8(table().findParentPath(FileReference(*slot, 0)));
        std::set<std::string> expected;
        for (const std::string& name : names)
            expected.insert(VOLUME_PATH + kestrow::test::windowsPath(name));
        if (expected.count(ours) != 0) {
            ++compared;
            continue;
        }
        // A name the unapplied fix-ups changed (in the record or an ancestor).
        bool damaged = fileNameHitsFixup(rawRecord(real));
        for (const std::string& name : names) {
            std::string ancestor = name;
            while (!damaged && ancestor.find('/') != std::string::npos) {
                ancestor = ancestor.substr(0, ancestor.rfind('/'));
                const std::uint64_t parent =
                    *oracle::findInode(image(), ancestor, facts().sectorOffset);
                damaged = fileNameHitsFixup(rawRecord(parent));
            }
        }
        if (damaged) {
            // The sweep directory's long names lie over sequence numbers by design.
            const bool swept =
                names.front().starts_with(std::string(kestrow::test::kSweepDir) + "/");
            ++(swept ? sweptNames : damagedNames);
            continue;
        }
        ADD_FAILURE() << "record " << real << " (slot " << *slot << "): ours '" << ours
                      << "', fls '" << *expected.begin() << "'";
    }
    EXPECT_GE(compared, 10u);
    EXPECT_LE(damagedNames * 20, compared) << "too many names hit by fix-ups to be believable";
    RecordProperty("compared", static_cast<int>(compared));
    RecordProperty("fixupDamaged", static_cast<int>(damagedNames + sweptNames));
}

TEST_P(MftOnImage, LookupByPathFindsTheRecordsBack) {
    const auto paths = pathsByRecord();
    // A sample, as each lookup scans the whole MFT.
    std::size_t step = std::max<std::size_t>(1, paths.size() / 25), i = 0, found = 0;
    for (const auto& [real, names] : paths) {
        if (i++ % step != 0 || names.size() != 1)
            continue;
        if (fileNameHitsFixup(rawRecord(real)))
            continue;
        const std::string path = VOLUME_PATH + kestrow::test::windowsPath(names[0]);
        orv::Array<FileRecord> records;
        ASSERT_TRUE(table().findMftRecordsByPath(orv::String::fromUtf8(path), records));
        std::vector<std::uint64_t> indexes;
        for (const FileRecord& record : records)
            indexes.push_back(record.mftIndex().index);
        EXPECT_NE(std::find(indexes.begin(), indexes.end(), *facts().slotOf(real)), indexes.end())
            << path;
        ++found;
    }
    EXPECT_GT(found, 3u);
}

TEST_P(MftOnImage, LastActiveRecordIsTheHighestInUseRecordWithClusters) {
    ASSERT_TRUE(facts().slots.size() == 1 || facts().facts->bytesPerSector < facts().bytesPerRecord)
        << "phantom slots would shift the records of later runs: not worked out here";
    // ntfscluster finds, in one pass, the files that own clusters and the
    // extension records it meets; istat then tells which of the highest of
    // those records holds runs itself (an extension record's runs count for
    // it, not for its base).
    const oracle::ClusterUsers users =
        oracle::clusterUsers(image(), facts().facts->volumeOffset, facts().facts->volumeSize);
    std::set<std::uint64_t> candidates = users.files;
    candidates.insert(users.extensions.begin(), users.extensions.end());
    std::optional<std::uint64_t> expected;
    for (auto real = candidates.rbegin(); real != candidates.rend() && *real > 0 && !expected;
         ++real) {
        const oracle::IstatResult record =
            oracle::inspectRecord(image(), *real, facts().sectorOffset);
        if (!record.allocated)
            continue;
        for (const oracle::IstatAttribute& attribute : record.attributes) {
            const auto runs = attribute.runs();
            if (!attribute.resident &&
                std::any_of(runs.begin(), runs.end(), [](const auto& r) { return !r.sparse; }))
                expected = *real;
        }
    }
    ASSERT_TRUE(expected.has_value());
    EXPECT_EQ(table().getLastActiveRecord().index, *facts().slotOf(*expected));
}

TEST_P(MftOnImage, ClustersOfTheMftHoldItsRecords) {
    const std::uint64_t bpc = facts().facts->bytesPerCluster;
    const std::uint64_t bpr = facts().bytesPerRecord;
    // A cluster that holds whole records names exactly those. One smaller
    // than a record is counted from where it starts, and that is kept: a
    // cluster that starts a record names none, the next one (which starts
    // inside it) names that record and the one after.
    const bool wholeRecords = bpc % bpr == 0;
    ASSERT_TRUE(wholeRecords || bpr == 2 * bpc)
        << bpc << "-byte clusters, " << bpr << "-byte records: not worked out here";
    const std::uint64_t base = facts().facts->volumeOffset / bpc;
    const oracle::IstatResult mftRecord = oracle::inspectRecord(image(), 0, facts().sectorOffset);
    const oracle::IstatAttribute* mftData = mftRecord.find(oracle::kData);
    ASSERT_NE(mftData, nullptr);
    const std::uint64_t mftDataClusters = (mftData->size + bpc - 1) / bpc;
    for (const MftFacts::Slots& s : facts().slots) {
        if (!s.lcn)
            continue;
        // Clusters into the run, and the slots each names.
        std::vector<std::pair<std::uint64_t, std::vector<std::uint64_t>>> clusters;
        if (wholeRecords) {
            // The run's second cluster (or its only one): the records whose
            // bytes its drive cluster covers. On a volume that starts inside a
            // drive cluster (at sector 63) those are parts of two of its clusters.
            const std::uint64_t perCluster = bpc / bpr;
            const std::uint64_t within = s.realCount / perCluster > 1 ? 1 : 0;
            const std::uint64_t driveFirst = (base + *s.lcn + within) * bpc;
            const std::uint64_t runStart = s.startSector * facts().facts->bytesPerSector;
            std::vector<std::uint64_t> slots;
            for (std::uint64_t k = 0; k < s.slotCount; ++k)
                if (runStart + k * bpr < driveFirst + bpc && runStart + (k + 1) * bpr > driveFirst)
                    slots.push_back(s.firstSlot + k);
            clusters.emplace_back(within, slots);
        } else {
            clusters.emplace_back(0, std::vector<std::uint64_t>{});
            clusters.emplace_back(1, std::vector<std::uint64_t>{s.firstSlot, s.firstSlot + 1});
        }
        for (const auto& [within, expected] : clusters) {
            const std::uint64_t cluster = *s.lcn + within;
            // ifind names the $MFT for clusters that hold its data; clusters
            // it has allocated past its data size have no owner there.
            const std::uint64_t vcn = s.firstReal * bpr / bpc + within;
            const auto owner = oracle::findClusterOwner(image(), cluster, facts().sectorOffset);
            if (vcn < mftDataClusters) {
                ASSERT_TRUE(owner.has_value()) << "cluster " << cluster;
                EXPECT_EQ(owner->inode, 0u) << "ifind names the $MFT";
            }

            orv::Array<FileReference> refs;
            ASSERT_TRUE(table().findRecordClusterInMft(base + cluster, refs));
            std::vector<std::uint64_t> ours;
            for (const FileReference& ref : refs)
                ours.push_back(ref.index);
            EXPECT_EQ(ours, expected) << "cluster " << cluster;

            FileReference ref(0, 0);
            EXPECT_TRUE(table().findRecordCluster(base + cluster, ref));
            EXPECT_EQ(ref.index, 0u);
        }
    }
    // A cluster before the MFT is none of its.
    orv::Array<FileReference> none;
    EXPECT_FALSE(table().findRecordClusterInMft(base, none));
}

INSTANTIATE_TEST_SUITE_P(Fixtures, MftOnImage,
                         ::testing::Values(FixtureImage::Bare, FixtureImage::MbrDisk,
                                           FixtureImage::GptDisk, FixtureImage::Sector4k,
                                           FixtureImage::Cluster512, FixtureImage::Cluster64k,
                                           FixtureImage::LegacyMbrDisk, FixtureImage::Rich),
                         kestrow::test::ImageTestName());

// ---- Cluster owners of ordinary files --------------------------------------------------

namespace {

struct OwnerCase {
    FixtureImage image;
    std::string_view path;
    std::size_t run; // which of the file's runs to take a cluster from
};

// Without it GoogleTest prints a case byte by byte, padding included, which
// Valgrind rightly reports as a read of uninitialised memory.
void PrintTo(const OwnerCase& c, std::ostream* out) {
    *out << c.path << " (run " << c.run << ")";
}

} // namespace

class MftClusterOwner : public ::testing::TestWithParam<OwnerCase> {};

TEST_P(MftClusterOwner, FindRecordClusterAgreesWithIfind) {
    const OwnerCase& c = GetParam();
    const fs::path image = kestrow::test::imagePath(c.image);
    const MftFacts& facts = cachedFacts(c.image);
    const auto real = oracle::findInode(image, c.path, facts.sectorOffset);
    ASSERT_TRUE(real.has_value()) << c.path;
    const oracle::IstatResult record = oracle::inspectRecord(image, *real, facts.sectorOffset);
    const oracle::IstatAttribute* data = record.find(oracle::kData);
    ASSERT_NE(data, nullptr);
    const auto runs = data->runs();
    ASSERT_GT(runs.size(), c.run) << c.path << " has fewer runs";
    const std::uint64_t cluster = runs[c.run].firstCluster + runs[c.run].count / 2;
    const auto owner = oracle::findClusterOwner(image, cluster, facts.sectorOffset);
    ASSERT_TRUE(owner.has_value());
    ASSERT_EQ(owner->inode, *real);

    OpenedImage opened(image);
    ASSERT_TRUE(opened.table.initialized());
    MasterFileTable& table = opened.table;
    const std::uint64_t base = facts.facts->volumeOffset / facts.facts->bytesPerCluster;
    const std::uint64_t last = table.getLastActiveRecord().index;

    FileReference ref(0, 0);
    ASSERT_TRUE(table.findRecordCluster(base + cluster, ref));
    EXPECT_EQ(ref.index, *facts.slotOf(*real));
    // From past the owner nobody else claims it.
    ++ref;
    EXPECT_FALSE(table.findRecordCluster(base + cluster, ref));
    EXPECT_EQ(ref.index, last + 1);

    // A cluster nobody owns.
    const std::vector<bool> used = oracle::allocatedClusters(image, facts.sectorOffset);
    std::uint64_t free = 0;
    while (free < used.size() && used[free])
        ++free;
    ASSERT_LT(free, used.size());
    ASSERT_FALSE(oracle::findClusterOwner(image, free, facts.sectorOffset).has_value());
    FileReference fromStart(0, 0);
    EXPECT_FALSE(table.findRecordCluster(base + free, fromStart));
    EXPECT_EQ(fromStart.index, last + 1);
}

INSTANTIATE_TEST_SUITE_P(
    Fixtures, MftClusterOwner,
    ::testing::Values(OwnerCase{FixtureImage::Rich, kestrow::test::rich::kFragmentedA, 1},
                      OwnerCase{FixtureImage::Rich, kestrow::test::rich::kFragmentedB, 2},
                      OwnerCase{FixtureImage::MbrDisk, kestrow::test::kReportPath, 0},
                      OwnerCase{FixtureImage::GptDisk, kestrow::test::kReportPath, 0}),
    [](const ::testing::TestParamInfo<OwnerCase>& info) {
        return std::string(kestrow::test::factsOf(info.param.image).fileName.substr(0, 4)) +
               std::to_string(info.index);
    });

// ---- A hostile image whose parent references loop --------------------------------------------

TEST(MftHostileImage, ParentLoopsReturnFromEveryWalk) {
    const fs::path original = kestrow::test::mbrDisk();
    const MftFacts& facts = cachedFacts(FixtureImage::MbrDisk);
    const auto docs = oracle::findInode(original, kestrow::test::kDocsDir, facts.sectorOffset);
    const auto sub = oracle::findInode(original, kestrow::test::kSubDir, facts.sectorOffset);
    const auto deep = oracle::findInode(original, kestrow::test::kDeepTextPath, facts.sectorOffset);
    ASSERT_TRUE(docs && sub && deep);

    // Docs becomes the child of its own child Sub.
    kestrow::test::ScratchImage scratch(original);
    ASSERT_GT(kestrow::test::patchFileNameParents(scratch, *facts.imageOffsetOf(*docs),
                                                  facts.bytesPerRecord, *sub),
              0);

    OpenedImage opened(scratch.path());
    ASSERT_TRUE(opened.table.initialized());
    MasterFileTable& table = opened.table;
    ASSERT_TRUE(table.buildRecordMap());
    const std::uint64_t deepSlot = *facts.slotOf(*deep);
    EXPECT_EQ(utf8(table.findParentPath(FileReference(deepSlot, 0))), "Docs\\Sub\\deep.txt");
    EXPECT_EQ(utf8(table.findParentPath(FileReference(*facts.slotOf(*docs), 0))), "Sub\\Docs");
    FileRecord deepRecord;
    ASSERT_TRUE(table.getValidMftRecord(FileReference(deepSlot, 0), deepRecord));
    EXPECT_EQ(utf8(table.findParentPath(deepRecord)), "Docs\\Sub\\");
    orv::Array<FileRecord> records;
    EXPECT_TRUE(table.findMftRecordsByPath(orv::String("\\\\.\\C:\\Docs\\Sub\\deep.txt"), records));
    EXPECT_EQ(records.size(), 0u);
    // Files outside the loop keep their paths.
    const auto readme = oracle::findInode(original, kestrow::test::kReadmePath, facts.sectorOffset);
    EXPECT_EQ(utf8(table.findParentPath(FileReference(*facts.slotOf(*readme), 0))),
              "\\\\.\\C:\\Readme.txt");
}

// ---- Deleted records, phantom slots, index blocks ------------------------------------------

TEST(MftRichImage, DeletedRecordsHaveNoPathAndNoEntry) {
    const fs::path image = kestrow::test::richVolume();
    const MftFacts& facts = cachedFacts(FixtureImage::Rich);
    OpenedImage opened(image);
    ASSERT_TRUE(opened.table.initialized());
    ASSERT_TRUE(opened.table.buildRecordMap());

    std::size_t deleted = 0;
    for (const oracle::FlsEntry& entry :
         oracle::listFiles(image, 0, oracle::FlsSelection::DeletedOnly)) {
        if (entry.path.starts_with("$OrphanFiles") || entry.reallocated)
            continue;
        const std::string istat =
            oracle::runToolChecked({"istat", image.string(), std::to_string(entry.inode)});
        if (istat.find("\nNot Allocated ") == std::string::npos)
            continue; // the record was reused
        const std::uint64_t slot = *facts.slotOf(entry.inode);
        EXPECT_FALSE(opened.table.getRecordHashTable().contains(slot)) << entry.path;
        EXPECT_EQ(utf8(opened.table.findParentPath(FileReference(slot, 0))), "") << entry.path;
        FileRecord record;
        EXPECT_FALSE(opened.table.getValidMftRecord(FileReference(slot, 0), record));
        orv::Array<FileRecord> found;
        EXPECT_TRUE(opened.table.findMftRecordsByPath(
            orv::String::fromUtf8(VOLUME_PATH + kestrow::test::windowsPath(entry.path)), found));
        EXPECT_EQ(found.size(), 0u) << entry.path;
        ++deleted;
    }
    EXPECT_GE(deleted, 4u) << "the rich image deletes a file, a directory and its child";
}

TEST(MftRichImage, PostProcessingListsTheIndexBlockChildren) {
    const fs::path image = kestrow::test::richVolume();
    const MftFacts& facts = cachedFacts(FixtureImage::Rich);
    const auto big = oracle::findInode(image, kestrow::test::rich::kBigDir);
    ASSERT_TRUE(big.has_value());
    std::set<std::uint64_t> children;
    for (const oracle::FlsEntry& entry :
         oracle::listFiles(image, 0, oracle::FlsSelection::AllocatedOnly))
        if (entry.path.starts_with(std::string(kestrow::test::rich::kBigDir) + "/") &&
            entry.streamName().empty())
            children.insert(entry.inode);
    ASSERT_EQ(children.size(), static_cast<std::size_t>(kestrow::test::rich::kBigDirEntries));

    OpenedImage opened(image);
    ASSERT_TRUE(opened.table.initialized());
    FileRecord directory;
    ASSERT_TRUE(opened.table.getValidMftRecord(FileReference(*facts.slotOf(*big), 0), directory));
    const std::size_t fromRoot = directory.getIndexEntries().size();
    opened.table.postProcessFileRecord(directory);
    const orv::Array<unsigned long long>& entries = directory.getIndexEntries();
    EXPECT_GT(entries.size(), fromRoot) << "the index blocks add children";
    std::size_t known = 0;
    for (const unsigned long long entry : entries)
        known += children.count(entry);
    // Every entry names a child; the unapplied fix-ups may end a block's walk
    // early, so only most children need to be found.
    EXPECT_EQ(known, entries.size());
    EXPECT_GE(known * 10, children.size() * 9) << known << " of " << children.size();
}
