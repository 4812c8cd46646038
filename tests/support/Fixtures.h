// The NTFS images the tests run on, and what is known to be on them.
//
// Every image is made at test time by tests/images (the CTest fixture
// `ntfs_images`, test `build_fixture_images`) with mkntfs, the NTFS-3G library,
// sfdisk/sgdisk and mkfs.vfat, into KESTROW_FIXTURE_DIR. Tests that use them
// declare `FIXTURES ntfs_images` in kestrow_add_test. The images are shared by
// the whole suite and must never be written to: a test that needs a damaged
// volume makes a ScratchImage (a private copy) and patches that. A checksum of
// every image is recorded when it is built and checked again after the suite.
//
// Paths inside a volume are UTF-8, relative to the root directory, with '/'
// between names (as `fls -p` prints them); windowsPath() turns them into the
// backslash form.
//
// The images (file name, geometry, content). Unless said otherwise a file
// record is 1 KiB and an INDX block 4 KiB.
//
//  bare.img          8 MiB NTFS volume, 512-byte sectors, 4 KiB clusters, label
//                    "KESTROW_BARE". Freshly formatted: only the system files.
//
//  disk-mbr.img      64 MiB whole disk, MBR (disk id 0x4B455354). Partition 1:
//                    NTFS (type 0x07) at sector 2048 (1 MiB), 32768 sectors,
//                    label "KESTROW_MBR", content kSmallTree. Partition 2: FAT32
//                    (type 0x0C) right after it up to the end of the disk.
//
//  disk-gpt.img      40 MiB whole disk, GPT. Partition 1: "Spacer" (Linux data,
//                    empty) at sector 2048, 2048 sectors. Partition 2:
//                    "Kestrow NTFS" (Microsoft basic data) at sector 4096 (2 MiB),
//                    49152 sectors, label "KESTROW_GPT", content kSmallTree.
//
//  sector4k.img      16 MiB NTFS volume with 4096-byte sectors, 4 KiB clusters
//                    and 4 KiB file records, label "KESTROW_4KN", content
//                    kSmallTree plus kIndexedDir.
//
//  cluster512.img    16 MiB NTFS volume, 512-byte sectors and 512-byte clusters
//                    (a 1 KiB file record spans two clusters), label
//                    "KESTROW_C512", content kSmallTree plus kIndexedDir.
//
//  cluster64k.img    32 MiB NTFS volume, 512-byte sectors, 64 KiB clusters (a
//                    4 KiB index block is smaller than a cluster), label
//                    "KESTROW_C64K", content kSmallTree plus kIndexedDir.
//
//  disk-legacy.img   32 MiB whole disk, MBR, partitioned the old way: one NTFS
//                    partition (type 0x07) at sector 63 up to the end of the
//                    disk, 4 KiB clusters, label "KESTROW_LEGACY", content
//                    kSmallTree plus kIndexedDir. The volume starts 7 sectors
//                    into a 4 KiB cluster of the drive, so the drive clusters
//                    the library reads index blocks from begin 7 sectors before
//                    each block.
//
//  rich.img          48 MiB NTFS volume, 512-byte sectors, 4 KiB clusters, label
//                    "KESTROW_RICH": kSmallTree and every feature in the `rich`
//                    namespace below: an INDX-heavy directory, long names with
//                    8.3 short names, non-ASCII names, fragmented and sparse
//                    files, files whose attributes overflow into extension
//                    records ($ATTRIBUTE_LIST, resident and non-resident), a
//                    file whose $DATA is only in an extension record, a deep
//                    path, hard links, named streams, deleted files and
//                    directories, and an $MFT whose $DATA has many runs (not
//                    in ascending cluster order, allocated past its data size).
//                    Record numbers are not fixed: ask the oracle (ifind -n).
//
// Not built by the test run: the benchmark "realistic tree" volumes
// <build>/bench-images/tree-100k.img and tree-1m.img (targets
// bench_tree_images_100k / _1m; 4 KiB clusters, label "KESTROW_TREE", about
// 100 000 / 1 000 000 files in directories of very different sizes, one path
// 40 directories deep, a few directories with thousands of entries).
//
// kSmallTree (on every image but bare.img):
//   Readme.txt            resident text, kReadmeText
//   Docs/                 directory
//   Docs/report.bin       non-resident, kReportSize bytes of pattern kReportSeed
//   Docs/Sub/             directory
//   Docs/Sub/deep.txt     resident text, kDeepText
//   empty.txt             0 bytes
//
// kSweepDir ("Sweep/", on sector4k.img and disk-legacy.img): for every fourth
// name length from kSweepShortest to kSweepLongest units one empty file,
// sweepName(length), with a hard link of the same length, sweepLinkName(length).
// Names four units apart make attributes 8 bytes apart, so the records' later
// attribute headers begin at every multiple of 16 over a wide span, and some
// cover the last two bytes of a 512-byte stride, where the update sequence
// number stands in the records as read. (Every fourth length only: the
// 4 KiB records of sector4k.img then keep the $MFT in one run.)
//
// kIndexedDir ("Indexed/"): kIndexedDirEntries empty files named
// indexedEntryName(i), enough that the directory needs an $INDEX_ALLOCATION of
// several INDX blocks.
//
// File contents that are not text come from patternBytes(seed, offset, n), so
// a test can compare any byte range without keeping a copy.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <iosfwd>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kestrow::test {

