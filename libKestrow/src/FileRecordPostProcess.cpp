// FileRecord: the directory's index blocks ("INDX") in its "$I30" index
// allocation, read through the volume.
#include <libKestrow/FileRecord.h>

#include "FileRecordInternals.h"

#include <unordered_set>
#include <utility>
#include <vector>

using namespace kestrow::ntfs;

namespace {

// The largest single read of an index allocation range, and how far past it
// each piece reaches so that the entries of a block near its end are read
// from bytes in memory (see readIndexBlocks).
constexpr std::uint64_t READ_PIECE = 16 * 1024 * 1024;
constexpr std::uint64_t PIECE_OVERLAP = 1024 * 1024;

// Walks the entries of every index block that begins at one of the first
// `sectors` sector starts of `held`. Index blocks are recognised at every
// sector start: the block size is taken neither from the volume nor from
// $INDEX_ROOT. `held` holds the range's bytes from its sector `firstSector`
// on; the range is `rangeBytes` long, and the bound of each block is measured
// to the range's end, as for one buffer of the whole range. Each block's
// entry walk ends at its first read outside the bytes held: a block in the
// last sector of the range (its run starts a few sectors before the block,
// as on a volume that does not begin on a cluster boundary of its drive)
// gives the entries whose reference and length lie inside.
template <class Add>
void addIndexBlockEntries(const orv::Buffer<unsigned char>& held, std::uint64_t firstSector,
                          std::uint64_t sectors, std::uint64_t rangeBytes,
                          std::uint32_t bytesPerSector, Add& add) {
    const ByteBlock blocks(held.data(), held.size());
    try {
        for (std::uint64_t sector = 0; sector < sectors; ++sector) {
            const std::uint64_t block = sector * bytesPerSector;
            if (!blocks.bytesEqual(block, IndexBlock::SIGNATURE, 4))
                continue;
            const std::uint32_t firstEntry = blocks.u32(block + IndexBlock::FIRST_ENTRY_OFFSET);
            const std::uint32_t entriesSize = blocks.u32(block + IndexBlock::ENTRIES_SIZE);
            // 32-bit unsigned arithmetic as designed: a first-entry field past
            // the range wraps the second term to a large number; the entry walk
            // still ends at its first read outside the bytes held.
            const std::uint32_t declared = entriesSize + IndexBlock::NODE_HEADER_SIZE;
            const std::uint32_t remaining =
                static_cast<std::uint32_t>(rangeBytes) -
                static_cast<std::uint32_t>((firstSector + sector) * bytesPerSector) - firstEntry -
                IndexBlock::NODE_HEADER_SIZE;
            const std::uint32_t bound = declared < remaining ? declared : remaining;
            if (bound != 0)
                kestrow::filerecord::walkIndexEntries(
                    blocks, block + IndexBlock::NODE_HEADER + firstEntry, bound, add);
        }
    } catch (const OutsideTheBlock&) {
        // A block header outside the bytes held (sectors smaller than one):
        // the sector walk ends there.
    }
}

// Guard: the runs of an index allocation come from disk. The run-list decoder
// keeps each run within the volume's cluster count, but a damaged record can
// list the same clusters again and again (hundreds of runs, each as large as
// the volume), and a run can reach past the volume's last cluster. Clusters
// outside the volume hold none of its index blocks, and clusters already read
// cannot add an entry (each is listed once): only the parts of a range inside
// the volume and not read before are read, so one directory never reads more
// than the volume holds. The runs of a well-formed directory lie inside the
// volume and do not overlap: they are read exactly as before.
class ClustersToRead {
public:
    explicit ClustersToRead(const Volume& volume) {
        const orv::Array<Volume::VolumeExtent>& extents = volume.getVolumeExtents();
        if (extents.size() == 1 && volume.totalClusters() != 0) {
            m_first = extents[0].startingOffset / volume.bytesPerCluster();
            m_end = m_first + volume.totalClusters();
        }
    }

