// The kestrow program end to end on the fixture images: its answers against
// The Sleuth Kit's and NTFS-3G's, and its failures (one line, non-zero exit).
#include "support/Fixtures.h"
#include "support/Oracle.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <regex>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <unistd.h>

namespace fs = std::filesystem;
namespace oracle = kestrow::test::oracle;
using kestrow::test::FixtureImage;

namespace {

const std::string VOLUME_PATH = "\\\\.\\C:\\";

oracle::ToolOutput kestrow(const fs::path& image, std::vector<std::string> arguments) {
    std::vector<std::string> argv = {KESTROW_TOOL_PATH, "--disk", image.string()};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return oracle::runTool(argv);
}

oracle::ToolOutput kestrowOk(const fs::path& image, std::vector<std::string> arguments) {
    oracle::ToolOutput result = kestrow(image, arguments);
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.err, "");
    return result;
}

std::uint64_t sectorOffsetOf(FixtureImage image) {
    return kestrow::test::factsOf(image).volumeOffset / 512;
}

// The JSON texts kestrow writes hold only \\, \" and \uXXXX (controls) escapes.
std::string jsonUnescape(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            out.push_back(text[i]);
            continue;
        }
        const char c = text[++i];
        if (c == 'u' && i + 4 < text.size()) {
            out.push_back(static_cast<char>(std::stoi(text.substr(i + 1, 4), nullptr, 16)));
            i += 4;
        } else {
            out.push_back(c == 'n' ? '\n' : c == 't' ? '\t' : c == 'r' ? '\r' : c);
        }
    }
    return out;
}

// Every "key": number in a JSON text, in order.
std::vector<std::uint64_t> jsonNumbers(const std::string& json, const std::string& key) {
    std::vector<std::uint64_t> numbers;
    const std::regex pattern("\"" + key + "\": ([0-9]+)");
    for (std::sregex_iterator it(json.begin(), json.end(), pattern), end; it != end; ++it)
        numbers.push_back(std::stoull((*it)[1]));
    return numbers;
}

std::optional<std::string> jsonString(const std::string& json, const std::string& key) {
    const std::regex pattern("\"" + key + "\": \"((?:[^\"\\\\]|\\\\.)*)\"");
    std::smatch match;
    if (!std::regex_search(json, match, pattern))
        return std::nullopt;
    return jsonUnescape(match[1]);
}

std::optional<bool> jsonBool(const std::string& json, const std::string& key) {
    const std::regex pattern("\"" + key + "\": (true|false)");
    std::smatch match;
    if (!std::regex_search(json, match, pattern))
        return std::nullopt;
    return match[1] == "true";
}

// istat's "2026-11-22 07:40:10.488824700 (UTC)" as kestrow writes it:
// "2026-11-22T07:40:10.4888247Z" (NTFS times count 100 ns).
std::string isoFromIstat(const std::string& time) {
    return time.substr(0, 10) + "T" + time.substr(11, 8) + "." + time.substr(20, 7) + "Z";
}

// ---- paths against fls -r -p ---------------------------------------------------------

struct PathLine {
    std::uint64_t index;
    std::string path;
};

std::vector<PathLine> kestrowPaths(const fs::path& image) {
    const auto result = kestrowOk(image, {"--json", "paths", "C:"});
    std::vector<PathLine> lines;
    const std::regex pattern("\\{\"index\": ([0-9]+), \"path\": \"((?:[^\"\\\\]|\\\\.)*)\"\\}");
    for (std::sregex_iterator it(result.out.begin(), result.out.end(), pattern), end; it != end;
         ++it)
        lines.push_back({std::stoull((*it)[1]), jsonUnescape((*it)[2])});
    return lines;
}

// Names the library reads without applying the update sequence fix-ups may
// hold, at a sector's last two bytes, the sequence number instead of a
// character: such a path differs from fls's in a unit or two, never in length.
bool differsOnlyByFixups(const std::string& ours, const std::set<std::string>& theirs) {
    const std::u16string a = kestrow::test::utf8ToUtf16(ours);
    for (const std::string& other : theirs) {
        const std::u16string b = kestrow::test::utf8ToUtf16(other);
        if (a.size() != b.size())
            continue;
        std::size_t differing = 0;
        for (std::size_t i = 0; i < a.size(); ++i)
            differing += a[i] != b[i];
        if (differing <= 2)
            return true;
    }
    return false;
}

