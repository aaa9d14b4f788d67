#pragma once

#include "zel_platform/orvane_geometry_volume/channel.h"

/// Keeps channels that are no longer used, with their memory, for later channels of the same type:
/// up to 1 GiB for each type. The pool is disabled until it is enabled, and safe to use from any
/// number of threads.
namespace ORV::TileTree3D::ChannelPool {

ZEL_PLATFORM_API bool enabled();
/// Disabling frees the channels in the pool.
ZEL_PLATFORM_API void setEnabled(bool on);
/// Frees the channels in the pool.
ZEL_PLATFORM_API void clear();
/// The bytes of samples in the pool.
ZEL_PLATFORM_API unsigned long long heldBytes();

/// Returns a channel without a name, from the pool if it has a suitable one; null while the pool is
/// disabled. When its last pointer is released, the channel goes back to the pool, if that is
/// enabled then. The channel is sized to `topology`; if that is null, it has no tiles, and a
/// channel of the pool is chosen by its memory for `tileCount` tiles. With `pooledMemory`, further
/// memory comes from ChannelMemoryPool. Throws the exceptions of the channel's constructor and of
/// update().
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
