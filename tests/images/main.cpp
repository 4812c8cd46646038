// kestrow_image_builder: makes the NTFS test images.
//
//   kestrow_image_builder fixtures <directory>
//       every standard fixture image, and their checksum manifest
//   kestrow_image_builder tree <image file> <number of files>
//       a "realistic tree" volume for the benchmarks
#include "ImageBuilder.h"

#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <string_view>

namespace {

int usage() {
    std::cerr << "usage: kestrow_image_builder fixtures <directory>\n"
                 "       kestrow_image_builder tree <image file> <number of files>\n";
    return 2;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 3)
        return usage();
    const std::string_view command = argv[1];
    try {
        if (command == "fixtures" && argc == 3) {
            kestrow::images::buildStandardImages(argv[2]);
            return 0;
        }
        if (command == "tree" && argc == 4) {
            char* end = nullptr;
            const unsigned long long files = std::strtoull(argv[3], &end, 10);
            if (*end != '\0' || files == 0)
                return usage();
            kestrow::images::buildTreeImage(argv[2], files);
            return 0;
        }
    } catch (const std::exception& error) {
        std::cerr << "kestrow_image_builder: " << error.what() << "\n";
        return 1;
    }
    return usage();
}
