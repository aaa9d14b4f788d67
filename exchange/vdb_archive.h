#pragma once

#include <openvdb/Grid.h>

#include "vdb_layout.h"

namespace zel::detail {

/// Reads the grid of a section, with its voxels. Throws FileError.
openvdb::GridBase::Ptr readVdbGrid(FileView const& file, std::vector<VdbSection> const& sections,
                                   VdbSection const& section);

/// Makes the grid types known to OpenVDB, which logs errors alone from then on.
void initializeVdb();

}  // namespace zel::detail
