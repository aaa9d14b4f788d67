#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <type_traits>

#include "zel/batch/evaluate_range.h"

// Evaluates runs of positions for a caller that has tasks of its own: block by block, on the
// calling thread, without the hooks. All runs of one field between its hooks have the number
// `batch` in common, which newBatch() gives.
namespace zel::detail {

/// Writes the values at `count` positions, whose columns are aligned to 64 bytes and have room for
/// a multiple of kBlockSize floats. Position `i` has the element index `firstIndex + i`.
template <class Interface>
void evaluateRun(Interface const& field, float const* x, float const* y, float const* z, int count,
                 long long firstIndex, typename Interface::Value* values, std::uint64_t batch) {
    Workspace& workspace = Workspace::local();
    Workspace::Run const run(workspace);
    FusionScope const fusions(workspace, field, {nullptr, batch}, static_cast<std::size_t>(count));
    for (int at = 0; at < count; at += kBlockSize) {
        PositionSet set;
        set.first = firstIndex + at;
        PositionScope const scope(workspace, set);
        int const size = std::min(count - at, kBlockSize);
        Block block(workspace, set, size, {x + at, y + at, z + at});
        Block::Frame const frame(block);
        if constexpr (std::is_same_v<typename Interface::Value, float>) {
            BlockResult<float> out(values + at);
            block.writeValues(field, out);
        } else {
            joinColumns(size, block.values(field), values + at);
        }
    }
}

/// Writes the values at `count` positions and, if `gradients` is not null, the gradients. Position
/// `i` has the element index `i`.
template <class Interface>
void evaluateRun(Interface const& field, std::span<Orvane::Math::float3 const> positions,
                 typename Interface::Value* values, typename Interface::Gradient* gradients,
                 std::uint64_t batch) {
    Batch<Interface> run;
    run.points = PointView::of(positions);
    run.values = values;
    run.gradients = gradients;
    evaluateRange(field, run, {nullptr, batch}, 0, positions.size());
}

}  // namespace zel::detail
