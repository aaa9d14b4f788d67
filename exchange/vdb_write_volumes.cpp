#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "number_text.h"
#include "vdb_archive.h"
#include "vdb_output.h"
#include "vdb_tiles.h"
#include "vdb_write.h"
#include "zel_platform/orvane_geometry/geo_property.h"
#include "zel_platform/orvane_geometry_volume/halo.h"
#include "zel_platform/orvane_geometry_volume/object.h"

namespace zel {

namespace detail {

namespace {

using openvdb::Coord;
using openvdb::CoordBBox;

/// The range of voxels of a kind of tree, and their places in the lattice.
template <class Traits> class ChannelWriter {
public:
    ChannelWriter(VdbOutput& output, ORV::Object const& object)
        : m_output(output), m_object(object),
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
            refuseVdb("samples that are not on the corners of voxels");
        Quern::String const name(channel.name.c_str());
        using ORV::TileTree3D::DataChannel;
        if (auto const scalars = m_object.component<DataChannel<Traits, float>>(name))
            addChannel<float>(channel, *scalars, toWorld, shift);
        else if (auto const vectors = m_object.component<DataChannel<Traits, float3>>(name))
            addChannel<float3>(channel, *vectors, toWorld, shift);
        else
            refuseVdb("no channel " + detail::quoted(channel.name));
    }

private:
    /// What a grid has for the samples of a channel. The samples of a level set that are not nearer
    /// to the surface than the background become the background, with their sign.
    template <class T> struct Storage {
        T background;
        bool isLevelSet;

        bool isActive(T const& sample) const {
            if constexpr (std::is_same_v<T, float>)
                if (isLevelSet) return std::abs(sample) < background;
            return sample != background;
        }
        T ofVoxel(T const& sample) const { return isActive(sample) ? sample : ofTile(sample); }
        /// Of a tile, which is out of the band of a level set.
        T ofTile(T const& sample) const {
            if constexpr (std::is_same_v<T, float>)
                if (isLevelSet) return std::copysign(background, sample);
            return sample;
        }
    };

    template <class T>
    void addChannel(VdbChannel const& channel,
                    ORV::TileTree3D::DataChannel<Traits, T> const& samples,
                    AffineMap const& toWorld, int3 const& shift) {
        Storage<T> const storage{samples.defaultValue(),
                                 std::is_same_v<T, float> &&
                                     channel.gridClass == VdbClass::kLevelSet};
        checkChannel(channel, samples, storage);
        auto const index = [origin = first(), width = width(), &shift](int3 const& lattice) {
            return Coord((lattice.x - origin) / width - shift.x,
                         (lattice.y - origin) / width - shift.y,
                         (lattice.z - origin) / width - shift.z);
        };
        auto grid = makeGrid<GridOf<T>>(vdbValue(storage.background));
        grid->setTransform(vdbTransform(channel.name, toWorld));
        addCoarse(channel, samples, storage, index, grid->tree());
        addVoxels(channel, samples, storage, index, grid->tree());
        grid->tree().prune();
        m_output.add(channel.name, grid, channel.gridClass, channel.vectorType);
    }

    template <class T>
    void checkChannel(VdbChannel const& channel,
                      ORV::TileTree3D::DataChannel<Traits, T> const& samples,
                      Storage<T> const& storage) const {
        if (!samples.fits(*m_tree) || samples.minDepth() > 0 || samples.depth() < m_tree->depth())
            refuseVdb("channel " + detail::quoted(channel.name) +
                      " does not have all tiles of the tree");
        m_output.check(channel.name, {}, storage.background);
        if constexpr (std::is_same_v<T, float>)
            if (storage.isLevelSet && !(storage.background > 0))
                refuseVdb("level set " + detail::quoted(channel.name) + " has a default value of " +
                          numberText(storage.background) + ", which must be the width of its band");
    }

    /// Adds the samples of the tiles above the finest ones, as tiles.
    template <class T, class Index, class Tree>
    void addCoarse(VdbChannel const& channel,
                   ORV::TileTree3D::DataChannel<Traits, T> const& samples,
                   Storage<T> const& storage, Index const& index, Tree& tree) {
        auto const halo = storage.isLevelSet ? nullptr : coarseHalo(samples);
        forEachUncovered<Traits, T>(
            *m_tree, samples, m_tree->depth(),
            [&](auto const& tile, int3 const& at, T const* sample) {
                T const value = storage.ofTile(*sample);
                if (halo) checkConstant(channel.name, halo->samples(tile.treeIndex()), at);
                if (value == storage.background) return;
                int3 const low = tile.tijk() + at * tile.voxelDataWidth();
                m_output.check(channel.name, index(low), value);
                int const across = Traits::tileWidth(tile.depth() + 1) / width();
                CoordBBox const box(index(low), index(low).offsetBy(across - 1));
                fillVoxels(tree, box, vdbValue(value), !storage.isLevelSet);
            });
    }

