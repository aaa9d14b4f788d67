#include <algorithm>
#include <stdexcept>
#include <string>

#include "zel/batch/evaluate_run.h"
#include "zel/volume/build_volume.h"
#include "zel/volume/fill_tiles.h"
#include "zel_platform/orvane_geometry_volume/sample_places.h"

namespace zel {

namespace detail {

using namespace ORV::TileTree3D;

namespace {

/// The most samples that are evaluated together, and the tiles whose samples these are.
constexpr int kGroupSize = 4 * kBlockSize;
template <class Traits> constexpr int kTilesOfGroup = kGroupSize / Traits::kSampleCount;

/// The positions of the samples of a group of tiles, in columns.
template <class Traits> class SamplePositions {
public:
    /// Adds the samples of a tile behind those of the tiles before it.
    void add(Internal::SamplePlaces<Traits> const& places) {
        constexpr int W = Traits::kSamples, kLayer = W * W;
        float layerX[kLayer], layerY[kLayer];
        for (int j = 0; j < W; ++j)
            for (int i = 0; i < W; ++i) {
                layerX[i + W * j] = places.x[i];
                layerY[i + W * j] = places.y[j];
            }
        for (float const layerZ : places.z) {
            std::copy_n(layerX, kLayer, x + count);
            std::copy_n(layerY, kLayer, y + count);
            std::fill_n(z + count, kLayer, layerZ);
            count += kLayer;
        }
    }

    alignas(64) float x[kGroupSize], y[kGroupSize], z[kGroupSize];
    int count = 0;
};

/// Whether all samples of a tile are covered by finer tiles of a channel.
template <class Traits, class T>
bool isCovered(TileOf<Traits> const& tile, DataChannel<Traits, T> const& channel) {
    return tile.m_children && tile.depth() < channel.depth() &&
           std::all_of(tile.m_children, tile.m_children + Traits::kChildCount,
                       [](int child) { return child >= 0; });
}

}  // namespace

template <class Traits, class T>
void fillTiles(DataChannel<Traits, T>& channel, VoxelTopology<Traits> const& topology,
               InterfaceOf<T> const& field, VolumeWork& work) {
    auto const& tree = topology.container();
    // The samples of a depth are contiguous, and so are those of consecutive tiles.
    for (int depth = channel.minDepth(); depth <= std::min(channel.depth(), tree.depth()); ++depth)
        work.forGroups(
            channel.tileCount(depth), kTilesOfGroup<Traits>, Traits::kSampleCount,
            [&](long long first, long long last) {
                while (first < last) {
                    SamplePositions<Traits> positions;
                    long long tile = first;
                    for (; tile < last && !isCovered<Traits>(tree.tile(tile, depth), channel);
                         ++tile)
                        positions.add(Internal::samplePlaces(topology, tree.tile(tile, depth)));
                    evaluateRun(field, positions.x, positions.y, positions.z, positions.count,
                                first * Traits::kSampleCount, channel.samples({first, depth}),
                                work.batch());
                    first = tile + 1;
                }
            });
    work.stopIfAsked();
    restrictChannel<Traits, T>(channel, topology, [&] { work.stopIfAsked(); });
}

namespace {

template <class Traits, class T>
void fill(DataChannel<Traits, T>& channel, VoxelTopology<Traits> const& topology,
          InterfaceOf<T> const& field, FillOptions const& options) {
    if (!channel.fits(topology.container()))
        throw std::invalid_argument("zel::fillChannel: channel '" +
                                    std::string(channel.name().c_str()) +
                                    "' is not sized to the topology as it is");
    VolumeWork work("zel::fillChannel", options);
    work.run(field, [&] { fillTiles<Traits, T>(channel, topology, field, work); });
}

}  // namespace

#define ZEL_DETAIL_FILL_TILES(Traits, T)                                                           \
    template void fillTiles<Traits, T>(DataChannel<Traits, T>&, VoxelTopology<Traits> const&,      \
                                       InterfaceOf<T> const&, VolumeWork&)
ZEL_DETAIL_FILL_TILES(BinaryTraits, float);
ZEL_DETAIL_FILL_TILES(BinaryTraits, float3);
ZEL_DETAIL_FILL_TILES(QuinaryTraits, float);
ZEL_DETAIL_FILL_TILES(QuinaryTraits, float3);

}  // namespace detail

template <class Traits>
void fillChannel(ORV::TileTree3D::DataChannel<Traits, float>& channel,
                 ORV::TileTree3D::VoxelTopology<Traits> const& topology,
                 Core::Fields::ScalarField const& field, FillOptions const& options) {
    detail::fill<Traits, float>(channel, topology, field, options);
}

template <class Traits>
void fillChannel(ORV::TileTree3D::DataChannel<Traits, float3>& channel,
                 ORV::TileTree3D::VoxelTopology<Traits> const& topology,
                 Core::Fields::VectorField const& field, FillOptions const& options) {
    detail::fill<Traits, float3>(channel, topology, field, options);
}

ZEL_DETAIL_FILL_CHANNELS();

}  // namespace zel
