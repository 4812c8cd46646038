// One run of the kestrow program: the attached disks, the library's log
// lines, the volume and MFT a command works on, and progress on stderr.
#pragma once

#include "Cli.h"
#include "Output.h"

#include <libKestrow/MasterFileTable.h>
#include <libKestrow/Volume.h>

#include <orv/String.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kestrow::tool {

class Session {
public:
    explicit Session(const Options& options);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    const Options& options() const { return m_options; }
    // Where a command prints its result, once it has read what it needs:
    // first checks that every read of the attached disks succeeded.
    Output& out() {
        checkDiskReads();
        return m_out;
    }

    // Throws CommandError when a read of an attached disk failed since the
    // disks were attached (an image that shrank or became unreadable, a
    // device that failed): the library passes over such records as it would
    // over damaged ones, and the result would be silently incomplete.
    void checkDiskReads() const;

    // Attaches the --disk images (or KESTROW_DISKS); throws CommandError when
    // one cannot be opened.
    void attachDisks();
    // True when the disk-image backend answers (disks are attached).
    bool usingDiskImages() const;

    // Opens the lettered NTFS volume; throws CommandError saying why not
    // (no such volume, not NTFS, no permission).
    Volume& openVolume(char letter);
    // As openVolume, but any file system: for raw sector access.
    Volume& openAnyVolume(char letter);
    // Opens the volume's MFT; throws when it cannot be read.
    MasterFileTable& openMft();
    // Writes out whatever the command printed and is still buffered.
    void finishOutput() { m_out.flush(); }
    // The record buffer's size in bytes and in records, as the table logged
    // them while sizing it (the table keeps them private). Asked for before
    // openMft; 0 when not seen.
    void watchBufferSizing() { m_watchBufferSizing = true; }
    unsigned long long bufferBytes() const { return m_bufferBytes; }
    unsigned long long bufferRecords() const { return m_bufferRecords; }
    // Reads every record slot into the table's record map, with a progress
    // line on a terminal.
    void loadRecordMap();

    // The last failure line the library logged (number prefix removed), or
    // empty.
    std::string lastLibraryFailure() const;

private:
    static void logSink(void* context, const char* loggerName, int priority, const char* text);
    void noteBufferSizing(const char* text);

    const Options& m_options;
    Output m_out;
    std::unique_ptr<Volume> m_volume;
    std::unique_ptr<MasterFileTable> m_mft;
    std::vector<std::string> m_failures;
    std::uint64_t m_diskReadFailuresBefore = 0;
    bool m_watchBufferSizing = false;
    bool m_sizingBuffer = false;
    unsigned long long m_bufferBytes = 0;
    unsigned long long m_bufferRecords = 0;
};

// A count-up on stderr ("Reading MFT records: 1200/4096 (29%)"), shown only
// when stderr is a terminal; erased when done.
class Progress {
public:
    Progress(const char* label, unsigned long long total, bool enabled);
    ~Progress();
    void update(unsigned long long done);
    bool enabled() const { return m_enabled; }

private:
    void draw(unsigned long long done);

    const char* m_label;
    unsigned long long m_total;
    bool m_enabled;
    unsigned long long m_nextDraw = 0;
};

bool stderrIsTerminal();

// Path forms the user may type ("\\.\C:\Dir\f", "C:\Dir\f", "C:/Dir/f",
// "/Dir/f", "Dir/f") in the library's full-path form "\\.\C:\Dir\f"; the
// root is "\\.\C:\".
orv::String libraryPath(char letter, const std::string& input);
// The drive-qualified form "C:\Dir\f" that Volume::getFileExtents takes.
orv::String driveQualifiedPath(char letter, const std::string& input);
// True for the library path of the root ("\\.\C:\").
bool isRootPath(char letter, const orv::String& path);

// Full path of a record read from disk: the containing directory's path and
// the record's name; the root directory gives the volume path.
orv::String recordFullPath(MasterFileTable& mft, const Volume& volume, const FileRecord& record);

} // namespace kestrow::tool