void expectPathsAgreeWithFls(FixtureImage which) {
    const fs::path image = kestrow::test::imagePath(which);
    std::map<std::uint64_t, std::set<std::string>> flsPaths; // inode -> its names' paths
    for (const oracle::FlsEntry& entry : oracle::listFiles(image, sectorOffsetOf(which))) {
        if (entry.deleted || entry.nameType == 'V' || entry.path.starts_with("$OrphanFiles"))
            continue;
        flsPaths[entry.inode].insert(VOLUME_PATH + kestrow::test::windowsPath(entry.filePath()));
    }
    const std::vector<PathLine> ours = kestrowPaths(image);
    ASSERT_FALSE(ours.empty());

    std::set<std::uint64_t> listed;
    std::size_t compared = 0;
    std::size_t fixupDifferences = 0;
    for (const PathLine& line : ours) {
        listed.insert(line.index);
        if (line.index == 5) {
            EXPECT_EQ(line.path, VOLUME_PATH) << "the root is shown as the volume path";
            continue;
        }
        const auto known = flsPaths.find(line.index);
        // Records fls lists under no name (reserved and extension records).
        if (known == flsPaths.end())
            continue;
        ++compared;
        if (known->second.count(line.path))
            continue;
        EXPECT_TRUE(differsOnlyByFixups(line.path, known->second))
            << "record " << line.index << ": kestrow says " << line.path << ", fls says "
            << *known->second.begin();
        ++fixupDifferences;
    }
    // Record order, each record once.
    EXPECT_TRUE(std::is_sorted(ours.begin(), ours.end(), [](const PathLine& a, const PathLine& b) {
        return a.index < b.index;
    }));
    EXPECT_EQ(listed.size(), ours.size());
    // Every allocated name fls lists belongs to a record kestrow lists.
    for (const auto& [inode, paths] : flsPaths) {
        EXPECT_TRUE(listed.count(inode))
            << "record " << inode << " (" << *paths.begin() << ") is missing from kestrow paths";
    }
    EXPECT_GE(compared, 20u);
    EXPECT_LE(fixupDifferences * 50, compared) << "more than 2% of the paths differ";
}

TEST(ToolPaths, AgreeWithFlsOnTheRichVolume) {
    expectPathsAgreeWithFls(FixtureImage::Rich);
}

TEST(ToolPaths, AgreeWithFlsOnAPartitionedDisk) {
    expectPathsAgreeWithFls(FixtureImage::GptDisk);
}

TEST(ToolPaths, PlainOutputIsOnePathPerLine) {
    const auto result = kestrowOk(kestrow::test::mbrDisk(), {"paths", "C:"});
    EXPECT_NE(result.out.find("\n" + VOLUME_PATH + "Docs\\Sub\\deep.txt\n"), std::string::npos);
    EXPECT_EQ(result.out.back(), '\n');
}

// ---- owner against ifind -d -------------------------------------------------------------

// The volume clusters the library decodes for a record (kestrow record).
std::vector<oracle::ClusterRun> kestrowRuns(const fs::path& image, std::uint64_t inode) {
    const auto result = kestrowOk(image, {"--json", "record", "C:", std::to_string(inode)});
    const auto starts = jsonNumbers(result.out, "volumeCluster");
    const auto counts = jsonNumbers(result.out, "count");
    std::vector<oracle::ClusterRun> runs;
    for (std::size_t i = 0; i < starts.size() && i < counts.size(); ++i)
        runs.push_back({starts[i], counts[i], false});
    return runs;
}

bool inRuns(const std::vector<oracle::ClusterRun>& runs, std::uint64_t cluster) {
    return std::any_of(runs.begin(), runs.end(), [cluster](const oracle::ClusterRun& run) {
        return run.firstCluster <= cluster && cluster < run.firstCluster + run.count;
    });
}

// Compares kestrow owner with ifind -d. A record's run list that crosses a
// sector end is read without the fix-up applied, so the library may decode
// it differently from the end of that sector on: a cluster that the library
// does not decode for ifind's owner is not compared. Returns whether it was.
bool expectOwnerAgreesWithIfind(const fs::path& image, std::uint64_t sectorOffset,
                                std::uint64_t cluster) {
    SCOPED_TRACE("cluster " + std::to_string(cluster));
    const auto result = kestrowOk(image, {"--json", "owner", "C:", std::to_string(cluster)});
    const auto theirs = oracle::findClusterOwner(image, cluster, sectorOffset);
    const auto owned = jsonBool(result.out, "owned");
    EXPECT_TRUE(owned.has_value()) << result.out;
    if (!owned.has_value())
        return false;
    // ifind also names deleted records as owners of the clusters they left.
    if (!theirs || !oracle::inspectRecord(image, theirs->inode, sectorOffset).allocated) {
        EXPECT_FALSE(*owned) << result.out;
        return true;
    }
    if (!inRuns(kestrowRuns(image, theirs->inode), cluster))
        return false;
    EXPECT_TRUE(*owned) << result.out;
    if (*owned) {
        EXPECT_EQ(jsonNumbers(result.out, "owner").at(0), theirs->inode) << result.out;
    }
    return true;
}

