#include <libKestrow/RecordReader.h>

// The correct NTFS reading the disk-image backend uses too (fix-ups, record
// header, attribute walk); the quirk-exact FileRecord parser shares none of it.
#include "NtfsRecord.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace disk = kestrow::platform::disk;

namespace {

FileReference referenceOf(std::uint64_t value) {
    return FileReference(value & disk::kReferenceMask, value >> 48);
}

RecordTimes timesAt(const disk::LeView& value, std::size_t first) {
    RecordTimes times;
    times.created = value.u64(first);
    times.modified = value.u64(first + 8);
    times.mftChanged = value.u64(first + 16);
    times.accessed = value.u64(first + 24);
    return times;
}

void readStandardInformation(const disk::LeView& value, RecordDetails& details) {
    // The times and flags are in every version of the value; the owner and
    // security ids only in the longer one of NTFS 3.0 and later.
    if (!value.has(0, disk::standardInformation::kFileAttributes + 4) ||
        details.hasStandardInformation)
        return;
    details.hasStandardInformation = true;
    details.standardTimes = timesAt(value, disk::standardInformation::kTimes);
    details.standardFlags = value.u32(disk::standardInformation::kFileAttributes);
    if (value.has(disk::standardInformation::kSecurityId, 4)) {
        details.ownerId = value.u32(disk::standardInformation::kOwnerId);
        details.securityId = value.u32(disk::standardInformation::kSecurityId);
    }
}

void readFileName(const disk::AttributeInPlace& attribute, unsigned long long record,
                  RecordDetails& details) {
    const disk::LeView& value = attribute.value;
    const std::size_t units = value.u8(disk::fileName::kNameLength);
    if (!value.has(disk::fileName::kName, units * 2))
        return; // a name cut short by damage is no name
    RecordFileName& name = details.names.emplace_back();
    name.attributeId = attribute.id;
    name.record = record;
    name.parent = referenceOf(value.u64(disk::fileName::kParent));
    name.nameSpace = value.u8(disk::fileName::kNameSpace);
    name.times = timesAt(value, disk::fileName::kTimes);
    name.allocatedSize = value.u64(disk::fileName::kAllocatedSize);
    name.realSize = value.u64(disk::fileName::kRealSize);
    name.flags = value.u32(disk::fileName::kFlags);
    name.valueLength = static_cast<unsigned int>(value.size());
    disk::assignUtf16(disk::LeView(value.data() + disk::fileName::kName, units * 2), name.name);
}

void readStream(const disk::AttributeInPlace& attribute, const std::u16string& name,
                unsigned long long record, RecordDetails& details) {
    RecordStream& stream = details.streams.emplace_back();
    stream.type = attribute.type;
    stream.attributeId = attribute.id;
    stream.record = record;
    stream.name = name;
    stream.resident = !attribute.nonResident;
    stream.size = attribute.nonResident ? attribute.dataSize : attribute.value.size();
    stream.allocatedSize = attribute.nonResident ? attribute.allocatedSize : 0;
    stream.flags = attribute.flags;
}

// An attribute list larger than this is damage: real ones hold a few
// thousand entries at most.
constexpr std::uint64_t MAX_ATTRIBUTE_LIST_BYTES = 4u << 20;

// The bytes of a non-resident value through the caller's cluster reader;
// empty when a run cannot be read.
std::vector<std::uint8_t> readNonResident(const disk::AttributeInPlace& attribute,
                                          const RecordReader::ClusterReader& clusters,
                                          unsigned int bytesPerCluster) {
    std::vector<std::uint8_t> bytes;
    if (!clusters || bytesPerCluster == 0 || attribute.dataSize > MAX_ATTRIBUTE_LIST_BYTES)
        return bytes;
    std::vector<disk::DataRun> runs;
    std::string ignored;
    // A damaged run list keeps the runs before the damage.
    disk::decodeRunList(attribute.runList, attribute.lowestVcn, runs, ignored);
    const std::uint64_t wanted = attribute.dataSize;
    std::vector<std::uint8_t> run;
    for (const disk::DataRun& piece : runs) {
        if (bytes.size() >= wanted)
            break;
        if (piece.length > (wanted - bytes.size() + bytesPerCluster - 1) / bytesPerCluster + 1)
            return {}; // a run far longer than the list: damage
        run.assign(static_cast<std::size_t>(piece.length * bytesPerCluster), 0);
        if (piece.lcn >= 0 &&
            !clusters(static_cast<unsigned long long>(piece.lcn), piece.length, run.data()))
            return {};
        bytes.insert(bytes.end(), run.begin(), run.end());
    }
    if (bytes.size() < wanted)
        return {};
    bytes.resize(static_cast<std::size_t>(wanted));
    return bytes;
}

void readAttributeList(const disk::AttributeInPlace& attribute, RecordDetails& details,
                       const RecordReader::ClusterReader& clusters, unsigned int bytesPerCluster) {
    details.hasAttributeList = true;
    details.attributeListResident = !attribute.nonResident;
    std::vector<std::uint8_t> stored;
    if (attribute.nonResident) {
        stored = readNonResident(attribute, clusters, bytesPerCluster);
        if (stored.empty())
            return;
    }
    details.attributeListRead = true;
    const disk::LeView list =
        attribute.nonResident ? disk::LeView(stored.data(), stored.size()) : attribute.value;
    for (std::size_t offset = 0; list.has(offset, disk::listEntry::kMinimumLength);) {
        const std::uint16_t length = list.u16(offset + disk::listEntry::kLength);
        if (length < disk::listEntry::kMinimumLength)
            break;
        RecordListMember member;
        member.type = list.u32(offset + disk::listEntry::kType);
        member.attributeId = list.u16(offset + disk::listEntry::kId);
        member.startingVcn = list.u64(offset + disk::listEntry::kStartingVcn);
        member.record = referenceOf(list.u64(offset + disk::listEntry::kRecord));
        const disk::LeView entry =
            list.sub(offset, std::min<std::size_t>(length, list.size() - offset));
        member.name = disk::utf16At(entry, entry.u8(disk::listEntry::kNameOffset),
                                    entry.u8(disk::listEntry::kNameLength));
        details.attributeList.push_back(std::move(member));
        offset += length;
    }
}

// Takes each attribute as the walk finds it, straight from the record's
// bytes: nothing is copied but what the details keep.
class DetailsReader final : public disk::AttributeVisitor {
public:
    DetailsReader(unsigned long long record, RecordDetails& details,
                  const RecordReader::ClusterReader& clusters, unsigned int bytesPerCluster)
        : m_record(record), m_details(details), m_clusters(clusters),
          m_bytesPerCluster(bytesPerCluster) {}

