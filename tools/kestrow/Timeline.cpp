// kestrow timeline: every file's times from the analysts' record reader, as a
// bodyfile (The Sleuth Kit 3.0+, for mactime), CSV or JSON Lines.
//
// The MFT is read once, straight from its runs, and the lines stream out as
// the records come; only records whose path needs a record not yet read wait.
#include "AnalystCommands.h"
#include "BodyfileLines.h"
#include "MftScan.h"
#include "Session.h"
#include "TimelineLines.h"
#include "TimelinePaths.h"

#include <libKestrow/RecordReader.h>

#include <string>
#include <unordered_map>
#include <vector>

namespace kestrow::tool {

namespace {

bool usable(const RecordDetails& details) {
    return details.isFileRecord && details.fixupsApplied;
}

bool isExtension(const RecordDetails& details) {
    return details.baseRecord.index != 0;
}

enum class Format { Body, Csv, JsonLines };

class Timeline {
public:
    Timeline(Session& session, Format format, Volume& volume, MasterFileTable& mft)
        : m_session(session), m_format(format), m_volume(volume), m_mft(mft),
          m_clusters(volumeClusterReader(mft, volume)), m_slots(mftRecordSlots(mft, volume)),
          m_paths(m_slots) {}

    // One pass over the MFT. A record is written as soon as the records its
    // path goes through have been read, which in index order is nearly
    // always at once; the others, and records whose attribute list names
    // extension records, wait in memory until the end of the pass.
    void run() {
        if (m_format == Format::Csv)
            m_session.out() << TIMELINE_CSV_HEADER;
        Progress progress("Reading MFT records", m_slots, showProgress());
        std::string line;
        RecordDetails details;
        scanMftRecords(m_mft, m_volume,
                       [&](unsigned long long index, unsigned char* bytes, std::size_t size) {
                           progress.update(index + 1);
                           // A slot that holds no record is still noted as read.
                           RecordReader::readInPlace(bytes, size, index, details, m_clusters,
                                                     m_volume.bytesPerCluster());
                           if (!learn(details))
                               return;
                           if (details.hasAttributeList || !settled(details))
                               m_waiting.push_back(details);
                           else
                               write(details, line);
                       });
        nameFromExtensions();
        for (RecordDetails& waiting : m_waiting) {
            addExtensions(waiting);
            write(waiting, line);
        }
    }

private:
    bool showProgress() const { return stderrIsTerminal() && !m_session.options().verbose; }

    // Notes the record for the paths; true when it is a base record to write.
    bool learn(const RecordDetails& details) {
        PathNode* node = m_paths.node(details.index);
        if (node == nullptr)
            return false;
        node->visited = true;
        if (!details.isFileRecord || !usable(details))
            return false;
        node->fileRecord = true;
        node->inUse = details.inUse;
        node->sequence = details.sequence;
        if (isExtension(details)) {
            if (details.inUse)
                m_extensions[details.baseRecord.index].push_back(details);
            return false;
        }
        if (const RecordFileName* name = details.preferredName()) {
            // Only a directory stands in paths; a file's name is its own line.
            if (details.directory)
                m_paths.name(*node, name->name);
            node->parent = name->parent.index;
            node->parentSequence = static_cast<unsigned short>(name->parent.sequence);
        } else {
            node->awaitsExtensions = details.hasAttributeList;
        }
        return true;
    }

    bool settled(const RecordDetails& details) const {
        for (const RecordFileName& name : details.names)
            if (!m_paths.settled(name.parent, !details.inUse))
                return false;
        return true;
    }

    // A base record whose names all moved to extension records.
    void nameFromExtensions() {
        for (const auto& [base, extensions] : m_extensions) {
            PathNode* node = m_paths.node(base);
            if (node == nullptr || PathBook::named(*node))
                continue;
            node->awaitsExtensions = false;
            for (const RecordDetails& extension : extensions) {
                if (const RecordFileName* name = extension.preferredName()) {
                    m_paths.name(*node, name->name);
                    node->parent = name->parent.index;
                    node->parentSequence = static_cast<unsigned short>(name->parent.sequence);
                    break;
                }
            }
        }
    }

    void addExtensions(RecordDetails& details) const {
        const auto found = m_extensions.find(details.index);
        if (found == m_extensions.end())
            return;
        for (const RecordDetails& extension : found->second)
            if (extension.baseRecord.sequence == details.sequence)
                RecordReader::mergeExtension(details, extension);
    }

    void write(const RecordDetails& details, std::string& line) {
        if (details.index == ROOT_RECORD_INDEX)
            return; // the root is the volume's "/", not an entry of its own
        std::vector<std::string>& paths = m_namePaths;
        paths.resize(details.names.size());
        bool named = false;
        for (std::size_t i = 0; i < details.names.size(); ++i) {
            const RecordFileName& name = details.names[i];
            m_paths.directoryOf(name.parent, !details.inUse, paths[i]);
            paths[i] += '/';
            appendUtf8(paths[i], name.name);
            named = named || name.nameSpace != RecordFileName::DOS_NAME;
        }
        if (!named)
            return;
        Output& out = m_session.out();
        if (m_format == Format::JsonLines) {
            writeJsonRecord(out, details, paths);
            return;
        }
        for (std::size_t i = 0; i < details.names.size(); ++i) {
            const RecordFileName& name = details.names[i];
            if (m_format == Format::Csv)
                writeCsvName(out, details, name, paths[i]);
            else if (name.nameSpace != RecordFileName::DOS_NAME)
                writeBodyName(out, line, details, paths[i]);
        }
    }

    Session& m_session;
    Format m_format;
    Volume& m_volume;
    MasterFileTable& m_mft;
    RecordReader::ClusterReader m_clusters;
    unsigned long long m_slots;
    PathBook m_paths;
    std::unordered_map<unsigned long long, std::vector<RecordDetails>> m_extensions;
    std::vector<RecordDetails> m_waiting;
    std::vector<std::string> m_namePaths; // the current record's, kept for their memory
};

} // namespace

int timelineCommand(Session& session) {
    const Options& options = session.options();
    if (options.arguments.size() != 1)
        throw UsageError(
            std::string(options.arguments.empty() ? "missing arguments" : "too many arguments") +
            "; usage: " + usageOf(options.command));
    // --json, the machine-readable form every command takes, is JSON Lines.
    const bool jsonLines = options.jsonl || options.json;
    if (options.csv && jsonLines)
        throw UsageError("--csv and --jsonl cannot be given together");
    const Format format =
        options.csv ? Format::Csv : (jsonLines ? Format::JsonLines : Format::Body);
    Volume& volume = session.openVolume(parseDriveLetter(options.arguments[0]));
    MasterFileTable& mft = session.openMft();
    Timeline timeline(session, format, volume, mft);
    timeline.run();
    return EXIT_OK;
}

} // namespace kestrow::tool