TEST(ToolOwner, AgreesWithIfindOnFilesTheMftAndFreeClusters) {
    const FixtureImage which = FixtureImage::Rich;
    const fs::path image = kestrow::test::imagePath(which);
    std::set<std::uint64_t> clusters;
    // Every run of the fragmented files, and the ends of the contiguous ones.
    const std::vector<std::string> files = {std::string(kestrow::test::rich::kFragmentedA),
                                            std::string(kestrow::test::rich::kLargePath),
                                            std::string(kestrow::test::kReportPath)};
    for (const std::string& path : files) {
        const auto inode = oracle::findInode(image, path);
        ASSERT_TRUE(inode.has_value()) << path;
        const auto istat = oracle::inspectRecord(image, *inode);
        const auto* data = istat.find(oracle::kData);
        ASSERT_NE(data, nullptr);
        for (const oracle::ClusterRun& run : data->runs()) {
            clusters.insert(run.firstCluster);
            clusters.insert(run.firstCluster + run.count - 1);
        }
    }
    const auto fsstat = oracle::fileSystemStats(image);
    clusters.insert(fsstat.firstMftCluster); // the MFT itself
    clusters.insert(fsstat.firstMftCluster + 1);
    clusters.insert(0); // $Boot
    // A free cluster.
    const auto allocated = oracle::allocatedClusters(image);
    for (std::uint64_t c = allocated.size() / 2; c < allocated.size(); ++c) {
        if (!allocated[c]) {
            clusters.insert(c);
            break;
        }
    }
    std::size_t compared = 0;
    for (std::uint64_t cluster : clusters)
        compared += expectOwnerAgreesWithIfind(image, 0, cluster);
    EXPECT_GE(compared * 2, clusters.size()) << "most clusters are compared";
}

TEST(ToolOwner, CountsClustersFromTheStartOfThePartition) {
    const FixtureImage which = FixtureImage::MbrDisk;
    const fs::path image = kestrow::test::imagePath(which);
    const auto inode = oracle::findInode(image, kestrow::test::kReportPath, sectorOffsetOf(which));
    ASSERT_TRUE(inode.has_value());
    const auto istat = oracle::inspectRecord(image, *inode, sectorOffsetOf(which));
    const auto runs = istat.find(oracle::kData)->runs();
    ASSERT_FALSE(runs.empty());
    EXPECT_TRUE(
        expectOwnerAgreesWithIfind(image, sectorOffsetOf(which), runs.front().firstCluster));
    const auto result =
        kestrowOk(image, {"owner", "C:", std::to_string(runs.front().firstCluster)});
    EXPECT_NE(result.out.find(VOLUME_PATH + "Docs\\report.bin"), std::string::npos) << result.out;
}

TEST(ToolOwner, AClusterOfTheMftNamesTheRecordsInIt) {
    const fs::path image = kestrow::test::bareVolume();
    const auto fsstat = oracle::fileSystemStats(image);
    const auto result =
        kestrowOk(image, {"--json", "owner", "C:", std::to_string(fsstat.firstMftCluster + 1)});
    // 4 KiB clusters of 1 KiB records: the second cluster holds records 4 to 7.
    EXPECT_EQ(jsonNumbers(result.out, "owner"), std::vector<std::uint64_t>{0});
    const std::regex records("\"mftRecords\": \\[\\s*4,\\s*5,\\s*6,\\s*7\\s*\\]");
    EXPECT_TRUE(std::regex_search(result.out, records)) << result.out;
}

// ---- ls, find, record, extents, info, bitmap, dump -------------------------------------------

TEST(ToolListing, LsMatchesNtfslsByPathAndByIndex) {
    const fs::path image = kestrow::test::sector4kVolume();
    const auto byPath = kestrowOk(image, {"--json", "ls", "C:", "/Indexed"});
    std::set<std::string> ours;
    const std::regex name("\"name\": \"((?:[^\"\\\\]|\\\\.)*)\"");
    for (std::sregex_iterator it(byPath.out.begin(), byPath.out.end(), name), end; it != end; ++it)
        ours.insert(jsonUnescape((*it)[1]));
    std::set<std::string> theirs;
    for (const std::string& entry : oracle::listDirectory(image, "/Indexed"))
        if (entry != "." && entry != "..")
            theirs.insert(entry);
    EXPECT_EQ(ours, theirs);
    const auto index = jsonNumbers(byPath.out, "index").at(0);
    const auto byIndex = kestrowOk(image, {"--json", "ls", "C:", std::to_string(index)});
    EXPECT_EQ(byIndex.out, byPath.out);
}

