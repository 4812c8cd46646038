// orv::String: a UCS-2 string of 16-bit code units.
#pragma once

#include <kestrow/Export.h>
#include <kestrow/WinTypes.h>

#include <cstring>
#include <string>

namespace orv {

// One UCS-2 code unit; the same type as the platform's WCHAR, so that a
// string's buffer can be handed to the wide Windows calls as it is.
typedef WCHAR Char16;

template <class T> class Array;

class KESTROW_API String {
public:
    String() noexcept { initEmpty(); }
    String(const char* text);
    String(const char* text, unsigned int n);
    String(const unsigned short* text, unsigned int n);
    String(const Char16* text, unsigned int n);
    String(const String& other);
    // Inline, as the copy of a borrowed text below: whole-MFT walks move and
    // assign millions of names.
    String(String&& other) noexcept
        : m_data(other.m_data), m_size(other.m_size), m_capacity(other.m_capacity) {
        other.initEmpty();
    }
    ~String() { releaseHeap(); }

    String& operator=(const String& other) {
        if (other.isBorrowed() && !ownsHeap() && this != &other) {
            m_data = other.m_data;
            m_size = other.m_size;
            m_capacity = 0;
            return *this;
        }
        return assignString(other);
    }
    String& operator=(String&& other) noexcept;
    String& operator=(const char* text);
    String& operator=(const unsigned short* text);

    // A string over text with static storage duration, such as a literal: it
    // is not copied until the string is changed. Copies of it share the text.
    static String literal(const Char16* text, unsigned int n) noexcept;
    // A string over text that its owner keeps, followed by a 0 unit, for as
    // long as this string lives, such as a name held in a block of names: it
    // is not copied, but every copy of the string gets its own text, since
    // copies may outlive the owner.
    static String view(const Char16* text, unsigned int n) noexcept;

    // Replaces the text with the first n units at `text`, in the string's
    // own storage when it has room (a reused string allocates nothing).
    String& assign(const Char16* text, unsigned int n) {
        assignUnits(text, n);
        return *this;
    }

    String& append(const String& other);
    String& append(const Char16* text, unsigned int n);
    String& append(Char16 unit);
    String& operator+=(const String& other) { return append(other); }
    String operator+(const String& other) const;

    bool operator==(const String& other) const noexcept;
    bool operator==(const char* text) const noexcept;
    bool operator!=(const String& other) const noexcept { return !(*this == other); }

    // Three-way comparison ignoring letter case: negative, 0 or positive.
    int compareNoCase(const String& other) const noexcept;

    // Converts in place to upper case and returns the string itself.
    String& toUpper();

    // The pieces between any of the separator characters; empty pieces (from
    // adjacent separators, or separators at either end) are not kept, so an
    // empty string or one made of separators only gives no pieces.
    Array<String> tokenize(const String& separators) const;

    unsigned int size() const noexcept { return m_size; }
    bool empty() const noexcept { return m_size == 0; }
    const Char16& operator[](unsigned int index) const noexcept { return m_data[index]; }

    // The units, followed by a 0 unit.
    const Char16* getUCS2Buffer() const noexcept { return m_data; }

    void reserveCapacity(unsigned int capacity);

    // The shared, immutable empty string.
    static const String& EMPTY() noexcept;

    // UTF-8 conversions for hosts and tools (unpaired surrogates become
    // U+FFFD on the way out; characters beyond the BMP become surrogate pairs
    // on the way in).
    std::string toUtf8() const;
    static String fromUtf8(const std::string& text);

    // The upper-case form of one unit, as toUpper() and compareNoCase() use it.
    static Char16 upperCase(Char16 unit) noexcept;

private:
    // Kept small (a pointer and two counts): the record map holds one string
    // per record, and most names are longer than any inline room a string
    // could afford. Empty and literal texts take no storage of their own.
    static constexpr unsigned int VIEW = 0xFFFFFFFFu; // m_capacity of a view

    void initEmpty() noexcept {
        m_data = const_cast<Char16*>(EMPTY_UNITS);
        m_size = 0;
        m_capacity = 0;
    }
    // A borrowed text (a literal, or the empty string) has capacity 0 and is
    // never freed; copies share it.
    bool isBorrowed() const noexcept { return m_capacity == 0; }
    bool isView() const noexcept { return m_capacity == VIEW; }
    bool ownsHeap() const noexcept { return !isBorrowed() && !isView(); }
    void releaseHeap() noexcept {
        if (ownsHeap())
            freeHeap();
    }
    void freeHeap() noexcept;
    String& assignString(const String& other);
    void assignUnits(const Char16* text, unsigned int n);
    void makeWritable(unsigned int capacity);

    static const Char16 EMPTY_UNITS[1];

    Char16* m_data;
    unsigned int m_size;
    unsigned int m_capacity; // units available, not counting the terminator
};

// Shorthand for a literal orv::String of a UCS-2 text, without a copy.
#if defined(_WIN32)
#define ORV_LITERAL(text) ::orv::String::literal(L"" text, sizeof(L"" text) / 2 - 1)
#else
#define ORV_LITERAL(text) ::orv::String::literal(u"" text, sizeof(u"" text) / 2 - 1)
#endif

} // namespace orv

#include <orv/Array.h>
