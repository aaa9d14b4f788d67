# OpenVDB 10, of libopenvdb-dev. Its own module is not used: it also wants libraries of Boost, which no
# program that links it needs. Its headers include headers of Boost and of Imath.
find_path(ZEL_OPENVDB_INCLUDE openvdb/openvdb.h)
find_library(ZEL_OPENVDB_LIBRARY openvdb)
find_path(ZEL_BOOST_INCLUDE boost/uuid/uuid.hpp)
find_path(ZEL_IMATH_INCLUDE half.h PATH_SUFFIXES Imath)
find_library(ZEL_IMATH_LIBRARY Imath)
mark_as_advanced(ZEL_OPENVDB_INCLUDE ZEL_OPENVDB_LIBRARY ZEL_BOOST_INCLUDE ZEL_IMATH_INCLUDE
                 ZEL_IMATH_LIBRARY)
if(ZEL_OPENVDB_INCLUDE AND ZEL_OPENVDB_LIBRARY AND ZEL_BOOST_INCLUDE AND ZEL_IMATH_INCLUDE
   AND ZEL_IMATH_LIBRARY)
  set(ZEL_OPENVDB_FOUND TRUE)
endif()

# Lets the sources of a target include OpenVDB, without warnings of its headers, and links it.
function(zel_use_openvdb target)
  target_include_directories(${target} SYSTEM PRIVATE ${ZEL_OPENVDB_INCLUDE} ${ZEL_BOOST_INCLUDE}
                                                      ${ZEL_IMATH_INCLUDE})
  target_link_libraries(${target} PRIVATE ${ZEL_OPENVDB_LIBRARY} ${ZEL_IMATH_LIBRARY} TBB::tbb)
endfunction()
