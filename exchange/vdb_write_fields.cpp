#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "number_text.h"
#include "vdb_output.h"
#include "vdb_pieces.h"
#include "vdb_tiles.h"
#include "vdb_write.h"
#include "zel/field/evaluate.h"

namespace zel {

namespace detail {

namespace {

using openvdb::Coord;
using openvdb::CoordBBox;
using openvdb::FloatGrid;

/// The density of a fog volume from a distance.
float density(float distance, float band) {
    return std::clamp(-distance / band, 0.0F, 1.0F);
}

/// Makes the fog of a level set of the same band: a ramp inside of the surface, and tiles of 1.
FloatGrid::Ptr fogOf(FloatGrid& levelSet, float band) {
    auto fog = makeGrid<FloatGrid>(0);
    fog->setTransform(levelSet.transformPtr());
    auto& tree = fog->tree();
    auto tile = levelSet.tree().cbeginValueAll();
    for (; tile; ++tile) {
        float const value = density(*tile, band);
        if (value == 0) continue;
        CoordBBox box;
        tile.getBoundingBox(box);
        if (tile.isVoxelValue())
            tree.setValueOn(box.min(), value);
        else
            tree.sparseFill(box, value, true);
    }
    tree.prune();
    return fog;
}

template <class T>
void checkActive(VdbOutput const& output, std::string const& name, GridOf<T> const& grid) {
    for (auto value = grid.cbeginValueOn(); value; ++value) {
        if constexpr (std::is_same_v<T, float>)
            output.check(name, value.getCoord(), *value);
        else
            output.check(name, value.getCoord(), float3{(*value)[0], (*value)[1], (*value)[2]});
    }
}

/// The indices of the voxels of a part along x.
struct Layers {
    int first, last;  // and the one after the last
};

class FieldWriter {
public:
    FieldWriter(VdbOutput& output, Box const& box, float voxelSize, Layers const& layers)
        : m_output(output), m_box(widened(box, voxelSize)), m_whole(m_box), m_voxelSize(voxelSize),
          m_voxels(voxelsIn(box, voxelSize)), m_transform(transformOf(voxelSize)) {
        // The tiles of the part alone are to meet its box.
        constexpr float kFarthest = std::numeric_limits<float>::max();
        auto const at = [&](int index) { return index * double{voxelSize}; };
        if (layers.first > m_voxels.min().x()) {
            m_box.low.x = static_cast<float>(at(layers.first));
            if (double{m_box.low.x} < at(layers.first))
                m_box.low.x = std::nextafter(m_box.low.x, kFarthest);
        }
        if (layers.last <= m_voxels.max().x()) {
            m_box.high.x = static_cast<float>(at(layers.last));
            if (double{m_box.high.x} >= at(layers.last))
                m_box.high.x = std::nextafter(m_box.high.x, -kFarthest);
        }
        m_voxels.min().x() = std::max(m_voxels.min().x(), layers.first);
        m_voxels.max().x() = std::min(m_voxels.max().x(), layers.last - 1);
    }

    void run(std::vector<VdbField> const& fields) {
        auto const& options = m_output.options();
        if (options.band) {
            auto const shape = std::find_if(fields.begin(), fields.end(), isShape);
            if (shape == fields.end())
                refuseVdb("a band, and neither a level set nor a fog volume that makes it");
            m_shape = build(*shape->scalar);
            m_shapeField = shape->scalar.get();
        }
        for (VdbField const& field : fields) {
            if (!options.band) {
                if (field.scalar)
                    addDense<float>(field, *field.scalar);
                else
                    addDense<float3>(field, *field.vector);
            } else if (isShape(field)) {
                addShape(field);
            } else if (field.scalar) {
                addInBand<float>(field, *field.scalar);
            } else {
                addInBand<float3>(field, *field.vector);
            }
        }
    }

private:
    static bool isShape(VdbField const& field) {
        return field.scalar &&
               (field.gridClass == VdbClass::kLevelSet || field.gridClass == VdbClass::kFogVolume);
    }
    float band() const { return *m_output.options().band * m_voxelSize; }

    Volume<BinaryTraits, float> build(ScalarField const& field) {
        auto const& options = m_output.options();
        if (!(*options.band > 0)) refuseVdb("a band of " + numberText(*options.band) + " voxels");
        BuildOptions build;
        build.outside = band();
        build.parallel = options.parallel;
        build.stop = options.stop;
        build.progress = options.progress;
        build.minDepth = leastDepth();
        return buildVolume<BinaryTraits>(field, m_box, m_voxelSize, *options.band, build);
    }

