#include "MftScan.h"

#include <orv/Buffer.h>

#include <algorithm>

namespace kestrow::tool {

namespace {

// Records are read 128 KiB at a time: large enough that the reads cost
// little, small enough that the bytes a read has just put in the buffer are
// still in the core's own cache (L2) when they are parsed. With chunks of a
// few MiB every record came from the shared cache or memory instead, which
// cost a timeline a tenth of its time.
constexpr unsigned long long CHUNK_BYTES = 128ULL * 1024;

// The record slots of one run: its sectors up to (not including) endSector,
// and never more than the volume holds, which a damaged run list may claim.
unsigned long long recordsInRun(const Volume::FileExtent& run, const Volume& volume) {
    if (run.endSector <= run.startSector || volume.bytesPerFileRecord() == 0)
        return 0;
    const unsigned long long sectors =
        std::min(run.endSector - run.startSector, volume.totalSectors());
    return sectors * volume.bytesPerSector() / volume.bytesPerFileRecord();
}

bool readAt(MasterFileTable& mft, unsigned long long sector, unsigned char* into,
            unsigned long long bytes) {
    orv::Buffer<unsigned char> view(into, bytes);
    return mft.getDataAtSector(sector, bytes, view);
}

} // namespace

unsigned long long
scanMftRecords(MasterFileTable& mft, const Volume& volume,
               const std::function<void(unsigned long long, unsigned char*, std::size_t)>& visit) {
    const unsigned long long recordSize = volume.bytesPerFileRecord();
    const unsigned long long sectorSize = volume.bytesPerSector();
    // Both are powers of two no larger than a chunk, so a chunk holds whole
    // records and whole sectors.
    if (recordSize == 0 || sectorSize == 0 || recordSize > CHUNK_BYTES || sectorSize > CHUNK_BYTES)
        return 0;
    std::vector<unsigned char> chunk(CHUNK_BYTES);
    unsigned long long index = 0;
    for (const Volume::FileExtent& run : mft.getMftExtents()) {
        const unsigned long long runBytes = recordsInRun(run, volume) * recordSize;
        for (unsigned long long offset = 0; offset < runBytes; offset += CHUNK_BYTES) {
            const unsigned long long bytes = std::min(CHUNK_BYTES, runBytes - offset);
            const unsigned long long count = bytes / recordSize;
            const unsigned long long readBytes = (bytes + sectorSize - 1) / sectorSize * sectorSize;
            if (readAt(mft, run.startSector + offset / sectorSize, chunk.data(), readBytes)) {
                for (unsigned long long i = 0; i < count; ++i)
                    visit(index + i, chunk.data() + i * recordSize, recordSize);
            }
            index += count;
        }
    }
    return index;
}

unsigned long long mftRecordSlots(MasterFileTable& mft, const Volume& volume) {
    unsigned long long slots = 0;
    for (const Volume::FileExtent& run : mft.getMftExtents())
        slots += recordsInRun(run, volume);
    return slots;
}

bool readRawRecord(MasterFileTable& mft, const Volume& volume, unsigned long long index,
                   std::vector<unsigned char>& bytes) {
    const unsigned long long recordSize = volume.bytesPerFileRecord();
    const unsigned long long sectorSize = volume.bytesPerSector();
    if (recordSize == 0 || sectorSize == 0)
        return false;
    unsigned long long first = 0;
    for (const Volume::FileExtent& run : mft.getMftExtents()) {
        const unsigned long long records = recordsInRun(run, volume);
        if (index < first + records) {
            const unsigned long long offset = (index - first) * recordSize;
            const unsigned long long within = offset % sectorSize;
            std::vector<unsigned char> sectors((within + recordSize + sectorSize - 1) / sectorSize *
                                               sectorSize);
            if (!readAt(mft, run.startSector + offset / sectorSize, sectors.data(), sectors.size()))
                return false;
            bytes.assign(sectors.begin() + static_cast<long>(within),
                         sectors.begin() + static_cast<long>(within + recordSize));
            return true;
        }
        first += records;
    }
    return false;
}

RecordReader::ClusterReader volumeClusterReader(MasterFileTable& mft, const Volume& volume) {
    const orv::Array<Volume::VolumeExtent>& extents = volume.getVolumeExtents();
    if (extents.size() != 1 || volume.bytesPerSector() == 0 || volume.sectorsPerCluster() == 0)
        return {};
    const unsigned long long firstSector = extents[0].startingOffset / volume.bytesPerSector();
    const unsigned long long sectorsPerCluster = volume.sectorsPerCluster();
    const unsigned long long totalClusters = volume.totalClusters();
    const unsigned long long bytesPerCluster = sectorsPerCluster * volume.bytesPerSector();
    return [&mft, firstSector, sectorsPerCluster, totalClusters, bytesPerCluster](
               unsigned long long first, unsigned long long count, unsigned char* into) {
        if (first >= totalClusters || count > totalClusters - first)
            return false;
        return readAt(mft, firstSector + first * sectorsPerCluster, into, count * bytesPerCluster);
    };
}

} // namespace kestrow::tool
