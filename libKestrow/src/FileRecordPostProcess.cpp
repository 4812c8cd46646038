// FileRecord: the directory's index blocks ("INDX") in its "$I30" index
// allocation, read through the volume.
#include <libKestrow/FileRecord.h>

#include "FileRecordInternals.h"

#include <unordered_set>

using namespace kestrow::ntfs;

namespace {

// The largest single read of an index allocation range.
constexpr std::uint64_t READ_PIECE = 16 * 1024 * 1024;

// Walks the entries of every index block that begins at one of the first
// `sectors` sector starts of the buffer. Index blocks are recognised at every
// sector start: the block size is taken neither from the volume nor from
// $INDEX_ROOT.
template <class Add>
void addIndexBlockEntries(const orv::Buffer<unsigned char>& buffer, std::uint64_t sectors,
                          std::uint32_t bytesPerSector, Add& add) {
    const ByteBlock blocks(buffer.data(), buffer.size());
    const std::uint64_t size = buffer.size();
    for (std::uint64_t sector = 0; sector < sectors; ++sector) {
        const std::uint64_t block = sector * bytesPerSector;
        // Guard: the node header must lie inside what was read.
        if (!blocks.has(block, IndexBlock::HEADER_READ))
            break;
        if (!blocks.bytesEqual(block, IndexBlock::SIGNATURE, 4))
            continue;
        const std::uint32_t firstEntry = blocks.u32(block + IndexBlock::FIRST_ENTRY_OFFSET);
        const std::uint32_t entriesSize = blocks.u32(block + IndexBlock::ENTRIES_SIZE);
        // 32-bit unsigned arithmetic as designed: a first-entry field past the
        // buffer wraps the second term to a large number; the walk's own bounds
        // check keeps it inside the buffer then.
        const std::uint32_t declared = entriesSize + IndexBlock::NODE_HEADER_SIZE;
        const std::uint32_t remaining = static_cast<std::uint32_t>(size) -
                                        static_cast<std::uint32_t>(block) - firstEntry -
                                        IndexBlock::NODE_HEADER_SIZE;
        const std::uint32_t bound = declared < remaining ? declared : remaining;
        if (bound != 0)
            kestrow::filerecord::walkIndexEntries(
                blocks, block + IndexBlock::NODE_HEADER + firstEntry, bound, add);
    }
}

} // namespace

void FileRecord::postProcess(VolumeHandle& volumeHandle) {
    // Guard: a record bound to no volume, or a volume without sector and
    // cluster geometry, has no way to address its clusters.
    if (m_volume == nullptr || m_volume->m_bytesPerSector == 0 || m_volume->m_bytesPerCluster == 0)
        return;
    Volume& volume = *m_volume;
    const std::uint32_t bytesPerSector = volume.m_bytesPerSector;
    const std::uint32_t sectorsPerCluster = volume.m_bytesPerCluster / bytesPerSector;
    if (m_indexAllocationRanges.empty())
        return;

    // A large directory names thousands of children; the set keeps "each once"
    // from costing a scan of the whole list per entry.
    std::unordered_set<unsigned long long> listed(m_indexEntries.begin(), m_indexEntries.end());
    auto add = [this, &listed](unsigned long long index) {
        if (listed.insert(index).second)
            m_indexEntries.append(index);
    };

    orv::Buffer<unsigned char> buffer;
    for (const ClusterRange& range : m_indexAllocationRanges) {
        // Guard: a range is read in pieces of at most READ_PIECE bytes, so that a
        // run list that claims a range as large as the volume cannot ask for one
        // buffer of that size. A piece is a whole number of index blocks and
        // clusters, so every block of a well-formed range lies inside one piece
        // and is found exactly as in one read of the whole range.
        const std::uint64_t clustersPerPiece =
            volume.m_bytesPerCluster >= READ_PIECE ? 1 : READ_PIECE / volume.m_bytesPerCluster;
        for (std::uint64_t done = 0; done < range.count; done += clustersPerPiece) {
            const std::uint64_t clusters =
                range.count - done < clustersPerPiece ? range.count - done : clustersPerPiece;
            const std::uint64_t size = std::uint64_t(volume.m_bytesPerCluster) * clusters;
            buffer.resize(size, true);
            if (!volume.readBytesFromSector(volumeHandle, (range.start + done) * sectorsPerCluster,
                                            size, buffer)) {
                buffer.release();
                break;
            }
            addIndexBlockEntries(buffer, clusters * sectorsPerCluster, bytesPerSector, add);
            buffer.release();
        }
    }
}
