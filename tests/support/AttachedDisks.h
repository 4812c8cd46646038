// Disk images attached through the disk-image backend for the life of the
// object; every disk is detached when it goes.
#pragma once

#include <kestrow/Disks.h>

#include <filesystem>
#include <string>
#include <vector>

namespace kestrow::test {

class AttachedDisks {
public:
    explicit AttachedDisks(const std::vector<std::filesystem::path>& images) {
        std::vector<std::string> paths;
        for (const std::filesystem::path& image : images)
            paths.push_back(image.string());
        m_ok = platform::attachDisks(paths, m_error);
    }
    explicit AttachedDisks(const std::filesystem::path& image)
        : AttachedDisks(std::vector<std::filesystem::path>{image}) {}
    ~AttachedDisks() { detach(); }
    AttachedDisks(const AttachedDisks&) = delete;
    AttachedDisks& operator=(const AttachedDisks&) = delete;

    static void detach() {
        std::string ignored;
        platform::attachDisks({}, ignored);
    }
    bool ok() const { return m_ok; }
    const std::string& error() const { return m_error; }

private:
    bool m_ok = false;
    std::string m_error;
};

} // namespace kestrow::test
