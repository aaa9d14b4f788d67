#include "openvdb_baseline.h"

#include <openvdb/math/Stencils.h>
#include <openvdb/openvdb.h>
#include <openvdb/tools/Dense.h>
#include <openvdb/tools/Interpolation.h>

#include <type_traits>

namespace {

template <class T>
using GridOf = std::conditional_t<std::same_as<T, float>, openvdb::FloatGrid, openvdb::Vec3SGrid>;

/// OpenVDB's own library constructs the grid: a constructor here would compile all of its virtual
/// functions again.
template <class Grid> typename Grid::Ptr makeGrid() {
    openvdb::initialize();
    return openvdb::gridPtrCast<Grid>(openvdb::GridBase::createGrid(Grid::gridType()));
}

float first(float value) {
    return value;
}
float first(openvdb::Vec3s const& value) {
    return value.x();
}
float all(float value) {
    return value;
}
float all(openvdb::Vec3s const& value) {
    return value.x() + value.y() + value.z();
}

/// The sum of `read(index)` over all positions, where `index` is in units of voxels.
template <class Read>
double sum(float inverse, std::vector<float> const& x, std::vector<float> const& y,
           std::vector<float> const& z, Read const& read) {
    float total = 0;
    for (std::size_t i = 0; i < x.size(); ++i)
        total += read(openvdb::Vec3d(x[i] * inverse, y[i] * inverse, z[i] * inverse));
    return static_cast<double>(total);
}

}  // namespace

template <class T> struct OpenVdbBaseline<T>::Grid {
    typename GridOf<T>::Ptr grid;
    float inverse;
};

template <class T>
OpenVdbBaseline<T>::OpenVdbBaseline(DenseVolume<T> const& dense)
    : m_grid(std::make_unique<Grid>(makeGrid<GridOf<T>>(), dense.inverseVoxelSize)) {
    using Value = typename GridOf<T>::ValueType;
    openvdb::CoordBBox const box(openvdb::Coord(dense.low),
                                 openvdb::Coord(dense.low + dense.size - 1));
    auto* const data = const_cast<Value*>(reinterpret_cast<Value const*>(dense.samples.data()));
    openvdb::tools::Dense<Value, openvdb::tools::LayoutXYZ> const array(box, data);
    openvdb::tools::copyFromDense(array, *m_grid->grid, Value(0.0F));
}

template <class T> OpenVdbBaseline<T>::~OpenVdbBaseline() = default;

template <class T>
double OpenVdbBaseline<T>::linear(Floats const& x, Floats const& y, Floats const& z) const {
    auto const accessor = m_grid->grid->getConstAccessor();
    return sum(m_grid->inverse, x, y, z, [&](openvdb::Vec3d const& at) {
        return all(openvdb::tools::BoxSampler::sample(accessor, at));
    });
}

template <class T>
double
OpenVdbBaseline<T>::linearWithGradients(Floats const& x, Floats const& y,
                                        Floats const& z) const requires std::same_as<T, float> {
    openvdb::math::BoxStencil<GridOf<T>> stencil(*m_grid->grid);
    float const inverse = m_grid->inverse;
    return sum(inverse, x, y, z, [&](openvdb::Vec3d const& at) {
        openvdb::Vec3s const i(at);
        stencil.moveTo(i);
        auto const g = stencil.gradient(i);
        return stencil.interpolation(i) + g.x() * inverse + g.y() * inverse + g.z() * inverse;
    });
}

template <class T>
double OpenVdbBaseline<T>::quadratic(Floats const& x, Floats const& y, Floats const& z) const {
    auto const accessor = m_grid->grid->getConstAccessor();
    return sum(m_grid->inverse, x, y, z, [&](openvdb::Vec3d const& at) {
        return first(openvdb::tools::QuadraticSampler::sample(accessor, at));
    });
}

template class OpenVdbBaseline<float>;
template class OpenVdbBaseline<Orvane::Math::float3>;
