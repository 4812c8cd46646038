#include "ExtractedMft.h"

#include "MftOnlyDrive.h"

#include <algorithm>

namespace kestrow::platform::disk {

namespace {

constexpr std::uint32_t kPlainSectorSize = 512;
constexpr std::uint32_t kMinRecordSize = 512;
constexpr std::uint32_t kMaxRecordSize = 65536;
constexpr std::uint32_t kMinSectorSize = 256;
constexpr std::uint32_t kMaxSectorSize = 4096;
constexpr std::uint64_t kMaxClusterSize = 2u << 20; // NTFS's largest, 2 MiB
constexpr std::uint64_t kMaxClusters = 0xFFFFFFFFu; // NTFS's limit
const std::u16string kMftName = u"$MFT";
const std::u16string kBadClustersStream = u"$Bad";
constexpr std::uint64_t kBadClustersRecord = 8;
constexpr std::uint64_t kMftMirrorRecord = 1;

bool isPowerOfTwo(std::uint64_t value) {
    return value != 0 && (value & (value - 1)) == 0;
}

std::string number(std::uint64_t value) {
    return std::to_string(value);
}

std::string utf8(const std::u16string& text) {
    std::string out;
    for (char16_t unit : text) {
        if (unit < 0x80)
            out.push_back(static_cast<char>(unit));
        else
            out += '?'; // a refusal names only what it can show plainly
    }
    return out;
}

std::u16string nameOf(const NtfsAttribute& fileNameAttribute) {
    const LeView value(fileNameAttribute.value.data(), fileNameAttribute.value.size());
    return utf16At(value, fileName::kName, value.u8(fileName::kNameLength));
}

// What the records say about the volume they came from.
struct Geometry {
    std::uint32_t recordSize = 0;
    std::uint32_t sectorSize = 0;
    std::uint64_t clusterSize = 0;
    std::uint64_t records = 0;
    std::uint64_t totalClusters = 0;
    const char* totalClustersFrom = "";
    std::vector<DataRun> mftRuns;
    std::uint64_t mftMirrorLcn = 0;
};

// The record size and sector size from record 0's header. The update
// sequence array has one entry per sector of the record, plus one.
bool readRecordHeader(const ByteSource& file, Geometry& geometry, std::string& problem) {
    std::uint8_t header[fileRecord::kBaseRecord] = {};
    if (file.readExactly(0, header, sizeof header) != 0) {
        problem = "the file ends inside the header of record 0";
        return false;
    }
    const LeView view(header, sizeof header);
    const std::uint32_t recordSize = view.u32(fileRecord::kBytesAllocated);
    const std::uint16_t usaCount = view.u16(fileRecord::kUsaCount);
    if (!isPowerOfTwo(recordSize) || recordSize < kMinRecordSize || recordSize > kMaxRecordSize) {
        problem = "record 0 gives a record size of " + number(recordSize) + " bytes";
        return false;
    }
    const std::uint32_t sectorSize = usaCount > 1 ? recordSize / (usaCount - 1u) : 0;
    if (usaCount < 2 || sectorSize * (usaCount - 1u) != recordSize || !isPowerOfTwo(sectorSize) ||
        sectorSize < kMinSectorSize || sectorSize > kMaxSectorSize) {
        problem = "sizes contradict: record 0 has " + number(recordSize) +
                  " bytes and an update sequence of " + number(usaCount) + " entries";
        return false;
    }
    if (view.u32(fileRecord::kBytesInUse) > recordSize) {
        problem = "sizes contradict: record 0 uses more bytes than its size";
        return false;
    }
    const std::uint64_t fileSize = file.size();
    if (fileSize % recordSize != 0) {
        problem = "the file ends inside record " + number(fileSize / recordSize) + " (" +
                  number(fileSize) + " bytes with " + number(recordSize) + "-byte records)";
        return false;
    }
    geometry.recordSize = recordSize;
    geometry.sectorSize = sectorSize;
    geometry.records = fileSize / recordSize;
    return true;
}

// Every record read from the file, one after the other, before the cluster
// size is known: a volume whose clusters are records and whose MFT is one
// run from cluster 0.
std::shared_ptr<const NtfsVolume> recordsOf(std::shared_ptr<const ByteSource> file,
                                            const Geometry& geometry) {
    BootSector boot;
    boot.kind = FileSystemKind::Ntfs;
    boot.bytesPerSector = geometry.sectorSize;
    boot.sectorsPerCluster = geometry.recordSize / geometry.sectorSize;
    boot.totalClusters = geometry.records;
    boot.totalSectors = geometry.records * boot.sectorsPerCluster;
    boot.bytesPerFileRecord = geometry.recordSize;
    return NtfsVolume::mountWithMftRuns(std::move(file), boot, {{0, geometry.records, 0}});
}

// A list kept outside the record lies in clusters the file does not hold,
// and with it the runs of the MFT that its extension records keep.
bool checkRunsAreInTheRecords(const std::vector<NtfsAttribute>& attributes, std::string& problem) {
    const NtfsAttribute* list = findAttribute(attributes, attr::kAttributeList, u"");
    if (list != nullptr && list->nonResident) {
        problem = "record 0's attribute list lies outside the MFT, so its runs are not all known";
        return false;
    }
    return true;
}

bool checkRecordZeroIsMft(const NtfsVolume& records, std::vector<NtfsAttribute>& attributes,
                          std::string& problem) {
    std::vector<std::uint8_t> record;
    const DWORD error = records.readRecord(0, record);
    if (error == 0)
        records.attributes(0, attributes);
    if (error != 0) {
        problem = "record 0 is damaged (its update sequence check fails)";
        return false;
    }
    if ((LeView(record.data(), record.size()).u16(fileRecord::kFlags) & fileRecord::kInUse) == 0) {
        problem = "record 0 is not in use";
        return false;
    }
    std::u16string other;
    for (const NtfsAttribute& attribute : attributes) {
        if (attribute.type != attr::kFileName)
            continue;
        const std::u16string name = nameOf(attribute);
        if (name == kMftName)
            return checkRunsAreInTheRecords(attributes, problem);
        other = name;
    }
    problem = other.empty() ? "record 0 is not $MFT (it has no name)"
                            : "record 0 is not $MFT (it is named \"" + utf8(other) + "\")";
    return false;
}

// The cluster size and the MFT's runs from record 0's $DATA.
bool readMftData(const std::vector<NtfsAttribute>& attributes, std::uint64_t fileSize,
                 Geometry& geometry, std::string& problem) {
    const NtfsAttribute* data = findAttribute(attributes, attr::kData, u"");
    if (data == nullptr || !data->nonResident || data->runs.empty()) {
        problem = "record 0 has no $DATA runs";
        return false;
    }
    std::uint64_t vcn = 0;
    for (const DataRun& run : data->runs) {
        if (run.vcn != vcn || run.lcn < 0) {
            problem = "$MFT's $DATA has a gap in its runs (its attribute list is not in the file)";
            return false;
        }
        vcn += run.length;
    }
    const std::uint64_t clusters = vcn;
    const std::uint64_t clusterSize = data->allocatedSize / clusters;
    if (data->allocatedSize % clusters != 0 || !isPowerOfTwo(clusterSize) ||
        clusterSize < geometry.sectorSize || clusterSize > kMaxClusterSize) {
        problem = "sizes contradict: $MFT's $DATA allocates " + number(data->allocatedSize) +
                  " bytes in " + number(clusters) + " clusters";
        return false;
    }
    if (data->dataSize > data->allocatedSize) {
        problem = "sizes contradict: $MFT's $DATA holds " + number(data->dataSize) +
                  " bytes in an allocation of " + number(data->allocatedSize);
        return false;
    }
    if (fileSize < data->dataSize) {
        problem = "the file holds " + number(fileSize) + " bytes, but $MFT's $DATA holds " +
                  number(data->dataSize) + ": it was cut short";
        return false;
    }
    if (fileSize > data->allocatedSize) {
        problem = "the file holds " + number(fileSize) + " bytes, more than the " +
                  number(data->allocatedSize) + " $MFT's $DATA allocates";
        return false;
    }
    std::vector<DataRun> byCluster = data->runs;
    std::sort(byCluster.begin(), byCluster.end(),
              [](const DataRun& a, const DataRun& b) { return a.lcn < b.lcn; });
    for (std::size_t i = 0; i < byCluster.size(); ++i) {
        const auto lcn = static_cast<std::uint64_t>(byCluster[i].lcn);
        if (lcn > kMaxClusters || byCluster[i].length > kMaxClusters - lcn ||
            (i + 1 < byCluster.size() &&
             lcn + byCluster[i].length > static_cast<std::uint64_t>(byCluster[i + 1].lcn))) {
            problem = "sizes contradict: runs of $MFT's $DATA overlap or pass NTFS's last cluster";
            return false;
        }
    }
    geometry.clusterSize = clusterSize;
    geometry.mftRuns = data->runs;
    return true;
}

std::uint64_t clustersNamedByRuns(const std::vector<NtfsAttribute>& attributes) {
    std::uint64_t end = 0;
    for (const NtfsAttribute& attribute : attributes) {
        for (const DataRun& run : attribute.runs) {
            if (run.lcn >= 0)
                end = std::max(end, static_cast<std::uint64_t>(run.lcn) + run.length);
        }
    }
    return end;
}

// The volume's cluster count: the size of $BadClus:$Bad, which spans the
// volume; else the clusters $Bitmap has bits for; else the largest cluster
// any run of any record names.
void countVolumeClusters(const NtfsVolume& records, Geometry& geometry) {
    std::vector<NtfsAttribute> attributes;
    const NtfsAttribute* bad = nullptr;
    if (records.attributes(kBadClustersRecord, attributes) == 0)
        bad = findAttribute(attributes, attr::kData, kBadClustersStream);
    const std::uint64_t badClusters = bad != nullptr ? bad->dataSize / geometry.clusterSize : 0;
    if (bad != nullptr && bad->nonResident && badClusters != 0 && badClusters <= kMaxClusters) {
        geometry.totalClusters = badClusters;
        geometry.totalClustersFrom = "$BadClus";
    } else {
        const NtfsAttribute* bitmap = nullptr;
        if (records.attributes(record::kBitmap, attributes) == 0)
            bitmap = findAttribute(attributes, attr::kData, u"");
        const std::uint64_t bytes = bitmap == nullptr     ? 0
                                    : bitmap->nonResident ? bitmap->dataSize
                                                          : bitmap->value.size();
        if (bytes != 0 && bytes <= kMaxClusters / 8 + 1) {
            geometry.totalClusters = bytes * 8;
            geometry.totalClustersFrom = "$Bitmap";
        } else {
            for (std::uint64_t index = 0; index < geometry.records; ++index) {
                if (records.attributes(index, attributes) == 0)
                    geometry.totalClusters =
                        std::max(geometry.totalClusters,
                                 std::min(clustersNamedByRuns(attributes), kMaxClusters));
            }
            geometry.totalClustersFrom = "the runs of its records";
        }
    }
    // The drive must hold the MFT itself, whatever the count says.
    for (const DataRun& run : geometry.mftRuns)
        geometry.totalClusters =
            std::max(geometry.totalClusters, static_cast<std::uint64_t>(run.lcn) + run.length);
    if (records.attributes(kMftMirrorRecord, attributes) == 0) {
        const NtfsAttribute* mirror = findAttribute(attributes, attr::kData, u"");
        if (mirror != nullptr && !mirror->runs.empty() && mirror->runs.front().lcn >= 0)
            geometry.mftMirrorLcn = static_cast<std::uint64_t>(mirror->runs.front().lcn);
    }
}

bool inferGeometry(const std::shared_ptr<const ByteSource>& file, Geometry& geometry,
                   std::string& problem) {
    if (!readRecordHeader(*file, geometry, problem))
        return false;
    const auto records = recordsOf(file, geometry);
    std::vector<NtfsAttribute> attributes;
    if (!checkRecordZeroIsMft(*records, attributes, problem) ||
        !readMftData(attributes, file->size(), geometry, problem))
        return false;
    countVolumeClusters(*records, geometry);
    return true;
}

BootSector bootSectorOf(const Geometry& geometry) {
    BootSector boot;
    boot.kind = FileSystemKind::Ntfs;
    boot.bytesPerSector = geometry.sectorSize;
    boot.sectorsPerCluster = static_cast<std::uint32_t>(geometry.clusterSize / geometry.sectorSize);
    boot.totalClusters = geometry.totalClusters;
    boot.totalSectors = geometry.totalClusters * boot.sectorsPerCluster;
    boot.mftLcn = static_cast<std::uint64_t>(geometry.mftRuns.front().lcn);
    boot.mftMirrorLcn = geometry.mftMirrorLcn;
    boot.bytesPerFileRecord = geometry.recordSize;
    return boot;
}

std::string describe(const Geometry& geometry) {
    return number(geometry.records) + " records of " + number(geometry.recordSize) + " bytes, " +
           number(geometry.sectorSize) + "-byte sectors, " + number(geometry.clusterSize) +
           "-byte clusters, " + number(geometry.totalClusters) + " clusters (from " +
           geometry.totalClustersFrom + ")";
}

} // namespace

bool startsWithFileRecord(const ByteSource& source) {
    char magic[4] = {};
    return source.readExactly(0, magic, sizeof magic) == 0 &&
           LeView(magic, sizeof magic).bytesEqual(0, fileRecord::kMagic, sizeof magic);
}

std::shared_ptr<AttachedVolume> attachExtractedMft(AttachedDisk& disk) {
    // A refused file is still a disk, of plain 512-byte sectors.
    disk.info.partitionTable = "none";
    disk.info.bytesPerSector = kPlainSectorSize;
    Geometry geometry;
    std::string problem;
    if (!inferGeometry(disk.bytes, geometry, problem)) {
        disk.info.problem = "refused as an extracted MFT: " + problem;
        return nullptr;
    }
    const BootSector boot = bootSectorOf(geometry);
    const std::uint64_t size = geometry.totalClusters * geometry.clusterSize;
    auto drive =
        std::make_shared<MftOnlyDrive>(disk.bytes, geometry.mftRuns, geometry.clusterSize, size);
    std::string error;
    auto ntfs = NtfsVolume::mount(drive, boot, error);
    if (!ntfs) {
        disk.info.problem = "refused as an extracted MFT: " + error;
        return nullptr;
    }
    disk.bytes = drive;
    disk.info.size = size;
    disk.info.bytesPerSector = geometry.sectorSize;

    auto volume = std::make_shared<AttachedVolume>();
    volume->boot = boot;
    volume->bytes = drive;
    volume->ntfs = std::move(ntfs);
    volume->mftOnly = true;
    volume->info.diskNumber = disk.info.number;
    volume->info.length = size;
    volume->info.fileSystem = fileSystemName(boot.kind);
    volume->info.extractedMft = describe(geometry);
    return volume;
}

DWORD lookupNtfsPath(const AttachedVolume& volume, const std::vector<std::u16string>& components,
                     NtfsFileInfo& info) {
    const NtfsVolume& ntfs = *volume.ntfs;
    const auto isMftName = [&](const std::u16string& name) {
        return name.size() == kMftName.size() &&
               std::equal(name.begin(), name.end(), kMftName.begin(),
                          [&](char16_t a, char16_t b) { return ntfs.upcase(a) == ntfs.upcase(b); });
    };
    if (volume.mftOnly && components.size() == 1 && isMftName(components[0]))
        return ntfs.fileInfo(record::kMft, info);
    return ntfs.lookup(components, info);
}

DWORD countNtfsFreeClusters(const AttachedVolume& volume, std::uint64_t& freeClusters) {
    if (volume.mftOnly) {
        freeClusters = 0;
        return 0;
    }
    return volume.ntfs->countFreeClusters(freeClusters);
}

} // namespace kestrow::platform::disk
