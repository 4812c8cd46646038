// Linked into the Windows test programs in place of the library's own
// kestrow::platform::RaiseException.
//
// On Windows the library raises a real structured exception after a failed
// foundation assertion, and GCC's C++ cannot catch one: the test program
// would die with the first test that checks the assertion. These programs
// therefore raise the way other systems do, by throwing
// kestrow::platform::StructuredException with the code, so that the same
// tests check the same logic everywhere. That the real call ends a process
// with the code is checked apart, by kestrow_raise_probe (Win32ApiTest.cpp).
//
// The definition wins over the archive's because it is linked as an object:
// the linker then never takes StructuredException.cpp out of kestrow_static.
#include <kestrow/Platform.h>

namespace kestrow::platform {

void RaiseException(DWORD code, DWORD, DWORD, const ULONG_PTR*) {
    throw StructuredException(code);
}

} // namespace kestrow::platform
