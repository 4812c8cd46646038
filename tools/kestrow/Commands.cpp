#include "Commands.h"

#include "AnalystCommands.h"

#include <libKestrow/FileRecord.h>
#include <libKestrow/FileRecordMap.h>
#include <libKestrow/MasterFileTable.h>
#include <libKestrow/Volume.h>

#include <kestrow/Disks.h>
#include <kestrow/WinTypes.h>

#include <orv/Buffer.h>
#include <orv/Format.h>
#include <orv/SharedResource.h>
#include <orv/System.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <vector>

namespace kestrow::tool {

namespace platform = kestrow::platform;

namespace {

constexpr unsigned int DIRECTORY_ATTRIBUTE = 0x10;
constexpr unsigned long long ROOT_RECORD = 5;
// A dump is read into one buffer: keep it to a size a terminal can take.
constexpr unsigned long long MAX_DUMP_BYTES = 16ULL * 1024 * 1024;

std::string letterText(char letter) {
    return std::string(1, letter) + ":";
}

// The library's three times come from the record's chosen $FILE_NAME
// attribute, not from $STANDARD_INFORMATION, which is what an analyst would
// otherwise take them for: every output names them so.
JsonWriter& fileNameTimesJson(JsonWriter& json, unsigned long long created,
                              unsigned long long modified, unsigned long long lastRead) {
    return json.key("fileNameTimes")
        .beginObject()
        .field("created", isoTime(created))
        .field("modified", isoTime(modified))
        .field("lastRead", isoTime(lastRead))
        .endObject();
}

// The column heading of a listed record's line (ls, find).
std::string listingHeading(const char* last) {
    return std::string("     index  type           size  modified ($FILE_NAME)         ") + last +
           "\n";
}

std::string number(unsigned long long n) {
    return std::to_string(n);
}

// The system's message for the last error, without the line end some
// systems give it.
std::string lastSystemErrorText() {
    std::string text = utf8(orv::System::getSystemErrorMsg(orv::System::getSystemError(), false));
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' '))
        text.pop_back();
    return text;
}

void expectArguments(const Session& session, std::size_t least, std::size_t most) {
    const std::size_t count = session.options().arguments.size();
    if (count < least || count > most)
        throw UsageError(std::string(count < least ? "missing arguments" : "too many arguments") +
                         "; usage: " + usageOf(session.options().command));
}

const std::string& argument(const Session& session, std::size_t i) {
    return session.options().arguments[i];
}

bool allDigits(const std::string& text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return std::isdigit(static_cast<unsigned char>(c)) != 0;
    });
}

// The volume's first cluster on its drive: record cluster ranges and the
// owner search count from the start of the drive.
unsigned long long baseCluster(const Volume& volume) {
    const orv::Array<Volume::VolumeExtent>& extents = volume.getVolumeExtents();
    if (extents.size() != 1)
        throw CommandError(letterText(volume.driveLetter()) +
                           " does not lie in exactly one extent of one drive; only such volumes "
                           "are supported");
    if (volume.bytesPerCluster() == 0)
        throw CommandError(letterText(volume.driveLetter()) + " reports no cluster size");
    return extents[0].startingOffset / volume.bytesPerCluster();
}

unsigned long long recordCount(MasterFileTable& mft) {
    unsigned long long count = 0;
    if (!mft.getNumMftRecords(count))
        throw CommandError("cannot count the MFT's records");
    return count;
}

// ---- volumes ------------------------------------------------------------------