// ---- The images --------------------------------------------------------------

enum class FixtureImage {
    Bare,
    MbrDisk,
    GptDisk,
    Sector4k,
    Cluster512,
    Cluster64k,
    LegacyMbrDisk,
    Rich,
};

// Geometry and placement of one image's NTFS volume.
struct ImageFacts {
    FixtureImage image;
    std::string_view fileName;        // inside fixtureDir()
    std::string_view label;           // the NTFS volume label
    std::uint32_t bytesPerSector;     // of the NTFS volume (and of the disk)
    std::uint32_t bytesPerCluster;    // of the NTFS volume
    std::uint32_t bytesPerFileRecord; // MFT record size (mkntfs: 4096 on 4Kn volumes)
    std::uint32_t bytesPerIndexBlock; // INDX block size
    std::uint64_t volumeOffset;       // byte offset of the NTFS volume in the image
    std::uint64_t volumeSize;         // bytes given to the NTFS volume (partition size)
    std::uint64_t imageSize;          // bytes of the whole image file
    bool isWholeDisk;                 // has a partition table
    bool hasSmallTree;                // kSmallTree is on the volume
    bool hasIndexedDir;               // kIndexedDir is on the volume
    bool hasSweepDir;                 // kSweepDir is on the volume
};

// Prints the file name (GoogleTest picks this up for parameterised tests).
void PrintTo(const ImageFacts& facts, std::ostream* out);

// Every image in the order above.
std::span<const ImageFacts> allImages();
const ImageFacts& factsOf(FixtureImage image);
// An image's name in test names: its file name without the extension, letters
// and digits only ("diskmbr"). ImageTestName gives it to
// INSTANTIATE_TEST_SUITE_P over images or their facts.
std::string testName(const ImageFacts& facts);
inline std::string testName(FixtureImage image) {
    return testName(factsOf(image));
}
struct ImageTestName {
    template <class Info> std::string operator()(const Info& info) const {
        return testName(info.param);
    }
};

// The directory the images are built into: $KESTROW_FIXTURE_DIR when set in
// the environment, else the build tree's fixtures directory.
std::filesystem::path fixtureDir();
std::filesystem::path imagePath(FixtureImage image);

std::filesystem::path bareVolume();
std::filesystem::path mbrDisk();
std::filesystem::path gptDisk();
std::filesystem::path sector4kVolume();
std::filesystem::path cluster512Volume();
std::filesystem::path cluster64kVolume();
std::filesystem::path richVolume();

// The checksum manifest ("<sha256>  <file name>" per line, sha256sum format).
inline constexpr std::string_view kManifestFileName = "manifest.sha256";

