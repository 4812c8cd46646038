// The parent walks of MasterFileTable: a record's path, built by following
// parent references through the record hash table.
#include <libKestrow/MasterFileTable.h>

#include "MasterFileTableInternals.h"

#include <orv/Array.h>
#include <orv/HashTable.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

using namespace kestrow::mft;

namespace {

// The root directory's own name.
bool isRootName(const orv::String& name) {
    return name.size() == 1 && name[0] == static_cast<orv::Char16>('.');
}

// One walk up the parent references: the records passed and the path
// pieces gathered from the leaf upward, joined once at the end. Names are not
// copied: they stay in the record hash table, whose entries never move or go
// away while the table lives.
//
// The walk also guards against loops. A damaged or hostile MFT may hold parent
// references that loop without any record being its own parent; stepping
// onto a record already passed means such a loop, and the walk then ends with
// the part gathered so far, as a broken-off walk does. An acyclic chain never
// meets a record twice, so the guard changes no result there.
class ParentWalk {
public:
    explicit ParentWalk(unsigned long long leafIndex) : m_leafIndex(leafIndex) {}

    bool alreadyPassed(unsigned long long index) const {
        if (index == m_leafIndex)
            return true;
        if (m_depth > LINEAR_SCAN_DEPTH)
            return m_deep->passed.contains(index);
        for (std::uint32_t i = 0; i < m_depth; ++i)
            if (m_near[i].index == index)
                return true;
        return false;
    }

    // "name\" in front of what has been gathered.
    void prefixName(unsigned long long index, const orv::String& name) {
        pass(Piece{index, &name});
    }
    // The volume path (which ends in a separator) in front.
    void prefixVolumePath(unsigned long long index) { pass(Piece{index, nullptr}); }

    // The pieces from the top down, then the leaf, measured first and then
    // copied into one block: the path is allocated once.
    orv::String join(const orv::String& volumePath, const orv::String& leaf) const {
        const std::uint64_t length = prefixLength(volumePath) + leaf.size();
        // Guard: a path longer than a string can hold (only a hostile MFT's
        // chain of millions of records) is cut to the leaf's name rather than
        // overflowing the length.
        if (length > MAX_PATH_UNITS)
            return leaf;
        orv::Char16 local[LOCAL_PATH_UNITS];
        std::unique_ptr<orv::Char16[]> heap;
        orv::Char16* units = local;
        if (length > LOCAL_PATH_UNITS) {
            heap.reset(new orv::Char16[length]);
            units = heap.get();
        }
        orv::Char16* out = writePrefix(units, volumePath);
        out = copyUnits(out, leaf);
        return orv::String(units, static_cast<unsigned int>(out - units));
    }

    // The units of the gathered pieces, without the leaf.
    std::uint64_t prefixLength(const orv::String& volumePath) const {
        std::uint64_t length = 0;
        for (std::uint32_t i = 0; i < m_depth; ++i)
            length += pieceLength(piece(i), volumePath);
        return length;
    }
    orv::Char16* writePrefix(orv::Char16* out, const orv::String& volumePath) const {
        for (std::uint32_t i = m_depth; i-- > 0;) {
            const Piece& current = piece(i);
            const orv::String& text = current.name != nullptr ? *current.name : volumePath;
            out = copyUnits(out, text);
            if (current.name != nullptr)
                *out++ = static_cast<orv::Char16>('\\');
        }
        return out;
    }

    std::uint32_t depth() const { return m_depth; }
    unsigned long long passedIndex(std::uint32_t i) const { return piece(i).index; }

    static orv::Char16* copyUnits(orv::Char16* out, const orv::String& text) {
        std::memcpy(out, text.getUCS2Buffer(), std::size_t(text.size()) * sizeof(orv::Char16));
        return out + text.size();
    }

private:
    struct Piece {
        unsigned long long index;
        const orv::String* name; // null: the volume path
    };

