#include "Oracle.h"
#include "Fixtures.h"
#include "WineTools.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <fstream>
#include <random>
#include <sstream>

#ifdef _WIN32
#define KESTROW_POPEN _popen
#define KESTROW_PCLOSE _pclose
#else
#include <sys/wait.h>
#define KESTROW_POPEN popen
#define KESTROW_PCLOSE pclose
#endif

namespace kestrow::test::oracle {

namespace {

// ---- Text helpers ---------------------------------------------------------------

std::string_view trim(std::string_view text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front())))
        text.remove_prefix(1);
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())))
        text.remove_suffix(1);
    return text;
}

std::vector<std::string_view> splitLines(std::string_view text) {
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        const auto end = text.find('\n');
        auto line = text.substr(0, end);
        if (!line.empty() && line.back() == '\r')
            line.remove_suffix(1);
        lines.push_back(line);
        if (end == std::string_view::npos)
            break;
        text.remove_prefix(end + 1);
    }
    return lines;
}

std::vector<std::string_view> splitWords(std::string_view text) {
    std::vector<std::string_view> words;
    std::size_t i = 0;
    while (i < text.size()) {
        while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i])))
            ++i;
        const std::size_t start = i;
        while (i < text.size() && !std::isspace(static_cast<unsigned char>(text[i])))
            ++i;
        if (i > start)
            words.push_back(text.substr(start, i - start));
    }
    return words;
}

[[noreturn]] void parseFailure(std::string_view what, std::string_view line) {
    throw OracleError("cannot parse " + std::string(what) + ": \"" + std::string(line) + "\"");
}

template <typename T> std::optional<T> tryNumber(std::string_view text, int base = 10) {
    text = trim(text);
    if (base == 16 && (text.starts_with("0x") || text.starts_with("0X")))
        text.remove_prefix(2);
    T value{};
    const auto* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value, base);
    if (text.empty() || result.ec != std::errc{} || result.ptr != end)
        return std::nullopt;
    return value;
}

template <typename T> T number(std::string_view text, std::string_view what, int base = 10) {
    const auto value = tryNumber<T>(text, base);
    if (!value)
        parseFailure(what, text);
    return *value;
}

// The leading decimal digits of `text` ("1024 bytes" -> 1024).
std::uint64_t leadingNumber(std::string_view text, std::string_view what) {
    text = trim(text);
    std::size_t digits = 0;
    while (digits < text.size() && std::isdigit(static_cast<unsigned char>(text[digits])))
        ++digits;
    return number<std::uint64_t>(text.substr(0, digits), what);
}

// "key: value" -> {key, value}; nullopt when the line has no ": ".
std::optional<std::pair<std::string_view, std::string_view>> keyValue(std::string_view line) {
    const auto colon = line.find(':');
    if (colon == std::string_view::npos)
        return std::nullopt;
    return std::pair{trim(line.substr(0, colon)), trim(line.substr(colon + 1))};
}

// "A - B" -> {A, B}.
std::pair<std::uint64_t, std::uint64_t> range(std::string_view text, std::string_view what) {
    const auto dash = text.find(" - ");
    if (dash == std::string_view::npos)
        parseFailure(what, text);
    return {number<std::uint64_t>(text.substr(0, dash), what),
            number<std::uint64_t>(text.substr(dash + 3), what)};
}

std::vector<std::string> withOffset(std::vector<std::string> argv, std::uint64_t sectorOffset) {
    if (sectorOffset != 0) {
        argv.insert(argv.begin() + 1, std::to_string(sectorOffset));
        argv.insert(argv.begin() + 1, "-o");
    }
    return argv;
}

std::filesystem::path temporaryFile() {
    static std::atomic<unsigned> counter{0};
    std::random_device entropy;
    return std::filesystem::temp_directory_path() /
           ("kestrow-oracle-" + std::to_string(entropy()) + "-" + std::to_string(counter++));
}

int exitCodeOf(int status) {
#ifdef _WIN32
    return status;
#else
    if (status == -1)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
#endif
}

} // namespace

// ---- Running tools -------------------------------------------------------------------

std::string shellQuote(std::string_view argument) {
    std::string quoted = "'";
    for (char c : argument) {
        if (c == '\'')
            quoted += "'\\''";
        else
            quoted += c;
    }
    quoted += '\'';
    return quoted;
}

