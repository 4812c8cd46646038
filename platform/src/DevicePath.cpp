#include "DevicePath.h"

namespace kestrow::platform::disk {

namespace {

using Text = std::u16string;

// Longest path accepted; Win32 without long-path support stops at 260, the
// \\?\ form at 32767 characters.
constexpr std::size_t kMaxPath = 32767;

bool isSeparator(char16_t c) {
    return c == u'\\' || c == u'/';
}

bool isLetter(char16_t c) {
    return (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z');
}

char upperLetter(char16_t c) {
    return static_cast<char>(c >= u'a' && c <= u'z' ? c - (u'a' - u'A') : c);
}

bool equalsAsciiNoCase(const Text& text, const char* ascii) {
    std::size_t i = 0;
    for (; ascii[i] != '\0'; ++i) {
        if (i >= text.size())
            return false;
        char16_t c = text[i];
        if (c >= u'a' && c <= u'z')
            c = static_cast<char16_t>(c - (u'a' - u'A'));
        char16_t expected = static_cast<char16_t>(ascii[i]);
        if (expected >= u'a' && expected <= u'z')
            expected = static_cast<char16_t>(expected - (u'a' - u'A'));
        if (c != expected)
            return false;
    }
    return i == text.size();
}

bool startsWith(const Text& text, const char16_t* prefix) {
    return text.rfind(prefix, 0) == 0;
}

DevicePath invalid(DWORD error) {
    DevicePath path;
    path.kind = DevicePath::Kind::Invalid;
    path.error = error;
    return path;
}

// Characters Win32 refuses in a name.
bool hasInvalidNameCharacter(const Text& name) {
    for (char16_t c : name) {
        if (c < 0x20 || c == u'<' || c == u'>' || c == u'"' || c == u'|' || c == u'?' ||
            c == u'*' || c == u':')
            return true;
    }
    return false;
}

// Splits the part after "X:" into names. With `literal` (the \\?\ form)
// only '\' separates and "." and ".." are names like any other.
bool splitComponents(const Text& rest, bool literal, DevicePath& out) {
    std::vector<Text> names;
    Text current;
    auto flush = [&]() {
        if (current.empty())
            return;
        if (!literal && current == u".") {
            // the current directory: nothing to add
        } else if (!literal && current == u"..") {
            if (!names.empty())
                names.pop_back();
        } else {
            names.push_back(current);
        }
        current.clear();
    };
    for (char16_t c : rest) {
        if (c == u'\\' || (!literal && c == u'/'))
            flush();
        else
            current.push_back(c);
    }
    out.trailingSeparator =
        !rest.empty() && (rest.back() == u'\\' || (!literal && rest.back() == u'/'));
    if (!literal) {
        // Win32 drops trailing dots and blanks of the final name.
        while (!current.empty() && (current.back() == u'.' || current.back() == u' ') &&
               current != u"." && current != u"..")
            current.pop_back();
    }
    flush();
    for (Text& name : names) {
        // "name::$DATA" names the unnamed data stream of "name".
        const std::size_t colon = name.find(u':');
        if (colon != Text::npos) {
            const Text stream = name.substr(colon);
            if (stream == u"::$DATA" || stream == u":")
                name.erase(colon);
            else {
                out.kind = DevicePath::Kind::Invalid;
                out.error = ERROR_FILE_NOT_FOUND; // named streams are not offered
                return false;
            }
        }
        if (name.empty() || hasInvalidNameCharacter(name)) {
            out.kind = DevicePath::Kind::Invalid;
            out.error = ERROR_INVALID_NAME;
            return false;
        }
    }
    out.components = std::move(names);
    return true;
}

DevicePath parseDriveForm(const Text& text, bool literal, bool deviceNamespace) {
    // text starts with "X:"
    DevicePath path;
    path.letter = upperLetter(text[0]);
    path.deviceNamespace = deviceNamespace;
    const Text rest = text.substr(2);
    if (deviceNamespace && rest.empty()) {
        path.kind = DevicePath::Kind::Volume;
        return path;
    }
    path.kind = DevicePath::Kind::File;
    if (!splitComponents(rest, literal, path))
        return path;
    return path;
}

bool parsePhysicalDrive(const Text& text, std::uint32_t& number) {
    static const char16_t kPrefix[] = u"PHYSICALDRIVE";
    const std::size_t prefixLength = sizeof kPrefix / sizeof kPrefix[0] - 1;
    if (text.size() <= prefixLength ||
        !equalsAsciiNoCase(text.substr(0, prefixLength), "PhysicalDrive"))
        return false;
    std::uint64_t value = 0;
    for (std::size_t i = prefixLength; i < text.size(); ++i) {
        if (text[i] < u'0' || text[i] > u'9' || value > 0xFFFFFFFFull / 10)
            return false;
        value = value * 10 + static_cast<std::uint64_t>(text[i] - u'0');
    }
    if (value > 0xFFFFFFFFull)
        return false;
    number = static_cast<std::uint32_t>(value);
    return true;
}

} // namespace

DevicePath parseDevicePath(LPCWSTR raw) {
    if (raw == nullptr)
        return invalid(ERROR_INVALID_PARAMETER);
    Text text;
    for (const WCHAR* p = raw; *p != 0; ++p) {
        if (text.size() >= kMaxPath)
            return invalid(ERROR_FILENAME_EXCED_RANGE);
        text.push_back(static_cast<char16_t>(*p));
    }
    if (text.empty())
        return invalid(ERROR_PATH_NOT_FOUND);

    const bool literal = startsWith(text, u"\\\\?\\");
    const bool device = startsWith(text, u"\\\\.\\") ||
                        (!literal && text.size() >= 4 && isSeparator(text[0]) &&
                         isSeparator(text[1]) && text[2] == u'.' && isSeparator(text[3]));
    if (literal || device) {
        const Text rest = text.substr(4);
        std::uint32_t number = 0;
        if (parsePhysicalDrive(rest, number)) {
            DevicePath path;
            path.kind = DevicePath::Kind::Disk;
            path.disk = number;
            path.deviceNamespace = true;
            return path;
        }
        if (rest.size() >= 2 && isLetter(rest[0]) && rest[1] == u':')
            return parseDriveForm(rest, literal, true);
        DevicePath path;
        path.kind = DevicePath::Kind::Other;
        path.deviceNamespace = true;
        return path;
    }
    if (text.size() >= 2 && isSeparator(text[0]) && isSeparator(text[1])) {
        DevicePath path = invalid(ERROR_BAD_NETPATH); // a UNC share: not ours
        return path;
    }
    if (text.size() >= 2 && isLetter(text[0]) && text[1] == u':')
        return parseDriveForm(text, false, false);
    // Rooted without a drive, or relative: the process's current directory
    // is not on an attached volume.
    return invalid(ERROR_PATH_NOT_FOUND);
}

} // namespace kestrow::platform::disk