    template <class T, class Index, class Tree>
    void addVoxels(VdbChannel const& channel,
                   ORV::TileTree3D::DataChannel<Traits, T> const& samples,
                   Storage<T> const& storage, Index const& index, Tree& tree) {
        openvdb::tree::ValueAccessor<Tree> voxels(tree);
        forEachSample<Traits, T>(*m_tree, samples, m_tree->depth(),
                                 [&](int3 const& lattice, long long /*number*/, T const& sample) {
                                     Coord const at = index(lattice);
                                     m_output.check(channel.name, at, sample);
                                     T const value = storage.ofVoxel(sample);
                                     if (storage.isActive(sample))
                                         voxels.setValueOn(at, vdbValue(value));
                                     else if (value != storage.background)
                                         voxels.setValueOff(at, vdbValue(value));
                                 });
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
                        refuseVdb("channel " + detail::quoted(name) +
                                  " varies in tiles above the finest depth; write it as a field");
    }

    VdbOutput& m_output;
    ORV::Object const& m_object;
    Quern::Ptr<ORV::TileTree3D::Container<Traits>> m_tree;
    Quern::Ptr<ORV::TileTree3D::VoxelTopology<Traits>> m_topology;
};

Quern::Ptr<ORV::Object> volumeOf(Orvane::Object const& object) {
    auto volume = Orvane::Geometry::shallow_copy_object_to_orv_volume(object);
    if (!volume) refuseVdb("the object has no volume");
    return volume;
}

/// The place of a volume's lattice in the world, by its own voxels.
template <class Traits> AffineMap latticeMap(ChannelWriter<Traits> const& writer) {
    double const size = writer.voxelSize(), width = size * writer.width(),
                 origin = size * writer.first();
    return {{{width, 0, 0, origin}, {0, width, 0, origin}, {0, 0, width, origin}}};
}

/// Calls use(writer) with the writer for the kind of the volume's tree.
template <class Use> void withWriter(VdbOutput& output, ORV::Object const& object, Use const& use) {
    ChannelWriter<QuinaryTraits> quinary(output, object);
    if (quinary.hasTree()) return use(quinary);
    ChannelWriter<BinaryTraits> binary(output, object);
    if (!binary.hasTree()) refuseVdb("the volume has no tree, or no topology");
    use(binary);
}

/// A text of the metadata of a grid, empty if there is none of that name.
std::string metadataOf(VdbGrid const& grid, char const* name) {
    auto const found = grid.metadata.find(name);
    return found == grid.metadata.end() ? "" : found->second;
}

VdbClass classOf(VdbGrid const& grid) {
    std::string const name = metadataOf(grid, openvdb::GridBase::META_GRID_CLASS);
    return name == "level set"    ? VdbClass::kLevelSet
           : name == "fog volume" ? VdbClass::kFogVolume
           : name == "staggered"  ? VdbClass::kStaggered
                                  : VdbClass::kUnknown;
}
VdbVectorType vectorTypeOf(VdbGrid const& grid) {
    std::string const name = metadataOf(grid, openvdb::GridBase::META_VECTOR_TYPE);
    return name == "covariant"                ? VdbVectorType::kCovariant
           : name == "covariant normalize"    ? VdbVectorType::kCovariantNormalize
           : name == "contravariant relative" ? VdbVectorType::kContravariantRelative
           : name == "contravariant absolute" ? VdbVectorType::kContravariantAbsolute
                                              : VdbVectorType::kInvariant;
}

}  // namespace

}  // namespace detail

void writeVdb(std::filesystem::path const& path, VdbVolume const& volume,
              WriteVdbOptions const& options) {
    detail::VdbOutput output(path, options);
    auto const object = detail::volumeOf(volume.object);
    auto const toWorld = detail::inverse(volume.worldToIndex);
    detail::withWriter(output, *object, [&](auto& writer) {
        // The lattice point that an index of the file has: see VdbVolume.
        detail::int3 shift{};
        for (int axis = 0; axis < 3 && volume.isPlaced(); ++axis) {
            double const at = std::round(-volume.worldToIndex[static_cast<std::size_t>(axis)][3]);
            if (!(std::abs(at) <= 0x1p28))
                detail::refuseVdb("index 0 lies " + detail::numberText(at) +
                                  " voxels from the origin");
            shift[axis] = static_cast<int>(at);
        }
        for (VdbGrid const& grid : volume.grids)
            writer.add(
                {detail::channelName(grid.name), detail::classOf(grid), detail::vectorTypeOf(grid)},
                toWorld, shift);
    });
    output.write();
}

void writeVdb(std::filesystem::path const& path, Orvane::Object const& object,
              std::vector<VdbChannel> const& channels, WriteVdbOptions const& options) {
    detail::checkNames(channels);
    detail::VdbOutput output(path, options);
    auto const volume = detail::volumeOf(object);
    detail::withWriter(output, *volume, [&](auto& writer) {
        for (VdbChannel const& channel : channels)
            writer.add(channel, detail::latticeMap(writer), detail::int3{});
    });
    output.write();
}

}  // namespace zel
