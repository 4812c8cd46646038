#include "Session.h"

#include <kestrow/Disks.h>
#include <kestrow/Platform.h>

#include <orv/Format.h>
#include <orv/Logger.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#if defined(_WIN32)
#include <io.h>
#else
#include <unistd.h>
#endif

namespace kestrow::tool {

namespace platform = kestrow::platform;

namespace {

// Keeps the last few failure lines for the one-line error message.
constexpr std::size_t KEPT_FAILURES = 8;

// "76 Failed to get volume data: Access is denied.\r\n" -> "Failed to get
// volume data: Access is denied."
std::string withoutLineNumber(const std::string& text) {
    std::size_t i = 0;
    while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])))
        ++i;
    std::string message = (i > 0 && i < text.size() && text[i] == ' ') ? text.substr(i + 1) : text;
    while (!message.empty() && std::isspace(static_cast<unsigned char>(message.back())))
        message.pop_back();
    for (char& c : message)
        if (c == '\n' || c == '\r')
            c = ' ';
    return message;
}

std::string letterText(char letter) {
    return std::string(1, letter) + ":";
}

std::string attachedLetters() {
    std::string letters;
    for (const platform::VolumeInfo& info : platform::attachedVolumes()) {
        if (info.letter == 0)
            continue;
        if (!letters.empty())
            letters += ", ";
        letters += letterText(info.letter);
    }
    return letters.empty() ? "none" : letters;
}

// Why attached disks hold no volume, when the backend could tell ("; disk 0:
// refused as an extracted MFT: ..."), or nothing.
std::string diskProblems() {
    std::string problems;
    for (const platform::DiskInfo& disk : platform::attachedDisks()) {
        if (!disk.problem.empty())
            problems += "; disk " + std::to_string(disk.number) + ": " + disk.problem;
    }
    return problems;
}

} // namespace

bool stderrIsTerminal() {
#if defined(_WIN32)
    return _isatty(_fileno(stderr)) != 0;
#else
    return isatty(STDERR_FILENO) != 0;
#endif
}

Session::Session(const Options& options) : m_options(options) {
    orv::LogFactory::setSink(&Session::logSink, this);
    if (options.verbose)
        orv::LogFactory::setPriority(orv::LoggerPriority::LP_DEBUG);
}

Session::~Session() {
    m_out.flush();
    // The MFT refers to the volume: it goes first.
    m_mft.reset();
    m_volume.reset();
    orv::LogFactory::setSink(nullptr, nullptr);
}

void Session::logSink(void* context, const char* loggerName, int priority, const char* text) {
    auto* session = static_cast<Session*>(context);
    if (session->m_sizingBuffer)
        session->noteBufferSizing(text);
    if (session->m_options.verbose)
        std::fprintf(stderr, "[%s] %d %s\n", loggerName, priority, text);
    else if (priority < orv::LoggerPriority::LP_ERROR)
        return; // diagnostics enabled only to watch the buffer sizing
    if (priority >= orv::LoggerPriority::LP_ERROR) {
        if (session->m_failures.size() == KEPT_FAILURES)
            session->m_failures.erase(session->m_failures.begin());
        session->m_failures.push_back(withoutLineNumber(text));
    }
}

std::string Session::lastLibraryFailure() const {
    return m_failures.empty() ? std::string() : m_failures.back();
}

void Session::attachDisks() {
    m_diskReadFailuresBefore = platform::mediumFailures().count;
    std::string error;
    if (!m_options.disks.empty()) {
        if (!platform::attachDisks(m_options.disks, error)) {
            const bool denied = error.find("ermission denied") != std::string::npos;
            throw CommandError("cannot attach disk: " + error +
                               (denied ? " (reading a block device usually needs root)" : ""));
        }
        return;
    }
    if (!platform::attachDisksFromEnvironment(error))
        throw CommandError("cannot attach the disks of KESTROW_DISKS: " + error);
}

