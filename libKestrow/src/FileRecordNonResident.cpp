// FileRecord: non-resident attributes, their run lists and cluster ranges.
#include <libKestrow/FileRecord.h>

#include "FileRecordInternals.h"

#include <orv/Format.h>

using namespace kestrow::ntfs;

namespace kestrow::filerecord {

namespace {

constexpr orv::LOGGER_PRIORITY DIAGNOSTIC = orv::LoggerPriority::LP_DEBUG;

void logLine(const char* text) {
    if (orv::Logger* logger = diagnosticsLogger())
        logger->log(DIAGNOSTIC, orv::LoggerStream() << text);
}

// Reads `width` (at most 8) little-endian bytes into a zero-filled number.
std::uint64_t readLittleEndian(const unsigned char* bytes, unsigned int width) noexcept {
    std::uint64_t value = 0;
    for (unsigned int i = 0; i < width; ++i)
        value |= std::uint64_t(bytes[i]) << (8 * i);
    return value;
}

} // namespace

orv::Buffer<unsigned char> extractRunBytes(const NonResidentAttributeHeader& attribute,
                                           unsigned int bytesPerFileRecord) {
    orv::Buffer<unsigned char> runBytes;
    const std::uint32_t length = attribute.length();
    if (length > bytesPerFileRecord) {
        logLine("127 Found invalid attribute length");
        return runBytes;
    }
    // A run-list offset at or past the attribute's end leaves no bytes between
    // the two. Run bytes that would reach past the record are a read outside
    // it: the attribute walk ends there.
    const std::uint16_t first = attribute.runListOffset();
    if (first >= length)
        return runBytes;
    attribute.require(first, length - first);
    runBytes.assign(attribute.start() + first, length - first);
    return runBytes;
}

orv::Array<ClusterRange> decodeRunList(const unsigned char* runBytes, std::uint64_t size,
                                       std::uint64_t maxClusters) {
    orv::Array<ClusterRange> runs;
    if (runBytes == nullptr || size == 0) {
        logLine("150 Empty data runs");
        return runs;
    }
    if (orv::Logger* logger = diagnosticsLogger())
        logger->log(DIAGNOSTIC, orv::LoggerStream()
                                    << "160 "
                                    << "maxClusters: " << (unsigned long long)maxClusters);

    std::uint64_t totalClusters = 0;
    std::uint64_t currentCluster = 0;
    std::uint64_t position = 0;
    // A list without its end marker ends where its bytes end: the header byte
    // after them would be the first read outside.
    while (position < size) {
        const unsigned char header = runBytes[position];
        if (header == 0)
            return runs;
        const unsigned int lengthBytes = header & 0x0F;
        const unsigned int offsetBytes = header >> 4;
        if (lengthBytes == 0 || lengthBytes > 7) {
            logLine("166 Invalid length data to parse");
            return runs;
        }
        if (position + 1 + lengthBytes + offsetBytes > size) {
            logLine("171 Data run extends beyond buffer");
            return runs;
        }
        const unsigned char* field = runBytes + position + 1;
        const std::uint64_t count = readLittleEndian(field, lengthBytes);
        if (orv::Logger* logger = diagnosticsLogger())
            logger->log(DIAGNOSTIC, orv::LoggerStream()
                                        << "182 "
                                        << orv::SprintfFormat("%012I64Xh clusters", count));

        // Guard: a total that would wrap past 2^64 counts as above maxClusters.
        const bool wraps = count > ~std::uint64_t(0) - totalClusters;
        totalClusters += count;
        if (count == 0 || wraps || totalClusters > maxClusters) {
            if (orv::Logger* logger = diagnosticsLogger())
                logger->log(DIAGNOSTIC, orv::LoggerStream() << "187 "
                                                            << "Invalid sector count length: "
                                                            << (unsigned long long)count);
            return runs;
        }

        if (offsetBytes == 0) {
            // A sparse run has no clusters on disk; its count stays in the total.
            logLine("229 (sparse data)");
        } else {
            if (offsetBytes >= 8) {
                logLine("196 Invalid offset data to parse");
                return runs;
            }
            std::uint64_t offset = readLittleEndian(field + lengthBytes, offsetBytes);
            if (offset == 0) {
                logLine("204 Found non-sparse data runs with no sector offset");
                return runs;
            }
            if (orv::Logger* logger = diagnosticsLogger())
                logger->log(DIAGNOSTIC, orv::LoggerStream()
                                            << "208 "
                                            << orv::SprintfFormat("VCN offset %012I64Xh ", offset));
            // The offset is signed over its own bytes: extend its sign to 64 bits.
            if (field[lengthBytes + offsetBytes - 1] & 0x80)
                offset |= ~std::uint64_t(0) << (8 * offsetBytes);
            currentCluster += offset;
            if (orv::Logger* logger = diagnosticsLogger())
                logger->log(DIAGNOSTIC,
                            orv::LoggerStream()
                                << "223 "
                                << orv::SprintfFormat("Cluster %012I64Xh", currentCluster));
            runs.append(ClusterRange(count, currentCluster));
        }
        position += 1 + lengthBytes + offsetBytes;
    }
    return runs;
}

} // namespace kestrow::filerecord

