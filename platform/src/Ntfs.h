// A small, careful NTFS reader: what the backend needs to answer for the
// file system driver. It applies the update-sequence fix-ups of FILE records
// and INDX blocks, follows $ATTRIBUTE_LIST, decodes run lists, reads $Volume,
// $UpCase and $Bitmap, and resolves names through the directory indexes.
//
// Everything it reads comes from a disk that may be damaged or hostile: every
// offset is checked, every loop is bounded, and every allocation sized from a
// disk value is capped.
#pragma once

#include "BootSector.h"
#include "ByteSource.h"
#include "LittleEndian.h"
#include "NtfsRecord.h"

#include <kestrow/WinTypes.h>

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kestrow::platform::disk {

// Well-known record numbers.
namespace record {
constexpr std::uint64_t kMft = 0;
constexpr std::uint64_t kVolume = 3;
constexpr std::uint64_t kRoot = 5;
constexpr std::uint64_t kBitmap = 6;
constexpr std::uint64_t kUpCase = 10;
} // namespace record

// What the index says about a file, and its record's own flags.
struct NtfsFileInfo {
    std::uint64_t record = 0;
    bool directory = false;
    DWORD attributes = 0; // FILE_ATTRIBUTE_* as Windows reports them
};

class NtfsVolume {
public:
    // Mounts the volume: reads the boot sector's MFT record 0 and, through
    // its attribute list, every run of the MFT; then the label and the upcase
    // table, tolerating damage to either. Fails (nullptr, `error` set) only
    // when record 0 cannot be read.
    static std::shared_ptr<const NtfsVolume> mount(std::shared_ptr<const ByteSource> volume,
                                                   const BootSector& boot, std::string& error);

    // Opens a volume whose MFT is taken to lie in `mftRuns` rather than where
    // record 0 says: a file holding only an MFT, read before its geometry is
    // known. Nothing is read; the label and upcase table stay unread.
    static std::shared_ptr<const NtfsVolume>
    mountWithMftRuns(std::shared_ptr<const ByteSource> volume, const BootSector& boot,
                     std::vector<DataRun> mftRuns);

    const BootSector& boot() const { return m_boot; }
    const std::u16string& label() const { return m_label; }
    std::uint8_t majorVersion() const { return m_majorVersion; }
    const std::vector<DataRun>& mftRuns() const { return m_mftRuns; }
    std::uint64_t mftValidDataLength() const { return m_mftValidDataLength; }
    std::uint64_t mftDataSize() const { return m_mftDataSize; }
    bool upcaseFromDisk() const { return m_upcaseFromDisk; }

    // Reads FILE record `index` with its fix-ups applied (record buffer is
    // resized to the record size). 0 or a Windows error code.
    DWORD readRecord(std::uint64_t index, std::vector<std::uint8_t>& record) const;

    // The attributes of record `index`, extension records included.
    DWORD attributes(std::uint64_t index, std::vector<NtfsAttribute>& out) const;

    // Reads [offset, offset + length) of an attribute's value; past the data
    // size nothing is read (`got` tells how much was).
    DWORD readAttribute(const NtfsAttribute& attribute, std::uint64_t offset, void* buffer,
                        std::size_t length, std::size_t& got) const;

    // Resolves a path from the root directory, one name per component, names
    // compared as NTFS compares them. ERROR_PATH_NOT_FOUND when a directory
    // on the way is missing or is not a directory, ERROR_FILE_NOT_FOUND when
    // the last name is missing.
    DWORD lookup(const std::vector<std::u16string>& components, NtfsFileInfo& info) const;

    // The file information of one record.
    DWORD fileInfo(std::uint64_t index, NtfsFileInfo& info) const;

    // Bytes [firstByte, firstByte + length) of the cluster allocation bitmap;
    // bytes the $Bitmap stream lacks read as 0xFF (in use).
    DWORD readBitmap(std::uint64_t firstByte, std::uint8_t* out, std::size_t length) const;

    // Number of clear bits among the volume's clusters in the bitmap.
    DWORD countFreeClusters(std::uint64_t& freeClusters) const;

    // NTFS's case folding of one UTF-16 unit.
    char16_t upcase(char16_t unit) const;

private:
    NtfsVolume(std::shared_ptr<const ByteSource> volume, const BootSector& boot);

    DWORD readMftBytes(const std::vector<DataRun>& runs, std::uint64_t index,
                       std::vector<std::uint8_t>& record) const;
    DWORD readRuns(const std::vector<DataRun>& runs, std::uint64_t offset, void* buffer,
                   std::size_t length) const;
    DWORD collectAttributes(std::uint64_t index, const std::vector<DataRun>& mftRuns,
                            std::vector<NtfsAttribute>& out) const;
    DWORD loadMftRuns(std::string& error);
    void loadLabel();
    void loadUpcase();
    DWORD findInDirectory(std::uint64_t directory, const std::u16string& name, std::uint64_t& child,
                          bool& isDirectory) const;
    bool namesEqual(const std::u16string& a, const char16_t* b, std::size_t bLength) const;

    std::shared_ptr<const ByteSource> m_volume;
    BootSector m_boot;
    std::uint64_t m_clusterSize = 0;
    std::vector<DataRun> m_mftRuns;
    std::uint64_t m_mftValidDataLength = 0;
    std::uint64_t m_mftDataSize = 0;
    std::u16string m_label;
    std::uint8_t m_majorVersion = 0;
    std::vector<char16_t> m_upcase; // 65536 entries when read from $UpCase
    bool m_upcaseFromDisk = false;
};

// Upper-casing without a $UpCase table: ASCII, Latin-1 and the Latin
// Extended-A pairs, which is what names on damaged volumes most need.
char16_t simpleUpcase(char16_t unit);

} // namespace kestrow::platform::disk