void listAttachedVolumes(Session& session) {
    const std::vector<platform::DiskInfo> disks = platform::attachedDisks();
    const std::vector<platform::VolumeInfo> volumes = platform::attachedVolumes();
    auto labelOf = [](const platform::VolumeInfo& info) {
        if (info.letter == 0)
            return std::string();
        Volume volume(info.letter);
        return utf8(volume.name());
    };
    Output& out = session.out();
    if (session.options().json) {
        JsonWriter json(out);
        json.beginObject().key("disks").beginArray();
        for (const platform::DiskInfo& disk : disks) {
            json.beginObject()
                .field("number", disk.number)
                .field("device", "\\\\.\\PhysicalDrive" + number(disk.number))
                .field("path", disk.path)
                .field("size", static_cast<unsigned long long>(disk.size))
                .field("bytesPerSector", disk.bytesPerSector)
                .field("partitionTable", disk.partitionTable)
                .field("problem", disk.problem);
            json.key("volumes").beginArray();
            for (const platform::VolumeInfo& info : volumes) {
                if (info.diskNumber != disk.number)
                    continue;
                json.beginObject()
                    .field("letter", info.letter ? letterText(info.letter) : std::string())
                    .field("fileSystem", info.fileSystem)
                    .field("label", labelOf(info))
                    .field("partition", info.partition)
                    .field("offset", static_cast<unsigned long long>(info.offset))
                    .field("size", static_cast<unsigned long long>(info.length))
                    .field("extractedMft", info.extractedMft)
                    .endObject();
            }
            json.endArray().endObject();
        }
        json.endArray().endObject();
        return;
    }
    for (const platform::DiskInfo& disk : disks) {
        out << "\\\\.\\PhysicalDrive" << number(disk.number) << "  " << disk.path << "  "
            << sizeText(disk.size) << "  " << disk.partitionTable << ", "
            << number(disk.bytesPerSector) << "-byte sectors\n";
        if (!disk.problem.empty())
            out << "   " << disk.problem << "\n";
        for (const platform::VolumeInfo& info : volumes) {
            if (info.diskNumber != disk.number)
                continue;
            char line[160];
            std::snprintf(line, sizeof line, "   %-3s %-6s %10s  offset %llu",
                          info.letter ? letterText(info.letter).c_str() : "-",
                          info.fileSystem.c_str(), sizeText(info.length).c_str(),
                          static_cast<unsigned long long>(info.offset));
            out << line;
            if (disk.bytesPerSector)
                out << " (sector " << number(info.offset / disk.bytesPerSector) << ")";
            out << (info.partition              ? "  partition " + number(info.partition)
                    : info.extractedMft.empty() ? "  whole disk"
                                                : "  extracted MFT");
            const std::string label = labelOf(info);
            if (!label.empty())
                out << "  \"" << label << "\"";
            out << "\n";
            if (!info.extractedMft.empty())
                out << "       " << info.extractedMft << "\n";
        }
    }
}

// Without disk images: the system's own volumes, found by trying each letter.
void listSystemVolumes(Session& session) {
    struct Found {
        char letter;
        std::string fileSystem;
        std::string label;
        unsigned long long size;
    };
    std::vector<Found> found;
    for (char letter = 'C'; letter <= 'Z'; ++letter) {
        Volume volume(letter);
        if (volume.path().empty())
            continue;
        found.push_back({letter, utf8(volume.fileSystem()), utf8(volume.name()),
                         volume.totalSectors() * volume.bytesPerSector()});
    }
    if (found.empty())
        throw CommandError("no volumes found: give --disk IMAGE or set KESTROW_DISKS");
    Output& out = session.out();
    if (session.options().json) {
        JsonWriter json(out);
        json.beginObject().key("volumes").beginArray();
        for (const Found& f : found)
            json.beginObject()
                .field("letter", letterText(f.letter))
                .field("fileSystem", f.fileSystem)
                .field("label", f.label)
                .field("size", f.size)
                .endObject();
        json.endArray().endObject();
        return;
    }
    for (const Found& f : found)
        out << "   " << letterText(f.letter) << "  " << f.fileSystem << "  " << sizeText(f.size)
            << "  \"" << f.label << "\"\n";
}

int volumesCommand(Session& session) {
    expectArguments(session, 0, 0);
    if (session.usingDiskImages())
        listAttachedVolumes(session);
    else
        listSystemVolumes(session);
    return EXIT_OK;
}

// ---- info ---------------------------------------------------------------------