    // Real paths are a few levels deep: their pieces stay in the walk itself
    // and the guard scans them. A chain deeper than this (a hostile MFT can
    // make one as long as it has records) goes on in an array, and its indexes
    // are looked up in a set, so the guard stays linear.
    static constexpr std::uint32_t LINEAR_SCAN_DEPTH = 64;
    // Paths up to this many units are put together on the stack.
    static constexpr std::uint64_t LOCAL_PATH_UNITS = 1024;
    static constexpr std::uint64_t MAX_PATH_UNITS = 0xFFFFFFF0ULL;

    static std::uint64_t pieceLength(const Piece& piece, const orv::String& volumePath) {
        return piece.name != nullptr ? piece.name->size() + 1ULL : volumePath.size();
    }

    const Piece& piece(std::uint32_t i) const {
        return i < LINEAR_SCAN_DEPTH ? m_near[i] : m_deep->deeper[i - LINEAR_SCAN_DEPTH];
    }

    void pass(const Piece& piece) {
        if (m_depth < LINEAR_SCAN_DEPTH) {
            m_near[m_depth++] = piece;
            return;
        }
        if (!m_deep) {
            m_deep = std::make_unique<DeepWalk>();
            for (std::uint32_t i = 0; i < LINEAR_SCAN_DEPTH; ++i)
                m_deep->passed.insert(m_near[i].index, true);
        }
        m_deep->deeper.append(piece);
        m_deep->passed.insert(piece.index, true);
        ++m_depth;
    }

    // What only a deep walk needs, made when it gets that deep.
    struct DeepWalk {
        orv::Array<Piece> deeper;
        orv::HashTable<unsigned long long, bool> passed;
    };

    unsigned long long m_leafIndex;
    std::uint32_t m_depth = 0;
    Piece m_near[LINEAR_SCAN_DEPTH];
    std::unique_ptr<DeepWalk> m_deep;
};

} // namespace

// One step of a parent walk: the summary of record `ref`, from the table or
// else read from disk. A record read from disk joins the table through
// getValidMftRecord, so the step always answers with the table's own entry.
const RecordSummary* MasterFileTable::getParentPath(const FileReference& ref) {
    if (const RecordSummary* entry = m_recordHashTable.lookup(ref.index))
        return entry;
    FileRecord record;
    if (!readValidRecord(ref, record, false))
        return nullptr;
    return m_recordHashTable.lookup(ref.index);
}

orv::String MasterFileTable::findParentPath(const FileRecord& record) {
    if (!m_initialized) {
        logText("325 ", "findParentPath(): MasterFileTable has not been initialized");
        return orv::String();
    }
    const FileReference self = record.mftIndex();
    FileReference parent = record.parentMftIndex();
    if (self == parent)
        return orv::String();

    ParentWalk walk(self.index);
    for (;;) {
        if (walk.alreadyPassed(parent.index))
            break;
        const RecordSummary* current = getParentPath(parent);
        if (current == nullptr || current->name.empty())
            break;
        if (isRootName(current->name)) {
            walk.prefixVolumePath(parent.index);
            break;
        }
        walk.prefixName(parent.index, current->name);
        if (current->mftIndex == current->parentMftIndex)
            break;
        parent = current->parentMftIndex;
    }
    return walk.join(m_volume.m_path, orv::String::EMPTY());
}

namespace {

// The path a walk gathered above one parent, for the next leaf under the same
// parent. A walk depends only on the entries it steps onto and on its leaf,
// which ends it if met: so the path holds for another leaf when every step was
// answered by the table (entries never change once added, and no step read
// the disk or logged), the walk did not end on its own leaf, and the other
// leaf is none of the records it stepped onto.
struct PathAbove {
    bool valid = false;
    unsigned long long parentIndex = 0;
    std::vector<unsigned long long> passed;
    unsigned long long lowestPassed = ~0ULL;
    unsigned long long highestPassed = 0;
    std::vector<orv::Char16> units; // the path above the parent, then the leaf
    std::size_t prefixLength = 0;

    bool holdsFor(unsigned long long parent, unsigned long long leaf) const {
        if (!valid || parent != parentIndex)
            return false;
        // Directories are mostly older than what they hold: a leaf outside
        // the range of the records passed is none of them.
        if (leaf < lowestPassed || leaf > highestPassed)
            return true;
        for (const unsigned long long index : passed)
            if (index == leaf)
                return false;
        return true;
    }

