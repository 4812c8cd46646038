// FileRecordMap: a directory index over a MasterFileTable's record map. For
// every record index it lists the records whose parent that record is, and
// for every directory the same children under the directory's full path.
#pragma once

#include <kestrow/Export.h>

#include <libKestrow/FileRecord.h>
#include <libKestrow/MasterFileTable.h>

#include <orv/Array.h>
#include <orv/HashTable.h>
#include <orv/String.h>

class KESTROW_API FileRecordMap {
public:
    // Directory path text -> indices of the records it holds. Directories
    // whose paths coincide share one merged list.
    typedef orv::HashTable<orv::String, orv::Array<unsigned long long>, orv::EqualFunc<orv::String>,
                           orv::HashFunc<orv::String>>
        PathChildMap;
    // Element i lists the indices of the records whose parent is record i.
    typedef orv::Array<orv::Array<unsigned long long>> IndexChildMap;

    // Builds both maps from the table's record hash table as it stands now:
    // run buildRecordMap (or findMftRecordsByPath) on the table first. The
    // table must outlive the map; path queries read it live.
    explicit FileRecordMap(MasterFileTable& table);
    FileRecordMap(const FileRecordMap& other);
    // Takes over the index map and copies the path map; the source is then
    // fit only for destruction.
    FileRecordMap(FileRecordMap&& other);
    ~FileRecordMap();

    FileRecordMap& operator=(const FileRecordMap&) = delete;
    FileRecordMap& operator=(FileRecordMap&&) = delete;

    // The first record whose full path equals `path`. Directory components
    // match in any letter case, the last component only in its stored case.
    bool getIndex(const orv::String& path, FileReference& index);
    // The parent reference stored for `index`.
    bool getParentIndex(const FileReference& index, FileReference& parent);
    // The stored summary of `index` (not a path, despite the name).
    bool getRecordPath(const FileReference& index, RecordSummary& summary);

    bool getChildIndices(const FileReference& parent, orv::Array<unsigned long long>& children);
    bool getChildIndices(const orv::String& parentPath, orv::Array<unsigned long long>& children);

    // The distinct full paths of a directory's children.
    bool getUniqueChildPaths(const FileReference& parent, orv::Array<orv::String>& paths);
    bool getUniqueChildPaths(const orv::String& parentPath, orv::Array<orv::String>& paths);

    // One child index per distinct child path, the first in list order.
    bool getUniqueChildIndices(const FileReference& parent,
                               orv::Array<unsigned long long>& children);
    bool getUniqueChildIndices(const orv::String& parentPath,
                               orv::Array<unsigned long long>& children);

    const PathChildMap& getFileRecordMap() const { return m_fileRecordMap; }
    const IndexChildMap& getFileIndexMap() const { return m_fileIndexMap; }

private:
    void generateUniqueChildPaths(const orv::Array<unsigned long long>& indices,
                                  orv::Array<orv::String>& paths);
    void generateUniqueChildPaths(const orv::Array<unsigned long long>& indices,
                                  orv::Array<unsigned long long>& unique);

    void collectChildrenByParent(unsigned long long recordCount);
    void collectChildrenByPath(unsigned long long recordCount);
    orv::String fullPathOf(unsigned long long index);

    MasterFileTable* m_table;
    PathChildMap m_fileRecordMap;
    IndexChildMap m_fileIndexMap;
};
