// FileRecordMap: directory children by record index and by directory path,
// built once from a MasterFileTable's record hash table.
#include <libKestrow/FileRecordMap.h>

#include <orv/Format.h>
#include <orv/Logger.h>

#include <cstdint>

namespace {

orv::LogArea s_log("libKestrow.FileRecordMap");

// The root directory is its own parent; keeping it out of the child lists
// keeps it out of its own listing.
constexpr unsigned long long ROOT_RECORD_INDEX = 5;

constexpr unsigned int DIRECTORY_ATTRIBUTE = 0x10;

constexpr unsigned int PATH_MAP_BUCKETS = 32;

void logIndexNotFound(unsigned long long index) {
    if (orv::Logger* logger = s_log.enabled(orv::LoggerPriority::LP_DEBUG))
        logger->log(orv::LoggerPriority::LP_DEBUG, orv::LoggerStream()
                                                       << "106 "
                                                       << "Index not found: " << index);
}

orv::String valueText(unsigned long long number) {
    return orv::ORVValue(number).toString(orv::ORVValue::nilValue());
}

} // namespace

FileRecordMap::FileRecordMap(MasterFileTable& table)
    : m_table(&table), m_fileRecordMap(PATH_MAP_BUCKETS), m_fileIndexMap() {
    unsigned long long recordCount = 0;
    if (!m_table->getNumMftRecords(recordCount))
        return;
    collectChildrenByParent(recordCount);
    collectChildrenByPath(recordCount);
}

FileRecordMap::FileRecordMap(const FileRecordMap& other)
    : m_table(other.m_table), m_fileRecordMap(other.m_fileRecordMap),
      m_fileIndexMap(other.m_fileIndexMap) {}

// The hash table has no move of its own: the path map is copied.
FileRecordMap::FileRecordMap(FileRecordMap&& other)
    : m_table(other.m_table), m_fileRecordMap(other.m_fileRecordMap),
      m_fileIndexMap(std::move(other.m_fileIndexMap)) {}

// Members go in reverse order of declaration: the index map, then the path map.
FileRecordMap::~FileRecordMap() = default;

void FileRecordMap::collectChildrenByParent(unsigned long long recordCount) {
    // Reserving first gives the capacity that appending one by one would
    // reach, and a record count beyond what an array can hold fails the
    // array's capacity check before any memory is spent on it.
    m_fileIndexMap.reserve(recordCount > UINT32_MAX ? UINT32_MAX
                                                    : static_cast<std::uint32_t>(recordCount));
    for (unsigned long long i = 0; i < recordCount; ++i)
        m_fileIndexMap.append(orv::Array<unsigned long long>());

    const MasterFileTable::RecordHashTable& records = m_table->getRecordHashTable();
    for (auto it = records.begin(); it != records.end(); ++it) {
        if (it.key() == ROOT_RECORD_INDEX)
            continue;
        // A parent beyond the record count fails the array's index check.
        const auto position = static_cast<std::uint32_t>(it.value().parentMftIndex.index);
        m_fileIndexMap[position].append(it.key());
    }
}

void FileRecordMap::collectChildrenByPath(unsigned long long recordCount) {
    const MasterFileTable::RecordHashTable& records = m_table->getRecordHashTable();
    for (unsigned long long i = 0; i < recordCount; ++i) {
        const RecordSummary* summary = records.lookup(i);
        if (summary == nullptr || (summary->fileAttributes & DIRECTORY_ATTRIBUTE) == 0)
            continue;
        const orv::String path = fullPathOf(i);
        const orv::Array<unsigned long long>& children =
            m_fileIndexMap[static_cast<std::uint32_t>(i)];
        if (m_fileRecordMap.contains(path))
            m_fileRecordMap[path].appendArray(children);
        else
            m_fileRecordMap.insert(path, children);
    }
}

orv::String FileRecordMap::fullPathOf(unsigned long long index) {
    return m_table->findParentPath(FileReference(index, 0));
}

bool FileRecordMap::getIndex(const orv::String& path, FileReference& index) {
    const orv::Array<orv::String> tokens = path.tokenize(ORV_LITERAL("\\"));
    if (tokens.empty())
        return false;
    const orv::String& lastName = tokens[tokens.size() - 1];

    const MasterFileTable::RecordHashTable& records = m_table->getRecordHashTable();
    for (auto it = records.begin(); it != records.end(); ++it) {
        // The name must match in its stored case; only the walk's result is
        // compared without regard to case.
        if (it.value().name != lastName)
            continue;
        if (fullPathOf(it.key()).compareNoCase(path) == 0) {
            index = FileReference(it.key(), 0);
            return true;
        }
    }
    return false;
}

