// libFuzzer target: the FileRecord constructor and postProcess over a record
// and a disk made from the input (layout in filerecord_fuzz_platform.h).
#include "filerecord_fuzz_platform.h"

#include <libKestrow/FileRecord.h>
#include <libKestrow/Volume.h>

#include <orv/Buffer.h>

#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace kestrow::fuzz;
    if (size < GEOMETRY_BYTES)
        return 0;
    Geometry geometry = Geometry::from(data);
    geometry.capVolumeSize();
    const std::uint8_t* disk = data + GEOMETRY_BYTES;
    const std::size_t diskSize = size - GEOMETRY_BYTES;

    FuzzPlatform platform(geometry, disk, diskSize);
    kestrow::platform::ScopedApi scope(platform);
    ScopedDiagnostics diagnostics(geometry.diagnostics);

    Volume volume('F');
    // The record buffer is an exact-size copy, so that reading past it is
    // caught by the sanitizer.
    std::vector<std::uint8_t> bytes(disk, disk + diskSize);
    orv::Buffer<unsigned char> buffer(bytes.data(), bytes.size());
    FileRecord record(buffer, FileReference(42, 1), volume);

    VolumeHandle handle;
    openDrive(handle);
    record.postProcess(handle);
    const RecordSummary summary(record);
    (void)summary;
    return 0;
}
