// kestrow record C: N --all: one record as the analysts' record reader sees
// it, in use or free, with both time sets, every name and every stream.
#include "AnalystCommands.h"
#include "MftScan.h"

#include <libKestrow/RecordReader.h>

#include <cstdio>
#include <string>
#include <vector>

namespace kestrow::tool {

namespace {

const char* nameSpaceText(unsigned char nameSpace) {
    switch (nameSpace) {
    case RecordFileName::POSIX_NAME:
        return "POSIX";
    case RecordFileName::WIN32_NAME:
        return "Win32";
    case RecordFileName::DOS_NAME:
        return "DOS";
    case RecordFileName::WIN32_AND_DOS_NAME:
        return "Win32+DOS";
    default:
        return "unknown";
    }
}

const char* streamTypeText(unsigned int type) {
    return type == RecordStream::INDEX_ROOT ? "$INDEX_ROOT" : "$DATA";
}

void writeTimesText(Output& out, const char* indent, const RecordTimes& times) {
    out << indent << "Created         : " << isoTime(times.created) << '\n';
    out << indent << "Modified        : " << isoTime(times.modified) << '\n';
    out << indent << "MFT changed     : " << isoTime(times.mftChanged) << '\n';
    out << indent << "Accessed        : " << isoTime(times.accessed) << '\n';
}

void writeTimesJson(JsonWriter& json, const RecordTimes& times) {
    json.beginObject()
        .field("created", isoTime(times.created))
        .field("modified", isoTime(times.modified))
        .field("mftChanged", isoTime(times.mftChanged))
        .field("accessed", isoTime(times.accessed))
        .endObject();
}

void writeJson(Output& out, const RecordDetails& details) {
    JsonWriter json(out);
    json.beginObject()
        .field("index", details.index)
        .field("fixupsApplied", details.fixupsApplied)
        .field("attributesComplete", details.attributesComplete)
        .field("sequence", static_cast<unsigned long long>(details.sequence))
        .field("inUse", details.inUse)
        .field("directory", details.directory)
        .field("linkCount", static_cast<unsigned long long>(details.linkCount))
        .field("baseRecord", static_cast<unsigned long long>(details.baseRecord.index))
        .field("baseSequence", static_cast<unsigned long long>(details.baseRecord.sequence))
        .field("logSequenceNumber", details.logSequenceNumber);
    if (details.hasStandardInformation) {
        json.key("standardInformation").beginObject();
        json.field("flags", details.standardFlags)
            .field("flagNames", attributeFlagNames(details.standardFlags))
            .field("ownerId", details.ownerId)
            .field("securityId", details.securityId)
            .key("times");
        writeTimesJson(json, details.standardTimes);
        json.endObject();
    }
    json.key("names").beginArray();
    for (const RecordFileName& name : details.names) {
        json.beginObject()
            .field("name", utf8(name.name))
            .field("nameSpace", nameSpaceText(name.nameSpace))
            .field("attributeId", static_cast<unsigned long long>(name.attributeId))
            .field("record", name.record)
            .field("parent", static_cast<unsigned long long>(name.parent.index))
            .field("parentSequence", static_cast<unsigned long long>(name.parent.sequence))
            .field("flags", name.flags)
            .field("allocatedSize", name.allocatedSize)
            .field("realSize", name.realSize)
            .key("times");
        writeTimesJson(json, name.times);
        json.endObject();
    }
    json.endArray().key("attributes").beginArray();
    for (const RecordAttribute& attribute : details.attributes)
        json.beginObject()
            .field("type", static_cast<unsigned long long>(attribute.type))
            .field("attributeId", static_cast<unsigned long long>(attribute.attributeId))
            .field("name", utf8(attribute.name))
            .field("resident", attribute.resident)
            .endObject();
    json.endArray().key("streams").beginArray();
    for (const RecordStream& stream : details.streams)
        json.beginObject()
            .field("type", streamTypeText(stream.type))
            .field("name", utf8(stream.name))
            .field("attributeId", static_cast<unsigned long long>(stream.attributeId))
            .field("resident", stream.resident)
            .field("size", stream.size)
            .field("allocatedSize", stream.allocatedSize)
            .field("flags", static_cast<unsigned long long>(stream.flags))
            .endObject();
    json.endArray().key("attributeList").beginArray();
    for (const RecordListMember& member : details.attributeList)
        json.beginObject()
            .field("type", static_cast<unsigned long long>(member.type))
            .field("name", utf8(member.name))
            .field("attributeId", static_cast<unsigned long long>(member.attributeId))
            .field("startingVcn", member.startingVcn)
            .field("record", static_cast<unsigned long long>(member.record.index))
            .field("recordSequence", static_cast<unsigned long long>(member.record.sequence))
            .endObject();
    json.endArray().endObject();
}

void writeText(Output& out, char letter, const RecordDetails& details) {
    out << "Record " << details.index << " of " << std::string(1, letter) << ": (all attributes)\n";
    out << "   State             : " << (details.inUse ? "in use" : "free")
        << (details.directory ? ", directory" : "") << '\n';
    if (!details.fixupsApplied)
        out << "   Fix-ups           : check FAILED (torn write or damage); read as stored\n";
    if (!details.attributesComplete)
        out << "   Attributes        : walk stopped at damaged bytes\n";
    out << "   Sequence          : " << static_cast<unsigned long long>(details.sequence) << '\n';
    out << "   Link count        : " << static_cast<unsigned long long>(details.linkCount) << '\n';
    out << "   Base record       : " << static_cast<unsigned long long>(details.baseRecord.index)
        << " (sequence " << static_cast<unsigned long long>(details.baseRecord.sequence) << ")\n";
    out << "   LSN               : " << details.logSequenceNumber << '\n';
    if (details.hasStandardInformation) {
        out << "   $STANDARD_INFORMATION\n";
        out << "      Flags           : " << attributeFlagNames(details.standardFlags) << '\n';
        writeTimesText(out, "      ", details.standardTimes);
    }
    for (const RecordFileName& name : details.names) {
        out << "   $FILE_NAME        : " << utf8(name.name) << "  ("
            << nameSpaceText(name.nameSpace) << ", id "
            << static_cast<unsigned long long>(name.attributeId) << ")\n";
        out << "      Parent          : " << static_cast<unsigned long long>(name.parent.index)
            << " (sequence " << static_cast<unsigned long long>(name.parent.sequence) << ")\n";
        out << "      Sizes           : " << name.realSize << " real, " << name.allocatedSize
            << " allocated\n";
        writeTimesText(out, "      ", name.times);
    }
    for (const RecordStream& stream : details.streams)
        out << "   " << streamTypeText(stream.type)
            << (stream.type == RecordStream::DATA ? "  " : "") << "      : "
            << (stream.name.empty() ? "(unnamed)" : utf8(stream.name)) << "  " << stream.size
            << " bytes, " << (stream.resident ? "resident" : "non-resident") << ", id "
            << static_cast<unsigned long long>(stream.attributeId) << '\n';
    out << "   Attributes        :";
    for (const RecordAttribute& attribute : details.attributes) {
        char type[16];
        std::snprintf(type, sizeof type, " 0x%X-%u", attribute.type, attribute.attributeId);
        out << type;
        if (!attribute.name.empty())
            out << "(" << utf8(attribute.name) << ")";
    }
    out << '\n';
    if (details.hasAttributeList && !details.attributeListRead)
        out << "   $ATTRIBUTE_LIST   : non-resident, its clusters could not be read\n";
    for (const RecordListMember& member : details.attributeList) {
        char type[16];
        std::snprintf(type, sizeof type, "0x%X", member.type);
        out << "   $ATTRIBUTE_LIST   : type " << type << " in record "
            << static_cast<unsigned long long>(member.record.index) << ", VCN "
            << member.startingVcn << (member.name.empty() ? "" : ", " + utf8(member.name)) << '\n';
    }
}

} // namespace

int recordAllCommand(Session& session) {
    const Options& options = session.options();
    if (options.arguments.size() != 2)
        throw UsageError(
            std::string(options.arguments.size() < 2 ? "missing arguments" : "too many arguments") +
            "; usage: " + usageOf(options.command));
    const char letter = parseDriveLetter(options.arguments[0]);
    const unsigned long long index = parseNumber(options.arguments[1], "record number");
    Volume& volume = session.openVolume(letter);
    MasterFileTable& mft = session.openMft();
    const unsigned long long slots = mftRecordSlots(mft, volume);
    if (index >= slots)
        throw CommandError("record " + std::to_string(index) + " is beyond the MFT of " +
                           std::string(1, letter) + ": (" + std::to_string(slots) +
                           " record slots)");
    std::vector<unsigned char> bytes;
    if (!readRawRecord(mft, volume, index, bytes))
        throw CommandError("cannot read record " + std::to_string(index) + " of " +
                           std::string(1, letter) + ":");
    RecordDetails details;
    if (!RecordReader::read(bytes.data(), bytes.size(), index, details,
                            volumeClusterReader(mft, volume), volume.bytesPerCluster()))
        throw CommandError("record " + std::to_string(index) + " of " + std::string(1, letter) +
                           ": is not a FILE record (never used, or overwritten)");
    if (options.json)
        writeJson(session.out(), details);
    else
        writeText(session.out(), letter, details);
    return EXIT_OK;
}

} // namespace kestrow::tool
