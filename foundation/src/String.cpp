#include <orv/Allocator.h>
#include <orv/Array.h>
#include <orv/String.h>

#include <cstring>

namespace orv {

namespace {

unsigned int unitsOf(const char* text) {
    return text == nullptr ? 0 : static_cast<unsigned int>(std::strlen(text));
}

unsigned int unitsOf(const unsigned short* text) {
    unsigned int n = 0;
    if (text != nullptr)
        while (text[n] != 0)
            ++n;
    return n;
}

Char16* allocateUnits(unsigned int capacity) {
    return static_cast<Char16*>(Allocator::allocate((std::size_t(capacity) + 1) * sizeof(Char16)));
}

void freeUnits(Char16* units, unsigned int capacity) {
    Allocator::deallocate(units, (std::size_t(capacity) + 1) * sizeof(Char16));
}

} // namespace

const Char16 String::EMPTY_UNITS[1] = {0};

String::String(const char* text) : String(text, unitsOf(text)) {}

String::String(const char* text, unsigned int n) {
    initEmpty();
    if (n == 0)
        return;
    makeWritable(n);
    for (unsigned int i = 0; i < n; ++i)
        m_data[i] = static_cast<Char16>(static_cast<unsigned char>(text[i]));
    m_size = n;
    m_data[n] = 0;
}

String::String(const unsigned short* text, unsigned int n) {
    initEmpty();
    if (n == 0)
        return;
    makeWritable(n);
    for (unsigned int i = 0; i < n; ++i)
        m_data[i] = static_cast<Char16>(text[i]);
    m_size = n;
    m_data[n] = 0;
}

String::String(const Char16* text, unsigned int n) {
    initEmpty();
    assignUnits(text, n);
}

String::String(const String& other) {
    if (other.isBorrowed()) {
        m_data = other.m_data;
        m_size = other.m_size;
        m_capacity = 0;
        return;
    }
    initEmpty();
    assignUnits(other.m_data, other.m_size);
}

String& String::assignString(const String& other) {
    if (this == &other)
        return *this;
    if (other.isBorrowed()) {
        releaseHeap();
        m_data = other.m_data;
        m_size = other.m_size;
        m_capacity = 0;
        return *this;
    }
    assignUnits(other.m_data, other.m_size);
    return *this;
}

String& String::operator=(String&& other) noexcept {
    if (this == &other)
        return *this;
    releaseHeap();
    new (this) String(static_cast<String&&>(other));
    return *this;
}

String& String::operator=(const char* text) {
    *this = String(text);
    return *this;
}

String& String::operator=(const unsigned short* text) {
    *this = String(text, unitsOf(text));
    return *this;
}

String String::literal(const Char16* text, unsigned int n) noexcept {
    String s;
    s.m_data = const_cast<Char16*>(text);
    s.m_size = n;
    s.m_capacity = 0;
    return s;
}

String String::view(const Char16* text, unsigned int n) noexcept {
    String s;
    s.m_data = const_cast<Char16*>(text);
    s.m_size = n;
    s.m_capacity = VIEW;
    return s;
}

void String::freeHeap() noexcept {
    freeUnits(m_data, m_capacity);
}

// Makes the text writable in place with room for at least `capacity` units,
// keeping the current units.
void String::makeWritable(unsigned int capacity) {
    if (capacity < m_size)
        capacity = m_size;
    if (ownsHeap() && capacity <= m_capacity)
        return;
    unsigned int newCapacity = capacity;
    if (ownsHeap() && newCapacity < m_capacity * 2)
        newCapacity = m_capacity * 2;
    if (newCapacity == 0)
        newCapacity = 1; // capacity 0 would mark a borrowed text
    Char16* units = allocateUnits(newCapacity);
    std::memcpy(units, m_data, std::size_t(m_size) * sizeof(Char16));
    units[m_size] = 0;
    releaseHeap();
    m_data = units;
    m_capacity = newCapacity;
}

void String::assignUnits(const Char16* text, unsigned int n) {
    if (!ownsHeap() || n > m_capacity) {
        releaseHeap();
        initEmpty();
        if (n == 0)
            return;
        m_data = allocateUnits(n);
        m_capacity = n;
    }
    if (n != 0)
        std::memmove(m_data, text, std::size_t(n) * sizeof(Char16));
    m_size = n;
    m_data[n] = 0;
}

String& String::append(const Char16* text, unsigned int n) {
    if (n == 0)
        return *this;
    if (text >= m_data && text <= m_data + m_size) {
        // Appending a part of this very string: copy it out first.
        String copy(text, n);
        return append(copy.m_data, n);
    }
    makeWritable(m_size + n);
    std::memcpy(m_data + m_size, text, std::size_t(n) * sizeof(Char16));
    m_size += n;
    m_data[m_size] = 0;
    return *this;
}

String& String::append(const String& other) {
    if (m_size == 0 && other.isBorrowed()) {
        *this = other;
        return *this;
    }
    return append(other.m_data, other.m_size);
}

String& String::append(Char16 unit) {
    return append(&unit, 1);
}

String String::operator+(const String& other) const {
    String result;
    result.reserveCapacity(m_size + other.m_size);
    result.append(m_data, m_size);
    result.append(other.m_data, other.m_size);
    return result;
}

bool String::operator==(const String& other) const noexcept {
    return m_size == other.m_size &&
           (m_data == other.m_data ||
            std::memcmp(m_data, other.m_data, std::size_t(m_size) * sizeof(Char16)) == 0);
}

bool String::operator==(const char* text) const noexcept {
    const unsigned int n = unitsOf(text);
    if (n != m_size)
        return false;
    for (unsigned int i = 0; i < n; ++i)
        if (m_data[i] != static_cast<Char16>(static_cast<unsigned char>(text[i])))
            return false;
    return true;
}

Char16 String::upperCase(Char16 unit) noexcept {
    const unsigned int c = static_cast<unsigned int>(unit);
    if (c < 0x80)
        return (c >= 'a' && c <= 'z') ? static_cast<Char16>(c - 0x20) : unit;
    if ((c >= 0xE0 && c <= 0xFE && c != 0xF7) || (c >= 0x3B1 && c <= 0x3CB && c != 0x3C2) ||
        (c >= 0x430 && c <= 0x44F) || (c >= 0xFF41 && c <= 0xFF5A))
        return static_cast<Char16>(c - 0x20);
    if (c == 0xFF)
        return static_cast<Char16>(0x178);
    if (c == 0xB5)
        return static_cast<Char16>(0x39C);
    if (c == 0x3C2)
        return static_cast<Char16>(0x3A3);
    if (c >= 0x450 && c <= 0x45F)
        return static_cast<Char16>(c - 0x50);
    // Latin Extended-A and Cyrillic supplement: lower case is the odd member
    // of each pair.
    if (((c >= 0x100 && c <= 0x137) || (c >= 0x14A && c <= 0x177) || (c >= 0x460 && c <= 0x481) ||
         (c >= 0x48A && c <= 0x4BF) || (c >= 0x4D0 && c <= 0x52F)) &&
        (c & 1) != 0)
        return static_cast<Char16>(c - 1);
    if (((c >= 0x139 && c <= 0x148) || (c >= 0x179 && c <= 0x17E)) && (c & 1) == 0)
        return static_cast<Char16>(c - 1);
    if (c >= 0x24D0 && c <= 0x24E9)
        return static_cast<Char16>(c - 26);
    return unit;
}

int String::compareNoCase(const String& other) const noexcept {
    const unsigned int n = m_size < other.m_size ? m_size : other.m_size;
    for (unsigned int i = 0; i < n; ++i) {
        const int a = upperCase(m_data[i]);
        const int b = upperCase(other.m_data[i]);
        if (a != b)
            return a < b ? -1 : 1;
    }
    if (m_size == other.m_size)
        return 0;
    return m_size < other.m_size ? -1 : 1;
}

String& String::toUpper() {
    if (m_size == 0)
        return *this;
    makeWritable(m_size);
    for (unsigned int i = 0; i < m_size; ++i)
        m_data[i] = upperCase(m_data[i]);
    return *this;
}

Array<String> String::tokenize(const String& separators) const {
    Array<String> pieces;
    auto isSeparator = [&separators](Char16 unit) {
        for (unsigned int k = 0; k < separators.m_size; ++k)
            if (separators.m_data[k] == unit)
                return true;
        return false;
    };
    unsigned int start = 0;
    for (unsigned int i = 0; i <= m_size; ++i) {
        if (i == m_size || isSeparator(m_data[i])) {
            if (i > start) {
                String piece(m_data + start, i - start);
                pieces.append(piece);
            }
            start = i + 1;
        }
    }
    return pieces;
}

void String::reserveCapacity(unsigned int capacity) {
    makeWritable(capacity);
}

const String& String::EMPTY() noexcept {
    static const String empty;
    return empty;
}

std::string String::toUtf8() const {
    std::string out;
    out.reserve(m_size);
    for (unsigned int i = 0; i < m_size; ++i) {
        unsigned int c = static_cast<unsigned int>(m_data[i]);
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < m_size) {
            const unsigned int low = static_cast<unsigned int>(m_data[i + 1]);
            if (low >= 0xDC00 && low <= 0xDFFF) {
                c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
                ++i;
            }
        }
        if (c >= 0xD800 && c <= 0xDFFF)
            c = 0xFFFD;
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += static_cast<char>(0xE0 | (c >> 12));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (c >> 18));
            out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

String String::fromUtf8(const std::string& text) {
    String out;
    out.reserveCapacity(static_cast<unsigned int>(text.size()));
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    const std::size_t n = text.size();
    std::size_t i = 0;
    while (i < n) {
        unsigned int c = bytes[i];
        std::size_t extra = 0;
        if (c >= 0xF0 && c < 0xF8) {
            c &= 0x07;
            extra = 3;
        } else if (c >= 0xE0) {
            c &= 0x0F;
            extra = 2;
        } else if (c >= 0xC0) {
            c &= 0x1F;
            extra = 1;
        } else if (c >= 0x80) {
            c = 0xFFFD;
        }
        if (c >= 0xF8)
            c = 0xFFFD, extra = 0;
        ++i;
        for (std::size_t k = 0; k < extra; ++k, ++i) {
            if (i >= n || (bytes[i] & 0xC0) != 0x80) {
                c = 0xFFFD;
                break;
            }
            c = (c << 6) | (bytes[i] & 0x3F);
        }
        if (c >= 0x10000 && c <= 0x10FFFF) {
            c -= 0x10000;
            out.append(static_cast<Char16>(0xD800 + (c >> 10)));
            out.append(static_cast<Char16>(0xDC00 + (c & 0x3FF)));
        } else {
            out.append(static_cast<Char16>(c > 0x10FFFF ? 0xFFFD : c));
        }
    }
    return out;
}

} // namespace orv
