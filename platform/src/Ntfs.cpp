#include "Ntfs.h"

#include <algorithm>
#include <bit>
#include <map>
#include <set>

namespace kestrow::platform::disk {

namespace {

// $INDEX_ROOT, index header, index entry and $FILE_NAME key.
namespace index {
constexpr std::size_t kRootBlockSize = 0x08;
constexpr std::size_t kRootHeader = 0x10;
constexpr char kBlockMagic[] = "INDX";
constexpr std::size_t kBlockHeader = 0x18;
constexpr std::size_t kEntriesOffset = 0x00; // within an index header
constexpr std::size_t kEntriesEnd = 0x04;
constexpr std::size_t kEntryReference = 0x00;
constexpr std::size_t kEntryLength = 0x08;
constexpr std::size_t kEntryKeyLength = 0x0A;
constexpr std::size_t kEntryFlags = 0x0C;
constexpr std::size_t kEntryKey = 0x10;
constexpr std::uint16_t kLastEntry = 0x0002;
constexpr std::size_t kNameLength = fileName::kNameLength; // within the $FILE_NAME key
constexpr std::size_t kName = fileName::kName;
} // namespace index

namespace volumeInformation {
constexpr std::uint32_t kType = 0x70;
constexpr std::size_t kMajorVersion = 0x08;
} // namespace volumeInformation

constexpr std::size_t kUpcaseEntries = 65536;
const std::u16string kIndexName = u"$I30";

// Limits on what disk values can make the reader do.
constexpr std::size_t kMaxAttributeListBytes = 4u << 20;
constexpr std::size_t kMaxExtensionRecords = 4096;
constexpr std::uint64_t kMaxIndexBlocks = 1u << 22;
constexpr std::size_t kMaxMftBootstrapPasses = 16;

// The FILE_ATTRIBUTE_* values that $STANDARD_INFORMATION keeps and Windows
// passes on to GetFileAttributesW.
constexpr DWORD kReportedAttributeMask = 0x0001FFB7u;
constexpr DWORD kDirectoryAttribute = 0x00000010u;
constexpr DWORD kNormalAttribute = 0x00000080u;

} // namespace

char16_t simpleUpcase(char16_t unit) {
    if (unit >= u'a' && unit <= u'z')
        return static_cast<char16_t>(unit - 0x20);
    if ((unit >= 0x00E0 && unit <= 0x00FE && unit != 0x00F7))
        return static_cast<char16_t>(unit - 0x20);
    if (unit == 0x00FF)
        return 0x0178;
    if (unit >= 0x0100 && unit <= 0x017F && unit != 0x0130 && unit != 0x0131 && unit != 0x0138 &&
        unit != 0x0149 && unit != 0x017F) {
        // Latin Extended-A alternates upper/lower; the parity of the lower
        // case letter flips at U+0138.
        const bool lowerIsOdd = unit < 0x0138 || unit > 0x0178;
        if ((unit % 2 == 1) == lowerIsOdd)
            return static_cast<char16_t>(unit - 1);
    }
    return unit;
}

NtfsVolume::NtfsVolume(std::shared_ptr<const ByteSource> volume, const BootSector& boot)
    : m_volume(std::move(volume)), m_boot(boot), m_clusterSize(boot.bytesPerCluster()) {}

std::shared_ptr<const NtfsVolume> NtfsVolume::mount(std::shared_ptr<const ByteSource> volume,
                                                    const BootSector& boot, std::string& error) {
    // The driver refuses a boot sector that claims more than its partition
    // holds; so does this reader, which also keeps every walk over clusters
    // bounded by the bytes really there.
    if (boot.totalSectors > volume->size() / boot.bytesPerSector) {
        error = "the boot sector claims more sectors than the volume holds";
        return nullptr;
    }
    std::shared_ptr<NtfsVolume> ntfs(new NtfsVolume(std::move(volume), boot));
    if (ntfs->loadMftRuns(error) != 0)
        return nullptr;
    ntfs->loadUpcase();
    ntfs->loadLabel();
    return ntfs;
}

std::shared_ptr<const NtfsVolume>
NtfsVolume::mountWithMftRuns(std::shared_ptr<const ByteSource> volume, const BootSector& boot,
                             std::vector<DataRun> mftRuns) {
    std::shared_ptr<NtfsVolume> ntfs(new NtfsVolume(std::move(volume), boot));
    ntfs->m_mftRuns = std::move(mftRuns);
    return ntfs;
}

namespace {

// Whether the run holds the cluster. Written without vcn + length, which a
// damaged run list can make wrap around.
bool runHolds(const DataRun& run, std::uint64_t vcn) {
    return run.vcn <= vcn && vcn - run.vcn < run.length;
}

bool runEndsBefore(const DataRun& run, std::uint64_t vcn) {
    return run.vcn <= vcn && vcn - run.vcn >= run.length;
}

} // namespace

DWORD NtfsVolume::readRuns(const std::vector<DataRun>& runs, std::uint64_t offset, void* buffer,
                           std::size_t length) const {
    auto* out = static_cast<std::uint8_t*>(buffer);
    std::size_t done = 0;
    auto run = runs.begin();
    while (done < length) {
        const std::uint64_t position = offset + done;
        const std::uint64_t vcn = position / m_clusterSize;
        while (run != runs.end() && runEndsBefore(*run, vcn))
            ++run;
        if (run == runs.end() || !runHolds(*run, vcn)) {
            // Runs restart from the beginning only when the caller skips
            // backwards, which readRuns never does within one call.
            run = std::find_if(runs.begin(), runs.end(),
                               [vcn](const DataRun& r) { return runHolds(r, vcn); });
            if (run == runs.end())
                return ERROR_FILE_CORRUPT;
        }
        // At least the rest of this cluster is left in the run, so every
        // step reads something: a step of 0 bytes would never end.
        const std::uint64_t clustersLeft = run->length - (vcn - run->vcn);
        const std::uint64_t intoCluster = position % m_clusterSize;
        const std::uint64_t bytesLeft = clustersLeft > UINT64_MAX / m_clusterSize
                                            ? UINT64_MAX
                                            : clustersLeft * m_clusterSize - intoCluster;
        const std::size_t chunk =
            static_cast<std::size_t>(std::min<std::uint64_t>(length - done, bytesLeft));
        if (run->lcn < 0) {
            std::fill(out + done, out + done + chunk, std::uint8_t{0});
        } else {
            const std::uint64_t lcn = static_cast<std::uint64_t>(run->lcn) + (vcn - run->vcn);
            if (lcn < vcn - run->vcn || lcn > (UINT64_MAX - intoCluster) / m_clusterSize)
                return ERROR_FILE_CORRUPT;
            const DWORD error =
                m_volume->readExactly(lcn * m_clusterSize + intoCluster, out + done, chunk);
            if (error == ERROR_HANDLE_EOF)
                return ERROR_FILE_CORRUPT;
            if (error != 0)
                return error;
        }
        done += chunk;
    }
    return 0;
}

DWORD NtfsVolume::readMftBytes(const std::vector<DataRun>& runs, std::uint64_t index,
                               std::vector<std::uint8_t>& record) const {
    const std::uint32_t size = m_boot.bytesPerFileRecord;
    record.assign(size, 0);
    if (index > UINT64_MAX / size)
        return ERROR_FILE_NOT_FOUND;
    const DWORD error = readRuns(runs, index * size, record.data(), size);
    if (error != 0)
        return error == ERROR_FILE_CORRUPT ? static_cast<DWORD>(ERROR_FILE_NOT_FOUND) : error;
    if (!LeView(record.data(), size).bytesEqual(0, fileRecord::kMagic, 4) ||
        !applyFixups(record.data(), size))
        return ERROR_FILE_CORRUPT;
    return 0;
}

DWORD NtfsVolume::readRecord(std::uint64_t index, std::vector<std::uint8_t>& record) const {
    return readMftBytes(m_mftRuns, index, record);
}

DWORD NtfsVolume::collectAttributes(std::uint64_t index, const std::vector<DataRun>& mftRuns,
                                    std::vector<NtfsAttribute>& out) const {
    std::vector<std::uint8_t> base;
    if (const DWORD error = readMftBytes(mftRuns, index, base))
        return error;
    std::vector<AttributePiece> pieces;
    parseRecordAttributes(base, pieces);

    const AttributePiece* list = nullptr;
    for (const AttributePiece& piece : pieces) {
        if (piece.attribute.type == attr::kAttributeList)
            list = &piece;
    }
    if (list != nullptr) {
        std::vector<std::uint8_t> listBytes;
        const NtfsAttribute& listAttribute = list->attribute;
        if (!listAttribute.nonResident) {
            listBytes = listAttribute.value;
        } else {
            const std::size_t size = static_cast<std::size_t>(
                std::min<std::uint64_t>(listAttribute.dataSize, kMaxAttributeListBytes));
            listBytes.assign(size, 0);
            if (readRuns(listAttribute.runs, 0, listBytes.data(), size) != 0)
                listBytes.clear();
        }
        // The records the list names, each read once, in first-mention order.
        std::vector<std::uint64_t> extensions;
        std::set<std::uint64_t> seen{index};
        const LeView view(listBytes.data(), listBytes.size());
        for (std::size_t offset = 0; view.has(offset, listEntry::kMinimumLength);) {
            const std::uint16_t length = view.u16(offset + listEntry::kLength);
            if (length < listEntry::kMinimumLength)
                break;
            const std::uint64_t referenced = view.u64(offset + listEntry::kRecord) & kReferenceMask;
            if (seen.size() < kMaxExtensionRecords && seen.insert(referenced).second)
                extensions.push_back(referenced);
            offset += length;
        }
        std::vector<std::uint8_t> extension;
        for (std::uint64_t number : extensions) {
            if (readMftBytes(mftRuns, number, extension) != 0)
                continue; // a lost extension record loses its attributes only
            const LeView header(extension.data(), extension.size());
            if ((header.u64(fileRecord::kBaseRecord) & kReferenceMask) != index)
                continue;
            parseRecordAttributes(extension, pieces);
        }
    }
    out = mergePieces(std::move(pieces));
    return 0;
}

DWORD NtfsVolume::attributes(std::uint64_t index, std::vector<NtfsAttribute>& out) const {
    return collectAttributes(index, m_mftRuns, out);
}

DWORD NtfsVolume::loadMftRuns(std::string& error) {
    // Record 0 lies at the start of the MFT's first run, so it can be read
    // before any run is known.
    const DataRun bootstrap{0, (m_boot.bytesPerFileRecord + m_clusterSize - 1) / m_clusterSize,
                            static_cast<std::int64_t>(m_boot.mftLcn)};
    std::vector<DataRun> runs{bootstrap};
    std::vector<NtfsAttribute> attributes;
    // Extension records holding later runs may themselves lie in runs that
    // only the previous pass discovered; each pass can only add runs, and
    // the passes are bounded.
    for (std::size_t pass = 0; pass < kMaxMftBootstrapPasses; ++pass) {
        if (const DWORD code = collectAttributes(record::kMft, runs, attributes)) {
            error = code == ERROR_FILE_CORRUPT ? "MFT record 0 is damaged"
                                               : "MFT record 0 cannot be read";
            return code;
        }
        const NtfsAttribute* data = findAttribute(attributes, attr::kData, u"");
        if (data == nullptr || !data->nonResident || data->runs.empty()) {
            error = "MFT record 0 has no $DATA runs";
            return ERROR_FILE_CORRUPT;
        }
        const bool grew = data->runs.size() > runs.size() || pass == 0;
        runs = data->runs;
        m_mftDataSize = data->dataSize;
        m_mftValidDataLength = data->initializedSize;
        if (!grew)
            break;
    }
    m_mftRuns = std::move(runs);
    return 0;
}

void NtfsVolume::loadLabel() {
    std::vector<NtfsAttribute> attributes;
    if (collectAttributes(record::kVolume, m_mftRuns, attributes) != 0)
        return; // a damaged $Volume leaves the label empty
    if (const NtfsAttribute* name = findAttribute(attributes, attr::kVolumeName, u"")) {
        const LeView view(name->value.data(), name->value.size());
        m_label = utf16At(view, 0, name->value.size() / 2);
    }
    if (const NtfsAttribute* info = findAttribute(attributes, volumeInformation::kType, u""))
        m_majorVersion =
            LeView(info->value.data(), info->value.size()).u8(volumeInformation::kMajorVersion);
}

void NtfsVolume::loadUpcase() {
    std::vector<NtfsAttribute> attributes;
    if (collectAttributes(record::kUpCase, m_mftRuns, attributes) != 0)
        return;
    const NtfsAttribute* data = findAttribute(attributes, attr::kData, u"");
    if (data == nullptr || !data->nonResident || data->dataSize < kUpcaseEntries * 2)
        return;
    std::vector<std::uint8_t> bytes(kUpcaseEntries * 2);
    if (readRuns(data->runs, 0, bytes.data(), bytes.size()) != 0)
        return;
    m_upcase.resize(kUpcaseEntries);
    LeView(bytes.data(), bytes.size()).u16s(0, kUpcaseEntries, m_upcase.data());
    m_upcaseFromDisk = true;
}

char16_t NtfsVolume::upcase(char16_t unit) const {
    return m_upcaseFromDisk ? m_upcase[unit] : simpleUpcase(unit);
}

DWORD NtfsVolume::readAttribute(const NtfsAttribute& attribute, std::uint64_t offset, void* buffer,
                                std::size_t length, std::size_t& got) const {
    got = 0;
    auto* out = static_cast<std::uint8_t*>(buffer);
    if (!attribute.nonResident) {
        if (offset >= attribute.value.size())
            return 0;
        got = static_cast<std::size_t>(
            std::min<std::uint64_t>(length, attribute.value.size() - offset));
        std::copy_n(attribute.value.data() + offset, got, out);
        return 0;
    }
    if (offset >= attribute.dataSize)
        return 0;
    const std::size_t wanted =
        static_cast<std::size_t>(std::min<std::uint64_t>(length, attribute.dataSize - offset));
    // Bytes past the initialized size read as zeros, as the driver gives them.
    const std::uint64_t valid = std::min(attribute.initializedSize, attribute.dataSize);
    const std::size_t stored =
        offset >= valid ? 0
                        : static_cast<std::size_t>(std::min<std::uint64_t>(wanted, valid - offset));
    if (stored > 0) {
        if (const DWORD error = readRuns(attribute.runs, offset, out, stored))
            return error;
    }
    std::fill(out + stored, out + wanted, std::uint8_t{0});
    got = wanted;
    return 0;
}

bool NtfsVolume::namesEqual(const std::u16string& a, const char16_t* b, std::size_t bLength) const {
    if (a.size() != bLength)
        return false;
    for (std::size_t i = 0; i < bLength; ++i) {
        if (upcase(a[i]) != upcase(b[i]))
            return false;
    }
    return true;
}

DWORD NtfsVolume::findInDirectory(std::uint64_t directory, const std::u16string& name,
                                  std::uint64_t& child, bool& isDirectory) const {
    std::vector<NtfsAttribute> attributes;
    if (const DWORD error = collectAttributes(directory, m_mftRuns, attributes))
        return error;
    const NtfsAttribute* root = findAttribute(attributes, attr::kIndexRoot, kIndexName);
    if (root == nullptr) {
        isDirectory = false;
        return ERROR_PATH_NOT_FOUND;
    }
    isDirectory = true;

    // Scans the entries of one index node for the name. Every name in the
    // directory is compared, in whatever order the node holds them, so a
    // damaged sort order cannot hide an entry.
    std::u16string candidate;
    auto scanNode = [&](const LeView& node, std::size_t headerOffset) -> bool {
        const std::size_t first = headerOffset + node.u32(headerOffset + index::kEntriesOffset);
        const std::size_t end = std::min<std::size_t>(
            headerOffset + node.u32(headerOffset + index::kEntriesEnd), node.size());
        std::size_t offset = first;
        for (std::size_t guard = 0; guard < node.size() / 16 && offset + 16 <= end; ++guard) {
            const std::uint16_t length = node.u16(offset + index::kEntryLength);
            const std::uint16_t keyLength = node.u16(offset + index::kEntryKeyLength);
            const std::uint16_t flags = node.u16(offset + index::kEntryFlags);
            if ((flags & index::kLastEntry) != 0 || length < 16 || length > end - offset)
                return false;
            const LeView key = node.sub(offset + index::kEntryKey, keyLength);
            if (key.ok() && key.has(index::kName, 0)) {
                const std::size_t units = key.u8(index::kNameLength);
                if (key.has(index::kName, units * 2)) {
                    candidate = utf16At(key, index::kName, units);
                    if (namesEqual(name, candidate.data(), candidate.size())) {
                        child = node.u64(offset + index::kEntryReference) & kReferenceMask;
                        return true;
                    }
                }
            }
            offset += length;
        }
        return false;
    };

    const LeView rootView(root->value.data(), root->value.size());
    if (scanNode(rootView, index::kRootHeader))
        return 0;

    const NtfsAttribute* allocation = findAttribute(attributes, attr::kIndexAllocation, kIndexName);
    if (allocation == nullptr || !allocation->nonResident)
        return ERROR_FILE_NOT_FOUND;
    const std::uint32_t blockSize = rootView.u32(index::kRootBlockSize);
    if (blockSize < 512 || blockSize > 65536 || (blockSize & (blockSize - 1)) != 0)
        return ERROR_FILE_NOT_FOUND;
    const NtfsAttribute* bitmap = findAttribute(attributes, attr::kBitmap, kIndexName);
    std::vector<std::uint8_t> bitmapBytes;
    if (bitmap != nullptr && !bitmap->nonResident) {
        bitmapBytes = bitmap->value;
    } else if (bitmap != nullptr) {
        bitmapBytes.assign(static_cast<std::size_t>(
                               std::min<std::uint64_t>(bitmap->dataSize, kMaxIndexBlocks / 8)),
                           0);
        std::size_t got = 0;
        if (readAttribute(*bitmap, 0, bitmapBytes.data(), bitmapBytes.size(), got) != 0)
            bitmapBytes.clear();
    }
    // Only blocks the runs map and the volume can hold are looked at.
    const std::uint64_t mappedClusters =
        allocation->runs.empty() ? 0 : allocation->runs.back().vcn + allocation->runs.back().length;
    const std::uint64_t mapped =
        std::min(mappedClusters, m_volume->size() / m_clusterSize + 1) * m_clusterSize / blockSize;
    const std::uint64_t blocks = std::min(
        {allocation->dataSize / blockSize, mapped, m_volume->size() / blockSize, kMaxIndexBlocks});
    std::vector<std::uint8_t> block(blockSize);
    for (std::uint64_t b = 0; b < blocks; ++b) {
        // Blocks the bitmap marks free hold stale entries; without a bitmap
        // every block that passes its checks is looked at.
        if (!bitmapBytes.empty() &&
            (b / 8 >= bitmapBytes.size() || (bitmapBytes[b / 8] & (1u << (b % 8))) == 0))
            continue;
        std::size_t got = 0;
        if (readAttribute(*allocation, b * blockSize, block.data(), blockSize, got) != 0 ||
            got != blockSize)
            continue;
        if (!LeView(block.data(), blockSize).bytesEqual(0, index::kBlockMagic, 4) ||
            !applyFixups(block.data(), blockSize))
            continue;
        if (scanNode(LeView(block.data(), blockSize), index::kBlockHeader))
            return 0;
    }
    return ERROR_FILE_NOT_FOUND;
}

DWORD NtfsVolume::fileInfo(std::uint64_t index, NtfsFileInfo& info) const {
    std::vector<std::uint8_t> recordBytes;
    if (const DWORD error = readRecord(index, recordBytes))
        return error;
    const LeView header(recordBytes.data(), recordBytes.size());
    if ((header.u16(fileRecord::kFlags) & fileRecord::kInUse) == 0)
        return ERROR_FILE_NOT_FOUND;
    info.record = index;
    info.directory = (header.u16(fileRecord::kFlags) & fileRecord::kDirectory) != 0;
    std::vector<AttributePiece> pieces;
    parseRecordAttributes(recordBytes, pieces);
    DWORD attributes = 0;
    for (const AttributePiece& piece : pieces) {
        if (piece.attribute.type == attr::kStandardInformation) {
            const LeView value(piece.attribute.value.data(), piece.attribute.value.size());
            attributes = value.u32(standardInformation::kFileAttributes) & kReportedAttributeMask;
        }
    }
    if (info.directory)
        attributes |= kDirectoryAttribute;
    info.attributes = attributes == 0 ? kNormalAttribute : attributes;
    return 0;
}

DWORD NtfsVolume::lookup(const std::vector<std::u16string>& components, NtfsFileInfo& info) const {
    std::uint64_t current = record::kRoot;
    for (std::size_t i = 0; i < components.size(); ++i) {
        const bool last = i + 1 == components.size();
        std::uint64_t child = 0;
        bool parentIsDirectory = true;
        const DWORD error = findInDirectory(current, components[i], child, parentIsDirectory);
        if (error != 0) {
            if (error == ERROR_FILE_NOT_FOUND)
                return last ? static_cast<DWORD>(ERROR_FILE_NOT_FOUND)
                            : static_cast<DWORD>(ERROR_PATH_NOT_FOUND);
            return error;
        }
        current = child;
    }
    return fileInfo(current, info);
}

DWORD NtfsVolume::readBitmap(std::uint64_t firstByte, std::uint8_t* out, std::size_t length) const {
    std::vector<NtfsAttribute> attributes;
    const NtfsAttribute* data = nullptr;
    if (collectAttributes(record::kBitmap, m_mftRuns, attributes) == 0)
        data = findAttribute(attributes, attr::kData, u"");
    std::size_t got = 0;
    if (data != nullptr) {
        if (const DWORD error = readAttribute(*data, firstByte, out, length, got))
            return error;
    }
    std::fill(out + got, out + length, std::uint8_t{0xFF});
    return data == nullptr ? static_cast<DWORD>(ERROR_DISK_CORRUPT) : 0;
}

DWORD NtfsVolume::countFreeClusters(std::uint64_t& freeClusters) const {
    const std::uint64_t clusters = m_boot.totalClusters;
    const std::uint64_t bytes = (clusters + 7) / 8;
    constexpr std::size_t kChunk = 1u << 20;
    std::vector<std::uint8_t> chunk(
        static_cast<std::size_t>(std::min<std::uint64_t>(bytes, kChunk)));
    std::uint64_t used = 0;
    for (std::uint64_t at = 0; at < bytes; at += chunk.size()) {
        const std::size_t length =
            static_cast<std::size_t>(std::min<std::uint64_t>(chunk.size(), bytes - at));
        if (const DWORD error = readBitmap(at, chunk.data(), length))
            return error;
        for (std::size_t i = 0; i < length; ++i) {
            std::uint8_t byte = chunk[i];
            // Only the bits of real clusters count in the last byte.
            const std::uint64_t firstCluster = (at + i) * 8;
            if (clusters - firstCluster < 8)
                byte &= static_cast<std::uint8_t>((1u << (clusters - firstCluster)) - 1);
            used += static_cast<std::uint64_t>(std::popcount(byte));
        }
    }
    freeClusters = clusters - std::min(used, clusters);
    return 0;
}

} // namespace kestrow::platform::disk