void Session::checkDiskReads() const {
    const platform::MediumFailures failures = platform::mediumFailures();
    if (failures.count == m_diskReadFailuresBefore)
        return;
    const platform::WideString message = platform::errorMessage(failures.error);
    std::string reason =
        utf8(orv::String(message.data(), static_cast<unsigned int>(message.size())));
    while (!reason.empty() && std::isspace(static_cast<unsigned char>(reason.back())))
        reason.pop_back();
    throw CommandError("cannot read " + failures.path + " at byte " +
                       std::to_string(failures.offset) + ": " + reason +
                       " (it changed or failed while kestrow read it)");
}

bool Session::usingDiskImages() const {
    return platform::disksAttached();
}

Volume& Session::openAnyVolume(char letter) {
    if (usingDiskImages()) {
        bool known = false;
        for (const platform::VolumeInfo& info : platform::attachedVolumes())
            known = known || info.letter == letter;
        if (!known)
            throw CommandError("no volume " + letterText(letter) +
                               " on the attached disks (volumes: " + attachedLetters() +
                               diskProblems() + ")");
    }
    m_mft.reset();
    m_volume = std::make_unique<Volume>(letter);
    if (m_volume->bytesPerSector() == 0 && m_volume->path().empty()) {
#if defined(_WIN32)
        throw CommandError("no volume " + letterText(letter));
#else
        throw CommandError("no volume " + letterText(letter) +
                           " (no disks are attached; give --disk IMAGE or set KESTROW_DISKS)");
#endif
    }
    return *m_volume;
}

Volume& Session::openVolume(char letter) {
    if (usingDiskImages()) {
        for (const platform::VolumeInfo& info : platform::attachedVolumes()) {
            if (info.letter == letter && info.fileSystem != "NTFS")
                throw CommandError(letterText(letter) + " is not an NTFS volume (it is " +
                                   info.fileSystem + ")");
        }
    }
    Volume& volume = openAnyVolume(letter);
    if (volume.initialized())
        return volume;
    const std::string fileSystem = utf8(volume.fileSystem());
    if (!fileSystem.empty() && fileSystem != "NTFS")
        throw CommandError(letterText(letter) + " is not an NTFS volume (it is " + fileSystem +
                           ")");
    const std::string reason = lastLibraryFailure();
    throw CommandError("cannot open volume " + letterText(letter) +
                       (reason.empty() ? std::string(" (reading a volume directly needs "
                                                     "administrator rights)")
                                       : ": " + reason));
}

// The table's sizing lines: "601 m_buffer.maxRecordsInBuffer: N" and
// "602 m_buffer.maxBufferSize: N"; the last of each is the size it kept.
void Session::noteBufferSizing(const char* text) {
    static const char RECORDS[] = "601 m_buffer.maxRecordsInBuffer: ";
    static const char BYTES[] = "602 m_buffer.maxBufferSize: ";
    if (std::strncmp(text, RECORDS, sizeof RECORDS - 1) == 0)
        m_bufferRecords = std::strtoull(text + sizeof RECORDS - 1, nullptr, 10);
    else if (std::strncmp(text, BYTES, sizeof BYTES - 1) == 0)
        m_bufferBytes = std::strtoull(text + sizeof BYTES - 1, nullptr, 10);
}

MasterFileTable& Session::openMft() {
    const orv::LOGGER_PRIORITY priority = orv::LogFactory::getPriority();
    if (m_watchBufferSizing) {
        m_sizingBuffer = true;
        orv::LogFactory::setPriority(orv::LoggerPriority::LP_DEBUG);
    }
    m_mft = std::make_unique<MasterFileTable>(*m_volume);
    orv::LogFactory::setPriority(priority);
    m_sizingBuffer = false;
    if (!m_mft->initialized()) {
        const std::string reason = lastLibraryFailure();
        throw CommandError("cannot read the MFT of " + letterText(m_volume->driveLetter()) +
                           (reason.empty() ? std::string(" (its physical drive could not be opened "
                                                         "or read; run with -v for details)")
                                           : ": " + reason));
    }
    return *m_mft;
}

