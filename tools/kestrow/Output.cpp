#include "Output.h"

#include <bit>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#define KESTROW_OUTPUT_SSE2 1
#endif

namespace kestrow::tool {

namespace {

constexpr std::size_t OUTPUT_BUFFER_BYTES = 1 << 20;

constexpr unsigned long long NTFS_TICKS_PER_SECOND = 10000000ULL;
constexpr long long SECONDS_PER_DAY = 86400;

// Days since 1601-01-01 to a civil date (proleptic Gregorian), after
// H. Hinnant's days_from_civil inverse, shifted to the 1601 epoch.
void civilFromDays(long long days, long long& year, unsigned& month, unsigned& day) {
    // 1601-01-01 is 134774 days before 1970-01-01.
    long long z = days - 134774 + 719468;
    const long long era = (z >= 0 ? z : z - 146096) / 146097;
    const unsigned doe = static_cast<unsigned>(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    day = doy - (153 * mp + 2) / 5 + 1;
    month = mp < 10 ? mp + 3 : mp - 9;
    year = static_cast<long long>(yoe) + era * 400 + (month <= 2 ? 1 : 0);
}

struct FlagName {
    unsigned int bit;
    const char* name;
};

constexpr FlagName FILE_ATTRIBUTE_NAMES[] = {
    {0x00000001, "READONLY"},
    {0x00000002, "HIDDEN"},
    {0x00000004, "SYSTEM"},
    {0x00000010, "DIRECTORY"},
    {0x00000020, "ARCHIVE"},
    {0x00000040, "DEVICE"},
    {0x00000080, "NORMAL"},
    {0x00000100, "TEMPORARY"},
    {0x00000200, "SPARSE_FILE"},
    {0x00000400, "REPARSE_POINT"},
    {0x00000800, "COMPRESSED"},
    {0x00001000, "OFFLINE"},
    {0x00002000, "NOT_CONTENT_INDEXED"},
    {0x00004000, "ENCRYPTED"},
    {0x10000000, "DIRECTORY_INDEX"}, // the $FILE_NAME flag for "has a directory index"
    {0x20000000, "VIEW_INDEX"},
};

} // namespace

Output::Output() : m_data(new char[OUTPUT_BUFFER_BYTES]), m_used(0) {}

Output::~Output() {
    flush();
}

// Room for `bytes` more at the end of the buffer, written out first if
// needed; false when the piece is larger than the whole buffer.
bool Output::makeRoom(std::size_t bytes) {
    if (OUTPUT_BUFFER_BYTES - m_used >= bytes)
        return true;
    writeOut();
    return OUTPUT_BUFFER_BYTES >= bytes;
}

Output& Output::operator<<(std::string_view text) {
    if (makeRoom(text.size())) {
        std::memcpy(m_data.get() + m_used, text.data(), text.size());
        m_used += text.size();
    } else {
        std::fwrite(text.data(), 1, text.size(), stdout);
    }
    return *this;
}

Output& Output::operator<<(char c) {
    makeRoom(1);
    m_data[m_used++] = c;
    return *this;
}

Output& Output::operator<<(unsigned long long number) {
    char digits[24];
    const int n = std::snprintf(digits, sizeof digits, "%llu", number);
    return *this << std::string_view(digits, static_cast<std::size_t>(n));
}

Output& Output::operator<<(const orv::String& text) {
    const std::size_t most = MAX_UTF8_PER_UNIT * static_cast<std::size_t>(text.size());
    if (!makeRoom(most)) {
        std::string converted;
        appendUtf8(converted, text);
        return *this << std::string_view(converted);
    }
    char* end = writeUtf8(m_data.get() + m_used, text.getUCS2Buffer(), text.size());
    m_used = static_cast<std::size_t>(end - m_data.get());
    return *this;
}

void Output::writeOut() {
    if (m_used != 0) {
        std::fwrite(m_data.get(), 1, m_used, stdout);
        m_used = 0;
    }
}

void Output::flush() {
    writeOut();
    std::fflush(stdout);
}

namespace {

// One unit that is not ASCII (or a surrogate pair) at units[i]; returns the
// index after it.
inline unsigned int writeNonAscii(char*& p, const orv::Char16* units, unsigned int i,
                                  unsigned int n) {
    std::uint32_t c = static_cast<std::uint16_t>(units[i++]);
    // Latin, Greek, Cyrillic and the like: two bytes, and nothing else to check.
    if (c < 0x800) {
        p[0] = static_cast<char>(0xC0 | (c >> 6));
        p[1] = static_cast<char>(0x80 | (c & 0x3F));
        p += 2;
        return i;
    }
    if (c >= 0xD800 && c <= 0xDBFF && i < n) {
        const std::uint32_t low = static_cast<std::uint16_t>(units[i]);
        if (low >= 0xDC00 && low <= 0xDFFF) {
            c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
            ++i;
        }
    }
    if (c >= 0xD800 && c <= 0xDFFF)
        c = 0xFFFD;
    if (c < 0x10000) {
        p[0] = static_cast<char>(0xE0 | (c >> 12));
        p[1] = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        p[2] = static_cast<char>(0x80 | (c & 0x3F));
        p += 3;
    } else {
        p[0] = static_cast<char>(0xF0 | (c >> 18));
        p[1] = static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        p[2] = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        p[3] = static_cast<char>(0x80 | (c & 0x3F));
        p += 4;
    }
    return i;
}

#if defined(KESTROW_OUTPUT_SSE2)
// A mask with two bits set for every unit of the eight that is ASCII.
inline unsigned int asciiMask(__m128i eight) {
    const __m128i high = _mm_and_si128(eight, _mm_set1_epi16(static_cast<short>(0xFF80)));
    return static_cast<unsigned int>(_mm_movemask_epi8(_mm_cmpeq_epi16(high, _mm_setzero_si128())));
}
constexpr unsigned int ALL_ASCII = 0xFFFF;

// Writes the ASCII units from units[i] on, sixteen and then eight at a time,
// up to the first unit that is not ASCII or the last whole block of eight;
// returns the index it stopped at.
inline unsigned int writeAsciiBlocks(char*& p, const orv::Char16* units, unsigned int i,
                                     unsigned int n) {
    while (i + 16 <= n) {
        const __m128i first = _mm_loadu_si128(reinterpret_cast<const __m128i*>(units + i));
        const __m128i second = _mm_loadu_si128(reinterpret_cast<const __m128i*>(units + i + 8));
        if (asciiMask(_mm_or_si128(first, second)) != ALL_ASCII)
            break;
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p), _mm_packus_epi16(first, second));
        p += 16;
        i += 16;
    }
    while (i + 8 <= n) {
        // All eight bytes are stored (there is room for three a unit), but
        // only the ASCII ones are kept.
        const __m128i eight = _mm_loadu_si128(reinterpret_cast<const __m128i*>(units + i));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(p), _mm_packus_epi16(eight, eight));
        const unsigned int mask = asciiMask(eight);
        if (mask != ALL_ASCII) {
            // Two mask bits a unit; the first unit that is not ASCII ends the run.
            const unsigned int ascii = static_cast<unsigned int>(std::countr_one(mask)) / 2;
            p += ascii;
            return i + ascii;
        }
        p += 8;
        i += 8;
    }
    return i;
}
#else
constexpr std::uint64_t NON_ASCII_UNITS = 0xFF80FF80FF80FF80ULL;

