// The full paths a timeline gives its names, from the records' parent
// references, as fls gives them: "/Dir/name".
#pragma once

#include "Output.h"

#include <libKestrow/RecordReader.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kestrow::tool {

// The root directory's record: its path is "/" (empty, before the names).
constexpr unsigned long long ROOT_RECORD_INDEX = 5;
// A parent chain longer than this is a loop on a damaged volume.
constexpr unsigned int MAX_PATH_DEPTH = 1024;
// Where fls puts the names that no directory chain reaches.
constexpr const char ORPHAN_DIRECTORY[] = "/$OrphanFiles";

// What the timeline keeps of each record slot, for the paths: small, since
// there is one for every slot of the MFT and each new page of them costs a
// page fault.
struct PathNode {
    unsigned long long parent = 0;
    std::uint32_t nameStart = 0;  // in the book's name units
    std::uint32_t cachedPath = 0; // 1 + its place among the book's cached paths; 0: none yet
    std::uint16_t nameLength = 0; // 0: no name (only a directory stands in paths)
    unsigned short parentSequence = 0;
    unsigned short sequence = 0;
    bool visited = false; // its slot has been read
    bool fileRecord = false;
    bool inUse = false;
    bool awaitsExtensions = false; // a base record whose names are in extension records
};

class PathBook {
public:
    explicit PathBook(unsigned long long slots) : m_nodes(slots) {}

    PathNode* node(unsigned long long index) {
        return index < m_nodes.size() ? &m_nodes[index] : nullptr;
    }

    static bool named(const PathNode& node) { return node.nameLength != 0; }

    // Gives the node the name its paths go through. Names are kept one after
    // the other in one block; should that block ever outgrow its 32-bit
    // offsets, the node stays unnamed (its entries become orphans).
    void name(PathNode& node, const std::u16string& name) {
        if (m_names.size() > UINT32_MAX - name.size())
            return;
        node.nameStart = static_cast<std::uint32_t>(m_names.size());
        node.nameLength =
            static_cast<std::uint16_t>(std::min<std::size_t>(name.size(), UINT16_MAX));
        m_names.append(name, 0, node.nameLength);
    }

    // True when every record the chain needs has been read, so that
    // directoryOf gives the path it will always give.
    bool settled(const FileReference& parent, bool deleted) const {
        unsigned long long index = parent.index;
        unsigned short sequence = static_cast<unsigned short>(parent.sequence);
        for (unsigned int depth = 0; depth < MAX_PATH_DEPTH; ++depth) {
            if (index == ROOT_RECORD_INDEX || index >= m_nodes.size() ||
                m_nodes[index].cachedPath != 0)
                return true;
            const PathNode& node = m_nodes[index];
            if (!node.visited || node.awaitsExtensions)
                return false;
            if (!fits(node, sequence, deleted) || !named(node))
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
                !fits(m_nodes[index], sequence, deleted) || !named(m_nodes[index])) {
                path = ORPHAN_DIRECTORY;
                return;
            }
            if (m_nodes[index].cachedPath != 0) {
                path = m_paths[m_nodes[index].cachedPath - 1];
                break;
            }
            m_chain.push_back(index);
            const PathNode& node = m_nodes[index];
            deleted = deleted || !node.inUse;
            sequence = node.parentSequence;
            index = node.parent;
        }
        for (auto at = m_chain.rbegin(); at != m_chain.rend(); ++at) {
            PathNode& node = m_nodes[*at];
            path += '/';
            appendUtf8(path, std::u16string_view(m_names).substr(node.nameStart, node.nameLength));
            if (m_paths.size() < UINT32_MAX) {
                m_paths.push_back(path);
                node.cachedPath = static_cast<std::uint32_t>(m_paths.size());
            }
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
    std::u16string m_names;                  // the nodes' names, one after the other
    std::vector<std::string> m_paths;        // of the directories whose paths were asked for
    std::vector<unsigned long long> m_chain; // kept for its memory
};

} // namespace kestrow::tool
