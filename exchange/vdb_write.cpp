#include "vdb_write.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <set>
#include <stdexcept>
#include <system_error>

#include "affine_map.h"
#include "error.h"
#include "output_file.h"
#include "vdb_archive.h"
#include "vdb_pieces.h"
#include "vdb_tiles.h"
#include "zel/field/evaluate.h"
#include "zel_platform/orvane_geometry/geo_property.h"
#include "zel_platform/orvane_geometry_volume/halo.h"
#include "zel_platform/orvane_geometry_volume/object.h"

namespace zel {

namespace detail {

namespace {

using openvdb::Coord;
using openvdb::CoordBBox;
using openvdb::FloatGrid;
using openvdb::Vec3SGrid;
template <class T>
using GridOf = std::conditional_t<std::is_same_v<T, float>, FloatGrid, Vec3SGrid>;

[[noreturn]] void refuse(std::string const& message) {
    throw std::invalid_argument("zel::writeVdb: " + message);
}

std::array<float, 1> components(float value) {
    return {value};
}
std::array<float, 3> components(float3 const& value) {
    return {value.x, value.y, value.z};
}

/// What all grids of a file have in common.
struct Target {
    std::filesystem::path const& path;
    WriteVdbOptions const& options;
    openvdb::GridPtrVec grids{};
    std::optional<OutputFile> output{};

    Target(std::filesystem::path const& path_, WriteVdbOptions const& options_)
        : path(path_), options(options_) {
        if (options.metadata.contains("")) refuse("metadata without a name");
        initializeVdb();
    }

    /// Throws FileError for a value that the file cannot hold: of a voxel, or the background.
    template <class T>
    void check(std::string const& name, std::optional<Coord> const& at, T const& value) const {
        constexpr float kMostHalf = 65504;
        for (float const part : components(value)) {
            if (std::isfinite(part) && (!options.half || std::abs(part) <= kMostHalf)) continue;
            std::string const where = at ? "value of voxel (" + std::to_string(at->x()) + ", " +
                                               std::to_string(at->y()) + ", " +
                                               std::to_string(at->z()) + ")"
                                         : "background";
            throw FileError(path.string(), gridPlace(name),
                            "the " + where + " is " + std::to_string(part) +
                                (std::isfinite(part) ? ", too large for a half" : ""));
        }
    }

    template <class Grid>
    void add(std::string const& name, std::shared_ptr<Grid> const& grid, VdbClass gridClass,
             VdbVectorType vectorType) {
        constexpr std::array kClasses{openvdb::GRID_UNKNOWN, openvdb::GRID_LEVEL_SET,
                                      openvdb::GRID_FOG_VOLUME, openvdb::GRID_STAGGERED};
        constexpr std::array kTypes{
            openvdb::VEC_INVARIANT, openvdb::VEC_COVARIANT, openvdb::VEC_COVARIANT_NORMALIZE,
            openvdb::VEC_CONTRAVARIANT_RELATIVE, openvdb::VEC_CONTRAVARIANT_ABSOLUTE};
        grid->setName(name);
        grid->setCreator(options.creator);
        grid->setSaveFloatAsHalf(options.half);
        grid->setGridClass(kClasses[static_cast<std::size_t>(gridClass)]);
        if (std::is_same_v<Grid, Vec3SGrid>)
            grid->setVectorType(kTypes[static_cast<std::size_t>(vectorType)]);
        grids.push_back(grid);
    }

    void begin() {
        output.emplace(path);
        if (output->isDirect())
            throw FileError(path.string(), {}, "is no regular file, which OpenVDB needs");
    }

