// FileRecord: the FILE record header, the attribute walk and the resident
// attributes. Non-resident attributes and their runs are in
// FileRecordNonResident.cpp, the index blocks in FileRecordPostProcess.cpp.
#include <libKestrow/FileRecord.h>

#include "FileRecordInternals.h"

#include <bit>
#include <cstdint>
#include <cstring>
#include <utility>

using namespace kestrow::ntfs;

namespace kestrow::filerecord {

namespace {
constinit orv::LogArea s_log("libKestrow.FileRecord");
}

orv::LogArea& logArea() {
    return s_log;
}

bool isShortName(const orv::Char16* units, unsigned int count) noexcept {
    constexpr unsigned int MAX_NAME = MAX_SHORT_NAME;
    constexpr unsigned int MAX_BASE = 8;
    constexpr unsigned int MAX_EXTENSION = 3;
    if (count > MAX_NAME)
        return false;
    unsigned int pieces = 0;
    unsigned int pieceLengths[2] = {0, 0};
    unsigned int current = 0;
    for (unsigned int i = 0; i <= count; ++i) {
        const bool separator = i == count || units[i] == u'.';
        if (!separator) {
            if (orv::String::upperCase(units[i]) != units[i])
                return false;
            ++current;
            continue;
        }
        if (current != 0) {
            if (pieces == 2)
                return false;
            pieceLengths[pieces++] = current;
        }
        current = 0;
    }
    // No piece at all (the root's name ".") has no first part to be too long.
    if (pieceLengths[0] > MAX_BASE)
        return false;
    return pieces != 2 || pieceLengths[1] <= MAX_EXTENSION;
}

} // namespace kestrow::filerecord

bool AttributeView::isNamedI30() const {
    static constexpr char16_t I30[] = u"$I30";
    constexpr unsigned int I30_UNITS = 4;
    const unsigned int units = nameLength();
    const std::uint16_t at = nameOffset();
    if (units == 0 || at == 0)
        return false; // no name: nothing is read
    // The name is read whole before it is compared, so a name that runs past
    // the record is a read outside it even when its length is not that of "$I30".
    require(at, 2ULL * units);
    if (units != I30_UNITS)
        return false;
    for (unsigned int i = 0; i < I30_UNITS; ++i)
        if (u16(at + 2 * i) != I30[i])
            return false;
    return true;
}

namespace {

const orv::String& residentTypeName(std::uint32_t typeCode) {
    static const orv::String NAMES[] = {
        ORV_LITERAL("$STANDARD_INFORMATION"),  // 0x10
        ORV_LITERAL("$ATTRIBUTE_LIST"),        // 0x20
        ORV_LITERAL("$FILE_NAME"),             // 0x30
        ORV_LITERAL("$OBJECT_ID"),             // 0x40
        ORV_LITERAL("$SECURITY_DESCRIPTOR"),   // 0x50
        ORV_LITERAL("$VOLUME_NAME"),           // 0x60
        ORV_LITERAL("$VOLUME_INFORMATION"),    // 0x70
        ORV_LITERAL("$DATA"),                  // 0x80
        ORV_LITERAL("$INDEX_ROOT"),            // 0x90
        orv::String(),                         // 0xA0: named only when non-resident
        ORV_LITERAL("$BITMAP"),                // 0xB0
        ORV_LITERAL("$REPARSE_POINT"),         // 0xC0
        ORV_LITERAL("$EA_INFORMATION"),        // 0xD0
        ORV_LITERAL("$EA"),                    // 0xE0
        orv::String(),                         // 0xF0
        ORV_LITERAL("$LOGGED_UTILITY_STREAM"), // 0x100
    };
    if (typeCode < 0x10 || typeCode > 0x100 || typeCode % 0x10 != 0)
        return orv::String::EMPTY();
    return NAMES[typeCode / 0x10 - 1];
}

} // namespace

// ---- Summaries ----------------------------------------------------------------

FileReference FileReference::operator++() noexcept {
    index = (index + 1) & INDEX_MASK;
    return FileReference(index, 0);
}

FileReference FileReference::operator++(int) noexcept {
    const unsigned long long old = index;
    index = (old + 1) & INDEX_MASK;
    return FileReference(old, 0);
}

AttributeSummary::AttributeSummary() noexcept : name(), resident(false) {}

bool ClusterRange::operator==(const ClusterRange& other) const noexcept {
    return count == other.count && start == other.start;
}

RecordSummary::RecordSummary(const FileRecord& record)
    : mftIndex(record.mftIndex()), parentMftIndex(record.parentMftIndex()), name(record.name()),
      fileAttributes(record.getFileAttributes()), creationTime(record.getCreationTime()),
      modificationTime(record.getModificationTime()), lastReadTime(record.getLastReadTime()),
      dataSize(record.dataSize()) {}

