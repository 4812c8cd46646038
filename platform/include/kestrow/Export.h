// Export macro of the Kestrow shared library.
//
// KESTROW_BUILDING is defined while the library itself is compiled;
// KESTROW_STATIC by code that links the static archive instead of the DLL.
#pragma once

#if defined(_WIN32)
#if defined(KESTROW_BUILDING)
#define KESTROW_API __declspec(dllexport)
#elif defined(KESTROW_STATIC)
#define KESTROW_API
#else
#define KESTROW_API __declspec(dllimport)
#endif
#elif defined(__GNUC__) || defined(__clang__)
#define KESTROW_API __attribute__((visibility("default")))
#else
#define KESTROW_API
#endif
