// kestrow timeline: every file's times from the analysts' record reader, as a
// bodyfile (The Sleuth Kit 3.0+, for mactime), CSV or JSON Lines.
//
// The MFT is read once, straight from its runs, and the lines stream out as
// the records come; only records whose path needs a record not yet read wait.
#include "AnalystCommands.h"
#include "MftScan.h"
#include "Session.h"

#include <libKestrow/RecordReader.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace kestrow::tool {

namespace {

constexpr unsigned long long ROOT_RECORD = 5;
constexpr unsigned long long NTFS_TICKS_AT_UNIX_EPOCH = 116444736000000000ULL;
constexpr unsigned long long NTFS_TICKS_PER_SECOND = 10000000ULL;
constexpr unsigned int FILE_NAME_TYPE = 0x30;
constexpr unsigned int READ_ONLY_FLAGS = 0x1 | 0x2 | 0x4; // read-only, hidden, system
// A parent chain longer than this is a loop on a damaged volume.
constexpr unsigned int MAX_PATH_DEPTH = 1024;

// The bodyfile's own texts, as The Sleuth Kit writes them.
constexpr const char ORPHAN_DIRECTORY[] = "/$OrphanFiles";
constexpr const char FILE_NAME_SUFFIX[] = " ($FILE_NAME)";
constexpr const char DELETED_SUFFIX[] = " (deleted)";
constexpr const char16_t INDEX_NAME[] = u"$I30";

constexpr const char CSV_HEADER[] =
    "index,sequence,inUse,directory,path,name,nameSpace,parent,parentSequence,"
    "siCreated,siModified,siMftChanged,siAccessed,siFlags,"
    "fnCreated,fnModified,fnMftChanged,fnAccessed,fnFlags,fnAllocatedSize,fnRealSize,"
    "dataSize,streams\n";

// What the timeline keeps of each record slot, for the paths.
struct Node {
    std::u16string name;
    unsigned long long parent = 0;
    unsigned short parentSequence = 0;
    unsigned short sequence = 0;
    bool visited = false; // its slot has been read
    bool fileRecord = false;
    bool inUse = false;
    bool awaitsExtensions = false; // a base record whose names are in extension records
};

// Seconds since 1970 as bodyfiles carry them: 32 bits. A time before 1970
// or after 2106 (an unset time of 0 among them) wraps, as it does in fls's
// bodyfile, so that the two tools' lines stay comparable.
unsigned long long unixSeconds(unsigned long long ntfsTime) {
    return static_cast<std::uint32_t>((ntfsTime - NTFS_TICKS_AT_UNIX_EPOCH) /
                                      NTFS_TICKS_PER_SECOND);
}

bool usable(const RecordDetails& details) {
    return details.isFileRecord && details.fixupsApplied;
}

bool isExtension(const RecordDetails& details) {
    return details.baseRecord.index != 0;
}

// Full paths from the parent references, as fls gives them: "/Dir/name".
class PathBook {
public:
    explicit PathBook(unsigned long long slots)
        : m_nodes(slots), m_cached(slots, 0), m_paths(slots) {}

    Node* node(unsigned long long index) {
        return index < m_nodes.size() ? &m_nodes[index] : nullptr;
    }

    // True when every record the chain needs has been read, so that
    // directoryOf gives the path it will always give.
    bool settled(const FileReference& parent, bool deleted) const {
        unsigned long long index = parent.index;
        unsigned short sequence = static_cast<unsigned short>(parent.sequence);
        for (unsigned int depth = 0; depth < MAX_PATH_DEPTH; ++depth) {
            if (index == ROOT_RECORD || index >= m_nodes.size() || m_cached[index])
                return true;
            const Node& node = m_nodes[index];
            if (!node.visited || node.awaitsExtensions)
                return false;
            if (!fits(node, sequence, deleted) || node.name.empty())
                return true; // an orphan, whatever comes later
            deleted = deleted || !node.inUse;
            sequence = node.parentSequence;
            index = node.parent;
        }
        return true;
    }

