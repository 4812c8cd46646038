#include "MftOnlyDrive.h"

#include <algorithm>
#include <cstring>

#if !defined(_WIN32)
#include <sys/mman.h>
#include <unistd.h>
#endif

namespace kestrow::platform::disk {

MftOnlyDrive::MftOnlyDrive(std::shared_ptr<const ByteSource> mftFile,
                           const std::vector<DataRun>& runs, std::uint64_t clusterSize,
                           std::uint64_t size)
    : m_file(std::move(mftFile)), m_clusterSize(clusterSize), m_size(size) {
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

DWORD MftOnlyDrive::mapReadOnly(std::uint64_t offset, std::size_t length,
                                MappedBytes& mapped) const {
    const Piece* piece = pieceAt(offset);
    if (length == 0 || offset > m_size || length > m_size - offset)
        return ERROR_INVALID_PARAMETER;
    if (piece != nullptr) {
        const std::uint64_t within = offset - piece->driveOffset;
        const std::uint64_t fileOffset = piece->fileOffset + within;
        if (length <= piece->length - within && fileOffset <= m_file->size() &&
            length <= m_file->size() - fileOffset)
            return m_file->mapReadOnly(fileOffset, length, mapped);
    }
    return mapAcrossPieces(offset, length, mapped);
}

// A view that starts before a run of the MFT, or spans several, is put
// together from the file's pages mapped into place over zeros: what lies
// outside the runs shows zeros. A view is only looked at where a read of the
// drive would succeed (the MFT's own records), so those zeros are never
// taken for the volume's data. Possible where clusters are whole pages.
DWORD MftOnlyDrive::mapAcrossPieces(std::uint64_t offset, std::size_t length,
                                    MappedBytes& mapped) const {
#if defined(_WIN32)
    (void)offset;
    (void)length;
    (void)mapped;
    return ERROR_NOT_SUPPORTED;
#else
    const auto page = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
    if (!m_file->mappable() || m_clusterSize % page != 0 || offset % page != 0)
        return ERROR_NOT_SUPPORTED;
    const std::size_t span = static_cast<std::size_t>((length + page - 1) / page * page);
    void* base = ::mmap(nullptr, span, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (base == MAP_FAILED)
        return ERROR_NOT_ENOUGH_MEMORY;
    mapped = MappedBytes{base, span, static_cast<const std::uint8_t*>(base)};
    const std::uint64_t end = offset + length;
    for (const Piece& piece : m_pieces) {
        const std::uint64_t from = std::max(offset, piece.driveOffset);
        const std::uint64_t to = std::min(end, piece.driveOffset + piece.length);
        const std::uint64_t fileOffset = piece.fileOffset + (from - piece.driveOffset);
        if (from >= to || fileOffset >= m_file->size())
            continue;
        const std::size_t bytes =
            static_cast<std::size_t>(std::min(to - from, m_file->size() - fileOffset));
        if (m_file->mapReadOnlyAt(fileOffset, bytes,
                                  static_cast<std::uint8_t*>(base) + (from - offset)) != 0) {
            unmapBytes(mapped);
            mapped = MappedBytes{};
            return ERROR_NOT_SUPPORTED;
        }
    }
    return 0;
#endif
}

} // namespace kestrow::platform::disk