TEST(ToolListing, LsOfTheRootAndOfAFile) {
    const fs::path image = kestrow::test::mbrDisk();
    const auto root = kestrowOk(image, {"ls", "C:", "\\\\.\\C:\\"});
    EXPECT_NE(
        root.out.find("\n     index  type           size  modified ($FILE_NAME)         name\n"),
        std::string::npos)
        << root.out;
    EXPECT_NE(root.out.find(" Docs\n"), std::string::npos) << root.out;
    EXPECT_NE(root.out.find(" $MFT\n"), std::string::npos) << root.out;
    const auto file = kestrowOk(image, {"--json", "ls", "C:", "C:\\Readme.txt"});
    EXPECT_EQ(jsonBool(file.out, "directory"), false);
    EXPECT_EQ(jsonNumbers(file.out, "size").at(0), kestrow::test::kReadmeText.size());
}

// Each command's letter-case rule for the names of a path, as the README
// states them: ls (the library's path index) takes the directories in any
// case and the last name as stored; find (the library's MFT scan) every name
// as stored; extents (the disk's own lookup, as on Windows) any case.
TEST(ToolPaths, EachCommandsLetterCaseRule) {
    const fs::path image = kestrow::test::mbrDisk();
    const std::vector<std::pair<std::vector<std::string>, bool>> cases = {
        {{"ls", "C:", "/docs/Sub"}, true},
        {{"ls", "C:", "/DOCS/SUB/deep.txt"}, true},
        {{"ls", "C:", "/Docs/sub"}, false},
        {{"ls", "C:", "/Docs/Sub/DEEP.TXT"}, false},
        {{"find", "C:", "/Docs/Sub/deep.txt"}, true},
        {{"find", "C:", "/docs/Sub/deep.txt"}, false},
        {{"find", "C:", "/Docs/Sub/Deep.txt"}, false},
        {{"extents", "C:", "/DOCS/REPORT.BIN"}, true},
        {{"extents", "C:", "/docs/Report.Bin"}, true},
    };
    for (const auto& [arguments, found] : cases) {
        SCOPED_TRACE(arguments[0] + " " + arguments[2]);
        const auto result = kestrow(image, arguments);
        EXPECT_EQ(result.exitCode, found ? 0 : 1) << result.err;
    }
}

TEST(ToolFind, EveryPathFormFindsTheRecordIfindFinds) {
    const FixtureImage which = FixtureImage::GptDisk;
    const fs::path image = kestrow::test::imagePath(which);
    const auto inode =
        oracle::findInode(image, kestrow::test::kDeepTextPath, sectorOffsetOf(which));
    ASSERT_TRUE(inode.has_value());
    for (const std::string form : {"/Docs/Sub/deep.txt", "C:\\Docs\\Sub\\deep.txt",
                                   "\\\\.\\C:\\Docs\\Sub\\deep.txt", "Docs/Sub/deep.txt"}) {
        SCOPED_TRACE(form);
        const auto result = kestrowOk(image, {"--json", "find", "C:", form});
        EXPECT_EQ(jsonNumbers(result.out, "index"), std::vector<std::uint64_t>{*inode});
    }
}

