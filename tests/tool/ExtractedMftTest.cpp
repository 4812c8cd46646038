// kestrow on a file that holds only a volume's $MFT, as collection tools copy
// it off a running system (here extracted with icat): the same records and
// paths as on the volume it came from, the geometry fsstat reads from the
// boot sector, and one-line failures for what only the disk could give.
#include "support/FieldDisk.h"
#include "support/Fixtures.h"
#include "support/Oracle.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include <unistd.h>

namespace fs = std::filesystem;
namespace oracle = kestrow::test::oracle;
using kestrow::test::FixtureImage;
using kestrow::test::ImageFacts;

namespace {

oracle::ToolOutput kestrow(const fs::path& disk, std::vector<std::string> arguments) {
    std::vector<std::string> argv = {KESTROW_TOOL_PATH, "--disk", disk.string()};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return oracle::runTool(argv);
}

std::string kestrowOk(const fs::path& disk, std::vector<std::string> arguments) {
    const oracle::ToolOutput result = kestrow(disk, arguments);
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.err, "");
    return result.out;
}

std::uint64_t jsonNumber(const std::string& json, const std::string& key) {
    std::smatch match;
    if (!std::regex_search(json, match, std::regex("\"" + key + "\": ([0-9]+)")))
        return UINT64_MAX;
    return std::stoull(match[1]);
}

// The extracted files of this process, removed when it ends.
fs::path scratchDir() {
    struct Removed {
        fs::path dir =
            fs::temp_directory_path() / ("kestrow-extracted-mft-" + std::to_string(::getpid()));
        ~Removed() {
            std::error_code ignored;
            fs::remove_all(dir, ignored);
        }
    };
    static const Removed scratch;
    fs::create_directories(scratch.dir);
    return scratch.dir;
}

void writeFile(const fs::path& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out)
        throw std::runtime_error("cannot write " + path.string());
}

// The $MFT of the NTFS volume at `sectorOffset` of `image`, as icat reads it.
fs::path extractMft(const fs::path& image, std::uint64_t sectorOffset, const std::string& name) {
    const fs::path file = scratchDir() / (name + ".mft");
    writeFile(file, oracle::readContent(image, 0, sectorOffset));
    return file;
}

fs::path extractMft(const ImageFacts& facts) {
    return extractMft(kestrow::test::imagePath(facts.image), facts.volumeOffset / 512,
                      std::string(facts.fileName));
}

std::string rootListing(const fs::path& mftFile) {
    return kestrowOk(mftFile, {"ls", "C:", "\\"});
}

void expectSystemFilesListed(const std::string& listing) {
    for (const char* name :
         {"$MFT", "$MFTMirr", "$LogFile", "$Volume", "$Bitmap", "$UpCase", "$Extend"})
        EXPECT_NE(listing.find(std::string("  ") + name + "\n"), std::string::npos)
            << name << " in\n"
            << listing;
}

// ---- every fixture image ------------------------------------------------------------

class ExtractedMftOfEachImage : public ::testing::TestWithParam<ImageFacts> {};

TEST_P(ExtractedMftOfEachImage, GivesTheRecordsAndPathsOfItsVolumeAndItsGeometry) {
    const ImageFacts& facts = GetParam();
    const fs::path image = kestrow::test::imagePath(facts.image);
    const fs::path mft = extractMft(facts);

    EXPECT_EQ(kestrowOk(mft, {"--json", "paths", "C:"}),
              kestrowOk(image, {"--json", "paths", "C:"}));

    // The geometry inferred from the records is the boot sector's (the
    // sector size aside: records keep 512-byte update sequence strides).
    const auto fsstat = oracle::fileSystemStats(image, facts.volumeOffset / 512);
    const std::string info = kestrowOk(mft, {"--json", "info", "C:"});
    EXPECT_EQ(jsonNumber(info, "bytesPerCluster"), fsstat.clusterSize);
    EXPECT_EQ(jsonNumber(info, "totalClusters"), fsstat.totalClusters);
    EXPECT_EQ(jsonNumber(info, "bytesPerFileRecord"), fsstat.mftEntrySize);
    EXPECT_EQ(jsonNumber(info, "bytesPerSector"), 512u);
    const std::string volumes = kestrowOk(mft, {"volumes"});
    const std::string records = std::to_string(fs::file_size(mft) / fsstat.mftEntrySize) +
                                " records of " + std::to_string(fsstat.mftEntrySize) + " bytes";
    EXPECT_NE(volumes.find("extracted MFT  \"" + std::string(facts.label) + "\""),
              std::string::npos)
        << volumes;
    EXPECT_NE(volumes.find(records), std::string::npos) << volumes;
    EXPECT_NE(volumes.find(std::to_string(fsstat.totalClusters) + " clusters (from $BadClus)"),
              std::string::npos)
        << volumes;
    expectSystemFilesListed(rootListing(mft));
}

