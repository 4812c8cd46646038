# Installs the build into a scratch prefix (or takes an installed tree given
# as PREFIX, such as the Debian packages unpacked into a scratch root) and
# checks it as a user would: the installed kestrow starts on its own and its
# manual page shows, the licence is named, and a host builds against the
# package and reads an image through it.
file(REMOVE_RECURSE ${WORK_DIR})
if(PREFIX)
  set(prefix ${PREFIX})
else()
  set(prefix ${WORK_DIR}/prefix)
endif()

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${ARGN}\n${out}\n${err}")
  endif()
  set(output "${out}" PARENT_SCOPE)
endfunction()

function(expect_in text expected what)
  string(FIND "${text}" "${expected}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "${what} lacks '${expected}':\n${text}")
  endif()
endfunction()

if(NOT PREFIX)
  run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
endif()

# kestrow finds the library from its own place (no LD_LIBRARY_PATH).
unset(ENV{LD_LIBRARY_PATH})
run(${prefix}/bin/kestrow --version)
expect_in("${output}" "kestrow " "the installed kestrow --version")
find_program(MAN man)
if(MAN)
  set(ENV{MANWIDTH} 80)
  run(${MAN} -l ${prefix}/share/man/man1/kestrow.1)
  expect_in("${output}" "kestrow volumes" "man -l kestrow.1")
else()
  message(STATUS "man is not installed: the manual page was not shown")
endif()
file(READ ${prefix}/share/doc/kestrow/copyright copyright)
expect_in("${copyright}" "License: Apache-2.0" "the copyright file")

run(${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/host -G Ninja
  -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/host)

file(GLOB pc_file ${prefix}/lib*/pkgconfig/kestrow.pc)
get_filename_component(libdir ${pc_file} DIRECTORY)
get_filename_component(libdir ${libdir} DIRECTORY)
set(ENV{LD_LIBRARY_PATH} ${libdir})
run(${WORK_DIR}/host/host ${IMAGE})
foreach(expected "File System         : NTFS" "root: ." "root children: ")
  expect_in("${output}" "${expected}" "the host's output")
endforeach()

# The pkg-config file is relocatable: its flags point into the prefix.
find_program(PKG_CONFIG pkg-config REQUIRED)
run(${PKG_CONFIG} --cflags --libs ${pc_file})
string(STRIP "${output}" flags)
separate_arguments(flags UNIX_COMMAND "${flags}")
run(${CXX} -std=c++20 ${CONSUMER_DIR}/main.cpp ${flags} -o ${WORK_DIR}/host-pc)
run(${WORK_DIR}/host-pc ${IMAGE})
