// The NTFS on-disk structures a FileRecord reads, as named layouts over a
// byte block, with little-endian reads that never leave the block.
//
// Records and index blocks are read exactly as they lie on disk: the update
// sequence fix-ups are not applied, so a field that covers the last two bytes
// of a sector reads the update sequence number there.
//
// How a walk over these bytes ends where its data does (the one rule every
// guard of the record parser follows):
//
//   A walk yields exactly what the walk as designed yields, up to the first
//   read that would leave the bytes it walks, and stops at that read, not one
//   step earlier. A field that lies inside the bytes is read and used even
//   when the structure it belongs to (an attribute whose length reads huge
//   because the update sequence number sits in it, an index entry whose key
//   runs past the buffer) does not fit; whatever the walk did before the
//   stopping read stays done.
//
// It holds by construction: every field is read through ByteBlock's reads,
// each of which checks its own bytes and raises OutsideTheBlock for the first
// one outside. Each walk catches that where the walk itself ends: a record's
// attribute walk, one $ATTRIBUTE_LIST's entries, one run of index entries,
// the sector starts of one index allocation buffer. The walk caught stops
// there, and the walk around it goes on as it does after that walk's own end.
// A walk that would never end (an attribute of length 0 is walked again and
// again) is cut where it would start over.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kestrow::ntfs {

// Raised by ByteBlock's reads for the first read outside the block; caught
// where the walk that made the read ends (see above).
struct OutsideTheBlock {};

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

    // Raises OutsideTheBlock unless [offset, offset + length) lies inside.
    void require(std::uint64_t offset, std::uint64_t length) const {
        if (!has(offset, length)) [[unlikely]]
            outside();
    }

    // Little-endian reads; each raises OutsideTheBlock when its bytes do not
    // all lie inside the block.
    std::uint8_t u8(std::uint64_t offset) const {
        require(offset, 1);
        return m_data[offset];
    }
    std::uint16_t u16(std::uint64_t offset) const {
        require(offset, 2);
        const unsigned char* p = m_data + offset;
        return static_cast<std::uint16_t>(p[0] | (p[1] << 8));
    }
    std::uint32_t u32(std::uint64_t offset) const {
        require(offset, 4);
        const unsigned char* p = m_data + offset;
        return std::uint32_t(p[0]) | (std::uint32_t(p[1]) << 8) | (std::uint32_t(p[2]) << 16) |
               (std::uint32_t(p[3]) << 24);
    }
    std::uint64_t u64(std::uint64_t offset) const {
        require(offset, 8);
        const unsigned char* p = m_data + offset;
        std::uint64_t value = 0;
        for (int i = 7; i >= 0; --i)
            value = (value << 8) | p[i];
        return value;
    }

    bool bytesEqual(std::uint64_t offset, const char* expected, std::size_t length) const {
        require(offset, length);
        return std::memcmp(m_data + offset, expected, length) == 0;
    }

private:
    [[noreturn, gnu::cold, gnu::noinline]] static void outside() { throw OutsideTheBlock{}; }

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
} // namespace AttributeHeader

namespace ResidentHeader {
constexpr std::uint64_t VALUE_LENGTH = 0x10; // u32
constexpr std::uint64_t VALUE_OFFSET = 0x14; // u16
} // namespace ResidentHeader

namespace NonResidentHeader {
constexpr std::uint64_t RUN_LIST_OFFSET = 0x20; // u16
constexpr std::uint64_t ALLOCATED_SIZE = 0x28;  // u64
constexpr std::uint64_t REAL_SIZE = 0x30;       // u64
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
constexpr std::uint32_t NODE_HEADER_SIZE = 24;
} // namespace IndexBlock

} // namespace kestrow::ntfs

// The header of one attribute of a record, laid over the record's bytes. Its
// fields are read in place, each where the parser reads it, through the
// record's checked reads: a field outside the record raises OutsideTheBlock,
// whatever the attribute's length says.
class AttributeView {
public:
    AttributeView(const kestrow::ntfs::ByteBlock& record, std::uint64_t offset) noexcept
        : m_record(record), m_offset(offset) {}

    const kestrow::ntfs::ByteBlock& record() const noexcept { return m_record; }
    std::uint64_t offset() const noexcept { return m_offset; }
    const unsigned char* start() const noexcept { return m_record.data() + m_offset; }

    std::uint32_t typeCode() const { return u32(kestrow::ntfs::AttributeHeader::TYPE_CODE); }
    std::uint32_t length() const { return u32(kestrow::ntfs::AttributeHeader::LENGTH); }
    std::uint8_t nameLength() const { return u8(kestrow::ntfs::AttributeHeader::NAME_LENGTH); }
    std::uint16_t nameOffset() const { return u16(kestrow::ntfs::AttributeHeader::NAME_OFFSET); }

    // True when the attribute's name is the index name "$I30". The whole name
    // is read, as any name is, before it is compared.
    bool isNamedI30() const;

    // Field reads at offsets from the attribute's start; they may lie beyond
    // the attribute (the parser reads some fields at fixed places) and are
    // checked against the record buffer.
    bool has(std::uint64_t offset, std::uint64_t width) const noexcept {
        return m_record.has(m_offset + offset, width);
    }
    void require(std::uint64_t offset, std::uint64_t width) const {
        m_record.require(m_offset + offset, width);
    }
    std::uint8_t u8(std::uint64_t offset) const { return m_record.u8(m_offset + offset); }
    std::uint16_t u16(std::uint64_t offset) const { return m_record.u16(m_offset + offset); }
    std::uint32_t u32(std::uint64_t offset) const { return m_record.u32(m_offset + offset); }
    std::uint64_t u64(std::uint64_t offset) const { return m_record.u64(m_offset + offset); }

private:
    kestrow::ntfs::ByteBlock m_record;
    std::uint64_t m_offset;
};

class ResidentAttributeHeader : public AttributeView {
public:
    using AttributeView::AttributeView;
    std::uint32_t valueLength() const { return u32(kestrow::ntfs::ResidentHeader::VALUE_LENGTH); }
    std::uint16_t valueOffset() const { return u16(kestrow::ntfs::ResidentHeader::VALUE_OFFSET); }
};

class NonResidentAttributeHeader : public AttributeView {
public:
    using AttributeView::AttributeView;
    std::uint16_t runListOffset() const {
        return u16(kestrow::ntfs::NonResidentHeader::RUN_LIST_OFFSET);
    }
    std::uint64_t allocatedSize() const {
        return u64(kestrow::ntfs::NonResidentHeader::ALLOCATED_SIZE);
    }
    std::uint64_t realSize() const { return u64(kestrow::ntfs::NonResidentHeader::REAL_SIZE); }
};