TEST(ToolRecord, FieldsAgreeWithIstat) {
    const fs::path image = kestrow::test::richVolume();
    const auto inode = oracle::findInode(image, kestrow::test::rich::kFragmentedB);
    ASSERT_TRUE(inode.has_value());
    const auto istat = oracle::inspectRecord(image, *inode);
    const auto result = kestrowOk(image, {"--json", "record", "C:", std::to_string(*inode)});
    EXPECT_EQ(jsonString(result.out, "name"), "frag-b.bin");
    EXPECT_EQ(jsonString(result.out, "path"),
              VOLUME_PATH + kestrow::test::windowsPath(kestrow::test::rich::kFragmentedB));
    EXPECT_EQ(jsonNumbers(result.out, "parent").at(0), istat.fileNames.at(0).parent);
    EXPECT_EQ(jsonNumbers(result.out, "dataSize").at(0), kestrow::test::rich::kFragmentedSize);
    // The cluster ranges are istat's runs, in volume clusters, as far as the
    // run list lies before the first sector's end: past it the library reads
    // the bytes without their fix-up.
    const auto runs = istat.find(oracle::kData)->runs();
    const auto starts = jsonNumbers(result.out, "volumeCluster");
    const auto counts = jsonNumbers(result.out, "count");
    ASSERT_EQ(starts.size(), counts.size());
    std::size_t agreeing = 0;
    while (agreeing < starts.size() && agreeing < runs.size() &&
           starts[agreeing] == runs[agreeing].firstCluster &&
           counts[agreeing] == runs[agreeing].count)
        ++agreeing;
    EXPECT_GE(agreeing, 16u);
    EXPECT_LE(starts.size(), runs.size());
    // The three times are those of the $FILE_NAME attribute, and say so.
    const oracle::IstatFileName& fileName = istat.fileNames.at(0);
    const std::string created = isoFromIstat(fileName.created);
    const std::string modified = isoFromIstat(fileName.modified);
    const std::string lastRead = isoFromIstat(fileName.accessed);
    const std::size_t times = result.out.find("\"fileNameTimes\": {");
    ASSERT_NE(times, std::string::npos) << result.out;
    const std::string timesJson = result.out.substr(times, result.out.find('}', times) - times);
    EXPECT_EQ(jsonString(timesJson, "created"), created);
    EXPECT_EQ(jsonString(timesJson, "modified"), modified);
    EXPECT_EQ(jsonString(timesJson, "lastRead"), lastRead);
    const auto text = kestrowOk(image, {"record", "C:", std::to_string(*inode)});
    EXPECT_NE(text.out.find("   $FILE_NAME times  :\n      Created        : " + created +
                            "\n      Modified       : " + modified +
                            "\n      Last read      : " + lastRead + "\n"),
              std::string::npos)
        << text.out;
}

TEST(ToolRecord, DirectoryRecordListsItsIndexEntries) {
    const fs::path image = kestrow::test::cluster64kVolume();
    const auto inode = oracle::findInode(image, kestrow::test::kIndexedDir);
    ASSERT_TRUE(inode.has_value());
    const auto result = kestrowOk(image, {"--json", "record", "C:", std::to_string(*inode)});
    EXPECT_EQ(jsonBool(result.out, "directory"), true);
    const auto start = result.out.find("\"indexEntries\"");
    ASSERT_NE(start, std::string::npos);
    const std::string entries = result.out.substr(start);
    const std::size_t count = std::count(entries.begin(), entries.end(), ',') + 1;
    EXPECT_GE(count, static_cast<std::size_t>(kestrow::test::kIndexedDirEntries));
}

TEST(ToolExtents, SectorsAreIstatsRunsOnTheDrive) {
    const FixtureImage which = FixtureImage::MbrDisk;
    const fs::path image = kestrow::test::imagePath(which);
    const auto inode = oracle::findInode(image, kestrow::test::kReportPath, sectorOffsetOf(which));
    ASSERT_TRUE(inode.has_value());
    const auto runs =
        oracle::inspectRecord(image, *inode, sectorOffsetOf(which)).find(oracle::kData)->runs();
    const auto result = kestrowOk(image, {"--json", "extents", "C:", "/Docs/report.bin"});
    const auto starts = jsonNumbers(result.out, "startSector");
    const auto ends = jsonNumbers(result.out, "endSector");
    ASSERT_EQ(starts.size(), runs.size()) << result.out;
    const std::uint64_t sectorsPerCluster = 4096 / 512;
    for (std::size_t i = 0; i < runs.size(); ++i) {
        EXPECT_EQ(starts[i],
                  kestrow::test::kMbrNtfsStartSector + runs[i].firstCluster * sectorsPerCluster);
        EXPECT_EQ(ends[i], starts[i] + runs[i].count * sectorsPerCluster);
    }
}

