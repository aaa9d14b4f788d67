#pragma once

#include <cmath>
#include <limits>
#include <type_traits>

#include "vdb_archive.h"
#include "vdb_cells.h"
#include "vdb_tiles.h"
#include "zel_platform/orvane_geometry_volume/volume_builder.h"

// The definition of a VdbValues, for the source file of each type of value: the code takes long to
// compile.
namespace zel::detail {

using ORV::TileTree3D::DataChannel;
using ORV::TileTree3D::Internal::parallelRanges;

inline float wrongComponent(float value) {
    return value;
}
inline float wrongComponent(float3 const& value) {
    return !isFinite(value.x) ? value.x : !isFinite(value.y) ? value.y : value.z;
}

template <class Tree> class VdbValuesOf : public VdbValues {
public:
    explicit VdbValuesOf(typename Tree::ConstPtr tree) : m_tree(std::move(tree)) {}

    std::vector<VdbCell> cells(long long limit, int3 const& centre, int reach) const override {
        return VdbScan<Tree>(*m_tree, limit, centre, reach).run();
    }

    void findConstant(std::vector<int3> const& boxes, int width,
                      std::vector<char>& constant) const override {
        parallelRanges(
            static_cast<long long>(boxes.size()), 256, [&](long long first, long long last) {
                VdbSource<Tree> source(*m_tree);
                for (auto i = static_cast<std::size_t>(first); i < static_cast<std::size_t>(last);
                     ++i)
                    if (constant[i] != 0)
                        constant[i] = width == 4 ? source.template isConstant<5>(boxes[i])
                                                 : source.template isConstant<6>(boxes[i]);
            });
    }

    NamedVolume channel(std::string const& name,
                        Quern::Ptr<TileContainer<BinaryTraits>> const& tree,
                        Quern::Ptr<TileTopology<BinaryTraits>> const& topology,
                        int3 const& shift) const override {
        return makeChannel<BinaryTraits>(name, tree, topology, shift);
    }
    NamedVolume channel(std::string const& name,
                        Quern::Ptr<TileContainer<QuinaryTraits>> const& tree,
                        Quern::Ptr<TileTopology<QuinaryTraits>> const& topology,
                        int3 const& shift) const override {
        return makeChannel<QuinaryTraits>(name, tree, topology, shift);
    }

private:
    using T = ChannelValue<typename Tree::ValueType>;

    static void check(T const* values, int count, int width, int3 const& corner) {
        constexpr int kParts = std::is_same_v<T, float> ? 1 : 3;
        auto const* const floats = reinterpret_cast<float const*>(values);
        unsigned wrong = 0;
        for (int i = 0; i < count * kParts; ++i)
            wrong |= !(std::abs(floats[i]) <= std::numeric_limits<float>::max());
        if (wrong == 0) return;
        for (int i = 0; i < count; ++i)
            if (!isFinite(values[i]))
                throw WrongValue{corner + int3{i % width, i / width % width, i / (width * width)},
                                 wrongComponent(values[i])};
    }

    template <class Traits>
    NamedVolume makeChannel(std::string const& name, Quern::Ptr<TileContainer<Traits>> const& tree,
                            Quern::Ptr<TileTopology<Traits>> const& topology,
                            int3 const& shift) const {
        constexpr int W = Traits::kSamples, kDeepest = Traits::kMaxDepth;
        T const background = channelValue(m_tree->background());
        if (!isFinite(background)) throw WrongValue{{0, 0, 0}, wrongComponent(background)};
        auto channel = Quern::makePtr<DataChannel<Traits, T>>(
            Quern::String(name.c_str()), &background, 0, true, true, 0, kDeepest);
        channel->update(*topology);
        parallelRanges(tree->tileCount(kDeepest), 64, [&](long long first, long long last) {
            VdbSource<Tree> source(*m_tree);
            for (long long i = first; i < last; ++i) {
                int3 const corner = tree->tile(i, kDeepest).tijk() - shift;
                T* const samples = channel->samples({i, kDeepest});
                source.template read<W>(corner, samples);
                check(samples, Traits::kSampleCount, W, corner);
            }
        });
        for (int depth = 0; depth < kDeepest; ++depth)
            parallelRanges(tree->tileCount(depth), 64, [&](long long first, long long last) {
                VdbSource<Tree> source(*m_tree);
                for (long long i = first; i < last; ++i)
                    fillConstant<Traits>(source, tree->tile(i, depth), shift,
                                         channel->samples({i, depth}));
            });
        ORV::TileTree3D::restrictChannel<Traits, T>(*channel, *topology);
        return {Quern::String(name.c_str()),
                ORV::TileTree3D::Volume<Traits, T>{tree, topology, channel}};
    }

    /// Sets the samples of a tile where it has no child: each child's place is a constant box.
    template <class Traits>
    static void fillConstant(VdbSource<Tree>& source, ORV::TileTree3D::TileOf<Traits> const& tile,
                             int3 const& shift, T* samples) {
        constexpr int W = Traits::kSamples, kSpan = W / Traits::kBranch;
        forEachUncoveredChild<Traits>(tile, [&](int3 const& first) {
            int3 const at = tile.tijk() + first * tile.voxelDataWidth() - shift;
            T const value = channelValue(source.value(at));
            check(&value, 1, 1, at);
            for (int z = 0; z < kSpan; ++z)
                for (int y = 0; y < kSpan; ++y)
                    for (int x = 0; x < kSpan; ++x)
                        samples[first.x + x + W * (first.y + y + W * (first.z + z))] = value;
        });
    }

    typename Tree::ConstPtr m_tree;
};

/// The values of the grid if it is of the type Grid.
template <class Grid> std::unique_ptr<VdbValues> valuesOf(openvdb::GridBase::Ptr const& grid) {
    auto const typed = openvdb::gridPtrCast<Grid>(grid);
    if (!typed) return nullptr;
    return std::make_unique<VdbValuesOf<typename Grid::TreeType>>(typed->constTreePtr());
}

}  // namespace zel::detail