    void write() {
        if (!output) begin();
        openvdb::MetaMap metadata;
        metadata.insertMeta("creator", openvdb::StringMetadata(options.creator));
        for (auto const& [name, value] : options.metadata)
            metadata.insertMeta(name, openvdb::StringMetadata(value));
        try {
            openvdb::io::File(output->temporaryPath().string()).write(grids, metadata);
        } catch (openvdb::Exception const& error) {
            throw FileError(path.string(), {}, std::string("cannot be written: ") + error.what());
        }
        checkComplete(output->temporaryPath());
        std::string const header = headerOf(output->temporaryPath());
        output->rewriteBegin(std::as_bytes(std::span(header)));
        output->commit();
    }

private:
    /// OpenVDB does not report a full disk.
    void checkComplete(std::filesystem::path const& written) const {
        try {
            FileView const view(written);
            auto const sections = vdbSections(view);
            auto const end = sections.empty() ? 0 : sections.back().end;
            if (sections.size() == grids.size() &&
                end == static_cast<std::int64_t>(view.bytes().size()))
                return;
        } catch (FileError const&) {
        }
        throw FileError(path.string(), {}, "cannot be written completely");
    }

    /// The bytes of a file to the end of its UUID, which OpenVDB chose at random, with a UUID that
    /// is a hash of all the bytes after it.
    static std::string headerOf(std::filesystem::path const& written) {
        constexpr std::size_t kBefore = 21, kSize = 36;
        FileView const view(written);
        auto const rest = view.bytes().subspan(kBefore + kSize);
        return std::string(view.bytes().data(), kBefore) + uuidOf(rest);
    }

