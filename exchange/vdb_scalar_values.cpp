#include <openvdb/openvdb.h>
#include <openvdb/tools/SignedFloodFill.h>

#include "vdb_values_impl.h"

namespace zel::detail {

VdbValues::~VdbValues() = default;

namespace {

/// Whether a level set has an inside: a negative value that is not active.
template <class Tree> bool hasInside(Tree const& tree) {
    for (auto leaf = tree.cbeginLeaf(); leaf; ++leaf)
        for (auto value = leaf->cbeginValueOff(); value; ++value)
            if (*value < 0) return true;
    auto tile = tree.cbeginValueOff();
    tile.setMaxDepth(Tree::ValueOffCIter::LEAF_DEPTH - 1);
    for (; tile; ++tile)
        if (*tile < 0) return true;
    return false;
}

template <class Grid> void fillInside(openvdb::GridBase::Ptr const& grid) {
    auto const typed = openvdb::gridPtrCast<Grid>(grid);
    if (typed && typed->getGridClass() == openvdb::GRID_LEVEL_SET && !hasInside(typed->tree()))
        openvdb::tools::signedFloodFill(typed->tree());
}

}  // namespace

std::unique_ptr<VdbValues> vdbValues(openvdb::GridBase::Ptr const& grid) {
    fillInside<openvdb::FloatGrid>(grid);
    fillInside<openvdb::DoubleGrid>(grid);
    if (auto values = valuesOf<openvdb::FloatGrid>(grid)) return values;
    if (auto values = valuesOf<openvdb::DoubleGrid>(grid)) return values;
    return vdbVectorValues(grid);
}

}  // namespace zel::detail
