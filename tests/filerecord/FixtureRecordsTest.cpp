// Every record slot of every fixture image, parsed as the library reads it
// (without fix-ups) and after the fix-ups, compared with The Sleuth Kit.
#include "support/Fixtures.h"
#include "support/Oracle.h"
#include "support/WalkAsDesigned.h"

#include <kestrow/Disks.h>
#include <kestrow/Platform.h>
#include <libKestrow/FileRecord.h>
#include <libKestrow/Volume.h>

#include "FileRecordInternals.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>

namespace kestrow::test {
namespace {

namespace oracle = kestrow::test::oracle;
using Bytes = std::vector<std::uint8_t>;

std::uint64_t le(const std::uint8_t* p, unsigned width) {
    std::uint64_t value = 0;
    for (unsigned i = 0; i < width; ++i)
        value |= std::uint64_t(p[i]) << (8 * i);
    return value;
}

// The stride of the update sequence array: every 512 bytes, whatever the
// sector size.
constexpr std::size_t FIXUP_STRIDE = 512;

std::vector<std::size_t> fixupPositions(const Bytes& raw) {
    std::vector<std::size_t> positions;
    const std::size_t usaCount = le(&raw[6], 2);
    for (std::size_t i = 1; i < usaCount; ++i)
        positions.push_back(i * FIXUP_STRIDE - 2);
    return positions;
}

// Everything a parse yields, comparable as a whole.
struct Facts {
    bool valid = false;
    std::string name;
    std::uint64_t parent = 0;
    std::uint64_t parentSequence = 0;
    std::uint64_t creation = 0, modification = 0, access = 0;
    std::uint32_t flags = 0;
    std::uint64_t allocated = 0, real = 0, dataSize = 0;
    std::vector<std::pair<std::string, bool>> attributes;
    std::vector<std::uint64_t> external, indexEntries;
    std::vector<std::pair<std::uint64_t, std::uint64_t>> ranges;

    bool operator==(const Facts&) const = default;

