// Independent answers about an NTFS image, from The Sleuth Kit (fls, istat,
// ifind, icat, fsstat, mmls), NTFS-3G's tools (ntfsinfo, ntfsls) and sfdisk.
// Tests compare what the library reads with what these tools say.
//
// Every function runs the tool on the image (read-only), parses its output
// and returns std:: values; a tool that fails or prints something that does
// not parse throws OracleError with the command and the offending text.
// `sectorOffset` is where the NTFS volume starts in the image, in 512-byte
// sectors (The Sleuth Kit's -o); NTFS-3G's tools only take whole volumes.
// The tools run through a POSIX shell: these helpers are for the Linux build
// host (the Windows cross build compiles them but has no tools to run).
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace kestrow::test::oracle {

class OracleError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// ---- Running tools -------------------------------------------------------------

struct ToolOutput {
    int exitCode = -1;
    std::string out; // stdout, byte for byte
    std::string err; // stderr
};

// Runs argv[0] (searched on PATH) with its arguments, through the shell with
// every argument quoted. Never throws for a non-zero exit.
ToolOutput runTool(const std::vector<std::string>& argv);
// As runTool, but a non-zero exit throws OracleError; returns stdout.
std::string runToolChecked(const std::vector<std::string>& argv);
std::string shellQuote(std::string_view argument);

// ---- fls -r -p ----------------------------------------------------------------

struct FlsEntry {
    char nameType = '-'; // from the directory entry: r, d, V, - ...
    char metaType = '-'; // from the file record
    bool deleted = false;
    bool reallocated = false;
    std::uint64_t inode = 0;
    std::optional<std::uint32_t> attributeType; // 128 for $DATA, 144 for $INDEX_ROOT
    std::optional<std::uint16_t> attributeId;
    std::string path; // UTF-8, '/' between names, ":stream" for a named stream

    bool isDirectory() const { return metaType == 'd' || (metaType == '-' && nameType == 'd'); }
    // The stream name for "file:stream" entries, else empty.
    std::string streamName() const;
    // The path without a ":stream" suffix.
    std::string filePath() const;
};

enum class FlsSelection {
    All,          // fls default: allocated and deleted names
    DeletedOnly,  // fls -d
    AllocatedOnly // fls -u
};

std::vector<FlsEntry> listFiles(const std::filesystem::path& image, std::uint64_t sectorOffset = 0,
                                FlsSelection selection = FlsSelection::All);
std::vector<FlsEntry> parseFls(std::string_view text);

// ---- istat ---------------------------------------------------------------------

// One run of an attribute's clusters (volume clusters). A `sparse` run is
// one istat shows no cluster numbers for: a hole of a sparse attribute, or
// clusters allocated past the data size (istat prints 0 for both).
struct ClusterRun {
    std::uint64_t firstCluster = 0;
    std::uint64_t count = 0;
    bool sparse = false;
    bool operator==(const ClusterRun&) const = default;
};

struct IstatAttribute {
    std::string typeName; // "$DATA"
    std::uint32_t type = 0;
    std::uint16_t id = 0;
    std::string name; // empty for an unnamed attribute ("N/A")
    bool resident = false;
    bool sparse = false;
    bool compressed = false;
    std::uint64_t size = 0;
    std::uint64_t initializedSize = 0; // non-resident only
    // Non-resident only: one entry per cluster as istat lists them (0 stands
    // for a sparse cluster), and the same as runs.
    std::vector<std::uint64_t> clusters;
    std::vector<ClusterRun> runs() const;
};

struct IstatFileName {
    std::string name;
    std::uint64_t parent = 0;
    std::uint16_t parentSequence = 0;
    std::uint64_t allocatedSize = 0;
    std::uint64_t actualSize = 0;
    std::string flags;                       // "Archive, Hidden" as istat prints them
    std::string created, modified, accessed; // "2026-11-22 07:40:10.488824700 (UTC)"
};

struct IstatResult {
    std::uint64_t entry = 0;
    std::uint16_t sequence = 0;
    std::optional<std::uint64_t> baseRecord; // for an extension record
    bool allocated = false;
    std::uint32_t links = 0;
    std::vector<IstatFileName> fileNames;
    std::vector<IstatAttribute> attributes;

    // The first attribute of `type` named `name` ("" = unnamed), if any.
    const IstatAttribute* find(std::uint32_t type, std::string_view name = {}) const;
    bool has(std::uint32_t type) const;
};

IstatResult inspectRecord(const std::filesystem::path& image, std::uint64_t inode,
                          std::uint64_t sectorOffset = 0);
IstatResult parseIstat(std::string_view text);

// Attribute type codes, for find()/has().
inline constexpr std::uint32_t kAttributeList = 0x20;
inline constexpr std::uint32_t kFileName = 0x30;
inline constexpr std::uint32_t kData = 0x80;
inline constexpr std::uint32_t kIndexRoot = 0x90;
inline constexpr std::uint32_t kIndexAllocation = 0xA0;
inline constexpr std::uint32_t kBitmap = 0xB0;

// ---- ifind, icat ---------------------------------------------------------------

struct AttributeOwner {
    std::uint64_t inode = 0;
    std::uint32_t attributeType = 0;
    std::uint16_t attributeId = 0;
};

// ifind -d: the record whose attribute holds volume cluster `cluster`.
std::optional<AttributeOwner> findClusterOwner(const std::filesystem::path& image,
                                               std::uint64_t cluster,
                                               std::uint64_t sectorOffset = 0);
// ifind -n: the record of a path ('/' between names).
std::optional<std::uint64_t> findInode(const std::filesystem::path& image, std::string_view path,
                                       std::uint64_t sectorOffset = 0);
// icat: the content of a record's unnamed $DATA (or of "inode-type-id").
std::string readContent(const std::filesystem::path& image, std::string_view inodeSpec,
                        std::uint64_t sectorOffset = 0);
std::string readContent(const std::filesystem::path& image, std::uint64_t inode,
                        std::uint64_t sectorOffset = 0);

// The volume's cluster bitmap ($Bitmap, record 6, read with icat), one flag
// per cluster, `true` = in use; cut to the cluster count of fsstat.
std::vector<bool> allocatedClusters(const std::filesystem::path& image,
                                    std::uint64_t sectorOffset = 0);

// Byte offset, in the image file, of the first byte of MFT record `record`,
// found from the $MFT's runs (istat 0) and the geometry (fsstat). For making
// hostile copies: patch a ScratchImage at this offset. When a cluster is
// smaller than a record, the record's second half may lie in another run:
// ask again for offsets past the first cluster (`byteInRecord`).
std::uint64_t mftRecordOffset(const std::filesystem::path& image, std::uint64_t record,
                              std::uint64_t sectorOffset = 0, std::uint64_t byteInRecord = 0);

// blkls -a -l: the volume clusters The Sleuth Kit counts as allocated, in
// ascending order (a second opinion on allocatedClusters()).
std::vector<std::uint64_t> allocatedClusterList(const std::filesystem::path& image,
                                                std::uint64_t sectorOffset = 0);
std::vector<std::uint64_t> parseBlklsList(std::string_view text);

// ---- fsstat --------------------------------------------------------------------

struct FsstatResult {
    std::string fileSystemType; // "NTFS"
    std::uint64_t serialNumber = 0;
    std::string oemName;
    std::string label;
    std::string version;
    std::uint64_t firstMftCluster = 0;
    std::uint64_t firstMftMirrorCluster = 0;
    std::uint32_t mftEntrySize = 0;
    std::uint32_t indexRecordSize = 0;
    std::uint64_t lastMftEntry = 0; // "Range: 0 - N"
    std::uint64_t rootDirectory = 0;
    std::uint32_t sectorSize = 0;
    std::uint32_t clusterSize = 0;
    std::uint64_t totalClusters = 0; // last cluster + 1
    std::uint64_t totalSectors = 0;  // last sector + 1
};

FsstatResult fileSystemStats(const std::filesystem::path& image, std::uint64_t sectorOffset = 0);
FsstatResult parseFsstat(std::string_view text);

// ---- Partition tables ------------------------------------------------------------

struct MmlsEntry {
    unsigned index = 0;
    std::string slot;        // "000:000", "Meta", "-------"
    std::uint64_t start = 0; // sectors
    std::uint64_t end = 0;
    std::uint64_t length = 0;
    std::string description;
    bool isMeta() const { return slot == "Meta"; }
    bool isUnallocated() const { return slot.starts_with("---"); }
    bool isPartition() const { return !isMeta() && !isUnallocated(); }
};

struct MmlsResult {
    std::string tableType; // "DOS Partition Table", "GUID Partition Table (EFI)"
    std::uint32_t unitSize = 0;
    std::vector<MmlsEntry> entries;
    std::vector<MmlsEntry> partitions() const;
};

MmlsResult listPartitions(const std::filesystem::path& image);
MmlsResult parseMmls(std::string_view text);

struct SfdiskPartition {
    std::string device;
    std::uint64_t start = 0; // sectors
    std::uint64_t size = 0;  // sectors
    std::string type;        // "7", "c", or a GPT type GUID
    std::string uuid;        // GPT only
    std::string name;        // GPT only
};

struct SfdiskDump {
    std::string label;   // "dos" or "gpt"
    std::string labelId; // "0x4b455354" or the disk GUID
    std::uint32_t sectorSize = 0;
    std::vector<SfdiskPartition> partitions;
};

SfdiskDump dumpPartitionTable(const std::filesystem::path& image);
SfdiskDump parseSfdiskDump(std::string_view text);

// ---- NTFS-3G tools (whole volumes only) --------------------------------------------

// ntfsresize --info: checks that the cluster bitmap and every file's runs
// agree (each used cluster owned exactly once). Returns the tool's complaint,
// empty when the volume is consistent. A volume inside a disk image
// (`volumeOffset` bytes in, `volumeSize` long) is checked on a temporary copy.
std::string volumeInconsistencies(const std::filesystem::path& image,
                                  std::uint64_t volumeOffset = 0, std::uint64_t volumeSize = 0);

// ntfsinfo -m: "Key: value" pairs of the volume and MFT sections.
std::map<std::string, std::string> volumeInfo(const std::filesystem::path& volume);
std::map<std::string, std::string> parseNtfsinfoPairs(std::string_view text);

struct NtfsinfoRun {
    std::uint64_t vcn = 0;
    std::optional<std::uint64_t> lcn; // none for a hole
    std::uint64_t length = 0;
};

struct NtfsinfoFileName {
    std::string name;
    std::string nameSpace; // "POSIX", "Win32", "DOS", "Win32 & DOS"
    std::uint64_t parent = 0;
};

struct NtfsinfoAttribute {
    std::string typeName; // "$DATA"
    std::uint64_t record; // the MFT record that holds it (base or extension)
};

struct NtfsinfoRecord {
    std::vector<NtfsinfoAttribute> attributes; // in the order ntfsinfo dumps them
    std::vector<NtfsinfoFileName> fileNames;
    // Run lists of the non-resident attributes, by attribute type name
    // ("$DATA"), in the order ntfsinfo dumps them.
    std::vector<std::pair<std::string, std::vector<NtfsinfoRun>>> runLists;
};

// ntfsinfo -v -i N.
NtfsinfoRecord recordInfo(const std::filesystem::path& volume, std::uint64_t inode);
NtfsinfoRecord parseNtfsinfoRecord(std::string_view text);

// ntfsls -a [-x] -p <dir>: the names in a directory ("." included, as ntfsls
// prints it); `shortNames` asks for the DOS names where a file has one.
std::vector<std::string> listDirectory(const std::filesystem::path& volume,
                                       std::string_view directory, bool shortNames = false);

// ntfscluster -c over every cluster: the files whose attributes own
// clusters, in one pass. It reads a file's attributes through its attribute
// list, so runs held in an extension record count for the base record; the
// extension records it meets are listed apart. A volume inside a disk image
// is read from a temporary copy, as for volumeInconsistencies.
struct ClusterUsers {
    std::set<std::uint64_t> files;      // "Inode N /path/attribute"
    std::set<std::uint64_t> extensions; // "Inode N is an extent of inode M."
};
ClusterUsers clusterUsers(const std::filesystem::path& image, std::uint64_t volumeOffset = 0,
                          std::uint64_t volumeSize = 0);
ClusterUsers parseNtfscluster(std::string_view text);

} // namespace kestrow::test::oracle
