#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <map>
#include <span>
#include <utility>
#include <vector>

#include "zel_platform/orvane_geometry_volume/channel_memory_pool.h"
#include "zel_platform/orvane_geometry_volume/tile_data.h"
#include "zel_platform/orvane_geometry_volume/voxel_topology.h"
#include "zel_platform/quern_core/any.h"
#include "zel_platform/quern_core/array.h"
#include "zel_platform/quern_core/string.h"

namespace ORV::TileTree3D {

/// A move of an element within a depth: the element at place `to` is set to that at place `from`.
struct ElementToFrom {
    long long to, from;
};

/// The samples of a tree's tiles, from a minimum depth to a deepest depth: W samples of type T
/// along each axis of a tile, and a ring of H around them. The samples of a depth are contiguous,
/// tile after tile, so that the address of a tile's samples is computed and not looked up.
///
/// A channel has no tiles until it is sized to a topology. The operations that size it, or change
/// its tiles, throw std::invalid_argument for a component that is not a topology of this kind of
/// tree, and for lists that do not fit the tiles; std::out_of_range for depths outside 0 to
/// Traits::kMaxDepth, or in the wrong order; std::length_error for more samples than can be
/// addressed; std::bad_alloc. The channel is then unchanged.
///
/// Any number of threads may read one channel while no thread writes it; threads may write distinct
/// tiles at the same time.
template <class Traits, class T, int W, int H, int X>
class ZEL_PLATFORM_API Channel : public Component {
public:
    using Layout = TileLayout<W, H>;
    using ConstData = ConstTileData<T, W, H, X>;
    using Data = TileData<T, W, H, X>;

    /// `defaultValue` may be null, which stands for zero. Any initializer type but 0 throws
    /// std::invalid_argument. With `pooled` the memory comes from ChannelMemoryPool while that is
    /// enabled. Elements are always constructed, whatever `callElementConstructor` says: a channel
    /// never exposes uninitialised memory.
    Channel(Quern::String const& name, T const* defaultValue,
            DataElementInitializerType initializer, bool pooled, bool callElementConstructor,
            int minDepth, int maxDepth);
    Channel(Channel const& other);
    /// Leaves `other` without tiles.
    Channel(Channel&& other) noexcept;
    Channel& operator=(Channel const&) = delete;
    ~Channel() override;

    void dump(std::ostream& stream) const override;
    void memUse(unsigned long long& used, unsigned long long& held, bool withObject) const override;
    void copyTo(Quern::Ptr<Component>& target) const override;
    unsigned long long size() const override;
    bool empty() const override;
    /// Sizes the channel to a topology. Tiles of the same tree that the channel had keep their
    /// samples; all others are set to the default value.
    void update(Component const& topology) override;
    long long elementCount(int depth) const override;
    int elementCount(TreeIndex const& index) const override;
    long long tileCount(int depth) const override;
    int minDepth() const override { return m_minDepth; }
    /// The deepest depth for which the channel holds tiles, if the tree has any there.
    int depth() const override { return m_maxDepth; }

    /// Changes the range of depths and sizes the channel to the topology. Tiles of depths in both
    /// ranges keep their samples.
    virtual void setMinDepth(int minDepth, Component const& topology);
    virtual void setDepth(int maxDepth, Component const& topology);
    /// Whether `value` holds exactly a T.
    virtual bool hasElementType(Quern::Any const& value) const;
    /// Returns a copy of the samples of a depth, tile after tile, as a Quern::Array<T>. `value`
    /// must hold a T: it proves that the caller knows the element type.
    virtual Quern::Ptr<void> channelData(unsigned int depth, Quern::Any const& value);
    /// Copies the samples of a depth from a Quern::Array<T> with the same number of elements.
    virtual void setChannelData(unsigned int depth, Quern::Any const& value,
                                Quern::Ptr<void> const& data);
    /// Sizes the channel to a tree that has grown; the samples stay with the index of their tile.
    /// Throws std::invalid_argument if the topology has fewer tiles at some depth.
    virtual void updateTilesAdded(Component const& topology);
    /// Removes, at each depth, the tiles of the given half-open ranges, which are disjoint and in
    /// ascending order. Later tiles move down, with their samples. The channel then belongs to
    /// `topology`. Lists for depths of the tree that the channel does not have are ignored.
    virtual void
    updateTilesRemoved(std::vector<std::vector<std::pair<long long, long long>>> const& ranges,
                       Component const& topology);
    /// Reorders the tiles of each depth: entry `i` of a list is the present place of the tile that
    /// moves to place `i`. An empty list leaves a depth unchanged, and lists for depths of
    /// the tree that the channel does not have are ignored. The channel then belongs to no tree
    /// until updateTilesAdded sizes it to the topology of the reordered tree.
    virtual void updateTilesPermuted(std::vector<std::vector<long long>> const& sources);
    /// Moves elements within each depth, as if all at the same time. `to` and `from` are the number
    /// of the tile times the elements of a tile, plus the place in the tile. The other parameters
    /// are for channels whose tiles have a variable number of elements; here they must be empty.
    virtual void
    updateElements(std::vector<std::vector<ElementToFrom>> const& moves,
                   std::vector<std::vector<long long>> const& elements = {},
                   std::vector<std::map<long long, long long>> const& elementMaps = {});
    /// Throws std::logic_error: the number of elements of a tile is fixed by the channel's type.
    virtual void updateElementResize(Component const& topology);

