#include "zel/batch/fusion/fusion_draft.h"

#include <algorithm>
#include <new>

#include "zel/batch/fusion/tile_stages.h"

namespace zel {

namespace detail {

void FusionDraft::begin(Aim aim) {
    m_aim = aim;
    m_stages.count = m_leafStages.count = m_views.count = m_children.count = 0;
    m_registers.reset();
    m_nodeCount = 0;
    m_isFull = m_asksForValues = false;
}

bool FusionDraft::reserveNode() {
    // The node's own stage, or the first one below it, overwrites the registers.
    if (m_nodeCount == kMostNodes || !m_registers.canBeFreed()) {
        m_isFull = true;
        return false;
    }
    ++m_nodeCount;
    return true;
}

Operand FusionDraft::addFormula(void const* self, FormulaStages const& stages,
                                std::span<Operand const> children) {
    int const count = static_cast<int>(children.size());
    int inRegisters = -1;  // the number of a child
    for (int child = 0; child < count; ++child) {
        Operand const& operand = children[static_cast<unsigned>(child)];
        if (operand.kind == Operand::Kind::kStage && m_registers.holds(operand.number))
            inRegisters = child;
    }
    // If no child is in the registers, none has a stage, and they are as reserveNode found them.
    if (inRegisters < 0) freeRegisters();

    auto const* const forms = m_aim == Aim::kValues ? stages.values : stages.duals;
    int const stage = addStage(forms[1 + inRegisters], self);
    for (int child = 0; child < count; ++child) {
        Operand const& operand = children[static_cast<unsigned>(child)];
        switch (operand.kind) {
        case Operand::Kind::kView:
            m_views[operand.number].input = {stage, child};
            break;
        case Operand::Kind::kChild:
            m_children[operand.number].input = {stage, child};
            break;
        case Operand::Kind::kStage:
            if (child != inRegisters)
                m_stages[stage].in[static_cast<unsigned>(child)] =
                    spillTile(m_registers.takeSpilled(operand.number));
        }
    }
    return resultOf(stage);
}

Operand FusionDraft::addLeaf(void const* self, LeafStages const& stages) {
    freeRegisters();
    int const stage = addStage(m_aim == Aim::kValues ? stages.values : stages.duals, self);
    m_leafStages.add(stage);
    return resultOf(stage);
}

Operand FusionDraft::addDualView(void const* self, View view,
                                 Orvane::Math::float3 const& gradient) {
    freeRegisters();
    int const stage = addStage(viewStage(), nullptr);
    m_views.add({view, self, {stage, 0}});
    float* const components = m_memory.floats(3);
    for (int c = 0; c < 3; ++c) components[c] = gradient[c];
    m_stages[stage].in[1] = components;
    return resultOf(stage);
}

Operand FusionDraft::addDualChild(ScalarChild const& child) {
    freeRegisters();
    int const stage = addStage(dualChildStage(), nullptr);
    m_children.add({&child, {stage, 0}});
    return resultOf(stage);
}

Operand FusionDraft::addView(void const* self, View view) {
    return {Operand::Kind::kView, m_views.add({view, self, {}})};
}

Operand FusionDraft::addChild(ScalarChild const& child) {
    m_asksForValues = true;
    return {Operand::Kind::kChild, m_children.add({&child, {}})};
}

Operand FusionDraft::resultOf(int stage) {
    m_registers.hold(stage);
    return {Operand::Kind::kStage, stage};
}

void FusionDraft::freeRegisters() {
    if (!m_registers.isInUse()) return;
    float* const tile = spillTile(m_registers.spill());
    m_stages[addStage(spillStage(m_aim), nullptr)].out = tile;
}

float* FusionDraft::spillTile(int number) {
    float*& tile = m_spillTiles[static_cast<unsigned>(number)];
    if (!tile)
        tile = m_memory.floats(kBlockSize);  // a stage of values writes at its place in the block
    return tile;
}

template <class T, int kMost> std::span<T> FusionDraft::copied(List<T, kMost> const& list) {
    auto const count = static_cast<std::size_t>(list.count);
    auto* const copies = static_cast<T*>(m_memory.allocate(count * sizeof(T)));
    std::uninitialized_copy_n(list.elements.begin(), count, copies);
    return {copies, count};
}

Fusion* FusionDraft::finish() {
    addStage(resultStage(m_aim), nullptr);
    return new (m_memory.allocate(sizeof(Fusion)))
        Fusion({copied(m_stages), copied(m_leafStages), copied(m_views), copied(m_children)});
}

}  // namespace detail
}  // namespace zel
