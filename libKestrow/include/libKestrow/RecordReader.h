// RecordReader: one MFT FILE record as an analyst wants to see it.
//
// FileRecord keeps to the facts its host needs, read the way the host has
// always read them: no update-sequence fix-ups, in-use records only, the
// times of one $FILE_NAME. RecordReader is a separate, correct reading for
// timelines and examinations: it applies the fix-ups (and says when their
// check fails), reads free records too, and reports the record header, every
// $STANDARD_INFORMATION time and flag, every $FILE_NAME, every data stream
// and index root with its name, size and residency, and the members of the
// attribute list. It never changes what FileRecord or MasterFileTable do.
//
// Damaged bytes never make it read outside the record or loop: what stands
// before the damage is reported and `attributesComplete` is false.
#pragma once

#include <kestrow/Export.h>

#include <libKestrow/FileRecord.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

// Four NTFS time stamps (100-nanosecond intervals since 1601-01-01 UTC, raw).
struct KESTROW_API RecordTimes {
    unsigned long long created = 0;
    unsigned long long modified = 0;
    unsigned long long mftChanged = 0;
    unsigned long long accessed = 0;
};

// One $FILE_NAME attribute.
struct KESTROW_API RecordFileName {
    // Name spaces of a $FILE_NAME.
    static constexpr unsigned char POSIX_NAME = 0;
    static constexpr unsigned char WIN32_NAME = 1;
    static constexpr unsigned char DOS_NAME = 2;
    static constexpr unsigned char WIN32_AND_DOS_NAME = 3;

    unsigned short attributeId = 0;
    unsigned long long record = 0; // the record that holds the attribute
    FileReference parent;          // index and sequence
    unsigned char nameSpace = 0;
    RecordTimes times;
    unsigned long long allocatedSize = 0;
    unsigned long long realSize = 0;
    unsigned int flags = 0;       // file attribute flags as the name keeps them
    unsigned int valueLength = 0; // bytes of the attribute's value
    std::u16string name;
};

// One $DATA attribute or one $INDEX_ROOT (a directory's index, or another
// named index such as $Secure's $SDH).
struct KESTROW_API RecordStream {
    static constexpr unsigned int DATA = 0x80;
    static constexpr unsigned int INDEX_ROOT = 0x90;

    unsigned int type = DATA;
    unsigned short attributeId = 0;
    unsigned long long record = 0; // the record that holds the attribute
    std::u16string name;           // empty for the unnamed $DATA
    bool resident = true;
    unsigned long long size = 0;          // value length, or the data size
    unsigned long long allocatedSize = 0; // 0 when resident
    unsigned short flags = 0;             // compressed 0x0001, encrypted 0x4000, sparse 0x8000
};

// One attribute of the record, of whatever type.
struct KESTROW_API RecordAttribute {
    unsigned int type = 0;
    unsigned short attributeId = 0;
    unsigned long long record = 0; // the record that holds it
    bool resident = true;
    std::u16string name;
};

// One entry of an $ATTRIBUTE_LIST.
struct KESTROW_API RecordListMember {
    unsigned int type = 0;
    unsigned short attributeId = 0;
    unsigned long long startingVcn = 0;
    FileReference record; // the record that holds the attribute
    std::u16string name;
};

// Everything RecordReader sees in one record.
struct KESTROW_API RecordDetails {
    unsigned long long index = 0;
    bool isFileRecord = false;       // the "FILE" signature and a whole header
    bool fixupsApplied = false;      // false: the update sequence check failed (a torn write)
    bool attributesComplete = false; // the attribute walk reached its end

    unsigned long long logSequenceNumber = 0;
    unsigned short sequence = 0;
    unsigned short linkCount = 0;
    unsigned short recordFlags = 0;
    bool inUse = false;
    bool directory = false;
    FileReference baseRecord; // index 0 for a base record

    bool hasStandardInformation = false;
    RecordTimes standardTimes;
    unsigned int standardFlags = 0; // Windows file attribute flags
    unsigned int ownerId = 0;
    unsigned int securityId = 0;

    std::vector<RecordAttribute> attributes; // every attribute, in record order
    std::vector<RecordFileName> names;
    std::vector<RecordStream> streams;
    bool hasAttributeList = false;
    bool attributeListResident = true;
    // A non-resident list's members are there when the reader was given a
    // way to read clusters and the clusters could be read.
    bool attributeListRead = false;
    std::vector<RecordListMember> attributeList;

    // The name an analyst would show: the first that is not DOS-only, else
    // the first; nullptr when the record has no $FILE_NAME.
    const RecordFileName* preferredName() const;
};

class KESTROW_API RecordReader {
public:
    // Reads `count` clusters from volume cluster `first` into `into`; false
    // when they cannot be read.
    using ClusterReader = std::function<bool(unsigned long long first, unsigned long long count,
                                             unsigned char* into)>;

    // Reads the record at `bytes` (one record's worth: `size` bytes) as record
    // `index`. The fix-ups are applied to a copy; the caller's bytes are left
    // as they are. False when the bytes are no FILE record (no signature, or
    // too short); `details` then holds only the index. With `clusters` (and
    // the volume's cluster size) a non-resident attribute list is read too.
    static bool read(const unsigned char* bytes, std::size_t size, unsigned long long index,
                     RecordDetails& details, const ClusterReader& clusters = {},
                     unsigned int bytesPerCluster = 0);

    // As read, but the fix-ups are applied to the caller's own bytes, which
    // are changed: for a caller that reads a whole MFT into a scratch buffer
    // and would otherwise pay for a copy of every record.
    static bool readInPlace(unsigned char* bytes, std::size_t size, unsigned long long index,
                            RecordDetails& details, const ClusterReader& clusters = {},
                            unsigned int bytesPerCluster = 0);

    // Only the record header (signature, sequence, flags, link count, base
    // record, LSN), which the fix-ups never touch: for a first look at every
    // slot of a large MFT. `fixupsApplied` and the attributes stay unset.
    static bool readHeader(const unsigned char* bytes, std::size_t size, unsigned long long index,
                           RecordDetails& details);

    // Adds an extension record's names and streams to its base record's
    // details (the caller checks that `extension.baseRecord` names `base`).
    // Attribute ids count within each record, so those of an extension
    // record may repeat the base record's: such an attribute (other than a
    // $FILE_NAME, which keeps its own) is given the next id above the highest
    // the file has, in record order. This is how The Sleuth Kit numbers them,
    // so that "record-type-id" addresses agree with its tools (istat, icat,
    // fls).
    static void mergeExtension(RecordDetails& base, const RecordDetails& extension);
};