// ---- Construction ---------------------------------------------------------------

FileRecord::FileRecord()
    : m_valid(false), m_longNameFound(false), m_mftIndex(), m_parentMftIndex(), m_name(),
      m_attributes(), m_allocatedSize(0), m_realSize(0), m_volume(nullptr), m_fileAttributes(0),
      m_creationTime(0), m_modificationTime(0), m_lastReadTime(0), m_dataSize(0),
      m_externalAttributeReferences(), m_clusterRanges(), m_indexAllocationRanges(),
      m_indexEntries() {}

FileRecord::FileRecord(orv::Buffer<unsigned char>& buffer, const FileReference& reference,
                       Volume& volume)
    : FileRecord() {
    m_mftIndex = reference;
    m_parentMftIndex = FileReference(0, 0);
    m_volume = &volume;
    processAttributes(buffer);
}

namespace {

// Empties an array as a new record's would be: a representation with room for
// 8. One that grew past that (or has none, after a move) gets a fresh one, so
// that a reused record holds exactly what a new one would.
template <class T> inline void resetToNew(orv::Array<T>& array) {
    if (array.capacity() != orv::Array<T>::INITIAL_CAPACITY)
        array.reset();
    else if (!array.empty())
        array.clear();
}

} // namespace

void FileRecordParser::reparse(FileRecord& record, orv::Buffer<unsigned char>& buffer,
                               const FileReference& reference, Volume& volume, ParseDetail detail) {
    record.m_valid = false;
    record.m_longNameFound = false;
    record.m_mftIndex = reference;
    record.m_parentMftIndex = FileReference(0, 0);
    record.m_name.assign(nullptr, 0);
    resetToNew(record.m_attributes);
    record.m_allocatedSize = 0;
    record.m_realSize = 0;
    record.m_volume = &volume;
    record.m_fileAttributes = 0;
    record.m_creationTime = 0;
    record.m_modificationTime = 0;
    record.m_lastReadTime = 0;
    record.m_dataSize = 0;
    resetToNew(record.m_externalAttributeReferences);
    resetToNew(record.m_clusterRanges);
    resetToNew(record.m_indexAllocationRanges);
    resetToNew(record.m_indexEntries);
    walkAttributes(record, buffer, detail);
}

FileRecord::FileRecord(const FileRecord& other) = default;
FileRecord::FileRecord(FileRecord&& other) noexcept = default;
FileRecord& FileRecord::operator=(const FileRecord& other) = default;
FileRecord& FileRecord::operator=(FileRecord&& other) noexcept = default;
FileRecord::~FileRecord() = default;

// ---- The attribute walk ----------------------------------------------------------

// Inline: it runs for almost every attribute of a whole-table walk.
inline void FileRecordParser::processResidentForSummary(FileRecord& record,
                                                        const ResidentAttributeHeader& attribute) {
    switch (attribute.typeCode()) {
    case AttributeType::ATTRIBUTE_LIST:
        collectAttributeListEntries(
            record, attribute, AttributeListEntry::RESIDENT_FIRST_ENTRY + attribute.nameLength());
        break;
    case AttributeType::FILE_NAME:
        processFileName(record, attribute);
        break;
    case AttributeType::DATA:
        if (attribute.nameLength() == 0)
            record.m_dataSize = attribute.valueLength();
        break;
    case AttributeType::INDEX_ROOT:
        // It adds only index entries, left out here; but its header is read as
        // in the full parse, so that both parses end at the same read.
        indexRootEntries(attribute);
        break;
    default:
        // The rest add only their summaries.
        break;
    }
}

void FileRecord::processAttributes(orv::Buffer<unsigned char>& buffer) {
    FileRecordParser::walkAttributes(*this, buffer, ParseDetail::FULL);
}

