#include "zel_platform/orvane_geometry_volume/channel_pool.h"

#include <tuple>
#include <utility>

#include "zel_platform/orvane_geometry_volume/free_list.h"

namespace ORV::TileTree3D::ChannelPool {

namespace {

template <class Pooled> using List = Internal::FreeList<Pooled>;
using Lists =
    std::tuple<List<DataChannel<BinaryTraits, float>>, List<HaloChannel<BinaryTraits, float>>,
               List<DataChannel<BinaryTraits, float3>>, List<HaloChannel<BinaryTraits, float3>>,
               List<DataChannel<QuinaryTraits, float>>, List<HaloChannel<QuinaryTraits, float>>,
               List<DataChannel<QuinaryTraits, float3>>, List<HaloChannel<QuinaryTraits, float3>>>;

/// The lists are never destroyed, since a channel may outlive static objects.
Lists& lists() {
    constexpr unsigned long long kHeldBytes = 1ULL << 30;
    static auto& all = *new Lists(kHeldBytes, kHeldBytes, kHeldBytes, kHeldBytes, kHeldBytes,
                                  kHeldBytes, kHeldBytes, kHeldBytes);
    return all;
}

template <class Visit> void forEachList(Visit const& visit) {
    std::apply([&](auto&... list) { (visit(list), ...); }, lists());
}

/// A channel whose destructor moves it to the pool.
template <class Base> class PooledChannel final : public Base {
public:
    explicit PooledChannel(Base&& channel) noexcept : Base(std::move(channel)) {}
    PooledChannel(PooledChannel const&) = default;
    ~PooledChannel() override {
        if (this->capacity() > 0)
            std::get<List<Base>>(lists()).give(this->capacity(), std::move(*this));
    }
};

}  // namespace

bool enabled() {
    return std::get<0>(lists()).enabled();
}
void setEnabled(bool on) {
    forEachList([&](auto& list) { list.setEnabled(on); });
}
void clear() {
    forEachList([](auto& list) { list.clear(); });
}
unsigned long long heldBytes() {
    unsigned long long bytes = 0;
    forEachList([&](auto& list) { bytes += list.heldSize(); });
    return bytes;
}

template <class Traits, class T, int W, int X>
Quern::Ptr<Channel<Traits, T, W, 0, X>>
allocate(T defaultValue, bool pooledMemory, bool callElementConstructor, int minDepth, int maxDepth,
         unsigned long long tileCount, Component const* topology) {
    using Base = Channel<Traits, T, W, 0, X>;
    if (!enabled()) return {};
    Base fresh(Quern::String(), &defaultValue, 0, pooledMemory, callElementConstructor, minDepth,
               maxDepth);
    Quern::Ptr<PooledChannel<Base>> channel;
    if (topology) {  // only the tiles of the channel's depths count
        tileCount = 0;
        for (int d = minDepth; d <= maxDepth; ++d)
            tileCount += static_cast<unsigned long long>(topology->tileCount(d));
    }
    auto taken = std::get<List<Base>>(lists()).take(tileCount * Base::Layout::kCount * sizeof(T));
    if (taken) {
        taken->entry.restart(defaultValue, pooledMemory, minDepth, maxDepth);
        channel = Quern::makePtr<PooledChannel<Base>>(std::move(taken->entry));
    } else {
        channel = Quern::makePtr<PooledChannel<Base>>(std::move(fresh));
    }
    if (topology) channel->update(*topology);
    return channel;
}

ZEL_DETAIL_CHANNEL_POOLS();

}  // namespace ORV::TileTree3D::ChannelPool
