// libFuzzer target: the analysts' RecordReader over one record made from the
// input, its non-resident attribute list read from the rest of the input as
// clusters, and the merge of a second record into it as an extension.
#include <libKestrow/RecordReader.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

namespace {

constexpr std::size_t RECORD_BYTES = 1024;
constexpr unsigned int CLUSTER_BYTES = 512;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // An exact-size copy of each record, so that a read past it is caught.
    const std::size_t first = std::min(size, RECORD_BYTES);
    const std::vector<std::uint8_t> base(data, data + first);
    const std::uint8_t* rest = data + first;
    const std::size_t restSize = size - first;
    const std::size_t second = std::min(restSize, RECORD_BYTES);
    const std::vector<std::uint8_t> extension(rest, rest + second);

    // Clusters come from the input after the first record, wrapped around.
    const RecordReader::ClusterReader clusters = [rest, restSize](unsigned long long cluster,
                                                                  unsigned long long count,
                                                                  unsigned char* into) {
        if (restSize == 0 || count > 64)
            return false;
        for (unsigned long long i = 0; i < count * CLUSTER_BYTES; ++i)
            into[i] = rest[(cluster * CLUSTER_BYTES + i) % restSize];
        return true;
    };

    RecordDetails details;
    RecordReader::read(base.data(), base.size(), 42, details, clusters, CLUSTER_BYTES);
    RecordDetails other;
    if (RecordReader::read(extension.data(), extension.size(), 43, other))
        RecordReader::mergeExtension(details, other);
    (void)details.preferredName();
    return 0;
}