    /// A UUID of version 8: 122 bits that depend on all bytes. SHA-1 would take as long as the rest
    /// of writing.
    static std::string uuidOf(std::span<char const> bytes) {
        std::uint64_t a = bytes.size(), b = ~a;
        for (std::size_t i = 0; i < bytes.size(); i += sizeof a) {
            std::uint64_t word = 0;
            std::memcpy(&word, &bytes[i], std::min(sizeof word, bytes.size() - i));
            a = (a ^ word) * 0x9E3779B97F4A7C15;
            a ^= a >> 32;
            b = (std::rotl(b, 29) + word) * 0xC2B2AE3D27D4EB4F;
            b ^= b >> 31;
        }
        a ^= std::rotl(b, 32);
        char text[40];
        std::snprintf(text, sizeof text, "%08x-%04x-8%03x-%04x-%012llx",
                      static_cast<unsigned>(a >> 32), static_cast<unsigned>(a >> 16 & 0xFFFF),
                      static_cast<unsigned>(a & 0xFFF),
                      static_cast<unsigned>(b >> 48 & 0x3FFF) | 0x8000U,
                      static_cast<unsigned long long>(b & 0xFFFFFFFFFFFF));
        return text;
    }
};

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
void checkActive(Target const& target, std::string const& name, GridOf<T> const& grid) {
    for (auto value = grid.cbeginValueOn(); value; ++value) {
        if constexpr (std::is_same_v<T, float>)
            target.check(name, value.getCoord(), *value);
        else
            target.check(name, value.getCoord(), float3{(*value)[0], (*value)[1], (*value)[2]});
    }
}

/// The indices of the voxels of a part along x.
struct Layers {
    int first, last;  // and the one after the last
};

class FieldWriter {
public:
    FieldWriter(Target& target, Box const& box, float voxelSize, Layers const& layers)
        : m_target(target), m_box(widened(box, voxelSize)), m_whole(m_box), m_voxelSize(voxelSize),
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
        auto const& options = m_target.options;
        if (options.band) {
            auto const shape = std::find_if(fields.begin(), fields.end(), isShape);
            if (shape == fields.end())
                refuse("a band, and neither a level set nor a fog volume that makes it");
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
    float band() const { return *m_target.options.band * m_voxelSize; }

    Volume<BinaryTraits, float> build(ScalarField const& field) {
        auto const& options = m_target.options;
        if (!(*options.band > 0)) refuse("a band of " + std::to_string(*options.band) + " voxels");
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
        forEachSample<BinaryTraits, float>(
            *volume.container, *volume.channel, BinaryTraits::kMaxDepth,
            [&](int3 const& at, long long /*sample*/, float value) {
                if (std::isnan(value) && m_voxels.isInside(vdbCoord(at)))
                    m_target.check(field.name, vdbCoord(at), value);
            });
        auto grid = levelSetOf(volume, band(), m_voxels, m_transform);
        if (field.gridClass == VdbClass::kFogVolume)
            grid = fogOf(*grid, band());
        else
            m_target.check(field.name, {}, band());
        checkActive<float>(m_target, field.name, *grid);
        m_target.add(field.name, grid, field.gridClass, field.vectorType);
    }

    template <class T, class Interface>
    void addInBand(VdbField const& field, Interface const& interface) {
        auto const& options = m_target.options;
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
                                           m_target.check(field.name, vdbCoord(at), value);
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
            options.parallel = m_target.options.parallel;
            options.stop = m_target.options.stop;
            if (m_target.options.progress)
                options.progress = [&](std::size_t done, std::size_t /*all*/) {
                    m_target.options.progress(m_done + done, m_voxels.volume());
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
            m_target.check(field.name, leaf.min(), *from);
            if (keepsZero || *from != T{}) tree.addTile(1, leaf.min(), vdbValue(*from), true);
            return end;
        }
        openvdb::tree::ValueAccessor<Tree> voxels(tree);
        for (Coord const& at : leaf) {
            m_target.check(field.name, at, *from);
            if (keepsZero || *from != T{}) voxels.setValueOn(at, vdbValue(*from));
            ++from;
        }
        return end;
    }
    float position(int index) const { return static_cast<float>(index * double{m_voxelSize}); }

    template <class T> void finish(VdbField const& field, typename GridOf<T>::Ptr const& grid) {
        grid->tree().prune();
        grid->setTransform(m_transform);
        m_target.add(field.name, grid, field.gridClass, field.vectorType);
    }

    Target& m_target;
    Box m_box;  // of the part
    Box m_whole;
    float m_voxelSize;
    CoordBBox m_voxels;
    openvdb::math::Transform::Ptr m_transform;
    Volume<BinaryTraits, float> m_shape;
    ScalarField const* m_shapeField = nullptr;
    std::size_t m_done = 0;
};

openvdb::math::Transform::Ptr transformOf(std::string const& name, AffineMap const& toWorld) {
    openvdb::Mat4d matrix = openvdb::Mat4d::identity();
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 4; ++c)
            matrix[c][r] = toWorld[static_cast<std::size_t>(r)][static_cast<std::size_t>(c)];
    try {
        return openvdb::math::Transform::createLinearTransform(matrix);
    } catch (openvdb::ArithmeticError const&) {
        refuse("the voxels of grid " + detail::quoted(name) + " are too small for OpenVDB");
    }
}

/// The range of voxels of a kind of tree, and their places in the lattice.
template <class Traits> class ChannelWriter {
public:
    ChannelWriter(Target& target, ORV::Object const& object)
        : m_target(target), m_object(object),
          m_tree(object.component<ORV::TileTree3D::Container<Traits>>(
              Orvane::Geometry::sVoxelTileTree)),
          m_topology(object.component<ORV::TileTree3D::VoxelTopology<Traits>>(
              Orvane::Geometry::sVoxelComp)) {}

    bool hasTree() const { return m_tree && m_topology; }

    /// A lattice point is its index times `width`, plus the place of index 0.
    int width() const { return Traits::voxelWidth(m_tree->depth()); }
    int first() const {
        auto const half = static_cast<int>(Traits::kRootWidth / 2) / width();
        return Traits::kRootCorner + half * width();
    }
    float voxelSize() const { return m_tree->voxelSize(); }

    /// Adds the grid of a channel. `toWorld` takes indices, from which `shift` was subtracted.
    void add(VdbChannel const& channel, AffineMap const& toWorld, int3 const& shift) {
        if (m_topology->offsetType() != ORV::TileTree3D::kOnVoxelCorners)
            refuse("samples that are not on the corners of voxels");
        Quern::String const name(channel.name.c_str());
        using ORV::TileTree3D::DataChannel;
        if (auto const scalars = m_object.component<DataChannel<Traits, float>>(name))
            addChannel<float>(channel, *scalars, toWorld, shift);
        else if (auto const vectors = m_object.component<DataChannel<Traits, float3>>(name))
            addChannel<float3>(channel, *vectors, toWorld, shift);
        else
            refuse("no channel " + detail::quoted(channel.name));
    }

private:
    template <class T>
    void addChannel(VdbChannel const& channel,
                    ORV::TileTree3D::DataChannel<Traits, T> const& samples,
                    AffineMap const& toWorld, int3 const& shift) {
        if (!samples.fits(*m_tree) || samples.minDepth() > 0 || samples.depth() < m_tree->depth())
            refuse("channel " + detail::quoted(channel.name) +
                   " does not have all tiles of the tree");
        T const background = samples.defaultValue();
        m_target.check(channel.name, {}, background);
        bool const isLevelSet =
            std::is_same_v<T, float> && channel.gridClass == VdbClass::kLevelSet;
        if constexpr (std::is_same_v<T, float>)
            if (isLevelSet && !(background > 0))
                refuse("level set " + detail::quoted(channel.name) + " has a default value of " +
                       std::to_string(background) + ", which must be the width of its band");
        auto grid = makeGrid<GridOf<T>>(vdbValue(background));
        grid->setTransform(transformOf(channel.name, toWorld));
        auto& tree = grid->tree();
        auto const index = [origin = first(), width = width(), &shift](int3 const& lattice) {
            return Coord((lattice.x - origin) / width - shift.x,
                         (lattice.y - origin) / width - shift.y,
                         (lattice.z - origin) / width - shift.z);
        };
        int const finest = m_tree->depth();
        auto const halo = isLevelSet ? nullptr : coarseHalo(samples);
        forEachUncovered<Traits, T>(
            *m_tree, samples, finest, [&](auto const& tile, int3 const& at, T const* sample) {
                T value = *sample;
                if constexpr (std::is_same_v<T, float>)
                    if (isLevelSet) value = std::copysign(background, value);
                if (halo) checkConstant(channel.name, halo->samples(tile.treeIndex()), at);
                if (value == background) return;
                int3 const low = tile.tijk() + at * tile.voxelDataWidth();
                m_target.check(channel.name, index(low), value);
                int const across = Traits::tileWidth(tile.depth() + 1) / width();
                CoordBBox const box(index(low), index(low).offsetBy(across - 1));
                fillVoxels(tree, box, vdbValue(value), !isLevelSet);
            });
        openvdb::tree::ValueAccessor<typename GridOf<T>::TreeType> voxels(tree);
        forEachSample<Traits, T>(*m_tree, samples, finest,
                                 [&](int3 const& lattice, long long /*sample*/, T value) {
                                     Coord const at = index(lattice);
                                     m_target.check(channel.name, at, value);
                                     bool active = value != background;
                                     if constexpr (std::is_same_v<T, float>)
                                         if (isLevelSet) {
                                             active = std::abs(value) < background;
                                             if (!active) value = std::copysign(background, value);
                                         }
                                     if (active)
                                         voxels.setValueOn(at, vdbValue(value));
                                     else if (value != background)
                                         voxels.setValueOff(at, vdbValue(value));
                                 });
        tree.prune();
        m_target.add(channel.name, grid, channel.gridClass, channel.vectorType);
    }

    /// The samples of the tiles above the finest ones, with those across their high faces.
    template <class T>
    std::unique_ptr<ORV::TileTree3D::HaloChannel<Traits, T>>
    coarseHalo(ORV::TileTree3D::DataChannel<Traits, T> const& samples) const {
        int const coarse = m_tree->depth() - 1;
        if (coarse < 0) return nullptr;
        T const background = samples.defaultValue();
        auto halo = std::make_unique<ORV::TileTree3D::HaloChannel<Traits, T>>(
            Quern::String(), &background, 0, true, true, 0, coarse);
        halo->update(*m_topology);
        ORV::TileTree3D::computeHalo<Traits, T, 0, 0, 1, 0>(samples, *m_tree, *halo, 0, coarse);
        return halo;
    }

    /// Refuses values that differ in the place of a child, its high faces included.
    template <class T>
    static void checkConstant(std::string const& name, T const* halo, int3 const& first) {
        constexpr int W = Traits::kSamples + 1, kSpan = Traits::kSamples / Traits::kBranch;
        T const* const from = halo + first.x + W * (first.y + W * first.z);
        for (int z = 0; z <= kSpan; ++z)
            for (int y = 0; y <= kSpan; ++y)
                for (int x = 0; x <= kSpan; ++x)
                    if (from[x + W * (y + W * z)] != *from)
                        refuse("channel " + detail::quoted(name) +
                               " varies in tiles above the finest depth; write it as a field");
    }

    Target& m_target;
    ORV::Object const& m_object;
    Quern::Ptr<ORV::TileTree3D::Container<Traits>> m_tree;
    Quern::Ptr<ORV::TileTree3D::VoxelTopology<Traits>> m_topology;
};

Quern::Ptr<ORV::Object> volumeOf(Orvane::Object const& object) {
    auto volume = Orvane::Geometry::shallow_copy_object_to_orv_volume(object);
    if (!volume) refuse("the object has no volume");
    return volume;
}

template <class Name> void checkNames(std::vector<Name> const& grids) {
    std::set<std::string> names;
    if (grids.empty()) refuse("nothing to write");
    for (auto const& grid : grids)
        if (grid.name.empty() || !names.insert(grid.name).second)
            refuse("the name " + detail::quoted(grid.name) +
                   (grid.name.empty() ? " is empty" : " is used twice"));
}

/// The place of a volume's lattice in the world, by its own voxels.
template <class Traits> AffineMap latticeMap(ChannelWriter<Traits> const& writer) {
    double const size = writer.voxelSize(), width = size * writer.width(),
                 origin = size * writer.first();
    return {{{width, 0, 0, origin}, {0, width, 0, origin}, {0, 0, width, origin}}};
}

/// Calls use(writer) with the writer for the kind of the volume's tree.
template <class Use> void withWriter(Target& target, ORV::Object const& object, Use const& use) {
    ChannelWriter<QuinaryTraits> quinary(target, object);
    if (quinary.hasTree()) return use(quinary);
    ChannelWriter<BinaryTraits> binary(target, object);
    if (!binary.hasTree()) refuse("the volume has no tree, or no topology");
    use(binary);
}

VdbClass classOf(VdbGrid const& grid) {
    auto const found = grid.metadata.find(openvdb::GridBase::META_GRID_CLASS);
    std::string const name = found == grid.metadata.end() ? "" : found->second;
    return name == "level set"    ? VdbClass::kLevelSet
           : name == "fog volume" ? VdbClass::kFogVolume
           : name == "staggered"  ? VdbClass::kStaggered
                                  : VdbClass::kUnknown;
}
VdbVectorType vectorTypeOf(VdbGrid const& grid) {
    auto const found = grid.metadata.find(openvdb::GridBase::META_VECTOR_TYPE);
    std::string const name = found == grid.metadata.end() ? "" : found->second;
    return name == "covariant"                ? VdbVectorType::kCovariant
           : name == "covariant normalize"    ? VdbVectorType::kCovariantNormalize
           : name == "contravariant relative" ? VdbVectorType::kContravariantRelative
           : name == "contravariant absolute" ? VdbVectorType::kContravariantAbsolute
                                              : VdbVectorType::kInvariant;
}

}  // namespace

}  // namespace detail

using detail::int3;
using detail::Target;

struct VdbParts::State {
    State(std::filesystem::path path_, std::vector<VdbField> fields_, Box const& box_,
          float voxelSize_, WriteVdbOptions options_)
        : path(std::move(path_)), fields(std::move(fields_)), box(box_), voxelSize(voxelSize_),
          options(std::move(options_)), target(path, options) {}

