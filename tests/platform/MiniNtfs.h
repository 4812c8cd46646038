// Builds small NTFS volumes byte by byte, for tests of the backend's reader
// on structures that real tools rarely produce (an $MFT whose later runs sit
// in an extension record) or that are damaged on purpose.
#pragma once

#include "Ntfs.h"

#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace kestrow::test::mini {

// Little-endian stores; a test that writes outside its buffer throws.
inline void put16(std::vector<std::uint8_t>& b, std::size_t at, std::uint16_t v) {
    for (std::size_t i = 0; i < 2; ++i)
        b.at(at + i) = static_cast<std::uint8_t>(v >> (8 * i));
}
inline void put32(std::vector<std::uint8_t>& b, std::size_t at, std::uint32_t v) {
    for (std::size_t i = 0; i < 4; ++i)
        b.at(at + i) = static_cast<std::uint8_t>(v >> (8 * i));
}
inline void put64(std::vector<std::uint8_t>& b, std::size_t at, std::uint64_t v) {
    for (std::size_t i = 0; i < 8; ++i)
        b.at(at + i) = static_cast<std::uint8_t>(v >> (8 * i));
}

inline std::vector<std::uint8_t> utf16(const std::u16string& text) {
    std::vector<std::uint8_t> bytes;
    for (char16_t c : text) {
        bytes.push_back(static_cast<std::uint8_t>(c));
        bytes.push_back(static_cast<std::uint8_t>(c >> 8));
    }
    return bytes;
}

// Stores the update sequence array: sequence number `usn` at the end of
// every 512-byte stride, the bytes it replaced in the array at 0x30.
inline void protect(std::vector<std::uint8_t>& block, std::uint16_t usn = 0x0101) {
    const std::size_t strides = block.size() / 512;
    put16(block, 0x04, 0x30);
    put16(block, 0x06, static_cast<std::uint16_t>(strides + 1));
    put16(block, 0x30, usn);
    for (std::size_t i = 1; i <= strides; ++i) {
        const std::size_t last = i * 512 - 2;
        block[0x30 + 2 * i] = block[last];
        block[0x30 + 2 * i + 1] = block[last + 1];
        put16(block, last, usn);
    }
}

// One FILE record under construction.
class Record {
public:
    explicit Record(std::size_t size = 1024, std::uint16_t flags = 1, std::uint64_t base = 0)
        : m_bytes(size, 0) {
        std::memcpy(m_bytes.data(), "FILE", 4);
        put16(m_bytes, 0x10, 1);     // sequence number
        put16(m_bytes, 0x12, 1);     // link count
        put16(m_bytes, 0x14, 0x38);  // first attribute
        put16(m_bytes, 0x16, flags); // 1 in use, 2 directory
        put32(m_bytes, 0x1C, static_cast<std::uint32_t>(size));
        put64(m_bytes, 0x20, base);
        m_end = 0x38;
    }

    Record& resident(std::uint32_t type, const std::vector<std::uint8_t>& value,
                     const std::u16string& name = u"") {
        const std::size_t nameBytes = name.size() * 2;
        const std::size_t valueOffset = align(0x18 + nameBytes);
        const std::size_t length = align(valueOffset + value.size());
        std::vector<std::uint8_t> a(length, 0);
        put32(a, 0, type);
        put32(a, 4, static_cast<std::uint32_t>(length));
        a[9] = static_cast<std::uint8_t>(name.size());
        put16(a, 0x0A, 0x18);
        put32(a, 0x10, static_cast<std::uint32_t>(value.size()));
        put16(a, 0x14, static_cast<std::uint16_t>(valueOffset));
        const auto nameData = utf16(name);
        std::copy(nameData.begin(), nameData.end(), a.begin() + 0x18);
        std::copy(value.begin(), value.end(), a.begin() + valueOffset);
        return append(a);
    }

    Record& nonResident(std::uint32_t type, std::uint64_t lowestVcn, std::uint64_t highestVcn,
                        const std::vector<std::uint8_t>& runList, std::uint64_t allocated,
                        std::uint64_t dataSize, const std::u16string& name = u"",
                        std::uint16_t flags = 0) {
        const std::size_t nameBytes = name.size() * 2;
        const std::size_t runsOffset = align(0x40 + nameBytes);
        const std::size_t length = align(runsOffset + runList.size() + 1);
        std::vector<std::uint8_t> a(length, 0);
        put32(a, 0, type);
        put32(a, 4, static_cast<std::uint32_t>(length));
        a[8] = 1;
        a[9] = static_cast<std::uint8_t>(name.size());
        put16(a, 0x0A, 0x40);
        put16(a, 0x0C, flags);
        put64(a, 0x10, lowestVcn);
        put64(a, 0x18, highestVcn);
        put16(a, 0x20, static_cast<std::uint16_t>(runsOffset));
        put64(a, 0x28, allocated);
        put64(a, 0x30, dataSize);
        put64(a, 0x38, dataSize);
        const auto nameData = utf16(name);
        std::copy(nameData.begin(), nameData.end(), a.begin() + 0x40);
        std::copy(runList.begin(), runList.end(), a.begin() + runsOffset);
        return append(a);
    }

