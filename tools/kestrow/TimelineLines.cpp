#include "TimelineLines.h"

#include <charconv>
#include <cstdint>

namespace kestrow::tool {

namespace {

constexpr unsigned long long NTFS_TICKS_AT_UNIX_EPOCH = 116444736000000000ULL;
constexpr unsigned long long NTFS_TICKS_PER_SECOND = 10000000ULL;
constexpr unsigned int FILE_NAME_TYPE = 0x30;
constexpr unsigned int READ_ONLY_FLAGS = 0x1 | 0x2 | 0x4; // read-only, hidden, system

// The bodyfile's own texts, as The Sleuth Kit writes them.
constexpr const char FILE_NAME_SUFFIX[] = " ($FILE_NAME)";
constexpr const char DELETED_SUFFIX[] = " (deleted)";
constexpr const char16_t INDEX_NAME[] = u"$I30";

// Seconds since 1970 as bodyfiles carry them: 32 bits. A time before 1970
// or after 2106 (an unset time of 0 among them) wraps, as it does in fls's
// bodyfile, so that the two tools' lines stay comparable.
unsigned long long unixSeconds(unsigned long long ntfsTime) {
    return static_cast<std::uint32_t>((ntfsTime - NTFS_TICKS_AT_UNIX_EPOCH) /
                                      NTFS_TICKS_PER_SECOND);
}

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

void writeJsonTimes(std::string& text, const RecordTimes& times) {
    text += "{\"created\": " + jsonQuote(isoTime(times.created)) +
            ", \"modified\": " + jsonQuote(isoTime(times.modified)) +
            ", \"mftChanged\": " + jsonQuote(isoTime(times.mftChanged)) +
            ", \"accessed\": " + jsonQuote(isoTime(times.accessed)) + "}";
}

} // namespace

const char TIMELINE_CSV_HEADER[] =
    "index,sequence,inUse,directory,path,name,nameSpace,parent,parentSequence,"
    "siCreated,siModified,siMftChanged,siAccessed,siFlags,"
    "fnCreated,fnModified,fnMftChanged,fnAccessed,fnFlags,fnAllocatedSize,fnRealSize,"
    "dataSize,streams\n";

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

} // namespace kestrow::tool
