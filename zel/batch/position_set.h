#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "zel/api.h"
#include "zel/batch/columns.h"
#include "zel/batch/workspace.h"

// What is remembered about positions while a graph is evaluated at them, so that a node with
// several parents is evaluated once.
namespace zel::detail {

/// The element index `position` positions after the first. The least index follows the greatest.
inline long long elementAfter(long long first, std::size_t position) {
    return static_cast<long long>(static_cast<unsigned long long>(first) + position);
}

/// The values, or the gradients, of a node at the positions of a set, as far as they are known.
struct KeptResult {
    bool isKnown(int position) const {
        auto const p = static_cast<unsigned>(position);
        return known[p / 64] >> (p % 64) & 1;
    }
    void setKnown(int position) {
        auto const p = static_cast<unsigned>(position);
        known[p / 64] |= std::uint64_t{1} << (p % 64);
    }

    template <class T> Columns<T> columns() const {
        Columns<T> all;
        std::copy_n(component, kComponents<T>, all.component.begin());
        all.persistent = true;
        all.light = light;
        return all;
    }

    void const* node;
    bool gradient;
    bool complete;                                     ///< whether all positions are known
    bool light;                                        ///< see Columns
    std::array<std::uint64_t, kBlockSize / 64> known;  ///< a bit a position
    float* storage;             ///< columns for positions that are evaluated one after the other
    float const* component[9];  ///< the columns, which may lie elsewhere
    KeptResult* next;           ///< in the same bucket
};

/// Up to kBlockSize positions, numbered from 0, and the results of nodes that are kept for them. A
/// Block has all positions of a set, or some of them.
struct PositionSet {
    KeptResult* find(void const* node, bool gradient) const;
    /// Adds a result that is not yet known at any position. `storage` is in the workspace's arena
    /// `kept`.
    KeptResult& add(void const* node, bool gradient, float* storage, Workspace& workspace);

    long long element(int position) const {
        return elementAfter(first, static_cast<unsigned>(offsets ? offsets[position] : position));
    }

    long long first = 0;           ///< the element index of position 0, if `offsets` is null
    int const* offsets = nullptr;  ///< of each position's element index from `first`
    KeptResult** buckets = nullptr;
    std::size_t bucketCount = 0, keptCount = 0;
    bool keepAll = false;  ///< whether the values of all nodes are kept, not of shared ones alone
    bool knowsGradients = false;  ///< whether some were kept that came with their values
};

/// While it exists, results can be kept for a set, and for none of the sets outside of it. All of
/// them are released at its end.
class ZEL_API PositionScope {
public:
    PositionScope(Workspace& workspace, PositionSet& positions);
    ~PositionScope();
    PositionScope(PositionScope const&) = delete;
    PositionScope& operator=(PositionScope const&) = delete;

private:
    Workspace& m_workspace;
    PositionSet& m_positions;
    Arena::Mark const m_mark;
    PositionSet const* const m_outer;
};

}  // namespace zel::detail
