// Fails a foundation assertion, with the library's real RaiseException, so
// that a test can see how the process ends: with the structured exception's
// code (7) as its exit status, as Windows ends a process whose exception
// nobody handles.
#include <orv/Array.h>

#include <cstdio>

int main() {
    orv::Array<unsigned long long> values;
    values.append(1);
    std::printf("reading past the end\n");
    std::fflush(stdout);
    const unsigned long long beyond = values[1];
    std::printf("still running after reading %llu\n", beyond);
    return 0;
}