    std::filesystem::path path;
    std::vector<VdbField> fields;
    Box box;
    float voxelSize;
    WriteVdbOptions options;
    Target target;
    std::optional<detail::VdbPieces> pieces;
    bool isMerged = false;
};

VdbParts::VdbParts(std::filesystem::path path, std::vector<VdbField> fields, Box const& box,
                   float voxelSize, WriteVdbOptions options) {
    detail::checkNames(fields);
    if (!(voxelSize > 0) || std::isinf(voxelSize))
        detail::refuse("a voxelSize of " + std::to_string(voxelSize));
    for (int axis = 0; axis < 3; ++axis) {
        bool const fits = std::abs(double{box.low[axis]}) < 0x1p28 * double{voxelSize} &&
                          std::abs(double{box.high[axis]}) < 0x1p28 * double{voxelSize};
        auto const refuseBox = [&](std::string const& why) {
            detail::refuse("a box from " + std::to_string(box.low[axis]) + " to " +
                           std::to_string(box.high[axis]) + " along " + "xyz"[axis] + why);
        };
        if (!fits || !(box.low[axis] < box.high[axis])) refuseBox("");
        auto const voxels = detail::voxelsIn(box, voxelSize);
        if (voxels.min()[static_cast<std::size_t>(axis)] >
            voxels.max()[static_cast<std::size_t>(axis)])
            refuseBox(", which has no voxel of " + std::to_string(voxelSize));
    }
    for (VdbField const& field : fields) {
        if (!field.scalar == !field.vector)
            detail::refuse("grid " + detail::quoted(field.name) + " needs one field");
        if (field.gridClass == VdbClass::kLevelSet && (!options.band || !field.scalar))
            detail::refuse("level set " + detail::quoted(field.name) +
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
    state.target.grids.clear();
    detail::FieldWriter(state.target, state.box, state.voxelSize, {first, last}).run(state.fields);
    state.pieces.emplace(state.target.grids);
}

std::vector<std::byte> VdbParts::take(std::size_t bytes) {
    return m_state->pieces ? m_state->pieces->take(bytes) : std::vector<std::byte>();
}

void VdbParts::add(std::span<std::byte const> piece) {
    detail::addVdbPiece(m_state->target.grids, piece);
    m_state->isMerged = true;
}

std::filesystem::path VdbParts::begin() {
    m_state->target.begin();
    return m_state->target.output->temporaryPath();
}

void VdbParts::write() {
    if (m_state->isMerged) detail::pruneGrids(m_state->target.grids);
    m_state->target.write();
}

void writeVdb(std::filesystem::path const& path, std::vector<VdbField> const& fields,
              Box const& box, float voxelSize, WriteVdbOptions const& options) {
    VdbParts parts(path, fields, box, voxelSize, options);
    auto const [first, last] = parts.range();
    parts.make(first, last);
    parts.write();
}

void writeVdb(std::filesystem::path const& path, VdbVolume const& volume,
              WriteVdbOptions const& options) {
    Target target(path, options);
    auto const object = detail::volumeOf(volume.object);
    auto const toWorld = detail::inverse(volume.worldToIndex);
    detail::withWriter(target, *object, [&](auto& writer) {
        // The lattice point that an index of the file has: see VdbVolume.
        int3 shift{};
        for (int axis = 0; axis < 3 && volume.isPlaced(); ++axis) {
            double const at = std::round(-volume.worldToIndex[static_cast<std::size_t>(axis)][3]);
            if (!(std::abs(at) <= 0x1p28))
                detail::refuse("index 0 lies " + std::to_string(at) + " voxels from the origin");
            shift[axis] = static_cast<int>(at);
        }
        for (VdbGrid const& grid : volume.grids)
            writer.add(
                {detail::channelName(grid.name), detail::classOf(grid), detail::vectorTypeOf(grid)},
                toWorld, shift);
    });
    target.write();
}

void writeVdb(std::filesystem::path const& path, Orvane::Object const& object,
              std::vector<VdbChannel> const& channels, WriteVdbOptions const& options) {
    detail::checkNames(channels);
    Target target(path, options);
    auto const volume = detail::volumeOf(object);
    detail::withWriter(target, *volume, [&](auto& writer) {
        for (VdbChannel const& channel : channels)
            writer.add(channel, detail::latticeMap(writer), int3{});
    });
    target.write();
}

}  // namespace zel