int infoCommand(Session& session) {
    expectArguments(session, 1, 1);
    Volume& volume = session.openVolume(parseDriveLetter(argument(session, 0)));
    session.watchBufferSizing();
    MasterFileTable& mft = session.openMft();
    const unsigned long long slots = recordCount(mft);

    std::vector<MftExtent> runs;
    for (unsigned long long first = 0; first < slots;) {
        MftExtent extent{};
        if (!mft.getExtentForFileRecord(FileReference(first, 0), extent) || extent.recordCount == 0)
            break;
        runs.push_back(extent);
        first = extent.firstRecord + extent.recordCount;
    }

    Output& out = session.out();
    if (session.options().json) {
        JsonWriter json(out);
        json.beginObject()
            .key("volume")
            .beginObject()
            .field("letter", letterText(volume.driveLetter()))
            .field("path", volume.path())
            .field("label", volume.name())
            .field("serialNumber", volume.serialNumber())
            .field("fileSystem", volume.fileSystem())
            .field("sectorsPerCluster", volume.sectorsPerCluster())
            .field("bytesPerSector", volume.bytesPerSector())
            .field("bytesPerCluster", volume.bytesPerCluster())
            .field("freeClusters", volume.freeClusters())
            .field("totalClusters", volume.totalClusters())
            .field("totalSectors", volume.totalSectors())
            .field("bytesPerFileRecord", volume.bytesPerFileRecord());
        json.key("extents").beginArray();
        for (const Volume::VolumeExtent& extent : volume.getVolumeExtents())
            json.beginObject()
                .field("disk", extent.diskNumber)
                .field("startingOffset", extent.startingOffset)
                .field("length", extent.extentLength)
                .endObject();
        json.endArray().endObject();
        json.key("mft")
            .beginObject()
            .field("recordSize", volume.bytesPerFileRecord())
            .field("recordSlots", slots)
            .field("bufferBytes", session.bufferBytes())
            .field("bufferRecords", session.bufferRecords());
        json.key("runs").beginArray();
        for (const MftExtent& run : runs)
            json.beginObject()
                .field("disk", run.diskNumber)
                .field("startSector", run.startSector)
                .field("endSector", run.endSector)
                .field("firstRecord", run.firstRecord)
                .field("recordCount", run.recordCount)
                .endObject();
        json.endArray().endObject().endObject();
        return EXIT_OK;
    }
    out << volume.toString();
    out << "\nMaster File Table\n";
    out << "   Record size         : " << number(volume.bytesPerFileRecord()) << " bytes\n";
    out << "   Record slots        : " << number(slots) << "\n";
    out << "   Record buffer       : " << number(session.bufferBytes()) << " bytes ("
        << number(session.bufferRecords()) << " records)\n";
    out << "   Runs                : " << number(runs.size()) << "\n";
    for (std::size_t i = 0; i < runs.size(); ++i) {
        const MftExtent& run = runs[i];
        out << "   Run[" << number(i) << "]              : \\\\.\\PhysicalDrive"
            << number(run.diskNumber) << " sectors " << number(run.startSector) << "-"
            << number(run.endSector - 1) << ", records " << number(run.firstRecord) << "-"
            << number(run.firstRecord + run.recordCount - 1) << "\n";
    }
    return EXIT_OK;
}

// ---- record -------------------------------------------------------------------

