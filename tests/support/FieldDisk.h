// The disk written by Windows 10 (two NTFS volumes), used by the whole-volume
// tests when it is at hand. It is GPL test data from another project and never
// enters this repository: its archive is read from KESTROW_FIELD_DIR (the
// environment variable, else the CMake cache entry of that name) and extracted
// (sparse) into the build tree the first time a test asks for it.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace kestrow::test {

// The extracted disk image, or nothing when the archive is not there or
// cannot be extracted.
std::optional<std::filesystem::path> fieldDisk();
// Why fieldDisk() gave nothing, for GTEST_SKIP.
std::string fieldDiskAbsence();

} // namespace kestrow::test
