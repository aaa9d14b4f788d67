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
    return grid->as()->deepCopy();
}

}  // namespace vdb_grids