    // The parts of clusters [start, start + count) still to read, in order;
    // they count as read from now on.
    std::vector<std::pair<std::uint64_t, std::uint64_t>> claim(std::uint64_t start,
                                                               std::uint64_t count) {
        std::uint64_t begin = start < m_first ? m_first : start;
        std::uint64_t end = count > m_end - start || start > m_end ? m_end : start + count;
        std::vector<std::pair<std::uint64_t, std::uint64_t>> parts;
        for (const auto& [readBegin, readEnd] : m_read) {
            if (begin >= end || readBegin >= end)
                break;
            if (readEnd <= begin)
                continue;
            if (readBegin > begin)
                parts.emplace_back(begin, readBegin);
            begin = readEnd;
        }
        if (begin < end)
            parts.emplace_back(begin, end);
        for (const auto& part : parts)
            markRead(part);
        return parts;
    }

private:
    void markRead(std::pair<std::uint64_t, std::uint64_t> part) {
        auto at = m_read.begin();
        while (at != m_read.end() && at->second < part.first)
            ++at;
        while (at != m_read.end() && at->first <= part.second) {
            part.first = std::min(part.first, at->first);
            part.second = std::max(part.second, at->second);
            at = m_read.erase(at);
        }
        m_read.insert(at, part);
    }

    std::uint64_t m_first = 0;
    std::uint64_t m_end = ~std::uint64_t{0}; // no volume extent: no end to cut at
    std::vector<std::pair<std::uint64_t, std::uint64_t>> m_read; // sorted, disjoint
};

// Reads `count` clusters from `first` and walks their index blocks; false
// when a read fails (the rest of the range is then skipped).
template <class Add>
bool readIndexBlocks(Volume& volume, VolumeHandle& volumeHandle, std::uint64_t first,
                     std::uint64_t count, orv::Buffer<unsigned char>& buffer, Add& add) {
    const std::uint32_t bytesPerSector = volume.bytesPerSector();
    const std::uint32_t sectorsPerCluster = volume.bytesPerCluster() / bytesPerSector;
    const std::uint64_t rangeBytes = std::uint64_t(volume.bytesPerCluster()) * count;
    // Guard: a range is read in pieces of at most READ_PIECE bytes, so that a
    // run list that claims a range as large as the volume cannot ask for one
    // buffer of that size. Each piece tests the sector starts of its own
    // clusters, but holds PIECE_OVERLAP bytes more of the range (when the
    // range goes on): the entries of a block that begins near the end of a
    // piece are walked over the same bytes as in one read of the whole range,
    // for every block up to PIECE_OVERLAP bytes long. Only an entry walk that
    // would go on more than PIECE_OVERLAP bytes past a piece (a damaged block
    // of a range over 16 MiB) ends sooner than there.
    const std::uint64_t clustersPerPiece =
        volume.bytesPerCluster() >= READ_PIECE ? 1 : READ_PIECE / volume.bytesPerCluster();
    const std::uint64_t overlapClusters =
        (PIECE_OVERLAP + volume.bytesPerCluster() - 1) / volume.bytesPerCluster();
    for (std::uint64_t done = 0, clusters = 0; done < count; done += clusters) {
        // The last piece takes the rest of the range when that is no more than
        // a piece and its overlap.
        clusters =
            count - done <= clustersPerPiece + overlapClusters ? count - done : clustersPerPiece;
        const std::uint64_t held = clusters == count - done ? clusters : clusters + overlapClusters;
        const std::uint64_t size = std::uint64_t(volume.bytesPerCluster()) * held;
        buffer.resize(size, true);
        const bool read = volume.readBytesFromSector(
            volumeHandle, (first + done) * sectorsPerCluster, size, buffer);
        if (read)
            addIndexBlockEntries(buffer, done * sectorsPerCluster, clusters * sectorsPerCluster,
                                 rangeBytes, bytesPerSector, add);
        buffer.release();
        if (!read)
            return false;
    }
    return true;
}

} // namespace

void FileRecord::postProcess(VolumeHandle& volumeHandle) {
    // Guard: a record bound to no volume, or a volume without sector and
    // cluster geometry, has no way to address its clusters.
    if (m_volume == nullptr || m_volume->m_bytesPerSector == 0 || m_volume->m_bytesPerCluster == 0)
        return;
    Volume& volume = *m_volume;
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
    ClustersToRead unread(volume);
    for (const ClusterRange& range : m_indexAllocationRanges) {
        for (const auto& [first, end] : unread.claim(range.start, range.count))
            if (!readIndexBlocks(volume, volumeHandle, first, end - first, buffer, add))
                break;
    }
}