    void visit(const disk::AttributeInPlace& attribute) override {
        RecordAttribute& entry = m_details.attributes.emplace_back();
        entry.type = attribute.type;
        entry.attributeId = attribute.id;
        entry.record = m_record;
        entry.resident = !attribute.nonResident;
        disk::assignUtf16(attribute.name, entry.name);
        switch (attribute.type) {
        case disk::attr::kStandardInformation:
            if (!attribute.nonResident)
                readStandardInformation(attribute.value, m_details);
            break;
        case disk::attr::kFileName:
            if (!attribute.nonResident)
                readFileName(attribute, m_record, m_details);
            break;
        case disk::attr::kData:
        case disk::attr::kIndexRoot:
            // A non-resident stream continued in another piece shows once, by
            // the piece that starts it.
            if (!attribute.nonResident || attribute.lowestVcn == 0)
                readStream(attribute, entry.name, m_record, m_details);
            break;
        case disk::attr::kAttributeList:
            readAttributeList(attribute, m_details, m_clusters, m_bytesPerCluster);
            break;
        default:
            break;
        }
    }

private:
    unsigned long long m_record;
    RecordDetails& m_details;
    const RecordReader::ClusterReader& m_clusters;
    unsigned int m_bytesPerCluster;
};

} // namespace

const RecordFileName* RecordDetails::preferredName() const {
    for (const RecordFileName& name : names)
        if (name.nameSpace != RecordFileName::DOS_NAME)
            return &name;
    return names.empty() ? nullptr : &names.front();
}