// Four ASCII units, as loaded from memory (the first in the low bits, as on
// every little-endian target we build for), packed into their four bytes.
std::uint32_t packAscii(std::uint64_t four) {
    four = (four | (four >> 8)) & 0x0000FFFF0000FFFFULL;
    return static_cast<std::uint32_t>(four | (four >> 16));
}

inline unsigned int writeAsciiBlocks(char*& p, const orv::Char16* units, unsigned int i,
                                     unsigned int n) {
    while (i + 8 <= n) {
        std::uint64_t four[2];
        std::memcpy(four, units + i, sizeof four);
        if (((four[0] | four[1]) & NON_ASCII_UNITS) != 0)
            return i;
        const std::uint32_t bytes[2] = {packAscii(four[0]), packAscii(four[1])};
        std::memcpy(p, bytes, sizeof bytes);
        p += 8;
        i += 8;
    }
    return i;
}
#endif

} // namespace

char* writeUtf8(char* p, const orv::Char16* units, unsigned int n) {
    unsigned int i = 0;
    while (i < n) {
        // Names are mostly ASCII: blocks of it at a time while they are.
        i = writeAsciiBlocks(p, units, i, n);
        // Then one unit at a time: the tail shorter than a block, and a run of
        // units that are not ASCII (a Cyrillic or CJK name) up to the next
        // ASCII one.
        while (i < n) {
            const std::uint32_t c = static_cast<std::uint16_t>(units[i]);
            if (c >= 0x80) {
                i = writeNonAscii(p, units, i, n);
                continue;
            }
            if (i + 8 <= n)
                break;
            *p++ = static_cast<char>(c);
            ++i;
        }
    }
    return p;
}

void appendUtf8(std::string& out, const orv::String& text) {
    // At most three bytes per unit (a surrogate pair is two units for four
    // bytes): grow once, write through a pointer, then trim.
    const std::size_t start = out.size();
    out.resize(start + MAX_UTF8_PER_UNIT * static_cast<std::size_t>(text.size()));
    char* end = writeUtf8(out.data() + start, text.getUCS2Buffer(), text.size());
    out.resize(static_cast<std::size_t>(end - out.data()));
}

void appendUtf8(std::string& out, std::u16string_view text) {
    // The library's UTF-16 unit is char16_t here and wchar_t on Windows: the
    // same 16 bits.
    static_assert(sizeof(orv::Char16) == sizeof(char16_t));
    const std::size_t start = out.size();
    out.resize(start + text.size() * MAX_UTF8_PER_UNIT);
    char* end = writeUtf8(out.data() + start, reinterpret_cast<const orv::Char16*>(text.data()),
                          static_cast<unsigned int>(text.size()));
    out.resize(static_cast<std::size_t>(end - out.data()));
}