ToolOutput runTool(const std::vector<std::string>& argv) {
#ifdef _WIN32
    // The tools are Linux programs; Windows test programs reach them through Wine.
    return runToolUnderWine(argv);
#endif
    if (argv.empty())
        throw OracleError("no tool to run");
    const auto errFile = temporaryFile();
    std::string command;
    for (const auto& arg : argv)
        command += shellQuote(arg) + " ";
    command += "2>" + shellQuote(errFile.string());

    ToolOutput output;
    std::FILE* pipe = KESTROW_POPEN(command.c_str(), "r");
    if (!pipe)
        throw OracleError("cannot start: " + command);
    char buffer[65536];
    std::size_t got;
    while ((got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0)
        output.out.append(buffer, got);
    output.exitCode = exitCodeOf(KESTROW_PCLOSE(pipe));
    {
        std::ifstream err(errFile, std::ios::binary);
        std::ostringstream text;
        text << err.rdbuf();
        output.err = text.str();
    }
    std::error_code ignored;
    std::filesystem::remove(errFile, ignored);
    return output;
}

std::string runToolChecked(const std::vector<std::string>& argv) {
    auto output = runTool(argv);
    if (output.exitCode != 0) {
        std::string command;
        for (const auto& arg : argv)
            command += arg + " ";
        throw OracleError("\"" + command + "\" exited with " + std::to_string(output.exitCode) +
                          ": " + output.err);
    }
    return std::move(output.out);
}

// ---- fls ------------------------------------------------------------------------------

std::string FlsEntry::streamName() const {
    const auto slash = path.rfind('/');
    const auto colon = path.find(':', slash == std::string::npos ? 0 : slash + 1);
    return colon == std::string::npos ? std::string{} : path.substr(colon + 1);
}

std::string FlsEntry::filePath() const {
    const auto slash = path.rfind('/');
    const auto colon = path.find(':', slash == std::string::npos ? 0 : slash + 1);
    return path.substr(0, colon);
}

std::vector<FlsEntry> parseFls(std::string_view text) {
    std::vector<FlsEntry> entries;
    for (auto line : splitLines(text)) {
        if (trim(line).empty())
            continue;
        // "r/r * 71-128-2:\tTrash/deleted-file.bin"; the name follows the first ":\t".
        const auto separator = line.find(":\t");
        if (separator == std::string_view::npos || separator < 4 || line[1] != '/')
            parseFailure("fls line", line);
        FlsEntry entry;
        entry.nameType = line[0];
        entry.metaType = line[2];
        entry.path = std::string(line.substr(separator + 2));
        auto meta = trim(line.substr(3, separator - 3));
        if (meta.starts_with("*")) {
            entry.deleted = true;
            meta = trim(meta.substr(1));
        }
        if (meta.ends_with("(realloc)")) {
            entry.reallocated = true;
            meta.remove_suffix(9);
        }
        const auto firstDash = meta.find('-');
        entry.inode = number<std::uint64_t>(meta.substr(0, firstDash), "fls inode");
        if (firstDash != std::string_view::npos) {
            const auto rest = meta.substr(firstDash + 1);
            const auto secondDash = rest.find('-');
            if (secondDash == std::string_view::npos)
                parseFailure("fls attribute", line);
            entry.attributeType =
                number<std::uint32_t>(rest.substr(0, secondDash), "fls attribute type");
            entry.attributeId =
                number<std::uint16_t>(rest.substr(secondDash + 1), "fls attribute id");
        }
        entries.push_back(std::move(entry));
    }
    return entries;
}

std::vector<FlsEntry> listFiles(const std::filesystem::path& image, std::uint64_t sectorOffset,
                                FlsSelection selection) {
    std::vector<std::string> argv = {"fls", "-r", "-p"};
    if (selection == FlsSelection::DeletedOnly)
        argv.push_back("-d");
    else if (selection == FlsSelection::AllocatedOnly)
        argv.push_back("-u");
    argv.push_back(image.string());
    return parseFls(runToolChecked(withOffset(argv, sectorOffset)));
}

// ---- istat ------------------------------------------------------------------------------

std::vector<ClusterRun> IstatAttribute::runs() const {
    std::vector<ClusterRun> result;
    for (std::size_t i = 0; i < clusters.size(); ++i) {
        const std::uint64_t cluster = clusters[i];
        // istat prints 0 for a cluster of a sparse run and for allocated
        // clusters past the data size. Cluster 0 itself only ever starts
        // $Boot's data, which is not sparse.
        const bool hole = cluster == 0 && (sparse || i != 0);
        if (!result.empty()) {
            auto& last = result.back();
            if (hole && last.sparse) {
                ++last.count;
                continue;
            }
            if (!hole && !last.sparse && last.firstCluster + last.count == cluster) {
                ++last.count;
                continue;
            }
        }
        result.push_back({hole ? 0 : cluster, 1, hole});
    }
    return result;
}

const IstatAttribute* IstatResult::find(std::uint32_t type, std::string_view name) const {
    for (const auto& attribute : attributes)
        if (attribute.type == type && attribute.name == name)
            return &attribute;
    return nullptr;
}

bool IstatResult::has(std::uint32_t type) const {
    return std::any_of(attributes.begin(), attributes.end(),
                       [type](const IstatAttribute& a) { return a.type == type; });
}

namespace {

// "Type: $DATA (128-2)   Name: N/A   Non-Resident, Sparse   size: 16785408  init_size: 16785408"
IstatAttribute parseIstatAttribute(std::string_view line) {
    IstatAttribute attribute;
    const auto open = line.find(" (");
    const auto close = line.find(')', open);
    const auto dash = line.find('-', open);
    if (open == std::string_view::npos || close == std::string_view::npos || dash > close)
        parseFailure("istat attribute", line);
    attribute.typeName = std::string(trim(line.substr(6, open - 6)));
    attribute.type =
        number<std::uint32_t>(line.substr(open + 2, dash - open - 2), "attribute type");
    attribute.id = number<std::uint16_t>(line.substr(dash + 1, close - dash - 1), "attribute id");

    const auto nameAt = line.find("Name: ", close);
    auto residentAt = line.find("   Non-Resident", nameAt);
    attribute.resident = residentAt == std::string_view::npos;
    if (attribute.resident)
        residentAt = line.find("   Resident", nameAt);
    const auto sizeAt = line.find("size: ", residentAt);
    if (nameAt == std::string_view::npos || residentAt == std::string_view::npos ||
        sizeAt == std::string_view::npos)
        parseFailure("istat attribute", line);
    const auto name = line.substr(nameAt + 6, residentAt - nameAt - 6);
    attribute.name = name == "N/A" ? std::string{} : std::string(name);
    const auto flags = line.substr(residentAt, sizeAt - residentAt);
    attribute.sparse = flags.find("Sparse") != std::string_view::npos;
    attribute.compressed = flags.find("Compressed") != std::string_view::npos;
    const auto sizes = line.substr(sizeAt + 6);
    attribute.size = leadingNumber(sizes, "attribute size");
    if (const auto initAt = sizes.find("init_size: "); initAt != std::string_view::npos)
        attribute.initializedSize = leadingNumber(sizes.substr(initAt + 11), "init_size");
    return attribute;
}

bool isClusterLine(std::string_view line) {
    line = trim(line);
    return !line.empty() && std::all_of(line.begin(), line.end(), [](char c) {
        return std::isdigit(static_cast<unsigned char>(c)) || c == ' ';
    });
}

} // namespace

IstatResult parseIstat(std::string_view text) {
    IstatResult result;
    enum class Section { Header, StandardInformation, FileName, Attributes, Other };
    Section section = Section::Header;
    bool sawEntry = false;
    for (auto line : splitLines(text)) {
        const auto trimmed = trim(line);
        if (trimmed.empty())
            continue;
        if (trimmed == "$FILE_NAME Attribute Values:") {
            section = Section::FileName;
            result.fileNames.emplace_back();
            continue;
        }
        if (trimmed == "Attributes:") {
            section = Section::Attributes;
            continue;
        }
        if (trimmed.ends_with("Attribute Values:")) {
            section = Section::Other;
            continue;
        }
        switch (section) {
        case Section::Header:
            if (trimmed.starts_with("Entry: ")) {
                const auto words = splitWords(trimmed);
                if (words.size() < 4 || words[2] != "Sequence:")
                    parseFailure("istat entry", line);
                result.entry = number<std::uint64_t>(words[1], "entry");
                result.sequence = number<std::uint16_t>(words[3], "sequence");
                sawEntry = true;
            } else if (trimmed.starts_with("Base File Record: ")) {
                result.baseRecord = leadingNumber(trimmed.substr(18), "base record");
            } else if (trimmed == "Allocated File" || trimmed == "Allocated Directory") {
                result.allocated = true;
            } else if (trimmed == "Not Allocated File" || trimmed == "Not Allocated Directory") {
                result.allocated = false;
            } else if (trimmed.starts_with("Links: ")) {
                result.links =
                    static_cast<std::uint32_t>(leadingNumber(trimmed.substr(7), "links"));
            }
            break;
        case Section::FileName: {
            auto& fileName = result.fileNames.back();
            if (trimmed.starts_with("Name: ")) {
                fileName.name = std::string(line.substr(line.find("Name: ") + 6));
            } else if (trimmed.starts_with("Parent MFT Entry: ")) {
                const auto words = splitWords(trimmed);
                if (words.size() < 6)
                    parseFailure("istat parent", line);
                fileName.parent = number<std::uint64_t>(words[3], "parent");
                fileName.parentSequence = number<std::uint16_t>(words[5], "parent sequence");
            } else if (const auto pair = keyValue(trimmed); pair && pair->first == "Flags") {
                fileName.flags = std::string(pair->second);
            } else if (pair && pair->first == "Created") {
                fileName.created = std::string(pair->second);
            } else if (pair && pair->first == "File Modified") {
                fileName.modified = std::string(pair->second);
            } else if (pair && pair->first == "Accessed") {
                fileName.accessed = std::string(pair->second);
            } else if (trimmed.starts_with("Allocated Size: ")) {
                const auto words = splitWords(trimmed);
                if (words.size() < 6)
                    parseFailure("istat sizes", line);
                fileName.allocatedSize = number<std::uint64_t>(words[2], "allocated size");
                fileName.actualSize = number<std::uint64_t>(words[5], "actual size");
            }
            break;
        }
        case Section::Attributes:
            if (trimmed.starts_with("Type: ")) {
                result.attributes.push_back(parseIstatAttribute(trimmed));
            } else if (isClusterLine(trimmed) && !result.attributes.empty()) {
                for (auto word : splitWords(trimmed))
                    result.attributes.back().clusters.push_back(
                        number<std::uint64_t>(word, "cluster"));
            } else {
                parseFailure("istat attribute list", line);
            }
            break;
        case Section::StandardInformation:
        case Section::Other:
            break;
        }
    }
    if (!sawEntry)
        parseFailure("istat output", text.substr(0, 200));
    return result;
}

IstatResult inspectRecord(const std::filesystem::path& image, std::uint64_t inode,
                          std::uint64_t sectorOffset) {
    return parseIstat(
        runToolChecked(withOffset({"istat", image.string(), std::to_string(inode)}, sectorOffset)));
}

// ---- ifind, icat --------------------------------------------------------------------------

std::optional<AttributeOwner> findClusterOwner(const std::filesystem::path& image,
                                               std::uint64_t cluster, std::uint64_t sectorOffset) {
    const auto text = runToolChecked(
        withOffset({"ifind", "-d", std::to_string(cluster), image.string()}, sectorOffset));
    const auto output = trim(text);
    if (output.find("not found") != std::string_view::npos)
        return std::nullopt;
    const auto words = splitWords(output);
    const auto parts = words.empty() ? std::string_view{} : words[0];
    const auto first = parts.find('-');
    const auto second = parts.find('-', first + 1);
    if (first == std::string_view::npos || second == std::string_view::npos)
        parseFailure("ifind -d output", output);
    return AttributeOwner{
        number<std::uint64_t>(parts.substr(0, first), "inode"),
        number<std::uint32_t>(parts.substr(first + 1, second - first - 1), "attribute type"),
        number<std::uint16_t>(parts.substr(second + 1), "attribute id")};
}

std::optional<std::uint64_t> findInode(const std::filesystem::path& image, std::string_view path,
                                       std::uint64_t sectorOffset) {
    const auto text = runToolChecked(
        withOffset({"ifind", "-n", std::string(path), image.string()}, sectorOffset));
    const auto output = trim(text);
    if (output.find("not found") != std::string_view::npos)
        return std::nullopt;
    // Either "66" or "66-128-2".
    return number<std::uint64_t>(output.substr(0, output.find('-')), "ifind -n output");
}

std::string readContent(const std::filesystem::path& image, std::string_view inodeSpec,
                        std::uint64_t sectorOffset) {
    return runToolChecked(
        withOffset({"icat", image.string(), std::string(inodeSpec)}, sectorOffset));
}

std::string readContent(const std::filesystem::path& image, std::uint64_t inode,
                        std::uint64_t sectorOffset) {
    return readContent(image, std::to_string(inode), sectorOffset);
}

std::vector<bool> allocatedClusters(const std::filesystem::path& image,
                                    std::uint64_t sectorOffset) {
    const auto clusterCount = fileSystemStats(image, sectorOffset).totalClusters;
    const auto bitmap = readContent(image, 6, sectorOffset);
    if (bitmap.size() * 8 < clusterCount)
        throw OracleError("$Bitmap of " + image.string() + " has " + std::to_string(bitmap.size()) +
                          " bytes for " + std::to_string(clusterCount) + " clusters");
    std::vector<bool> used(clusterCount);
    for (std::uint64_t cluster = 0; cluster < clusterCount; ++cluster)
        used[cluster] = (static_cast<unsigned char>(bitmap[cluster / 8]) >> (cluster % 8)) & 1;
    return used;
}

std::uint64_t mftRecordOffset(const std::filesystem::path& image, std::uint64_t record,
                              std::uint64_t sectorOffset, std::uint64_t byteInRecord) {
    const auto stats = fileSystemStats(image, sectorOffset);
    if (byteInRecord >= stats.mftEntrySize)
        throw OracleError("byte " + std::to_string(byteInRecord) + " is outside a " +
                          std::to_string(stats.mftEntrySize) + "-byte record");
    const auto mft = inspectRecord(image, 0, sectorOffset);
    const auto* data = mft.find(kData);
    if (!data || data->resident)
        throw OracleError("no non-resident $MFT data in " + image.string());
    const std::uint64_t position = record * stats.mftEntrySize + byteInRecord;
    const std::uint64_t clusterIndex = position / stats.clusterSize;
    if (clusterIndex >= data->clusters.size())
        throw OracleError("record " + std::to_string(record) + " lies beyond the $MFT of " +
                          image.string());
    return sectorOffset * 512 + data->clusters[clusterIndex] * stats.clusterSize +
           position % stats.clusterSize;
}

std::vector<std::uint64_t> parseBlklsList(std::string_view text) {
    // "class|host|image|first_time|unit", its values, "addr|alloc", then
    // one "N|a" line per cluster.
    std::vector<std::uint64_t> clusters;
    bool inList = false;
    for (auto line : splitLines(text)) {
        if (line.empty())
            continue;
        if (!inList) {
            inList = line == "addr|alloc";
            continue;
        }
        const auto bar = line.find('|');
        if (bar == std::string_view::npos)
            parseFailure("blkls line", line);
        clusters.push_back(number<std::uint64_t>(line.substr(0, bar), "blkls cluster"));
    }
    if (!inList)
        parseFailure("blkls -l output", text.substr(0, 200));
    return clusters;
}

std::vector<std::uint64_t> allocatedClusterList(const std::filesystem::path& image,
                                                std::uint64_t sectorOffset) {
    return parseBlklsList(
        runToolChecked(withOffset({"blkls", "-a", "-l", image.string()}, sectorOffset)));
}

// ---- fsstat ----------------------------------------------------------------------------

FsstatResult parseFsstat(std::string_view text) {
    FsstatResult result;
    bool sawType = false;
    for (auto line : splitLines(text)) {
        // The $AttrDef table and later sections repeat words like "Size"; the
        // keys below are unique in the first three sections.
        const auto pair = keyValue(line);
        if (!pair)
            continue;
        const auto [key, value] = *pair;
        if (key == "File System Type") {
            result.fileSystemType = std::string(value);
            sawType = true;
        } else if (key == "Volume Serial Number") {
            result.serialNumber = number<std::uint64_t>(value, "serial number", 16);
        } else if (key == "OEM Name") {
            result.oemName = std::string(value);
        } else if (key == "Volume Name") {
            result.label = std::string(value);
        } else if (key == "Version") {
            result.version = std::string(value);
        } else if (key == "First Cluster of MFT") {
            result.firstMftCluster = number<std::uint64_t>(value, "first MFT cluster");
        } else if (key == "First Cluster of MFT Mirror") {
            result.firstMftMirrorCluster = number<std::uint64_t>(value, "MFT mirror cluster");
        } else if (key == "Size of MFT Entries") {
            result.mftEntrySize =
                static_cast<std::uint32_t>(leadingNumber(value, "MFT entry size"));
        } else if (key == "Size of Index Records") {
            result.indexRecordSize =
                static_cast<std::uint32_t>(leadingNumber(value, "index record size"));
        } else if (key == "Range") {
            result.lastMftEntry = range(value, "MFT range").second;
        } else if (key == "Root Directory") {
            result.rootDirectory = number<std::uint64_t>(value, "root directory");
        } else if (key == "Sector Size") {
            result.sectorSize = number<std::uint32_t>(value, "sector size");
        } else if (key == "Cluster Size") {
            result.clusterSize = number<std::uint32_t>(value, "cluster size");
        } else if (key == "Total Cluster Range") {
            result.totalClusters = range(value, "cluster range").second + 1;
        } else if (key == "Total Sector Range") {
            result.totalSectors = range(value, "sector range").second + 1;
        }
    }
    if (!sawType)
        parseFailure("fsstat output", text.substr(0, 200));
    return result;
}

FsstatResult fileSystemStats(const std::filesystem::path& image, std::uint64_t sectorOffset) {
    return parseFsstat(runToolChecked(withOffset({"fsstat", image.string()}, sectorOffset)));
}

// ---- Partition tables ----------------------------------------------------------------------

std::vector<MmlsEntry> MmlsResult::partitions() const {
    std::vector<MmlsEntry> result;
    std::copy_if(entries.begin(), entries.end(), std::back_inserter(result),
                 [](const MmlsEntry& e) { return e.isPartition(); });
    return result;
}

MmlsResult parseMmls(std::string_view text) {
    MmlsResult result;
    for (auto line : splitLines(text)) {
        const auto trimmed = trim(line);
        if (trimmed.empty())
            continue;
        const auto colon = trimmed.find(':');
        const bool isEntry =
            colon != std::string_view::npos && tryNumber<unsigned>(trimmed.substr(0, colon));
        if (!isEntry) {
            if (trimmed.starts_with("Units are in "))
                result.unitSize =
                    static_cast<std::uint32_t>(leadingNumber(trimmed.substr(13), "unit size"));
            else if (result.tableType.empty() && trimmed.find("Table") != std::string_view::npos)
                result.tableType = std::string(trimmed);
            continue; // headings, "Offset Sector: 0"
        }
        // "002:  000:000   0000002048   0000034815   0000032768   NTFS / exFAT (0x07)"
        const auto words = splitWords(trimmed.substr(colon + 1));
        if (words.size() < 4)
            parseFailure("mmls line", line);
        MmlsEntry entry;
        entry.index = number<unsigned>(trimmed.substr(0, colon), "mmls index");
        entry.slot = std::string(words[0]);
        entry.start = number<std::uint64_t>(words[1], "mmls start");
        entry.end = number<std::uint64_t>(words[2], "mmls end");
        entry.length = number<std::uint64_t>(words[3], "mmls length");
        const auto lengthAt = trimmed.find(words[3], colon);
        entry.description = std::string(trim(trimmed.substr(lengthAt + words[3].size())));
        result.entries.push_back(std::move(entry));
    }
    if (result.entries.empty())
        parseFailure("mmls output", text.substr(0, 200));
    return result;
}

MmlsResult listPartitions(const std::filesystem::path& image) {
    return parseMmls(runToolChecked({"mmls", image.string()}));
}

SfdiskDump parseSfdiskDump(std::string_view text) {
    SfdiskDump dump;
    for (auto line : splitLines(text)) {
        const auto trimmed = trim(line);
        if (trimmed.empty())
            continue;
        const auto separator = trimmed.find(" : ");
        if (separator == std::string_view::npos) {
            const auto pair = keyValue(trimmed);
            if (!pair)
                parseFailure("sfdisk header", line);
            if (pair->first == "label")
                dump.label = std::string(pair->second);
            else if (pair->first == "label-id")
                dump.labelId = std::string(pair->second);
            else if (pair->first == "sector-size")
                dump.sectorSize = number<std::uint32_t>(pair->second, "sector size");
            continue;
        }
        // "img1 : start=        2048, size=       32768, type=7, name=\"a, b\""
        SfdiskPartition partition;
        partition.device = std::string(trimmed.substr(0, separator));
        auto rest = trimmed.substr(separator + 3);
        while (!rest.empty()) {
            const auto equals = rest.find('=');
            if (equals == std::string_view::npos)
                parseFailure("sfdisk partition", line);
            const auto key = trim(rest.substr(0, equals));
            rest = trim(rest.substr(equals + 1));
            std::string_view value;
            if (rest.starts_with("\"")) {
                const auto closing = rest.find('"', 1);
                if (closing == std::string_view::npos)
                    parseFailure("sfdisk quoted value", line);
                value = rest.substr(1, closing - 1);
                rest = rest.substr(closing + 1);
            } else {
                value = rest.substr(0, rest.find(','));
                rest = rest.substr(value.size());
            }
            rest = trim(rest);
            if (rest.starts_with(","))
                rest = trim(rest.substr(1));
            value = trim(value);
            if (key == "start")
                partition.start = number<std::uint64_t>(value, "sfdisk start");
            else if (key == "size")
                partition.size = number<std::uint64_t>(value, "sfdisk size");
            else if (key == "type")
                partition.type = std::string(value);
            else if (key == "uuid")
                partition.uuid = std::string(value);
            else if (key == "name")
                partition.name = std::string(value);
        }
        dump.partitions.push_back(std::move(partition));
    }
    if (dump.label.empty())
        parseFailure("sfdisk --dump output", text.substr(0, 200));
    return dump;
}

SfdiskDump dumpPartitionTable(const std::filesystem::path& image) {
    return parseSfdiskDump(runToolChecked({"sfdisk", "--dump", image.string()}));
}

// ---- NTFS-3G tools ------------------------------------------------------------------------------

std::map<std::string, std::string> parseNtfsinfoPairs(std::string_view text) {
    std::map<std::string, std::string> pairs;
    for (auto line : splitLines(text)) {
        const auto pair = keyValue(line);
        if (!pair || pair->first.empty() || pair->second.empty())
            continue;
        pairs.emplace(std::string(pair->first), std::string(pair->second));
    }
    return pairs;
}

std::string volumeInconsistencies(const std::filesystem::path& image, std::uint64_t volumeOffset,
                                  std::uint64_t volumeSize) {
    std::optional<ScratchImage> extracted;
    if (volumeOffset != 0 || volumeSize != 0)
        extracted.emplace(image, volumeOffset, volumeSize);
    const ToolOutput output = runTool({"ntfsresize", "--info", "--force", "--no-progress-bar",
                                       (extracted ? extracted->path() : image).string()});
    return output.exitCode == 0 ? std::string{} : output.out + output.err;
}

std::map<std::string, std::string> volumeInfo(const std::filesystem::path& volume) {
    return parseNtfsinfoPairs(runToolChecked({"ntfsinfo", "-m", volume.string()}));
}

NtfsinfoRecord parseNtfsinfoRecord(std::string_view text) {
    NtfsinfoRecord record;
    std::string attribute;
    bool inRunList = false;
    NtfsinfoFileName pending;
    for (auto line : splitLines(text)) {
        const auto trimmed = trim(line);
        // (-v also prints a "Dumping attribute list:" heading inside an
        // $ATTRIBUTE_LIST's dump; it names no record and is not an attribute.)
        if (trimmed.starts_with("Dumping attribute ") &&
            trimmed.find(" from mft record ") != std::string_view::npos) {
            // "Dumping attribute $DATA (0x80) from mft record 90 (0x5a)"
            const auto name = trimmed.substr(18);
            attribute = std::string(name.substr(0, name.find(' ')));
            const auto from = name.find("from mft record ");
            record.attributes.push_back(
                {attribute, leadingNumber(name.substr(from + 16), "ntfsinfo record number")});
            inRunList = false;
            continue;
        }
        if (trimmed.starts_with("Runlist:")) {
            record.runLists.emplace_back(attribute, std::vector<NtfsinfoRun>{});
            inRunList = true;
            continue;
        }
        if (inRunList) {
            const auto words = splitWords(trimmed);
            const auto vcn = words.size() == 3 ? tryNumber<std::uint64_t>(words[0], 16)
                                               : std::optional<std::uint64_t>{};
            const auto length = words.size() == 3 ? tryNumber<std::uint64_t>(words[2], 16)
                                                  : std::optional<std::uint64_t>{};
            if (vcn && length) {
                NtfsinfoRun run{*vcn, std::nullopt, *length};
                if (words[1] != "<HOLE>")
                    run.lcn = number<std::uint64_t>(words[1], "ntfsinfo LCN", 16);
                record.runLists.back().second.push_back(run);
                continue;
            }
            inRunList = false;
        }
        if (attribute != "$FILE_NAME")
            continue;
        const auto pair = keyValue(trimmed);
        if (!pair)
            continue;
        if (pair->first == "Parent directory") {
            pending.parent = leadingNumber(pair->second, "parent directory");
        } else if (pair->first == "Namespace") {
            pending.nameSpace = std::string(pair->second);
        } else if (pair->first == "Filename") {
            // The name is quoted: 'name'; it may hold ':' or quotes itself.
            const auto rest = trimmed.substr(trimmed.find(':') + 1);
            const auto quoted = trim(rest);
            if (quoted.size() < 2 || quoted.front() != '\'' || quoted.back() != '\'')
                parseFailure("ntfsinfo file name", line);
            pending.name = std::string(quoted.substr(1, quoted.size() - 2));
            record.fileNames.push_back(pending);
            pending = {};
        }
    }
    return record;
}

NtfsinfoRecord recordInfo(const std::filesystem::path& volume, std::uint64_t inode) {
    return parseNtfsinfoRecord(
        runToolChecked({"ntfsinfo", "-v", "-i", std::to_string(inode), volume.string()}));
}

std::vector<std::string> listDirectory(const std::filesystem::path& volume,
                                       std::string_view directory, bool shortNames) {
    std::vector<std::string> argv = {"ntfsls", "-a"};
    if (shortNames)
        argv.push_back("-x");
    argv.insert(argv.end(), {"-p", std::string("/").append(directory), volume.string()});
    const auto listing = runToolChecked(argv);
    std::vector<std::string> names;
    for (auto line : splitLines(listing))
        if (!line.empty())
            names.emplace_back(line);
    return names;
}

ClusterUsers parseNtfscluster(std::string_view text) {
    ClusterUsers users;
    for (auto line : splitLines(text)) {
        line = trim(line);
        if (!line.starts_with("Inode "))
            continue;
        const auto words = splitWords(line);
        if (words.size() < 3)
            parseFailure("ntfscluster line", line);
        const auto inode = number<std::uint64_t>(words[1], "ntfscluster inode");
        if (words[2].starts_with("/"))
            users.files.insert(inode);
        else if (line.find(" is an extent of inode ") != std::string_view::npos)
            users.extensions.insert(inode);
        else
            parseFailure("ntfscluster line", line);
    }
    return users;
}

ClusterUsers clusterUsers(const std::filesystem::path& image, std::uint64_t volumeOffset,
                          std::uint64_t volumeSize) {
    std::optional<ScratchImage> extracted;
    if (volumeOffset != 0 || volumeSize != 0)
        extracted.emplace(image, volumeOffset, volumeSize);
    // Its range parser takes signed 64-bit numbers.
    const ToolOutput output = runTool({"ntfscluster", "-c", "0-9223372036854775807",
                                       (extracted ? extracted->path() : image).string()});
    if (output.exitCode != 0)
        throw OracleError("ntfscluster exited with " + std::to_string(output.exitCode) + ": " +
                          output.err);
    // The extension records are reported on stderr.
    return parseNtfscluster(output.out + "\n" + output.err);
}

} // namespace kestrow::test::oracle
