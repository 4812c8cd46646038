#include "ImageMap.h"

#include "support/Oracle.h"

#include <algorithm>
#include <memory>
#include <mutex>
#include <stdexcept>

namespace kestrow::test::hardening {

namespace oracle = kestrow::test::oracle;

namespace {

// FILE record header fields.
constexpr std::size_t kUsaOffset = 0x04;
constexpr std::size_t kUsaCount = 0x06;
constexpr std::size_t kRecordFlags = 0x16;
constexpr std::size_t kBaseReference = 0x20;
constexpr std::uint16_t kInUse = 0x0001;
constexpr std::uint16_t kDirectory = 0x0002;
constexpr std::uint64_t kReferenceIndex = 0x0000FFFFFFFFFFFFull;

// The named records looked up on every image that has them.
const char* const kNamedPaths[] = {
    "Readme.txt",
    "Docs",
    "Docs/report.bin",
    "Docs/Sub",
    "Docs/Sub/deep.txt",
    "Indexed",
    "Big",
    "Links/target.txt",
    "Streams/streams.txt",
    "AttrList/data-elsewhere.bin",
    "Fragments/frag-a.bin",
};

std::vector<std::uint64_t> clustersOf(const oracle::IstatResult& record, std::uint32_t type) {
    const oracle::IstatAttribute* attribute = record.find(type);
    if (attribute == nullptr || attribute->resident)
        return {};
    return attribute->clusters;
}

} // namespace

std::uint16_t le16(std::span<const std::uint8_t> bytes, std::size_t at) {
    if (at + 2 > bytes.size())
        throw std::out_of_range("16-bit field past the end");
    return static_cast<std::uint16_t>(bytes[at] | (bytes[at + 1] << 8));
}

std::uint32_t le32(std::span<const std::uint8_t> bytes, std::size_t at) {
    return le16(bytes, at) | (std::uint32_t{le16(bytes, at + 2)} << 16);
}

std::uint64_t le64(std::span<const std::uint8_t> bytes, std::size_t at) {
    return le32(bytes, at) | (std::uint64_t{le32(bytes, at + 4)} << 32);
}

std::vector<std::uint8_t> withFixupsApplied(std::span<const std::uint8_t> block) {
    std::vector<std::uint8_t> copy(block.begin(), block.end());
    if (copy.size() < 8)
        return copy;
    const std::uint16_t usaOffset = le16(copy, kUsaOffset);
    const std::uint16_t usaCount = le16(copy, kUsaCount);
    if (usaCount < 2 || std::size_t{usaOffset} + 2u * usaCount > copy.size() ||
        std::size_t{usaCount - 1u} * kFixupStride > copy.size())
        return copy;
    for (std::size_t i = 1; i < usaCount; ++i) {
        copy[i * kFixupStride - 2] = block[usaOffset + 2 * i];
        copy[i * kFixupStride - 1] = block[usaOffset + 2 * i + 1];
    }
    return copy;
}

std::uint32_t storedByteOffset(std::span<const std::uint8_t> block, std::uint32_t byte) {
    if (block.size() < 8 || byte % kFixupStride < kFixupStride - 2)
        return byte;
    const std::uint16_t usaOffset = le16(block, kUsaOffset);
    const std::uint16_t usaCount = le16(block, kUsaCount);
    const std::uint32_t stride = byte / kFixupStride + 1;
    if (stride >= usaCount || std::size_t{usaOffset} + 2u * usaCount > block.size())
        return byte;
    return usaOffset + 2 * stride + byte % 2;
}

const ImageMap& ImageMap::of(FixtureImage image) {
    static std::mutex mutex;
    static std::map<FixtureImage, std::unique_ptr<ImageMap>> maps;
    std::lock_guard<std::mutex> lock(mutex);
    auto& slot = maps[image];
    if (!slot)
        slot.reset(new ImageMap(image));
    return *slot;
}

ImageMap::ImageMap(FixtureImage image) : m_facts(&factsOf(image)), m_path(imagePath(image)) {
    m_imageSize = std::filesystem::file_size(m_path);
    const std::uint64_t sectorOffset = m_facts->volumeOffset / 512;
    const oracle::FsstatResult stats = oracle::fileSystemStats(m_path, sectorOffset);
    m_clusterSize = stats.clusterSize;
    m_recordSize = stats.mftEntrySize;
    m_totalClusters = stats.totalClusters;
    m_mftClusters = clustersOf(oracle::inspectRecord(m_path, 0, sectorOffset), oracle::kData);
    m_bitmapClusters = clustersOf(oracle::inspectRecord(m_path, 6, sectorOffset), oracle::kData);
    if (m_mftClusters.empty() || m_recordSize == 0)
        throw std::runtime_error("no $MFT clusters in " + m_path.string());
    m_recordSlots = m_mftClusters.size() * m_clusterSize / m_recordSize;

    for (const char* path : kNamedPaths)
        if (const auto inode = oracle::findInode(m_path, path, sectorOffset))
            m_named[path] = *inode;
    if (const auto report = record("Docs/report.bin")) {
        const auto clusters =
            clustersOf(oracle::inspectRecord(m_path, *report, sectorOffset), oracle::kData);
        if (!clusters.empty())
            m_reportCluster = clusters.front();
    }

    for (std::uint64_t index = 0; index < m_recordSlots; ++index) {
        const auto stored = readRecord(m_path, index);
        if (stored[0] != 'F' || stored[1] != 'I' || stored[2] != 'L' || stored[3] != 'E')
            continue;
        const auto bytes = withFixupsApplied(stored);
        const std::uint16_t flags = le16(bytes, kRecordFlags);
        if ((flags & kInUse) == 0)
            continue;
        if ((le64(bytes, kBaseReference) & kReferenceIndex) != 0) {
            m_extensions.push_back(index);
            continue;
        }
        m_inUse.push_back(index);
        if (flags & kDirectory)
            m_directories.push_back(index);
        try {
            for (const RawAttribute& attribute : rawAttributes(bytes))
                if (attribute.type == 0x20 && attribute.resident)
                    m_attributeLists.push_back(index);
        } catch (const std::runtime_error&) {
            // A system record this walk does not understand: not a target.
        }
    }

    // INDX blocks start at sector boundaries of the volume.
    const std::uint64_t volumeEnd =
        std::min(m_imageSize, m_facts->volumeOffset + m_facts->volumeSize);
    const std::uint64_t chunkSize = 4 << 20;
    for (std::uint64_t at = m_facts->volumeOffset; at < volumeEnd; at += chunkSize) {
        const std::size_t count = static_cast<std::size_t>(std::min(chunkSize, volumeEnd - at));
        const auto chunk = readFileBytes(m_path, at, count);
        for (std::size_t i = 0; i + 4 <= chunk.size(); i += m_facts->bytesPerSector)
            if (chunk[i] == 'I' && chunk[i + 1] == 'N' && chunk[i + 2] == 'D' &&
                chunk[i + 3] == 'X')
                m_indexBlocks.push_back(at + i);
    }
}

std::optional<std::uint64_t> ImageMap::record(const std::string& path) const {
    const auto found = m_named.find(path);
    if (found == m_named.end())
        return std::nullopt;
    return found->second;
}

std::uint64_t ImageMap::recordByteOffset(std::uint64_t record, std::uint64_t byte) const {
    const std::uint64_t position = record * m_recordSize + byte;
    const std::uint64_t vcn = position / m_clusterSize;
    if (vcn >= m_mftClusters.size())
        throw std::out_of_range("record " + std::to_string(record) + " lies past the $MFT");
    return m_facts->volumeOffset + m_mftClusters[vcn] * m_clusterSize + position % m_clusterSize;
}

std::vector<std::uint8_t> ImageMap::readRecord(const std::filesystem::path& image,
                                               std::uint64_t record) const {
    std::vector<std::uint8_t> bytes;
    bytes.reserve(m_recordSize);
    // Cluster by cluster: the pieces of a record need not be neighbours.
    for (std::uint64_t byte = 0; byte < m_recordSize;) {
        const std::uint64_t offset = recordByteOffset(record, byte);
        const std::uint64_t inCluster =
            m_clusterSize - (record * m_recordSize + byte) % m_clusterSize;
        const std::uint64_t take = std::min<std::uint64_t>(inCluster, m_recordSize - byte);
        const auto piece = readFileBytes(image, offset, static_cast<std::size_t>(take));
        bytes.insert(bytes.end(), piece.begin(), piece.end());
        byte += take;
    }
    return bytes;
}

} // namespace kestrow::test::hardening
