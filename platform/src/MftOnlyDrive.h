// The drive of a volume of which only the MFT is at hand: a file that holds
// an extracted $MFT, laid out on the drive where the MFT's own runs put it.
// The MFT's clusters read from the file; every other cluster of the volume
// is not in the file, and reading it fails as a drive that cannot deliver
// the sector does.
#pragma once

#include "ByteSource.h"
#include "Ntfs.h"

#include <memory>
#include <vector>

namespace kestrow::platform::disk {

class MftOnlyDrive final : public ByteSource {
public:
    // `runs` are the MFT's runs (none sparse, none overlapping another); the
    // drive holds the volume from its first byte and is `size` bytes long.
    MftOnlyDrive(std::shared_ptr<const ByteSource> mftFile, const std::vector<DataRun>& runs,
                 std::uint64_t clusterSize, std::uint64_t size);

    std::uint64_t size() const override { return m_size; }
    ReadResult readAt(std::uint64_t offset, void* buffer, std::size_t length) const override;

    // What a read of a cluster the file does not hold fails with.
    static constexpr DWORD kMissingClusterError = ERROR_NOT_READY;

private:
    // One MFT run as a byte range of the drive and where it starts in the file.
    struct Piece {
        std::uint64_t driveOffset = 0;
        std::uint64_t length = 0;
        std::uint64_t fileOffset = 0;
    };
    // The piece holding drive byte `offset`, or null.
    const Piece* pieceAt(std::uint64_t offset) const;

    std::shared_ptr<const ByteSource> m_file;
    std::vector<Piece> m_pieces; // by drive offset
    std::uint64_t m_size;
};

} // namespace kestrow::platform::disk
