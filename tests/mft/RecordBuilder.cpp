#include "RecordBuilder.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace kestrow::test::mft {

std::vector<std::uint8_t> buildRecord(std::uint32_t recordSize, const RecordSpec& spec) {
    std::vector<Bytes> attributes;
    if (spec.name) {
        FileNameValue value;
        value.name = *spec.name;
        value.parent = reference(spec.parent, spec.parentSequence);
        value.flags = spec.directory ? 0x10000000u : 0x20u;
        attributes.push_back(fileNameAttribute(value));
    }
    if (!spec.extensionRecords.empty()) {
        Bytes list;
        for (std::uint64_t holder : spec.extensionRecords)
            list = concat({list, attributeListEntry(holder)});
        attributes.push_back(residentAttribute(0x20, list));
    }
    if (spec.residentDataLength) {
        attributes.push_back(residentAttribute(0x80, Bytes(*spec.residentDataLength, 0)));
    } else if (spec.dataRun) {
        // One run, 4-byte length and offset. The decoder refuses runs beyond
        // allocated size / cluster size: an allocated size of 64 KiB per
        // cluster passes with any cluster size.
        Bytes run{0x44};
        putLe(run, 1, spec.dataRun->count, 4);
        putLe(run, 5, spec.dataRun->lcn, 4);
        attributes.push_back(nonResidentAttribute(0x80, run,
                                                  std::uint64_t(spec.dataRun->count) * 65536,
                                                  std::uint64_t(spec.dataRun->count) * 512));
    }

    // The update sequence array (left as zeros: the library never applies
    // it) comes before the first attribute.
    const std::size_t usaCount = recordSize / 512 + 1;
    const std::size_t firstAttribute = (0x30 + 2 * usaCount + 7) & ~std::size_t(7);
    Bytes record(firstAttribute, 0);
    std::memcpy(record.data(), "FILE", 4);
    putLe(record, 0x04, 0x30, 2);
    putLe(record, 0x06, usaCount, 2);
    putLe(record, 0x10, 1, 2); // sequence number
    putLe(record, 0x12, 1, 2); // hard links
    putLe(record, 0x14, firstAttribute, 2);
    putLe(record, 0x16, (spec.inUse ? 1 : 0) | (spec.directory ? 2 : 0), 2);
    putLe(record, 0x1C, recordSize, 4);
    for (const Bytes& attribute : attributes)
        record.insert(record.end(), attribute.begin(), attribute.end());
    putLe(record, 0x18, record.size() + 8, 4); // bytes in use
    putLe(record, record.size(), 0xFFFFFFFFu, 4);
    if (record.size() + 4 > recordSize)
        throw std::runtime_error("hand-built record does not fit");
    record.resize(recordSize, 0);
    return record;
}

FakeMftDrive::FakeMftDrive(const FakeMftGeometry& geometry) : m_geometry(geometry) {
    m_fake.addDisk(0, static_cast<std::size_t>(geometry.diskSize), geometry.bytesPerSector);
    FakeVolume& volume = m_fake.addVolume('C');
    volume.bytesPerSector = geometry.bytesPerSector;
    volume.sectorsPerCluster = geometry.sectorsPerCluster;
    const std::uint64_t clusterBytes =
        std::uint64_t(geometry.bytesPerSector) * geometry.sectorsPerCluster;
    // The volume holds its MFT runs even where the disk's bytes end (reads
    // there find nothing): a run past the volume's end would be cut.
    std::uint64_t clusters = (geometry.diskSize - geometry.volumeOffset) / clusterBytes;
    for (const FakeMftGeometry::Run& run : geometry.mftRuns)
        if (run.lcn >= 0)
            clusters = std::max(clusters, static_cast<std::uint64_t>(run.lcn) + run.clusters + 1);
    volume.totalClusters =
        static_cast<DWORD>(geometry.totalClusters != 0 ? geometry.totalClusters : clusters);
    volume.freeClusters = volume.totalClusters / 2;
    FakePlatform::fillNtfsData(volume, geometry.bytesPerFileRecord);
    volume.extents = {
        {0, geometry.volumeOffset, std::uint64_t(volume.totalClusters) * clusterBytes}};

    std::vector<platform::RetrievalRun> runs;
    std::int64_t vcn = 0;
    for (const FakeMftGeometry::Run& run : geometry.mftRuns) {
        vcn += static_cast<std::int64_t>(run.clusters);
        runs.push_back({vcn, run.lcn});
    }
    m_fake.addFile('C', "\\$MFT", runs);
}

std::uint64_t FakeMftDrive::runOffset(std::size_t run) const {
    return m_geometry.volumeOffset +
           static_cast<std::uint64_t>(m_geometry.mftRuns.at(run).lcn) * bytesPerCluster();
}

std::uint64_t FakeMftDrive::recordOffset(std::uint64_t index) const {
    std::uint64_t byte = index * m_geometry.bytesPerFileRecord;
    for (std::size_t run = 0; run < m_geometry.mftRuns.size(); ++run) {
        const std::uint64_t runBytes = m_geometry.mftRuns[run].clusters * bytesPerCluster();
        if (byte < runBytes)
            return runOffset(run) + byte;
        byte -= runBytes;
    }
    throw std::runtime_error("record beyond the MFT's runs");
}

void FakeMftDrive::writeRecord(std::uint64_t index, const RecordSpec& spec) {
    writeBytes(recordOffset(index), buildRecord(m_geometry.bytesPerFileRecord, spec));
}

void FakeMftDrive::writeBytes(std::uint64_t offset, const std::vector<std::uint8_t>& bytes) {
    std::vector<std::uint8_t>& disk = m_fake.disk(0).bytes;
    if (offset + bytes.size() > disk.size())
        throw std::runtime_error("write beyond the fake disk");
    std::memcpy(disk.data() + offset, bytes.data(), bytes.size());
}

} // namespace kestrow::test::mft