    // Puts the path of the directory a name stands in into `path`;
    // ORPHAN_DIRECTORY when its chain is broken (a parent reused, missing or
    // looping).
    void directoryOf(const FileReference& parent, bool deleted, std::string& path) {
        unsigned long long index = parent.index;
        unsigned short sequence = static_cast<unsigned short>(parent.sequence);
        path.clear();
        m_chain.clear();
        for (unsigned int depth = 0;; ++depth) {
            if (index == ROOT_RECORD)
                break;
            if (depth == MAX_PATH_DEPTH || index >= m_nodes.size() ||
                !fits(m_nodes[index], sequence, deleted) || m_nodes[index].name.empty()) {
                path = ORPHAN_DIRECTORY;
                return;
            }
            if (m_cached[index]) {
                path = m_paths[index];
                break;
            }
            m_chain.push_back(index);
            const Node& node = m_nodes[index];
            deleted = deleted || !node.inUse;
            sequence = node.parentSequence;
            index = node.parent;
        }
        for (auto at = m_chain.rbegin(); at != m_chain.rend(); ++at) {
            path += '/';
            appendUtf8(path, m_nodes[*at].name);
            m_cached[*at] = 1;
            m_paths[*at] = path;
        }
    }

private:
    // A parent in use must carry the sequence the reference names; the
    // parent of a deleted entry may have been deleted too, which advanced its
    // sequence by one.
    static bool fits(const Node& node, unsigned short sequence, bool deleted) {
        if (!node.fileRecord)
            return false;
        if (node.inUse)
            return node.sequence == sequence;
        return deleted && (node.sequence == sequence ||
                           node.sequence == static_cast<unsigned short>(sequence + 1));
    }

    std::vector<Node> m_nodes;
    std::vector<char> m_cached;
    std::vector<std::string> m_paths;
    std::vector<unsigned long long> m_chain; // kept for its memory
};

// The $FILE_NAME whose times fls gives every name of a file: the last one
// the record holds that is not a DOS-only name.
const RecordFileName* timelineFileName(const RecordDetails& details) {
    const RecordFileName* chosen = nullptr;
    for (const RecordFileName& name : details.names)
        if (name.nameSpace != RecordFileName::DOS_NAME)
            chosen = &name;
    return chosen;
}

bool isDefaultStream(const RecordStream& stream) {
    if (stream.type == RecordStream::DATA)
        return stream.name.empty();
    return stream.name == INDEX_NAME;
}

void appendNumber(std::string& line, unsigned long long n) {
    char digits[24];
    const std::to_chars_result end = std::to_chars(digits, digits + sizeof digits, n);
    line.append(digits, end.ptr);
}

void appendTimes(std::string& line, const RecordTimes& times) {
    // atime|mtime|ctime|crtime; ctime is the MFT change time.
    appendNumber(line, unixSeconds(times.accessed));
    line += '|';
    appendNumber(line, unixSeconds(times.modified));
    line += '|';
    appendNumber(line, unixSeconds(times.mftChanged));
    line += '|';
    appendNumber(line, unixSeconds(times.created));
}

// "r/rrwxrwxrwx": the entry's type (- once deleted), the record's type and
// the permissions fls derives from the read-only, hidden and system flags.
const char* modeText(const RecordDetails& details) {
    static const char* const MODES[2][2][2] = {
        {{"-/rrwxrwxrwx", "-/rr-xr-xr-x"}, {"-/drwxrwxrwx", "-/dr-xr-xr-x"}},
        {{"r/rrwxrwxrwx", "r/rr-xr-xr-x"}, {"d/drwxrwxrwx", "d/dr-xr-xr-x"}}};
    return MODES[details.inUse][details.directory][(details.standardFlags & READ_ONLY_FLAGS) != 0];
}

// One line: the name is the path, then an optional ":stream", then the
// suffixes; built in place, since a volume has millions of them.
struct BodyName {
    const std::string& path;
    const std::u16string* stream; // nullptr for the file's own line
    const char* kind;             // FILE_NAME_SUFFIX or ""
    const char* deleted;          // DELETED_SUFFIX or ""
};

void writeBodyLine(Output& out, std::string& line, const BodyName& name, unsigned long long index,
                   unsigned int type, unsigned short id, const char* mode, unsigned long long size,
                   const RecordTimes& times) {
    line.assign("0|");
    line += name.path;
    if (name.stream != nullptr) {
        line += ':';
        appendUtf8(line, *name.stream);
    }
    line += name.kind;
    line += name.deleted;
    line += '|';
    appendNumber(line, index);
    line += '-';
    appendNumber(line, type);
    line += '-';
    appendNumber(line, id);
    line += '|';
    line += mode;
    line += "|0|0|";
    appendNumber(line, size);
    line += '|';
    appendTimes(line, times);
    line += '\n';
    out << line;
}

void writeBodyName(Output& out, std::string& line, const RecordDetails& details,
                   const std::string& path) {
    const char* mode = modeText(details);
    const char* deleted = details.inUse ? "" : DELETED_SUFFIX;
    if (const RecordFileName* name = timelineFileName(details))
        writeBodyLine(out, line, BodyName{path, nullptr, FILE_NAME_SUFFIX, deleted}, details.index,
                      FILE_NAME_TYPE, name->attributeId, mode, name->valueLength, name->times);
    for (const RecordStream& stream : details.streams)
        writeBodyLine(out, line,
                      BodyName{path, isDefaultStream(stream) ? nullptr : &stream.name, "", deleted},
                      details.index, stream.type, stream.attributeId, mode, stream.size,
                      details.standardTimes);
}

std::string csvField(const std::string& text) {
    if (text.find_first_of(",\"\n\r") == std::string::npos)
        return text;
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"')
            quoted += '"';
        quoted += c;
    }
    return quoted + "\"";
}