// Partitions of the whole-disk images.
inline constexpr std::uint64_t kMbrNtfsStartSector = 2048; // 1 MiB
inline constexpr std::uint64_t kMbrNtfsSectors = 32768;
inline constexpr std::uint64_t kMbrFatStartSector = kMbrNtfsStartSector + kMbrNtfsSectors;
inline constexpr std::uint32_t kMbrDiskId = 0x4B455354;
inline constexpr std::uint64_t kGptSpacerStartSector = 2048;
inline constexpr std::uint64_t kGptSpacerSectors = 2048;
inline constexpr std::uint64_t kGptNtfsStartSector = 4096; // 2 MiB
inline constexpr std::uint64_t kGptNtfsSectors = 49152;
inline constexpr std::uint64_t kLegacyNtfsStartSector = 63;

// ---- Content common to several images ----------------------------------------

inline constexpr std::string_view kReadmePath = "Readme.txt";
inline constexpr std::string_view kReadmeText = "Kestrow test volume.\r\n";
inline constexpr std::string_view kDocsDir = "Docs";
inline constexpr std::string_view kReportPath = "Docs/report.bin";
inline constexpr std::uint64_t kReportSize = 20000;
inline constexpr std::uint32_t kReportSeed = 0x5EED0001;
inline constexpr std::string_view kSubDir = "Docs/Sub";
inline constexpr std::string_view kDeepTextPath = "Docs/Sub/deep.txt";
inline constexpr std::string_view kDeepText = "three levels down\n";
inline constexpr std::string_view kEmptyPath = "empty.txt";

inline constexpr std::string_view kIndexedDir = "Indexed";
inline constexpr int kIndexedDirEntries = 300;
// "indexed-entry-with-a-long-name-0000.dat" ... : long names fill INDX blocks fast.
std::string indexedEntryName(int i);

inline constexpr std::string_view kSweepDir = "Sweep";
inline constexpr int kSweepShortest = 12;
inline constexpr int kSweepLongest = 255;
inline constexpr int kSweepStep = 4;
std::string sweepName(int length);     // "sweep-0012-x..." of `length` characters
std::string sweepLinkName(int length); // "link-0012-yy..." of `length` characters

// ---- The rich volume ---------------------------------------------------------