TEST(ToolInfo, MftFiguresAgreeWithFsstat) {
    const fs::path image = kestrow::test::richVolume();
    const auto fsstat = oracle::fileSystemStats(image);
    const auto result = kestrowOk(image, {"--json", "info", "C:"});
    EXPECT_EQ(jsonNumbers(result.out, "recordSize").at(0), fsstat.mftEntrySize);
    EXPECT_EQ(jsonNumbers(result.out, "totalClusters").at(0), fsstat.totalClusters);
    // The record slots cover every record fsstat knows of (its last entry is
    // the virtual one of $OrphanFiles).
    EXPECT_GE(jsonNumbers(result.out, "recordSlots").at(0), fsstat.lastMftEntry);
    EXPECT_GT(jsonNumbers(result.out, "recordCount").size(), 1u)
        << "the rich $MFT has several runs";
    // The record buffer holds whole records, at least one run's worth here.
    const auto bufferBytes = jsonNumbers(result.out, "bufferBytes").at(0);
    const auto bufferRecords = jsonNumbers(result.out, "bufferRecords").at(0);
    EXPECT_GT(bufferRecords, 0u);
    EXPECT_EQ(bufferRecords, bufferBytes / fsstat.mftEntrySize);
    const auto text = kestrowOk(image, {"info", "C:"});
    EXPECT_TRUE(text.out.starts_with("Volume 'C:'\n")) << text.out;
    EXPECT_NE(text.out.find("Record slots"), std::string::npos);
    EXPECT_NE(text.out.find("Record buffer       : " + std::to_string(bufferBytes) + " bytes"),
              std::string::npos)
        << text.out;
}

TEST(ToolBitmap, UsedCountMatchesTheBitmapIcatReads) {
    const fs::path image = kestrow::test::richVolume();
    const auto result = kestrowOk(image, {"--json", "bitmap", "C:"});
    const auto allocated = oracle::allocatedClusters(image);
    const auto total = jsonNumbers(result.out, "totalClusters").at(0);
    ASSERT_LE(total, allocated.size());
    const auto used = static_cast<std::uint64_t>(std::count(
        allocated.begin(), allocated.begin() + static_cast<std::ptrdiff_t>(total), true));
    EXPECT_EQ(jsonNumbers(result.out, "usedClusters").at(0), used);
    std::uint64_t inRuns = 0;
    for (std::uint64_t count : jsonNumbers(result.out, "count"))
        inRuns += count;
    EXPECT_EQ(inRuns, used);
}

TEST(ToolDump, VolumeSectorZeroIsTheDrivesPartitionStart) {
    const fs::path image = kestrow::test::mbrDisk();
    const auto volume = kestrowOk(image, {"dump", "C:", "0"});
    EXPECT_NE(volume.out.find("NTFS"), std::string::npos) << volume.out;
    const auto drive = kestrowOk(
        image, {"dump", "--drive", "0", std::to_string(kestrow::test::kMbrNtfsStartSector)});
    // Same bytes; only the heading (device, sector, offset) differs.
    auto body = [](const std::string& text) {
        std::size_t at = 0;
        for (int line = 0; line < 2; ++line)
            at = text.find('\n', at) + 1;
        return text.substr(at);
    };
    EXPECT_EQ(body(volume.out), body(drive.out));
    const auto two = kestrowOk(image, {"dump", "C:", "0", "2"});
    EXPECT_GT(two.out.size(), volume.out.size() + 512);
}

// ---- Failures ------------------------------------------------------------------------------

struct FailureCase {
    std::vector<std::string> arguments;
    int status;
    std::string message; // part of the one line on stderr
};

TEST(ToolFailures, EachGivesOneLineAndANonZeroStatus) {
    const fs::path mbr = kestrow::test::mbrDisk();
    const std::vector<FailureCase> cases = {
        {{"info", "E:"}, 1, "no volume E: on the attached disks (volumes: C:, D:)"},
        {{"info", "D:"}, 1, "D: is not an NTFS volume (it is FAT32)"},
        {{"info"}, 2, "missing arguments"},
        {{"info", "C:", "extra"}, 2, "too many arguments"},
        {{"info", "CC"}, 2, "not a drive letter"},
        {{"record", "C:", "twelve"}, 2, "not a number for record number"},
        {{"record", "C:", "99999"}, 1, "is beyond the MFT of C:"},
        {{"record", "C:", "20"}, 1, "is not an in-use file record"},
        {{"ls", "C:", "/Docs/nothing"}, 1, "C: has no file or directory /Docs/nothing"},
        {{"ls", "C:", "D:\\Docs"}, 2, "is not on C:"},
        {{"find", "C:", "/DOCS/SUB/DEEP.TXT"}, 1, "nothing at"},
        {{"owner", "C:", "99999999"}, 1, "is beyond the end of C:"},
        {{"extents", "C:", "/Readme.txt"}, 1, "has no extents on the drive"},
        {{"extents", "C:", "/nothing.bin"}, 1, "C: has no file /nothing.bin"},
        {{"dump", "C:", "0", "0"}, 2, "count must be between 1 and"},
        {{"dump", "C:", "99999999"}, 1, "is beyond the end of C:"},
        {{"dump", "--drive", "7", "0"}, 1, "cannot open \\\\.\\PhysicalDrive7"},
        {{"dump", "0"}, 2, "dump needs a drive letter, or --drive N"},
        {{"frobnicate"}, 2, "unknown command: frobnicate"},
        {{"--frobnicate", "info", "C:"}, 2, "unknown option: --frobnicate"},
        {{}, 2, "usage: kestrow"},
    };
    for (const FailureCase& failure : cases) {
        std::string line;
        for (const auto& a : failure.arguments)
            line += a + " ";
        SCOPED_TRACE(line);
        const auto result = kestrow(mbr, failure.arguments);
        EXPECT_EQ(result.exitCode, failure.status) << result.err;
        EXPECT_NE(result.err.find(failure.message), std::string::npos) << result.err;
        if (!failure.arguments.empty()) {
            EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
            EXPECT_TRUE(result.err.starts_with("kestrow: ")) << result.err;
        }
    }
}

