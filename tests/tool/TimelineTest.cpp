// kestrow timeline against `fls -r -m /` (The Sleuth Kit's bodyfile), on every
// fixture image and on the Windows-made disk; its CSV and JSON Lines read
// back with Python's csv and json modules; record --all on a deleted record.
#include "support/Fixtures.h"
#include "support/Oracle.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

namespace fs = std::filesystem;
namespace oracle = kestrow::test::oracle;
using kestrow::test::FixtureImage;

namespace {

// The Windows-made disk and the sectors its two NTFS partitions start at.
constexpr const char FIELD_ARCHIVE[] = "vss_3_volstor.tar.gz";
constexpr const char FIELD_IMAGE[] = "vss_3_volstor.raw";
constexpr std::uint64_t FIELD_PARTITIONS[] = {2048, 4196352};

struct KestrowRun {
    std::string out;
    int status = -1;
};

KestrowRun kestrow(const fs::path& image, std::vector<std::string> arguments) {
    std::vector<std::string> argv = {KESTROW_TOOL_PATH, "--disk", image.string()};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    const oracle::ToolOutput result = oracle::runTool(argv);
    EXPECT_EQ(result.err, "") << "kestrow " << arguments.front();
    return {result.out, result.exitCode};
}

// One bodyfile line without its MD5, mode, UID and GID:
// name|inode|size|atime|mtime|ctime|crtime. (fls takes the mode's first
// letter from the directory entry it came through, which a timeline read from
// the MFT does not have; MD5, UID and GID it does not fill in for NTFS.)
std::string comparedFields(const std::string& line) {
    std::vector<std::string> fields;
    std::stringstream in(line);
    for (std::string field; std::getline(in, field, '|');)
        fields.push_back(field);
    if (fields.size() != 11)
        return "malformed: " + line;
    return fields[1] + "|" + fields[2] + "|" + fields[6] + "|" + fields[7] + "|" + fields[8] + "|" +
           fields[9] + "|" + fields[10];
}

std::multiset<std::string> bodyLines(const std::string& text) {
    std::multiset<std::string> lines;
    std::stringstream in(text);
    for (std::string line; std::getline(in, line);) {
        // fls's virtual $OrphanFiles directory, and the reserved records it
        // lists there under made-up names (no $FILE_NAME, no attributes).
        const std::string name = line.substr(line.find('|') + 1);
        if (name.starts_with("/$OrphanFiles|") || name.starts_with("/$OrphanFiles/OrphanFile-"))
            continue;
        lines.insert(comparedFields(line));
    }
    return lines;
}

std::string report(const std::multiset<std::string>& lines) {
    std::string text;
    std::size_t shown = 0;
    for (const std::string& line : lines) {
        if (++shown > 20)
            return text + "   ...\n";
        text += "   " + line + "\n";
    }
    return text;
}

// Every line of each tool's bodyfile is in the other's: allocated files with
// their streams and "($FILE_NAME)" lines, and deleted records in free slots.
void expectTimelineMatchesFls(const fs::path& image, std::uint64_t sectorOffset,
                              const std::string& letter) {
    const std::string fls = oracle::runToolChecked(
        {"fls", "-r", "-m", "/", "-o", std::to_string(sectorOffset), image.string()});
    const KestrowRun ours = kestrow(image, {"timeline", letter});
    ASSERT_EQ(ours.status, 0);
    const std::multiset<std::string> theirs = bodyLines(fls);
    const std::multiset<std::string> mine = bodyLines(ours.out);
    std::multiset<std::string> onlyFls;
    std::multiset<std::string> onlyOurs;
    for (const std::string& line : theirs)
        if (mine.count(line) < theirs.count(line))
            onlyFls.insert(line);
    for (const std::string& line : mine)
        if (theirs.count(line) < mine.count(line))
            onlyOurs.insert(line);
    EXPECT_TRUE(onlyFls.empty()) << image << " " << letter << ": only fls lists\n"
                                 << report(onlyFls);
    EXPECT_TRUE(onlyOurs.empty()) << image << " " << letter << ": only kestrow lists\n"
                                  << report(onlyOurs);
    EXPECT_GE(mine.size(), 30u);
}

// The Windows-made disk, extracted (sparse) into the build tree once; empty
// when the archive is not there.
fs::path fieldDirectory() {
    const char* configured = std::getenv("KESTROW_FIELD_DIR");
    return configured != nullptr ? fs::path(configured) : fs::path(KESTROW_FIELD_DIR);
}

fs::path fieldImage() {
    const fs::path directory = fieldDirectory();
    const fs::path archive = directory / FIELD_ARCHIVE;
    if (!fs::exists(archive))
        return {};
    const fs::path target = fs::current_path() / "field";
    const fs::path image = target / FIELD_IMAGE;
    if (!fs::exists(image)) {
        fs::create_directories(target);
        oracle::runToolChecked({"tar", "-xzf", archive.string(), "-C", target.string()});
    }
    return image;
}

TEST(ToolTimeline, BodyfileMatchesFlsOnEveryFixtureImage) {
    for (const FixtureImage which :
         {FixtureImage::Bare, FixtureImage::MbrDisk, FixtureImage::GptDisk, FixtureImage::Sector4k,
          FixtureImage::Cluster512, FixtureImage::Cluster64k, FixtureImage::Rich}) {
        const kestrow::test::ImageFacts& facts = kestrow::test::factsOf(which);
        expectTimelineMatchesFls(kestrow::test::imagePath(which),
                                 facts.volumeOffset / facts.bytesPerSector, "C:");
    }
}

TEST(ToolTimeline, BodyfileMatchesFlsOnTheWindowsDisk) {
    const fs::path image = fieldImage();
    if (image.empty())
        GTEST_SKIP() << "needs: the Windows-made disk " << FIELD_ARCHIVE << " in "
                     << fieldDirectory().string() << " (or set KESTROW_FIELD_DIR)";
    expectTimelineMatchesFls(image, FIELD_PARTITIONS[0], "C:");
    expectTimelineMatchesFls(image, FIELD_PARTITIONS[1], "D:");
    // The disk holds a deleted file in a free record: it must be there.
    const KestrowRun ours = kestrow(image, {"timeline", "C:"});
    EXPECT_NE(ours.out.find(" (deleted)|"), std::string::npos);
}

TEST(ToolTimeline, AnExtractedMftGivesTheVolumesTimeline) {
    const fs::path image = kestrow::test::imagePath(FixtureImage::Rich);
    const fs::path mft =
        fs::temp_directory_path() / ("kestrow-timeline-" + std::to_string(::getpid()) + ".mft");
    oracle::runToolChecked({"sh", "-c", "icat \"$0\" 0 > \"$1\"", image.string(), mft.string()});
    const KestrowRun fromMft = kestrow(mft, {"timeline", "C:"});
    fs::remove(mft);
    EXPECT_EQ(fromMft.status, 0);
    EXPECT_EQ(fromMft.out, kestrow(image, {"timeline", "C:"}).out);
}

TEST(ToolTimeline, MactimeReadsTheBodyfile) {
    const KestrowRun ours =
        kestrow(kestrow::test::imagePath(FixtureImage::Rich), {"timeline", "C:"});
    const fs::path body =
        fs::temp_directory_path() / ("kestrow-timeline-" + std::to_string(::getpid()) + ".body");
    {
        std::FILE* file = std::fopen(body.c_str(), "w");
        ASSERT_NE(file, nullptr);
        std::fwrite(ours.out.data(), 1, ours.out.size(), file);
        std::fclose(file);
    }
    const oracle::ToolOutput mactime =
        oracle::runTool({"mactime", "-b", body.string(), "-z", "UTC"});
    fs::remove(body);
    EXPECT_EQ(mactime.exitCode, 0) << mactime.err;
    EXPECT_NE(mactime.out.find("/Streams/streams.txt:stream-00"), std::string::npos);
}

// Reads the CSV and the JSON Lines with Python's own modules and prints the
// facts each gives, one line per record and name:
// index|path|deleted|SI times|FN times|data size, the times as bodyfile
// seconds. The two must print the same lines.
constexpr const char READ_BACK[] = R"PY(
import csv, json, sys
EPOCH = 116444736000000000
def ticks(text):
    date, time = text.rstrip('Z').split('T')
    y, mo, d = (int(x) for x in date.split('-'))
    hms, frac = time.split('.')
    h, mi, s = (int(x) for x in hms.split(':'))
    import datetime
    days = (datetime.date(y, mo, d) - datetime.date(1601, 1, 1)).days
    return ((days * 86400 + h * 3600 + mi * 60 + s) * 10000000) + int(frac)
def secs(text):
    return str(((ticks(text) - EPOCH) % (1 << 64)) // 10000000 % (1 << 32))
def times(c, m, mft, a):
    return '|'.join(secs(t) for t in (a, m, mft, c))
out = []
if sys.argv[1] == 'csv':
    rows = list(csv.DictReader(open(sys.argv[2], newline='', encoding='utf-8')))
    for r in rows:
        if r['nameSpace'] == '2':
            continue
        out.append('|'.join([r['index'], r['path'], r['inUse'],
                             times(r['siCreated'], r['siModified'], r['siMftChanged'], r['siAccessed']),
                             times(r['fnCreated'], r['fnModified'], r['fnMftChanged'], r['fnAccessed']),
                             r['dataSize']]))
else:
    for line in open(sys.argv[2], encoding='utf-8'):
        o = json.loads(line)
        si = o['standardInformation']['times']
        data = [s['size'] for s in o['streams'] if s['type'] == 128 and s['name'] == '']
        for n in o['names']:
            if n['nameSpace'] == 2:
                continue
            t = n['times']
            out.append('|'.join([str(o['index']), n['path'], '1' if o['inUse'] else '0',
                                 times(si['created'], si['modified'], si['mftChanged'], si['accessed']),
                                 times(t['created'], t['modified'], t['mftChanged'], t['accessed']),
                                 str(data[0] if data else 0)]))
print('\n'.join(sorted(out)))
)PY";

std::string readBack(const std::string& kind, const std::string& text) {
    const fs::path file =
        fs::temp_directory_path() / ("kestrow-timeline-" + std::to_string(::getpid()) + "." + kind);
    std::FILE* out = std::fopen(file.c_str(), "w");
    EXPECT_NE(out, nullptr);
    if (out == nullptr)
        return {};
    std::fwrite(text.data(), 1, text.size(), out);
    std::fclose(out);
    const oracle::ToolOutput result =
        oracle::runTool({"python3", "-c", READ_BACK, kind, file.string()});
    fs::remove(file);
    EXPECT_EQ(result.exitCode, 0) << kind << ": " << result.err;
    return result.out;
}

// The same facts from the bodyfile: each name's FN times from its
// "($FILE_NAME)" line, the SI times and size from its unnamed stream's line.
std::set<std::string> bodyFacts(const std::string& body) {
    std::map<std::string, std::string> fileName;
    std::map<std::string, std::string> standard;
    std::stringstream in(body);
    for (std::string line; std::getline(in, line);) {
        std::vector<std::string> f;
        std::stringstream fields(line);
        for (std::string field; std::getline(fields, field, '|');)
            f.push_back(field);
        std::string name = f[1];
        const bool deleted = name.ends_with(" (deleted)");
        if (deleted)
            name.resize(name.size() - 10);
        const std::string index = f[2].substr(0, f[2].find('-'));
        const std::string times = f[7] + "|" + f[8] + "|" + f[9] + "|" + f[10];
        if (name.ends_with(" ($FILE_NAME)"))
            fileName[index + "|" + name.substr(0, name.size() - 13) + "|" + (deleted ? "0" : "1")] =
                times;
        else if (f[2].find("-128-") != std::string::npos && name.find(':') == std::string::npos)
            standard[index + "|" + name + "|" + (deleted ? "0" : "1")] = times + "|" + f[6];
    }
    std::set<std::string> facts;
    for (const auto& [key, fnTimes] : fileName) {
        const auto si = standard.find(key);
        if (si == standard.end())
            continue; // a directory: its index root's line carries no data size
        const std::string siTimes = si->second.substr(0, si->second.rfind('|'));
        facts.insert(key + "|" + siTimes + "|" + fnTimes + "|" +
                     si->second.substr(si->second.rfind('|') + 1));
    }
    return facts;
}

std::set<std::string> linesOf(const std::string& text) {
    std::set<std::string> lines;
    std::stringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.insert(line);
    return lines;
}

TEST(ToolTimeline, CsvAndJsonLinesCarryTheBodyfilesFacts) {
    const fs::path image = kestrow::test::imagePath(FixtureImage::Rich);
    const KestrowRun csv = kestrow(image, {"timeline", "C:", "--csv"});
    const KestrowRun jsonl = kestrow(image, {"timeline", "C:", "--jsonl"});
    const KestrowRun body = kestrow(image, {"timeline", "C:"});
    ASSERT_EQ(csv.status, 0);
    ASSERT_EQ(jsonl.status, 0);
    EXPECT_TRUE(csv.out.starts_with("index,sequence,inUse,directory,path,name,"));
    const std::set<std::string> fromCsv = linesOf(readBack("csv", csv.out));
    const std::set<std::string> fromJson = linesOf(readBack("jsonl", jsonl.out));
    EXPECT_EQ(fromCsv, fromJson);
    // Every file's facts in the bodyfile, with the same times and size, are
    // in the CSV (which also has the directories).
    const std::set<std::string> fromBody = bodyFacts(body.out);
    EXPECT_GE(fromBody.size(), 100u);
    for (const std::string& fact : fromBody)
        EXPECT_TRUE(fromCsv.count(fact)) << "not in the CSV: " << fact;
}

TEST(ToolTimeline, RecordAllShowsADeletedRecord) {
    const fs::path image = kestrow::test::imagePath(FixtureImage::Rich);
    const KestrowRun body = kestrow(image, {"timeline", "C:"});
    const std::size_t deleted = body.out.find(" (deleted)|");
    ASSERT_NE(deleted, std::string::npos) << "the rich image has a deleted file";
    const std::size_t inode = deleted + 11;
    const std::string index = body.out.substr(inode, body.out.find('-', inode) - inode);
    const KestrowRun all = kestrow(image, {"record", "C:", index, "--all"});
    EXPECT_EQ(all.status, 0);
    EXPECT_NE(all.out.find("State             : free"), std::string::npos) << all.out;
    EXPECT_NE(all.out.find("$FILE_NAME        : "), std::string::npos) << all.out;
    const oracle::ToolOutput plain =
        oracle::runTool({KESTROW_TOOL_PATH, "--disk", image.string(), "record", "C:", index});
    EXPECT_EQ(plain.exitCode, 1) << "the library's own reading skips a free record";
}

} // namespace
