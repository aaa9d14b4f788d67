#include "zel_platform/orvane_geometry_volume/halo.h"

#include <stdexcept>
#include <string>

#include "zel_platform/orvane_geometry_volume/halo_fill.h"
#include "zel_platform/orvane_geometry_volume/messages.h"
#include "zel_platform/orvane_geometry_volume/parallel.h"

namespace ORV::TileTree3D {

namespace {

constexpr HaloMode kHighSides = 2, kAllRound = 4;
constexpr HaloType kAllElements = 15;

[[noreturn]] void refuse(char const* function, char const* what, int value) {
    throw std::invalid_argument(Internal::message(function, ": ", what, " ", value));
}

[[noreturn]] void refuseTiles(char const* function, char const* what, Quern::String const& name,
                              long long tiles, long long treeTiles) {
    throw std::invalid_argument(Internal::message(function, ": ", what, " '", name, "' of ", tiles,
                                                  " tiles is not sized to the tree of ", treeTiles,
                                                  " tiles as it is"));
}

/// Checks the arguments that both forms of setHaloTile have.
template <class Traits, class Channel, class Data>
void checkHaloTile(TreeIndex const& index, Channel const& channel,
                   Container<Traits> const& container, Data const& out) {
    if (!out)
        throw std::invalid_argument(Internal::message("setHaloTile: no data for the halo of tile ",
                                                      index.tile, " of depth ", index.depth));
    if (!channel.belongsTo(container))
        refuseTiles("setHaloTile", "channel", channel.name(), channel.tileCount(-1),
                    container.tileCount(-1));
}

/// Whether a tile of `depth` may take samples from its parent, in a channel of that minimum depth.
bool parentUsable(int depth, int minDepth) {
    return depth > 0 && depth - 1 >= minDepth;
}

template <class Traits, class T>
void haloOfDepth(DataChannel<Traits, T> const& source, Container<Traits> const& container,
                 HaloChannel<Traits, T> const& parents, HaloChannel<Traits, T>& halo, int depth) {
    constexpr long long kGrain = 64;
    bool const useParent = parentUsable(depth, source.minDepth());
    Internal::parallelRanges(halo.tileCount(depth), kGrain, [&](long long first, long long last) {
        auto const accessor = container.tileAccessor();
        for (long long i = first; i < last; ++i) {
            auto const& tile = container.tile(i, depth);
            Internal::HaloFill<Traits, T, 0, 1> const fill(tile, kOnVoxelCorners);
            fill.run(Internal::surroundingTiles<Traits, T>(tile, 0, source, accessor),
                     useParent ? parents.samples(tile.parentTreeIndex()) : nullptr,
                     source.defaultValue(), halo.samples({i, depth}));
        }
    });
}

}  // namespace

template <class Traits, class T, int A, int B, int C, int D>
requires HighSideHalo<A, B, C, D>
void computeHalo(DataChannel<Traits, T> const& source, Container<Traits> const& container,
                 HaloChannel<Traits, T>& halo, int minDepth, int maxDepth) {
    if (!source.fits(container))
        refuseTiles("computeHalo", "channel", source.name(), source.tileCount(-1),
                    container.tileCount(-1));
    if (!halo.fits(container))
        refuseTiles("computeHalo", "halo channel", halo.name(), halo.tileCount(-1),
                    container.tileCount(-1));
    if (minDepth < 0 || maxDepth < minDepth)
        throw std::out_of_range(
            Internal::message("computeHalo: depths ", minDepth, " to ", maxDepth));
    int const first = std::max(minDepth, halo.minDepth());
    int const last = std::min({maxDepth, halo.depth(), container.depth()});
    if (first > last) return;

    if (source.minDepth() < first) {
        // The first depth takes samples from the halos of its ancestors.
        HaloChannel<Traits, T> above(Quern::String(), &source.defaultValue(), 0, false, true,
                                     source.minDepth(), first - 1);
        above.updateTo(container);
        for (int depth = source.minDepth(); depth < first; ++depth)
            haloOfDepth<Traits, T>(source, container, above, above, depth);
        haloOfDepth<Traits, T>(source, container, above, halo, first);
    } else {
        haloOfDepth<Traits, T>(source, container, halo, halo, first);
    }
    for (int depth = first + 1; depth <= last; ++depth)
        haloOfDepth<Traits, T>(source, container, halo, halo, depth);
}

template <class Traits, class T, int A, int B, int C, int D>
requires HighSideHalo<A, B, C, D>
void setHaloTile(TileOf<Traits> const& tile, TileOf<Traits> const* parent,
                 DataChannel<Traits, T> const& channel,
                 TileData<T, Traits::kSamples + 1, 0, 0>& parentHalo, HaloMode mode,
                 typename Container<Traits>::ConstTileAccessor& accessor,
                 TileData<T, Traits::kSamples + 1, 0, 0>& out) {
    if (mode != kHighSides) refuse("setHaloTile", "halo mode", mode);
    checkHaloTile(tile.treeIndex(), channel, accessor.container(), out);
    bool const useParent =
        parent && parent->exists() && parentUsable(tile.depth(), channel.minDepth());
    Internal::HaloFill<Traits, T, 0, 1> const fill(tile, kOnVoxelCorners);
    fill.run(Internal::surroundingTiles<Traits, T>(tile, 0, channel, accessor),
             useParent ? parentHalo.data() : nullptr, channel.defaultValue(), out.data());
}

template <class Traits, class T, int A, int B, int C, int D>
requires AllRoundHalo<A, B, C, D>
void setHaloTile(TreeIndex const& index, DataChannel<Traits, T> const& channel, HaloMode mode,
                 HaloType haloType, typename Container<Traits>::ConstTileAccessor& accessor,
                 TileData<T, Traits::kSamples + 1, 1, 0>& out, T shift, float scale,
                 VoxelOffsetType type) {
    using Fill = Internal::HaloFill<Traits, T, 1, 2>;
    static_assert(Fill::kCount == TileData<T, Traits::kSamples + 1, 1, 0>::Layout::kCount);
    if (mode != kAllRound) refuse("setHaloTile", "halo mode", mode);
    if (haloType != kAllElements) refuse("setHaloTile", "halo type", haloType);
    if (type < 0 || type > 7) refuse("setHaloTile", "offset type", type);
    checkHaloTile(index, channel, accessor.container(), out);

    // Climb the tree as long as a halo depends on the parent's halo, then compute the halos
    // downwards.
    auto const& container = accessor.container();
    std::array<TileOf<Traits> const*, Traits::kMaxDepth + 1> chain;
    std::array<Internal::SurroundingTiles<T>, Traits::kMaxDepth + 1> tiles;
    std::size_t count = 0;
    for (auto const* tile = &container.tile(index);;
         tile = &container.tile(tile->parentTreeIndex())) {
        chain[count] = tile;
        tiles[count] = Internal::surroundingTiles<Traits, T>(*tile, -1, channel, accessor);
        ++count;
        if (!parentUsable(tile->depth(), channel.minDepth()) ||
            !Fill(*tile, type).needsParent(tiles[count - 1]))
            break;
    }
    std::array<std::array<T, Fill::kCount>, 2> halos;
    T const* parent = nullptr;
    while (count-- > 0) {
        T* const halo = count > 0 ? halos[count % 2].data() : out.data();
        Fill(*chain[count], type).run(tiles[count], parent, channel.defaultValue(), halo);
        parent = halo;
    }

    if (shift == T() && scale == 1) return;
    std::for_each_n(out.data(), Fill::kCount, [&](T& sample) { sample = shift + sample * scale; });
}

ZEL_DETAIL_HALOS();

}  // namespace ORV::TileTree3D
