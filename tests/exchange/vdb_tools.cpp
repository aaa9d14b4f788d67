#include <openvdb/tools/Composite.h>
#include <openvdb/tools/LevelSetSphere.h>
#include <openvdb/tools/LevelSetUtil.h>

#include "exchange/vdb_grid.h"

namespace vdb_grids {

using namespace openvdb;

GridPtr sphere(float radius, float3 const& centre, float voxelSize) {
    initialize();
    return wrap(tools::createLevelSetSphere<FloatGrid>(radius, Vec3f(centre.x, centre.y, centre.z),
                                                       voxelSize));
}
GridPtr fogOf(GridPtr const& levelSet) {
    auto grid = copyOf(levelSet);
    tools::sdfToFogVolume(*grid);
    return wrap(grid);
}
GridPtr unionOf(GridPtr const& a, GridPtr const& b) {
    return wrap(tools::csgUnionCopy(*a->as(), *b->as()));
}

}  // namespace vdb_grids
