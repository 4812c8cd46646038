// Raw MFT record slots, read in large pieces straight from the MFT's runs on
// the drive: what the analysts' record reader takes, for one record or for
// the whole table.
#pragma once

#include <libKestrow/MasterFileTable.h>
#include <libKestrow/RecordReader.h>
#include <libKestrow/Volume.h>

#include <functional>
#include <vector>

namespace kestrow::tool {

// Calls `visit(index, bytes, size)` for every record slot of the MFT's runs
// in index order; `size` is the volume's record size. The bytes lie in a
// scratch buffer that `visit` may change (fix-ups in place). Runs that cannot be
// read are skipped (their slots are not visited). Returns the number of
// slots.
unsigned long long
scanMftRecords(MasterFileTable& mft, const Volume& volume,
               const std::function<void(unsigned long long, unsigned char*, std::size_t)>& visit);

// The number of record slots the MFT's runs hold.
unsigned long long mftRecordSlots(MasterFileTable& mft, const Volume& volume);

// The raw bytes of one record slot; false when the slot lies in no run or
// cannot be read.
bool readRawRecord(MasterFileTable& mft, const Volume& volume, unsigned long long index,
                   std::vector<unsigned char>& bytes);

// Reads volume clusters from the MFT's drive, for the record reader's
// non-resident attribute lists; empty when the volume does not lie in one
// extent of one drive.
RecordReader::ClusterReader volumeClusterReader(MasterFileTable& mft, const Volume& volume);

} // namespace kestrow::tool
