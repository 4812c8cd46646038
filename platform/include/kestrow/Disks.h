// Attaching disk images and block devices to the disk-image backend.
//
// Attached disk i answers as \\.\PhysicalDrive<i>; each recognised volume on
// the attached disks gets a drive letter from C: on, disk by disk, in
// partition-table order, unless the host pins letters. The environment
// variable KESTROW_DISKS (paths separated by ':', ';' on Windows) attaches
// disks the same way when the host has attached none.
// Images and devices are only ever opened read-only.
#pragma once

#include <kestrow/Export.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kestrow::platform {

// One volume the backend found on an attached disk.
struct VolumeInfo {
    char letter = 0;              // 'C'..'Z', or 0 when no letter was left
    std::uint32_t diskNumber = 0; // index into the attached disks
    std::uint32_t partition = 0;  // 1-based table position; 0 for a whole-disk volume
    std::uint64_t offset = 0;     // byte offset of the volume on its disk
    std::uint64_t length = 0;     // byte length of the volume
    std::string fileSystem;       // "NTFS", "FAT", "FAT32", "exFAT"
    // For the volume of a disk that is a file holding only an extracted $MFT:
    // the geometry inferred from its records, as one line of text. Empty for
    // a volume read from its disk.
    std::string extractedMft;
};

// One attached disk.
struct DiskInfo {
    std::uint32_t number = 0;
    std::string path;
    std::uint64_t size = 0;
    std::uint32_t bytesPerSector = 0; // logical sector size used for this disk
    std::string partitionTable;       // "MBR", "GPT" or "none"
    // Why what the disk holds is not offered as a volume, in one line (a
    // file that starts as an extracted $MFT but is damaged); empty otherwise.
    std::string problem;
};

// A letter pinned by the host: volume `partition` (as in VolumeInfo) of
// disk `diskNumber` answers as `letter`.
struct PinnedLetter {
    char letter = 0;
    std::uint32_t diskNumber = 0;
    std::uint32_t partition = 0;
};

// Attaches these disks in place of any attached before (an empty list
// detaches all). Returns false, with a message in `error`, when a path cannot
// be opened for reading or a pinned letter names no volume (or is pinned
// twice); nothing changes then. Handles opened before keep reading the disks
// they were opened on. On Windows, detaching all disks hands every call back
// to the system, so the backend's handles should be closed first.
KESTROW_API bool attachDisks(const std::vector<std::string>& paths,
                             const std::vector<PinnedLetter>& pinned, std::string& error);
KESTROW_API bool attachDisks(const std::vector<std::string>& paths, std::string& error);

// Attaches the disks named by KESTROW_DISKS if the variable is set and no
// disks are attached. Called by the backend on first use; idempotent.
KESTROW_API bool attachDisksFromEnvironment(std::string& error);

// True when disks are attached (the disk-image backend answers).
KESTROW_API bool disksAttached();

KESTROW_API std::vector<DiskInfo> attachedDisks();
KESTROW_API std::vector<VolumeInfo> attachedVolumes();

// Reads of attached disks that the image or device could not serve although
// they lay inside it as attached: the image shrank, or the medium failed or
// went away, while it was in use. Each such read fails (the caller sees the
// error code) and is counted here, so that a host can tell a damaged or
// vanishing disk from a merely odd file system.
struct MediumFailures {
    std::uint64_t count = 0;  // such reads so far in this process
    std::string path;         // the image or device of the last one
    std::uint64_t offset = 0; // its byte offset on that disk
    std::uint32_t error = 0;  // its Windows error code
};
KESTROW_API MediumFailures mediumFailures();

} // namespace kestrow::platform