int recordCommand(Session& session) {
    expectArguments(session, 2, 2);
    const char letter = parseDriveLetter(argument(session, 0));
    const unsigned long long index = parseNumber(argument(session, 1), "record number");
    Volume& volume = session.openVolume(letter);
    MasterFileTable& mft = session.openMft();
    const unsigned long long slots = recordCount(mft);
    if (index >= slots)
        throw CommandError("record " + number(index) + " is beyond the MFT of " +
                           letterText(letter) + " (" + number(slots) + " record slots)");
    FileRecord record;
    if (!mft.getValidMftRecord(FileReference(index, 0), record))
        throw CommandError("record " + number(index) + " of " + letterText(letter) +
                           " is not an in-use file record (free, deleted, an extension record "
                           "or damaged; add --all to see what it holds)");
    const bool directory = (record.getFileAttributes() & DIRECTORY_ATTRIBUTE) != 0;
    if (directory)
        mft.postProcessFileRecord(record);
    const orv::String path = recordFullPath(mft, volume, record);
    const unsigned long long base = baseCluster(volume);

    Output& out = session.out();
    if (session.options().json) {
        JsonWriter json(out);
        json.beginObject()
            .field("index", static_cast<unsigned long long>(record.mftIndex().index))
            .field("name", record.name())
            .field("path", path)
            .field("parent", static_cast<unsigned long long>(record.parentMftIndex().index))
            .field("parentSequence",
                   static_cast<unsigned long long>(record.parentMftIndex().sequence));
        fileNameTimesJson(json, record.getCreationTime(), record.getModificationTime(),
                          record.getLastReadTime())
            .field("fileAttributes", record.getFileAttributes())
            .field("fileAttributeNames", attributeFlagNames(record.getFileAttributes()))
            .field("directory", directory)
            .field("allocatedSize", record.allocatedSize())
            .field("realSize", record.realSize())
            .field("dataSize", record.dataSize());
        json.key("attributes").beginArray();
        for (const AttributeSummary& attribute : record.getAttributes())
            json.beginObject()
                .field("name", attribute.name)
                .field("resident", attribute.resident)
                .endObject();
        json.endArray();
        json.key("externalReferences").beginArray();
        for (unsigned long long reference : record.getExternalAttributeReferences())
            json.value(reference);
        json.endArray();
        json.key("clusterRanges").beginArray();
        for (const ClusterRange& range : record.getClusterRanges())
            json.beginObject()
                .field("driveCluster", range.start)
                .field("volumeCluster", range.start - base)
                .field("count", range.count)
                .endObject();
        json.endArray();
        json.key("indexEntries").beginArray();
        for (unsigned long long entry : record.getIndexEntries())
            json.value(entry);
        json.endArray().endObject();
        return EXIT_OK;
    }

    out << "Record " << number(record.mftIndex().index) << " of " << letterText(letter) << "\n";
    out << "   Name              : " << record.name() << "\n";
    out << "   Path              : " << path << "\n";
    out << "   Parent            : " << number(record.parentMftIndex().index) << " (sequence "
        << number(record.parentMftIndex().sequence) << ")\n";
    out << "   $FILE_NAME times  :\n";
    out << "      Created        : " << isoTime(record.getCreationTime()) << "\n";
    out << "      Modified       : " << isoTime(record.getModificationTime()) << "\n";
    out << "      Last read      : " << isoTime(record.getLastReadTime()) << "\n";
    char flags[16];
    std::snprintf(flags, sizeof flags, "0x%08X", record.getFileAttributes());
    out << "   File attributes   : " << flags << " "
        << attributeFlagNames(record.getFileAttributes()) << "\n";
    out << "   Allocated size    : " << number(record.allocatedSize()) << "\n";
    out << "   Real size         : " << number(record.realSize()) << "\n";
    out << "   Data size         : " << number(record.dataSize()) << "\n";
    out << "   NTFS attributes   :\n";
    for (const AttributeSummary& attribute : record.getAttributes())
        out << "      " << (attribute.name.empty() ? orv::String("(unknown type)") : attribute.name)
            << (attribute.resident ? "  resident\n" : "  non-resident\n");
    out << "   External records  :";
    if (record.getExternalAttributeReferences().empty())
        out << " none";
    for (unsigned long long reference : record.getExternalAttributeReferences())
        out << " " << number(reference);
    out << "\n   Cluster ranges    :";
    if (record.getClusterRanges().empty())
        out << " none";
    out << "\n";
    for (const ClusterRange& range : record.getClusterRanges()) {
        out << "      volume cluster" << (range.count == 1 ? " " : "s ")
            << number(range.start - base);
        if (range.count != 1)
            out << "-" << number(range.start - base + range.count - 1);
        out << " (" << number(range.count) << (range.count == 1 ? " cluster" : " clusters")
            << "; drive cluster " << number(range.start) << ")\n";
    }
    if (directory) {
        out << "   Index entries     : " << number(record.getIndexEntries().size()) << "\n";
        std::size_t column = 0;
        for (unsigned long long entry : record.getIndexEntries()) {
            out << (column == 0 ? "      " : " ") << number(entry);
            if (++column == 10) {
                out << "\n";
                column = 0;
            }
        }
        if (column != 0)
            out << "\n";
    }
    return EXIT_OK;
}

// ---- ls -----------------------------------------------------------------------

struct ListedEntry {
    unsigned long long index;
    RecordSummary summary;
};

void writeEntryJson(JsonWriter& json, const ListedEntry& entry) {
    const RecordSummary& s = entry.summary;
    json.beginObject()
        .field("index", entry.index)
        .field("name", s.name)
        .field("directory", (s.fileAttributes & DIRECTORY_ATTRIBUTE) != 0)
        .field("size", s.dataSize);
    fileNameTimesJson(json, s.creationTime, s.modificationTime, s.lastReadTime)
        .field("fileAttributes", s.fileAttributes)
        .endObject();
}

void writeEntryText(Output& out, const ListedEntry& entry) {
    const RecordSummary& s = entry.summary;
    char line[96];
    std::snprintf(line, sizeof line, "%10llu  %-4s %14llu  %s  ", entry.index,
                  (s.fileAttributes & DIRECTORY_ATTRIBUTE) ? "dir" : "file", s.dataSize,
                  isoTime(s.modificationTime).c_str());
    out << line << s.name << "\n";
}

