#include "zel/field/fusion.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <limits>
#include <span>
#include <utility>

#include "quern_core/simd_target.h"

namespace zel {

namespace {

using detail::Float8;
using detail::kTileSize;
using detail::Stage;

// A chain of nodes beyond this goes on with the next fusion.
constexpr int kMostNodes = 64, kMostStages = 2 * kMostNodes + 1, kMostOperands = 3 * kMostNodes;
constexpr int kNothing = std::numeric_limits<int>::min();

ZEL_WIDE_TARGET void writeTile(Stage const* stage, std::ptrdiff_t at, Float8 v0, Float8 v1,
                               Float8 v2, Float8 v3, Float8 v4, Float8 v5, Float8 v6, Float8 v7) {
    // One by one, so that no vector leaves its register.
    float* const out = stage->out + at;
    std::memcpy(out, &v0, sizeof v0);
    std::memcpy(out + 8, &v1, sizeof v1);
    std::memcpy(out + 16, &v2, sizeof v2);
    std::memcpy(out + 24, &v3, sizeof v3);
    std::memcpy(out + 32, &v4, sizeof v4);
    std::memcpy(out + 40, &v5, sizeof v5);
    std::memcpy(out + 48, &v6, sizeof v6);
    std::memcpy(out + 56, &v7, sizeof v7);
}

ZEL_WIDE_TARGET void spillTile(Stage const* stage, std::ptrdiff_t at, Float8 v0, Float8 v1,
                               Float8 v2, Float8 v3, Float8 v4, Float8 v5, Float8 v6, Float8 v7) {
    writeTile(stage, at, v0, v1, v2, v3, v4, v5, v6, v7);
    stage[1].run(stage + 1, at, v0, v1, v2, v3, v4, v5, v6, v7);
}

ZEL_WIDE_TARGET void runStages(Stage const* stages, int count) {
    Float8 const none{};
    for (int at = 0; at < count; at += kTileSize)
        stages->run(stages, at, none, none, none, none, none, none, none, none);
#ifdef __x86_64__
    __builtin_ia32_vzeroupper();  // g++ leaves it out after calls that pass vectors
#endif
}

}  // namespace

detail::Fusion* Block::findFusion(void const* node) const {
    return m_workspace.fuser->find(node);
}

void detail::Fusion::view(Block& block) {
    bool lasting = true;
    for (Operand const& operand : std::span(m_views, static_cast<std::size_t>(m_viewCount))) {
        auto& in = m_stages[operand.stage].in;
        if (!operand.view) {
            in = block.positions().component;
            continue;
        }
        Lanes<float> const values = operand.view(operand.viewed, block);
        in[static_cast<unsigned>(operand.number)] = values.component[0];
        lasting = lasting && values.lasting;
    }
    m_viewedAt = lasting ? block.positions().component : Lanes<float3>::Components{};
}

void detail::Fusion::run(Block& block, BlockResult<float>& out) {
    // The last tile may be longer than the block, and then there may be no room for it.
    bool const isWhole = block.count() % kTileSize == 0;
    BlockResult<float> own(isWhole ? out.storage : block.allocate());
    Block::Frame const frame(block);
    auto const& at = block.positions().component;
    if (m_viewedAt[0] != at[0] || m_viewedAt[1] != at[1] || m_viewedAt[2] != at[2]) view(block);
    bool light = true;
    for (Operand const& operand : std::span(m_operands, static_cast<std::size_t>(m_operandCount))) {
        Lanes<float> const values = block.values(*operand.child);
        m_stages[operand.stage].in[static_cast<unsigned>(operand.number)] = values.component[0];
        light = light && values.light;
    }
    m_stages[m_stageCount - 1].out = own.writer().component[0];
    runStages(m_stages, block.count());
    out.set(own.lanes);
    out.lanes.light = light;
}

/// A fusion in the making. A value is known by the number of the stage that gives it.
struct Fuser::Draft {
    std::array<Stage, kMostStages> stages;
    std::array<int, kMostStages> spill;  // which one holds a value that is not in the registers
    std::array<detail::Fusion::Operand, kMostOperands> operands;
    int nodeCount = 0, stageCount = 0, operandCount = 0;
    int inRegisters = kNothing;
    int added = kNothing;  // by the last `fuse`: a value, or the complement of an operand
    unsigned freeSpills = (1U << kMostSpills) - 1;

