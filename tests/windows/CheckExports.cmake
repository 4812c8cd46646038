# Checks the export table of libKestrow.dll: every exported class and
# structure of the library, and the operations a host needs to reach it, must
# be there.
#
#   cmake -DOBJDUMP=<x86_64-w64-mingw32-objdump> -DCXXFILT=<...-c++filt>
#         -DDLL=<libKestrow.dll> -DEXPECTED=<ExpectedExports.txt> -P CheckExports.cmake
#
# EXPECTED holds one entry per line ('#' starts a comment):
#   type <Name>          at least one exported symbol is a member of <Name>
#   structure <Name>     <Name> appears in the signature of an exported symbol
#   symbol <signature>   this demangled symbol is exported
cmake_minimum_required(VERSION 3.25)

foreach(var OBJDUMP CXXFILT DLL EXPECTED)
  if(NOT ${var})
    message(FATAL_ERROR "CheckExports.cmake: ${var} is not set")
  endif()
endforeach()

execute_process(COMMAND ${OBJDUMP} -p ${DLL}
  OUTPUT_VARIABLE headers RESULT_VARIABLE status ERROR_VARIABLE errors)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "${OBJDUMP} -p ${DLL} failed (${status}): ${errors}")
endif()

# The export table is the block of lines "[ <ordinal>] <name>" after the
# "[Ordinal/Name Pointer] Table" heading.
string(FIND "${headers}" "[Ordinal/Name Pointer] Table" tableStart)
if(tableStart EQUAL -1)
  message(FATAL_ERROR "${DLL} has no export table")
endif()
string(SUBSTRING "${headers}" ${tableStart} -1 table)
string(FIND "${table}" "\n\n" tableEnd)
if(NOT tableEnd EQUAL -1)
  string(SUBSTRING "${table}" 0 ${tableEnd} table)
endif()
string(REGEX MATCHALL "\\[ *[0-9]+\\] [^\n]+" entries "${table}")
set(mangled "")
foreach(entry IN LISTS entries)
  string(REGEX REPLACE "^\\[ *[0-9]+\\] " "" name "${entry}")
  list(APPEND mangled "${name}")
endforeach()
list(LENGTH mangled exportCount)
if(exportCount EQUAL 0)
  message(FATAL_ERROR "${DLL} exports nothing")
endif()

# One name per line through c++filt gives the demangled names in the same order.
string(REPLACE ";" "\n" mangledText "${mangled}")
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/exports.mangled.txt "${mangledText}\n")
execute_process(COMMAND ${CXXFILT}
  INPUT_FILE ${CMAKE_CURRENT_BINARY_DIR}/exports.mangled.txt
  OUTPUT_VARIABLE demangledText RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "${CXXFILT} failed (${status})")
endif()
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/exports.demangled.txt "${demangledText}")
string(REPLACE ";" "\\;" demangledText "${demangledText}")
string(REPLACE "\n" ";" demangled "${demangledText}")

file(STRINGS ${EXPECTED} expectations)
set(missing "")
set(checked 0)
foreach(line IN LISTS expectations)
  string(STRIP "${line}" line)
  if(line STREQUAL "" OR line MATCHES "^#")
    continue()
  endif()
  math(EXPR checked "${checked} + 1")
  if(line MATCHES "^type (.+)$")
    set(type "${CMAKE_MATCH_1}")
    set(found FALSE)
    foreach(name IN LISTS demangled)
      string(FIND "${name}" "${type}::" at)
      if(at EQUAL 0)
        set(found TRUE)
        break()
      endif()
    endforeach()
    if(NOT found)
      list(APPEND missing "no member of ${type}")
    endif()
  elseif(line MATCHES "^structure (.+)$")
    set(type "${CMAKE_MATCH_1}")
    set(found FALSE)
    foreach(name IN LISTS demangled)
      if(name MATCHES "[^A-Za-z0-9_:]${type}[^A-Za-z0-9_]")
        set(found TRUE)
        break()
      endif()
    endforeach()
    if(NOT found)
      list(APPEND missing "no signature with ${type}")
    endif()
  elseif(line MATCHES "^symbol (.+)$")
    set(symbol "${CMAKE_MATCH_1}")
    list(FIND demangled "${symbol}" at)
    if(at EQUAL -1)
      list(APPEND missing "${symbol}")
    endif()
  else()
    message(FATAL_ERROR "${EXPECTED}: cannot read the line \"${line}\"")
  endif()
endforeach()

if(missing)
  list(JOIN missing "\n  " missingText)
  message(FATAL_ERROR "${DLL} (${exportCount} exports) lacks:\n  ${missingText}\n"
    "The whole table, demangled: ${CMAKE_CURRENT_BINARY_DIR}/exports.demangled.txt")
endif()
message(STATUS "${DLL}: ${exportCount} exports, all ${checked} expected entries present")
