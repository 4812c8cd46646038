# Cross-compiling Kestrow for 64-bit Windows with mingw-w64 on Linux
# (Debian: g++-mingw-w64-x86-64-posix, binutils-mingw-w64-x86-64).
#
#   cmake -S . -B build-windows -G Ninja \
#     -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-mingw64.cmake -DKESTROW_BUILD_BENCH=OFF
#
# The products are libKestrow.dll with its import library libKestrow.dll.a,
# kestrow.exe and the test programs. Executables and the DLL carry the MinGW
# runtime (libstdc++, libgcc, winpthread) statically, so nothing but the DLL
# itself has to be shipped beside a host. When Wine is installed, CTest runs
# the Windows programs through it (scripts/wine-run.sh, with a Wine prefix
# kept in the build tree).

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(KESTROW_MINGW_TRIPLET x86_64-w64-mingw32)

# The "posix" flavour of the compilers: its std::thread and std::mutex need
# no extra runtime DLL once winpthread is linked statically.
find_program(CMAKE_C_COMPILER NAMES ${KESTROW_MINGW_TRIPLET}-gcc-posix ${KESTROW_MINGW_TRIPLET}-gcc
  REQUIRED)
find_program(CMAKE_CXX_COMPILER NAMES ${KESTROW_MINGW_TRIPLET}-g++-posix ${KESTROW_MINGW_TRIPLET}-g++
  REQUIRED)
find_program(CMAKE_RC_COMPILER NAMES ${KESTROW_MINGW_TRIPLET}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${KESTROW_MINGW_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# A self-contained DLL and self-contained programs: without -static they
# would need libstdc++-6.dll, libgcc_s_seh-1.dll and libwinpthread-1.dll at
# run time. The system DLLs (KERNEL32, msvcrt) stay dynamic either way.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static")

# Running the programs on the build machine: Wine, with a prefix of our own
# in the build tree (created on first use). try_compile projects read this
# file too, with their own binary directory; they never run anything.
find_program(KESTROW_WINE NAMES wine64 PATHS /usr/lib/wine NO_DEFAULT_PATH)
if(NOT KESTROW_WINE)
  find_program(KESTROW_WINE NAMES wine64 wine)
endif()
if(KESTROW_WINE AND NOT CMAKE_CROSSCOMPILING_EMULATOR)
  set(CMAKE_CROSSCOMPILING_EMULATOR
    ${CMAKE_CURRENT_LIST_DIR}/../scripts/wine-run.sh ${CMAKE_BINARY_DIR}/wineprefix)
endif()