unsigned long long unnamedDataSize(const RecordDetails& details) {
    for (const RecordStream& stream : details.streams)
        if (stream.type == RecordStream::DATA && stream.name.empty())
            return stream.size;
    return 0;
}

// "name=size;name=size" of the named data streams.
std::string namedStreams(const RecordDetails& details) {
    std::string text;
    for (const RecordStream& stream : details.streams) {
        if (stream.type != RecordStream::DATA || stream.name.empty())
            continue;
        if (!text.empty())
            text += ';';
        text += utf8(stream.name) + "=" + std::to_string(stream.size);
    }
    return text;
}

void writeCsvName(Output& out, const RecordDetails& details, const RecordFileName& name,
                  const std::string& path) {
    const RecordTimes& si = details.standardTimes;
    const RecordTimes& fn = name.times;
    std::string row;
    row += std::to_string(details.index) + ',' + std::to_string(details.sequence) + ',' +
           (details.inUse ? "1" : "0") + ',' + (details.directory ? "1" : "0") + ',';
    row += csvField(path) + ',' + csvField(utf8(name.name)) + ',';
    row += std::to_string(name.nameSpace) + ',' + std::to_string(name.parent.index) + ',' +
           std::to_string(name.parent.sequence) + ',';
    row += isoTime(si.created) + ',' + isoTime(si.modified) + ',' + isoTime(si.mftChanged) + ',' +
           isoTime(si.accessed) + ',' + std::to_string(details.standardFlags) + ',';
    row += isoTime(fn.created) + ',' + isoTime(fn.modified) + ',' + isoTime(fn.mftChanged) + ',' +
           isoTime(fn.accessed) + ',' + std::to_string(name.flags) + ',' +
           std::to_string(name.allocatedSize) + ',' + std::to_string(name.realSize) + ',';
    row += std::to_string(unnamedDataSize(details)) + ',' + csvField(namedStreams(details)) + '\n';
    out << row;
}

void writeJsonTimes(std::string& text, const RecordTimes& times) {
    text += "{\"created\": " + jsonQuote(isoTime(times.created)) +
            ", \"modified\": " + jsonQuote(isoTime(times.modified)) +
            ", \"mftChanged\": " + jsonQuote(isoTime(times.mftChanged)) +
            ", \"accessed\": " + jsonQuote(isoTime(times.accessed)) + "}";
}

