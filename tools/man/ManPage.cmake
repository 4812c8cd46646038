# Writes the kestrow(1) manual page from the program's own help texts, so that
# the page always lists the commands and options the program has:
#
#   cmake -DKESTROW=<kestrow> -DTEMPLATE=<kestrow.1.in> -DOUTPUT=<kestrow.1> -P ManPage.cmake
#
# `kestrow --help` gives the summary, the usage line, the command names, the
# options and the exit status; `kestrow COMMAND --help` each command's usage
# lines and description. A help text this script cannot read stops the build.

cmake_minimum_required(VERSION 3.25)

function(fail message)
  message(FATAL_ERROR "kestrow(1): ${message}")
endfunction()

# help(<var> <arguments...>): the text kestrow prints for the arguments.
function(help var)
  execute_process(COMMAND ${KESTROW} ${ARGN}
    RESULT_VARIABLE status OUTPUT_VARIABLE text ERROR_VARIABLE error)
  if(NOT status EQUAL 0)
    fail("kestrow ${ARGN} failed (${status}): ${error}")
  endif()
  set(${var} "${text}" PARENT_SCOPE)
endfunction()

# Text as roff: backslashes and minus signs escaped, no line taken for a
# request.
function(roff var text)
  string(REPLACE "\\" "\\e" text "${text}")
  string(REPLACE "-" "\\-" text "${text}")
  string(REGEX REPLACE "(^|\n)([.'])" "\\1\\\\&\\2" text "${text}")
  set(${var} "${text}" PARENT_SCOPE)
endfunction()

# The lines of a text, empty ones included ("" for a blank line). Square
# brackets would join list elements, so they stand in as control characters
# until unbracket() puts them back.
string(ASCII 1 open_bracket)
string(ASCII 2 close_bracket)
function(lines var text)
  string(REPLACE "[" "${open_bracket}" text "${text}")
  string(REPLACE "]" "${close_bracket}" text "${text}")
  string(REPLACE ";" "\\;" text "${text}")
  string(REGEX REPLACE "\n$" "" text "${text}")
  string(REPLACE "\n" ";" text "${text}")
  set(${var} "${text}" PARENT_SCOPE)
endfunction()
macro(unbracket var)
  string(REPLACE "${open_bracket}" "[" ${var} "${${var}}")
  string(REPLACE "${close_bracket}" "]" ${var} "${${var}}")
endmacro()

help(general --help)
lines(general_lines "${general}")

set(section "")
set(commands "")
set(option_tags "")
foreach(line IN LISTS general_lines)
  unbracket(line)
  if(line MATCHES "^kestrow: (.*[^.])\\.?$" AND NOT summary)
    set(summary "${CMAKE_MATCH_1}")
  elseif(line MATCHES "^usage: kestrow (.*)$")
    set(synopsis "${CMAKE_MATCH_1}")
  elseif(line MATCHES "^(commands|options):$")
    set(section "${CMAKE_MATCH_1}")
  elseif(line STREQUAL "")
    set(section "")
  elseif(line MATCHES "^Exit status: (.*)$")
    set(exit_status "${CMAKE_MATCH_1}")
  elseif(section STREQUAL "commands" AND line MATCHES "^  ([a-z][a-z-]*)( |$)")
    list(APPEND commands "${CMAKE_MATCH_1}")
  elseif(section STREQUAL "options" AND
         line MATCHES "^  (-[-A-Za-z]+( [A-Z]+)?(, -[-A-Za-z]+( [A-Z]+)?)*)( +(.*))?$")
    # An option: its spelling(s) and value, then its text.
    list(APPEND option_tags "${CMAKE_MATCH_1}")
    set(option_text_${CMAKE_MATCH_1} "${CMAKE_MATCH_6}")
    set(last_tag "${CMAKE_MATCH_1}")
  elseif(section STREQUAL "options" AND line MATCHES "^    +(.*)$" AND last_tag)
    string(APPEND option_text_${last_tag} " ${CMAKE_MATCH_1}")
  endif()
endforeach()
foreach(part summary synopsis exit_status commands option_tags)
  if(NOT ${part})
    fail("no ${part} found in kestrow --help:\n${general}")
  endif()
endforeach()

# COMMANDS: every command's usage lines as the tag, its description as the
# paragraph.
set(command_roff "")
foreach(command IN LISTS commands)
  help(text ${command} --help)
  lines(text_lines "${text}")
  set(usages "")
  set(body "")
  set(in_body FALSE)
  foreach(line IN LISTS text_lines)
    unbracket(line)
    if(line MATCHES "^(usage:|      ) +kestrow (.*)$" AND NOT in_body)
      list(APPEND usages "kestrow ${CMAKE_MATCH_2}")
    elseif(line MATCHES "^options: ")
      break()
    elseif(line STREQUAL "" AND usages)
      set(in_body TRUE)
    elseif(in_body)
      string(APPEND body "${line}\n")
    endif()
  endforeach()
  if(NOT usages OR body STREQUAL "")
    fail("cannot read kestrow ${command} --help:\n${text}")
  endif()
  set(tag ".TP")
  foreach(usage IN LISTS usages)
    roff(usage "${usage}")
    string(APPEND command_roff "${tag}\n.B ${usage}\n")
    set(tag ".TQ")
  endforeach()
  roff(body "${body}")
  string(APPEND command_roff "${body}")
endforeach()

set(option_roff "")
foreach(tag IN LISTS option_tags)
  roff(text "${option_text_${tag}}")
  roff(tag "${tag}")
  string(APPEND option_roff ".TP\n.B ${tag}\n${text}\n")
endforeach()

file(READ ${TEMPLATE} page)
roff(KESTROW_SUMMARY "${summary}")
roff(synopsis "${synopsis}")
set(KESTROW_SYNOPSIS ".B kestrow\n${synopsis}")
string(REGEX REPLACE "\n$" "" KESTROW_COMMANDS "${command_roff}")
string(REGEX REPLACE "\n$" "" KESTROW_OPTIONS "${option_roff}")
roff(KESTROW_EXIT_STATUS "${exit_status}")
help(version --version)
string(REGEX REPLACE "^kestrow ([^\n]*)\n?$" "\\1" KESTROW_VERSION "${version}")
string(CONFIGURE "${page}" page @ONLY)
file(WRITE ${OUTPUT}.new "${page}")
file(RENAME ${OUTPUT}.new ${OUTPUT})
