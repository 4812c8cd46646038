#include <libKestrow/Version.h>

const char* kestrowVersion() { return KESTROW_VERSION_TEXT; }
