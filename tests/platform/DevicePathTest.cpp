// How Windows path forms map to disks, volumes and files.
#include "DevicePath.h"

#include <gtest/gtest.h>

namespace {

using kestrow::platform::disk::DevicePath;
using kestrow::platform::disk::parseDevicePath;
using Kind = DevicePath::Kind;

DevicePath parse(std::u16string_view text) {
    std::basic_string<WCHAR> wide(text.begin(), text.end());
    return parseDevicePath(wide.c_str());
}

std::vector<std::u16string> names(std::initializer_list<const char16_t*> list) {
    return std::vector<std::u16string>(list.begin(), list.end());
}

TEST(DevicePath, DevicesOfTheDeviceNamespaces) {
    auto path = parse(u"\\\\.\\PhysicalDrive12");
    EXPECT_EQ(path.kind, Kind::Disk);
    EXPECT_EQ(path.disk, 12u);
    EXPECT_EQ(parse(u"\\\\?\\physicaldrive0").kind, Kind::Disk);
    EXPECT_EQ(parse(u"\\\\.\\PhysicalDrive").kind, Kind::Other);
    EXPECT_EQ(parse(u"\\\\.\\PhysicalDrive99999999999").kind, Kind::Other);
    path = parse(u"\\\\?\\c:");
    EXPECT_EQ(path.kind, Kind::Volume);
    EXPECT_EQ(path.letter, 'C');
    EXPECT_EQ(parse(u"\\\\.\\D:").kind, Kind::Volume);
    EXPECT_EQ(parse(u"//./E:").kind, Kind::Volume); // Win32 accepts forward slashes here
    EXPECT_EQ(parse(u"\\\\.\\CdRom0").kind, Kind::Other);
}

TEST(DevicePath, FilesOnADrive) {
    auto path = parse(u"\\\\.\\C:\\$MFT");
    EXPECT_EQ(path.kind, Kind::File);
    EXPECT_EQ(path.components, names({u"$MFT"}));
    path = parse(u"C:$MFT"); // relative to the drive's current directory, the root
    EXPECT_EQ(path.kind, Kind::File);
    EXPECT_EQ(path.components, names({u"$MFT"}));
    path = parse(u"\\\\.\\C:$MFT");
    EXPECT_EQ(path.kind, Kind::File);
    EXPECT_EQ(path.components, names({u"$MFT"}));
    path = parse(u"C:");
    EXPECT_EQ(path.kind, Kind::File);
    EXPECT_TRUE(path.components.empty());
    path = parse(u"\\\\.\\C:\\");
    EXPECT_EQ(path.kind, Kind::File);
    EXPECT_TRUE(path.components.empty());
    EXPECT_TRUE(path.trailingSeparator);
}

TEST(DevicePath, Win32NormalisationButNotForTheLiteralForm) {
    auto path = parse(u"C:/a//b/./c/../d.txt. .");
    EXPECT_EQ(path.components, names({u"a", u"b", u"d.txt"}));
    EXPECT_FALSE(path.trailingSeparator);
    path = parse(u"C:\\..\\..\\x");
    EXPECT_EQ(path.components, names({u"x"})); // ".." stops at the root
    path = parse(u"\\\\?\\C:\\a\\.\\b/c");
    EXPECT_EQ(path.components, names({u"a", u".", u"b/c"}));
    path = parse(u"C:\\Docs\\");
    EXPECT_TRUE(path.trailingSeparator);
    path = parse(u"C:\\file.txt::$DATA");
    EXPECT_EQ(path.components, names({u"file.txt"}));
}

TEST(DevicePath, NamesWindowsRefuses) {
    EXPECT_EQ(parse(u"C:\\a*b").error, static_cast<DWORD>(ERROR_INVALID_NAME));
    EXPECT_EQ(parse(u"C:\\a\\b|c").error, static_cast<DWORD>(ERROR_INVALID_NAME));
    EXPECT_EQ(parse(u"C:\\file.txt:alternate").error, static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(parse(u"").error, static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
    EXPECT_EQ(parse(u"relative\\x").error, static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
    EXPECT_EQ(parse(u"\\\\server\\share").error, static_cast<DWORD>(ERROR_BAD_NETPATH));
    EXPECT_EQ(parseDevicePath(nullptr).error, static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    std::u16string huge = u"C:\\";
    huge.append(40000, u'a');
    EXPECT_EQ(parse(huge).error, static_cast<DWORD>(ERROR_FILENAME_EXCED_RANGE));
}

} // namespace
