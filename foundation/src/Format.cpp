#include <orv/Format.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace orv {

namespace {

enum class Length { Default, Char, Short, Long, LongLong, Int64, Size, IntMax, PtrDiff };

// One conversion (flags, width, precision, length, type), as parsed from the format.
struct Spec {
    std::string flags;
    std::string width;     // digits, or "*"
    std::string precision; // "" when absent; ".", ".5" or ".*" otherwise
    Length length = Length::Default;
    bool wide = false; // 'w' before 's' or 'c' (Windows' wide-string modifier)
    char conversion = 0;
};

void appendAscii(String& out, const char* text, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i)
        out.append(static_cast<Char16>(static_cast<unsigned char>(text[i])));
}

// Renders one numeric or character conversion through the C library, after
// replacing the length modifier with the standard one for the value's type.
template <class T> void formatWithLibrary(String& out, const Spec& spec, const char* length, T value) {
    std::string format = "%" + spec.flags + spec.width + spec.precision + length;
    format += spec.conversion;
    char small[128];
    const int n = std::snprintf(small, sizeof small, format.c_str(), value);
    if (n < 0)
        return;
    if (static_cast<std::size_t>(n) < sizeof small) {
        appendAscii(out, small, static_cast<std::size_t>(n));
        return;
    }
    std::string large(static_cast<std::size_t>(n) + 1, '\0');
    std::snprintf(&large[0], large.size(), format.c_str(), value);
    appendAscii(out, large.data(), static_cast<std::size_t>(n));
}

// Pads a piece of text to the width, on the left unless '-' is among the
// flags.
void appendPadded(String& out, const String& piece, const Spec& spec, long width) {
    const bool left = spec.flags.find('-') != std::string::npos;
    const long pad = width > static_cast<long>(piece.size()) ? width - piece.size() : 0;
    if (!left)
        for (long i = 0; i < pad; ++i)
            out.append(static_cast<Char16>(' '));
    out.append(piece);
    if (left)
        for (long i = 0; i < pad; ++i)
            out.append(static_cast<Char16>(' '));
}

String narrowText(const char* text, long precision) {
    if (text == nullptr)
        return String("(null)");
    std::size_t n = std::strlen(text);
    if (precision >= 0 && static_cast<std::size_t>(precision) < n)
        n = static_cast<std::size_t>(precision);
    return String(text, static_cast<unsigned int>(n));
}

String wideText(const Char16* text, long precision) {
    if (text == nullptr)
        return String("(null)");
    unsigned int n = 0;
    while (text[n] != 0 && (precision < 0 || n < static_cast<unsigned long>(precision)))
        ++n;
    return String(text, n);
}

// Parses the conversion that starts after a '%'; returns the position
// after it, or null when the format ends inside it.
const char* parseSpec(const char* p, Spec& spec) {
    while (*p != '\0' && std::strchr("-+ #0'", *p) != nullptr)
        spec.flags += *p++;
    if (*p == '*')
        spec.width = *p++;
    else
        while (*p >= '0' && *p <= '9')
            spec.width += *p++;
    if (*p == '.') {
        spec.precision = *p++;
        if (*p == '*')
            spec.precision += *p++;
        else
            while (*p >= '0' && *p <= '9')
                spec.precision += *p++;
    }
    if (std::strncmp(p, "I64", 3) == 0) {
        spec.length = Length::Int64;
        p += 3;
    } else if (std::strncmp(p, "I32", 3) == 0) {
        p += 3;
    } else if (*p == 'h' && p[1] == 'h') {
        spec.length = Length::Char;
        p += 2;
    } else if (*p == 'h') {
        spec.length = Length::Short;
        ++p;
    } else if (*p == 'l' && p[1] == 'l') {
        spec.length = Length::LongLong;
        p += 2;
    } else if (*p == 'l') {
        spec.length = Length::Long;
        ++p;
    } else if (*p == 'z' || *p == 'I') {
        spec.length = Length::Size;
        ++p;
    } else if (*p == 'j') {
        spec.length = Length::IntMax;
        ++p;
    } else if (*p == 't') {
        spec.length = Length::PtrDiff;
        ++p;
    } else if (*p == 'w') {
        spec.wide = true;
        ++p;
    }
    if (*p == '\0')
        return nullptr;
    spec.conversion = *p++;
    return p;
}

void formatInteger(String& out, Spec& spec, std::va_list& args) {
    const bool isSigned = spec.conversion == 'd' || spec.conversion == 'i';
    switch (spec.length) {
    case Length::LongLong:
    case Length::Int64:
    case Length::IntMax:
        if (isSigned)
            formatWithLibrary(out, spec, "ll", va_arg(args, long long));
        else
            formatWithLibrary(out, spec, "ll", va_arg(args, unsigned long long));
        break;
    case Length::Long:
        if (isSigned)
            formatWithLibrary(out, spec, "l", va_arg(args, long));
        else
            formatWithLibrary(out, spec, "l", va_arg(args, unsigned long));
        break;
    case Length::Size:
    case Length::PtrDiff:
        if (isSigned)
            formatWithLibrary(out, spec, "ll", static_cast<long long>(va_arg(args, std::ptrdiff_t)));
        else
            formatWithLibrary(out, spec, "ll",
                              static_cast<unsigned long long>(va_arg(args, std::size_t)));
        break;
    case Length::Char:
        if (isSigned)
            formatWithLibrary(out, spec, "hh", va_arg(args, int));
        else
            formatWithLibrary(out, spec, "hh", va_arg(args, unsigned int));
        break;
    case Length::Short:
        if (isSigned)
            formatWithLibrary(out, spec, "h", va_arg(args, int));
        else
            formatWithLibrary(out, spec, "h", va_arg(args, unsigned int));
        break;
    case Length::Default:
        if (isSigned)
            formatWithLibrary(out, spec, "", va_arg(args, int));
        else
            formatWithLibrary(out, spec, "", va_arg(args, unsigned int));
        break;
    }
}

} // namespace