bool FileRecordMap::getRecordPath(const FileReference& index, RecordSummary& summary) {
    const RecordSummary* stored = m_table->getRecordHashTable().lookup(index.index);
    if (stored == nullptr) {
        logIndexNotFound(index.index);
        return false;
    }
    summary = *stored;
    return true;
}

bool FileRecordMap::getParentIndex(const FileReference& index, FileReference& parent) {
    RecordSummary summary;
    if (!getRecordPath(index, summary))
        return false;
    parent = summary.parentMftIndex;
    return true;
}

bool FileRecordMap::getChildIndices(const FileReference& parent,
                                    orv::Array<unsigned long long>& children) {
    if (parent.index >= m_fileIndexMap.size()) {
        if (orv::Logger* logger = s_log.enabled(orv::LoggerPriority::LP_DEBUG))
            logger->log(orv::LoggerPriority::LP_DEBUG,
                        orv::LoggerStream()
                            << "115 "
                            << "Parent index not found: " << valueText(parent.index));
        return false;
    }
    children = m_fileIndexMap[static_cast<std::uint32_t>(parent.index)];
    return true;
}

bool FileRecordMap::getChildIndices(const orv::String& parentPath,
                                    orv::Array<unsigned long long>& children) {
    const orv::Array<unsigned long long>* stored = m_fileRecordMap.lookup(parentPath);
    if (stored == nullptr) {
        if (orv::Logger* logger = s_log.enabled(orv::LoggerPriority::LP_DEBUG))
            logger->log(orv::LoggerPriority::LP_DEBUG,
                        orv::LoggerStream() << "125 "
                                            << "Parent path not found: " << parentPath);
        return false;
    }
    children = *stored;
    return true;
}

bool FileRecordMap::getUniqueChildPaths(const FileReference& parent,
                                        orv::Array<orv::String>& paths) {
    if (parent.index >= m_fileIndexMap.size()) {
        if (orv::Logger* logger = s_log.enabled(orv::LoggerPriority::LP_DEBUG))
            logger->log(orv::LoggerPriority::LP_DEBUG,
                        orv::LoggerStream()
                            << "135 "
                            << "Parent index not found: " << valueText(parent.index));
        return false;
    }
    generateUniqueChildPaths(m_fileIndexMap[static_cast<std::uint32_t>(parent.index)], paths);
    return true;
}

bool FileRecordMap::getUniqueChildPaths(const orv::String& parentPath,
                                        orv::Array<orv::String>& paths) {
    const orv::Array<unsigned long long>* stored = m_fileRecordMap.lookup(parentPath);
    if (stored == nullptr) {
        if (orv::Logger* logger = s_log.enabled(orv::LoggerPriority::LP_DEBUG))
            logger->log(orv::LoggerPriority::LP_DEBUG,
                        orv::LoggerStream() << "145 "
                                            << "Parent path not found: " << parentPath);
        return false;
    }
    generateUniqueChildPaths(*stored, paths);
    return true;
}

bool FileRecordMap::getUniqueChildIndices(const FileReference& parent,
                                          orv::Array<unsigned long long>& children) {
    orv::Array<unsigned long long> all;
    const bool found = getChildIndices(parent, all);
    if (found)
        generateUniqueChildPaths(all, children);
    return found;
}

bool FileRecordMap::getUniqueChildIndices(const orv::String& parentPath,
                                          orv::Array<unsigned long long>& children) {
    orv::Array<unsigned long long> all;
    const bool found = getChildIndices(parentPath, all);
    if (found)
        generateUniqueChildPaths(all, children);
    return found;
}

void FileRecordMap::generateUniqueChildPaths(const orv::Array<unsigned long long>& indices,
                                             orv::Array<orv::String>& paths) {
    paths.clear();
    for (unsigned long long index : indices) {
        orv::String path = fullPathOf(index);
        if (!paths.contains(path))
            paths.append(std::move(path));
    }
}

void FileRecordMap::generateUniqueChildPaths(const orv::Array<unsigned long long>& indices,
                                             orv::Array<unsigned long long>& unique) {
    unique.clear();
    orv::Array<orv::String> seen;
    for (unsigned long long index : indices) {
        orv::String path = fullPathOf(index);
        if (seen.contains(path))
            continue;
        seen.append(std::move(path));
        unique.append(index);
    }
}