namespace {

const orv::String& nonResidentTypeName(std::uint32_t typeCode) {
    static const orv::String ATTRIBUTE_LIST = ORV_LITERAL("$ATTRIBUTE_LIST");
    static const orv::String SECURITY_DESCRIPTOR = ORV_LITERAL("$SECURITY_DESCRIPTOR");
    static const orv::String DATA = ORV_LITERAL("$DATA");
    static const orv::String INDEX_ALLOCATION = ORV_LITERAL("$INDEX_ALLOCATION");
    static const orv::String BITMAP = ORV_LITERAL("$BITMAP");
    static const orv::String REPARSE_POINT = ORV_LITERAL("$REPARSE_POINT");
    static const orv::String EA_INFORMATION = ORV_LITERAL("$EA_INFORMATION");
    static const orv::String EA = ORV_LITERAL("$EA");
    static const orv::String LOGGED_UTILITY_STREAM = ORV_LITERAL("$LOGGED_UTILITY_STREAM");
    switch (typeCode) {
    case AttributeType::ATTRIBUTE_LIST:
        return ATTRIBUTE_LIST;
    case AttributeType::SECURITY_DESCRIPTOR:
        return SECURITY_DESCRIPTOR;
    case AttributeType::DATA:
        return DATA;
    case AttributeType::INDEX_ALLOCATION:
        return INDEX_ALLOCATION;
    case AttributeType::BITMAP:
        return BITMAP;
    case AttributeType::REPARSE_POINT:
        return REPARSE_POINT;
    case AttributeType::EA_INFORMATION:
        return EA_INFORMATION;
    case AttributeType::EA:
        return EA;
    case AttributeType::LOGGED_UTILITY_STREAM:
        return LOGGED_UTILITY_STREAM;
    default:
        return orv::String::EMPTY();
    }
}

// True when the run lies inside the volume.
bool insideVolume(const ClusterRange& run, unsigned long long totalClusters) {
    return run.count <= totalClusters && run.start <= totalClusters;
}

} // namespace

void FileRecord::processNonResidentAttribute(const NonResidentAttributeHeader* attribute,
                                             AttributeSummary& summary) {
    using kestrow::filerecord::diagnosticsLogger;
    constexpr orv::LOGGER_PRIORITY DIAGNOSTIC = orv::LoggerPriority::LP_DEBUG;

    m_allocatedSize = attribute->allocatedSize() & SIZE_MASK_44;
    m_realSize = attribute->realSize() & SIZE_MASK_44;
    summary.resident = false;

    const Volume& volume = *m_volume;
    orv::Buffer<unsigned char> runBytes =
        kestrow::filerecord::extractRunBytes(*attribute, volume.m_bytesPerFileRecord);
    // Guard: a volume without cluster geometry allows no clusters rather than
    // dividing by zero.
    const unsigned long long maxClusters =
        volume.m_bytesPerCluster != 0 ? m_allocatedSize / volume.m_bytesPerCluster : 0;
    orv::Array<ClusterRange> runs = kestrow::filerecord::decodeRunList(runBytes, maxClusters);

    // The base cluster is the volume's first cluster on its disk. It needs the
    // volume's single disk extent: on a volume without one, taking the first
    // extent is the array's assertion, raised here as soon as it is needed.
    bool haveBase = false;
    unsigned long long base = 0;
    auto baseCluster = [&]() {
        if (!haveBase) {
            const unsigned long long startingOffset = volume.getVolumeExtents()[0].startingOffset;
            base = volume.m_bytesPerCluster != 0 ? startingOffset / volume.m_bytesPerCluster : 0;
            haveBase = true;
        }
        return base;
    };
    if (orv::Logger* logger = diagnosticsLogger())
        logger->log(DIAGNOSTIC, orv::LoggerStream() << "406 "
                                                    << "Base cluster offset: "
                                                    << (unsigned long long)baseCluster());

    bool runOutsideVolume = false;
    for (ClusterRange& run : runs) {
        run.start += baseCluster();
        if (!insideVolume(run, volume.m_totalClusters)) {
            runOutsideVolume = true;
            break;
        }
        m_clusterRanges.append(run);
    }
    if (runOutsideVolume) {
        if (orv::Logger* logger = diagnosticsLogger()) {
            logger->log(DIAGNOSTIC, orv::LoggerStream() << "412 "
                                                        << "Found invalid data runs at MFT index "
                                                        << (unsigned long long)m_mftIndex.index);
            logger->log(DIAGNOSTIC,
                        orv::LoggerStream()
                            << "413 "
                            << "Attribute:\n"
                            << orv::HexDumpFormat(attribute->start(), attribute->length(), 3, 0)
                                   .toString());
            logger->log(DIAGNOSTIC,
                        orv::LoggerStream()
                            << "415 "
                            << "Data Runs:\n"
                            << orv::HexDumpFormat(runBytes.data(),
                                                  static_cast<unsigned int>(runBytes.size()), 3, 0)
                                   .toString());
        }
    }

    const std::uint32_t type = attribute->typeCode();
    summary.name = nonResidentTypeName(type);
    switch (type) {
    case AttributeType::ATTRIBUTE_LIST:
        // The list's value lies on disk and is not read: the walk goes over the
        // bytes after the header (the run list) as if they were entries. Kept as
        // designed; extension records are gathered by the MFT side.
        FileRecordParser::collectAttributeListEntries(*this, *attribute,
                                                      AttributeListEntry::NON_RESIDENT_FIRST_ENTRY +
                                                          attribute->nameLength());
        break;
    case AttributeType::DATA:
        if (attribute->nameLength() == 0)
            m_dataSize = m_realSize;
        break;
    case AttributeType::INDEX_ALLOCATION:
        if (attribute->isNamedI30()) {
            for (const ClusterRange& run : runs) {
                if (!insideVolume(run, volume.m_totalClusters))
                    break;
                m_indexAllocationRanges.append(run);
            }
        }
        break;
    default:
        break;
    }
}
