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
    // Keep the volume small enough that reading every cluster it has stays
    // quick: a run as large as the volume is legitimate input.
    const std::uint64_t maxClusters = (64ULL << 20) / geometry.bytesPerCluster();
    if (geometry.totalClusters > maxClusters)
        geometry.totalClusters = static_cast<DWORD>(maxClusters);
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
    handle.open(orv::CreateFileOpenArgs(orv::String("\\\\.\\PhysicalDrive0"), GENERIC_READ,
                                        FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING, 0));
    record.postProcess(handle);
    const RecordSummary summary(record);
    (void)summary;
    return 0;
}
