# The identity of this build, for the version report: ZEL_BUILD_DATE, _NUMBER, _COMMIT, _BRANCH.

set(ZEL_BUILD_NUMBER 0 CACHE STRING "The number of this build, from whoever numbers builds")
if(NOT ZEL_BUILD_NUMBER MATCHES "^[0-9]+$")
  message(FATAL_ERROR "ZEL_BUILD_NUMBER is no decimal number: ${ZEL_BUILD_NUMBER}")
endif()

# The time of SOURCE_DATE_EPOCH if that is set, else now.
string(TIMESTAMP ZEL_BUILD_DATE "%a %Y-%m-%d, %H:%M:%S" UTC)

# Outside a checkout there is no commit to name.
function(zel_git out default)
  find_program(GIT_PROGRAM git)
  set(${out} ${default} PARENT_SCOPE)
  if(GIT_PROGRAM)
    execute_process(
      COMMAND ${GIT_PROGRAM} ${ARGN}
      WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
      OUTPUT_VARIABLE text
      RESULT_VARIABLE status
      OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
    if(status EQUAL 0 AND NOT text STREQUAL "")
      set(${out} ${text} PARENT_SCOPE)
    endif()
  endif()
endfunction()
zel_git(ZEL_BUILD_COMMIT 0000000000000000000000000000000000000000 rev-parse HEAD)
zel_git(ZEL_BUILD_BRANCH unknown rev-parse --abbrev-ref HEAD)

# A new commit or branch makes CMake run again.
if(EXISTS ${PROJECT_SOURCE_DIR}/.git/logs/HEAD)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
                                         ${PROJECT_SOURCE_DIR}/.git/logs/HEAD)
endif()
