#pragma once

#include <algorithm>
#include <cstddef>
#include <type_traits>

#include "zel/batch/block.h"
#include "zel/batch/fusion/fusion.h"
#include "zel/batch/fusion/fusion_scope.h"
#include "zel/batch/join_vectors.h"
#include "zel/batch/run_batch.h"
#include "zel/batch/split_positions.h"
#include "zel/batch/watch.h"
#include "zel/batch/workspace.h"

namespace zel::detail {

/// Fetches into the cache the lines that `count` results are about to be written to. Inlined at
/// once: g++ 12 drops a call of a function that only prefetches.
template <class T>
ZEL_ALWAYS_INLINE inline void prefetchResults(T const* first, std::size_t count) {
    constexpr std::size_t kLine = 64;
    auto const* const bytes = reinterpret_cast<char const*>(first);
    for (std::size_t b = 0; b < count * sizeof(T); b += kLine) __builtin_prefetch(bytes + b, 1, 3);
}

/// Whether that pays: for vectors that are too many to be in the cache of a core, where memory of
/// the caller's has its pages already.
template <class T, class Batch> bool prefetchesResults(Batch const& batch) {
    constexpr std::size_t kCacheSize = std::size_t{2} << 20;
    return batch.ownedByCaller && kComponents<T> > 1 && batch.points.count * sizeof(T) > kCacheSize;
}

/// Writes the results at the positions of a block, which begin with number `at` of the batch.
template <class Interface>
void evaluateBlock(Interface const& field, Batch<Interface> const& batch,
                   FusionScope const& fusions, Block& block, std::size_t at) {
    constexpr bool kIsScalar = std::is_same_v<typename Interface::Value, float>;
    int const count = block.count();
    auto* const values = batch.values ? batch.values + at : nullptr;
    auto* const gradients = batch.gradients ? batch.gradients + at : nullptr;
    if constexpr (kIsScalar)
        if (auto* const fusion = values && gradients ? fusions.dualsOf(&field) : nullptr) {
            auto const [v, g] = fusion->runDuals(block);
            std::copy_n(v.component[0], count, values);
            joinColumns(count, g, gradients);
            return;
        }
    if (values) {
        if constexpr (kIsScalar) {
            BlockResult<float> out(values);
            block.writeValues(field, out);
        } else {
            joinColumns(count, block.values(field), values);
        }
    }
    if (gradients) joinColumns(count, block.gradients(field), gradients);
}

/// Evaluates a field at positions `begin` to `end` of a batch, block by block, on the calling
/// thread.
template <class Interface>
void evaluateRange(Interface const& field, Batch<Interface> const& batch, GraphOfBatch const& graph,
                   std::size_t begin, std::size_t end) {
    constexpr std::size_t kSize = kBlockSize;
    PositionReader const positions(batch.points);
    Workspace& workspace = Workspace::local();
    Workspace::Run const run(workspace);
    FusionScope const fusions(workspace, field, graph, end - begin);
    bool const prefetchValues = batch.values && prefetchesResults<typename Interface::Value>(batch),
               prefetchGradients =
                   batch.gradients && prefetchesResults<typename Interface::Gradient>(batch);
    for (std::size_t at = begin; at < end; at += kSize) {
        if (batch.watch && !batch.watch->goesOn()) return;
        std::size_t const size = std::min(end - at, kSize);
        {
            PositionSet set;
            set.first = elementAfter(batch.firstIndex, at);
            set.keepAll = batch.gradients != nullptr;
            PositionScope const scope(workspace, set);
            Arena::Mark const bottom = workspace.stack.mark();
            float* const x = workspace.stack.floats(3 * kSize);
            float *const y = x + kBlockSize, *const z = y + kBlockSize;
            Block block(workspace, set, static_cast<int>(size), {x, y, z});
            Block::Frame const frame(block, bottom);
            if (prefetchValues) prefetchResults(batch.values + at, size);
            if (prefetchGradients) prefetchResults(batch.gradients + at, size);
            positions.read(at, size, std::min(end - at - size, kSize), x, y, z);
            evaluateBlock(field, batch, fusions, block, at);
        }
        if (batch.watch) batch.watch->finishBlock(size);
    }
}

}  // namespace zel::detail
