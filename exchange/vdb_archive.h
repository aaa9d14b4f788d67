#pragma once

#include <openvdb/Grid.h>

#include <ios>
#include <memory>

#include "vdb_values.h"

namespace zel::detail {

/// The values of a grid; null for a type that is not read. Fills the inside of a level set if that
/// is missing.
std::unique_ptr<VdbValues> vdbValues(openvdb::GridBase::Ptr const& grid);
std::unique_ptr<VdbValues> vdbVectorValues(openvdb::GridBase::Ptr const& grid);

/// Makes the types of grids known to OpenVDB. Throws std::bad_alloc, and then always if memory
/// lacked where OpenVDB makes the name of a type: it keeps what it has of the name as long as the
/// process lives.
void initializeVdb();

/// Makes room in a stream for what OpenVDB keeps there, before the stream throws. Without memory,
/// OpenVDB would set badbit and take 0 for the compression, among others. Throws std::bad_alloc.
/// The stream leaves the global locale, whose digits and separators would get into the UUID.
void prepareVdbStream(std::ios& stream);

}  // namespace zel::detail
