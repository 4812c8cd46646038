# cmake -DBUILDER=<kestrow_image_builder> -DFIXTURE_DIR=<dir> -P BuildFixtures.cmake
#
# The images are rebuilt when the builder binary changed (its hash is the
# stamp), when any image is missing, or when one no longer matches the
# checksum manifest; otherwise the images of the last run are kept.
foreach(var BUILDER FIXTURE_DIR)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "BuildFixtures.cmake needs -D${var}=...")
  endif()
endforeach()

set(stamp_file ${FIXTURE_DIR}/builder.stamp)
set(manifest ${FIXTURE_DIR}/manifest.sha256)
file(SHA256 ${BUILDER} builder_hash)

set(up_to_date FALSE)
if(EXISTS ${stamp_file} AND EXISTS ${manifest})
  file(READ ${stamp_file} stamp)
  string(STRIP "${stamp}" stamp)
  if(stamp STREQUAL builder_hash)
    execute_process(COMMAND sha256sum --check --strict --quiet --status manifest.sha256
      WORKING_DIRECTORY ${FIXTURE_DIR}
      RESULT_VARIABLE check_result)
    if(check_result EQUAL 0)
      set(up_to_date TRUE)
    else()
      message(STATUS "fixture images changed since they were built: rebuilding")
    endif()
  endif()
endif()

if(up_to_date)
  message(STATUS "fixture images in ${FIXTURE_DIR} are up to date")
  return()
endif()

file(REMOVE ${stamp_file})
execute_process(COMMAND ${BUILDER} fixtures ${FIXTURE_DIR}
  RESULT_VARIABLE build_result)
if(NOT build_result EQUAL 0)
  message(FATAL_ERROR "building the fixture images failed (${build_result})")
endif()
file(WRITE ${stamp_file} "${builder_hash}\n")
