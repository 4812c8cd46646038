// What the kestrow program writes: buffered standard output, JSON, and the
// texts of times, sizes and attribute flags.
#pragma once

#include <orv/String.h>

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kestrow::tool {

// Standard output through one large buffer: whole-MFT listings write
// millions of lines, and a flush per line would dominate their cost.
class Output {
public:
    Output();
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    Output& operator<<(std::string_view text);
    Output& operator<<(const char* text) { return *this << std::string_view(text); }
    Output& operator<<(const std::string& text) { return *this << std::string_view(text); }
    Output& operator<<(char c);
    Output& operator<<(unsigned long long number);
    Output& operator<<(const orv::String& text);
    // Room for up to `bytes` written in place, handed back with commit(end):
    // a line built straight in the buffer is not copied there afterwards.
    // nullptr when the piece is larger than the whole buffer.
    char* room(std::size_t bytes) { return makeRoom(bytes) ? m_data.get() + m_used : nullptr; }
    void commit(const char* end) { m_used = static_cast<std::size_t>(end - m_data.get()); }
    void flush();

private:
    bool makeRoom(std::size_t bytes);
    void writeOut();

    std::unique_ptr<char[]> m_data;
    std::size_t m_used;
};

// UCS-2 to UTF-8; an unpaired surrogate becomes U+FFFD.
void appendUtf8(std::string& out, const orv::String& text);
void appendUtf8(std::string& out, std::u16string_view text);
// The same into `out`, which has room for MAX_UTF8_PER_UNIT bytes a unit;
// returns the end of what was written.
constexpr std::size_t MAX_UTF8_PER_UNIT = 3;
char* writeUtf8(char* out, const orv::Char16* units, unsigned int n);
std::string utf8(const orv::String& text);
std::string utf8(const std::u16string& text);

// NTFS time (100 ns units since 1601-01-01 UTC) as ISO 8601 UTC with the full
// precision: "2024-05-01T12:00:00.1234567Z".
std::string isoTime(unsigned long long ntfsTime);

// "READONLY|HIDDEN|DIRECTORY", or "-" when no flag is set.
std::string attributeFlagNames(unsigned int flags);

// "20000 bytes", "1.5 MiB".
std::string sizeText(unsigned long long bytes);

// A JSON string literal, quotes included.
std::string jsonQuote(std::string_view text);

// A JSON document written piece by piece, indented two spaces a level.
class JsonWriter {
public:
    explicit JsonWriter(Output& out) : m_out(out) {}
    ~JsonWriter();

    JsonWriter& beginObject();
    JsonWriter& endObject();
    JsonWriter& beginArray();
    JsonWriter& endArray();
    JsonWriter& key(std::string_view name);

    JsonWriter& value(std::string_view text);
    JsonWriter& value(const char* text) { return value(std::string_view(text)); }
    JsonWriter& value(const orv::String& text) { return value(utf8(text)); }
    JsonWriter& value(unsigned long long number);
    JsonWriter& value(unsigned int number) {
        return value(static_cast<unsigned long long>(number));
    }
    JsonWriter& value(bool flag);

    template <class T> JsonWriter& field(std::string_view name, const T& v) {
        key(name);
        return value(v);
    }

private:
    void beforeValue();
    void newline();

    struct Level {
        bool array;
        bool empty;
    };
    Output& m_out;
    std::vector<Level> m_levels;
    bool m_afterKey = false;
};

} // namespace kestrow::tool