    /// The samples of a tile; no data for a tile that the channel does not have.
    ConstData tileData(TreeIndex const& index) const { return ConstData(samples(index)); }
    Data tileData(TreeIndex const& index) {
        Data data;
        data.setFlatPointer(samples(index));
        return data;
    }
    /// The samples of a tile, Layout::kCount of them, or null.
    T* samples(TreeIndex const& index) {
        return const_cast<T*>(std::as_const(*this).samples(index));
    }
    T const* samples(TreeIndex const& index) const {
        if (static_cast<unsigned>(index.depth) > unsigned{Traits::kMaxDepth}) return nullptr;
        Level const& level = m_levels[static_cast<unsigned>(index.depth)];
        if (static_cast<unsigned long long>(index.tile) >= level.tiles) return nullptr;
        return level.first + index.tile * Layout::kCount;
    }

    /// The value at every point that no tile of the channel covers.
    T const& defaultValue() const { return m_defaultValue; }
    Quern::String const& name() const { return m_name; }
    /// Whether the channel is sized to the present tiles of a tree.
    bool fits(Container<Traits> const& container) const { return m_stamp == container.stamp(); }
    /// Whether the channel is sized to a tree, possibly from before the tree grew, or has no tiles.
    bool belongsTo(Container<Traits> const& container) const {
        return container.continues(m_stamp) || empty();
    }
    /// As update(), with the tree of the topology.
    void updateTo(Container<Traits> const& container) { updateTo(container, {}); }
    /// The same, with a call of `pause` between parts of the new samples. An exception of it is
    /// passed on: the channel then has no tiles if none was to keep its samples, else it is as it
    /// was.
    void updateTo(Container<Traits> const& container, std::function<void()> const& pause);

    /// Drops all tiles and sets the parameters of the constructor. The channel keeps its name, and
    /// its memory for later use.
    void restart(T const& defaultValue, bool pooled, int minDepth, int maxDepth);
    /// The bytes that are allocated for samples.
    std::size_t capacity() const { return m_memory.capacity(); }

private:
    struct Level {
        T* first = nullptr;
        unsigned long long tiles = 0;
    };
    using Levels = std::array<Level, Traits::kMaxDepth + 1>;
    using TileCounts = typename Container<Traits>::TileCounts;

    ZEL_PLATFORM_INTERNAL static Container<Traits> const& containerOf(Component const& topology,
                                                                      char const* caller);
    bool hasDepth(unsigned depth) const {
        return m_minDepth <= static_cast<int>(depth) && static_cast<int>(depth) <= m_maxDepth;
    }
    ZEL_PLATFORM_INTERNAL static void checkDepths(int minDepth, int maxDepth, char const* caller);
    long long present(unsigned depth) const {
        return static_cast<long long>(m_levels[depth].tiles);
    }
    ZEL_PLATFORM_INTERNAL std::span<T> depthSamples(unsigned depth, Quern::Any const& value,
                                                    char const* caller);
    ZEL_PLATFORM_INTERNAL ChannelMemory place(Levels& levels, TileCounts const& counts,
                                              int minDepth, int maxDepth, bool reuse);
    ZEL_PLATFORM_INTERNAL void resize(Container<Traits> const& container, int minDepth,
                                      int maxDepth, TileCounts const& most,
                                      std::function<void()> const& pause = {});

    Quern::String m_name;
    T m_defaultValue;
    bool m_pooled;
    int m_minDepth, m_maxDepth;
    Levels m_levels;
    ChannelMemory m_memory;
    TreeStamp m_stamp;
};

// The channels of samples, those of halos and those of flags.
#define ZEL_DETAIL_CHANNELS(prefix, api, Traits, W, WHalo)                                         \
    prefix template class api Channel<Traits, float, W, 0, 0>;                                     \
    prefix template class api Channel<Traits, float, WHalo, 0, 0>;                                 \
    prefix template class api Channel<Traits, float3, W, 0, 0>;                                    \
    prefix template class api Channel<Traits, float3, WHalo, 0, 0>;                                \
    prefix template class api Channel<Traits, short, W, 1, 0>
ZEL_DETAIL_CHANNELS(extern, ZEL_PLATFORM_API, BinaryTraits, 4, 5);
ZEL_DETAIL_CHANNELS(extern, ZEL_PLATFORM_API, QuinaryTraits, 5, 6);

/// The channel of a tree's samples, and the channel of their halos.
template <class Traits, class T> using DataChannel = Channel<Traits, T, Traits::kSamples, 0, 0>;
template <class Traits, class T> using HaloChannel = Channel<Traits, T, Traits::kSamples + 1, 0, 0>;

}  // namespace ORV::TileTree3D
