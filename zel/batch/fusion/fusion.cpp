#include "zel/batch/fusion/fusion.h"

#include <algorithm>

#include "zel/batch/fusion/tile_stages.h"

namespace zel {

namespace detail {

namespace {

/// Sets a flag while it exists.
class Raised {
public:
    explicit Raised(bool& flag) : m_flag(flag) { m_flag = true; }
    ~Raised() { m_flag = false; }
    Raised(Raised const&) = delete;
    Raised& operator=(Raised const&) = delete;

private:
    bool& m_flag;
};

}  // namespace

float const*& Fusion::input(StageInput const& to) {
    return m_parts.stages[static_cast<unsigned>(to.stage)].in[static_cast<unsigned>(to.child)];
}

void Fusion::bindViews(Block& block) {
    auto const& at = block.positions().component;
    if (m_boundAt == at && m_boundConstants == block.constantsVersion()) return;
    m_boundAt = {};
    m_boundConstants = block.constantsVersion();
    bool persistent = true;
    for (int const stage : m_parts.leafStages)
        std::ranges::copy(at, m_parts.stages[static_cast<unsigned>(stage)].in.begin());
    for (ViewOperand const& operand : m_parts.views) {
        Columns<float> const values = operand.view(operand.node, block);
        input(operand.input) = values.component[0];
        persistent = persistent && values.persistent;
    }
    if (persistent) m_boundAt = at;
}

void Fusion::run(Block& block, BlockResult<float>& out) {
    // Tiles are written whole, and the storage of `out` may end with the last position.
    BlockResult<float> result(endsWithTile(block.count()) ? out.storage : block.allocate());
    Block::Frame const frame(block);
    Raised const running(m_isRunning);
    bindViews(block);
    bool light = true;
    for (ChildOperand const& operand : m_parts.children) {
        Columns<float> const values = block.values(*operand.child);
        input(operand.input) = values.component[0];
        light = light && values.light;
    }
    writeTo(result.writer().component[0]);
    runStages(m_parts.stages.data(), block.count(), Aim::kValues);
    out.set(result.columns);
    out.columns.light = light;
}

std::pair<Columns<float>, Columns<Orvane::Math::float3>> Fusion::runDuals(Block& block) {
    float* const result = block.allocate(4);
    bindViews(block);
    for (ChildOperand const& operand : m_parts.children) {
        auto const [values, gradients] = block.valuesAndGradients(*operand.child);
        float const** const in = &input(operand.input);
        in[0] = values.component[0];
        std::ranges::copy(gradients.component, in + 1);
    }
    writeTo(result);
    runStages(m_parts.stages.data(), block.count(), Aim::kDuals);
    return {{{result}, false, true},
            {{result + kBlockSize, result + 2 * kBlockSize, result + 3 * kBlockSize}, false, true}};
}

}  // namespace detail
}  // namespace zel