int lsCommand(Session& session) {
    expectArguments(session, 2, 2);
    const char letter = parseDriveLetter(argument(session, 0));
    const std::string& target = argument(session, 1);
    Volume& volume = session.openVolume(letter);
    MasterFileTable& mft = session.openMft();
    session.loadRecordMap();
    FileRecordMap map(mft);

    FileReference directory(ROOT_RECORD, 0);
    if (allDigits(target)) {
        directory = FileReference(parseNumber(target, "record number"), 0);
    } else {
        const orv::String path = libraryPath(letter, target);
        if (!isRootPath(letter, path) && !map.getIndex(path, directory))
            throw CommandError(letterText(letter) + " has no file or directory " + target +
                               " (the last name must match in its stored letter case)");
    }
    RecordSummary self;
    if (!map.getRecordPath(directory, self))
        throw CommandError("record " + number(directory.index) + " of " + letterText(letter) +
                           " is not an in-use file record");
    const orv::String directoryPath =
        directory.index == ROOT_RECORD ? volume.path() : mft.findParentPath(directory);

    std::vector<ListedEntry> entries;
    const bool isDirectory = (self.fileAttributes & DIRECTORY_ATTRIBUTE) != 0;
    if (isDirectory) {
        orv::Array<unsigned long long> children;
        if (!map.getChildIndices(directory, children))
            throw CommandError("record " + number(directory.index) + " is beyond the MFT of " +
                               letterText(letter));
        const MasterFileTable::RecordHashTable& table = mft.getRecordHashTable();
        for (unsigned long long child : children)
            if (const RecordSummary* summary = table.lookup(child))
                entries.push_back({child, *summary});
        std::sort(entries.begin(), entries.end(), [](const ListedEntry& a, const ListedEntry& b) {
            const int order = a.summary.name.compareNoCase(b.summary.name);
            return order != 0 ? order < 0 : a.index < b.index;
        });
    } else {
        // A file lists as itself, as ls does.
        entries.push_back({directory.index, self});
    }

    Output& out = session.out();
    if (session.options().json) {
        JsonWriter json(out);
        json.beginObject()
            .field("path", directoryPath)
            .field("index", static_cast<unsigned long long>(directory.index))
            .field("directory", isDirectory);
        json.key("children").beginArray();
        for (const ListedEntry& entry : entries)
            writeEntryJson(json, entry);
        json.endArray().endObject();
        return EXIT_OK;
    }
    out << directoryPath << "  (record " << number(directory.index) << ", "
        << number(isDirectory ? entries.size() : 0) << " entries)\n";
    out << listingHeading("name");
    for (const ListedEntry& entry : entries)
        writeEntryText(out, entry);
    return EXIT_OK;
}

// ---- paths --------------------------------------------------------------------

int pathsCommand(Session& session) {
    expectArguments(session, 1, 1);
    Volume& volume = session.openVolume(parseDriveLetter(argument(session, 0)));
    MasterFileTable& mft = session.openMft();
    const unsigned long long slots = recordCount(mft);
    session.loadRecordMap();
    const MasterFileTable::RecordHashTable& table = mft.getRecordHashTable();

    Output& out = session.out();
    const bool json = session.options().json;
    if (json)
        out << "[";
    bool first = true;
    std::string line;
    for (unsigned long long index = 0; index < slots; ++index) {
        const RecordSummary* summary = table.lookup(index);
        if (summary == nullptr)
            continue;
        // The root's own path is its name "."; it is shown as the volume path.
        const bool root = summary->mftIndex == summary->parentMftIndex && summary->name == ".";
        const orv::String path = root ? volume.path() : mft.findParentPath(FileReference(index, 0));
        if (!json) {
            out << path << '\n';
            continue;
        }
        line.clear();
        appendUtf8(line, path);
        out << (first ? "\n  " : ",\n  ") << "{\"index\": " << index
            << ", \"path\": " << jsonQuote(line) << "}";
        first = false;
    }
    if (json)
        out << (first ? "]\n" : "\n]\n");
    return EXIT_OK;
}

// ---- find ---------------------------------------------------------------------