void FileRecordParser::walkAttributes(FileRecord& self, orv::Buffer<unsigned char>& buffer,
                                      ParseDetail detail) {
    // The walk reads and writes the record's members as its own.
    auto& m_volume = self.m_volume;
    auto& m_valid = self.m_valid;
    auto& m_allocatedSize = self.m_allocatedSize;
    auto& m_realSize = self.m_realSize;
    // Guard: a record bound to no volume (the default one) has no geometry to
    // parse with.
    if (m_volume == nullptr)
        return;
    const bool summaries = detail == ParseDetail::FULL;
    const ByteBlock record(buffer.data(), buffer.size());
    // The first 48 bytes are taken as the header: a buffer too short for them
    // holds no record.
    if (!record.has(0, FileRecordHeader::SIZE))
        return;
    if (!record.bytesEqual(FileRecordHeader::SIGNATURE_OFFSET, FileRecordHeader::SIGNATURE, 4))
        return;
    if ((record.u16(FileRecordHeader::FLAGS) & FileRecordHeader::FLAG_IN_USE) == 0)
        return;
    m_valid = true;

    const std::uint32_t bytesInUse = record.u32(FileRecordHeader::BYTES_IN_USE);
    const std::uint32_t bytesAllocated = record.u32(FileRecordHeader::BYTES_ALLOCATED);
    std::uint64_t offset = record.u16(FileRecordHeader::FIRST_ATTRIBUTE_OFFSET);
    // Every read below is checked: the walk ends at its first read outside the
    // buffer, with everything before it done (see FileRecordLayout.h). An
    // attribute whose length reads past the record (the update sequence
    // number sits in it) is still handled and summarised; adding its length
    // then ends the walk.
    try {
        while (offset < bytesInUse) {
            if (record.u32(offset + AttributeHeader::TYPE_CODE) == AttributeHeader::END_MARKER)
                break;
            // The record's figures are set before every attribute, so after the
            // walk they are those of the last attribute: its own sizes if it was
            // non-resident, otherwise the record's. The order is intended.
            m_allocatedSize =
                static_cast<std::uint32_t>(m_volume->bytesPerSector() * bytesAllocated);
            m_realSize = bytesInUse;
            const bool nonResident = record.u8(offset + AttributeHeader::NON_RESIDENT) != 0;
            // The length lies before the non-resident flag just read.
            const std::uint32_t length = record.u32(offset + AttributeHeader::LENGTH);
            if (!nonResident) {
                const ResidentAttributeHeader attribute(record, offset);
                if (summaries) {
                    AttributeSummary summary;
                    self.processResidentAttribute(&attribute, summary);
                    self.m_attributes.append(std::move(summary));
                } else {
                    processResidentForSummary(self, attribute);
                }
            } else {
                // Rare (a few in a hundred records), and it logs: one handler for
                // both details, its summary dropped when none is kept.
                const NonResidentAttributeHeader attribute(record, offset);
                AttributeSummary summary;
                self.processNonResidentAttribute(&attribute, summary);
                if (summaries)
                    self.m_attributes.append(std::move(summary));
            }
            m_allocatedSize &= SIZE_MASK_44;
            m_realSize &= SIZE_MASK_44;
            // Guard: an attribute of length 0 would be walked again and again;
            // the walk ends after its first pass.
            if (length == 0)
                break;
            offset += length;
        }
    } catch (const OutsideTheBlock&) {
        // The walk's first read outside the record: it ends here.
    }
}

// ---- Resident attributes ------------------------------------------------------------

void FileRecord::processResidentAttribute(const ResidentAttributeHeader* attribute,
                                          AttributeSummary& summary) {
    summary.resident = true;
    const std::uint32_t type = attribute->typeCode();
    summary.name = residentTypeName(type);
    switch (type) {
    case AttributeType::ATTRIBUTE_LIST:
        // The name length is counted as bytes here, as the list was always read.
        FileRecordParser::collectAttributeListEntries(
            *this, *attribute, AttributeListEntry::RESIDENT_FIRST_ENTRY + attribute->nameLength());
        break;
    case AttributeType::FILE_NAME:
        FileRecordParser::processFileName(*this, *attribute);
        break;
    case AttributeType::DATA:
        if (attribute->nameLength() == 0)
            m_dataSize = attribute->valueLength();
        break;
    case AttributeType::INDEX_ROOT:
        FileRecordParser::processIndexRoot(*this, *attribute);
        break;
    default:
        break;
    }
}

void FileRecordParser::collectAttributeListEntries(FileRecord& record,
                                                   const AttributeView& attribute,
                                                   std::uint64_t firstEntry) {
    const unsigned long long ownIndex = record.m_mftIndex.index;
    const std::uint32_t end = attribute.length();
    std::uint64_t entry = firstEntry;
    // Entries may pass the attribute's own end (a non-resident list is walked
    // over its run list, a length may read huge); the list ends at its first
    // read outside the record.
    try {
        while (entry < end) {
            const std::uint16_t length = attribute.u16(entry + AttributeListEntry::LENGTH);
            if (length == 0)
                return;
            const unsigned long long index =
                attribute.u64(entry + AttributeListEntry::REFERENCE) & RECORD_INDEX_MASK;
            if (index != ownIndex && !record.m_externalAttributeReferences.contains(index))
                record.m_externalAttributeReferences.append(index);
            entry += length;
        }
    } catch (const OutsideTheBlock&) {
        // The list's first read outside the record: it ends here.
    }
}

