// Hand-built NTFS FILE records and a scripted drive that holds an MFT made of
// them, for the tests that run MasterFileTable on the fake platform.
#pragma once

#include "support/FakePlatform.h"
#include "support/RecordBytes.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kestrow::test::mft {

// What one hand-built record holds. Attributes are written in this order:
// $FILE_NAME (when `name` is set), $ATTRIBUTE_LIST (when `extensionRecords`
// is not empty), an unnamed $DATA (resident with `residentDataLength` bytes,
// or non-resident over `dataRun`), then the end marker.
struct RecordSpec {
    bool inUse = true;
    bool directory = false;
    std::optional<std::u16string> name;
    std::uint64_t parent = 5;
    std::uint16_t parentSequence = 0;
    std::vector<std::uint64_t> extensionRecords;
    std::optional<std::uint32_t> residentDataLength;
    struct Run {
        std::uint32_t lcn;   // volume cluster
        std::uint32_t count; // clusters
    };
    std::optional<Run> dataRun;
};

// A FILE record of `recordSize` bytes (update sequence array left as zeros:
// the library never applies it).
std::vector<std::uint8_t> buildRecord(std::uint32_t recordSize, const RecordSpec& spec);

// A fake NTFS volume C: on disk 0 whose $MFT lies in the given runs.
struct FakeMftGeometry {
    std::uint32_t bytesPerSector = 512;
    std::uint32_t sectorsPerCluster = 1;
    std::uint32_t bytesPerFileRecord = 1024;
    std::uint64_t volumeOffset = 1 << 20; // on disk 0
    std::uint64_t diskSize = 16 << 20;
    std::uint32_t totalClusters = 0; // 0: what fits on the disk after the offset, or
                                     // more, to hold the MFT runs
    struct Run {
        std::int64_t lcn; // volume cluster; -1 for a sparse run
        std::uint64_t clusters;
    };
    std::vector<Run> mftRuns;
};

class FakeMftDrive {
public:
    explicit FakeMftDrive(const FakeMftGeometry& geometry);

    FakePlatform& fake() { return m_fake; }
    const FakeMftGeometry& geometry() const { return m_geometry; }

    std::uint32_t bytesPerCluster() const {
        return m_geometry.bytesPerSector * m_geometry.sectorsPerCluster;
    }
    // The disk byte offset of MFT record `index` (by its position in the runs).
    std::uint64_t recordOffset(std::uint64_t index) const;
    // The disk byte offset of the first byte of MFT run `run`.
    std::uint64_t runOffset(std::size_t run) const;
    // The first absolute sector of MFT run `run`.
    std::uint64_t runStartSector(std::size_t run) const {
        return runOffset(run) / m_geometry.bytesPerSector;
    }

    // Writes a record into its slot on the disk.
    void writeRecord(std::uint64_t index, const RecordSpec& spec);
    // Writes raw bytes at a disk offset.
    void writeBytes(std::uint64_t offset, const std::vector<std::uint8_t>& bytes);

private:
    FakeMftGeometry m_geometry;
    FakePlatform m_fake;
};

} // namespace kestrow::test::mft
