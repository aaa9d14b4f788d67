#pragma once

#include <openvdb/openvdb.h>

#include "exchange/vdb_grids.h"

namespace vdb_grids {

struct Grid {
    openvdb::GridBase::Ptr base;

    template <class G = openvdb::FloatGrid> typename G::Ptr as() const {
        return openvdb::gridPtrCast<G>(base);
    }
};

inline GridPtr wrap(openvdb::GridBase::Ptr base) {
    return std::make_shared<Grid>(Grid{std::move(base)});
}
inline openvdb::FloatGrid::Ptr copyOf(GridPtr const& grid) {
    return openvdb::gridPtrCast<openvdb::FloatGrid>(grid->base->deepCopyGrid());
}
/// An empty grid. OpenVDB's own library constructs it: a constructor here would compile all virtual
/// functions of the grid again.
template <class G> typename G::Ptr make(typename G::ValueType const& background) {
    openvdb::initialize();
    auto grid = openvdb::gridPtrCast<G>(openvdb::GridBase::createGrid(G::gridType()));
    grid->tree().root().setBackground(background, false);
    return grid;
}

}  // namespace vdb_grids