namespace {

// The name's units read one by one, for hosts and addresses where they cannot
// be taken as they lie.
void copyNameUnits(const ResidentAttributeHeader& attribute, orv::Char16* units,
                   unsigned int length) {
    for (unsigned int i = 0; i < length; ++i)
        units[i] =
            static_cast<orv::Char16>(attribute.u16(kestrow::ntfs::FileNameAttribute::NAME + 2 * i));
}

} // namespace

void FileRecordParser::processFileName(FileRecord& record,
                                       const ResidentAttributeHeader& attribute) {
    using namespace kestrow::ntfs::FileNameAttribute;
    // The name is read first, its length and then its units; a name outside
    // the record ends the attribute walk there. The fields before the name
    // lie inside whenever its length does.
    const unsigned int length = attribute.u8(NAME_LENGTH);
    if (length == 0)
        return;
    attribute.require(NAME, 2ULL * length);

    const std::uint64_t parent = attribute.u64(PARENT_REFERENCE);
    record.m_parentMftIndex = FileReference(parent, parent >> 48);
    if (!record.m_name.empty() && record.m_longNameFound)
        return;

    // The name's units lie in the record as they are in memory here: the
    // string copies them straight from the record, and only the few units of
    // a name short enough to be an 8.3 name are looked at on their own. A
    // name at an odd address (a damaged attribute offset) or a big-endian
    // host gets a copy first.
    constexpr bool UNITS_AS_IN_MEMORY =
        std::endian::native == std::endian::little && sizeof(orv::Char16) == 2;
    const unsigned char* bytes = attribute.record().data() + attribute.offset() + NAME;
    orv::Char16 copied[255];
    const orv::Char16* units = copied;
    if (UNITS_AS_IN_MEMORY && reinterpret_cast<std::uintptr_t>(bytes) % alignof(orv::Char16) == 0)
        units = reinterpret_cast<const orv::Char16*>(bytes);
    else
        copyNameUnits(attribute, copied, length);
    bool shortName = false;
    if (length <= kestrow::filerecord::MAX_SHORT_NAME) {
        orv::Char16 candidate[kestrow::filerecord::MAX_SHORT_NAME];
        std::memcpy(candidate, bytes, 2 * length);
        if (!UNITS_AS_IN_MEMORY)
            copyNameUnits(attribute, candidate, length);
        shortName = kestrow::filerecord::isShortName(candidate, length);
    }
    if (!(record.m_name.empty() && shortName))
        record.m_longNameFound = true;

    record.m_name.assign(units, length);
    record.m_creationTime = attribute.u64(CREATION_TIME);
    record.m_modificationTime = attribute.u64(MODIFICATION_TIME);
    record.m_lastReadTime = attribute.u64(LAST_ACCESS_TIME);
    record.m_fileAttributes = attribute.u32(FILE_ATTRIBUTES);
    if (record.m_fileAttributes & DIRECTORY_FLAG)
        record.m_fileAttributes |= FILE_ATTRIBUTE_DIRECTORY_FLAG;
}

std::pair<std::uint64_t, std::uint32_t>
FileRecordParser::indexRootEntries(const ResidentAttributeHeader& attribute) {
    if (!attribute.isNamedI30())
        return {0, 0};
    const std::uint16_t valueOffset = attribute.valueOffset();
    const std::uint64_t value = attribute.offset() + valueOffset;
    // 32-bit unsigned arithmetic, as the format's fields are; a wrapped bound is
    // harmless because the entry walk ends at its first read outside the buffer.
    const std::uint32_t available = attribute.length() - valueOffset;
    const std::uint32_t totalSize = attribute.record().u32(value + IndexRoot::TOTAL_ENTRY_SIZE);
    const std::uint32_t length =
        (available < totalSize ? available : totalSize) - IndexRoot::HEADER_SIZE;
    return {value + IndexRoot::FIRST_ENTRY, length};
}

void FileRecordParser::processIndexRoot(FileRecord& record,
                                        const ResidentAttributeHeader& attribute) {
    const auto [first, length] = indexRootEntries(attribute);
    if (length == 0)
        return;
    kestrow::filerecord::walkIndexEntries(
        attribute.record(), first, length,
        [&record](unsigned long long index) { addIndexEntry(record, index); });
}

void FileRecordParser::addIndexEntry(FileRecord& record, unsigned long long index) {
    if (!record.m_indexEntries.contains(index))
        record.m_indexEntries.append(index);
}
