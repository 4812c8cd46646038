// One FILE record of an NTFS volume, read correctly: the update-sequence
// fix-ups, the record header, the attribute headers in both forms and the run
// lists. The disk-image backend's volume reader and the analysts' record
// reader both parse records through these functions; neither has a parser of
// its own.
//
// The bytes come from a disk that may be damaged or hostile: every offset is
// checked, every loop is bounded, and every allocation sized from a disk
// value is capped.
#pragma once

#include "LittleEndian.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kestrow::platform::disk {

// FILE record header.
namespace fileRecord {
constexpr char kMagic[] = "FILE";
constexpr std::size_t kUsaOffset = 0x04;
constexpr std::size_t kUsaCount = 0x06;
constexpr std::size_t kLogSequenceNumber = 0x08;
constexpr std::size_t kSequenceNumber = 0x10;
constexpr std::size_t kLinkCount = 0x12;
constexpr std::size_t kFirstAttribute = 0x14;
constexpr std::size_t kFlags = 0x16;
constexpr std::size_t kBytesInUse = 0x18;
constexpr std::size_t kBytesAllocated = 0x1C; // the record's size
constexpr std::size_t kBaseRecord = 0x20;
constexpr std::uint16_t kInUse = 0x0001;
constexpr std::uint16_t kDirectory = 0x0002;
} // namespace fileRecord

// Attribute header, common part and the two forms.
namespace attrHeader {
constexpr std::size_t kType = 0x00;
constexpr std::size_t kLength = 0x04;
constexpr std::size_t kNonResident = 0x08;
constexpr std::size_t kNameLength = 0x09;
constexpr std::size_t kNameOffset = 0x0A;
constexpr std::size_t kFlags = 0x0C;
constexpr std::size_t kId = 0x0E;
constexpr std::size_t kResidentValueLength = 0x10;
constexpr std::size_t kResidentValueOffset = 0x14;
constexpr std::size_t kLowestVcn = 0x10;
constexpr std::size_t kRunListOffset = 0x20;
constexpr std::size_t kAllocatedSize = 0x28;
constexpr std::size_t kDataSize = 0x30;
constexpr std::size_t kInitializedSize = 0x38;
constexpr std::size_t kMinimumLength = 0x18;
constexpr std::size_t kMinimumNonResidentLength = 0x40;
} // namespace attrHeader

// $ATTRIBUTE_LIST entry.
namespace listEntry {
constexpr std::size_t kType = 0x00;
constexpr std::size_t kLength = 0x04;
constexpr std::size_t kNameLength = 0x06;
constexpr std::size_t kNameOffset = 0x07;
constexpr std::size_t kStartingVcn = 0x08;
constexpr std::size_t kRecord = 0x10;
constexpr std::size_t kId = 0x18;
constexpr std::size_t kMinimumLength = 0x1A;
} // namespace listEntry

// $STANDARD_INFORMATION value.
namespace standardInformation {
constexpr std::size_t kTimes = 0x00; // created, modified, MFT changed, accessed
constexpr std::size_t kFileAttributes = 0x20;
constexpr std::size_t kOwnerId = 0x30; // NTFS 3.0 and later
constexpr std::size_t kSecurityId = 0x34;
} // namespace standardInformation

// $FILE_NAME value (also the key of a directory index entry).
namespace fileName {
constexpr std::size_t kParent = 0x00;
constexpr std::size_t kTimes = 0x08; // created, modified, MFT changed, accessed
constexpr std::size_t kAllocatedSize = 0x28;
constexpr std::size_t kRealSize = 0x30;
constexpr std::size_t kFlags = 0x38;
constexpr std::size_t kNameLength = 0x40;
constexpr std::size_t kNameSpace = 0x41;
constexpr std::size_t kName = 0x42;
} // namespace fileName

constexpr std::uint64_t kReferenceMask = 0x0000FFFFFFFFFFFFull;
constexpr std::size_t kFixupStride = 512;
// The largest resident value copied out of a record.
constexpr std::size_t kMaxResidentValue = 1u << 20;

// One run of a non-resident attribute: `length` clusters from `vcn`, stored
// from `lcn` on, or not stored at all (sparse) when lcn is -1.
struct DataRun {
    std::uint64_t vcn = 0;
    std::uint64_t length = 0;
    std::int64_t lcn = -1;

    bool operator==(const DataRun&) const = default;
};

// Decodes a run list (mapping pairs) whose first run starts at `startVcn`,
// up to its terminating zero byte. False, with `error` set, when the list is
// malformed (a bad header, a field past the end, a zero length, an LCN below
// zero or a VCN overflow); runs decoded before the fault are kept.
bool decodeRunList(const LeView& bytes, std::uint64_t startVcn, std::vector<DataRun>& runs,
                   std::string& error);

