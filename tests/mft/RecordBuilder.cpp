#include "RecordBuilder.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace kestrow::test::mft {

namespace {

void put16(std::vector<std::uint8_t>& b, std::size_t at, std::uint16_t v) {
    b[at] = static_cast<std::uint8_t>(v);
    b[at + 1] = static_cast<std::uint8_t>(v >> 8);
}
void put32(std::vector<std::uint8_t>& b, std::size_t at, std::uint32_t v) {
    for (int i = 0; i < 4; ++i)
        b[at + i] = static_cast<std::uint8_t>(v >> (8 * i));
}
void put64(std::vector<std::uint8_t>& b, std::size_t at, std::uint64_t v) {
    for (int i = 0; i < 8; ++i)
        b[at + i] = static_cast<std::uint8_t>(v >> (8 * i));
}

std::size_t align8(std::size_t n) {
    return (n + 7) & ~std::size_t(7);
}

// A resident attribute of `type` with `valueLength` value bytes at 0x18;
// returns the attribute's offset. The caller fills the value.
std::size_t addResident(std::vector<std::uint8_t>& record, std::size_t& at, std::uint32_t type,
                        std::uint32_t valueLength) {
    const std::size_t length = align8(0x18 + valueLength);
    if (at + length + 8 > record.size())
        throw std::runtime_error("hand-built record does not fit");
    put32(record, at, type);
    put32(record, at + 0x04, static_cast<std::uint32_t>(length));
    record[at + 0x08] = 0; // resident
    record[at + 0x09] = 0; // no name
    put16(record, at + 0x0A, 0x18);
    put32(record, at + 0x10, valueLength);
    put16(record, at + 0x14, 0x18);
    const std::size_t attribute = at;
    at += length;
    return attribute;
}

} // namespace

std::vector<std::uint8_t> buildRecord(std::uint32_t recordSize, const RecordSpec& spec) {
    std::vector<std::uint8_t> record(recordSize, 0);
    std::memcpy(record.data(), "FILE", 4);
    put16(record, 0x04, 0x30);                                             // update sequence offset
    put16(record, 0x06, static_cast<std::uint16_t>(recordSize / 512 + 1)); // its count
    put16(record, 0x10, 1);                                                // sequence number
    put16(record, 0x12, 1);                                                // hard links
    const std::size_t firstAttribute = align8(0x30 + 2 * (recordSize / 512 + 1));
    put16(record, 0x14, static_cast<std::uint16_t>(firstAttribute));
    put16(record, 0x16,
          static_cast<std::uint16_t>((spec.inUse ? 1 : 0) | (spec.directory ? 2 : 0)));
    put32(record, 0x1C, recordSize);

    std::size_t at = firstAttribute;
    if (spec.name) {
        const std::u16string& name = *spec.name;
        const std::uint32_t valueLength = static_cast<std::uint32_t>(0x42 + 2 * name.size());
        const std::size_t a = addResident(record, at, 0x30, valueLength);
        put64(record, a + 0x18,
              (spec.parent & 0xFFFFFFFFFFFFULL) | (std::uint64_t(spec.parentSequence) << 48));
        put64(record, a + 0x20, 0x01D0000000000001ULL); // creation
        put64(record, a + 0x28, 0x01D0000000000002ULL); // modification
        put64(record, a + 0x38, 0x01D0000000000003ULL); // last access
        put32(record, a + 0x50, spec.directory ? 0x10000000u : 0x20u);
        record[a + 0x58] = static_cast<std::uint8_t>(name.size());
        record[a + 0x59] = 1; // WIN32 name space
        for (std::size_t i = 0; i < name.size(); ++i)
            put16(record, a + 0x5A + 2 * i, static_cast<std::uint16_t>(name[i]));
    }
    if (!spec.extensionRecords.empty()) {
        const std::uint32_t entry = 0x20;
        const std::size_t a = addResident(
            record, at, 0x20, static_cast<std::uint32_t>(entry * spec.extensionRecords.size()));
        for (std::size_t i = 0; i < spec.extensionRecords.size(); ++i) {
            const std::size_t e = a + 0x18 + i * entry;
            put32(record, e, 0x80);
            put16(record, e + 0x04, static_cast<std::uint16_t>(entry));
            put64(record, e + 0x10, spec.extensionRecords[i]);
        }
    }
    if (spec.residentDataLength) {
        addResident(record, at, 0x80, *spec.residentDataLength);
    } else if (spec.dataRun) {
        // Non-resident unnamed $DATA: one run, 4-byte length and offset.
        const std::size_t length = align8(0x40 + 1 + 4 + 4 + 1);
        if (at + length + 8 > record.size())
            throw std::runtime_error("hand-built record does not fit");
        put32(record, at, 0x80);
        put32(record, at + 0x04, static_cast<std::uint32_t>(length));
        record[at + 0x08] = 1;
        put16(record, at + 0x0A, 0x40);
        put64(record, at + 0x18, spec.dataRun->count - 1);
        put16(record, at + 0x20, 0x40);
        // The decoder refuses runs beyond allocated size / cluster size: an
        // allocated size of 64 KiB per cluster passes with any cluster size.
        put64(record, at + 0x28, std::uint64_t(spec.dataRun->count) * 65536);
        put64(record, at + 0x30, std::uint64_t(spec.dataRun->count) * 512);
        put64(record, at + 0x38, std::uint64_t(spec.dataRun->count) * 512);
        record[at + 0x40] = 0x44;
        put32(record, at + 0x41, spec.dataRun->count);
        put32(record, at + 0x45, spec.dataRun->lcn);
        at += length;
    }
    put32(record, at, 0xFFFFFFFFu);
    put32(record, 0x18, static_cast<std::uint32_t>(at + 8)); // bytes in use
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