INSTANTIATE_TEST_SUITE_P(Fixtures, ExtractedMftOfEachImage,
                         ::testing::ValuesIn(kestrow::test::allImages().begin(),
                                             kestrow::test::allImages().end()));

// ---- Windows-made records -----------------------------------------------------------

TEST(ExtractedMft, WindowsMadeRecordsOpenAndListTheRoot) {
    const std::optional<fs::path> found = kestrow::test::fieldDisk();
    if (!found)
        GTEST_SKIP() << kestrow::test::fieldDiskAbsence();
    const fs::path disk = *found;
    constexpr std::uint64_t kFirstPartition = 2048;
    const fs::path mft = extractMft(disk, kFirstPartition, "windows");
    EXPECT_EQ(jsonNumber(kestrowOk(mft, {"--json", "info", "C:"}), "bytesPerFileRecord"), 1024u);
    expectSystemFilesListed(rootListing(mft));
    EXPECT_EQ(kestrowOk(mft, {"--json", "paths", "C:"}),
              kestrowOk(disk, {"--json", "paths", "C:"}));
}

TEST(ExtractedMft, FourKilobyteRecordsOpenAndListTheRoot) {
    const fs::path mft = extractMft(kestrow::test::factsOf(FixtureImage::Sector4k));
    EXPECT_EQ(jsonNumber(kestrowOk(mft, {"--json", "info", "C:"}), "bytesPerFileRecord"), 4096u);
    expectSystemFilesListed(rootListing(mft));
}

// ---- what works without the disk, and what fails -------------------------------------

TEST(ExtractedMft, RecordsFindAndOwnerWorkWhileClusterReadsFail) {
    const ImageFacts& facts = kestrow::test::factsOf(FixtureImage::Rich);
    const fs::path image = kestrow::test::imagePath(facts.image);
    const fs::path mft = extractMft(facts);
    const auto inode = oracle::findInode(image, kestrow::test::kReportPath);
    ASSERT_TRUE(inode.has_value());

    const std::string record = kestrowOk(mft, {"record", "C:", std::to_string(*inode)});
    EXPECT_NE(record.find("\\\\.\\C:\\Docs\\report.bin"), std::string::npos) << record;
    const std::string found = kestrowOk(mft, {"find", "C:", "/Docs/report.bin"});
    EXPECT_NE(found.find(std::to_string(*inode)), std::string::npos) << found;
    const std::string listing = kestrowOk(mft, {"ls", "C:", "/Docs"});
    EXPECT_NE(listing.find("report.bin"), std::string::npos) << listing;

    const auto istat = oracle::inspectRecord(image, *inode);
    const auto* data = istat.find(oracle::kData);
    ASSERT_TRUE(data != nullptr && !data->clusters.empty());
    const std::string cluster = std::to_string(data->clusters.front());
    const std::string owner = kestrowOk(mft, {"owner", "C:", cluster});
    EXPECT_NE(owner.find("record " + std::to_string(*inode) + "  "), std::string::npos) << owner;

    // The file's clusters are not in the collection: reading them fails as
    // an unreadable drive does, in one line.
    const std::uint64_t sectorsPerCluster = oracle::fileSystemStats(image).clusterSize / 512;
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"dump",
                                   "C:", std::to_string(std::stoull(cluster) * sectorsPerCluster)},
          std::vector<std::string>{"bitmap", "C:"}}) {
        const auto result = kestrow(mft, arguments);
        EXPECT_EQ(result.exitCode, 1) << arguments[0];
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    }
    EXPECT_NE(kestrow(mft, {"dump", "C:", "0"}).err.find("The device is not ready."),
              std::string::npos);
}

struct Damage {
    const char* name;
    // Turns the bytes of a sound $MFT into damaged ones.
    void (*apply)(std::string& bytes);
    const char* reason;
};

void storeLe(std::string& bytes, std::size_t offset, std::uint64_t value, int width) {
    for (int i = 0; i < width; ++i)
        bytes.at(offset + i) = static_cast<char>(value >> (8 * i));
}

std::uint64_t loadLe(const std::string& bytes, std::size_t offset, int width) {
    std::uint64_t value = 0;
    for (int i = 0; i < width; ++i)
        value |= std::uint64_t{static_cast<unsigned char>(bytes.at(offset + i))} << (8 * i);
    return value;
}

