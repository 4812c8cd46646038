// libFuzzer target: the whole stack over one attached disk image, as a host
// uses it: the disk-image backend finds the volume, Volume measures it, and
// MasterFileTable locates the MFT, sizes its record buffer, counts the
// records, reads and completes them (extension records, index blocks) and
// builds paths. Input: the disk (compact disks and volumes as seeds).
#include <kestrow/Disks.h>
#include <libKestrow/FileRecord.h>
#include <libKestrow/MasterFileTable.h>
#include <libKestrow/Volume.h>

#include "filerecord_fuzz_platform.h"

#include <cstdio>
#include <string>
#include <unistd.h>

namespace {

// The backend attaches files only: the input goes to one file per process,
// in memory where /dev/shm exists.
const std::string& imagePath() {
    static const std::string path = [] {
        const char* directory = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        return std::string(directory) + "/kestrow-fuzz-" + std::to_string(getpid()) + ".img";
    }();
    return path;
}

bool writeImage(const std::uint8_t* data, std::size_t size) {
    std::FILE* file = std::fopen(imagePath().c_str(), "wb");
    if (file == nullptr)
        return false;
    const bool written = std::fwrite(data, 1, size, file) == size;
    return std::fclose(file) == 0 && written;
}

// Record slots looked at: enough for the system files and the first
// directories of the seeds, few enough that one input stays quick.
constexpr unsigned long long RECORDS = 96;

void exercise(MasterFileTable& mft) {
    unsigned long long count = 0;
    mft.getNumMftRecords(count);
    for (unsigned long long index = 0; index < RECORDS && index < count; ++index) {
        FileRecord record;
        if (!mft.getValidMftRecord(FileReference(index, 0), record))
            continue;
        mft.findParentPath(record);
        if ((record.getFileAttributes() & FILE_ATTRIBUTE_DIRECTORY) != 0)
            mft.postProcessFileRecord(record);
    }
    mft.getLastActiveRecord();
    FileReference owner;
    mft.findRecordCluster(0, owner);
    if (count <= RECORDS * 4)
        mft.buildRecordMap();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    kestrow::fuzz::ScopedDiagnostics diagnostics(false);
    if (!writeImage(data, size))
        return 0;
    std::string error;
    if (kestrow::platform::attachDisks({imagePath()}, error)) {
        for (const kestrow::platform::VolumeInfo& info : kestrow::platform::attachedVolumes()) {
            if (info.fileSystem != "NTFS" || info.letter == 0)
                continue;
            Volume volume(info.letter);
            if (!volume.initialized())
                continue;
            MasterFileTable mft(volume);
            if (mft.initialized())
                exercise(mft);
        }
    }
    kestrow::platform::attachDisks({}, error);
    std::remove(imagePath().c_str());
    return 0;
}
