# The test suite, the benchmarks and the fuzz targets need packages that the
# library and kestrow do not. A part whose packages are missing is left out
# of this build (its KESTROW_BUILD_* variable is turned off for this run, not
# in the cache, so that installing the packages brings it back), and one
# message at the end of the configure step says what was left out and how
# to build only the library and kestrow without being told.

set(KESTROW_SKIPPED_PARTS "")

# kestrow_skip_part(<option> <text>): leaves a part out, saying why.
macro(kestrow_skip_part option text)
  set(${option} OFF)
  list(APPEND KESTROW_SKIPPED_PARTS "${text}")
endmacro()

if(KESTROW_BUILD_TESTS)
  if(CMAKE_CROSSCOMPILING)
    # No GoogleTest package exists for the target system: the tests build it
    # from the sources Debian's googletest package ships.
    set(KESTROW_GOOGLETEST_SOURCE_DIR /usr/src/googletest CACHE PATH
      "GoogleTest sources, built along with the tests in cross builds")
    if(NOT EXISTS ${KESTROW_GOOGLETEST_SOURCE_DIR}/CMakeLists.txt)
      kestrow_skip_part(KESTROW_BUILD_TESTS
        "the tests: no GoogleTest sources in ${KESTROW_GOOGLETEST_SOURCE_DIR} (package googletest)")
    endif()
  else()
    find_package(GTest QUIET)
    if(NOT GTest_FOUND OR NOT TARGET GTest::gmock)
      kestrow_skip_part(KESTROW_BUILD_TESTS
        "the tests: GoogleTest and GoogleMock not found (packages libgtest-dev, libgmock-dev)")
    elseif(CMAKE_SYSTEM_NAME STREQUAL "Linux")
      # The test images are made with the NTFS-3G library.
      find_package(PkgConfig QUIET)
      if(PkgConfig_FOUND)
        pkg_check_modules(KESTROW_TEST_NTFS3G QUIET libntfs-3g)
      endif()
      if(NOT KESTROW_TEST_NTFS3G_FOUND)
        kestrow_skip_part(KESTROW_BUILD_TESTS
          "the tests: the NTFS-3G library that makes their images not found (packages ntfs-3g-dev, pkg-config)")
      endif()
    endif()
  endif()
endif()

if(KESTROW_BUILD_BENCH)
  find_package(benchmark QUIET)
  if(NOT benchmark_FOUND)
    kestrow_skip_part(KESTROW_BUILD_BENCH
      "the benchmarks: Google Benchmark not found (package libbenchmark-dev)")
  endif()
endif()

if(KESTROW_BUILD_FUZZ)
  # libFuzzer comes with clang: try to link a fuzz target.
  include(CheckCXXSourceCompiles)
  set(CMAKE_REQUIRED_FLAGS -fsanitize=fuzzer)
  set(CMAKE_REQUIRED_QUIET ON)
  check_cxx_source_compiles([[
    #include <cstddef>
    #include <cstdint>
    extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t*, std::size_t) { return 0; }
  ]] KESTROW_HAVE_LIBFUZZER)
  unset(CMAKE_REQUIRED_FLAGS)
  unset(CMAKE_REQUIRED_QUIET)
  if(NOT KESTROW_HAVE_LIBFUZZER)
    unset(KESTROW_HAVE_LIBFUZZER CACHE) # tried again once clang is there
    kestrow_skip_part(KESTROW_BUILD_FUZZ
      "the fuzz targets: the compiler cannot link libFuzzer (configure with clang, from packages clang and libclang-rt-14-dev)")
  endif()
endif()

# The one message, at the end of the configure step.
function(kestrow_report_skipped_parts)
  if(NOT KESTROW_SKIPPED_PARTS)
    return()
  endif()
  list(JOIN KESTROW_SKIPPED_PARTS ";\n  " parts)
  message(NOTICE
    "libKestrow: building the library and kestrow without\n"
    "  ${parts}.\n"
    "Install the packages (scripts/install-deps.sh), or build only the library and kestrow\n"
    "with -DKESTROW_BUILD_TESTS=OFF -DKESTROW_BUILD_BENCH=OFF to leave them out without this note.")
endfunction()
