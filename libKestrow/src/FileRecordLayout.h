// The NTFS on-disk structures a FileRecord reads, as named layouts over a
// byte block, with little-endian reads that never leave the block.
//
// Records and index blocks are read exactly as they lie on disk: the update
// sequence fix-ups are not applied, so a field that covers the last two bytes
// of a sector reads the update sequence number there.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kestrow::ntfs {

// A block of bytes (a FILE record buffer, a run of index blocks) with
// bounds-checked little-endian reads. Offsets are 64-bit so that sums of
// on-disk offsets and lengths cannot wrap before they are compared.
class ByteBlock {
public:
    constexpr ByteBlock() noexcept = default;
    constexpr ByteBlock(const unsigned char* data, std::uint64_t size) noexcept
        : m_data(data), m_size(data != nullptr ? size : 0) {}

    const unsigned char* data() const noexcept { return m_data; }
    std::uint64_t size() const noexcept { return m_size; }

    // True when [offset, offset + length) lies inside the block.
    bool has(std::uint64_t offset, std::uint64_t length) const noexcept {
        return offset <= m_size && length <= m_size - offset;
    }

    // The reads below expect has(offset, width) to hold; callers check the
    // extent of the structure they read once, then read its fields.
    std::uint8_t u8(std::uint64_t offset) const noexcept { return m_data[offset]; }
    std::uint16_t u16(std::uint64_t offset) const noexcept {
        const unsigned char* p = m_data + offset;
        return static_cast<std::uint16_t>(p[0] | (p[1] << 8));
    }
    std::uint32_t u32(std::uint64_t offset) const noexcept {
        const unsigned char* p = m_data + offset;
        return std::uint32_t(p[0]) | (std::uint32_t(p[1]) << 8) | (std::uint32_t(p[2]) << 16) |
               (std::uint32_t(p[3]) << 24);
    }
    std::uint64_t u64(std::uint64_t offset) const noexcept {
        return std::uint64_t(u32(offset)) | (std::uint64_t(u32(offset + 4)) << 32);
    }

    bool bytesEqual(std::uint64_t offset, const char* expected, std::size_t length) const noexcept {
        return has(offset, length) && std::memcmp(m_data + offset, expected, length) == 0;
    }

private:
    const unsigned char* m_data = nullptr;
    std::uint64_t m_size = 0;
};

// Record numbers are the low 48 bits of a file reference.
constexpr std::uint64_t RECORD_INDEX_MASK = 0xFFFFFFFFFFFFULL;
// Sizes are kept to 44 bits.
constexpr std::uint64_t SIZE_MASK_44 = 0xFFFFFFFFFFFULL;

// FILE record header; offsets from the start of the record.
namespace FileRecordHeader {
constexpr char SIGNATURE[4] = {'F', 'I', 'L', 'E'};
constexpr std::uint64_t SIGNATURE_OFFSET = 0x00;
constexpr std::uint64_t FIRST_ATTRIBUTE_OFFSET = 0x14; // u16
constexpr std::uint64_t FLAGS = 0x16;                  // u16
constexpr std::uint64_t BYTES_IN_USE = 0x18;           // u32
constexpr std::uint64_t BYTES_ALLOCATED = 0x1C;        // u32
constexpr std::uint64_t SIZE = 0x30;                   // the part taken as the header
constexpr std::uint16_t FLAG_IN_USE = 0x0001;
} // namespace FileRecordHeader

// Attribute header common to both forms; offsets from the attribute's start.
namespace AttributeHeader {
constexpr std::uint32_t END_MARKER = 0xFFFFFFFF;
constexpr std::uint64_t TYPE_CODE = 0x00;    // u32
constexpr std::uint64_t LENGTH = 0x04;       // u32
constexpr std::uint64_t NON_RESIDENT = 0x08; // u8
constexpr std::uint64_t NAME_LENGTH = 0x09;  // u8, UTF-16 units
constexpr std::uint64_t NAME_OFFSET = 0x0A;  // u16
constexpr std::uint64_t COMMON_SIZE = 0x10;
} // namespace AttributeHeader