    // The record with its end marker and update sequence applied.
    std::vector<std::uint8_t> bytes() const {
        std::vector<std::uint8_t> out = m_bytes;
        put32(out, m_end, 0xFFFFFFFF);
        put32(out, 0x18, static_cast<std::uint32_t>(m_end + 8));
        protect(out);
        return out;
    }

private:
    static std::size_t align(std::size_t n) { return (n + 7) & ~std::size_t{7}; }
    Record& append(const std::vector<std::uint8_t>& attribute) {
        std::copy(attribute.begin(), attribute.end(), m_bytes.begin() + m_end);
        m_end += attribute.size();
        return *this;
    }

    std::vector<std::uint8_t> m_bytes;
    std::size_t m_end;
};

// A $FILE_NAME value naming `name` in directory `parent`.
inline std::vector<std::uint8_t> fileName(std::uint64_t parent, const std::u16string& name,
                                          std::uint32_t flags = 0) {
    std::vector<std::uint8_t> v(0x42, 0);
    put64(v, 0, parent | (std::uint64_t{1} << 48));
    put32(v, 0x38, flags);
    v[0x40] = static_cast<std::uint8_t>(name.size());
    v[0x41] = 1; // Win32 namespace
    const auto data = utf16(name);
    v.insert(v.end(), data.begin(), data.end());
    return v;
}

// Index entries (file reference, $FILE_NAME key), ending with the last-entry mark.
inline std::vector<std::uint8_t>
indexEntries(const std::vector<std::pair<std::uint64_t, std::vector<std::uint8_t>>>& entries) {
    std::vector<std::uint8_t> out;
    for (const auto& [reference, key] : entries) {
        const std::size_t length = (0x10 + key.size() + 7) & ~std::size_t{7};
        std::vector<std::uint8_t> e(length, 0);
        put64(e, 0, reference | (std::uint64_t{1} << 48));
        put16(e, 8, static_cast<std::uint16_t>(length));
        put16(e, 10, static_cast<std::uint16_t>(key.size()));
        std::copy(key.begin(), key.end(), e.begin() + 0x10);
        out.insert(out.end(), e.begin(), e.end());
    }
    std::vector<std::uint8_t> last(0x10, 0);
    put16(last, 8, 0x10);
    put16(last, 12, 2);
    out.insert(out.end(), last.begin(), last.end());
    return out;
}

// An $INDEX_ROOT value over $FILE_NAME holding `entries`.
inline std::vector<std::uint8_t> indexRoot(const std::vector<std::uint8_t>& entries,
                                           std::uint32_t blockSize = 1024, bool large = false) {
    std::vector<std::uint8_t> v(0x20 + entries.size(), 0);
    put32(v, 0, 0x30);
    put32(v, 4, 1);
    put32(v, 8, blockSize);
    v[0x0C] = 1;
    put32(v, 0x10, 0x10);
    put32(v, 0x14, static_cast<std::uint32_t>(0x10 + entries.size()));
    put32(v, 0x18, static_cast<std::uint32_t>(0x10 + entries.size()));
    v[0x1C] = large ? 1 : 0;
    std::copy(entries.begin(), entries.end(), v.begin() + 0x20);
    return v;
}

// An INDX block of `size` bytes holding `entries`, update sequence applied.
inline std::vector<std::uint8_t> indexBlock(const std::vector<std::uint8_t>& entries,
                                            std::size_t size = 1024) {
    std::vector<std::uint8_t> b(size, 0);
    std::memcpy(b.data(), "INDX", 4);
    put32(b, 0x18, 0x28);
    put32(b, 0x1C, static_cast<std::uint32_t>(0x28 + entries.size()));
    put32(b, 0x20, static_cast<std::uint32_t>(size - 0x18));
    std::copy(entries.begin(), entries.end(), b.begin() + 0x40);
    protect(b);
    return b;
}

// An NTFS boot sector: 512-byte sectors, 1 sector per cluster, 1 KiB records.
inline std::vector<std::uint8_t> bootSector(std::uint64_t totalSectors, std::uint64_t mftLcn,
                                            std::uint64_t serial = 0x1122334455667788ull) {
    std::vector<std::uint8_t> b(512, 0);
    b[0] = 0xEB;
    b[1] = 0x52;
    b[2] = 0x90;
    std::memcpy(b.data() + 3, "NTFS    ", 8);
    put16(b, 0x0B, 512);
    b[0x0D] = 1;
    put64(b, 0x28, totalSectors);
    put64(b, 0x30, mftLcn);
    put64(b, 0x38, totalSectors / 2);
    b[0x40] = 0xF6; // 2^10 bytes per record
    b[0x44] = 0xF6; // 2^10 bytes per index block
    put64(b, 0x48, serial);
    put16(b, 0x1FE, 0xAA55);
    return b;
}