SprintfFormat::SprintfFormat(const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    SprintfFormat formatted(format, args);
    va_end(args);
    static_cast<String&>(*this) = static_cast<String&&>(formatted);
}

SprintfFormat::SprintfFormat(const char* format, std::va_list arguments) {
    std::va_list args;
    va_copy(args, arguments);
    String& out = *this;
    const char* p = format;
    while (p != nullptr && *p != '\0') {
        const char* percent = std::strchr(p, '%');
        if (percent == nullptr) {
            appendAscii(out, p, std::strlen(p));
            break;
        }
        appendAscii(out, p, static_cast<std::size_t>(percent - p));
        Spec spec;
        const char* next = parseSpec(percent + 1, spec);
        if (next == nullptr) {
            appendAscii(out, percent, std::strlen(percent));
            break;
        }
        p = next;
        if (spec.width == "*")
            spec.width = std::to_string(va_arg(args, int));
        if (spec.precision == ".*")
            spec.precision.assign(1, '.').append(std::to_string(va_arg(args, int)));
        const long width = spec.width.empty() ? 0 : std::strtol(spec.width.c_str(), nullptr, 10);
        const long precision =
            spec.precision.empty() ? -1 : std::strtol(spec.precision.c_str() + 1, nullptr, 10);
        switch (spec.conversion) {
        case '%':
            out.append(static_cast<Char16>('%'));
            break;
        case 'd':
        case 'i':
        case 'u':
        case 'x':
        case 'X':
        case 'o':
            formatInteger(out, spec, args);
            break;
        case 'f':
        case 'F':
        case 'e':
        case 'E':
        case 'g':
        case 'G':
        case 'a':
        case 'A':
            formatWithLibrary(out, spec, "", va_arg(args, double));
            break;
        case 'p':
            formatWithLibrary(out, spec, "", va_arg(args, void*));
            break;
        case 'c':
        case 'C': {
            const Char16 unit = static_cast<Char16>(va_arg(args, int));
            appendPadded(out, String(&unit, 1), spec, width);
            break;
        }
        case 's':
            if (spec.wide || spec.length == Length::Long)
                appendPadded(out, wideText(va_arg(args, const Char16*), precision), spec, width);
            else
                appendPadded(out, narrowText(va_arg(args, const char*), precision), spec, width);
            break;
        case 'S':
            appendPadded(out, wideText(va_arg(args, const Char16*), precision), spec, width);
            break;
        default:
            // An unknown conversion is copied as it stands.
            appendAscii(out, percent, static_cast<std::size_t>(next - percent));
            break;
        }
    }
    va_end(args);
}

HexDumpFormat::HexDumpFormat(const void* data, unsigned int length, unsigned char style,
                             unsigned long long base)
    : m_data(static_cast<const unsigned char*>(data)), m_length(length), m_style(style),
      m_base(base) {}

String HexDumpFormat::toString() const {
    static const char digits[] = "0123456789ABCDEF";
    String out;
    if (m_data == nullptr || m_length == 0)
        return out;
    out.reserveCapacity(m_length / 16 * 80 + 80);
    for (unsigned int line = 0; line < m_length; line += 16) {
        char text[96];
        int n = std::snprintf(text, sizeof text, "%08llX ", m_base + line);
        for (unsigned int i = 0; i < 16; ++i) {
            if (i == 8)
                text[n++] = ' ';
            if (line + i < m_length) {
                const unsigned char byte = m_data[line + i];
                text[n++] = ' ';
                text[n++] = digits[byte >> 4];
                text[n++] = digits[byte & 0x0F];
            } else {
                text[n++] = ' ';
                text[n++] = ' ';
                text[n++] = ' ';
            }
        }
        if ((m_style & 2) != 0) {
            text[n++] = ' ';
            text[n++] = ' ';
            text[n++] = '|';
            for (unsigned int i = 0; i < 16 && line + i < m_length; ++i) {
                const unsigned char byte = m_data[line + i];
                text[n++] = (byte >= 0x20 && byte < 0x7F) ? static_cast<char>(byte) : '.';
            }
            text[n++] = '|';
        }
        text[n++] = '\n';
        appendAscii(out, text, static_cast<std::size_t>(n));
    }
    return out;
}

ORVValue::ORVValue(const unsigned int& value) : m_kind(UNSIGNED_32), m_bits(value) {}
ORVValue::ORVValue(const long long& value)
    : m_kind(SIGNED_64), m_bits(static_cast<unsigned long long>(value)) {}
ORVValue::ORVValue(const unsigned long long& value) : m_kind(UNSIGNED_64), m_bits(value) {}
ORVValue::~ORVValue() = default;

unsigned int ORVValue::nilValue() noexcept { return 0xFFFFFFFFu; }

String ORVValue::toString(unsigned int /*format*/) const {
    char text[32];
    if (m_kind == SIGNED_64)
        std::snprintf(text, sizeof text, "%lld", static_cast<long long>(m_bits));
    else
        std::snprintf(text, sizeof text, "%llu", m_bits);
    return String(text);
}

} // namespace orv