    orv::String pathOf(const orv::String& leaf) {
        const std::size_t length = prefixLength + leaf.size();
        if (units.size() < length)
            units.resize(length);
        std::memcpy(units.data() + prefixLength, leaf.getUCS2Buffer(),
                    std::size_t(leaf.size()) * sizeof(orv::Char16));
        return orv::String(units.data(), static_cast<unsigned int>(length));
    }

    void remember(unsigned long long parent, const ParentWalk& walk,
                  const orv::String& volumePath) {
        valid = false;
        const std::uint64_t length = walk.prefixLength(volumePath);
        // Only ordinary paths are kept; a freak one is simply walked each time.
        if (length > MAX_REMEMBERED_UNITS)
            return;
        passed.clear();
        lowestPassed = ~0ULL;
        highestPassed = 0;
        for (std::uint32_t i = 0; i < walk.depth(); ++i) {
            const unsigned long long index = walk.passedIndex(i);
            passed.push_back(index);
            lowestPassed = index < lowestPassed ? index : lowestPassed;
            highestPassed = index > highestPassed ? index : highestPassed;
        }
        if (units.size() < length)
            units.resize(length);
        walk.writePrefix(units.data(), volumePath);
        prefixLength = static_cast<std::size_t>(length);
        parentIndex = parent;
        valid = true;
    }

    static constexpr std::uint64_t MAX_REMEMBERED_UNITS = 0x10000;
};

} // namespace

// The paths above the parents of the last few walks, one slot per parent
// index modulo the slot count: records come in index order (siblings follow
// each other) or in the record hash table's order (siblings a few entries
// apart).
struct MasterFileTable::ParentPathCache {
    static constexpr unsigned int SLOTS = 64;
    PathAbove slots[SLOTS];

    PathAbove& slotFor(unsigned long long parentIndex) { return slots[parentIndex % SLOTS]; }
};

void MasterFileTable::ParentPathCacheDeleter::operator()(ParentPathCache* cache) const noexcept {
    delete cache;
}

orv::String MasterFileTable::findParentPath(const FileReference& ref) {
    if (!m_initialized) {
        logText("356 ", "findParentPath(): MasterFileTable has not been initialized");
        return orv::String();
    }
    // This overload never reads the disk for the record itself.
    const RecordSummary* leaf = m_recordHashTable.lookup(ref.index);
    if (leaf == nullptr)
        return orv::String();
    if (leaf->mftIndex == leaf->parentMftIndex)
        return leaf->name;

    const unsigned long long leafIndex = leaf->mftIndex.index;
    const unsigned long long parentIndex = leaf->parentMftIndex.index;
    if (!m_pathCache)
        m_pathCache.reset(new ParentPathCache());
    PathAbove& remembered = m_pathCache->slotFor(parentIndex);
    if (remembered.holdsFor(parentIndex, leafIndex))
        return remembered.pathOf(leaf->name);

    // After the root's "." the walk goes on unless the root is its own parent.
    ParentWalk walk(leafIndex);
    FileReference parent = leaf->parentMftIndex;
    bool answeredByTable = true;
    bool endedOnLeaf = false;
    for (;;) {
        if (walk.alreadyPassed(parent.index)) {
            endedOnLeaf = parent.index == leafIndex;
            break;
        }
        const RecordSummary* current = m_recordHashTable.lookup(parent.index);
        if (current == nullptr) {
            answeredByTable = false;
            current = getParentPath(parent);
        }
        if (current == nullptr || current->name.empty())
            break;
        if (isRootName(current->name))
            walk.prefixVolumePath(parent.index);
        else
            walk.prefixName(parent.index, current->name);
        if (current->mftIndex == current->parentMftIndex)
            break;
        parent = current->parentMftIndex;
    }
    if (answeredByTable && !endedOnLeaf)
        remembered.remember(parentIndex, walk, m_volume.m_path);
    else
        remembered.valid = false;
    return walk.join(m_volume.m_path, leaf->name);
}