inline void place(std::vector<std::uint8_t>& image, std::size_t at,
                  const std::vector<std::uint8_t>& bytes) {
    std::copy(bytes.begin(), bytes.end(), image.begin() + static_cast<std::ptrdiff_t>(at));
}

// A 128 KiB volume (serial 0x1122334455667788, label "MINI", 244 free
// clusters in its $Bitmap): 512-byte clusters, 1 KiB records. The $MFT has two runs,
// records 0-15 at LCN 16 and records 16-31 at LCN 100; record 0 holds only
// the first, the second is in extension record 15 named by record 0's
// $ATTRIBUTE_LIST. The root (5) holds hello.txt (20) and Sub (21); Sub keeps
// deep.bin (22) in an INDX block at LCN 200.
// assemble() gives the image with the records (as changed by a test) in place.
struct MiniVolumeImage {
    static constexpr std::uint64_t kSectors = 256;
    static constexpr std::uint32_t kAttributeList = 0x20;

    static std::size_t recordOffset(std::uint64_t record) {
        return record < 16 ? (16 + record * 2) * 512 : (100 + (record - 16) * 2) * 512;
    }

    MiniVolumeImage() {
        namespace attr = kestrow::platform::disk::attr;
        image.assign(kSectors * 512, 0);
        place(image, 0, bootSector(kSectors, 16));

        std::vector<std::uint8_t> list;
        auto listEntry = [&](std::uint32_t type, std::uint64_t vcn, std::uint64_t record) {
            std::vector<std::uint8_t> e(0x20, 0);
            put32(e, 0, type);
            put16(e, 4, 0x20);
            e[7] = 0x1A;
            put64(e, 8, vcn);
            put64(e, 0x10, record | (std::uint64_t{1} << 48));
            list.insert(list.end(), e.begin(), e.end());
        };
        listEntry(attr::kStandardInformation, 0, 0);
        listEntry(attr::kData, 0, 0);
        listEntry(attr::kData, 32, 15);
        records[0] = Record()
                         .resident(attr::kStandardInformation, std::vector<std::uint8_t>(0x48, 0))
                         .resident(attr::kAttributeList, list)
                         .nonResident(attr::kData, 0, 31, {0x11, 0x20, 0x10}, 64 * 512, 64 * 512)
                         .bytes();
        records[15] =
            Record(1024, 1, 0).nonResident(attr::kData, 32, 63, {0x11, 0x20, 0x64}, 0, 0).bytes();
        records[3] = Record().resident(attr::kVolumeName, utf16(u"MINI")).bytes();
        // $Bitmap: 256 clusters, the first 12 in use, one cluster at LCN 240.
        records[6] =
            Record().nonResident(attr::kData, 0, 0, {0x21, 0x01, 0xF0, 0x00}, 512, 32).bytes();
        image[240 * 512] = 0xFF;
        image[240 * 512 + 1] = 0x0F;

        records[5] = Record(1024, 3)
                         .resident(attr::kIndexRoot,
                                   indexRoot(indexEntries({{20, fileName(5, u"hello.txt")},
                                                           {21, fileName(5, u"Sub", 0x10000000)},
                                                           {23, fileName(5, u"packed.bin")}})),
                                   u"$I30")
                         .bytes();
        std::vector<std::uint8_t> info(0x48, 0);
        put32(info, 0x20, 0x20); // archive
        records[20] = Record()
                          .resident(attr::kStandardInformation, info)
                          .resident(attr::kFileName, fileName(5, u"hello.txt"))
                          .resident(attr::kData, {'h', 'i', ' ', 't', 'h', 'e', 'r', 'e'})
                          .bytes();
        records[21] =
            Record(1024, 3)
                .resident(attr::kIndexRoot, indexRoot(indexEntries({}), 1024, true), u"$I30")
                .nonResident(attr::kIndexAllocation, 0, 1, {0x21, 0x02, 0xC8, 0x00}, 1024, 1024,
                             u"$I30")
                .resident(attr::kBitmap, {0x01}, u"$I30")
                .bytes();
        place(image, 200 * 512, indexBlock(indexEntries({{22, fileName(21, u"deep.bin")}})));
        records[22] = Record()
                          .nonResident(attr::kData, 0, 5,
                                       {0x21, 0x03, 0x96, 0x00, 0x01, 0x02, 0x11, 0x01, 0x0A},
                                       6 * 512, 6 * 512)
                          .bytes();
        // packed.bin: a compressed stream of 16 clusters, 4 stored at LCN 170.
        records[23] = Record()
                          .nonResident(attr::kData, 0, 15, {0x21, 0x04, 0xAA, 0x00, 0x01, 0x0C},
                                       16 * 512, 16 * 512, u"", 0x0001)
                          .bytes();
    }

    std::vector<std::uint8_t> assemble() const {
        std::vector<std::uint8_t> out = image;
        for (const auto& [number, bytes] : records)
            place(out, recordOffset(number), bytes);
        return out;
    }

    std::vector<std::uint8_t> image;
    std::map<std::uint64_t, std::vector<std::uint8_t>> records;
};

} // namespace kestrow::test::mini
