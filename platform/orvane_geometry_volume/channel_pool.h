#pragma once

#include "zel_platform/orvane_geometry_volume/channel.h"

/// Keeps whole channels, with their memory, for later channels of the same type, up to 1 GiB for
/// each. Disabled until enabled; safe to use from any number of threads.
namespace ORV::TileTree3D::ChannelPool {

ZEL_PLATFORM_API bool enabled();
/// Disabling gives back what the pool holds.
ZEL_PLATFORM_API void setEnabled(bool on);
/// Gives back to the system what the pool holds.
ZEL_PLATFORM_API void clear();
/// The bytes of samples that the pool holds for later use.
ZEL_PLATFORM_API unsigned long long heldBytes();

/// A channel without a name that goes back to the pool with the last pointer to it, if the pool is
/// enabled then; null while the pool is disabled. It is sized to `topology`; if that is null it has
/// no tiles, and is chosen to have memory for `tileCount` of them. `pooledMemory` has any memory
/// that it needs beyond that of a channel in the pool come from ChannelMemoryPool. Throws what the
/// channel's constructor and update() throw.
template <class Traits, class T, int W, int X>
Quern::Ptr<Channel<Traits, T, W, 0, X>>
allocate(T defaultValue, bool pooledMemory, bool callElementConstructor, int minDepth, int maxDepth,
         unsigned long long tileCount, Component const* topology);

#define ZEL_DETAIL_CHANNEL_POOL(prefix, Traits, T, W)                                              \
    prefix template ZEL_PLATFORM_API Quern::Ptr<Channel<Traits, T, W, 0, 0>>                       \
    allocate<Traits, T, W, 0>(T, bool, bool, int, int, unsigned long long, Component const*)
#define ZEL_DETAIL_CHANNEL_POOLS(prefix)                                                           \
    ZEL_DETAIL_CHANNEL_POOL(prefix, BinaryTraits, float, 4);                                       \
    ZEL_DETAIL_CHANNEL_POOL(prefix, BinaryTraits, float, 5);                                       \
    ZEL_DETAIL_CHANNEL_POOL(prefix, BinaryTraits, float3, 4);                                      \
    ZEL_DETAIL_CHANNEL_POOL(prefix, BinaryTraits, float3, 5);                                      \
    ZEL_DETAIL_CHANNEL_POOL(prefix, QuinaryTraits, float, 5);                                      \
    ZEL_DETAIL_CHANNEL_POOL(prefix, QuinaryTraits, float, 6);                                      \
    ZEL_DETAIL_CHANNEL_POOL(prefix, QuinaryTraits, float3, 5);                                     \
    ZEL_DETAIL_CHANNEL_POOL(prefix, QuinaryTraits, float3, 6)
ZEL_DETAIL_CHANNEL_POOLS(extern);

}  // namespace ORV::TileTree3D::ChannelPool
