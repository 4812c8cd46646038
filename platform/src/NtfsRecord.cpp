#include "NtfsRecord.h"

#include <algorithm>
#include <cstdint>

namespace kestrow::platform::disk {

namespace {

std::uint64_t signExtended(std::uint64_t raw, unsigned bytes) {
    if (bytes == 0 || bytes >= 8)
        return raw;
    const std::uint64_t sign = std::uint64_t{1} << (bytes * 8 - 1);
    return (raw ^ sign) - sign;
}

} // namespace

std::u16string utf16At(const LeView& view, std::size_t offset, std::size_t units) {
    std::u16string text;
    if (view.has(offset, units * 2))
        assignUtf16(LeView(view.data() + offset, units * 2), text);
    return text;
}

void assignUtf16(const LeView& bytes, std::u16string& text) {
    // Every unit lies inside the view, so none needs a check of its own: a
    // timeline decodes a name or two for each of millions of records.
    const std::uint8_t* at = bytes.data();
    const std::size_t units = bytes.size() / 2;
    text.resize(units);
    for (std::size_t i = 0; i < units; ++i)
        text[i] = static_cast<char16_t>(at[2 * i] | (at[2 * i + 1] << 8));
}

bool readFileRecordHeader(const LeView& record, FileRecordHeader& header) {
    if (!record.bytesEqual(0, fileRecord::kMagic, 4) || !record.has(0, fileRecord::kBaseRecord + 8))
        return false;
    header.logSequenceNumber = record.u64(fileRecord::kLogSequenceNumber);
    header.sequence = record.u16(fileRecord::kSequenceNumber);
    header.linkCount = record.u16(fileRecord::kLinkCount);
    header.flags = record.u16(fileRecord::kFlags);
    header.bytesInUse = record.u32(fileRecord::kBytesInUse);
    header.bytesAllocated = record.u32(fileRecord::kBytesAllocated);
    header.baseRecord = record.u64(fileRecord::kBaseRecord);
    return true;
}

bool parseRecordAttributes(const std::vector<std::uint8_t>& record,
                           std::vector<AttributePiece>& pieces) {
    return parseRecordAttributes(record.data(), record.size(), pieces);
}

bool walkRecordAttributes(const std::uint8_t* record, std::size_t size, AttributeVisitor& visitor) {
    const LeView view(record, size);
    const std::size_t limit = std::min<std::size_t>(view.u32(fileRecord::kBytesInUse), view.size());
    std::size_t offset = view.u16(fileRecord::kFirstAttribute);
    // Each attribute takes at least 16 bytes, which bounds the walk.
    for (std::size_t guard = 0; guard < size / 16; ++guard) {
        if (!view.has(offset, 8) || offset + 8 > limit)
            return offset >= limit;
        const std::uint32_t type = view.u32(offset + attrHeader::kType);
        if (type == attr::kEnd)
            return true;
        const std::uint32_t length = view.u32(offset + attrHeader::kLength);
        if (length < attrHeader::kMinimumLength || length > limit - offset || (length % 8) != 0)
            return false;
        const LeView header = view.sub(offset, length);
        AttributeInPlace attribute;
        attribute.type = type;
        attribute.nonResident = header.u8(attrHeader::kNonResident) != 0;
        attribute.flags = header.u16(attrHeader::kFlags);
        attribute.id = header.u16(attrHeader::kId);
        const std::size_t nameOffset = header.u16(attrHeader::kNameOffset);
        const std::size_t nameBytes = std::size_t{header.u8(attrHeader::kNameLength)} * 2;
        if (header.has(nameOffset, nameBytes))
            attribute.name = LeView(header.data() + nameOffset, nameBytes);
        if (!attribute.nonResident) {
            const std::uint32_t valueLength = header.u32(attrHeader::kResidentValueLength);
            const std::uint16_t valueOffset = header.u16(attrHeader::kResidentValueOffset);
            if (header.has(valueOffset, valueLength) && valueLength <= kMaxResidentValue)
                attribute.value = LeView(header.data() + valueOffset, valueLength);
        } else if (length >= attrHeader::kMinimumNonResidentLength) {
            attribute.lowestVcn = header.u64(attrHeader::kLowestVcn);
            attribute.allocatedSize = header.u64(attrHeader::kAllocatedSize);
            attribute.dataSize = header.u64(attrHeader::kDataSize);
            attribute.initializedSize = header.u64(attrHeader::kInitializedSize);
            const std::uint16_t runsOffset = header.u16(attrHeader::kRunListOffset);
            if (runsOffset < length)
                attribute.runList = header.sub(runsOffset, length - runsOffset);
        } else {
            return false;
        }
        visitor.visit(attribute);
        offset += length;
    }
    return false;
}

namespace {

class PieceCollector final : public AttributeVisitor {
public:
    explicit PieceCollector(std::vector<AttributePiece>& pieces) : m_pieces(pieces) {}