    /// The default of buildVolume() for the whole box, from which the part's tree must not differ.
    int leastDepth() const {
        double edge = 0;
        for (int axis = 0; axis < 3; ++axis)
            edge = std::max(edge, double{m_whole.high[axis]} - double{m_whole.low[axis]});
        int depth = 0;
        while (depth < BinaryTraits::kMaxDepth &&
               BinaryTraits::tileWidth(depth + 1) * double{m_voxelSize} >= 0.125 * edge)
            ++depth;
        return depth;
    }

    void addShape(VdbField const& field) {
        auto const volume = m_shapeField == field.scalar.get() ? m_shape : build(*field.scalar);
        auto grid = levelSetOf(volume, band(), m_voxels, m_transform, [&](Coord const& at) {
            m_output.check(field.name, at, std::numeric_limits<float>::quiet_NaN());
        });
        if (field.gridClass == VdbClass::kFogVolume)
            grid = fogOf(*grid, band());
        else
            m_output.check(field.name, {}, band());
        checkActive<float>(m_output, field.name, *grid);
        m_output.add(field.name, grid, field.gridClass, field.vectorType);
    }

    template <class T, class Interface>
    void addInBand(VdbField const& field, Interface const& interface) {
        auto const& options = m_output.options();
        auto const volume = buildVolume<BinaryTraits, float>(
            m_shape, interface, T{}, FillOptions{options.parallel, options.stop, options.progress});
        auto grid = makeGrid<GridOf<T>>(vdbValue(T{}));
        openvdb::tree::ValueAccessor<typename GridOf<T>::TreeType> voxels(grid->tree());
        float const* const distances = m_shape.channel->samples({0, BinaryTraits::kMaxDepth});
        forEachSample<BinaryTraits, T>(*volume.container, *volume.channel, BinaryTraits::kMaxDepth,
                                       [&](int3 const& at, long long sample, T const& value) {
                                           if (std::abs(distances[sample]) >= band() ||
                                               !m_voxels.isInside(vdbCoord(at)))
                                               return;
                                           m_output.check(field.name, vdbCoord(at), value);
                                           voxels.setValueOn(vdbCoord(at), vdbValue(value));
                                       });
        finish<T>(field, grid);
    }

    template <class T, class Interface>
    void addDense(VdbField const& field, Interface const& interface) {
        auto grid = makeGrid<GridOf<T>>(vdbValue(T{}));
        auto& tree = grid->tree();
        std::vector<CoordBBox> leaves;
        std::vector<float3> positions;
        std::vector<T> values;
        auto const flush = [&] {
            values.resize(positions.size());
            EvaluateOptions options;
            options.parallel = m_output.options().parallel;
            options.stop = m_output.options().stop;
            if (m_output.options().progress)
                options.progress = [&](std::size_t done, std::size_t /*all*/) {
                    m_output.options().progress(m_done + done, m_voxels.volume());
                };
            evaluate(interface, PointView::of(positions), values, options);
            m_done += positions.size();
            T const* from = values.data();
            for (CoordBBox const& leaf : leaves) from = addLeaf(field, leaf, from, tree);
            leaves.clear();
            positions.clear();
        };
        m_done = 0;
        constexpr std::size_t kMost = std::size_t{1} << 20;  // positions that are evaluated at once
        Coord const low = m_voxels.min() & ~(kLeaf - 1);
        for (int x = low.x(); x <= m_voxels.max().x(); x += kLeaf)
            for (int y = low.y(); y <= m_voxels.max().y(); y += kLeaf)
                for (int z = low.z(); z <= m_voxels.max().z(); z += kLeaf) {
                    CoordBBox leaf = CoordBBox::createCube(Coord(x, y, z), kLeaf);
                    leaf.intersect(m_voxels);
                    leaves.push_back(leaf);
                    for (Coord const& at : leaf)
                        positions.push_back({position(at.x()), position(at.y()), position(at.z())});
                    if (positions.size() >= kMost) flush();
                }
        flush();
        finish<T>(field, grid);
    }
    static constexpr int kLeaf = 8;

    /// Sets the voxels of a part of a leaf; if a whole leaf is constant, as a tile. Returns the end
    /// of the values.
    template <class T, class Tree>
    T const* addLeaf(VdbField const& field, CoordBBox const& leaf, T const* from, Tree& tree) {
        auto const count = static_cast<std::ptrdiff_t>(leaf.volume());
        T const* const end = from + count;
        bool const keepsZero = field.gridClass != VdbClass::kFogVolume;
        if (count == kLeaf * kLeaf * kLeaf &&
            std::all_of(from, end, [&](T const& value) { return value == *from; })) {
            m_output.check(field.name, leaf.min(), *from);
            if (keepsZero || *from != T{}) tree.addTile(1, leaf.min(), vdbValue(*from), true);
            return end;
        }
        openvdb::tree::ValueAccessor<Tree> voxels(tree);
        for (Coord const& at : leaf) {
            m_output.check(field.name, at, *from);
            if (keepsZero || *from != T{}) voxels.setValueOn(at, vdbValue(*from));
            ++from;
        }
        return end;
    }
    float position(int index) const { return static_cast<float>(index * double{m_voxelSize}); }

