#pragma once

#include <kestrow/Export.h>

// The library's version text, such as "0.1.0".
KESTROW_API const char* kestrowVersion();