int findCommand(Session& session) {
    expectArguments(session, 2, 2);
    const char letter = parseDriveLetter(argument(session, 0));
    const orv::String path = libraryPath(letter, argument(session, 1));
    Volume& volume = session.openVolume(letter);
    MasterFileTable& mft = session.openMft();

    orv::Array<FileRecord> records;
    if (isRootPath(letter, path)) {
        // The root's own name is ".", which no typed path ends in.
        FileRecord root;
        if (mft.getValidMftRecord(FileReference(ROOT_RECORD, 0), root))
            records.append(root);
    } else if (!mft.findMftRecordsByPath(path, records)) {
        throw CommandError("cannot scan the MFT of " + letterText(letter));
    }
    if (records.empty())
        throw CommandError("nothing at " + utf8(path) +
                           " (no in-use record has this path; names must match in their stored "
                           "letter case)");

    Output& out = session.out();
    if (session.options().json) {
        JsonWriter json(out);
        json.beginObject().field("path", path).key("records").beginArray();
        for (const FileRecord& record : records) {
            json.beginObject()
                .field("index", static_cast<unsigned long long>(record.mftIndex().index))
                .field("parent", static_cast<unsigned long long>(record.parentMftIndex().index))
                .field("directory", (record.getFileAttributes() & DIRECTORY_ATTRIBUTE) != 0)
                .field("size", record.dataSize());
            fileNameTimesJson(json, record.getCreationTime(), record.getModificationTime(),
                              record.getLastReadTime())
                .endObject();
        }
        json.endArray().endObject();
        return EXIT_OK;
    }
    out << listingHeading("path");
    for (const FileRecord& record : records) {
        char line[96];
        std::snprintf(line, sizeof line, "%10llu  %-4s %14llu  %s  ",
                      static_cast<unsigned long long>(record.mftIndex().index),
                      (record.getFileAttributes() & DIRECTORY_ATTRIBUTE) ? "dir" : "file",
                      record.dataSize(), isoTime(record.getModificationTime()).c_str());
        out << line << recordFullPath(mft, volume, record) << "\n";
    }
    return EXIT_OK;
}

// ---- owner --------------------------------------------------------------------

int ownerCommand(Session& session) {
    expectArguments(session, 2, 2);
    const char letter = parseDriveLetter(argument(session, 0));
    const unsigned long long cluster = parseNumber(argument(session, 1), "cluster number");
    Volume& volume = session.openVolume(letter);
    if (cluster >= volume.totalClusters())
        throw CommandError("cluster " + number(cluster) + " is beyond the end of " +
                           letterText(letter) + " (" + number(volume.totalClusters()) +
                           " clusters)");
    const unsigned long long driveCluster = cluster + baseCluster(volume);
    MasterFileTable& mft = session.openMft();

    orv::Array<FileReference> mftRecords;
    const bool inMft = mft.findRecordClusterInMft(driveCluster, mftRecords) && !mftRecords.empty();
    FileReference owner(0, 0);
    const bool owned = mft.findRecordCluster(driveCluster, owner);
    FileRecord record;
    orv::String ownerPath;
    if (owned && mft.getValidMftRecord(owner, record))
        ownerPath = recordFullPath(mft, volume, record);

    Output& out = session.out();
    if (session.options().json) {
        JsonWriter json(out);
        json.beginObject()
            .field("cluster", cluster)
            .field("driveCluster", driveCluster)
            .field("owned", owned);
        if (owned)
            json.field("owner", static_cast<unsigned long long>(owner.index))
                .field("path", ownerPath);
        json.key("mftRecords").beginArray();
        if (inMft)
            for (const FileReference& ref : mftRecords)
                json.value(static_cast<unsigned long long>(ref.index));
        json.endArray().endObject();
        return EXIT_OK;
    }
    out << "cluster " << number(cluster) << " of " << letterText(letter) << " (drive cluster "
        << number(driveCluster) << "): ";
    if (owned)
        out << "record " << number(owner.index) << "  " << ownerPath << "\n";
    else
        out << "no owner (free, or not claimed by any in-use record)\n";
    if (inMft) {
        out << "MFT records stored in this cluster:";
        for (const FileReference& ref : mftRecords)
            out << " " << number(ref.index);
        out << "\n";
    }
    return EXIT_OK;
}

// ---- extents ------------------------------------------------------------------

