// A file that holds an extracted $MFT (what live-response tools collect from
// a running system) attached as a disk holding one NTFS volume. The volume's
// geometry is inferred from the records themselves; the drive holds the MFT
// where its own runs put it, and only there (MftOnlyDrive).
#pragma once

#include "DiskSet.h"

#include <memory>
#include <string>
#include <vector>

namespace kestrow::platform::disk {

// True when the source starts as an MFT does, with a FILE record. A
// partition table or a boot sector never does.
bool startsWithFileRecord(const ByteSource& source);

// Reads the bytes of `disk` as an extracted MFT. On success the disk's bytes
// become the volume's drive, its sector size the inferred one, and the
// volume is returned; otherwise the disk's `problem` says in one line why
// the file was refused, and null is returned.
std::shared_ptr<AttachedVolume> attachExtractedMft(AttachedDisk& disk);

// Resolves a path on a mounted NTFS volume. An extracted MFT lacks the
// directory index blocks, so its own name, "$MFT", is known without them.
DWORD lookupNtfsPath(const AttachedVolume& volume, const std::vector<std::u16string>& components,
                     NtfsFileInfo& info);

// The free clusters of a mounted NTFS volume; 0 for an extracted MFT, whose
// $Bitmap clusters are not in the file.
DWORD countNtfsFreeClusters(const AttachedVolume& volume, std::uint64_t& freeClusters);

} // namespace kestrow::platform::disk
