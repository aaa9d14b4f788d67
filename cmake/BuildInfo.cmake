# The identity of this build, for the version report: ZEL_BUILD_DATE, _NUMBER, _COMMIT, _BRANCH.

set(ZEL_BUILD_NUMBER 0 CACHE STRING "The number of this build, set by a build server")
if(NOT ZEL_BUILD_NUMBER MATCHES "^[0-9]+$")
  message(FATAL_ERROR "ZEL_BUILD_NUMBER is no decimal number: ${ZEL_BUILD_NUMBER}")
endif()

# The time in SOURCE_DATE_EPOCH if that is set, else the current time.
string(TIMESTAMP ZEL_BUILD_DATE "%a %Y-%m-%d, %H:%M:%S" UTC)

# Sources outside a git checkout of their own, or in a folder of another project's checkout, have no
# commit.
set(ZEL_BUILD_COMMIT 0000000000000000000000000000000000000000)
set(ZEL_BUILD_BRANCH unknown)
function(zel_git out)
  execute_process(
    COMMAND git ${ARGN}
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
    OUTPUT_VARIABLE text
    OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  set(${out} "${text}" PARENT_SCOPE)
endfunction()
zel_git(top rev-parse --show-toplevel)
zel_git(commit rev-parse HEAD)
if(top STREQUAL PROJECT_SOURCE_DIR AND commit MATCHES "^[0-9a-f]+$")
  set(ZEL_BUILD_COMMIT ${commit})
  zel_git(branch rev-parse --abbrev-ref HEAD)
  string(REGEX REPLACE "[^A-Za-z0-9._/-]" "-" ZEL_BUILD_BRANCH "${branch}")

  # A new commit or branch makes CMake run again.
  zel_git(log rev-parse --path-format=absolute --git-path logs/HEAD)
  if(EXISTS "${log}")
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${log}")
  endif()
endif()
