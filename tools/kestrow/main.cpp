#include <libKestrow/Version.h>

#include <cstdio>
#include <cstring>

int main(int argc, char** argv) {
    if (argc > 1 && std::strcmp(argv[1], "--version") == 0) {
        std::printf("kestrow %s\n", kestrowVersion());
        return 0;
    }
    std::fprintf(stderr, "usage: kestrow --version\n");
    return 2;
}
