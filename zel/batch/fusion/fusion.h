#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <utility>

#include "zel/batch/block.h"
#include "zel/node/node.h"

// Light scalar nodes that hang together are worked out as one: 64 positions at a time go through
// all their formulas in registers, where node by node each would read and write a whole block. With
// gradients it is 16, of trees without any other nodes among them.
namespace zel {

namespace detail {

/// Whether this is done. g++ passes eight vectors of AVX2 from function to function in registers;
/// other compilers pass them through memory, which gains nothing.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
inline constexpr bool kFusesNodes = true;
#else
inline constexpr bool kFusesNodes = false;
#endif

/// The number of floats that are passed from stage to stage, in eight vectors: the values at that
/// many positions; or at kDualTileSize of them the values and then the gradients, a component after
/// the other.
inline constexpr int kTileSize = 64, kDualTileSize = kTileSize / 4;
using Float8 = float __attribute__((vector_size(32)));

/// What one node does to a tile, or what becomes of the tile. It calls the stage after it, which is
/// the next one of an array.
struct Stage {
    using Run = void (*)(Stage const* stage, std::ptrdiff_t at, Float8, Float8, Float8, Float8,
                         Float8, Float8, Float8, Float8);

    Run run;
    void const* node;
    std::array<float const*, 3> in;  ///< arrays of a block, or tiles, by the number of the child
    float* out;                      ///< an array of a block, or a tile
};

/// The stages of a formula of children, for values and for values with gradients. The first of each
/// takes all children from memory; the others take one of them from the registers, by its number.
struct Forms {
    Stage::Run const* values;
    Stage::Run const* duals;
    bool choosesGradient;  ///< of one child, or none
};

/// The stages of a formula of the position.
struct LeafForms {
    Stage::Run values;
    Stage::Run duals;
};

/// Names the arrays of a node that has its values without work. They depend on nothing but the
/// node, and on where the block has its positions.
using View = Columns<float> (*)(void const* node, Block& block);

/// Nodes that are worked out as one, and what they ask of others.
class Fusion {
public:
    /// What a stage reads: the values of a child, or of a view, or else the positions.
    struct Operand {
        ScalarPtr const* child;
        View view;
        void const* viewed;
        int stage;
        int number;  ///< of the child
    };

    /// Whether it is at work already, and has asked a child that asks its outermost node again.
    bool isRunning() const { return m_isRunning; }
    /// Sets `out` to the values of the outermost node. Needs AVX2.
    void run(Block& block, BlockResult<float>& out);
    /// Its values and gradients, where the stages are those for both. Needs AVX2.
    std::pair<Columns<float>, Columns<float3>> runDuals(Block& block);

private:
    friend Fuser;

    void view(Block& block);

    Stage* m_stages = nullptr;  // the last one writes the values
    Operand* m_views = nullptr;
    Operand* m_operands = nullptr;
    int m_stageCount = 0, m_viewCount = 0, m_operandCount = 0;
    bool m_isRunning = false;
    Columns<float3>::Components m_viewedAt{};  // the positions for which the views hold
};

}  // namespace detail

/// Finds out which nodes of a tree are to be worked out as one, in a walk from its root. Nodes tell
/// about themselves in their `fuse`.
///
/// A node with several parents is worked out once, by itself or as the outermost one of others. In
/// a tree with a node of another library it is one with several owners: that node may ask it too.
/// What only such a node knows of stays as it is, since it may be replaced while the tree is in
/// use.
class Fuser {
public:
    using Stage = detail::Stage;

    /// Brackets the work on `count` positions of a batch, whose number is its own. There is a walk
    /// when this thread has had enough of the batch to make up for it. What was found is kept for
    /// the next range of the batch, unless the batch is part of the work on another.
    class Range {
    public:
        template <class Interface>
        Range(detail::Workspace& workspace, Interface const& root, std::uint64_t batch,
              std::size_t count);
        ~Range();
        Range(Range const&) = delete;
        Range& operator=(Range const&) = delete;

        /// What works out the values and gradients of a node in this range; null if nothing does.
        detail::Fusion* findDual(void const* node) const;

    private:
        detail::Workspace& m_workspace;
        Fuser* const m_outer;
        detail::Arena::Mark const m_mark;
    };

    /// What works out a node as the outermost one of several, its values, or these and its
    /// gradients; null if nothing does.
    detail::Fusion* find(void const* node) const { return entryOf(node).values; }
    detail::Fusion* findDual(void const* node) const { return entryOf(node).duals; }

    // For `fuse`, which may be called more than once:

    /// Names a child that is asked by itself.
    void queue(ScalarField const& child);
    void queue(VectorField const& child);
    /// Says that there may be children that are not named.
    void hideChildren() { m_isAnyHidden = true; }

    /// Adds a formula of children, three at most.
    void add(ScalarField const& node, void const* self, detail::Forms const& forms,
             std::initializer_list<ScalarPtr const*> children);
    /// Adds a formula of the position.
    void addLeaf(void const* self, detail::LeafForms const& forms);
    /// Adds values that are there already, with the same gradient everywhere.
    void addView(void const* self, detail::View view, float3 const& gradient);

private:
    static constexpr int kMostSpills = 8;
    struct Draft;
    struct Entry {
        void const* node;
        detail::Fusion *values, *duals;
        std::array<unsigned, 3> timesQueued;  // by the aim; when counting, by each parent
        bool isView;
        bool hasNoDuals;  // it asks others, or has too much below it
    };
    struct Waiting {
        void const* node;
        void (*fuse)(void const* node, Fuser& fuser);
        Waiting* next;
    };

    explicit Fuser(detail::Arena& memory) : m_memory(memory) {}
    template <class Interface> void walk(Interface const& root);
    bool isAtRoot() const { return m_outermost.node == m_root; }
    bool adds() const { return m_aim != kCount && !m_namesChildren; }
    template <class Interface> void queueNode(Interface const& node);
    void fuse();
    detail::Fusion* finish();
    int ask(ScalarPtr const& child);
    bool isRoomForNode();
    void vacateRegisters();
    Entry& entryOf(void const* node) const;
    void growTable();
    template <class T> T* allocate(std::size_t count);

    detail::Arena& m_memory;
    Entry* m_table = nullptr;
    std::size_t m_tableSize = 0, m_entryCount = 0;
    Waiting* m_waiting = nullptr;
    Waiting m_outermost{};
    void const* m_root = nullptr;
    enum Aim { kCount, kValues, kDuals } m_aim = kCount;
    bool m_namesChildren = false;  // what `add` does then
    bool m_isAnyHidden = false;
    Draft* m_draft = nullptr;
    std::array<float*, kMostSpills> m_spills{};
};

}  // namespace zel
