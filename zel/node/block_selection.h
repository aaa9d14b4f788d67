#pragma once

#include <array>

#include "zel/batch/block.h"
#include "zel_platform/quern_core/position_loop.h"

// Results whose value at each position of a block is that of one child, chosen for the position.
namespace zel::detail {

inline bool allEqual(int const* chosen, int count) {
    int differing = 0;
    for (int i = 1; i < count; ++i) differing |= chosen[i] ^ chosen[0];
    return differing == 0;
}

/// Sets `out` to the columns `ask(branch, block)` at the positions where `chosen` is that branch, 0
/// to kBranches - 1, and to zero where `chosen` is negative. Each branch is asked once at most,
/// with a block of its own positions.
template <int kBranches, class T, class Ask>
void select(Block& block, int const* chosen, BlockResult<T>& out, Ask const& ask) {
    int const count = block.count();
    if (chosen[0] >= 0 && allEqual(chosen, count)) {
        out.set(ask(chosen[0], block));
        return;
    }
    auto const write = out.writer();
    int* const places = block.allocateInts();
    for (int branch = -1; branch < kBranches; ++branch) {
        int placeCount = 0;
        for (int i = 0; i < count; ++i) {
            places[placeCount] = i;
            placeCount += chosen[i] == branch;
        }
        if (placeCount == 0) continue;
        auto const scatter = [&](auto const& from) {
            for (int i = 0; i < placeCount; ++i) write.set(places[i], from[i]);
        };
        if (branch < 0) {
            for (int i = 0; i < placeCount; ++i) write.set(places[i], T{});
        } else {
            block.withChoice(places, placeCount, [&](Block& some) { scatter(ask(branch, some)); });
        }
    }
}

/// Sets `out` to the gradient of child number `chosen`, or to zero where that is negative. All
/// children are asked at all positions, which takes less time than select() if they are light.
template <class Gradient, class... Child>
void blend(Block& block, int const* chosen, BlockResult<Gradient>& out,
           Quern::Ptr<Child> const&... child) {
    Block::Frame const frame(block);
    std::array<Columns<Gradient>, sizeof...(Child)> const g{block.gradients(child)...};
    auto const write = out.writer();
    for (std::size_t c = 0; c < kComponents<Gradient>; ++c) {
        float* const to = write.component[c];
        float const* const first = g[0].component[c];
        if constexpr (sizeof...(Child) == 2) {
            float const* const second = g[1].component[c];
            Quern::forEachPosition<true>(block.count(), [=](int i) ZEL_ALWAYS_INLINE {
                to[i] = chosen[i] == 0 ? first[i] : second[i];
            });
        } else {
            static_assert(sizeof...(Child) == 1);
            Quern::forEachPosition<true>(block.count(), [=](int i) ZEL_ALWAYS_INLINE {
                to[i] = chosen[i] == 0 ? first[i] : 0.0F;
            });
        }
    }
}

}  // namespace zel::detail