    explicit Facts(const FileRecord& r)
        : valid(r.isValid()), name(r.name().toUtf8()), parent(r.parentMftIndex().index),
          parentSequence(r.parentMftIndex().sequence), creation(r.getCreationTime()),
          modification(r.getModificationTime()), access(r.getLastReadTime()),
          flags(r.getFileAttributes()), allocated(r.allocatedSize()), real(r.realSize()),
          dataSize(r.dataSize()) {
        for (const AttributeSummary& a : r.getAttributes())
            attributes.emplace_back(a.name.toUtf8(), a.resident);
        external.assign(r.getExternalAttributeReferences().begin(),
                        r.getExternalAttributeReferences().end());
        indexEntries.assign(r.getIndexEntries().begin(), r.getIndexEntries().end());
        for (const ClusterRange& c : r.getClusterRanges())
            ranges.emplace_back(c.count, c.start);
    }
};

// Days from 1601-01-01 (proleptic Gregorian) to the date.
std::int64_t daysFrom1601(int y, unsigned m, unsigned d) {
    y -= m <= 2;
    const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    const std::int64_t sinceEpoch = era * 146097 + static_cast<std::int64_t>(doe) - 719468;
    return sinceEpoch + 134774; // 1601-01-01 .. 1970-01-01
}

constexpr std::uint64_t NTFS_1970 = 116444736000000000ULL;

// istat's "2026-11-22 07:40:10.488824700 (UTC)" as an NTFS time; istat shows
// every time up to the first second of 1970 as "0000-00-00 00:00:00".
bool timeMatches(const std::string& text, std::uint64_t ntfsTime) {
    if (text.starts_with("0000-00-00"))
        return ntfsTime < NTFS_1970 + 10000000ULL;
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    char fraction[16] = {0};
    if (std::sscanf(text.c_str(), "%d-%d-%d %d:%d:%d.%9[0-9]", &year, &month, &day, &hour, &minute,
                    &second, fraction) < 6)
        return false;
    std::string digits(fraction);
    digits.resize(9, '0');
    const std::uint64_t nanoseconds = std::stoull(digits);
    const std::int64_t seconds =
        daysFrom1601(year, month, day) * 86400 + hour * 3600 + minute * 60 + second;
    return static_cast<std::uint64_t>(seconds) * 10000000ULL + nanoseconds / 100 == ntfsTime;
}

// The $FILE_NAME flags as The Sleuth Kit names them.
std::string flagNames(std::uint32_t flags) {
    static const std::pair<std::uint32_t, const char*> NAMES[] = {
        {0x10000000, "Directory"}, {0x20000000, "Index View"},
        {0x1, "Read Only"},        {0x2, "Hidden"},
        {0x4, "System"},           {0x20, "Archive"},
        {0x40, "Device"},          {0x80, "Normal"},
        {0x100, "Temporary"},      {0x200, "Sparse"},
        {0x400, "Reparse Point"},  {0x800, "Compressed"},
        {0x1000, "Offline"},       {0x2000, "Not Content Indexed"},
        {0x4000, "Encrypted"}};
    std::set<std::string> names;
    for (const auto& [bit, text] : NAMES)
        if (flags & bit)
            names.insert(text);
    std::string joined;
    for (const std::string& n : names)
        joined += (joined.empty() ? "" : ", ") + n;
    return joined;
}

std::string sortedFlags(const std::string& istatFlags) {
    std::set<std::string> names;
    std::istringstream in(istatFlags);
    std::string piece;
    while (std::getline(in, piece, ',')) {
        while (!piece.empty() && piece.front() == ' ')
            piece.erase(piece.begin());
        if (!piece.empty())
            names.insert(piece);
    }
    std::string joined;
    for (const std::string& n : names)
        joined += (joined.empty() ? "" : ", ") + n;
    return joined;
}

// ---- One image, attached -------------------------------------------------------------

class ImageUnderTest {
public:
    explicit ImageUnderTest(const ImageFacts& facts) : m_facts(facts) {
        m_path = imagePath(facts.image);
        std::string error;
        if (!platform::attachDisks({m_path.string()}, error))
            throw std::runtime_error("cannot attach " + m_path.string() + ": " + error);
        for (const platform::VolumeInfo& v : platform::attachedVolumes())
            if (v.fileSystem == "NTFS")
                m_letter = v.letter;
        if (m_letter == 0)
            throw std::runtime_error("no NTFS volume on " + m_path.string());
        m_volume = std::make_unique<Volume>(m_letter);

        const Bytes boot = readFileBytes(m_path, facts.volumeOffset, 512);
        const std::int8_t clustersPerRecord = static_cast<std::int8_t>(boot[0x40]);
        m_recordSize = clustersPerRecord > 0 ? clustersPerRecord * facts.bytesPerCluster
                                             : 1u << -clustersPerRecord;
        // The MFT's own clusters, from The Sleuth Kit.
        const oracle::IstatResult mft = oracle::inspectRecord(m_path, 0, sectorOffset());
        const oracle::IstatAttribute* data = mft.find(oracle::kData);
        if (data == nullptr)
            throw std::runtime_error("istat shows no $DATA for $MFT");
        for (std::uint64_t cluster : data->clusters) {
            const Bytes bytes =
                readFileBytes(m_path, facts.volumeOffset + cluster * facts.bytesPerCluster,
                              facts.bytesPerCluster);
            m_mft.insert(m_mft.end(), bytes.begin(), bytes.end());
        }
        m_mft.resize(std::min<std::uint64_t>(m_mft.size(), data->size));
    }
    ~ImageUnderTest() {
        m_volume.reset();
        std::string error;
        platform::attachDisks({}, error);
    }

    const ImageFacts& facts() const { return m_facts; }
    const std::filesystem::path& path() const { return m_path; }
    Volume& volume() { return *m_volume; }
    std::uint64_t sectorOffset() const { return m_facts.volumeOffset / 512; }
    std::uint64_t baseCluster() const { return m_facts.volumeOffset / m_facts.bytesPerCluster; }
    std::uint64_t recordCount() const { return m_mft.size() / m_recordSize; }
    std::uint32_t recordSize() const { return m_recordSize; }

    Bytes record(std::uint64_t index) const {
        const auto* first = m_mft.data() + index * m_recordSize;
        return Bytes(first, first + m_recordSize);
    }

