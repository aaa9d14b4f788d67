#include <tbb/task_group.h>

#include <new>
#include <stdexcept>

#include "affine_map.h"
#include "error.h"
#include "numbers.h"
#include "vdb.h"
#include "vdb_layout.h"
#include "zel/operators/warp.h"
#include "zel/scalar/spatial.h"
#include "zel/vector/arithmetic.h"
#include "zel/vector/projection.h"
#include "zel/vector/spatial.h"
#include "zel/volume/volume_fields.h"

namespace zel {

using Quern::makePtr;

namespace {

bool isTranslation(AffineMap const& map) {
    for (std::size_t r = 0; r < 3; ++r)
        for (std::size_t c = 0; c < 3; ++c)
            if (map[r][c] != (r == c ? 1 : 0)) return false;
    return true;
}

float3 floats(std::array<double, 4> const& row) {
    return {detail::nearestFloat(row[0]), detail::nearestFloat(row[1]),
            detail::nearestFloat(row[2])};
}

/// The position that the map takes to 0.
float3 origin(AffineMap const& map) {
    auto const back = detail::inverse(map);
    return floats({back[0][3], back[1][3], back[2][3]});
}

/// The map as a field of positions: the rows, times the position from the origin on. The difference
/// to a distant origin is exact, which a sum after the products would not be.
Quern::Ptr<VectorField> positionField(AffineMap const& map) {
    auto const position =
        makePtr<VectorFieldTranslate>(makePtr<VectorFieldPosition>(), origin(map));
    auto const coordinate = [&](std::size_t r) {
        return makePtr<VectorFieldDotProduct>(position,
                                              makePtr<VectorFieldConstant>(floats(map[r])));
    };
    return makePtr<VectorFieldFromComponents>(coordinate(0), coordinate(1), coordinate(2));
}

template <class Translate, class Warp, class Field>
Quern::Ptr<Field> placed(AffineMap const& map, Quern::Ptr<Field> field) {
    if (!isTranslation(map)) return makePtr<Warp>(std::move(field), positionField(map));
    if (map == detail::kIdentity) return field;
    return makePtr<Translate>(std::move(field), origin(map));
}

template <class Leaf>
Quern::Ptr<Leaf> boundLeaf(VdbVolume const& volume, std::string const& name,
                           VdbVolume::SamplerType sampler) {
    Quern::String const channel(name.c_str());
    Quern::Ptr<Leaf> leaf;
    // The constructor throws nothing: it cancels its group, and may leave a leaf without a halo.
    tbb::task_group_context context(tbb::task_group_context::isolated);
    tbb::task_group group(context);
    auto const make = [&] { leaf = makePtr<Leaf>(volume.object, channel, sampler); };
    if (group.run_and_wait(make) == tbb::canceled) throw std::bad_alloc();
    if (leaf->isBound()) return leaf;
    std::string message = "zel::VdbVolume: no such channel " + detail::quoted(name) + "; there are";
    for (auto const& grid : volume.grids)
        message += " " + detail::quoted(detail::channelName(grid.name)) + " of " + grid.type;
    throw std::invalid_argument(message);
}

}  // namespace

bool VdbVolume::isPlaced() const {
    return worldToVolume == detail::kIdentity;
}

VdbVolume::ScalarPtr VdbVolume::place(ScalarPtr field) const {
    return placed<ScalarFieldTranslate, ScalarFieldWarp>(worldToVolume, std::move(field));
}
VdbVolume::VectorPtr VdbVolume::place(VectorPtr field) const {
    return placed<VectorFieldTranslate, VectorFieldWarp>(worldToVolume, std::move(field));
}

VdbVolume::ScalarPtr VdbVolume::scalar(std::string const& name, SamplerType sampler) const {
    return place(ScalarPtr(boundLeaf<ScalarOrvane>(*this, name, sampler)));
}
VdbVolume::VectorPtr VdbVolume::vector(std::string const& name, SamplerType sampler) const {
    return place(VectorPtr(boundLeaf<VectorOrvane>(*this, name, sampler)));
}

}  // namespace zel
