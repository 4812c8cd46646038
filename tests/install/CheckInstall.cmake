# Installs the build into a scratch prefix and builds a host against it.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${ARGN}\n${out}\n${err}")
  endif()
  set(output "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
run(${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/host -G Ninja
  -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/host)

set(ENV{LD_LIBRARY_PATH} ${prefix}/lib)
run(${WORK_DIR}/host/host ${IMAGE})
foreach(expected "File System         : NTFS" "root: ." "root children: ")
  string(FIND "${output}" "${expected}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "the host's output lacks '${expected}':\n${output}")
  endif()
endforeach()

# The pkg-config file is relocatable: its flags point into the scratch prefix.
file(GLOB pc_file ${prefix}/lib*/pkgconfig/kestrow.pc)
find_program(PKG_CONFIG pkg-config REQUIRED)
run(${PKG_CONFIG} --cflags --libs ${pc_file})
string(STRIP "${output}" flags)
separate_arguments(flags UNIX_COMMAND "${flags}")
run(${CXX} -std=c++20 ${CONSUMER_DIR}/main.cpp ${flags} -o ${WORK_DIR}/host-pc)
run(${WORK_DIR}/host-pc ${IMAGE})
