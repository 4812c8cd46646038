// A Volume with chosen geometry, answered by the FakePlatform, for parsing
// hand-built records: drive C: with 512-byte sectors, 4 KiB clusters,
// 1 KiB file records, 0x8000 clusters, lying on disk 0 at 1 MiB (so its base
// cluster on the disk is 256).
#pragma once

#include "support/RecordBytes.h"

#include "support/FakePlatform.h"

#include <libKestrow/FileRecord.h>
#include <libKestrow/Volume.h>

#include <gtest/gtest.h>

#include <memory>

namespace kestrow::test {

class FakeVolumeTest : public ::testing::Test {
protected:
    static constexpr std::uint64_t VOLUME_OFFSET = 1 << 20;
    static constexpr std::uint64_t BASE_CLUSTER = VOLUME_OFFSET / 4096;
    static constexpr std::uint64_t TOTAL_CLUSTERS = 0x8000;
    static constexpr std::uint64_t OWN_INDEX = 42;

    void SetUp() override {
        m_fake.addDisk(0, 4 << 20);
        FakeVolume& c = m_fake.addVolume('C');
        c.totalClusters = TOTAL_CLUSTERS;
        FakePlatform::fillNtfsData(c, 1024);
        c.extents = {{0, VOLUME_OFFSET, TOTAL_CLUSTERS * 4096}};
        m_scope = std::make_unique<platform::ScopedApi>(m_fake);
        m_volume = std::make_unique<Volume>('C');
        ASSERT_TRUE(m_volume->initialized());
        ASSERT_EQ(m_volume->bytesPerFileRecord(), 1024u);
        ASSERT_EQ(m_volume->bytesPerCluster(), 4096u);
    }

    void TearDown() override {
        m_volume.reset();
        m_scope.reset();
    }

    // Parses a copy of the bytes, as the MFT side hands a record over.
    FileRecord parse(const Bytes& bytes, std::uint64_t index = OWN_INDEX) {
        m_bytes = bytes;
        orv::Buffer<unsigned char> buffer(m_bytes.data(), m_bytes.size());
        return FileRecord(buffer, FileReference(index, 3), *m_volume);
    }

    FakePlatform m_fake;
    std::unique_ptr<platform::ScopedApi> m_scope;
    std::unique_ptr<Volume> m_volume;
    Bytes m_bytes;
};

// A record's attributes as "name/r" (resident) or "name/n".
inline std::vector<std::string> attributeNames(const FileRecord& record) {
    std::vector<std::string> names;
    for (const AttributeSummary& a : record.getAttributes())
        names.push_back(a.name.toUtf8() + (a.resident ? "/r" : "/n"));
    return names;
}

inline std::string utf8(const orv::String& text) {
    return text.toUtf8();
}

template <class T> std::vector<T> toVector(const orv::Array<T>& array) {
    return std::vector<T>(array.begin(), array.end());
}

} // namespace kestrow::test