    void visit(const AttributeInPlace& found) override {
        AttributePiece piece;
        NtfsAttribute& attribute = piece.attribute;
        attribute.type = found.type;
        attribute.nonResident = found.nonResident;
        attribute.flags = found.flags;
        attribute.id = found.id;
        assignUtf16(found.name, attribute.name);
        attribute.value.assign(found.value.data(), found.value.data() + found.value.size());
        if (found.nonResident) {
            piece.lowestVcn = found.lowestVcn;
            attribute.lowestVcn = found.lowestVcn;
            attribute.allocatedSize = found.allocatedSize;
            attribute.dataSize = found.dataSize;
            attribute.initializedSize = found.initializedSize;
            std::string ignored;
            // A damaged run list keeps the runs before the damage.
            decodeRunList(found.runList, piece.lowestVcn, attribute.runs, ignored);
        }
        m_pieces.push_back(std::move(piece));
    }

private:
    std::vector<AttributePiece>& m_pieces;
};

} // namespace

bool parseRecordAttributes(const std::uint8_t* record, std::size_t size,
                           std::vector<AttributePiece>& pieces) {
    PieceCollector collector(pieces);
    return walkRecordAttributes(record, size, collector);
}

std::vector<NtfsAttribute> mergePieces(std::vector<AttributePiece> pieces) {
    std::stable_sort(pieces.begin(), pieces.end(),
                     [](const AttributePiece& a, const AttributePiece& b) {
                         if (a.attribute.type != b.attribute.type)
                             return a.attribute.type < b.attribute.type;
                         if (a.attribute.name != b.attribute.name)
                             return a.attribute.name < b.attribute.name;
                         return a.lowestVcn < b.lowestVcn;
                     });
    std::vector<NtfsAttribute> merged;
    for (AttributePiece& piece : pieces) {
        NtfsAttribute& next = piece.attribute;
        if (next.nonResident && !merged.empty()) {
            NtfsAttribute& last = merged.back();
            if (last.nonResident && last.type == next.type && last.name == next.name) {
                // Only pieces that continue where the last one ended are
                // joined; an overlapping (duplicated) piece is dropped.
                const std::uint64_t end = last.runs.empty()
                                              ? last.lowestVcn
                                              : last.runs.back().vcn + last.runs.back().length;
                if (piece.lowestVcn >= end)
                    last.runs.insert(last.runs.end(), next.runs.begin(), next.runs.end());
                continue;
            }
        }
        merged.push_back(std::move(next));
    }
    return merged;
}

const NtfsAttribute* findAttribute(const std::vector<NtfsAttribute>& attributes, std::uint32_t type,
                                   const std::u16string& name) {
    for (const NtfsAttribute& attribute : attributes) {
        if (attribute.type == type && attribute.name == name)
            return &attribute;
    }
    return nullptr;
}

bool decodeRunList(const LeView& bytes, std::uint64_t startVcn, std::vector<DataRun>& runs,
                   std::string& error) {
    std::size_t position = 0;
    std::uint64_t vcn = startVcn;
    std::int64_t lcn = 0;
    // Each run takes at least two bytes, which bounds the walk.
    for (std::size_t guard = 0; guard <= bytes.size() / 2; ++guard) {
        if (!bytes.has(position, 1)) {
            error = "run list has no terminator";
            return false;
        }
        const std::uint8_t header = bytes.u8(position);
        if (header == 0)
            return true;
        const unsigned lengthBytes = header & 0x0F;
        const unsigned offsetBytes = header >> 4;
        if (lengthBytes == 0 || lengthBytes > 8 || offsetBytes > 8) {
            error = "bad run header";
            return false;
        }
        if (!bytes.has(position + 1, lengthBytes + offsetBytes)) {
            error = "run list runs past its attribute";
            return false;
        }
        std::uint64_t length = 0;
        for (unsigned i = 0; i < lengthBytes; ++i)
            length |= std::uint64_t{bytes.u8(position + 1 + i)} << (8 * i);
        std::uint64_t rawOffset = 0;
        for (unsigned i = 0; i < offsetBytes; ++i)
            rawOffset |= std::uint64_t{bytes.u8(position + 1 + lengthBytes + i)} << (8 * i);
        if (length == 0 || static_cast<std::int64_t>(length) < 0) {
            error = "bad run length";
            return false;
        }
        DataRun run;
        run.vcn = vcn;
        run.length = length;
        if (offsetBytes == 0) {
            run.lcn = -1;
        } else {
            const auto delta = static_cast<std::int64_t>(signExtended(rawOffset, offsetBytes));
            if ((delta > 0 && lcn > INT64_MAX - delta) || lcn + delta < 0) {
                error = "run starts before the volume";
                return false;
            }
            lcn += delta;
            run.lcn = lcn;
        }
        // VCNs are signed 64-bit numbers on disk and in the control replies.
        if (vcn > static_cast<std::uint64_t>(INT64_MAX) - length) {
            error = "run list overflows the VCN range";
            return false;
        }
        vcn += length;
        runs.push_back(run);
        position += 1 + lengthBytes + offsetBytes;
    }
    error = "run list too long";
    return false;
}

bool applyFixups(std::uint8_t* block, std::size_t size) {
    const LeView view(block, size);
    const std::uint16_t usaOffset = view.u16(fileRecord::kUsaOffset);
    const std::uint16_t usaCount = view.u16(fileRecord::kUsaCount);
    if (!view.ok() || usaCount < 2 || (usaCount - 1) * kFixupStride > size ||
        !view.has(usaOffset, std::size_t{usaCount} * 2) || (usaOffset & 1) != 0)
        return false;
    const std::uint16_t sequence = view.u16(usaOffset);
    for (std::size_t i = 1; i < usaCount; ++i) {
        const std::size_t last = i * kFixupStride - 2;
        if (LeView(block, size).u16(last) != sequence)
            return false;
    }
    for (std::size_t i = 1; i < usaCount; ++i) {
        const std::size_t last = i * kFixupStride - 2;
        storeLe16(block + last, view.u16(usaOffset + 2 * i));
    }
    return true;
}

} // namespace kestrow::platform::disk
