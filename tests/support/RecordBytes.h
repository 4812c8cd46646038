// Hand-built FILE records and INDX blocks: the cases a real volume cannot be
// made to show (short-name orders, self-referencing attribute lists, bad run
// lists, lengths that run off the record), and the records of a scripted MFT.
#pragma once

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace kestrow::test {

using Bytes = std::vector<std::uint8_t>;

inline void putLe(Bytes& bytes, std::size_t offset, std::uint64_t value, unsigned width) {
    if (bytes.size() < offset + width)
        bytes.resize(offset + width, 0);
    for (unsigned i = 0; i < width; ++i)
        bytes[offset + i] = static_cast<std::uint8_t>(value >> (8 * i));
}

inline std::uint64_t reference(std::uint64_t index, std::uint16_t sequence) {
    return (index & 0xFFFFFFFFFFFFULL) | (std::uint64_t(sequence) << 48);
}

struct FileNameValue {
    std::u16string name;
    std::uint64_t parent = reference(5, 5);
    std::uint64_t creation = 0x01D0000000000001ULL;
    std::uint64_t modification = 0x01D0000000000002ULL;
    std::uint64_t change = 0x01D0000000000003ULL;
    std::uint64_t access = 0x01D0000000000004ULL;
    std::uint32_t flags = 0x20;
    std::uint8_t nameSpace = 1;
};

// The header common to both forms, of `headerSize` bytes, and the name right
// after it, padded to 8: the value or run list starts where these bytes end.
inline Bytes attributeHeader(std::uint32_t type, bool nonResident, std::size_t headerSize,
                             const std::u16string& name) {
    Bytes a((headerSize + 2 * name.size() + 7) & ~std::size_t(7), 0);
    putLe(a, 0x00, type, 4);
    putLe(a, 0x08, nonResident ? 1 : 0, 1);
    putLe(a, 0x09, name.size(), 1);
    if (!name.empty())
        putLe(a, 0x0A, headerSize, 2);
    for (std::size_t i = 0; i < name.size(); ++i)
        putLe(a, headerSize + 2 * i, name[i], 2);
    return a;
}

// The attribute ended: its content after the header, padded to 8, and its
// length written.
inline Bytes withContent(Bytes a, const Bytes& content) {
    a.insert(a.end(), content.begin(), content.end());
    a.resize((a.size() + 7) & ~std::size_t(7), 0);
    putLe(a, 0x04, a.size(), 4);
    return a;
}

// One attribute's bytes, header included.
inline Bytes residentAttribute(std::uint32_t type, const Bytes& value,
                               const std::u16string& name = u"") {
    Bytes a = attributeHeader(type, false, 0x18, name);
    putLe(a, 0x10, value.size(), 4);
    putLe(a, 0x14, a.size(), 2);
    return withContent(std::move(a), value);
}

inline Bytes fileNameAttribute(const FileNameValue& v) {
    Bytes value(0x42, 0);
    putLe(value, 0x00, v.parent, 8);
    putLe(value, 0x08, v.creation, 8);
    putLe(value, 0x10, v.modification, 8);
    putLe(value, 0x18, v.change, 8);
    putLe(value, 0x20, v.access, 8);
    putLe(value, 0x38, v.flags, 4);
    putLe(value, 0x40, v.name.size(), 1);
    putLe(value, 0x41, v.nameSpace, 1);
    for (std::size_t i = 0; i < v.name.size(); ++i)
        putLe(value, 0x42 + 2 * i, v.name[i], 2);
    return residentAttribute(0x30, value);
}

inline Bytes nonResidentAttribute(std::uint32_t type, const Bytes& runs, std::uint64_t allocated,
                                  std::uint64_t real, const std::u16string& name = u"") {
    Bytes a = attributeHeader(type, true, 0x40, name);
    putLe(a, 0x18, allocated / 4096 == 0 ? 0 : allocated / 4096 - 1, 8);
    putLe(a, 0x20, a.size(), 2);
    putLe(a, 0x28, allocated, 8);
    putLe(a, 0x30, real, 8);
    putLe(a, 0x38, real, 8);
    return withContent(std::move(a), runs);
}

inline Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

// An $ATTRIBUTE_LIST entry: unnamed $DATA held in record `holder`.
inline Bytes attributeListEntry(std::uint64_t holder, std::uint16_t length = 0x20) {
    Bytes e(length, 0);
    putLe(e, 0x00, 0x80, 4);
    putLe(e, 0x04, length, 2);
    putLe(e, 0x10, holder, 8);
    return e;
}

// One index entry naming `child`, `length` bytes long (82 and more carry a
// key; the last entry of a node is 16 bytes with flag 2).
inline Bytes indexEntry(std::uint64_t child, std::uint16_t length = 0x68) {
    Bytes e(length, 0);
    putLe(e, 0x00, child, 8);
    putLe(e, 0x08, length, 2);
    putLe(e, 0x0A, length >= 82 ? length - 16 : 0, 2);
    return e;
}

inline Bytes lastIndexEntry() {
    Bytes e(16, 0);
    putLe(e, 0x08, 16, 2);
    putLe(e, 0x0C, 2, 4);
    return e;
}

// An $INDEX_ROOT value named "$I30" over the given entries.
inline Bytes indexRootValue(const std::vector<Bytes>& entries) {
    Bytes value(0x20, 0);
    putLe(value, 0x00, 0x30, 4); // indexed attribute: $FILE_NAME
    putLe(value, 0x04, 1, 4);    // collation
    putLe(value, 0x08, 4096, 4); // index block size
    putLe(value, 0x0C, 1, 1);    // clusters per block
    putLe(value, 0x10, 0x10, 4); // entries offset (from 0x10)
    for (const auto& e : entries)
        value.insert(value.end(), e.begin(), e.end());
    putLe(value, 0x14, value.size() - 0x10, 4); // total size of entries, from 0x10
    putLe(value, 0x18, value.size() - 0x10, 4); // allocated size
    return value;
}

// An INDX block of `size` bytes holding the entries.
inline Bytes indexBlock(const std::vector<Bytes>& entries, std::size_t size = 4096) {
    Bytes block(size, 0);
    std::memcpy(block.data(), "INDX", 4);
    putLe(block, 0x04, 0x28, 2);
    putLe(block, 0x06, size / 512 + 1, 2);
    const std::size_t first = 0x40; // from 0x18: entries at 0x58
    putLe(block, 0x18, first, 4);
    std::size_t at = 0x18 + first;
    for (const auto& e : entries) {
        std::memcpy(block.data() + at, e.data(), e.size());
        at += e.size();
    }
    putLe(block, 0x1C, at - 0x18, 4);
    putLe(block, 0x20, size - 0x18, 4);
    return block;
}

// A FILE record of `size` bytes with the attributes appended from 0x38,
// the end marker after them and the header's figures filled in.
class RecordBuilder {
public:
    explicit RecordBuilder(std::uint32_t size = 1024) : m_size(size) {}

    RecordBuilder& add(const Bytes& attribute) {
        m_attributes.push_back(attribute);
        return *this;
    }
    RecordBuilder& inUse(bool value) {
        m_inUse = value;
        return *this;
    }
    RecordBuilder& directory(bool value) {
        m_directory = value;
        return *this;
    }
    RecordBuilder& signature(const char* text) {
        m_signature = text;
        return *this;
    }
    // No end marker after the last attribute.
    RecordBuilder& withoutEndMarker() {
        m_endMarker = false;
        return *this;
    }

    // Offset of attribute i in the built record.
    std::size_t offsetOf(std::size_t i) const {
        std::size_t at = FIRST_ATTRIBUTE;
        for (std::size_t k = 0; k < i; ++k)
            at += m_attributes[k].size();
        return at;
    }

    Bytes build() const {
        Bytes r(m_size, 0);
        std::memcpy(r.data(), m_signature.data(), 4);
        putLe(r, 0x04, 0x30, 2);
        putLe(r, 0x06, m_size / 512 + 1, 2);
        putLe(r, 0x10, 1, 2);
        putLe(r, 0x12, 1, 2);
        putLe(r, 0x14, FIRST_ATTRIBUTE, 2);
        putLe(r, 0x16, (m_inUse ? 1 : 0) | (m_directory ? 2 : 0), 2);
        std::size_t at = FIRST_ATTRIBUTE;
        for (const auto& a : m_attributes) {
            std::memcpy(r.data() + at, a.data(), a.size());
            at += a.size();
        }
        if (m_endMarker) {
            putLe(r, at, 0xFFFFFFFF, 4);
            at += 8;
        }
        putLe(r, 0x18, at, 4);
        putLe(r, 0x1C, m_size, 4);
        r.resize(m_size);
        return r;
    }

    static constexpr std::size_t FIRST_ATTRIBUTE = 0x38;

private:
    std::uint32_t m_size;
    std::vector<Bytes> m_attributes;
    bool m_inUse = true;
    bool m_directory = false;
    bool m_endMarker = true;
    std::string m_signature = "FILE";
};

} // namespace kestrow::test
