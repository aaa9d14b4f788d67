# The compiler options of ZEL's own code, and the rules for its libraries.

# Sets warnings and floating-point rules. Operations are not contracted into fused ones, so that values
# are the same at every optimisation level. Nothing reads errno or the floating-point exception flags:
# without them the values are the same, and loops with conditions can be vectorised.
function(zel_compile_options target)
  target_compile_features(${target} PUBLIC cxx_std_20)
  target_compile_options(
    ${target}
    PRIVATE -Wall -Wextra -Wconversion -Wnon-virtual-dtor -Woverloaded-virtual
            $<$<CXX_COMPILER_ID:GNU>:-Wshadow=local>
            $<$<CXX_COMPILER_ID:Clang>:-Wshadow>
            $<$<BOOL:${ZEL_WARNINGS_AS_ERRORS}>:-Werror> -ffp-contract=off -fno-math-errno
            -fno-trapping-math)
  target_compile_definitions(${target} PRIVATE ZEL_CONTRACTS_NOTHING)
  if(ZEL_HARDENED)
    target_compile_definitions(${target} PRIVATE _GLIBCXX_ASSERTIONS)
    target_compile_options(${target} PRIVATE -fstack-protector-strong)
  endif()
endfunction()

# With ZEL_PRECOMPILE_HEADERS, precompiles the headers `ARGN` for a target; or with REUSE_FROM another
# target of the same options, uses its headers. They are those of the standard library and of others:
# a source that forgets to include one of them still compiles then; .ci/tidy finds it.
function(zel_precompile_headers target)
  if(ZEL_PRECOMPILE_HEADERS)
    target_precompile_headers(${target} ${ARGN})
    # g++ 12 reports its own strings, once their header is precompiled.
    if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
      target_compile_options(${target} PRIVATE -Wno-array-bounds -Wno-restrict
                                               -Wno-stringop-overflow)
    endif()
  endif()
endfunction()

# Compiles the sources of a target in batches of so many, unless CMAKE_UNITY_BUILD says otherwise: for
# those that spend most of the time on the same headers and templates. A source that is compiled with
# others may use their includes; .ci/tidy finds it.
function(zel_compile_in_batches target size)
  if(NOT DEFINED CMAKE_UNITY_BUILD)
    set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE ${size})
    # g++ takes the sources of a batch for headers, whose classes must not use unnamed namespaces.
    target_compile_options(${target} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>)
  endif()
endfunction()

# Compiles some sources of a target as one, for those that take less time than the headers that they share.
function(zel_compile_together target)
  if(NOT DEFINED CMAKE_UNITY_BUILD)
    set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_MODE GROUP)
    list(GET ARGN 0 first)
    set_source_files_properties(${ARGN} PROPERTIES UNITY_GROUP ${first})
    target_compile_options(${target} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>)
  endif()
endfunction()

# Whether the libraries are compiled with -O3. All builds do so, because the time of a batch is spent in
# the libraries' loops, unless the build type or flags request other optimisation or sanitizers.
set(ZEL_OPTIMISED $<NOT:$<CONFIG:Debug,MinSizeRel>>)
get_directory_property(flags COMPILE_OPTIONS)
string(TOUPPER "${CMAKE_BUILD_TYPE}" type)
if("${CMAKE_CXX_FLAGS} ${CMAKE_CXX_FLAGS_${type}} ${flags}" MATCHES "-fsanitize|-O[01gsz]")
  set(ZEL_OPTIMISED 0)
endif()

# Adds the checks of optimised code that cost nothing: of the stack, and of the C library's calls.
# No benchmark moves, since code that copies vectors calls __builtin_memcpy: the checked memcpy of
# _FORTIFY_SOURCE is resolved too late for the vectors to stay in registers, which made cubic samples 20 %
# slower. A level in the flags of a distribution holds, one that the compiler sets by itself does not.
# `ARGN` may name the configurations that are optimised, of a target that the libraries' -O3 is not for.
function(zel_check_at_run_time target)
  set(condition ${ZEL_OPTIMISED})
  if(ARGN)
    list(JOIN ARGN "," configurations)
    set(condition $<AND:${ZEL_OPTIMISED},$<CONFIG:${configurations}>>)
  endif()
  target_compile_options(${target} PRIVATE $<${condition}:-fstack-protector-strong>)
  if(NOT "${CMAKE_CXX_FLAGS} ${CMAKE_CXX_FLAGS_${type}} ${flags}" MATCHES "_FORTIFY_SOURCE")
    target_compile_options(${target} PRIVATE $<${condition}:-U_FORTIFY_SOURCE>
                                             $<${condition}:-D_FORTIFY_SOURCE=3>)
  endif()
endfunction()

# Sets what all sources of a library are compiled with.
function(zel_library_options target)
  zel_compile_options(${target})
  target_compile_options(${target} PRIVATE $<${ZEL_OPTIMISED}:-O3>)
  target_compile_definitions(${target} PRIVATE $<${ZEL_OPTIMISED}:NDEBUG>)
  zel_check_at_run_time(${target})
  # With unique symbols dlclose() would not unload the library.
  target_compile_options(${target} PRIVATE -fno-semantic-interposition
                                           $<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>)
  set_target_properties(${target} PROPERTIES CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON
                                             CXX_EXTENSIONS OFF)
endfunction()

# Adds a library from the sources of this folder, listed by hand. Its headers are included as
# "<target>/...", whatever the name of the folder, from an include folder that holds nothing else: the
# build tree has a link to this folder there, the install tree the public headers.
function(zel_add_library target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "HEADERS;SOURCES")
  set(include ${PROJECT_BINARY_DIR}/include)
  file(MAKE_DIRECTORY ${include})
  file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR} ${include}/${target} SYMBOLIC)
  list(TRANSFORM arg_HEADERS PREPEND ${include}/${target}/)
  add_library(${target} ${arg_SOURCES})
  add_library(ZEL::${target} ALIAS ${target})
  zel_library_options(${target})
  zel_precompile_headers(
    ${target}
    PRIVATE <algorithm> <array> <atomic> <bit> <cmath> <concepts> <cstdint> <functional> <limits>
            <map> <memory> <mutex> <optional> <span> <sstream> <stdexcept> <string> <tuple>
            <type_traits> <utility> <vector>)
  set_target_properties(
    ${target}
    PROPERTIES VERSION ${ZEL_VERSION_MAJOR}.${ZEL_VERSION_MINOR}.${ZEL_VERSION_PATCH}
               # Until 1.0 each minor version may break the one before it.
               SOVERSION ${ZEL_VERSION_MAJOR}.${ZEL_VERSION_MINOR}
               # An installed libzel finds libzel_platform beside it.
               INSTALL_RPATH "$ORIGIN")
  if(NOT PROJECT_IS_TOP_LEVEL)
    # A project that includes the sources sees no warnings in the headers. The property takes no
    # generator expression.
    set_target_properties(${target} PROPERTIES SYSTEM ON)
  endif()
  target_sources(${target} PUBLIC FILE_SET HEADERS BASE_DIRS ${include} FILES ${arg_HEADERS})
  if(ZEL_INSTALL)
    install(
      TARGETS ${target}
      EXPORT ZELTargets
      LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
      FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
      INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  endif()
endfunction()
