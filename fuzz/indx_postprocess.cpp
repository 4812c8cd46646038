// libFuzzer target: postProcess, the walk of a directory's index blocks
// ("INDX") read through the volume. Input: the geometry bytes of
// filerecord_fuzz_platform.h, then one FILE record of the geometry's record
// size, then the disk as it lies from the first byte postProcess reads on
// (the first cluster of the record's first "$I30" index allocation run), so
// that the record and its index blocks are mutated together.
#include "filerecord_fuzz_platform.h"

#include <libKestrow/FileRecord.h>
#include <libKestrow/Volume.h>

#include <orv/Buffer.h>

#include <unordered_set>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace kestrow::fuzz;
    if (size < GEOMETRY_BYTES)
        return 0;
    Geometry geometry = Geometry::from(data);
    geometry.capVolumeSize();
    const std::uint8_t* rest = data + GEOMETRY_BYTES;
    const std::size_t restSize = size - GEOMETRY_BYTES;
    const std::size_t recordSize =
        restSize < geometry.bytesPerFileRecord ? restSize : geometry.bytesPerFileRecord;

    FuzzPlatform platform(geometry, rest + recordSize, restSize - recordSize,
                          DiskOrigin::FirstRead);
    kestrow::platform::ScopedApi scope(platform);
    ScopedDiagnostics diagnostics(geometry.diagnostics);

    Volume volume('F');
    // An exact-size copy of the record, so that reading past it is caught.
    std::vector<std::uint8_t> bytes(rest, rest + recordSize);
    orv::Buffer<unsigned char> buffer(bytes.data(), bytes.size());
    FileRecord record(buffer, FileReference(5, 5), volume);

    VolumeHandle handle;
    openDrive(handle);
    record.postProcess(handle);

    // Every child is listed once, and a second pass over the same blocks
    // finds nothing new.
    const auto& entries = record.getIndexEntries();
    std::unordered_set<unsigned long long> seen;
    for (unsigned long long entry : entries) {
        if (!seen.insert(entry).second || entry > 0xFFFFFFFFFFFFULL)
            __builtin_trap();
    }
    const std::size_t listed = entries.size();
    record.postProcess(handle);
    if (record.getIndexEntries().size() != listed)
        __builtin_trap();
    return 0;
}
