#include "zel/batch/fusion/fusion.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>
#include <span>
#include <utility>

#include "zel_platform/quern_core/position_loop.h"

namespace zel {

namespace {

using detail::Float8;
using detail::kTileSize;
using detail::Stage;

// A chain of nodes beyond this goes on with the next fusion.
constexpr int kMostNodes = 64, kMostStages = 2 * kMostNodes + 1, kMostOperands = 3 * kMostNodes;
// Node by node, a node that chooses a gradient asks one child alone where the block agrees on it; a
// fusion asks both. That pays for small trees, and where both would be asked anyway. Below other
// nodes it hardly does, since those ask for the values by themselves.
constexpr int kMostNodesWithChoice = 24;
constexpr int kNothing = std::numeric_limits<int>::min();

#define ZEL_TILE_PARAMETERS                                                                        \
    Stage const *stage, std::ptrdiff_t at, Float8 v0, Float8 v1, Float8 v2, Float8 v3, Float8 v4,  \
        Float8 v5, Float8 v6, Float8 v7
#define ZEL_TILE v0, v1, v2, v3, v4, v5, v6, v7

/// Writes two vectors to each of four places. One by one, so that none leaves its register.
ZEL_WIDE_TARGET ZEL_ALWAYS_INLINE inline void write(float* to, std::ptrdiff_t step, Float8 v0,
                                                    Float8 v1, Float8 v2, Float8 v3, Float8 v4,
                                                    Float8 v5, Float8 v6, Float8 v7) {
    std::memcpy(to, &v0, sizeof v0);
    std::memcpy(to + 8, &v1, sizeof v1);
    std::memcpy(to + step, &v2, sizeof v2);
    std::memcpy(to + step + 8, &v3, sizeof v3);
    std::memcpy(to + 2 * step, &v4, sizeof v4);
    std::memcpy(to + 2 * step + 8, &v5, sizeof v5);
    std::memcpy(to + 3 * step, &v6, sizeof v6);
    std::memcpy(to + 3 * step + 8, &v7, sizeof v7);
}

ZEL_WIDE_TARGET void writeValues(ZEL_TILE_PARAMETERS) {
    write(stage->out + at, kTileSize / 4, ZEL_TILE);
}

ZEL_WIDE_TARGET void writeDuals(ZEL_TILE_PARAMETERS) {
    write(stage->out + at, kBlockSize, ZEL_TILE);
}

ZEL_WIDE_TARGET void spillValues(ZEL_TILE_PARAMETERS) {
    write(stage->out + at, kTileSize / 4, ZEL_TILE);
    stage[1].run(stage + 1, at, ZEL_TILE);
}

ZEL_WIDE_TARGET void spillDuals(ZEL_TILE_PARAMETERS) {
    write(stage->out, kTileSize / 4, ZEL_TILE);
    stage[1].run(stage + 1, at, ZEL_TILE);
}

/// Duals of values in an array and of three floats that are the gradient of all.
ZEL_WIDE_TARGET void readView(ZEL_TILE_PARAMETERS) {
    float const* const values = stage->in[0] + at;
    std::memcpy(&v0, values, sizeof v0);
    std::memcpy(&v1, values + 8, sizeof v1);
    float const x = stage->in[1][0], y = stage->in[1][1], z = stage->in[1][2];
    v2 = v3 = Float8{x, x, x, x, x, x, x, x};
    v4 = v5 = Float8{y, y, y, y, y, y, y, y};
    v6 = v7 = Float8{z, z, z, z, z, z, z, z};
    stage[1].run(stage + 1, at, ZEL_TILE);
}

#undef ZEL_TILE
#undef ZEL_TILE_PARAMETERS

ZEL_WIDE_TARGET void runStages(Stage const* stages, int count, int tileSize) {
    Float8 const none{};
    for (int at = 0; at < count; at += tileSize)
        stages->run(stages, at, none, none, none, none, none, none, none, none);
#ifdef __x86_64__
    __builtin_ia32_vzeroupper();  // g++ leaves it out after calls that pass vectors
#endif
}

}  // namespace

bool Block::runFusion(void const* node, BlockResult<float>& out) {
    Fuser const& fuser = *m_workspace.fuser;
    detail::Fusion* const fusion = fuser.find(node);
    if (!fusion || fusion->isRunning()) return false;
    // The values of nodes below are of use where a gradient is asked for, unless it comes from a
    // fusion too.
    if (m_positions.keepAll && !fuser.findDual(node)) return false;
    fusion->run(*this, out);
    return true;
}

bool Block::runDualFusion(void const* node, BlockResult<float3>& out) {
    detail::Fusion* const fusion = m_workspace.fuser->findDual(node);
    if (!fusion) return false;
    out.set(fusion->runDuals(*this).second);
    return true;
}

void detail::Fusion::view(Block& block) {
    auto const& at = block.positions().component;
    if (m_viewedAt[0] == at[0] && m_viewedAt[1] == at[1] && m_viewedAt[2] == at[2]) return;
    m_viewedAt = {};
    bool lasting = true;
    for (Operand const& operand : std::span(m_views, static_cast<std::size_t>(m_viewCount))) {
        auto& in = m_stages[operand.stage].in;
        if (!operand.view) {
            in = at;
            continue;
        }
        Columns<float> const values = operand.view(operand.viewed, block);
        in[static_cast<unsigned>(operand.number)] = values.component[0];
        lasting = lasting && values.lasting;
    }
    if (lasting) m_viewedAt = at;
}

void detail::Fusion::run(Block& block, BlockResult<float>& out) {
    // The last tile may be longer than the block, and then there may be no room for it.
    bool const isWhole = block.count() % kTileSize == 0;
    BlockResult<float> own(isWhole ? out.storage : block.allocate());
    Block::Frame const frame(block);
    struct Running {
        explicit Running(bool& isRunning) : flag(isRunning) { flag = true; }
        ~Running() { flag = false; }
        bool& flag;
    } const running(m_isRunning);
    view(block);
    bool light = true;
    for (Operand const& operand : std::span(m_operands, static_cast<std::size_t>(m_operandCount))) {
        Columns<float> const values = block.values(*operand.child);
        m_stages[operand.stage].in[static_cast<unsigned>(operand.number)] = values.component[0];
        light = light && values.light;
    }
    m_stages[m_stageCount - 1].out = own.writer().component[0];
    runStages(m_stages, block.count(), kTileSize);
    out.set(own.columns);
    out.columns.light = light;
}

std::pair<Columns<float>, Columns<float3>> detail::Fusion::runDuals(Block& block) {
    float* const out = block.allocate(4);
    view(block);
    m_stages[m_stageCount - 1].out = out;
    runStages(m_stages, block.count(), kDualTileSize);
    return {{{out}, false, true},
            {{out + kBlockSize, out + 2 * kBlockSize, out + 3 * kBlockSize}, false, true}};
}

/// A fusion in the making. What a stage gives is known by the number of the stage.
struct Fuser::Draft {
    std::array<Stage, kMostStages> stages;
    std::array<int, kMostStages> spill;  // which one holds a tile that is not in the registers
    std::array<detail::Fusion::Operand, kMostOperands> operands;
    int nodeCount = 0, stageCount = 0, operandCount = 0;
    int inRegisters = kNothing;
    int added = kNothing;  // by the last `fuse`: a stage, or the complement of an operand
    bool asksChildren = false, isFull = false, hasChoice = false;
    unsigned freeSpills = (1U << kMostSpills) - 1;

