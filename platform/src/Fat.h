// The little the backend reads of FAT12/16/32 and exFAT volumes: the label
// from the root directory and the number of free clusters.
#pragma once

#include "BootSector.h"
#include "ByteSource.h"

#include <kestrow/WinTypes.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kestrow::platform::disk {

// The volume label as Windows shows it: the root directory's label entry
// (first cluster of the root directory only), empty when there is none.
std::u16string fatVolumeLabel(const ByteSource& volume, const BootSector& boot);

// The allocation bitmap as Windows reports it for FAT volumes: bit i for
// data cluster i + 2, set when the cluster is in use. Built from the FAT
// (FAT12/16/32) or read from the allocation bitmap (exFAT, whose bitmap
// must be contiguous). 0 or a Windows error.
DWORD fatAllocationBitmap(const ByteSource& volume, const BootSector& boot,
                          std::vector<std::uint8_t>& bitmap);

// Free clusters: the clear bits of that bitmap.
DWORD fatFreeClusters(const ByteSource& volume, const BootSector& boot,
                      std::uint64_t& freeClusters);

} // namespace kestrow::platform::disk
