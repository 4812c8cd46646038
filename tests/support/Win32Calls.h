// The Windows calls the library makes, made by the tests themselves: a handle
// closed when it goes, and a file's runs by FSCTL_GET_RETRIEVAL_POINTERS.
#pragma once

#include "support/FakePlatform.h"

#include <kestrow/Platform.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace kestrow::test {

class Handle {
public:
    explicit Handle(std::string_view path, DWORD access = GENERIC_READ | GENERIC_WRITE,
                    DWORD flags = 0)
        : m_handle(platform::CreateFileW(widen(std::string(path)).c_str(), access,
                                         FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                         flags, nullptr)),
          m_error(platform::GetLastError()) {}
    ~Handle() {
        if (valid())
            platform::CloseHandle(m_handle);
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    bool valid() const { return m_handle != INVALID_HANDLE_VALUE; }
    HANDLE get() const { return m_handle; }
    DWORD error() const { return m_error; }

private:
    HANDLE m_handle;
    DWORD m_error;
};

struct RetrievalPointer {
    std::int64_t nextVcn;
    std::int64_t lcn; // -1: nothing stored
    bool operator==(const RetrievalPointer&) const = default;
};

// FSCTL_GET_RETRIEVAL_POINTERS from VCN 0, the area doubled until all fit;
// `error` is the failure's code, or 0.
inline std::vector<RetrievalPointer> retrievalPointers(HANDLE file, DWORD& error) {
    STARTING_VCN_INPUT_BUFFER input{};
    std::vector<std::uint8_t> out(sizeof(RETRIEVAL_POINTERS_BUFFER));
    std::vector<RetrievalPointer> runs;
    error = 0;
    for (int attempt = 0; attempt < 20; ++attempt) {
        DWORD returned = 0;
        if (!platform::DeviceIoControl(file, FSCTL_GET_RETRIEVAL_POINTERS, &input, sizeof input,
                                       out.data(), static_cast<DWORD>(out.size()), &returned,
                                       nullptr)) {
            error = platform::GetLastError();
            if (error != ERROR_MORE_DATA)
                return runs;
            EXPECT_EQ(returned, out.size() - out.size() % 16); // the whole pairs that fit
            out.resize(out.size() * 2);
            continue;
        }
        error = 0;
        RETRIEVAL_POINTERS_BUFFER header;
        std::memcpy(&header, out.data(), sizeof header);
        EXPECT_EQ(header.StartingVcn.QuadPart, 0);
        EXPECT_EQ(returned, 16u + 16u * header.ExtentCount);
        for (DWORD i = 0; i < header.ExtentCount; ++i) {
            std::int64_t pair[2];
            std::memcpy(pair, out.data() + 16 + 16 * i, sizeof pair);
            runs.push_back({pair[0], pair[1]});
        }
        return runs;
    }
    ADD_FAILURE() << "retrieval pointers never fit";
    return runs;
}

// One entry per cluster of the runs: its LCN, or -1 where nothing is stored.
inline std::vector<std::int64_t> clustersOf(const std::vector<RetrievalPointer>& runs) {
    std::vector<std::int64_t> clusters;
    std::int64_t vcn = 0;
    for (const RetrievalPointer& run : runs) {
        for (std::int64_t i = 0; vcn + i < run.nextVcn; ++i)
            clusters.push_back(run.lcn == -1 ? -1 : run.lcn + i);
        vcn = run.nextVcn;
    }
    return clusters;
}

} // namespace kestrow::test
