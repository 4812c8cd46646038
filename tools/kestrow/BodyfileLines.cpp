#include "BodyfileLines.h"

#include <charconv>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace kestrow::tool {

namespace {

constexpr unsigned long long NTFS_TICKS_AT_UNIX_EPOCH = 116444736000000000ULL;
constexpr unsigned long long NTFS_TICKS_PER_SECOND = 10000000ULL;
constexpr unsigned int FILE_NAME_TYPE = 0x30;
constexpr unsigned int READ_ONLY_FLAGS = 0x1 | 0x2 | 0x4; // read-only, hidden, system
constexpr std::size_t MAX_DIGITS = 20;                    // of a 64-bit number

// The bodyfile's own texts, as The Sleuth Kit writes them.
constexpr std::string_view FILE_NAME_SUFFIX = " ($FILE_NAME)";
constexpr std::string_view DELETED_SUFFIX = " (deleted)";
constexpr const char16_t INDEX_NAME[] = u"$I30";

// Seconds since 1970 as bodyfiles carry them: 32 bits. A time before 1970
// or after 2106 (an unset time of 0 among them) wraps, as it does in fls's
// bodyfile, so that the two tools' lines stay comparable.
std::uint32_t unixSeconds(unsigned long long ntfsTime) {
    return static_cast<std::uint32_t>((ntfsTime - NTFS_TICKS_AT_UNIX_EPOCH) /
                                      NTFS_TICKS_PER_SECOND);
}

// The $FILE_NAME whose times fls gives every name of a file: the last one
// the record holds that is not a DOS-only name.
const RecordFileName* timelineFileName(const RecordDetails& details) {
    const RecordFileName* chosen = nullptr;
    for (const RecordFileName& name : details.names)
        if (name.nameSpace != RecordFileName::DOS_NAME)
            chosen = &name;
    return chosen;
}

bool isDefaultStream(const RecordStream& stream) {
    if (stream.type == RecordStream::DATA)
        return stream.name.empty();
    return stream.name == INDEX_NAME;
}

char* writeText(char* at, std::string_view text) {
    std::memcpy(at, text.data(), text.size());
    return at + text.size();
}

char* writeNumber(char* at, unsigned long long n) {
    return std::to_chars(at, at + MAX_DIGITS, n).ptr;
}

// "00" to "99".
constexpr char DIGIT_PAIRS[] =
    "00010203040506070809101112131415161718192021222324252627282930313233"
    "34353637383940414243444546474849505152535455565758596061626364656667"
    "6869707172737475767778798081828384858687888990919293949596979899";

char* writePair(char* at, std::uint32_t pair) {
    std::memcpy(at, DIGIT_PAIRS + 2 * pair, 2);
    return at + 2;
}

// A time: four in every line. Nearly all have ten digits (September 2001
// to 2106), written as five pairs whose divisions do not wait on each other.
char* writeTime(char* at, std::uint32_t seconds) {
    if (seconds < 1000000000)
        return writeNumber(at, seconds);
    const std::uint32_t low = seconds % 100000000;
    const std::uint32_t upper = low / 10000;
    const std::uint32_t lower = low % 10000;
    at = writePair(at, seconds / 100000000);
    at = writePair(at, upper / 100);
    at = writePair(at, upper % 100);
    at = writePair(at, lower / 100);
    return writePair(at, lower % 100);
}

char* writeTimes(char* at, const RecordTimes& times) {
    // atime|mtime|ctime|crtime; ctime is the MFT change time.
    at = writeTime(at, unixSeconds(times.accessed));
    *at++ = '|';
    at = writeTime(at, unixSeconds(times.modified));
    *at++ = '|';
    at = writeTime(at, unixSeconds(times.mftChanged));
    *at++ = '|';
    return writeTime(at, unixSeconds(times.created));
}

// "r/rrwxrwxrwx": the entry's type (- once deleted), the record's type and
// the permissions fls derives from the read-only, hidden and system flags.
const char* modeText(const RecordDetails& details) {
    static const char* const MODES[2][2][2] = {
        {{"-/rrwxrwxrwx", "-/rr-xr-xr-x"}, {"-/drwxrwxrwx", "-/dr-xr-xr-x"}},
        {{"r/rrwxrwxrwx", "r/rr-xr-xr-x"}, {"d/drwxrwxrwx", "d/dr-xr-xr-x"}}};
    return MODES[details.inUse][details.directory][(details.standardFlags & READ_ONLY_FLAGS) != 0];
}

// One line: the name is the path, then an optional ":stream", then the
// suffixes.
struct BodyName {
    const std::string& path;
    const std::u16string* stream; // nullptr for the file's own line
    std::string_view kind;        // FILE_NAME_SUFFIX or ""
    std::string_view deleted;     // DELETED_SUFFIX or ""
};

// A line's bytes beyond its path and stream name: its texts, eight numbers
// and the separators.
constexpr std::size_t BODY_LINE_FIXED_BYTES = 128 + 8 * MAX_DIGITS;

// Writes the line straight into the output's buffer, since a volume has
// millions of them; one too long for the buffer is built in `spare` first.
void writeBodyLine(Output& out, std::string& spare, const BodyName& name, unsigned long long index,
                   unsigned int type, unsigned short id, const char* mode, unsigned long long size,
                   const RecordTimes& times) {
    const std::size_t streamBytes = name.stream ? name.stream->size() * MAX_UTF8_PER_UNIT : 0;
    const std::size_t most = BODY_LINE_FIXED_BYTES + name.path.size() + streamBytes;
    char* const start = out.room(most);
    if (start == nullptr)
        spare.resize(most);
    char* at = start != nullptr ? start : spare.data();
    const char* const first = at;
    at = writeText(at, "0|");
    at = writeText(at, name.path);
    if (name.stream != nullptr) {
        *at++ = ':';
        at = writeUtf8(at, reinterpret_cast<const orv::Char16*>(name.stream->data()),
                       static_cast<unsigned int>(name.stream->size()));
    }
    at = writeText(at, name.kind);
    at = writeText(at, name.deleted);
    *at++ = '|';
    at = writeNumber(at, index);
    *at++ = '-';
    at = writeNumber(at, type);
    *at++ = '-';
    at = writeNumber(at, id);
    *at++ = '|';
    at = writeText(at, mode);
    at = writeText(at, "|0|0|");
    at = writeNumber(at, size);
    *at++ = '|';
    at = writeTimes(at, times);
    *at++ = '\n';
    if (start != nullptr)
        out.commit(at);
    else
        out << std::string_view(first, static_cast<std::size_t>(at - first));
}

} // namespace

void writeBodyName(Output& out, std::string& line, const RecordDetails& details,
                   const std::string& path) {
    const char* mode = modeText(details);
    const std::string_view deleted = details.inUse ? std::string_view("") : DELETED_SUFFIX;
    if (const RecordFileName* name = timelineFileName(details))
        writeBodyLine(out, line, BodyName{path, nullptr, FILE_NAME_SUFFIX, deleted}, details.index,
                      FILE_NAME_TYPE, name->attributeId, mode, name->valueLength, name->times);
    for (const RecordStream& stream : details.streams)
        writeBodyLine(out, line,
                      BodyName{path, isDefaultStream(stream) ? nullptr : &stream.name, "", deleted},
                      details.index, stream.type, stream.attributeId, mode, stream.size,
                      details.standardTimes);
}

} // namespace kestrow::tool