    Stage& addStage(Stage::Run run, void const* self) {
        Stage& stage = stages[static_cast<unsigned>(stageCount++)];
        stage = {run, self, {}, nullptr};
        return stage;
    }
    int addOperand(detail::Fusion::Operand const& operand) {
        operands[static_cast<unsigned>(operandCount)] = operand;
        return ~operandCount++;
    }
};

template <class Interface>
Fuser::Range::Range(detail::Workspace& workspace, Interface const& root, std::uint64_t batch,
                    std::size_t count)
    : m_workspace(workspace), m_outer(std::exchange(workspace.fuser, nullptr)),
      m_mark(workspace.fusions.mark()) {
    if (!detail::kFusesNodes || !Quern::wideVectors) return;
    // From this number of positions on a walk takes a small part of the time.
    constexpr std::size_t kLeastCount = std::size_t{8} * kBlockSize;
    auto const walk = [&] {
        auto* const place = workspace.fusions.allocate(sizeof(Fuser));
        auto* const fuser = new (place) Fuser(workspace.fusions);
        fuser->walk(root);
        return fuser;
    };
    if (workspace.isNested()) {
        if (count >= kLeastCount) workspace.fuser = walk();
        return;
    }
    if (std::exchange(workspace.batch, batch) != batch) {
        workspace.fuserOfBatch = nullptr;
        workspace.countOfBatch = 0;
    }
    workspace.countOfBatch += count;
    if (!workspace.fuserOfBatch && workspace.countOfBatch >= kLeastCount) {
        workspace.fusions.release(nullptr);
        workspace.fuserOfBatch = walk();
    }
    workspace.fuser = workspace.fuserOfBatch;
}

template Fuser::Range::Range(detail::Workspace&, ScalarField const&, std::uint64_t, std::size_t);
template Fuser::Range::Range(detail::Workspace&, VectorField const&, std::uint64_t, std::size_t);

Fuser::Range::~Range() {
    if (m_workspace.isNested()) m_workspace.fusions.release(m_mark);
    m_workspace.fuser = m_outer;
}

template <class Interface> void Fuser::walk(Interface const& root) {
    // Once to count the parents of each node, and once to fuse.
    queue(root);
    while (m_waiting) count();
    m_isCounting = false;
    queue(root);
    while (m_waiting) fuse();
}

template <class T> T* Fuser::allocate(std::size_t count) {
    return static_cast<T*>(m_memory.allocate(count * sizeof(T)));
}

Fuser::Entry& Fuser::entryOf(void const* node) const {
    auto const hash = reinterpret_cast<std::uintptr_t>(node) * 0x9e3779b97f4a7c15U >> 32;
    std::size_t at = hash & (m_tableSize - 1);
    while (m_table[at].node && m_table[at].node != node) at = (at + 1) & (m_tableSize - 1);
    return m_table[at];
}

void Fuser::growTable() {
    Entry const* const old = m_table;
    std::size_t const oldSize = m_tableSize;
    m_tableSize = std::max<std::size_t>(16, 2 * oldSize);
    m_table = allocate<Entry>(m_tableSize);
    std::fill_n(m_table, m_tableSize, Entry{});
    for (std::size_t i = 0; i < oldSize; ++i)
        if (old[i].node) entryOf(old[i].node) = old[i];
}

template <class Interface> void Fuser::queueNode(Interface const& node) {
    if (2 * m_entryCount >= m_tableSize) growTable();
    Entry& entry = entryOf(&node);
    m_entryCount += !entry.node;
    entry.node = &node;
    auto& times = m_isCounting ? entry.parents : entry.timesQueued;
    if (times++ > 0) return;
    auto const fuse = [](void const* waiting, Fuser& fuser) {
        static_cast<Interface const*>(waiting)->fuse(fuser);
    };
    m_waiting = new (allocate<Waiting>(1)) Waiting{&node, fuse, m_waiting};
}

void Fuser::queue(ScalarField const& node) {
    queueNode(node);
}

void Fuser::queue(VectorField const& node) {
    queueNode(node);
}

void Fuser::count() {
    m_current = *std::exchange(m_waiting, m_waiting->next);
    m_current.fuse(m_current.node, *this);
}

void Fuser::fuse() {
    Waiting const outermost = *std::exchange(m_waiting, m_waiting->next);
    Draft draft;
    m_draft = &draft;
    outermost.fuse(outermost.node, *this);
    if (draft.added < 0 || draft.nodeCount < 2) return;  // nothing is passed on
    draft.addStage(writeTile, nullptr);
    auto* const fusion = new (allocate<detail::Fusion>(1)) detail::Fusion;
    fusion->m_stageCount = draft.stageCount;
    fusion->m_stages = allocate<Stage>(static_cast<std::size_t>(draft.stageCount));
    std::copy_n(draft.stages.begin(), draft.stageCount, fusion->m_stages);
    // What needs no asking first, and the rest in the order of the walk, as it was.
    auto const operands =
        std::span(draft.operands.data(), static_cast<std::size_t>(draft.operandCount));
    fusion->m_views = allocate<detail::Fusion::Operand>(operands.size());
    auto const asked = std::copy_if(operands.begin(), operands.end(), fusion->m_views,
                                    [](auto const& operand) { return !operand.child; });
    fusion->m_viewCount = static_cast<int>(asked - fusion->m_views);
    fusion->m_operands = asked;
    fusion->m_operandCount = draft.operandCount - fusion->m_viewCount;
    std::copy_if(operands.begin(), operands.end(), asked,
                 [](auto const& operand) { return operand.child != nullptr; });
    entryOf(outermost.node).fusion = fusion;
}

bool Fuser::vacateRegisters() {
    Draft& draft = *m_draft;
    if (draft.inRegisters < 0) return true;
    if (!draft.freeSpills) return false;
    int const spill = std::countr_zero(draft.freeSpills);
    draft.freeSpills &= draft.freeSpills - 1;
    float*& array = m_spills[static_cast<unsigned>(spill)];
    if (!array) array = m_memory.floats(kBlockSize);
    draft.addStage(spillTile, nullptr).out = array;
    draft.spill[static_cast<unsigned>(std::exchange(draft.inRegisters, kNothing))] = spill;
    return true;
}

int Fuser::ask(ScalarPtr const& child) {
    m_draft->added = kNothing;
    Entry const& entry = entryOf(&*child);
    bool const isShared = m_isAnyHidden ? child.useCount() > 1 : entry.parents > 1;
    if (isShared && !entry.isView)
        queue(*child);
    else
        child->fuse(*this);
    int const added = m_draft->added;
    return added != kNothing ? added : m_draft->addOperand({&child, nullptr, nullptr, 0, 0});
}

void Fuser::add(ScalarField const& node, void const* self, Stage::Run const* forms,
                std::initializer_list<ScalarPtr const*> children) {
    if (m_isCounting) {
        for (ScalarPtr const* const child : children) queue(**child);
        return;
    }
    Draft& draft = *m_draft;
    if (draft.nodeCount == kMostNodes) return queue(node);
    ++draft.nodeCount;
    int const operandCount = draft.operandCount;
    std::array<int, 3> values;
    int number = 0, form = 0;
    for (ScalarPtr const* const child : children)
        values[static_cast<unsigned>(number++)] = ask(*child);
    for (int i = 0; i < number; ++i)
        if (values[static_cast<unsigned>(i)] >= 0 &&
            values[static_cast<unsigned>(i)] == draft.inRegisters)
            form = 1 + i;
    if (form == 0 && !vacateRegisters()) {  // so that no child has been added but as an operand
        draft.operandCount = operandCount;
        draft.added = kNothing;
        return queue(node);
    }
    int const own = draft.stageCount;
    Stage& stage = draft.addStage(forms[form], self);
    for (unsigned i = 0; i < static_cast<unsigned>(number); ++i) {
        if (values[i] < 0) {
            auto& operand = draft.operands[static_cast<unsigned>(~values[i])];
            operand.stage = own;
            operand.number = static_cast<int>(i);
        } else if (values[i] != draft.inRegisters) {
            int const spill = draft.spill[static_cast<unsigned>(values[i])];
            stage.in[i] = m_spills[static_cast<unsigned>(spill)];
            draft.freeSpills |= 1U << spill;
        }
    }
    draft.added = draft.inRegisters = own;
}

void Fuser::addLeaf(void const* self, Stage::Run run) {
    if (m_isCounting) return;
    Draft& draft = *m_draft;
    if (draft.nodeCount == kMostNodes || !vacateRegisters()) return;
    ++draft.nodeCount;
    draft.addOperand({nullptr, nullptr, nullptr, draft.stageCount, 0});
    draft.added = draft.inRegisters = draft.stageCount;
    draft.addStage(run, self);
}

void Fuser::addView(void const* self, detail::Fusion::View view) {
    if (m_isCounting)
        entryOf(m_current.node).isView = true;
    else
        m_draft->added = m_draft->addOperand({nullptr, view, self, 0, 0});
}

}  // namespace zel