int extentsCommand(Session& session) {
    expectArguments(session, 2, 2);
    const char letter = parseDriveLetter(argument(session, 0));
    const std::string& input = argument(session, 1);
    const orv::String path = driveQualifiedPath(letter, input);
    Volume& volume = session.openVolume(letter);
    orv::Array<Volume::FileExtent> extents;
    if (!volume.getFileExtents(path, extents)) {
        if (!orv::FileSystem::exists(path))
            throw CommandError(letterText(letter) + " has no file " + input);
        throw CommandError(utf8(path) +
                           " has no extents on the drive (its data lies inside its MFT record, "
                           "or it is empty)");
    }
    const unsigned long long bytesPerSector = volume.bytesPerSector();
    Output& out = session.out();
    if (session.options().json) {
        JsonWriter json(out);
        json.beginObject().field("path", path).key("extents").beginArray();
        for (const Volume::FileExtent& extent : extents)
            json.beginObject()
                .field("disk", extent.diskNumber)
                .field("startSector", extent.startSector)
                .field("endSector", extent.endSector)
                .field("sectors", extent.endSector - extent.startSector)
                .field("bytesPerSector", bytesPerSector)
                .endObject();
        json.endArray().endObject();
        return EXIT_OK;
    }
    out << path << ": " << number(extents.size())
        << (extents.size() == 1 ? " extent\n" : " extents\n");
    for (const Volume::FileExtent& extent : extents) {
        const unsigned long long sectors = extent.endSector - extent.startSector;
        out << "   \\\\.\\PhysicalDrive" << number(extent.diskNumber) << "  sectors "
            << number(extent.startSector) << "-" << number(extent.endSector - 1) << " ("
            << number(sectors) << " sectors, " << number(sectors * bytesPerSector)
            << " bytes, byte offset " << number(extent.startSector * bytesPerSector) << ")\n";
    }
    return EXIT_OK;
}

// ---- dump ---------------------------------------------------------------------

unsigned int diskSectorSize(unsigned int drive) {
    for (const platform::DiskInfo& disk : platform::attachedDisks())
        if (disk.number == drive && disk.bytesPerSector != 0)
            return disk.bytesPerSector;
    return 512;
}

int dumpCommand(Session& session) {
    const Options& options = session.options();
    const bool onDrive = options.drive.has_value();
    // With --drive the letter is optional: "dump --drive 0 SECTOR [COUNT]".
    const bool hasLetter = !options.arguments.empty() && !allDigits(options.arguments[0]) &&
                           !(options.arguments[0].size() > 2 && options.arguments[0][0] == '0' &&
                             (options.arguments[0][1] == 'x' || options.arguments[0][1] == 'X'));
    if (!hasLetter && !onDrive)
        throw UsageError("dump needs a drive letter, or --drive N");
    const std::size_t first = hasLetter ? 1 : 0;
    if (options.arguments.size() < first + 1 || options.arguments.size() > first + 2)
        throw UsageError("usage: kestrow dump C: SECTOR [COUNT] or kestrow dump --drive N SECTOR "
                         "[COUNT]");
    const unsigned long long sector = parseNumber(options.arguments[first], "sector");
    const unsigned long long count = options.arguments.size() > first + 1
                                         ? parseNumber(options.arguments[first + 1], "count")
                                         : 1;

    unsigned int bytesPerSector = 0;
    orv::String device;
    char letter = 0;
    if (hasLetter) {
        letter = parseDriveLetter(options.arguments[0]);
        const Volume& volume = session.openAnyVolume(letter);
        bytesPerSector = volume.bytesPerSector();
        if (!onDrive && volume.totalSectors() != 0 && sector >= volume.totalSectors())
            throw CommandError("sector " + number(sector) + " is beyond the end of " +
                               letterText(letter) + " (" + number(volume.totalSectors()) +
                               " sectors)");
    }
    if (onDrive) {
        device = orv::SprintfFormat("\\\\.\\PhysicalDrive%u", *options.drive);
        if (bytesPerSector == 0)
            bytesPerSector = diskSectorSize(*options.drive);
    } else {
        device = orv::SprintfFormat("\\\\?\\%c:", letter);
    }
    if (bytesPerSector == 0)
        throw CommandError("cannot tell the sector size of " + letterText(letter));
    if (count == 0 || count > MAX_DUMP_BYTES / bytesPerSector)
        throw UsageError("count must be between 1 and " + number(MAX_DUMP_BYTES / bytesPerSector) +
                         " sectors");

    VolumeHandle handle;
    if (!handle.open(orv::CreateFileOpenArgs(
            device, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING, 0))) {
        throw CommandError("cannot open " + utf8(device) + ": " + lastSystemErrorText());
    }
    orv::String text;
    if (!Volume::dumpSectors(handle, sector, static_cast<unsigned int>(count), bytesPerSector,
                             text))
        throw CommandError("cannot read " + number(count) + " sector(s) at " + number(sector) +
                           " of " + utf8(device) +
                           (orv::System::getSystemError() != 0 ? " (" + lastSystemErrorText() + ")"
                                                               : " (past the end of the device?)"));

    Output& out = session.out();
    if (options.json) {
        JsonWriter json(out);
        json.beginObject()
            .field("device", device)
            .field("sector", sector)
            .field("count", count)
            .field("bytesPerSector", bytesPerSector)
            .field("dump", text)
            .endObject();
        return EXIT_OK;
    }
    out << utf8(device) << "\n" << text;
    if (text.size() == 0 || text[text.size() - 1] != '\n')
        out << "\n";
    return EXIT_OK;
}

