// How a Windows path given to CreateFileW, GetFileAttributesW,
// GetVolumeInformationW or GetDiskFreeSpaceW names a disk, a volume or a
// file on a volume, following Win32's path rules.
#pragma once

#include <kestrow/WinTypes.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kestrow::platform::disk {

struct DevicePath {
    enum class Kind {
        Invalid, // `error` says why
        Disk,    // \\.\PhysicalDriveN
        Volume,  // \\.\X: or \\?\X: (the volume device itself)
        File,    // a path on drive `letter`: X:\a\b, X:a, \\.\X:\a, X: ...
        Other,   // a device or namespace the backend does not have
    };

    Kind kind = Kind::Invalid;
    DWORD error = 0;
    char letter = 0; // upper case
    std::uint32_t disk = 0;
    std::vector<std::u16string> components; // from the root; empty for the root itself
    bool trailingSeparator = false;         // the path ended in a backslash
    bool deviceNamespace = false;           // began with \\.\ or \\?\ .
};

// Parses a NUL-terminated path. "\\?\" paths are taken literally; other
// forms are normalised as Win32 does: '/' becomes '\', repeated separators
// collapse, "." and ".." are resolved, and trailing dots and blanks of the
// last name are dropped. A drive-relative path (X:name) is taken relative to
// the root, the current directory of every backend drive.
DevicePath parseDevicePath(LPCWSTR path);

} // namespace kestrow::platform::disk