namespace rich {

// A directory with kBigDirEntries files named bigDirEntryName(i): an
// $INDEX_ALLOCATION of many INDX blocks and a B+ tree deeper than one level.
inline constexpr std::string_view kBigDir = "Big";
inline constexpr int kBigDirEntries = 1500;
std::string bigDirEntryName(int i); // "file-0000.dat" ...

// Long names with the 8.3 short name set for them (a WIN32 name plus a DOS
// name), and one name that is already 8.3 (a single POSIX name).
struct ShortNamedFile {
    std::string_view path;      // long name
    std::string_view shortName; // its DOS name
};
inline constexpr std::string_view kNamesDir = "Names";
inline constexpr ShortNamedFile kShortNamedFiles[] = {
    {"Names/Quarterly Report 2024.docx", "QUARTE~1.DOC"},
    {"Names/a.very.long.name.with.dots.txt", "AVERYL~1.TXT"},
    {"Names/Program Files Directory", "PROGRA~1"}, // a directory
};
inline constexpr std::string_view kShortNamedDir = "Names/Program Files Directory";
inline constexpr std::string_view kPlain83Path = "Names/PLAIN.TXT";

// Names outside ASCII (UTF-8 here; UTF-16 on disk, one with a surrogate pair).
inline constexpr std::string_view kUnicodeDir = "Unicode";
inline constexpr std::string_view kUnicodePaths[] = {
    "Unicode/\xC3\x9Cn\xC3\xAF\x63\xC3\xB6\x64\xC3\xA9.txt",                    // Ünïcödé.txt
    "Unicode/\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E.txt",                         // 日本語.txt
    "Unicode/\xCE\x95\xCE\xBB\xCE\xBB\xCE\xB7\xCE\xBD\xCE\xB9\xCE\xBA\xCE\xAC", // Ελληνικά (dir)
    "Unicode/\xCE\x95\xCE\xBB\xCE\xBB\xCE\xB7\xCE\xBD\xCE\xB9\xCE\xBA\xCE\xAC/Stra\xC3\x9F"
    "e.txt",
    "Unicode/emoji-\xF0\x9F\x98\x80.txt", // U+1F600, a surrogate pair on disk
};

// Two files whose clusters lie in one-cluster gaps, so that each has many
// runs. The gaps were made by deleting every other file of kFragmentCombDir
// (the rest stay); a one-time filler (Fragments/filler.bin) was deleted too.
inline constexpr std::string_view kFragmentedDir = "Fragments";
inline constexpr std::string_view kFragmentCombDir = "Fragments/comb";
inline constexpr std::string_view kFragmentedA = "Fragments/frag-a.bin";
inline constexpr std::string_view kFragmentedB = "Fragments/frag-b.bin";
inline constexpr std::uint64_t kFragmentedSize = 48 * 4096;
inline constexpr std::uint32_t kFragmentedSeedA = 0x5EED00A1;
inline constexpr std::uint32_t kFragmentedSeedB = 0x5EED00B2;

// A sparse file: kSparseChunk bytes at offset 0 and at kSparseSecondOffset,
// a hole in between.
inline constexpr std::string_view kSparsePath = "Sparse/sparse.bin";
inline constexpr std::uint64_t kSparseChunk = 8192;
inline constexpr std::uint64_t kSparseSecondOffset = 16 * 1024 * 1024;
inline constexpr std::uint64_t kSparseSize = kSparseSecondOffset + kSparseChunk;
inline constexpr std::uint32_t kSparseSeed = 0x5EED0005;

// A contiguous non-resident file.
inline constexpr std::string_view kLargePath = "large.bin";
inline constexpr std::uint64_t kLargeSize = 1024 * 1024;
inline constexpr std::uint32_t kLargeSeed = 0x5EED0006;

// A file with kHardLinkCount names (the first is kHardLinkTarget, the others
// hardLinkName(i), all in Links/): its $FILE_NAME attributes do not fit one
// record, so it has an $ATTRIBUTE_LIST and extension records.
inline constexpr std::string_view kLinksDir = "Links";
inline constexpr std::string_view kHardLinkTarget = "Links/target.txt";
inline constexpr std::string_view kHardLinkText = "one file, many names\n";
inline constexpr int kHardLinkCount = 40;
std::string hardLinkName(int i); // "Links/another-name-for-the-target-01.txt" ...

// A file with kStreamCount named $DATA streams beside its unnamed one; its
// attributes overflow into extension records too.
inline constexpr std::string_view kStreamsPath = "Streams/streams.txt";
inline constexpr std::string_view kStreamsText = "main stream\n";
inline constexpr int kStreamCount = 30;
std::string streamName(int i);    // "stream-00" ...
std::string streamContent(int i); // resident text of stream i

// A file whose base record holds a small resident $ATTRIBUTE_LIST and no
// $DATA: its unnamed $DATA (non-resident, kDataElsewhereSize bytes of pattern
// kDataElsewhereSeed) lives in an extension record, so the base record alone
// says "data size 0".
inline constexpr std::string_view kDataElsewherePath = "AttrList/data-elsewhere.bin";
inline constexpr std::uint64_t kDataElsewhereSize = 10000;
inline constexpr std::uint32_t kDataElsewhereSeed = 0x5EED0007;

// A chain of kDeepLevels nested directories ending in kDeepFileName.
inline constexpr int kDeepLevels = 12;
std::string deepDirPath(int level); // "Deep/level-01/.../level-NN" (level >= 1)
inline constexpr std::string_view kDeepFileName = "bottom.txt";
std::string deepFilePath();

// Deleted items: their records stay in the MFT with the in-use flag clear.
// The directory Trash/ itself stays.
inline constexpr std::string_view kTrashDir = "Trash";
inline constexpr std::string_view kDeletedFile = "Trash/deleted-file.bin"; // non-resident
inline constexpr std::uint64_t kDeletedFileSize = 12288;
inline constexpr std::string_view kDeletedDir = "Trash/DeletedDir";
inline constexpr std::string_view kDeletedDirChild = "Trash/DeletedDir/inner.txt";
inline constexpr std::string_view kDeletedRootFile = "gone.txt";

// Files created to grow the $MFT past clusters that were already taken, so
// that its $DATA has many runs, not in ascending cluster order (plug-N holds
// one cluster, plug-N-record-M.txt are empty). Filler files
// (MftGrowth/filler-N.bin, Fragments/filler-N.bin, Fragments/more/...) and
// every other Fragments/comb/tooth-N were deleted along the way; later files
// and extension records reuse some of their records, so only the items of
// the Trash group and gone.txt are sure to be found as deleted.
inline constexpr std::string_view kMftGrowthDir = "MftGrowth";
inline constexpr int kMftGrowthRounds = 6;
inline constexpr int kMftGrowthRecordsPerRound = 24;

} // namespace rich