namespace ResidentHeader {
constexpr std::uint64_t VALUE_LENGTH = 0x10; // u32
constexpr std::uint64_t VALUE_OFFSET = 0x14; // u16
constexpr std::uint64_t SIZE = 0x18;
} // namespace ResidentHeader

namespace NonResidentHeader {
constexpr std::uint64_t RUN_LIST_OFFSET = 0x20; // u16
constexpr std::uint64_t ALLOCATED_SIZE = 0x28;  // u64
constexpr std::uint64_t REAL_SIZE = 0x30;       // u64
constexpr std::uint64_t SIZE = 0x40;
} // namespace NonResidentHeader

// Attribute type codes.
namespace AttributeType {
constexpr std::uint32_t STANDARD_INFORMATION = 0x10;
constexpr std::uint32_t ATTRIBUTE_LIST = 0x20;
constexpr std::uint32_t FILE_NAME = 0x30;
constexpr std::uint32_t OBJECT_ID = 0x40;
constexpr std::uint32_t SECURITY_DESCRIPTOR = 0x50;
constexpr std::uint32_t VOLUME_NAME = 0x60;
constexpr std::uint32_t VOLUME_INFORMATION = 0x70;
constexpr std::uint32_t DATA = 0x80;
constexpr std::uint32_t INDEX_ROOT = 0x90;
constexpr std::uint32_t INDEX_ALLOCATION = 0xA0;
constexpr std::uint32_t BITMAP = 0xB0;
constexpr std::uint32_t REPARSE_POINT = 0xC0;
constexpr std::uint32_t EA_INFORMATION = 0xD0;
constexpr std::uint32_t EA = 0xE0;
constexpr std::uint32_t LOGGED_UTILITY_STREAM = 0x100;
} // namespace AttributeType

// $FILE_NAME as the parser reads it: the value is taken to start at 0x18 of
// the attribute (where an unnamed resident value lies); offsets from the
// attribute's start.
namespace FileNameAttribute {
constexpr std::uint64_t PARENT_REFERENCE = 0x18; // u64
constexpr std::uint64_t CREATION_TIME = 0x20;    // u64
constexpr std::uint64_t MODIFICATION_TIME = 0x28;
constexpr std::uint64_t LAST_ACCESS_TIME = 0x38;
constexpr std::uint64_t FILE_ATTRIBUTES = 0x50; // u32
constexpr std::uint64_t NAME_LENGTH = 0x58;     // u8, UTF-16 units
constexpr std::uint64_t NAME = 0x5A;            // UTF-16 units
constexpr std::uint32_t DIRECTORY_FLAG = 0x10000000;
constexpr std::uint32_t FILE_ATTRIBUTE_DIRECTORY_FLAG = 0x10;
} // namespace FileNameAttribute

// One $ATTRIBUTE_LIST entry; offsets from the entry's start.
namespace AttributeListEntry {
constexpr std::uint64_t LENGTH = 0x04;    // u16
constexpr std::uint64_t REFERENCE = 0x10; // u64
// Where a resident list's entries begin (before the name-length skip) and
// where a non-resident list's walk begins.
constexpr std::uint64_t RESIDENT_FIRST_ENTRY = 0x18;
constexpr std::uint64_t NON_RESIDENT_FIRST_ENTRY = 0x40;
} // namespace AttributeListEntry

// $INDEX_ROOT value; offsets from the value's start.
namespace IndexRoot {
constexpr std::uint64_t TOTAL_ENTRY_SIZE = 0x14; // u32
constexpr std::uint64_t FIRST_ENTRY = 0x20;
constexpr std::uint32_t HEADER_SIZE = 32;
} // namespace IndexRoot

// One index entry; offsets from the entry's start.
namespace IndexEntry {
constexpr std::uint64_t REFERENCE = 0x00; // u64
constexpr std::uint64_t LENGTH = 0x08;    // u16
constexpr std::uint64_t HEADER_READ = 0x0A;
// The 16-byte entry header plus the 66-byte fixed part of a $FILE_NAME key:
// a shorter entry (the key-less last entry of a node) ends the walk.
constexpr std::uint16_t MIN_LENGTH = 82;
} // namespace IndexEntry

