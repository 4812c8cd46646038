# Packages: `cpack -G DEB` in the build directory makes two Debian packages,
# kestrow (the shared library and the kestrow program) and kestrow-dev (the
# headers, the CMake package and the pkg-config file), from the install
# components of the same names (cmake/KestrowInstall.cmake).
set(KESTROW_PACKAGE_MAINTAINER "libKestrow maintainers <maintainers@libkestrow.invalid>"
  CACHE STRING "The Maintainer of the Debian packages")

set(CPACK_PACKAGE_NAME kestrow)
set(CPACK_PACKAGE_VENDOR "libKestrow")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
# Each package's description begins with its own summary line.
set(CPACK_PACKAGE_CONTACT "${KESTROW_PACKAGE_MAINTAINER}")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGE_CHECKSUM SHA256)
if(NOT CPACK_GENERATOR)
  set(CPACK_GENERATOR TGZ)
endif()

set(CPACK_COMPONENTS_ALL runtime development)
set(CPACK_COMPONENT_RUNTIME_DISPLAY_NAME "libKestrow and kestrow")
set(CPACK_COMPONENT_DEVELOPMENT_DISPLAY_NAME "libKestrow development files")
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME kestrow)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
  "reads an NTFS volume's Master File Table straight from the disk sectors
libKestrow reads the MFT of an NTFS volume from the disk sectors, without
asking the file system: records, full paths, directory listings, the owner
of a cluster, file extents and the cluster bitmap. A disk-image backend
answers its calls from disk images or block devices. The kestrow program
shows what the library sees. Licence: ${KESTROW_LICENSE}.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME kestrow-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "kestrow (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
  "development files of libKestrow, the NTFS MFT reader
The public C++ headers, the link name of the shared library, a CMake
package (find_package(Kestrow) gives Kestrow::kestrow) and a pkg-config
file (kestrow). Licence: ${KESTROW_LICENSE}.")

# The runtime package's dependencies (the C and C++ runtimes) are read from
# its binaries when dpkg-shlibdeps is there; the library itself is in the
# same package.
find_program(KESTROW_DPKG_SHLIBDEPS dpkg-shlibdeps)
if(KESTROW_DPKG_SHLIBDEPS AND NOT CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR})
else()
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libc6, libstdc++6, libgcc-s1")
endif()

include(CPack)
