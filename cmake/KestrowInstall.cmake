# Installation, in two components: "runtime" (the shared library, kestrow with
# its manual page and bash completion, the licence) and "development" (the
# public headers, the library's link name, a CMake package in which
# find_package(Kestrow) gives Kestrow::kestrow, and a pkg-config file).
include(CMakePackageConfigHelpers)

# The SPDX identifier of the project's licence, given in every package's
# metadata.
set(KESTROW_LICENSE "Apache-2.0")

install(TARGETS kestrow EXPORT KestrowTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
install(DIRECTORY
  platform/include/
  foundation/include/
  libKestrow/include/
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  COMPONENT development)

set(KESTROW_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Kestrow)
install(EXPORT KestrowTargets NAMESPACE Kestrow::
  DESTINATION ${KESTROW_CMAKE_DIR} COMPONENT development)
configure_package_config_file(cmake/KestrowConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/KestrowConfig.cmake
  INSTALL_DESTINATION ${KESTROW_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/KestrowConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/KestrowConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/KestrowConfigVersion.cmake
  DESTINATION ${KESTROW_CMAKE_DIR} COMPONENT development)

# The pkg-config file finds its prefix from its own place, so that the
# installed tree may be moved (a scratch root, a package unpacked anywhere).
set(KESTROW_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH KESTROW_PKGCONFIG_PREFIX
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" KESTROW_PKGCONFIG_PREFIX "${KESTROW_PKGCONFIG_PREFIX}")
configure_file(cmake/kestrow.pc.in ${CMAKE_CURRENT_BINARY_DIR}/kestrow.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kestrow.pc
  DESTINATION ${KESTROW_PKGCONFIG_DIR} COMPONENT development)

# The licence and the changes, and a Debian-style copyright file naming the
# licence by its SPDX identifier, in each package's documentation directory.
configure_file(cmake/copyright.in ${CMAKE_CURRENT_BINARY_DIR}/copyright @ONLY)
set(KESTROW_DOC_ROOT ${CMAKE_INSTALL_DATAROOTDIR}/doc)
install(FILES LICENSE CHANGELOG.md ${CMAKE_CURRENT_BINARY_DIR}/copyright
  DESTINATION ${KESTROW_DOC_ROOT}/kestrow COMPONENT runtime)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/copyright
  DESTINATION ${KESTROW_DOC_ROOT}/kestrow-dev COMPONENT development)
