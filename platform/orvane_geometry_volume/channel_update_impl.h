#pragma once

#include "zel_platform/orvane_geometry_volume/channel_impl.h"

// The operations that read, write and move samples within a channel.
namespace ORV::TileTree3D {

ZEL_DETAIL_CHANNEL_HEAD bool ZEL_DETAIL_CHANNEL::hasElementType(Quern::Any const& value) const {
    return value.get<T>() != nullptr;
}

/// The samples of a depth, for a caller whose `value` proves that it knows the element type.
ZEL_DETAIL_CHANNEL_HEAD
std::span<T> ZEL_DETAIL_CHANNEL::depthSamples(unsigned depth, Quern::Any const& value,
                                              char const* caller) {
    if (!hasElementType(value))
        throw std::invalid_argument(Internal::message(
            "Channel::", caller, ": the value is not of the element type ", typeid(T).name()));
    if (depth > unsigned{Traits::kMaxDepth})
        throw std::out_of_range(Internal::message("Channel::", caller, ": depth ", depth));
    return {m_levels[depth].first, m_levels[depth].tiles * Layout::kCount};
}

ZEL_DETAIL_CHANNEL_HEAD
Quern::Ptr<void> ZEL_DETAIL_CHANNEL::channelData(unsigned int depth, Quern::Any const& value) {
    auto const from = depthSamples(depth, value, "channelData");
    auto copy = Quern::makePtr<Quern::Array<T>>(static_cast<long long>(from.size()));
    std::copy(from.begin(), from.end(), copy->begin());
    return copy;
}

ZEL_DETAIL_CHANNEL_HEAD
void ZEL_DETAIL_CHANNEL::setChannelData(unsigned int depth, Quern::Any const& value,
                                        Quern::Ptr<void> const& data) {
    auto const to = depthSamples(depth, value, "setChannelData");
    auto const* const from = static_cast<Quern::Array<T> const*>(data.get());
    if (!from || static_cast<std::size_t>(from->size()) != to.size())
        throw std::invalid_argument(Internal::message(
            "Channel::setChannelData: ", from ? from->size() : 0, " elements for ", to.size()));
    std::copy(from->begin(), from->end(), to.begin());
}

ZEL_DETAIL_CHANNEL_HEAD
void ZEL_DETAIL_CHANNEL::updateTilesAdded(Component const& topology) {
    auto const& container = containerOf(topology, "updateTilesAdded");
    for (int d = m_minDepth; d <= m_maxDepth; ++d)
        if (container.tileCount(d) < tileCount(d))
            throw std::invalid_argument(
                Internal::message("Channel::updateTilesAdded: ", container.tileCount(d),
                                  " tiles of depth ", d, ", and had ", tileCount(d)));
    resize(container, m_minDepth, m_maxDepth, container.tileCounts());
}

ZEL_DETAIL_CHANNEL_HEAD
void ZEL_DETAIL_CHANNEL::updateTilesRemoved(
    std::vector<std::vector<std::pair<long long, long long>>> const& ranges,
    Component const& topology) {
    auto const& container = containerOf(topology, "updateTilesRemoved");
    for (unsigned d = 0; d < std::max(ranges.size(), m_levels.size()); ++d) {
        if (d < m_levels.size() && !hasDepth(d)) continue;
        long long const had = d < m_levels.size() ? present(d) : 0;
        long long left = had, end = 0;
        if (d < ranges.size())
            for (auto const& [first, last] : ranges[d]) {
                if (first < end || last < first || last > had)
                    throw std::invalid_argument(
                        Internal::message("Channel::updateTilesRemoved: range ", first, " to ",
                                          last, " at depth ", d));
                left -= last - first;
                end = last;
            }
        auto const depth = static_cast<int>(d);
        if (left != container.tileCount(depth))
            throw std::invalid_argument(
                Internal::message("Channel::updateTilesRemoved: ", left, " tiles left at depth ", d,
                                  ", and the topology has ", container.tileCount(depth)));
    }
    for (unsigned d = 0; d < std::min(ranges.size(), m_levels.size()); ++d) {
        if (!hasDepth(d)) continue;
        Level& level = m_levels[d];
        long long to = 0, from = 0;
        auto const moveUntil = [&](long long end) {
            if (to != from)
                std::copy(level.first + from * Layout::kCount, level.first + end * Layout::kCount,
                          level.first + to * Layout::kCount);
            to += end - from;
        };
        for (auto const& [first, last] : ranges[d]) {
            moveUntil(first);
            from = last;
        }
        moveUntil(present(d));
        level.tiles = static_cast<unsigned long long>(to);
    }
    m_stamp = container.stamp();
}

ZEL_DETAIL_CHANNEL_HEAD
void ZEL_DETAIL_CHANNEL::updateTilesPermuted(std::vector<std::vector<long long>> const& sources) {
    std::vector<bool> seen;
    auto const skipped = [&](unsigned d) {
        return sources[d].empty() || (d < m_levels.size() && !hasDepth(d));
    };
    for (unsigned d = 0; d < sources.size(); ++d) {
        if (skipped(d)) continue;
        std::size_t const tiles = d < m_levels.size() ? m_levels[d].tiles : 0;
        if (sources[d].size() != tiles)
            throw std::invalid_argument(
                Internal::message("Channel::updateTilesPermuted: ", sources[d].size(),
                                  " places for ", tiles, " tiles of depth ", d));
        seen.assign(tiles, false);
        for (long long const from : sources[d]) {
            auto const place = static_cast<std::size_t>(from);
            if (place >= tiles || seen[place])
                throw std::invalid_argument(
                    Internal::message("Channel::updateTilesPermuted: place ", from, " of depth ", d,
                                      " is out of range or twice there"));
            seen[place] = true;
        }
    }
    std::vector<std::vector<T>> reordered(sources.size());
    for (unsigned d = 0; d < sources.size(); ++d) {
        if (skipped(d)) continue;
        reordered[d].reserve(sources[d].size() * Layout::kCount);
        for (long long const from : sources[d]) {
            T const* const first = m_levels[d].first + from * Layout::kCount;
            reordered[d].insert(reordered[d].end(), first, first + Layout::kCount);
        }
    }
    for (unsigned d = 0; d < sources.size(); ++d)
        if (!reordered[d].empty())
            std::copy(reordered[d].begin(), reordered[d].end(), m_levels[d].first);
    m_stamp = TreeStamp();
}

ZEL_DETAIL_CHANNEL_HEAD
void ZEL_DETAIL_CHANNEL::updateElements(
    std::vector<std::vector<ElementToFrom>> const& moves,
    std::vector<std::vector<long long>> const& elements,
    std::vector<std::map<long long, long long>> const& elementMaps) {
    if (!elements.empty() || !elementMaps.empty())
        throw std::invalid_argument(Internal::message(
            "Channel::updateElements: lists of ", elements.size(), " depths and maps of ",
            elementMaps.size(), " for a channel of a fixed number of elements a tile"));
    std::vector<T> values;
    for (unsigned d = 0; d < moves.size(); ++d)
        for (auto const& [to, from] : moves[d]) {
            auto const count = d < m_levels.size() ? elementCount(static_cast<int>(d)) : 0;
            if (to < 0 || to >= count || from < 0 || from >= count)
                throw std::invalid_argument(Internal::message("Channel::updateElements: element ",
                                                              from, " to ", to, " of depth ", d));
            values.push_back(m_levels[d].first[from]);
        }
    auto value = values.begin();
    for (unsigned d = 0; d < moves.size(); ++d)
        for (ElementToFrom const& move : moves[d]) m_levels[d].first[move.to] = *value++;
}

ZEL_DETAIL_CHANNEL_HEAD void ZEL_DETAIL_CHANNEL::updateElementResize(Component const& topology) {
    throw std::logic_error(Internal::message("Channel::updateElementResize: a tile always has ",
                                             Layout::kCount, " elements, whatever ", topology,
                                             " says"));
}

}  // namespace ORV::TileTree3D
