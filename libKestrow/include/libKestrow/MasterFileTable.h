// MasterFileTable: the Master File Table of one NTFS volume, read straight
// from the sectors of the physical drive that holds it.
#pragma once

#include <kestrow/Export.h>

#include <libKestrow/FileRecord.h>
#include <libKestrow/Volume.h>

#include <orv/Array.h>
#include <orv/Buffer.h>
#include <orv/HashTable.h>
#include <orv/String.h>
#include <orv/StringArena.h>

#include <memory>

// One run of the MFT seen as a range of records. recordCount counts the
// sectors from startSector to endSector inclusive, although endSector is one
// past the run: with sectors as large as a record that adds phantom records at
// the end of the run, and every record operation of the table relies on this
// same count.
struct KESTROW_API MftExtent {
    unsigned int diskNumber;
    unsigned long long startSector;
    unsigned long long endSector;
    unsigned long long recordCount;
    unsigned long long firstRecord;

    bool operator==(const MftExtent& other) const;
};

class KESTROW_API MasterFileTable {
public:
    // Record index (48 bits) -> summary; only ever added to, first entry wins.
    typedef orv::HashTable<unsigned long long, RecordSummary, orv::EqualFunc<unsigned long long>,
                           orv::HashFunc<unsigned long long>>
        RecordHashTable;

    // Locates the MFT's runs, opens their drive, sizes the record buffer and
    // counts the record slots. Never throws for an unusable volume: check
    // initialized(). The volume must outlive the table.
    explicit MasterFileTable(Volume& volume);
    // A copy shares the drive handle but moves its buffered range on its own.
    MasterFileTable(const MasterFileTable& other);
    // The source is left fit only for destruction. The record hash table is
    // copied, not moved, so this may throw std::bad_alloc.
    MasterFileTable(MasterFileTable&& other);
    ~MasterFileTable();

    MasterFileTable& operator=(const MasterFileTable&) = delete;
    MasterFileTable& operator=(MasterFileTable&&) = delete;

    bool initialized() const { return m_initialized; }
    const Volume& getVolume() const { return m_volume; }
    orv::Array<Volume::FileExtent> getMftExtents() { return m_mftExtents; }
    const RecordHashTable& getRecordHashTable() { return m_recordHashTable; }

    // ---- Run lookup and record count ----
    bool getExtentForFileRecord(const FileReference& ref, MftExtent& extent);
    // Record slots held by all runs, in use or not.
    bool getNumMftRecords(unsigned long long& count);

    // ---- Record retrieval ----
    // Reads and parses the record; true when it is an in-use FILE record,
    // whose summary then joins the record hash table.
    bool getValidMftRecord(const FileReference& ref, FileRecord& record);
    // Merges the attributes kept in extension records into a record whose
    // data size is still 0.
    void processExternalAttributes(FileRecord& record);
    // Follows a directory record's index blocks on the drive.
    void postProcessFileRecord(FileRecord& record);
    // Raw read at an absolute sector of the MFT's drive; `buffer` must
    // already hold byteCount bytes.
    bool getDataAtSector(unsigned long long sector, unsigned long long byteCount,
                         orv::Buffer<unsigned char>& buffer);

    // The highest in-use record that owns clusters; index 0 when none.
    const FileReference getLastActiveRecord();

    // ---- Record map and paths ----
    // Adds the summary of every valid record to the record hash table.
    bool buildRecordMap();
    // The path of the directory holding the record, ending in a backslash.
    orv::String findParentPath(const FileRecord& record);
    // The full path of a record already in the record hash table.
    orv::String findParentPath(const FileReference& ref);

    // Every valid record whose full path equals `path` is appended.
    bool findMftRecordsByPath(const orv::String& path, orv::Array<FileRecord>& records);

    // ---- Cluster owners ----
    // Cluster numbers count from the start of the physical drive.
    // Scans from `ref` for the first record owning the cluster.
    bool findRecordCluster(unsigned long long cluster, FileReference& ref);
    // Appends the MFT records stored in the cluster (pure arithmetic).
    bool findRecordClusterInMft(unsigned long long cluster, orv::Array<FileReference>& refs);

private:
    // A run of consecutive raw records held in memory; never spans two runs.
    struct RecordBuffer {
        orv::Buffer<unsigned char> data;
        unsigned long long maxRecordsInBuffer;
        unsigned long long maxBufferSize;
        unsigned long long numRecords;
        unsigned long long startIndex;
    };

    bool calculateBufferSize(const MftExtent& extent, unsigned long long bufferSize);
    unsigned long long chooseBufferSize();
    void sizeRecordHashTable();

    bool isBuffered(unsigned long long index) const;
    const unsigned char* bufferedRecord(unsigned long long index) const;
    bool fillBuffer(unsigned long long sector, unsigned long long byteCount);
    bool refreshBuffer(const FileReference& ref);
    const unsigned char* locateRecord(const FileReference& ref);
    bool copyBufferedRecord(unsigned long long index, orv::Buffer<unsigned char>& buffer) const;

    bool getMftRecordBufferDirectly(const FileReference& ref, orv::Buffer<unsigned char>& buffer);
    // `fullDetail` false: for the table's own walks, whose records never leave
    // the table; the attribute summaries and $INDEX_ROOT entries, which those
    // walks never read, are not parsed. Everything else is as with true.
    bool getMftRecord(const FileReference& ref, FileRecord& record, bool fullDetail = true);
    bool readValidRecord(const FileReference& ref, FileRecord& record, bool fullDetail);
    void mergeExternalAttributes(FileRecord& record, bool fullDetail);
    void addToRecordHashTable(const FileRecord& record);

    const RecordSummary* getParentPath(const FileReference& ref);

    // The last full-path walk, kept so that the next record with the same
    // parent (most of them, in index order) reuses its path.
    struct ParentPathCache;
    // Frees the cache where its type is known (with the parent walks).
    struct ParentPathCacheDeleter {
        void operator()(ParentPathCache* cache) const noexcept;
    };

    bool m_initialized;
    orv::Array<Volume::FileExtent> m_mftExtents;
    VolumeHandle m_mftHandle;
    RecordBuffer m_buffer;
    Volume& m_volume;
    unsigned long long m_numMftRecords;
    RecordHashTable m_recordHashTable;
    std::unique_ptr<ParentPathCache, ParentPathCacheDeleter> m_pathCache;
    // Every key in the record hash table is below this; 0 when that is not
    // known (a copied table). A walk in index order adds keys above it, which
    // need no lookup first.
    unsigned long long m_keyBound = 0;
    // The names of the record hash table's summaries (views into it).
    orv::StringArena m_names;
};