// Applies the update sequence array of a multi-sector structure (FILE
// record, INDX block) in place: checks that each 512-byte stride ends with
// the sequence number and puts back the saved bytes. False when the array
// does not fit the block or a stride does not match (a torn write).
bool applyFixups(std::uint8_t* block, std::size_t size);

namespace attr {
constexpr std::uint32_t kStandardInformation = 0x10;
constexpr std::uint32_t kAttributeList = 0x20;
constexpr std::uint32_t kFileName = 0x30;
constexpr std::uint32_t kVolumeName = 0x60;
constexpr std::uint32_t kData = 0x80;
constexpr std::uint32_t kIndexRoot = 0x90;
constexpr std::uint32_t kIndexAllocation = 0xA0;
constexpr std::uint32_t kBitmap = 0xB0;
constexpr std::uint32_t kEnd = 0xFFFFFFFF;
} // namespace attr

namespace attrFlag {
constexpr std::uint16_t kCompressed = 0x0001;
constexpr std::uint16_t kEncrypted = 0x4000;
constexpr std::uint16_t kSparse = 0x8000;
} // namespace attrFlag

// One attribute of a file, its pieces from all extension records merged.
struct NtfsAttribute {
    std::uint32_t type = 0;
    std::u16string name;
    bool nonResident = false;
    std::uint16_t flags = 0;         // kCompressed, kEncrypted, kSparse
    std::uint16_t id = 0;            // the attribute id, unique within its record
    std::vector<std::uint8_t> value; // resident value
    std::uint64_t allocatedSize = 0; // non-resident sizes, from the piece at VCN 0
    std::uint64_t dataSize = 0;
    std::uint64_t initializedSize = 0;
    std::vector<DataRun> runs;   // non-resident runs, in VCN order
    std::uint64_t lowestVcn = 0; // of the piece this came from (before merging)
};

// One attribute as stored in one record (before merging pieces).
struct AttributePiece {
    NtfsAttribute attribute;
    std::uint64_t lowestVcn = 0;
};

// `units` UTF-16 units at `offset`; empty when they do not fit the view.
std::u16string utf16At(const LeView& view, std::size_t offset, std::size_t units);
// The UTF-16 units of `bytes` (two bytes each) into `text`, whose memory is
// reused.
void assignUtf16(const LeView& bytes, std::u16string& text);

// The header of one FILE record.
struct FileRecordHeader {
    std::uint64_t logSequenceNumber = 0;
    std::uint16_t sequence = 0;
    std::uint16_t linkCount = 0;
    std::uint16_t flags = 0; // fileRecord::kInUse, kDirectory
    std::uint32_t bytesInUse = 0;
    std::uint32_t bytesAllocated = 0;
    std::uint64_t baseRecord = 0; // a whole file reference; 0 for a base record
};

// Reads the header; false when the block is too short to hold one or does
// not begin with "FILE".
bool readFileRecordHeader(const LeView& record, FileRecordHeader& header);

// One attribute as it stands in its record: the header's fields, with the
// name, the value and the run list left in the record's bytes, for a reader
// that looks at every attribute of a large MFT and keeps little of it.
struct AttributeInPlace {
    std::uint32_t type = 0;
    bool nonResident = false;
    std::uint16_t flags = 0;
    std::uint16_t id = 0;
    LeView name;  // two bytes a UTF-16 unit; empty when it does not fit the attribute
    LeView value; // resident; empty when it does not fit or exceeds kMaxResidentValue
    std::uint64_t lowestVcn = 0; // non-resident, as are the sizes and the run list
    std::uint64_t allocatedSize = 0;
    std::uint64_t dataSize = 0;
    std::uint64_t initializedSize = 0;
    LeView runList; // empty when its offset lies outside the attribute
};

class AttributeVisitor {
public:
    virtual void visit(const AttributeInPlace& attribute) = 0;

protected:
    ~AttributeVisitor() = default;
};

// Walks the attributes of one fixed-up FILE record in record order, handing
// each to `visitor`. Stops quietly at the first damaged header: what came
// before it is still good. True when the walk ended at the end marker or the
// bytes in use, false when damage stopped it.
bool walkRecordAttributes(const std::uint8_t* record, std::size_t size, AttributeVisitor& visitor);

// The walk above, each attribute copied out of the record, its run list
// decoded.
bool parseRecordAttributes(const std::vector<std::uint8_t>& record,
                           std::vector<AttributePiece>& pieces);
bool parseRecordAttributes(const std::uint8_t* record, std::size_t size,
                           std::vector<AttributePiece>& pieces);

// Joins the pieces of each non-resident attribute (same type and name) in
// VCN order; the sizes come from the piece at VCN 0.
std::vector<NtfsAttribute> mergePieces(std::vector<AttributePiece> pieces);

// The first attribute of this type and name, or nullptr.
const NtfsAttribute* findAttribute(const std::vector<NtfsAttribute>& attributes, std::uint32_t type,
                                   const std::u16string& name);

} // namespace kestrow::platform::disk