// INDX index block header; offsets from the block's start.
namespace IndexBlock {
constexpr char SIGNATURE[4] = {'I', 'N', 'D', 'X'};
constexpr std::uint64_t NODE_HEADER = 0x18;
constexpr std::uint64_t FIRST_ENTRY_OFFSET = 0x18; // u32, counted from NODE_HEADER
constexpr std::uint64_t ENTRIES_SIZE = 0x1C;       // u32, counted from NODE_HEADER
constexpr std::uint64_t HEADER_READ = 0x20;
constexpr std::uint32_t NODE_HEADER_SIZE = 24;
} // namespace IndexBlock

} // namespace kestrow::ntfs

// The header of one attribute of a record, laid over the record's bytes. It
// exists only for an attribute whose header form and whole length lie inside
// the record buffer; its fields are read in place.
class AttributeView {
public:
    AttributeView(const kestrow::ntfs::ByteBlock& record, std::uint64_t offset,
                  std::uint32_t length) noexcept
        : m_record(record), m_offset(offset), m_length(length) {}

    const kestrow::ntfs::ByteBlock& record() const noexcept { return m_record; }
    std::uint64_t offset() const noexcept { return m_offset; }
    const unsigned char* start() const noexcept { return m_record.data() + m_offset; }
    std::uint32_t length() const noexcept { return m_length; }

    std::uint32_t typeCode() const noexcept {
        return m_record.u32(m_offset + kestrow::ntfs::AttributeHeader::TYPE_CODE);
    }
    std::uint8_t nameLength() const noexcept {
        return m_record.u8(m_offset + kestrow::ntfs::AttributeHeader::NAME_LENGTH);
    }
    std::uint16_t nameOffset() const noexcept {
        return m_record.u16(m_offset + kestrow::ntfs::AttributeHeader::NAME_OFFSET);
    }

    // True when the attribute's name is the index name "$I30". A name that
    // does not lie inside the record is no name.
    bool isNamedI30() const noexcept;

    // Field reads at offsets from the attribute's start that may lie beyond
    // the attribute (the parser reads some fields at fixed places); they are
    // checked against the record buffer instead.
    bool has(std::uint64_t offset, std::uint64_t width) const noexcept {
        return m_record.has(m_offset + offset, width);
    }
    std::uint8_t u8(std::uint64_t offset) const noexcept { return m_record.u8(m_offset + offset); }
    std::uint16_t u16(std::uint64_t offset) const noexcept {
        return m_record.u16(m_offset + offset);
    }
    std::uint32_t u32(std::uint64_t offset) const noexcept {
        return m_record.u32(m_offset + offset);
    }
    std::uint64_t u64(std::uint64_t offset) const noexcept {
        return m_record.u64(m_offset + offset);
    }

private:
    kestrow::ntfs::ByteBlock m_record;
    std::uint64_t m_offset;
    std::uint32_t m_length;
};

class ResidentAttributeHeader : public AttributeView {
public:
    using AttributeView::AttributeView;
    std::uint32_t valueLength() const noexcept {
        return u32(kestrow::ntfs::ResidentHeader::VALUE_LENGTH);
    }
    std::uint16_t valueOffset() const noexcept {
        return u16(kestrow::ntfs::ResidentHeader::VALUE_OFFSET);
    }
};

class NonResidentAttributeHeader : public AttributeView {
public:
    using AttributeView::AttributeView;
    std::uint16_t runListOffset() const noexcept {
        return u16(kestrow::ntfs::NonResidentHeader::RUN_LIST_OFFSET);
    }
    std::uint64_t allocatedSize() const noexcept {
        return u64(kestrow::ntfs::NonResidentHeader::ALLOCATED_SIZE);
    }
    std::uint64_t realSize() const noexcept {
        return u64(kestrow::ntfs::NonResidentHeader::REAL_SIZE);
    }
};
