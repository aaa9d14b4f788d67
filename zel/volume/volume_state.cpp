#include "zel/volume/volume_state.h"

#include <iostream>
#include <utility>

#include "zel_platform/orvane_geometry/geo_property.h"
#include "zel_platform/orvane_geometry_volume/channel_pool.h"
#include "zel_platform/orvane_geometry_volume/halo.h"
#include "zel_platform/trace_kit/logger.h"

namespace zel::detail {

using namespace ORV::TileTree3D;

template <class Traits, class T, int W>
bool initSamplerState(Quern::Ptr<ORV::Object> const& object, Quern::String const& channelName,
                      SamplerType type, bool wantHalo, VolumeSamplerState<Traits, T, W>& state) {
    state = {};
    state.container = object->component<Container<Traits>>(Orvane::Geometry::sVoxelTileTree);
    state.topology = object->component<VoxelTopology<Traits>>(Orvane::Geometry::sVoxelComp);
    state.channel = object->component<Channel<Traits, T, W, 0, 0>>(channelName);
    if (!state.container || !state.topology || !state.channel) return false;
    state.valid = true;
    if (type != SamplerType::kLinear || !wantHalo ||
        state.topology->offsetType() != kOnVoxelCorners)
        return true;
    // From the channel's minimum depth on: in coarser tiles there are default values alone.
    int const minDepth = state.channel->minDepth();
    auto halo = allocateHaloChannel<Traits, T, W>(*state.topology, state.channel->defaultValue(),
                                                  true, true, minDepth, Traits::kMaxDepth);
    computeHalo<Traits, T, 0, 0, 1, 0>(*state.channel, *state.container, *halo, minDepth,
                                       Traits::kMaxDepth);
    state.haloChannel = std::move(halo);
    return true;
}

template <class Traits, class T, int W>
Quern::Ptr<Channel<Traits, T, W + 1, 0, 0>>
allocateHaloChannel(VoxelTopology<Traits> const& topology, T defaultValue, bool pooled,
                    bool callElementConstructor, int minDepth, int maxDepth) {
    using Halo = Channel<Traits, T, W + 1, 0, 0>;
    constexpr int kWarnings = 3;
    bool const usePool = pooled && ChannelMemoryPool::enabled();
    bool const useChannelPool = pooled && ChannelPool::enabled();
    if (!callElementConstructor && Vellum::Logger::verboseLevel() >= kWarnings)
        std::cout << "Warning: in_callElementConstructor is false" << std::endl;
    Quern::Ptr<Halo> halo;
    if (useChannelPool)
        halo = ChannelPool::allocate<Traits, T, W + 1, 0>(
            defaultValue, false, callElementConstructor, minDepth, maxDepth,
            static_cast<unsigned long long>(topology.tileCount(-1)), &topology);
    if (!halo)
        halo = Quern::makePtr<Halo>(Quern::String(), &defaultValue, 0, usePool,
                                    callElementConstructor, minDepth, maxDepth);
    halo->update(topology);
    return halo;
}

#define ZEL_DETAIL_STATE(Traits, T, W)                                                             \
    template bool initSamplerState(Quern::Ptr<ORV::Object> const&, Quern::String const&,           \
                                   SamplerType, bool, VolumeSamplerState<Traits, T, W>&);          \
    template Quern::Ptr<Channel<Traits, T, W + 1, 0, 0>> allocateHaloChannel<Traits, T, W>(        \
        VoxelTopology<Traits> const&, T, bool, bool, int, int)
ZEL_DETAIL_STATE(BinaryTraits, float, 4);
ZEL_DETAIL_STATE(BinaryTraits, float3, 4);
ZEL_DETAIL_STATE(QuinaryTraits, float, 5);
ZEL_DETAIL_STATE(QuinaryTraits, float3, 5);

}  // namespace zel::detail