    template <class T> void finish(VdbField const& field, typename GridOf<T>::Ptr const& grid) {
        grid->tree().prune();
        grid->setTransform(m_transform);
        m_output.add(field.name, grid, field.gridClass, field.vectorType);
    }

    VdbOutput& m_output;
    Box m_box;  // of the part
    Box m_whole;
    float m_voxelSize;
    CoordBBox m_voxels;
    openvdb::math::Transform::Ptr m_transform;
    Volume<BinaryTraits, float> m_shape;
    ScalarField const* m_shapeField = nullptr;
    std::size_t m_done = 0;
};

}  // namespace

}  // namespace detail

struct VdbParts::State {
    State(std::filesystem::path path_, std::vector<VdbField> fields_, Box const& box_,
          float voxelSize_, WriteVdbOptions options_)
        : path(std::move(path_)), fields(std::move(fields_)), box(box_), voxelSize(voxelSize_),
          options(std::move(options_)), output(path, options) {}

    std::filesystem::path path;
    std::vector<VdbField> fields;
    Box box;
    float voxelSize;
    WriteVdbOptions options;
    detail::VdbOutput output;
    std::optional<detail::VdbPieces> pieces;
    bool isMerged = false;
};

VdbParts::VdbParts(std::filesystem::path path, std::vector<VdbField> fields, Box const& box,
                   float voxelSize, WriteVdbOptions options) {
    detail::checkNames(fields);
    if (!(voxelSize > 0) || std::isinf(voxelSize))
        detail::refuseVdb("a voxelSize of " + detail::numberText(voxelSize));
    for (int axis = 0; axis < 3; ++axis) {
        bool const fits = std::abs(double{box.low[axis]}) < 0x1p28 * double{voxelSize} &&
                          std::abs(double{box.high[axis]}) < 0x1p28 * double{voxelSize};
        auto const refuseBox = [&](std::string const& why) {
            detail::refuseVdb("a box from " + detail::numberText(box.low[axis]) + " to " +
                              detail::numberText(box.high[axis]) + " along " + "xyz"[axis] + why);
        };
        if (!fits || !(box.low[axis] < box.high[axis])) refuseBox("");
        auto const voxels = detail::voxelsIn(box, voxelSize);
        if (voxels.min()[static_cast<std::size_t>(axis)] >
            voxels.max()[static_cast<std::size_t>(axis)])
            refuseBox(", which has no voxel of " + detail::numberText(voxelSize));
    }
    for (VdbField const& field : fields) {
        if (!field.scalar == !field.vector)
            detail::refuseVdb("grid " + detail::quoted(field.name) + " needs one field");
        if (field.gridClass == VdbClass::kLevelSet && (!options.band || !field.scalar))
            detail::refuseVdb("level set " + detail::quoted(field.name) +
                              (field.scalar ? " needs a band" : " of a vector field"));
    }
    m_state = std::make_unique<State>(std::move(path), std::move(fields), box, voxelSize,
                                      std::move(options));
}
VdbParts::~VdbParts() = default;

std::pair<int, int> VdbParts::range() const {
    auto const voxels = detail::voxelsIn(m_state->box, m_state->voxelSize);
    return {voxels.min().x(), voxels.max().x() + 1};
}

bool VdbParts::isDivisible() const {
    auto const [first, last] = range();
    return -(1 << 21) <= first && last <= 1 << 21;
}

void VdbParts::make(int first, int last) {
    State& state = *m_state;
    state.output.clear();
    detail::FieldWriter(state.output, state.box, state.voxelSize, {first, last}).run(state.fields);
    state.output.compress();
    state.pieces.emplace(state.output.grids(), state.output.leaves());
}

std::vector<std::byte> VdbParts::take(std::size_t bytes) {
    return m_state->pieces ? m_state->pieces->take(bytes) : std::vector<std::byte>();
}

void VdbParts::add(std::span<std::byte const> piece) {
    detail::addVdbPiece(m_state->output.grids(), m_state->output.leaves(), piece);
    m_state->isMerged = true;
}

std::filesystem::path VdbParts::begin() {
    return m_state->output.begin();
}

void VdbParts::write() {
    if (m_state->isMerged) detail::pruneTiles(m_state->output.grids());
    m_state->output.write();
}

void writeVdb(std::filesystem::path const& path, std::vector<VdbField> const& fields,
              Box const& box, float voxelSize, WriteVdbOptions const& options) {
    VdbParts parts(path, fields, box, voxelSize, options);
    auto const [first, last] = parts.range();
    parts.make(first, last);
    parts.write();
}

}  // namespace zel