    Stage& addStage(Stage::Run run, void const* self) {
        Stage& stage = stages[static_cast<unsigned>(stageCount++)];
        stage = {run, self, {}, nullptr};
        return stage;
    }
    int addOperand(detail::Fusion::Operand const& operand) {
        operands[static_cast<unsigned>(operandCount)] = operand;
        asksChildren |= operand.child != nullptr;
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

detail::Fusion* Fuser::Range::findDual(void const* node) const {
    return m_workspace.fuser ? m_workspace.fuser->findDual(node) : nullptr;
}

template <class Interface> void Fuser::walk(Interface const& root) {
    m_root = &root;
    for (Aim const aim : {kCount, kValues, kDuals}) {
        m_aim = aim;
        queue(root);
        while (m_waiting) fuse();
    }
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
    if (entry.timesQueued[m_aim]++ > 0) return;
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

void Fuser::fuse() {
    m_outermost = *std::exchange(m_waiting, m_waiting->next);
    Draft draft;
    m_draft = &draft;
    if (!entryOf(m_outermost.node).hasNoDuals) m_outermost.fuse(m_outermost.node, *this);
    if (m_aim == kValues) {
        entryOf(m_outermost.node).values = finish();
    } else if (m_aim == kDuals) {
        // A child that is not among the stages may be one whose gradient is not to be asked for
        // wherever its value is.
        bool const isTooMuch =
            draft.hasChoice && (!isAtRoot() || draft.nodeCount > kMostNodesWithChoice);
        if (!draft.asksChildren && !isTooMuch && !entryOf(m_outermost.node).hasNoDuals) {
            entryOf(m_outermost.node).duals = finish();
        } else {
            m_namesChildren = true;
            m_outermost.fuse(m_outermost.node, *this);
            m_namesChildren = false;
        }
    }
}

detail::Fusion* Fuser::finish() {
    Draft& draft = *m_draft;
    if (draft.added < 0 || draft.nodeCount < 2) return nullptr;  // nothing is passed on
    draft.addStage(m_aim == kValues ? writeValues : writeDuals, nullptr);
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
    return fusion;
}

bool Fuser::isRoomForNode() {
    // Its first stage, or that of a child, will need the registers.
    bool const isRoom =
        m_draft->nodeCount < kMostNodes && (m_draft->inRegisters < 0 || m_draft->freeSpills);
    m_draft->isFull |= !isRoom;
    return isRoom;
}

void Fuser::vacateRegisters() {
    Draft& draft = *m_draft;
    if (draft.inRegisters < 0) return;
    int const spill = std::countr_zero(draft.freeSpills);
    draft.freeSpills &= draft.freeSpills - 1;
    float*& array = m_spills[static_cast<unsigned>(spill)];
    if (!array) array = m_memory.floats(kBlockSize);
    draft.addStage(m_aim == kValues ? spillValues : spillDuals, nullptr).out = array;
    draft.spill[static_cast<unsigned>(std::exchange(draft.inRegisters, kNothing))] = spill;
}

int Fuser::ask(ScalarPtr const& child) {
    m_draft->added = kNothing;
    Entry const& entry = entryOf(&*child);
    bool const isShared = m_isAnyHidden ? child.useCount() > 1 : entry.timesQueued[kCount] > 1;
    if (isShared && !entry.isView)
        queue(*child);
    else
        child->fuse(*this);
    int const added = m_draft->added;
    return added != kNothing ? added : m_draft->addOperand({&child, nullptr, nullptr, 0, 0});
}

void Fuser::add(ScalarField const& node, void const* self, detail::Forms const& forms,
                std::initializer_list<ScalarPtr const*> children) {
    if (!adds()) {
        for (ScalarPtr const* const child : children) queue(**child);
        return;
    }
    Draft& draft = *m_draft;
    if (!isRoomForNode()) return queue(node);
    int const above = draft.nodeCount++;
    draft.hasChoice |= forms.choosesGradient;
    std::array<int, 3> values;
    int number = 0, form = 0;
    for (ScalarPtr const* const child : children) {
        values[static_cast<unsigned>(number++)] = ask(*child);
        if (m_aim == kDuals && (draft.asksChildren || (draft.hasChoice && !isAtRoot()))) {
            // Nothing comes of this walk. One from here would meet the same child or choice; or,
            // where there was only too much for one fusion, as much again if this node is near the
            // outermost. Then it is given up, for the sake of long chains, which would be walked
            // often.
            if (!draft.isFull || above < kMostNodes / 2) entryOf(&node).hasNoDuals = true;
            return;
        }
    }
    for (int i = 0; i < number; ++i)
        if (values[static_cast<unsigned>(i)] >= 0 &&
            values[static_cast<unsigned>(i)] == draft.inRegisters)
            form = 1 + i;
    if (form == 0) vacateRegisters();  // no child was added but as an operand: there is room yet
    int const own = draft.stageCount;
    Stage& stage = draft.addStage((m_aim == kValues ? forms.values : forms.duals)[form], self);
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

void Fuser::addLeaf(void const* self, detail::LeafForms const& forms) {
    if (!adds()) return;
    Draft& draft = *m_draft;
    if (!isRoomForNode()) return;
    vacateRegisters();
    ++draft.nodeCount;
    draft.addOperand({nullptr, nullptr, nullptr, draft.stageCount, 0});
    draft.added = draft.inRegisters = draft.stageCount;
    draft.addStage(m_aim == kValues ? forms.values : forms.duals, self);
}

void Fuser::addView(void const* self, detail::View view, float3 const& gradient) {
    if (m_aim == kCount) entryOf(m_outermost.node).isView = true;
    if (!adds()) return;
    Draft& draft = *m_draft;
    if (m_aim == kValues) {
        draft.added = draft.addOperand({nullptr, view, self, 0, 0});
    } else if (isRoomForNode()) {
        vacateRegisters();
        ++draft.nodeCount;
        draft.addOperand({nullptr, view, self, draft.stageCount, 0});
        draft.added = draft.inRegisters = draft.stageCount;
        float* const components = allocate<float>(3);
        for (int c = 0; c < 3; ++c) components[c] = gradient[c];
        draft.addStage(readView, nullptr).in[1] = components;
    }
}

}  // namespace zel

void Core::Fields::ScalarField::fuse(zel::Fuser& fuser) const {
    fuser.hideChildren();
}

void Core::Fields::VectorField::fuse(zel::Fuser& fuser) const {
    fuser.hideChildren();
}