// Offset in the file of the first attribute of `type` in the record at
// `record` (a byte offset).
std::size_t attributeOffset(const std::string& bytes, std::uint32_t type, std::size_t record = 0) {
    std::size_t offset = record + loadLe(bytes, record + 0x14, 2);
    while (loadLe(bytes, offset, 4) != type)
        offset += loadLe(bytes, offset + 4, 4);
    return offset;
}

TEST(ExtractedMft, DamagedFilesAreRefusedWithOneLineReason) {
    const Damage damages[] = {
        {"cut inside a record", [](std::string& b) { b.resize(b.size() - 100); },
         "the file ends inside record"},
        {"record 0 is not $MFT",
         [](std::string& b) {
             const std::size_t name = attributeOffset(b, 0x30) + 0x18 + 0x42;
             b.at(name + 6) = 'X';
         },
         "record 0 is not $MFT (it is named \"$MFX\")"},
        {"allocation not a whole number of clusters",
         [](std::string& b) {
             const std::size_t allocated = attributeOffset(b, 0x80) + 0x28;
             storeLe(b, allocated, loadLe(b, allocated, 8) + 1000, 8);
         },
         "sizes contradict: $MFT's $DATA allocates"},
        {"update sequence that does not fit the record size",
         [](std::string& b) { storeLe(b, 0x06, 7, 2); },
         "sizes contradict: record 0 has 1024 bytes and an update sequence of 7 entries"},
        {"shorter than $MFT's data", [](std::string& b) { b.resize(b.size() - 2048); },
         "it was cut short"},
        {"torn record 0", [](std::string& b) { b.at(510) ^= 0x5A; },
         "record 0 is damaged (its update sequence check fails)"},
    };
    const ImageFacts& facts = kestrow::test::factsOf(FixtureImage::Bare);
    const std::string sound = oracle::readContent(kestrow::test::imagePath(facts.image), 0);
    for (const Damage& damage : damages) {
        SCOPED_TRACE(damage.name);
        std::string bytes = sound;
        damage.apply(bytes);
        const fs::path file = scratchDir() / "damaged.mft";
        writeFile(file, bytes);
        const std::string volumes = kestrowOk(file, {"volumes"});
        const std::size_t refusal = volumes.find("\n   refused as an extracted MFT: ");
        EXPECT_NE(refusal, std::string::npos) << volumes;
        EXPECT_NE(volumes.find(damage.reason, refusal), std::string::npos) << volumes;
        const auto paths = kestrow(file, {"paths", "C:"});
        EXPECT_EQ(paths.exitCode, 1);
        EXPECT_NE(paths.err.find(damage.reason), std::string::npos) << paths.err;
        EXPECT_EQ(std::count(paths.err.begin(), paths.err.end(), '\n'), 1) << paths.err;
    }
}

// Without $BadClus:$Bad the cluster count comes from $Bitmap's size, and
// without both from the largest cluster a run names.
TEST(ExtractedMft, ClusterCountFallsBackToBitmapThenToRuns) {
    const ImageFacts& facts = kestrow::test::factsOf(FixtureImage::Bare);
    const fs::path image = kestrow::test::imagePath(facts.image);
    std::string bytes = oracle::readContent(image, 0);
    const auto fsstat = oracle::fileSystemStats(image);
    const std::size_t recordSize = fsstat.mftEntrySize;
    // $BadClus holds an empty unnamed $DATA, then the $Bad stream.
    const std::size_t unnamed = attributeOffset(bytes, 0x80, 8 * recordSize);
    const std::size_t stream = unnamed + loadLe(bytes, unnamed + 4, 4);
    ASSERT_EQ(loadLe(bytes, stream + 9, 1), 4u) << "a name of 4 units: $Bad";
    bytes.at(stream + loadLe(bytes, stream + 0x0A, 2) + 6) = 'x';
    const fs::path file = scratchDir() / "fallback.mft";
    writeFile(file, bytes);
    const auto bitmapSize = oracle::inspectRecord(image, 6).find(oracle::kData)->size;
    EXPECT_NE(kestrowOk(file, {"volumes"})
                  .find(std::to_string(bitmapSize * 8) + " clusters (from $Bitmap)"),
              std::string::npos);

    storeLe(bytes, attributeOffset(bytes, 0x80, 6 * recordSize), 0x81, 4);
    writeFile(file, bytes);
    const std::string volumes = kestrowOk(file, {"volumes"});
    EXPECT_NE(volumes.find(" clusters (from the runs of its records)"), std::string::npos)
        << volumes;
    EXPECT_EQ(kestrowOk(file, {"--json", "paths", "C:"}),
              kestrowOk(image, {"--json", "paths", "C:"}));
}

} // namespace