// ---- Helpers -----------------------------------------------------------------

// "Docs/Sub/deep.txt" -> "Docs\\Sub\\deep.txt".
std::string windowsPath(std::string_view path);

// Deterministic content: byte k of the stream for `seed` is patternByte(seed, k).
std::uint8_t patternByte(std::uint32_t seed, std::uint64_t offset);
std::vector<std::uint8_t> patternBytes(std::uint32_t seed, std::uint64_t offset, std::size_t count);

// UTF-8 <-> UTF-16 (code units in host order), for names.
std::u16string utf8ToUtf16(std::string_view text);
std::string utf16ToUtf8(std::u16string_view text);

// A private, writable copy of an image in its own temporary directory, removed
// when the object goes. Holes of the original stay holes in the copy.
class ScratchImage {
public:
    // The whole image, or `count` bytes from `offset` (a partition's volume
    // as a file of its own, for tools that take whole volumes only).
    explicit ScratchImage(const std::filesystem::path& original, std::uint64_t offset = 0,
                          std::uint64_t count = UINT64_MAX);
    ~ScratchImage();
    ScratchImage(const ScratchImage&) = delete;
    ScratchImage& operator=(const ScratchImage&) = delete;
    ScratchImage(ScratchImage&& other) noexcept;
    ScratchImage& operator=(ScratchImage&& other) noexcept;

    const std::filesystem::path& path() const { return m_path; }
    std::uint64_t size() const;

    // Overwrites bytes at `offset`; throws std::runtime_error when the range
    // leaves the image (a patch never grows it).
    void patch(std::uint64_t offset, std::span<const std::uint8_t> bytes);
    void patchLe16(std::uint64_t offset, std::uint16_t value);
    void patchLe32(std::uint64_t offset, std::uint32_t value);
    void patchLe64(std::uint64_t offset, std::uint64_t value);
    std::vector<std::uint8_t> read(std::uint64_t offset, std::size_t count) const;

private:
    void release() noexcept;

    std::filesystem::path m_directory;
    std::filesystem::path m_path;
};

// One attribute of a raw FILE record, as it stands in the record's bytes.
struct RawAttribute {
    std::uint32_t type = 0;
    std::uint32_t offset = 0; // of the attribute header, from the record's start
    std::uint32_t length = 0;
    bool resident = false;
    std::uint32_t valueOffset = 0; // resident only: from the record's start
    std::uint32_t valueLength = 0; // resident only
};

// Walks the attributes of a FILE record as given (the update sequence fix-ups
// are not applied here: a record whose attribute headers lie over the last two
// bytes of a sector, as in the sweep directory, goes through applyFixups
// first). Throws
// std::runtime_error when the record is not a FILE record or an attribute
// leaves it.
std::vector<RawAttribute> rawAttributes(std::span<const std::uint8_t> record);

// A FILE record with its update sequence applied (every 512 bytes), or
// nothing when the sequence does not check (a torn or never-written record).
std::optional<std::vector<std::uint8_t>> applyFixups(std::span<const std::uint8_t> raw);

// Rewrites the parent reference of every $FILE_NAME in the MFT record at
// `recordOffset` (bytes into the image, see oracle::mftRecordOffset) of a
// scratch copy; returns how many were changed. For hostile images such as
// parent loops: the directory indexes keep the old entries.
int patchFileNameParents(ScratchImage& image, std::uint64_t recordOffset,
                         std::uint32_t bytesPerRecord, std::uint64_t parentReference);

// Reads `count` bytes at `offset` of any file (an image); throws on a short read.
std::vector<std::uint8_t> readFileBytes(const std::filesystem::path& file, std::uint64_t offset,
                                        std::size_t count);

} // namespace kestrow::test
