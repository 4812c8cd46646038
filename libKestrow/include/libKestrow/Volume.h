// Volume: one mounted volume, named by its drive letter.
#pragma once

#include <kestrow/Export.h>
#include <kestrow/WinTypes.h>

#include <orv/Array.h>
#include <orv/Buffer.h>
#include <orv/SharedResource.h>
#include <orv/String.h>

class FileRecord;
class MasterFileTable;

// The shared OS handle every device operation uses.
using VolumeHandle =
    orv::SharedResource<orv::DescriptorStorage<HANDLE, -1, orv::FileHandleResManager>>;

class KESTROW_API Volume {
public:
    // One physical-disk extent of the volume, copied from one DISK_EXTENT.
    struct VolumeExtent {
        unsigned int diskNumber;
        unsigned long long startingOffset;
        unsigned long long extentLength;
    };

    // One run of a file as physical-drive sectors; endSector is exclusive.
    struct FileExtent {
        unsigned int diskNumber;
        unsigned long long startSector;
        unsigned long long endSector;
    };

    explicit Volume(char driveLetter);
    Volume(const Volume& other);
    Volume(Volume&& other) noexcept;
    Volume& operator=(const Volume& other);
    Volume& operator=(Volume&& other) noexcept;
    ~Volume();

    bool initialized() const;

    // The volume's physical-disk extents, asked for once and then cached.
    const orv::Array<VolumeExtent>& getVolumeExtents() const;

    orv::String toString();

    // Sector I/O on a volume or physical-drive handle.
    bool readBytesFromSector(VolumeHandle& handle, unsigned long long sector,
                             unsigned long long byteCount, orv::Buffer<unsigned char>& buffer);
    static bool readFileBySector(Volume& volume, VolumeHandle& handle, const FileExtent& extent,
                                 orv::String& errorText);
    static bool dumpSectors(VolumeHandle& handle, unsigned long long sector,
                            unsigned int sectorCount, unsigned int bytesPerSector,
                            orv::String& text);

    // File extents and cluster maps.
    bool getFileExtents(const orv::String& path, orv::Array<FileExtent>& extents) const;
    bool getVolumeClusterBitmap(orv::Buffer<unsigned char>& bitmap) const;
    bool getUsedClusters(orv::Array<unsigned long long>& clusters) const;

    // Read-only views of the geometry, for hosts and tools. The library's own
    // classes read the fields directly.
    char driveLetter() const { return m_driveLetter; }
    const orv::String& path() const { return m_path; }
    const orv::String& name() const { return m_name; }
    const orv::String& serialNumber() const { return m_serialNumber; }
    const orv::String& fileSystem() const { return m_fileSystem; }
    unsigned int sectorsPerCluster() const { return m_sectorsPerCluster; }
    unsigned int bytesPerSector() const { return m_bytesPerSector; }
    unsigned long long freeClusters() const { return m_freeClusters; }
    unsigned long long totalClusters() const { return m_totalClusters; }
    unsigned int bytesPerCluster() const { return m_bytesPerCluster; }
    unsigned long long totalSectors() const { return m_totalSectors; }
    unsigned int bytesPerFileRecord() const { return m_bytesPerFileRecord; }

private:
    friend class FileRecord;
    friend class MasterFileTable;

    const VolumeExtent* findVolumeExtent(unsigned long long) const;
    VolumeHandle getVolumeHandle() const;

    char m_driveLetter;
    orv::String m_path;
    orv::String m_name;
    orv::String m_serialNumber;
    orv::String m_fileSystem;
    unsigned int m_reserved;
    unsigned int m_sectorsPerCluster;
    unsigned int m_bytesPerSector;
    unsigned long long m_freeClusters;
    unsigned long long m_totalClusters;
    unsigned int m_bytesPerCluster;
    unsigned long long m_totalSectors;
    unsigned int m_bytesPerFileRecord;
    bool m_initialized;
    mutable orv::Array<VolumeExtent> m_volumeExtents;
};