void writeJsonRecord(Output& out, const RecordDetails& details,
                     const std::vector<std::string>& paths) {
    std::string text = "{\"index\": " + std::to_string(details.index) +
                       ", \"sequence\": " + std::to_string(details.sequence) +
                       ", \"inUse\": " + (details.inUse ? "true" : "false") +
                       ", \"directory\": " + (details.directory ? "true" : "false") +
                       ", \"linkCount\": " + std::to_string(details.linkCount) +
                       ", \"logSequenceNumber\": " + std::to_string(details.logSequenceNumber);
    text += ", \"standardInformation\": {\"flags\": " + std::to_string(details.standardFlags) +
            ", \"times\": ";
    writeJsonTimes(text, details.standardTimes);
    text += "}, \"names\": [";
    for (std::size_t i = 0; i < details.names.size(); ++i) {
        const RecordFileName& name = details.names[i];
        text += (i ? ", " : "") + std::string("{\"name\": ") + jsonQuote(utf8(name.name)) +
                ", \"path\": " + jsonQuote(paths[i]) +
                ", \"nameSpace\": " + std::to_string(name.nameSpace) +
                ", \"parent\": " + std::to_string(name.parent.index) +
                ", \"parentSequence\": " + std::to_string(name.parent.sequence) +
                ", \"flags\": " + std::to_string(name.flags) +
                ", \"allocatedSize\": " + std::to_string(name.allocatedSize) +
                ", \"realSize\": " + std::to_string(name.realSize) + ", \"times\": ";
        writeJsonTimes(text, name.times);
        text += "}";
    }
    text += "], \"streams\": [";
    for (std::size_t i = 0; i < details.streams.size(); ++i) {
        const RecordStream& stream = details.streams[i];
        text += (i ? ", " : "") + std::string("{\"name\": ") + jsonQuote(utf8(stream.name)) +
                ", \"type\": " + std::to_string(stream.type) +
                ", \"resident\": " + (stream.resident ? "true" : "false") +
                ", \"size\": " + std::to_string(stream.size) +
                ", \"allocatedSize\": " + std::to_string(stream.allocatedSize) + "}";
    }
    text += "]}\n";
    out << text;
}

enum class Format { Body, Csv, JsonLines };

class Timeline {
public:
    Timeline(Session& session, Format format, Volume& volume, MasterFileTable& mft)
        : m_session(session), m_format(format), m_volume(volume), m_mft(mft),
          m_clusters(volumeClusterReader(mft, volume)), m_slots(mftRecordSlots(mft, volume)),
          m_paths(m_slots) {}

    // One pass over the MFT. A record is written as soon as the records its
    // path goes through have been read, which in index order is nearly
    // always at once; the others, and records whose attribute list names
    // extension records, wait in memory until the end of the pass.
    void run() {
        if (m_format == Format::Csv)
            m_session.out() << CSV_HEADER;
        Progress progress("Reading MFT records", m_slots, showProgress());
        std::string line;
        RecordDetails details;
        scanMftRecords(m_mft, m_volume,
                       [&](unsigned long long index, unsigned char* bytes, std::size_t size) {
                           progress.update(index + 1);
                           // A slot that holds no record is still noted as read.
                           RecordReader::readInPlace(bytes, size, index, details, m_clusters,
                                                     m_volume.bytesPerCluster());
                           if (!learn(details))
                               return;
                           if (details.hasAttributeList || !settled(details))
                               m_waiting.push_back(details);
                           else
                               write(details, line);
                       });
        nameFromExtensions();
        for (RecordDetails& waiting : m_waiting) {
            addExtensions(waiting);
            write(waiting, line);
        }
    }

private:
    bool showProgress() const { return stderrIsTerminal() && !m_session.options().verbose; }

