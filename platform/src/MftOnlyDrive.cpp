#include "MftOnlyDrive.h"

#include <algorithm>
#include <cstring>

namespace kestrow::platform::disk {

MftOnlyDrive::MftOnlyDrive(std::shared_ptr<const ByteSource> mftFile,
                           const std::vector<DataRun>& runs, std::uint64_t clusterSize,
                           std::uint64_t size)
    : m_file(std::move(mftFile)), m_size(size) {
    for (const DataRun& run : runs)
        m_pieces.push_back({static_cast<std::uint64_t>(run.lcn) * clusterSize,
                            run.length * clusterSize, run.vcn * clusterSize});
    std::sort(m_pieces.begin(), m_pieces.end(),
              [](const Piece& a, const Piece& b) { return a.driveOffset < b.driveOffset; });
}

const MftOnlyDrive::Piece* MftOnlyDrive::pieceAt(std::uint64_t offset) const {
    auto after = std::upper_bound(
        m_pieces.begin(), m_pieces.end(), offset,
        [](std::uint64_t value, const Piece& piece) { return value < piece.driveOffset; });
    if (after == m_pieces.begin())
        return nullptr;
    const Piece& piece = *std::prev(after);
    return offset - piece.driveOffset < piece.length ? &piece : nullptr;
}

ReadResult MftOnlyDrive::readAt(std::uint64_t offset, void* buffer, std::size_t length) const {
    if (offset >= m_size)
        return {};
    const std::size_t wanted =
        static_cast<std::size_t>(std::min<std::uint64_t>(length, m_size - offset));
    auto* out = static_cast<std::uint8_t*>(buffer);
    // A read that touches one sector the file lacks fails whole, as a drive
    // fails a request with an unreadable sector in it.
    for (std::size_t done = 0; done < wanted;) {
        const Piece* piece = pieceAt(offset + done);
        if (piece == nullptr)
            return {0, kMissingClusterError};
        const std::uint64_t within = offset + done - piece->driveOffset;
        const std::size_t chunk = static_cast<std::size_t>(
            std::min<std::uint64_t>(wanted - done, piece->length - within));
        // The MFT's clusters past the end of the file (its allocation beyond
        // its data) read as zeros.
        const ReadResult got = m_file->readAt(piece->fileOffset + within, out + done, chunk);
        if (got.error != 0)
            return {0, got.error};
        std::memset(out + done + got.bytes, 0, chunk - got.bytes);
        done += chunk;
    }
    return {wanted, 0};
}

} // namespace kestrow::platform::disk
