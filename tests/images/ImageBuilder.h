// The test-image builder: makes NTFS volumes and disks with mkntfs and the
// NTFS-3G library (no mounting), and partition tables with sfdisk/sgdisk.
// Test code only; nothing of the library proper links it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

struct _ntfs_volume;
struct _ntfs_inode;

namespace kestrow::images {

// ---- Processes and files -------------------------------------------------------

// Runs a program (searched on PATH) with its arguments and waits for it. Its
// output is kept and shown only when it fails; a failure throws.
void runTool(const std::vector<std::string>& argv);
// As runTool, but returns what the program wrote to stdout.
std::string runToolForOutput(const std::vector<std::string>& argv);

// Creates (or empties) a file of `size` bytes that holds no data blocks yet.
void createSparseFile(const std::filesystem::path& path, std::uint64_t size);
// Copies all of `from` into `to` at byte `offset`; all-zero blocks are skipped
// so that holes stay holes. `to` must already be large enough.
void copyInto(const std::filesystem::path& from, const std::filesystem::path& to,
              std::uint64_t offset);
std::string sha256Of(const std::filesystem::path& file);

// ---- mkntfs ------------------------------------------------------------------

struct NtfsFormat {
    std::uint64_t size = 0; // bytes
    std::uint32_t bytesPerSector = 512;
    std::uint32_t bytesPerCluster = 4096;
    std::string label;
    std::uint64_t partitionStartSector = 0; // hidden sectors, for a partition
};

// Makes `path` a fresh NTFS volume (a new sparse file of format.size bytes).
void formatNtfs(const std::filesystem::path& path, const NtfsFormat& format);

// ---- Writing through the NTFS-3G library ----------------------------------------

// One volume opened read-write through libntfs-3g. Paths are UTF-8 relative to
// the root, '/' between names; missing parent directories are made on the way.
// Every failure throws std::runtime_error naming the path and the errno text.
class NtfsWriter {
public:
    explicit NtfsWriter(const std::filesystem::path& image);
    ~NtfsWriter();
    NtfsWriter(const NtfsWriter&) = delete;
    NtfsWriter& operator=(const NtfsWriter&) = delete;

    // Flushes and unmounts; the destructor does it too but cannot report errors.
    void close();

    std::uint64_t makeDirectory(std::string_view path);
    std::uint64_t makeFile(std::string_view path, std::span<const std::uint8_t> content = {});
    std::uint64_t makeTextFile(std::string_view path, std::string_view text);
    // Writes at `offset` of the unnamed $DATA (the file grows as needed).
    void write(std::string_view path, std::uint64_t offset, std::span<const std::uint8_t> bytes);
    // Gives the file `size` bytes of allocated clusters without writing them.
    void allocate(std::string_view path, std::uint64_t size);
    // As allocate, but says false when the volume is full.
    bool tryAllocate(std::string_view path, std::uint64_t size);
    // Takes all free clusters but `keepClusters` with new files in `directory`
    // and returns their paths.
    std::vector<std::string> fillFreeSpace(std::string_view directory, std::uint64_t keepClusters);
    // Writes `chunk`-byte pieces of two files in turn until both are `size`
    // bytes long; their clusters interleave, so both end up fragmented.
    void writeInterleaved(std::string_view first, std::span<const std::uint8_t> firstContent,
                          std::string_view second, std::span<const std::uint8_t> secondContent,
                          std::size_t chunk);
    void addNamedStream(std::string_view path, std::string_view streamName,
                        std::string_view content);
    // Gives the file an $ATTRIBUTE_LIST (resident) and moves its unnamed
    // $DATA attribute into an extension record; the base record then holds
    // no $DATA at all.
    void moveDataToExtensionRecord(std::string_view path);
    void addHardLink(std::string_view existing, std::string_view newPath);
    // Adds the 8.3 name `shortName` (the long name becomes a WIN32 name).
    void setShortName(std::string_view path, std::string_view shortName);
    // Deletes a file or an empty directory.
    void remove(std::string_view path);

    std::uint64_t recordOf(std::string_view path) const;
    std::uint32_t bytesPerCluster() const;
    std::uint64_t freeClusters() const;

    // Low-level access for bulk builders: the caller closes what it opens.
    _ntfs_volume* volume() { return m_volume; }
    _ntfs_inode* openInode(std::uint64_t reference);
    // Creates `name` in the open directory `parent`, with `content` in its
    // unnamed $DATA; returns the new record's reference. Does not touch the
    // path table. Content must be written this way while `parent` is open.
    std::uint64_t createIn(_ntfs_inode* parent, std::u16string_view name, bool directory,
                           std::span<const std::uint8_t> content = {});

private:
    std::uint64_t create(std::string_view path, bool directory);
    std::uint64_t ensureDirectory(std::string_view path);
    _ntfs_inode* openPath(std::string_view path);

    std::filesystem::path m_image;
    _ntfs_volume* m_volume = nullptr;
    std::map<std::string, std::uint64_t, std::less<>> m_records; // path -> MFT reference
};

// ---- The images ----------------------------------------------------------------

// Builds every standard fixture image into `directory` and writes the
// checksum manifest there.
void buildStandardImages(const std::filesystem::path& directory);

// Builds a "realistic tree" volume of about `fileCount` files for benchmarks.
void buildTreeImage(const std::filesystem::path& image, std::uint64_t fileCount);

} // namespace kestrow::images
