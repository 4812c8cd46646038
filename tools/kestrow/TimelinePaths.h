// The full paths a timeline gives its names, from the records' parent
// references, as fls gives them: "/Dir/name".
#pragma once

#include "Output.h"

#include <libKestrow/RecordReader.h>

#include <string>
#include <vector>

namespace kestrow::tool {

// The root directory's record: its path is "/" (empty, before the names).
constexpr unsigned long long ROOT_RECORD_INDEX = 5;
// A parent chain longer than this is a loop on a damaged volume.
constexpr unsigned int MAX_PATH_DEPTH = 1024;
// Where fls puts the names that no directory chain reaches.
constexpr const char ORPHAN_DIRECTORY[] = "/$OrphanFiles";

// What the timeline keeps of each record slot, for the paths.
struct PathNode {
    std::u16string name; // directories only: nothing else stands in a path
    unsigned long long parent = 0;
    unsigned short parentSequence = 0;
    unsigned short sequence = 0;
    bool visited = false; // its slot has been read
    bool fileRecord = false;
    bool inUse = false;
    bool awaitsExtensions = false; // a base record whose names are in extension records
};

class PathBook {
public:
    explicit PathBook(unsigned long long slots)
        : m_nodes(slots), m_cached(slots, 0), m_paths(slots) {}

    PathNode* node(unsigned long long index) {
        return index < m_nodes.size() ? &m_nodes[index] : nullptr;
    }

    // True when every record the chain needs has been read, so that
    // directoryOf gives the path it will always give.
    bool settled(const FileReference& parent, bool deleted) const {
        unsigned long long index = parent.index;
        unsigned short sequence = static_cast<unsigned short>(parent.sequence);
        for (unsigned int depth = 0; depth < MAX_PATH_DEPTH; ++depth) {
            if (index == ROOT_RECORD_INDEX || index >= m_nodes.size() || m_cached[index])
                return true;
            const PathNode& node = m_nodes[index];
            if (!node.visited || node.awaitsExtensions)
                return false;
            if (!fits(node, sequence, deleted) || node.name.empty())
                return true; // an orphan, whatever comes later
            deleted = deleted || !node.inUse;
            sequence = node.parentSequence;
            index = node.parent;
        }
        return true;
    }

    // Puts the path of the directory a name stands in into `path`;
    // ORPHAN_DIRECTORY when its chain is broken (a parent reused, missing or
    // looping).
    void directoryOf(const FileReference& parent, bool deleted, std::string& path) {
        unsigned long long index = parent.index;
        unsigned short sequence = static_cast<unsigned short>(parent.sequence);
        path.clear();
        m_chain.clear();
        for (unsigned int depth = 0;; ++depth) {
            if (index == ROOT_RECORD_INDEX)
                break;
            if (depth == MAX_PATH_DEPTH || index >= m_nodes.size() ||
                !fits(m_nodes[index], sequence, deleted) || m_nodes[index].name.empty()) {
                path = ORPHAN_DIRECTORY;
                return;
            }
            if (m_cached[index]) {
                path = m_paths[index];
                break;
            }
            m_chain.push_back(index);
            const PathNode& node = m_nodes[index];
            deleted = deleted || !node.inUse;
            sequence = node.parentSequence;
            index = node.parent;
        }
        for (auto at = m_chain.rbegin(); at != m_chain.rend(); ++at) {
            path += '/';
            appendUtf8(path, m_nodes[*at].name);
            m_cached[*at] = 1;
            m_paths[*at] = path;
        }
    }

private:
    // A parent in use must carry the sequence the reference names; the
    // parent of a deleted entry may have been deleted too, which advanced its
    // sequence by one.
    static bool fits(const PathNode& node, unsigned short sequence, bool deleted) {
        if (!node.fileRecord)
            return false;
        if (node.inUse)
            return node.sequence == sequence;
        return deleted && (node.sequence == sequence ||
                           node.sequence == static_cast<unsigned short>(sequence + 1));
    }

    std::vector<PathNode> m_nodes;
    std::vector<char> m_cached;
    std::vector<std::string> m_paths;
    std::vector<unsigned long long> m_chain; // kept for its memory
};

} // namespace kestrow::tool