std::string utf8(const std::u16string& text) {
    std::string out;
    appendUtf8(out, text);
    return out;
}

std::string utf8(const orv::String& text) {
    std::string out;
    out.reserve(text.size());
    appendUtf8(out, text);
    return out;
}

std::string isoTime(unsigned long long ntfsTime) {
    const unsigned long long seconds = ntfsTime / NTFS_TICKS_PER_SECOND;
    const unsigned long long fraction = ntfsTime % NTFS_TICKS_PER_SECOND;
    const long long days = static_cast<long long>(seconds / SECONDS_PER_DAY);
    const long long secondOfDay = static_cast<long long>(seconds % SECONDS_PER_DAY);
    long long year = 0;
    unsigned month = 0;
    unsigned day = 0;
    civilFromDays(days, year, month, day);
    char text[64];
    std::snprintf(text, sizeof text, "%04lld-%02u-%02uT%02lld:%02lld:%02lld.%07lluZ", year, month,
                  day, secondOfDay / 3600, (secondOfDay / 60) % 60, secondOfDay % 60, fraction);
    return text;
}

std::string attributeFlagNames(unsigned int flags) {
    std::string names;
    unsigned int known = 0;
    for (const FlagName& flag : FILE_ATTRIBUTE_NAMES) {
        known |= flag.bit;
        if ((flags & flag.bit) == 0)
            continue;
        if (!names.empty())
            names += '|';
        names += flag.name;
    }
    if (const unsigned int unknown = flags & ~known) {
        char hex[16];
        std::snprintf(hex, sizeof hex, "0x%X", unknown);
        if (!names.empty())
            names += '|';
        names += hex;
    }
    return names.empty() ? "-" : names;
}

std::string sizeText(unsigned long long bytes) {
    char text[48];
    if (bytes < 1024)
        std::snprintf(text, sizeof text, "%llu bytes", bytes);
    else if (bytes < 1024ULL * 1024)
        std::snprintf(text, sizeof text, "%.1f KiB", bytes / 1024.0);
    else if (bytes < 1024ULL * 1024 * 1024)
        std::snprintf(text, sizeof text, "%.1f MiB", bytes / (1024.0 * 1024));
    else
        std::snprintf(text, sizeof text, "%.2f GiB", bytes / (1024.0 * 1024 * 1024));
    return text;
}

std::string jsonQuote(std::string_view text) {
    std::string out;
    out.reserve(text.size() + 2);
    out.push_back('"');
    for (const char c : text) {
        switch (c) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            if (static_cast<unsigned char>(c) < 0x20) {
                char escape[8];
                std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
                out += escape;
            } else {
                out.push_back(c);
            }
        }
    }
    out.push_back('"');
    return out;
}

JsonWriter::~JsonWriter() {
    if (m_levels.empty())
        return;
    // An unfinished document (an error cut the command short) is closed so
    // that what was written still parses.
    while (!m_levels.empty()) {
        if (m_levels.back().array)
            endArray();
        else
            endObject();
    }
}

void JsonWriter::newline() {
    m_out << '\n';
    for (std::size_t i = 0; i < m_levels.size(); ++i)
        m_out << "  ";
}

void JsonWriter::beforeValue() {
    if (m_afterKey) {
        m_afterKey = false;
        return;
    }
    if (m_levels.empty())
        return;
    Level& level = m_levels.back();
    if (!level.empty)
        m_out << ',';
    level.empty = false;
    newline();
}

JsonWriter& JsonWriter::beginObject() {
    beforeValue();
    m_out << '{';
    m_levels.push_back({false, true});
    return *this;
}

JsonWriter& JsonWriter::endObject() {
    const bool empty = m_levels.back().empty;
    m_levels.pop_back();
    if (!empty)
        newline();
    m_out << '}';
    if (m_levels.empty())
        m_out << '\n';
    return *this;
}

JsonWriter& JsonWriter::beginArray() {
    beforeValue();
    m_out << '[';
    m_levels.push_back({true, true});
    return *this;
}

JsonWriter& JsonWriter::endArray() {
    const bool empty = m_levels.back().empty;
    m_levels.pop_back();
    if (!empty)
        newline();
    m_out << ']';
    if (m_levels.empty())
        m_out << '\n';
    return *this;
}

JsonWriter& JsonWriter::key(std::string_view name) {
    beforeValue();
    m_out << jsonQuote(name) << ": ";
    m_afterKey = true;
    return *this;
}

JsonWriter& JsonWriter::value(std::string_view text) {
    beforeValue();
    m_out << jsonQuote(text);
    return *this;
}

JsonWriter& JsonWriter::value(unsigned long long number) {
    beforeValue();
    m_out << number;
    return *this;
}

JsonWriter& JsonWriter::value(bool flag) {
    beforeValue();
    m_out << (flag ? "true" : "false");
    return *this;
}

} // namespace kestrow::tool
