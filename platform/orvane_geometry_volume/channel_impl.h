#pragma once

#include <algorithm>
#include <limits>
#include <memory>
#include <new>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>

#include "zel_platform/orvane_geometry_volume/channel.h"
#include "zel_platform/orvane_geometry_volume/messages.h"

// The operations that make, size and describe channels. Those that move samples within a channel
// are in channel_update_impl.h.
namespace ORV::TileTree3D {

#define ZEL_DETAIL_CHANNEL_HEAD template <class Traits, class T, int W, int H, int X>
#define ZEL_DETAIL_CHANNEL Channel<Traits, T, W, H, X>

ZEL_DETAIL_CHANNEL_HEAD
ZEL_DETAIL_CHANNEL::Channel(Quern::String const& name, T const* defaultValue,
                            DataElementInitializerType initializer, bool pooled,
                            bool /*callElementConstructor*/, int minDepth, int maxDepth)
    : m_name(name), m_defaultValue(defaultValue ? *defaultValue : T()), m_pooled(pooled),
      m_minDepth(minDepth), m_maxDepth(maxDepth) {
    if (initializer != 0)
        throw std::invalid_argument(Internal::message("Channel: initializer type ", initializer));
    checkDepths(minDepth, maxDepth, "Channel");
}

ZEL_DETAIL_CHANNEL_HEAD
ZEL_DETAIL_CHANNEL::Channel(Channel const& other)
    : Component(other), m_name(other.m_name), m_defaultValue(other.m_defaultValue),
      m_pooled(other.m_pooled), m_minDepth(other.m_minDepth), m_maxDepth(other.m_maxDepth),
      m_stamp(other.m_stamp) {
    TileCounts counts{};
    for (unsigned d = 0; d < m_levels.size(); ++d) counts[d] = other.present(d);
    m_memory = place(m_levels, counts, m_minDepth, m_maxDepth, false);
    for (unsigned d = 0; d < m_levels.size(); ++d)
        std::uninitialized_copy_n(other.m_levels[d].first, counts[d] * Layout::kCount,
                                  m_levels[d].first);
}

ZEL_DETAIL_CHANNEL_HEAD
ZEL_DETAIL_CHANNEL::Channel(Channel&& other) noexcept
    // NOLINTNEXTLINE(performance-move-constructor-init): the base holds nothing to move
    : Component(other), m_name(other.m_name), m_defaultValue(other.m_defaultValue),
      m_pooled(other.m_pooled), m_minDepth(other.m_minDepth), m_maxDepth(other.m_maxDepth),
      m_levels(std::exchange(other.m_levels, Levels())), m_memory(std::move(other.m_memory)),
      m_stamp(std::exchange(other.m_stamp, TreeStamp())) {}

ZEL_DETAIL_CHANNEL_HEAD ZEL_DETAIL_CHANNEL::~Channel() = default;

ZEL_DETAIL_CHANNEL_HEAD
void ZEL_DETAIL_CHANNEL::restart(T const& defaultValue, bool pooled, int minDepth, int maxDepth) {
    checkDepths(minDepth, maxDepth, "Channel::restart");
    m_defaultValue = defaultValue;
    m_pooled = pooled;
    m_minDepth = minDepth;
    m_maxDepth = maxDepth;
    m_levels = Levels();
    m_stamp = TreeStamp();
}

ZEL_DETAIL_CHANNEL_HEAD
Container<Traits> const& ZEL_DETAIL_CHANNEL::containerOf(Component const& topology,
                                                         char const* caller) {
    auto const* const ours = dynamic_cast<VoxelTopology<Traits> const*>(&topology);
    if (!ours)
        throw std::invalid_argument(Internal::message(
            "Channel::", caller, ": not a topology of this kind of tree: ", topology));
    return ours->container();
}

ZEL_DETAIL_CHANNEL_HEAD
void ZEL_DETAIL_CHANNEL::checkDepths(int minDepth, int maxDepth, char const* caller) {
    if (minDepth < 0 || maxDepth < minDepth || maxDepth > Traits::kMaxDepth)
        throw std::out_of_range(Internal::message(caller, ": depths ", minDepth, " to ", maxDepth));
}

/// Lays out memory for the tiles of all depths, without constructing samples. With `reuse` the
/// present memory is used if it is large enough; otherwise new memory is allocated and returned.
ZEL_DETAIL_CHANNEL_HEAD
ChannelMemory ZEL_DETAIL_CHANNEL::place(Levels& levels, TileCounts const& counts, int minDepth,
                                        int maxDepth, bool reuse) {
    constexpr std::size_t kTileBytes = Layout::kCount * sizeof(T);
    auto const first = static_cast<unsigned>(minDepth), last = static_cast<unsigned>(maxDepth);
    std::size_t bytes = 0;
    for (unsigned d = first; d <= last; ++d) {
        auto const tiles = static_cast<std::size_t>(counts[d]);
        if (tiles > (std::numeric_limits<std::size_t>::max() - bytes) / kTileBytes)
            throw std::length_error(Internal::message("Channel: ", tiles, " tiles of depth ", d));
        bytes += tiles * kTileBytes;
    }
    ChannelMemory memory;
    if (!reuse || bytes > m_memory.capacity()) memory = ChannelMemory(bytes, m_pooled);
    auto* next = static_cast<T*>(reuse && !memory.data() ? m_memory.data() : memory.data());
    levels = Levels();
    for (unsigned d = first; d <= last; ++d) {
        levels[d] = {next, static_cast<unsigned long long>(counts[d])};
        if (counts[d] > 0) next += counts[d] * Layout::kCount;
    }
    return memory;
}

/// Sizes the channel to the tree. At each depth the first tiles, at most `most`, keep their
/// samples. Calls `pause`, if there is one, between parts of the others.
ZEL_DETAIL_CHANNEL_HEAD
void ZEL_DETAIL_CHANNEL::resize(Container<Traits> const& container, int minDepth, int maxDepth,
                                TileCounts const& most, std::function<void()> const& pause) {
    constexpr long long kPart = 1 << 18;
    if (fits(container) && minDepth == m_minDepth && maxDepth == m_maxDepth) return;
    auto const counts = container.tileCounts();
    auto const had = [&](unsigned d) { return std::min(most[d], present(d)); };
    bool anyKept = false;
    for (unsigned d = 0; d < most.size(); ++d) anyKept = anyKept || had(d) > 0;
    Levels levels;
    ChannelMemory memory = place(levels, counts, minDepth, maxDepth, !anyKept);
    if (pause && !anyKept) {
        m_levels = Levels();  // their memory may be in use again when `pause` throws
        m_stamp = TreeStamp();
    }
    for (unsigned d = 0; d < levels.size(); ++d) {
        auto const tiles = static_cast<long long>(levels[d].tiles);
        long long const kept = std::min(tiles, had(d));
        std::uninitialized_copy_n(m_levels[d].first, kept * Layout::kCount, levels[d].first);
        long long const end = tiles * Layout::kCount;
        long long const part = pause ? kPart : end;
        for (long long at = kept * Layout::kCount; at < end; at += part) {
            if (pause) pause();
            std::uninitialized_fill_n(levels[d].first + at, std::min(part, end - at),
                                      m_defaultValue);
        }
    }
    if (anyKept || memory.data()) m_memory = std::move(memory);
    m_levels = levels;
    m_minDepth = minDepth;
    m_maxDepth = maxDepth;
    m_stamp = container.stamp();
}

ZEL_DETAIL_CHANNEL_HEAD
void ZEL_DETAIL_CHANNEL::updateTo(Container<Traits> const& container,
                                  std::function<void()> const& pause) {
    resize(container, m_minDepth, m_maxDepth, container.tileCountsSince(m_stamp), pause);
}

ZEL_DETAIL_CHANNEL_HEAD void ZEL_DETAIL_CHANNEL::update(Component const& topology) {
    updateTo(containerOf(topology, "update"));
}

ZEL_DETAIL_CHANNEL_HEAD
void ZEL_DETAIL_CHANNEL::setMinDepth(int minDepth, Component const& topology) {
    checkDepths(minDepth, m_maxDepth, "Channel::setMinDepth");
    auto const& container = containerOf(topology, "setMinDepth");
    resize(container, minDepth, m_maxDepth, container.tileCountsSince(m_stamp));
}

ZEL_DETAIL_CHANNEL_HEAD
void ZEL_DETAIL_CHANNEL::setDepth(int maxDepth, Component const& topology) {
    checkDepths(m_minDepth, maxDepth, "Channel::setDepth");
    auto const& container = containerOf(topology, "setDepth");
    resize(container, m_minDepth, maxDepth, container.tileCountsSince(m_stamp));
}

ZEL_DETAIL_CHANNEL_HEAD void ZEL_DETAIL_CHANNEL::dump(std::ostream& stream) const {
    stream << "Channel '" << m_name.c_str() << "' of " << Layout::kCount
           << " elements a tile, depths " << m_minDepth << " to " << m_maxDepth << "\n";
    for (unsigned d = 0; d < m_levels.size(); ++d)
        if (present(d) > 0) stream << "  depth " << d << ": " << present(d) << " tiles\n";
}

ZEL_DETAIL_CHANNEL_HEAD
void ZEL_DETAIL_CHANNEL::memUse(unsigned long long& used, unsigned long long& held,
                                bool withObject) const {
    auto const object = withObject ? sizeof *this : 0;
    used = size() * sizeof(T) + object;
    held = m_memory.capacity() + object;
}

ZEL_DETAIL_CHANNEL_HEAD
void ZEL_DETAIL_CHANNEL::copyTo(Quern::Ptr<Component>& target) const {
    target = Quern::makePtr<Channel>(*this);
}

ZEL_DETAIL_CHANNEL_HEAD unsigned long long ZEL_DETAIL_CHANNEL::size() const {
    return static_cast<unsigned long long>(elementCount(-1));
}

ZEL_DETAIL_CHANNEL_HEAD bool ZEL_DETAIL_CHANNEL::empty() const {
    return size() == 0;
}

ZEL_DETAIL_CHANNEL_HEAD long long ZEL_DETAIL_CHANNEL::elementCount(int depth) const {
    return tileCount(depth) * Layout::kCount;
}

ZEL_DETAIL_CHANNEL_HEAD int ZEL_DETAIL_CHANNEL::elementCount(TreeIndex const& index) const {
    return samples(index) ? Layout::kCount : 0;
}

ZEL_DETAIL_CHANNEL_HEAD long long ZEL_DETAIL_CHANNEL::tileCount(int depth) const {
    if (depth >= 0 && depth <= Traits::kMaxDepth) return present(static_cast<unsigned>(depth));
    long long all = 0;
    if (depth == -1)
        for (unsigned d = 0; d < m_levels.size(); ++d) all += present(d);
    return all;
}

}  // namespace ORV::TileTree3D
