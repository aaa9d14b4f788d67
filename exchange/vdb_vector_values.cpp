#include <openvdb/openvdb.h>

#include "vdb_values_impl.h"

namespace zel::detail {

std::unique_ptr<VdbValues> vdbVectorValues(openvdb::GridBase::Ptr const& grid) {
    if (auto values = valuesOf<openvdb::Vec3SGrid>(grid)) return values;
    return valuesOf<openvdb::Vec3DGrid>(grid);
}

}  // namespace zel::detail
