#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "zel/batch/block.h"
#include "zel/batch/fusion/fusion.h"
#include "zel/batch/fusion/fusion_scope.h"
#include "zel/batch/split_positions.h"
#include "zel/batch/workspace.h"
#include "zel_platform/quern_core/position_loop.h"

namespace zel::detail {

/// A number that no other batch of the process has, of either interface.
std::uint64_t newBatch();

/// Loads `count` positions into the cache. Inlined at once: g++ 12 drops a call of a function that
/// only prefetches.
ZEL_ALWAYS_INLINE inline void prefetch(Orvane::Math::float3 const* positions, std::size_t count) {
    constexpr std::size_t kLineSize = 64;
    auto const* const bytes = reinterpret_cast<char const*>(positions);
    for (std::size_t at = 0; at < count * sizeof(*positions); at += kLineSize)
        __builtin_prefetch(bytes + at, 0, 2);
}

/// Writes the values of columns to an array.
template <class T> void joinColumns(int count, Columns<T> const& columns, T* to) {
    Quern::forEachPosition(count, [=](int i) ZEL_ALWAYS_INLINE { to[i] = columns[i]; });
}

/// Evaluates a field at positions `begin` to `end` of an array, block by block, on the calling
/// thread. `values` and `gradients` are the beginnings of the results; either may be null. The
/// ranges of a batch have the number `batch` in common.
template <class Interface>
void evaluateRange(Interface const& field, Orvane::Math::float3 const* positions,
                   typename Interface::Value* values, typename Interface::Gradient* gradients,
                   std::size_t begin, std::size_t end, std::uint64_t batch) {
    constexpr bool kIsScalar = std::is_same_v<typename Interface::Value, float>;
    constexpr std::size_t kSize = kBlockSize;
    Workspace& workspace = Workspace::local();
    Workspace::Run const run(workspace);
    FusionScope const fusions(workspace, field, batch, end - begin);
    for (std::size_t at = begin; at < end; at += kSize) {
        std::size_t const size = std::min(end - at, kSize);
        int const count = static_cast<int>(size);
        PositionSet set;
        set.first = static_cast<long long>(at);
        set.keepAll = gradients != nullptr;
        PositionScope const scope(workspace, set);
        Arena::Mark const bottom = workspace.stack.mark();
        float* const x = workspace.stack.floats(3 * kSize);
        float *const y = x + kBlockSize, *const z = y + kBlockSize;
        Block block(workspace, set, count, x, y, z);
        Block::Frame const frame(block, bottom);
        (Quern::wideVectors ? splitPositionsWide : splitPositions)(count, positions + at, x, y, z);
        prefetch(positions + at + size, std::min(end - at - size, kSize));
        if constexpr (kIsScalar)
            if (auto* const fusion = values && gradients ? fusions.dualsOf(&field) : nullptr) {
                auto const [v, g] = fusion->runDuals(block);
                std::copy_n(v.component[0], count, values + at);
                joinColumns(count, g, gradients + at);
                continue;
            }
        if (values) {
            if constexpr (kIsScalar) {
                BlockResult<float> out(values + at);
                block.writeValues(field, out);
            } else {
                joinColumns(count, block.values(field), values + at);
            }
        }
        if (gradients) joinColumns(count, block.gradients(field), gradients + at);
    }
}

}  // namespace zel::detail