    FileRecord parse(Bytes& bytes, std::uint64_t index) {
        orv::Buffer<unsigned char> buffer(bytes.data(), bytes.size());
        return FileRecord(buffer, FileReference(index, 0), *m_volume);
    }

private:
    const ImageFacts& m_facts;
    std::filesystem::path m_path;
    char m_letter = 0;
    std::unique_ptr<Volume> m_volume;
    std::uint32_t m_recordSize = 0;
    Bytes m_mft;
};

std::string imageName(const ImageFacts& facts) {
    return std::string(facts.fileName);
}

class FixtureRecords : public ::testing::TestWithParam<FixtureImage> {};

// ---- Every slot: raw against fixed ----------------------------------------------------

TEST_P(FixtureRecords, EverySlotParsesAndRawDiffersOnlyAtFixupPositions) {
    ImageUnderTest image(factsOf(GetParam()));
    ASSERT_TRUE(image.volume().initialized());
    ASSERT_EQ(image.volume().bytesPerFileRecord(), image.recordSize());
    ASSERT_GT(image.recordCount(), 16u);

    std::size_t inUse = 0, differing = 0, torn = 0;
    for (std::uint64_t index = 0; index < image.recordCount(); ++index) {
        Bytes raw = image.record(index);
        const FileRecord rawRecord = image.parse(raw, index);
        const bool expectedValid =
            std::memcmp(raw.data(), "FILE", 4) == 0 && (le(&raw[0x16], 2) & 1) != 0;
        EXPECT_EQ(rawRecord.isValid(), expectedValid) << "record " << index;
        if (!expectedValid)
            continue;
        ++inUse;
        std::optional<Bytes> fixed = applyFixups(raw);
        if (!fixed) {
            ++torn;
            continue;
        }
        const FileRecord fixedRecord = image.parse(*fixed, index);
        if (Facts(rawRecord) == Facts(fixedRecord))
            continue;
        ++differing;
        // The parses differ: some fix-up position must lie inside an attribute,
        // and putting back the update sequence number there alone must bring
        // the raw parse back.
        bool explained = false;
        for (std::size_t position : fixupPositions(raw)) {
            bool insideAttribute = false;
            for (const RawAttribute& attribute : rawAttributes(*fixed))
                insideAttribute |=
                    position >= attribute.offset && position < attribute.offset + attribute.length;
            if (!insideAttribute)
                continue;
            Bytes partly = *fixed;
            partly[position] = raw[position];
            partly[position + 1] = raw[position + 1];
            if (Facts(image.parse(partly, index)) == Facts(rawRecord))
                explained = true;
        }
        EXPECT_TRUE(explained) << "record " << index << " of " << imageName(image.facts())
                               << " differs without a fix-up inside an attribute";
    }
    EXPECT_EQ(torn, 0u);
    std::printf("%s: %llu slots, %zu in use, %zu differ only by fix-ups\n",
                imageName(image.facts()).c_str(), (unsigned long long)image.recordCount(), inUse,
                differing);
}

// ---- The summary-only parse of the MFT's own walks ------------------------------------

TEST_P(FixtureRecords, SummaryParseOfEverySlotMatchesTheFullParseButForItsLeftOuts) {
    ImageUnderTest image(factsOf(GetParam()));
    ASSERT_TRUE(image.volume().initialized());
    // One record reused for every slot, as the walks do, after a full parse
    // has filled its summaries and entries.
    FileRecord reused;
    std::size_t withSummaries = 0, withEntries = 0;
    for (std::uint64_t index = 0; index < image.recordCount(); ++index) {
        Bytes raw = image.record(index);
        const FileRecord full = image.parse(raw, index);
        orv::Buffer<unsigned char> buffer(raw.data(), raw.size());
        FileRecordParser::reparse(reused, buffer, FileReference(index, 0), image.volume(),
                                  ParseDetail::FULL);
        FileRecordParser::reparse(reused, buffer, FileReference(index, 0), image.volume(),
                                  ParseDetail::SUMMARY);
        Facts expected(full);
        withSummaries += expected.attributes.empty() ? 0 : 1;
        withEntries += expected.indexEntries.empty() ? 0 : 1;
        expected.attributes.clear();
        expected.indexEntries.clear();
        EXPECT_TRUE(Facts(reused) == expected) << "record " << index;
        EXPECT_EQ(reused.getAttributes().capacity(), 8u) << "record " << index;
    }
    // The comparison left something out on this image.
    EXPECT_GT(withSummaries, 16u);
    EXPECT_GT(withEntries, 0u);
}

// ---- In-use records against istat ----------------------------------------------------

struct Checked {
    std::size_t records = 0;
    std::size_t withRuns = 0;
};

void compareWithIstat(ImageUnderTest& image, std::uint64_t index, const FileRecord& record,
                      Checked& checked) {
    SCOPED_TRACE(imageName(image.facts()) + " record " + std::to_string(index));
    const std::string text =
        oracle::runToolChecked({"istat", "-z", "UTC", "-o", std::to_string(image.sectorOffset()),
                                image.path().string(), std::to_string(index)});
    const oracle::IstatResult istat = oracle::parseIstat(text);
    ++checked.records;

    // The name rule applied to istat's names, in record order.
    const oracle::IstatFileName* chosen = nullptr;
    const oracle::IstatFileName* last = nullptr;
    bool longTaken = false;
    for (const oracle::IstatFileName& n : istat.fileNames) {
        if (n.name.empty())
            continue;
        last = &n;
        if (chosen != nullptr && longTaken)
            continue;
        if (!(chosen == nullptr && designed::isShort(utf8ToUtf16(n.name))))
            longTaken = true;
        chosen = &n;
    }
    if (chosen == nullptr) {
        EXPECT_TRUE(record.name().empty());
        return;
    }
    EXPECT_EQ(record.name().toUtf8(), chosen->name);
    EXPECT_EQ(record.parentMftIndex().index, last->parent);
    EXPECT_EQ(record.parentMftIndex().sequence, last->parentSequence);
    EXPECT_TRUE(timeMatches(chosen->created, record.getCreationTime())) << chosen->created;
    EXPECT_TRUE(timeMatches(chosen->modified, record.getModificationTime())) << chosen->modified;
    EXPECT_TRUE(timeMatches(chosen->accessed, record.getLastReadTime())) << chosen->accessed;
    EXPECT_EQ(flagNames(record.getFileAttributes()), sortedFlags(chosen->flags));
    if ((record.getFileAttributes() & 0x10000000) != 0) {
        EXPECT_NE(record.getFileAttributes() & 0x10, 0u);
    }

    // Data size and runs are the base record's own only without an attribute
    // list (istat also shows the attributes of the extension records).
    if (istat.has(oracle::kAttributeList))
        return;
    const oracle::IstatAttribute* data = istat.find(oracle::kData);
    EXPECT_EQ(record.dataSize(), data != nullptr ? data->size : 0u);

    // istat lists every cluster of each non-resident attribute in order, a 0
    // for a sparse cluster and also for one past the initialised size (then
    // it says nothing about that cluster). A run at volume cluster 0 (only
    // $Boot has one) is written with a zero offset, which the decoder refuses
    // by design: nothing of that attribute is kept.
    std::vector<std::optional<std::uint64_t>> expected;
    for (const oracle::IstatAttribute& a : istat.attributes) {
        if (a.resident)
            continue;
        if (!a.sparse && !a.clusters.empty() && a.clusters.front() == 0)
            continue;
        for (std::uint64_t cluster : a.clusters) {
            if (cluster != 0)
                expected.push_back(cluster + image.baseCluster());
            else if (!a.sparse)
                expected.push_back(std::nullopt);
        }
    }
    std::vector<std::uint64_t> actual;
    for (const ClusterRange& range : record.getClusterRanges())
        for (std::uint64_t c = 0; c < range.count; ++c)
            actual.push_back(range.start + c);
    ASSERT_EQ(actual.size(), expected.size());
    for (std::size_t i = 0; i < actual.size(); ++i)
        if (expected[i]) {
            EXPECT_EQ(actual[i], *expected[i]) << "cluster " << i;
        }
    if (!expected.empty())
        ++checked.withRuns;
}

TEST_P(FixtureRecords, InUseRecordsAgreeWithIstatAfterFixups) {
    ImageUnderTest image(factsOf(GetParam()));
    // Records under a parent with many children (the bulk directories) are
    // alike: every seventh of them is compared, all the others are;
    // KESTROW_ORACLE_EVERY_RECORD=1 compares every one (a few minutes).
    const bool everyRecord = std::getenv("KESTROW_ORACLE_EVERY_RECORD") != nullptr;
    std::map<std::uint64_t, std::size_t> childrenOf;
    std::vector<std::pair<std::uint64_t, Bytes>> candidates;
    for (std::uint64_t index = 0; index < image.recordCount(); ++index) {
        Bytes raw = image.record(index);
        std::optional<Bytes> fixed = applyFixups(raw);
        if (!fixed || std::memcmp(fixed->data(), "FILE", 4) != 0 ||
            (le(&(*fixed)[0x16], 2) & 1) == 0)
            continue;
        if (le(&(*fixed)[0x20], 8) != 0)
            continue; // an extension record: its base record speaks for it
        const FileRecord record = image.parse(*fixed, index);
        ++childrenOf[record.parentMftIndex().index];
        candidates.emplace_back(index, std::move(*fixed));
    }
    Checked checked;
    for (auto& [index, bytes] : candidates) {
        const FileRecord record = image.parse(bytes, index);
        const bool bulk = childrenOf[record.parentMftIndex().index] > 40;
        if (bulk && index % 7 != 0 && !everyRecord)
            continue;
        compareWithIstat(image, index, record, checked);
    }
    std::printf("%s: %zu base records in use, %zu compared with istat (%zu with runs)\n",
                imageName(image.facts()).c_str(), candidates.size(), checked.records,
                checked.withRuns);
    EXPECT_GT(checked.withRuns, 3u);
}

// ---- Directories: postProcess against fls ------------------------------------------------

TEST_P(FixtureRecords, PostProcessListsEveryChildThatFlsLists) {
    ImageUnderTest image(factsOf(GetParam()));
    const std::vector<oracle::FlsEntry> entries =
        oracle::listFiles(image.path(), image.sectorOffset(), oracle::FlsSelection::AllocatedOnly);
    // Children by directory path ("" for the root), from the names fls lists.
    std::map<std::string, std::set<std::uint64_t>> children;
    std::map<std::string, std::uint64_t> directories = {{"", 5}};
    for (const oracle::FlsEntry& e : entries) {
        // Named streams are not directory entries; $OrphanFiles is The Sleuth
        // Kit's own virtual directory.
        if (!e.streamName().empty() || e.nameType == 'V' || e.path.starts_with("$OrphanFiles"))
            continue;
        const std::string path = e.filePath();
        const std::size_t slash = path.rfind('/');
        children[slash == std::string::npos ? "" : path.substr(0, slash)].insert(e.inode);
        if (e.isDirectory())
            directories[path] = e.inode;
    }

    VolumeHandle drive;
    ASSERT_TRUE(
        drive.open(orv::CreateFileOpenArgs(orv::String("\\\\.\\PhysicalDrive0"), GENERIC_READ,
                                           FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING, 0)));
    std::size_t withBlocks = 0, cutByFixups = 0;
    for (const auto& [path, inode] : directories) {
        SCOPED_TRACE(imageName(image.facts()) + " directory \"" + path + "\"");
        Bytes raw = image.record(inode);
        std::optional<Bytes> fixed = applyFixups(raw);
        ASSERT_TRUE(fixed.has_value());
        FileRecord asRead = image.parse(raw, inode);
        FileRecord afterFixups = image.parse(*fixed, inode);
        ASSERT_TRUE(asRead.isValid());
        const bool sameParse = Facts(asRead) == Facts(afterFixups);
        const std::size_t fromRoot = afterFixups.getIndexEntries().size();

        // After the fix-ups the record's index allocation is whole: every
        // child fls lists is found in its blocks (read as they are), once.
        afterFixups.postProcess(drive);
        const std::vector<std::uint64_t> listed(afterFixups.getIndexEntries().begin(),
                                                afterFixups.getIndexEntries().end());
        const std::set<std::uint64_t> unique(listed.begin(), listed.end());
        EXPECT_EQ(unique.size(), listed.size()) << "a child listed twice";
        for (std::uint64_t child : children[path])
            EXPECT_TRUE(unique.count(child)) << "child " << child << " missing";
        if (listed.size() > fromRoot)
            ++withBlocks;
        // A second pass adds nothing.
        afterFixups.postProcess(drive);
        EXPECT_EQ(afterFixups.getIndexEntries().size(), listed.size());

        // As the library reads the record: the same children, unless a fix-up
        // position lies inside the record's fields (the first test shows which);
        // then a run list read with the update sequence number in it may end
        // early, and fewer children are found, never others.
        asRead.postProcess(drive);
        const std::vector<std::uint64_t> listedAsRead(asRead.getIndexEntries().begin(),
                                                      asRead.getIndexEntries().end());
        if (sameParse) {
            EXPECT_EQ(listedAsRead, listed);
        } else {
            ++cutByFixups;
            for (std::uint64_t child : listedAsRead)
                EXPECT_TRUE(unique.count(child)) << "child " << child << " from nowhere";
            std::printf("%s: directory \"%s\" has a fix-up inside a field: %zu of %zu children "
                        "found as read\n",
                        imageName(image.facts()).c_str(), path.c_str(), listedAsRead.size(),
                        listed.size());
        }
    }
    std::printf("%s: %zu directories, %zu with index blocks, %zu cut by fix-ups\n",
                imageName(image.facts()).c_str(), directories.size(), withBlocks, cutByFixups);
    EXPECT_GT(withBlocks, 0u); // the root at least, on every image
}

INSTANTIATE_TEST_SUITE_P(AllImages, FixtureRecords,
                         ::testing::Values(FixtureImage::Bare, FixtureImage::MbrDisk,
                                           FixtureImage::GptDisk, FixtureImage::Sector4k,
                                           FixtureImage::Cluster512, FixtureImage::Cluster64k,
                                           FixtureImage::Rich),
                         ImageTestName());

} // namespace
} // namespace kestrow::test