// ---- bitmap -------------------------------------------------------------------

int bitmapCommand(Session& session) {
    expectArguments(session, 1, 1);
    Volume& volume = session.openVolume(parseDriveLetter(argument(session, 0)));
    orv::Buffer<unsigned char> bitmap;
    if (!volume.getVolumeClusterBitmap(bitmap))
        throw CommandError("cannot read the cluster bitmap of " + letterText(volume.driveLetter()));
    // Bits past the last cluster pad the final byte; they are not clusters.
    const unsigned long long total =
        std::min<unsigned long long>(volume.totalClusters(), 8ULL * bitmap.size());
    struct Run {
        unsigned long long start;
        unsigned long long count;
    };
    std::vector<Run> runs;
    unsigned long long used = 0;
    const unsigned char* bits = bitmap.data();
    for (unsigned long long cluster = 0; cluster < total; ++cluster) {
        if ((bits[cluster / 8] & (1u << (cluster % 8))) == 0)
            continue;
        ++used;
        if (!runs.empty() && runs.back().start + runs.back().count == cluster)
            ++runs.back().count;
        else
            runs.push_back({cluster, 1});
    }

    Output& out = session.out();
    if (session.options().json) {
        JsonWriter json(out);
        json.beginObject()
            .field("totalClusters", total)
            .field("usedClusters", used)
            .field("freeClusters", total - used)
            .field("bytesPerCluster", volume.bytesPerCluster());
        json.key("usedRuns").beginArray();
        for (const Run& run : runs)
            json.beginObject().field("start", run.start).field("count", run.count).endObject();
        json.endArray().endObject();
        return EXIT_OK;
    }
    out << letterText(volume.driveLetter()) << " " << number(total) << " clusters of "
        << number(volume.bytesPerCluster()) << " bytes: " << number(used) << " used, "
        << number(total - used) << " free\n";
    out << "used runs (" << number(runs.size()) << "):\n";
    for (const Run& run : runs)
        out << "   " << number(run.start) << "-" << number(run.start + run.count - 1) << " ("
            << number(run.count) << ")\n";
    return EXIT_OK;
}

int dispatchCommand(Session& session) {
    const std::string& command = session.options().command;
    if (command == "volumes")
        return volumesCommand(session);
    if (command == "info")
        return infoCommand(session);
    if (command == "record")
        return session.options().all ? recordAllCommand(session) : recordCommand(session);
    if (command == "timeline")
        return timelineCommand(session);
    if (command == "ls")
        return lsCommand(session);
    if (command == "paths")
        return pathsCommand(session);
    if (command == "find")
        return findCommand(session);
    if (command == "owner")
        return ownerCommand(session);
    if (command == "extents")
        return extentsCommand(session);
    if (command == "dump")
        return dumpCommand(session);
    if (command == "bitmap")
        return bitmapCommand(session);
    throw UsageError("unknown command: " + command);
}

} // namespace

int runCommand(Session& session) {
    session.attachDisks();
    int status = EXIT_OK;
    try {
        status = dispatchCommand(session);
    } catch (const CommandError&) {
        // A disk that failed mid-run explains whatever went wrong after it.
        session.checkDiskReads();
        throw;
    }
    // Reads made while printing (a path walk that meets a record missing
    // from the map reads it) are checked too.
    session.checkDiskReads();
    return status;
}

} // namespace kestrow::tool