namespace {

// Empties the details but keeps their lists' memory, for a caller that reads
// record after record into one object.
void reset(RecordDetails& details) {
    std::vector<RecordAttribute> attributes = std::move(details.attributes);
    std::vector<RecordFileName> names = std::move(details.names);
    std::vector<RecordStream> streams = std::move(details.streams);
    std::vector<RecordListMember> attributeList = std::move(details.attributeList);
    details = RecordDetails();
    attributes.clear();
    names.clear();
    streams.clear();
    attributeList.clear();
    details.attributes = std::move(attributes);
    details.names = std::move(names);
    details.streams = std::move(streams);
    details.attributeList = std::move(attributeList);
}

} // namespace

bool RecordReader::readHeader(const unsigned char* bytes, std::size_t size,
                              unsigned long long index, RecordDetails& details) {
    reset(details);
    details.index = index;
    disk::FileRecordHeader header;
    if (bytes == nullptr || !disk::readFileRecordHeader(disk::LeView(bytes, size), header))
        return false;
    details.isFileRecord = true;
    details.logSequenceNumber = header.logSequenceNumber;
    details.sequence = header.sequence;
    details.linkCount = header.linkCount;
    details.recordFlags = header.flags;
    details.inUse = (header.flags & disk::fileRecord::kInUse) != 0;
    details.directory = (header.flags & disk::fileRecord::kDirectory) != 0;
    details.baseRecord = referenceOf(header.baseRecord);
    return true;
}

bool RecordReader::read(const unsigned char* bytes, std::size_t size, unsigned long long index,
                        RecordDetails& details, const ClusterReader& clusters,
                        unsigned int bytesPerCluster) {
    if (bytes == nullptr || size == 0) {
        reset(details);
        details.index = index;
        return false;
    }
    // The fix-ups go into a copy, which keeps its memory between calls.
    thread_local std::vector<std::uint8_t> record;
    record.assign(bytes, bytes + size);
    return readInPlace(record.data(), record.size(), index, details, clusters, bytesPerCluster);
}

bool RecordReader::readInPlace(unsigned char* bytes, std::size_t size, unsigned long long index,
                               RecordDetails& details, const ClusterReader& clusters,
                               unsigned int bytesPerCluster) {
    if (!readHeader(bytes, size, index, details))
        return false;
    details.fixupsApplied = disk::applyFixups(bytes, size);
    DetailsReader reader(index, details, clusters, bytesPerCluster);
    details.attributesComplete = disk::walkRecordAttributes(bytes, size, reader);
    return true;
}

void RecordReader::mergeExtension(RecordDetails& base, const RecordDetails& extension) {
    std::set<unsigned short> used;
    for (const RecordAttribute& attribute : base.attributes)
        if (attribute.type != disk::attr::kFileName || attribute.record == base.index)
            used.insert(attribute.attributeId);
    std::map<unsigned short, unsigned short> renumbered;
    for (RecordAttribute attribute : extension.attributes) {
        if (attribute.type != disk::attr::kFileName) {
            const unsigned short own = attribute.attributeId;
            if (used.count(own) != 0)
                attribute.attributeId = static_cast<unsigned short>(*used.rbegin() + 1);
            used.insert(attribute.attributeId);
            renumbered.emplace(own, attribute.attributeId);
        }
        base.attributes.push_back(std::move(attribute));
    }
    const auto idFor = [&renumbered](unsigned short id) {
        const auto found = renumbered.find(id);
        return found == renumbered.end() ? id : found->second;
    };
    base.names.insert(base.names.end(), extension.names.begin(), extension.names.end());
    for (RecordStream stream : extension.streams) {
        stream.attributeId = idFor(stream.attributeId);
        base.streams.push_back(std::move(stream));
    }
    if (!base.hasStandardInformation && extension.hasStandardInformation) {
        base.hasStandardInformation = true;
        base.standardTimes = extension.standardTimes;
        base.standardFlags = extension.standardFlags;
        base.ownerId = extension.ownerId;
        base.securityId = extension.securityId;
    }
}
