#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "zel/batch/evaluate_range.h"

namespace zel::detail {

/// Evaluates a field at `count` positions, block by block, on the calling thread, and writes the
/// values to `values`. The columns of the positions are aligned to 64 bytes, and have room for a
/// multiple of kBlockSize floats. Position `i` has the element index `firstIndex + i`. The calls of
/// a batch have the number `batch` in common.
template <class Interface>
void evaluateColumns(Interface const& field, float const* x, float const* y, float const* z,
                     int count, long long firstIndex, typename Interface::Value* values,
                     std::uint64_t batch) {
    Workspace& workspace = Workspace::local();
    Workspace::Run const run(workspace);
    FusionScope const fusions(workspace, field, batch, static_cast<std::size_t>(count));
    for (int at = 0; at < count; at += kBlockSize) {
        PositionSet set;
        set.first = firstIndex + at;
        PositionScope const scope(workspace, set);
        int const size = std::min(count - at, kBlockSize);
        Block block(workspace, set, size, x + at, y + at, z + at);
        Block::Frame const frame(block);
        if constexpr (std::is_same_v<typename Interface::Value, float>) {
            BlockResult<float> out(values + at);
            block.writeValues(field, out);
        } else {
            joinColumns(size, block.values(field), values + at);
        }
    }
}

}  // namespace zel::detail