    // Notes the record for the paths; true when it is a base record to write.
    bool learn(const RecordDetails& details) {
        Node* node = m_paths.node(details.index);
        if (node == nullptr)
            return false;
        node->visited = true;
        if (!details.isFileRecord || !usable(details))
            return false;
        node->fileRecord = true;
        node->inUse = details.inUse;
        node->sequence = details.sequence;
        if (isExtension(details)) {
            if (details.inUse)
                m_extensions[details.baseRecord.index].push_back(details);
            return false;
        }
        if (const RecordFileName* name = details.preferredName()) {
            // Only a directory stands in paths; a file's name is its own line.
            if (details.directory)
                node->name = name->name;
            node->parent = name->parent.index;
            node->parentSequence = static_cast<unsigned short>(name->parent.sequence);
        } else {
            node->awaitsExtensions = details.hasAttributeList;
        }
        return true;
    }

    bool settled(const RecordDetails& details) const {
        for (const RecordFileName& name : details.names)
            if (!m_paths.settled(name.parent, !details.inUse))
                return false;
        return true;
    }

    // A base record whose names all moved to extension records.
    void nameFromExtensions() {
        for (const auto& [base, extensions] : m_extensions) {
            Node* node = m_paths.node(base);
            if (node == nullptr || !node->name.empty())
                continue;
            node->awaitsExtensions = false;
            for (const RecordDetails& extension : extensions) {
                if (const RecordFileName* name = extension.preferredName()) {
                    node->name = name->name;
                    node->parent = name->parent.index;
                    node->parentSequence = static_cast<unsigned short>(name->parent.sequence);
                    break;
                }
            }
        }
    }

    void addExtensions(RecordDetails& details) const {
        const auto found = m_extensions.find(details.index);
        if (found == m_extensions.end())
            return;
        for (const RecordDetails& extension : found->second)
            if (extension.baseRecord.sequence == details.sequence)
                RecordReader::mergeExtension(details, extension);
    }

    void write(const RecordDetails& details, std::string& line) {
        if (details.index == ROOT_RECORD)
            return; // the root is the volume's "/", not an entry of its own
        std::vector<std::string>& paths = m_namePaths;
        paths.resize(details.names.size());
        bool named = false;
        for (std::size_t i = 0; i < details.names.size(); ++i) {
            const RecordFileName& name = details.names[i];
            m_paths.directoryOf(name.parent, !details.inUse, paths[i]);
            paths[i] += '/';
            appendUtf8(paths[i], name.name);
            named = named || name.nameSpace != RecordFileName::DOS_NAME;
        }
        if (!named)
            return;
        Output& out = m_session.out();
        if (m_format == Format::JsonLines) {
            writeJsonRecord(out, details, paths);
            return;
        }
        for (std::size_t i = 0; i < details.names.size(); ++i) {
            const RecordFileName& name = details.names[i];
            if (m_format == Format::Csv)
                writeCsvName(out, details, name, paths[i]);
            else if (name.nameSpace != RecordFileName::DOS_NAME)
                writeBodyName(out, line, details, paths[i]);
        }
    }

    Session& m_session;
    Format m_format;
    Volume& m_volume;
    MasterFileTable& m_mft;
    RecordReader::ClusterReader m_clusters;
    unsigned long long m_slots;
    PathBook m_paths;
    std::unordered_map<unsigned long long, std::vector<RecordDetails>> m_extensions;
    std::vector<RecordDetails> m_waiting;
    std::vector<std::string> m_namePaths; // the current record's, kept for their memory
};

} // namespace

int timelineCommand(Session& session) {
    const Options& options = session.options();
    if (options.arguments.size() != 1)
        throw UsageError(
            std::string(options.arguments.empty() ? "missing arguments" : "too many arguments") +
            "; usage: " + usageOf(options.command));
    // --json, the machine-readable form every command takes, is JSON Lines.
    const bool jsonLines = options.jsonl || options.json;
    if (options.csv && jsonLines)
        throw UsageError("--csv and --jsonl cannot be given together");
    const Format format =
        options.csv ? Format::Csv : (jsonLines ? Format::JsonLines : Format::Body);
    Volume& volume = session.openVolume(parseDriveLetter(options.arguments[0]));
    MasterFileTable& mft = session.openMft();
    Timeline timeline(session, format, volume, mft);
    timeline.run();
    return EXIT_OK;
}

} // namespace kestrow::tool
