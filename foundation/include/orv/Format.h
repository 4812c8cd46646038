// Text formatting: printf-style strings, hex dumps and number values.
#pragma once

#include <kestrow/Export.h>

#include <orv/String.h>

#include <cstdarg>

namespace orv {

// A string formatted as printf does, on every platform, with two additions
// of the Windows C library: "%ws" takes a wide (UCS-2) string and "%I64"
// marks a 64-bit integer ("%I64X", "%012I64X"). "%s" takes an 8-bit string,
// "%S" a wide one.
class KESTROW_API SprintfFormat : public String {
public:
    explicit SprintfFormat(const char* format, ...);
    SprintfFormat(const char* format, std::va_list arguments);
};

// A byte block rendered as a hex dump. Style 3: one line per 16 bytes with
// the offset (from `base`), the bytes in hexadecimal and their printable
// characters.
class KESTROW_API HexDumpFormat {
public:
    HexDumpFormat(const void* data, unsigned int length, unsigned char style,
                  unsigned long long base);
    String toString() const;

private:
    const unsigned char* m_data;
    unsigned int m_length;
    unsigned char m_style;
    unsigned long long m_base;
};

// One number that renders itself as decimal text.
class KESTROW_API ORVValue {
public:
    ORVValue(const unsigned int& value);
    ORVValue(const long long& value);
    ORVValue(const unsigned long long& value);
    ~ORVValue();

    // The format that selects the default rendering (decimal).
    static unsigned int nilValue() noexcept;
    String toString(unsigned int format) const;

private:
    enum Kind { UNSIGNED_32, SIGNED_64, UNSIGNED_64 };
    Kind m_kind;
    unsigned long long m_bits;
};

} // namespace orv