TEST(ToolFailures, DisksThatCannotBeAttached) {
    const auto missing =
        oracle::runTool({KESTROW_TOOL_PATH, "--disk", "/nonexistent/disk.img", "volumes"});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_NE(missing.err.find("cannot attach disk: cannot open /nonexistent/disk.img"),
              std::string::npos)
        << missing.err;
    const auto directory = oracle::runTool(
        {KESTROW_TOOL_PATH, "--disk", fs::temp_directory_path().string(), "volumes"});
    EXPECT_EQ(directory.exitCode, 1);
    EXPECT_NE(directory.err.find("cannot attach disk"), std::string::npos) << directory.err;
    const auto fromEnvironment = oracle::runTool(
        {"env", "KESTROW_DISKS=/nonexistent/disk.img", KESTROW_TOOL_PATH, "volumes"});
    EXPECT_EQ(fromEnvironment.exitCode, 1);
    EXPECT_NE(fromEnvironment.err.find("KESTROW_DISKS"), std::string::npos) << fromEnvironment.err;
    const auto none =
        oracle::runTool({"env", "-u", "KESTROW_DISKS", KESTROW_TOOL_PATH, "info", "C:"});
    EXPECT_EQ(none.exitCode, 1);
    EXPECT_NE(none.err.find("kestrow: no volume C: (no disks are attached; give --disk"),
              std::string::npos)
        << none.err;
}

// A fresh directory under /tmp that every user can enter, removed with all
// it holds.
class SharedTemporaryDirectory {
public:
    SharedTemporaryDirectory() {
        char pattern[] = "/tmp/kestrow-shared-XXXXXX";
        if (::mkdtemp(pattern) == nullptr)
            throw std::runtime_error("mkdtemp failed");
        m_path = pattern;
        fs::permissions(m_path, fs::perms::owner_all | fs::perms::group_read |
                                    fs::perms::group_exec | fs::perms::others_read |
                                    fs::perms::others_exec);
    }
    ~SharedTemporaryDirectory() {
        std::error_code ignored;
        fs::remove_all(m_path, ignored);
    }
    SharedTemporaryDirectory(const SharedTemporaryDirectory&) = delete;
    SharedTemporaryDirectory& operator=(const SharedTemporaryDirectory&) = delete;

    const fs::path& path() const { return m_path; }

private:
    fs::path m_path;
};

TEST(ToolFailures, AnUnreadableDiskSaysPermissionDenied) {
    const SharedTemporaryDirectory directory;
    const fs::path unreadable = directory.path() / "unreadable.img";
    fs::copy_file(kestrow::test::bareVolume(), unreadable);
    fs::permissions(unreadable, fs::perms::none);
    std::vector<std::string> argv = {KESTROW_TOOL_PATH};
    if (geteuid() == 0) {
        // Root reads everything: run as nobody then, from a copy of the
        // program and its library beside the image, as nobody may not enter
        // the build tree (a clone under /root or a private directory).
        const std::vector<std::string> asNobody = {"setpriv", "--reuid=65534", "--regid=65534",
                                                   "--clear-groups"};
        const fs::path tool = directory.path() / "kestrow";
        const fs::path library = KESTROW_LIBRARY_PATH;
        fs::copy_file(KESTROW_TOOL_PATH, tool);
        fs::copy_file(library, directory.path() / library.filename());
        std::vector<std::string> canRun = asNobody;
        canRun.insert(canRun.end(), {"test", "-x", tool.string()});
        if (oracle::runTool(canRun).exitCode != 0)
            GTEST_SKIP() << "needs: setpriv, and a directory under /tmp that user nobody (65534) "
                            "can enter";
        argv = asNobody;
        argv.insert(argv.end(),
                    {"env", "LD_LIBRARY_PATH=" + directory.path().string(), tool.string()});
    }
    argv.insert(argv.end(), {"--disk", unreadable.string(), "volumes"});
    const auto result = oracle::runTool(argv);
    EXPECT_EQ(result.exitCode, 1) << result.err;
    EXPECT_NE(result.err.find("Permission denied (reading a block device usually needs root)"),
              std::string::npos)
        << result.err;
}

