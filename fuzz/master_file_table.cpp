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
#include <cstdlib>
#include <fcntl.h>
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

void removeImage() {
    std::remove(imagePath().c_str());
}

// The file lives as long as the process and is rewritten in place, keeping
// its pages: creating and removing it for every input allocated and freed
// them each time.
int imageFile() {
    static const int descriptor = [] {
        const int opened = open(imagePath().c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
        if (opened >= 0)
            std::atexit(removeImage);
        return opened;
    }();
    return descriptor;
}

bool writeImage(const std::uint8_t* data, std::size_t size) {
    const int file = imageFile();
    if (file < 0 || ftruncate(file, static_cast<off_t>(size)) != 0)
        return false;
    for (std::size_t done = 0; done < size;) {
        const ssize_t written = pwrite(file, data + done, size - done, static_cast<off_t>(done));
        if (written <= 0)
            return false;
        done += static_cast<std::size_t>(written);
    }
    return true;
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
    return 0;
}