void Session::loadRecordMap() {
    unsigned long long count = 0;
    if (!m_mft->getNumMftRecords(count))
        throw CommandError("cannot count the MFT's records");
    Progress progress("Reading MFT records", count, stderrIsTerminal() && !m_options.verbose);
    if (!progress.enabled()) {
        m_mft->buildRecordMap();
        return;
    }
    // The same reads as buildRecordMap, one record at a time, so that the
    // count can be shown.
    FileRecord record;
    for (unsigned long long index = 0; index < count; ++index) {
        m_mft->getValidMftRecord(FileReference(index, 0), record);
        progress.update(index + 1);
    }
}

Progress::Progress(const char* label, unsigned long long total, bool enabled)
    : m_label(label), m_total(total), m_enabled(enabled) {}

Progress::~Progress() {
    if (m_enabled && m_nextDraw > 0)
        std::fprintf(stderr, "\r\033[K");
}

void Progress::update(unsigned long long done) {
    if (!m_enabled || done < m_nextDraw)
        return;
    draw(done);
    // About two hundred redraws over the whole count.
    m_nextDraw = done + (m_total / 200 > 0 ? m_total / 200 : 1);
}

void Progress::draw(unsigned long long done) {
    const unsigned long long percent = m_total ? done * 100 / m_total : 100;
    std::fprintf(stderr, "\r%s: %llu/%llu (%llu%%)", m_label, done, m_total, percent);
    std::fflush(stderr);
}

namespace {

// The part of a typed path below the root, with '\' between names and no
// separator at either end.
std::string relativePart(char letter, const std::string& input) {
    std::string path = input;
    for (char& c : path)
        if (c == '/')
            c = '\\';
    auto startsWithNoCase = [&](const std::string& prefix) {
        if (path.size() < prefix.size())
            return false;
        for (std::size_t i = 0; i < prefix.size(); ++i)
            if (std::toupper(static_cast<unsigned char>(path[i])) !=
                std::toupper(static_cast<unsigned char>(prefix[i])))
                return false;
        return true;
    };
    const std::string drive = letterText(letter);
    if (startsWithNoCase("\\\\.\\" + drive))
        path = path.substr(4 + drive.size());
    else if (startsWithNoCase("\\\\?\\" + drive))
        path = path.substr(4 + drive.size());
    else if (startsWithNoCase(drive))
        path = path.substr(drive.size());
    else if (path.size() >= 2 && path[1] == ':' &&
             std::isalpha(static_cast<unsigned char>(path[0])))
        throw UsageError("path " + input + " is not on " + drive);
    // Collapse repeated separators and drop those at either end.
    std::string relative;
    for (const char c : path) {
        if (c == '\\' && (relative.empty() || relative.back() == '\\'))
            continue;
        relative.push_back(c);
    }
    while (!relative.empty() && relative.back() == '\\')
        relative.pop_back();
    return relative;
}

} // namespace

orv::String libraryPath(char letter, const std::string& input) {
    const std::string relative = relativePart(letter, input);
    return orv::String::fromUtf8("\\\\.\\" + letterText(letter) + "\\" + relative);
}

orv::String driveQualifiedPath(char letter, const std::string& input) {
    return orv::String::fromUtf8(letterText(letter) + "\\" + relativePart(letter, input));
}

bool isRootPath(char letter, const orv::String& path) {
    return path == orv::String::fromUtf8("\\\\.\\" + letterText(letter) + "\\");
}

orv::String recordFullPath(MasterFileTable& mft, const Volume& volume, const FileRecord& record) {
    if (record.mftIndex() == record.parentMftIndex() && record.name() == ".")
        return volume.path();
    orv::String path = mft.findParentPath(record);
    path += record.name();
    return path;
}

} // namespace kestrow::tool