TEST(ToolFailures, ANotNtfsImageIsNotAVolume) {
    // The fixture manifest is a file, but no disk: nothing is recognised on it.
    const auto result =
        kestrow(kestrow::test::fixtureDir() / kestrow::test::kManifestFileName, {"info", "C:"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_NE(result.err.find("no volume C: on the attached disks (volumes: none)"),
              std::string::npos)
        << result.err;
}

// A copy of an image whose Readme.txt record names a parent far beyond the
// MFT: the library's index check fails while building the directory index.
TEST(ToolFailures, DamagedParentReferenceEndsInOneLineNotACrash) {
    const FixtureImage which = FixtureImage::Cluster64k;
    kestrow::test::ScratchImage scratch(kestrow::test::imagePath(which));
    const auto fsstat = oracle::fileSystemStats(scratch.path());
    const auto inode = oracle::findInode(scratch.path(), kestrow::test::kReadmePath);
    ASSERT_TRUE(inode.has_value());
    const std::uint64_t record =
        fsstat.firstMftCluster * fsstat.clusterSize + *inode * fsstat.mftEntrySize;
    // Walk the attributes to the $FILE_NAME; its value starts with the parent.
    const auto bytes = scratch.read(record, fsstat.mftEntrySize);
    auto le16 = [&](std::size_t at) { return bytes[at] | (bytes[at + 1] << 8); };
    auto le32 = [&](std::size_t at) {
        return static_cast<std::uint32_t>(le16(at)) |
               (static_cast<std::uint32_t>(le16(at + 2)) << 16);
    };
    std::size_t at = le16(0x14);
    while (at + 0x18 < bytes.size() && le32(at) != 0x30 && le32(at) != 0xFFFFFFFF)
        at += le32(at + 4);
    ASSERT_EQ(le32(at), 0x30u);
    scratch.patchLe64(record + at + le16(at + 0x14), 0x0001000000007FFFull);

    const auto result = kestrow(scratch.path(), {"ls", "C:", "/"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_NE(result.err.find("kestrow: the library stopped on a failed internal check (code 7)"),
              std::string::npos)
        << result.err;
    EXPECT_NE(result.err.find("index < size()"), std::string::npos) << result.err;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    // Paths are walked through the table and the disk only: the broken walk
    // yields the name alone, and nothing fails.
    const auto paths = kestrowOk(scratch.path(), {"paths", "C:"});
    EXPECT_NE(paths.out.find("\nReadme.txt\n"), std::string::npos) << paths.out;
}

TEST(ToolHelp, EveryCommandHasHelp) {
    for (const std::string command : {"volumes", "info", "record", "ls", "paths", "find", "owner",
                                      "extents", "dump", "bitmap"}) {
        SCOPED_TRACE(command);
        const auto result = oracle::runTool({KESTROW_TOOL_PATH, command, "--help"});
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_TRUE(result.out.starts_with("usage: kestrow " + command)) << result.out;
    }
    const auto general = oracle::runTool({KESTROW_TOOL_PATH, "--help"});
    EXPECT_EQ(general.exitCode, 0);
    EXPECT_NE(general.out.find("--disk PATH"), std::string::npos);
    const auto version = oracle::runTool({KESTROW_TOOL_PATH, "--version"});
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_TRUE(version.out.starts_with("kestrow ")) << version.out;
    const auto shortVersion = oracle::runTool({KESTROW_TOOL_PATH, "-V"});
    EXPECT_EQ(shortVersion.exitCode, 0);
    EXPECT_EQ(shortVersion.out, version.out);
}

TEST(ToolVerbose, ShowsTheLibrarysDiagnosticLines) {
    const auto quiet = kestrowOk(kestrow::test::mbrDisk(), {"info", "C:"});
    const auto verbose = kestrow(kestrow::test::mbrDisk(), {"-v", "info", "C:"});
    EXPECT_EQ(verbose.exitCode, 0);
    EXPECT_NE(verbose.err.find("[libKestrow.Volume] 1 37 Getting volume information for C"),
              std::string::npos)
        << verbose.err;
    EXPECT_EQ(verbose.out, quiet.out);
}

} // namespace
