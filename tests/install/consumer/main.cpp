// A host of the installed library: opens the volume of an image and lists
// the root directory's children through the path index.
#include <kestrow/Disks.h>
#include <libKestrow/FileRecordMap.h>
#include <libKestrow/MasterFileTable.h>
#include <libKestrow/Volume.h>

#include <cstdio>

int main(int argc, char** argv) {
    if (argc != 2)
        return 2;
    std::string error;
    if (!kestrow::platform::attachDisks({argv[1]}, error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    Volume volume('C');
    std::printf("%s\n", volume.toString().toUtf8().c_str());
    MasterFileTable table(volume);
    if (!table.initialized() || !table.buildRecordMap())
        return 1;
    std::printf("root: %s\n", table.findParentPath(FileReference::ROOT_MFT_RECORD()).toUtf8().c_str());
    FileRecordMap map(table);
    orv::Array<unsigned long long> children;
    if (!map.getChildIndices(FileReference::ROOT_MFT_RECORD(), children))
        return 1;
    std::printf("root children: %u\n", children.size());
    return children.size() > 0 ? 0 : 1;
}
