#pragma once

#include <cstdint>
#include <span>
#include <utility>

#include "zel/batch/block.h"
#include "zel/batch/fusion/operand.h"
#include "zel/batch/fusion/stage.h"

namespace zel {

namespace detail {

/// Nodes that are computed together, tile by tile, and the root among them, whose values are the
/// result. It belongs to one thread. All arrays that it names are in the memory of its plan.
class Fusion {
public:
    /// What a fusion consists of. The stages end with the one that writes the result.
    struct Parts {
        std::span<Stage> stages;
        std::span<int const> leafStages;  ///< those that read the positions, by number
        std::span<ViewOperand const> views;
        std::span<ChildOperand const> children;  ///< in the order in which they are asked
    };

    explicit Fusion(Parts const& parts) : m_parts(parts) {}

    /// Whether `run` is asking a child now. Such a child may ask the fusion's own root.
    bool isRunning() const { return m_isRunning; }

    /// Sets `out` to the values of the root, in a fusion of values. Needs AVX2.
    void run(Block& block, BlockResult<float>& out);

    /// The values and gradients of the root, in a fusion of duals. They stay until the frame ends.
    /// Needs AVX2.
    std::pair<Columns<float>, Columns<Orvane::Math::float3>> runDuals(Block& block);

private:
    void bindViews(Block& block);
    float const*& input(StageInput const& to);
    void writeTo(float* result) { m_parts.stages.back().out = result; }

    Parts m_parts;
    bool m_isRunning = false;
    Columns<Orvane::Math::float3>::Components
        m_boundAt{};                     // the positions for which views are bound, if persistent
    std::uint64_t m_boundConstants = 0;  // the version of the constants among the views
};

}  // namespace detail
}  // namespace zel
