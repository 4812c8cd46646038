#include "TimelineLines.h"

namespace kestrow::tool {

namespace {

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
