// Where the NTFS structures of a fixture image lie, found once per image and
// process: the geometry and the $MFT's and $Bitmap's clusters from The Sleuth
// Kit (fsstat, istat), a few named records (ifind), and the rest read from the
// raw bytes (record headers, attributes, INDX blocks), so that corruptions can
// be aimed at real structures.
#pragma once

#include "support/Fixtures.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kestrow::test::hardening {

// The update sequence stride of FILE records and INDX blocks.
inline constexpr std::uint32_t kFixupStride = 512;

class ImageMap {
public:
    // The map of a fixture image (built on first use; thread-safe).
    static const ImageMap& of(FixtureImage image);

    const ImageFacts& facts() const { return *m_facts; }
    const std::filesystem::path& path() const { return m_path; }
    std::uint64_t imageSize() const { return m_imageSize; }
    std::uint64_t volumeOffset() const { return m_facts->volumeOffset; }
    std::uint32_t sectorSize() const { return m_facts->bytesPerSector; }
    std::uint32_t clusterSize() const { return m_clusterSize; }
    std::uint32_t recordSize() const { return m_recordSize; }
    std::uint64_t totalClusters() const { return m_totalClusters; }
    std::uint64_t recordSlots() const { return m_recordSlots; }

    // Volume clusters of the $MFT's data and of $Bitmap's data, by VCN.
    const std::vector<std::uint64_t>& mftClusters() const { return m_mftClusters; }
    const std::vector<std::uint64_t>& bitmapClusters() const { return m_bitmapClusters; }

    // In-use base records; the directories among them; records whose
    // attributes include a resident $ATTRIBUTE_LIST; in-use extension records.
    const std::vector<std::uint64_t>& inUseRecords() const { return m_inUse; }
    const std::vector<std::uint64_t>& directories() const { return m_directories; }
    const std::vector<std::uint64_t>& attributeListRecords() const { return m_attributeLists; }
    const std::vector<std::uint64_t>& extensionRecords() const { return m_extensions; }
    // Image offsets of the INDX blocks (found at every sector start).
    const std::vector<std::uint64_t>& indexBlocks() const { return m_indexBlocks; }

    // The record of a path ('/' between names) when the image has it.
    std::optional<std::uint64_t> record(const std::string& path) const;
    // The first volume cluster of the unnamed $DATA of Docs/report.bin, when
    // the image has the file.
    std::optional<std::uint64_t> reportCluster() const { return m_reportCluster; }

    // Image offset of byte `byte` of MFT record `record` (a record may be
    // split over clusters that do not follow each other).
    std::uint64_t recordByteOffset(std::uint64_t record, std::uint64_t byte) const;
    // Record `record` as stored (update sequence not applied) in `image`, a
    // copy of this fixture or the fixture itself.
    std::vector<std::uint8_t> readRecord(const std::filesystem::path& image,
                                         std::uint64_t record) const;

private:
    explicit ImageMap(FixtureImage image);

    const ImageFacts* m_facts = nullptr;
    std::filesystem::path m_path;
    std::uint64_t m_imageSize = 0;
    std::uint32_t m_clusterSize = 0;
    std::uint32_t m_recordSize = 0;
    std::uint64_t m_totalClusters = 0;
    std::uint64_t m_recordSlots = 0;
    std::vector<std::uint64_t> m_mftClusters;
    std::vector<std::uint64_t> m_bitmapClusters;
    std::vector<std::uint64_t> m_inUse;
    std::vector<std::uint64_t> m_directories;
    std::vector<std::uint64_t> m_attributeLists;
    std::vector<std::uint64_t> m_extensions;
    std::vector<std::uint64_t> m_indexBlocks;
    std::map<std::string, std::uint64_t> m_named;
    std::optional<std::uint64_t> m_reportCluster;
};

// A copy of a multi-sector structure with its update sequence applied: what
// the stored bytes mean. Unchanged when the array does not fit.
std::vector<std::uint8_t> withFixupsApplied(std::span<const std::uint8_t> block);

// Where byte `byte` of a multi-sector structure is really kept: the last two
// bytes of each stride hold the update sequence number, their value lives in
// the update sequence array. Patching there keeps the structure whole.
std::uint32_t storedByteOffset(std::span<const std::uint8_t> block, std::uint32_t byte);

std::uint16_t le16(std::span<const std::uint8_t> bytes, std::size_t at);
std::uint32_t le32(std::span<const std::uint8_t> bytes, std::size_t at);
std::uint64_t le64(std::span<const std::uint8_t> bytes, std::size_t at);

} // namespace kestrow::test::hardening
