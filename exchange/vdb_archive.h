#pragma once

#include <openvdb/Grid.h>

#include "vdb_layout.h"

namespace zel::detail {

/// Reads the grid of a section, with its voxels. Throws FileError.
openvdb::GridBase::Ptr readVdbGrid(FileView const& file, std::vector<VdbSection> const& sections,
                                   VdbSection const& section);

/// Makes the types of grids known to OpenVDB.
void initializeVdb();

}  // namespace zel::detail
