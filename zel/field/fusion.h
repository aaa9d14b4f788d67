#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>

#include "zel/field/block.h"
#include "zel/field/node.h"

// Light scalar nodes that hang together are worked out as one: 64 positions at a time go through
// all their formulas in registers, where node by node each would read and write a whole block.
namespace zel {

namespace detail {

/// Whether this is done. g++ passes eight vectors of AVX2 from function to function in registers;
/// other compilers pass them through memory, which gains nothing.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
inline constexpr bool kFusesNodes = true;
#else
inline constexpr bool kFusesNodes = false;
#endif

/// The number of values that are passed from stage to stage, in eight vectors.
inline constexpr int kTileSize = 64;
using Float8 = float __attribute__((vector_size(32)));

/// What one node does to a tile of values, or what becomes of the tile. It calls the stage after
/// it, which is the next one of an array.
struct Stage {
    using Run = void (*)(Stage const* stage, std::ptrdiff_t at, Float8, Float8, Float8, Float8,
                         Float8, Float8, Float8, Float8);

    Run run;
    void const* node;
    std::array<float const*, 3> in;  ///< arrays of a block, by the number of the child
    float* out;                      ///< an array of a block
};

/// Nodes that are worked out as one, and what they ask of others.
class Fusion {
public:
    /// Names the arrays of a node of the library that has them without work.
    using View = Lanes<float> (*)(void const* node, Block& block);

    /// What a stage reads: the values of a child, or of a view, or else the positions.
    struct Operand {
        ScalarPtr const* child;
        View view;
        void const* viewed;
        int stage;
        int number;  ///< of the child
    };

    /// Sets `out` to the values of the outermost node. Needs AVX2.
    void run(Block& block, BlockResult<float>& out);

private:
    friend Fuser;

    void view(Block& block);

    Stage* m_stages = nullptr;  // the last one writes the values
    Operand* m_views = nullptr;
    Operand* m_operands = nullptr;
    int m_stageCount = 0, m_viewCount = 0, m_operandCount = 0;
    Lanes<float3>::Components m_viewedAt{};  // the positions for which the views hold
};

}  // namespace detail

/// Finds out which nodes of a tree are to be worked out as one, in a walk from its root. Nodes tell
/// about themselves in their `fuse`.
///
/// A node with several parents is worked out once, by itself or as the outermost one of others.
/// What is below a node of another library stays as it is: it may be asked from there too, or be
/// replaced while the tree is in use.
class ZEL_API Fuser {
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

    private:
        detail::Workspace& m_workspace;
        Fuser* const m_outer;
        detail::Arena::Mark const m_mark;
    };

    /// What works out a node as the outermost one of several; null if nothing does.
    detail::Fusion* find(void const* node) const { return entryOf(node).fusion; }

    // For `fuse`, which may be called more than once:

    /// Names a child that is asked by itself.
    void queue(ScalarField const& child);
    void queue(VectorField const& child);
    /// Says that there may be children that are not named.
    void hideChildren() { m_isAnyHidden = true; }

    /// Adds a node that is a formula of its children, three at most. The first of `forms` takes
    /// them all from memory, the others take one of them from the registers, by its number.
    void add(ScalarField const& node, void const* self, Stage::Run const* forms,
             std::initializer_list<ScalarPtr const*> children);
    /// Adds a formula of the position.
    void addLeaf(void const* self, Stage::Run run);
    /// Adds arrays that are there already. They depend on nothing but the node, and on where the
    /// block has its positions.
    void addView(void const* self, detail::Fusion::View view);

private:
    static constexpr int kMostSpills = 8;
    struct Draft;
    struct Entry {
        void const* node;
        detail::Fusion* fusion;
        unsigned parents, timesQueued;
        bool isView;
    };
    struct Waiting {
        void const* node;
        void (*fuse)(void const* node, Fuser& fuser);
        Waiting* next;
    };

    explicit Fuser(detail::Arena& memory) : m_memory(memory) {}
    template <class Interface> void walk(Interface const& root);
    template <class Interface> void queueNode(Interface const& node);
    void count();
    void fuse();
    int ask(ScalarPtr const& child);
    bool vacateRegisters();
    Entry& entryOf(void const* node) const;
    void growTable();
    template <class T> T* allocate(std::size_t count);

    detail::Arena& m_memory;
    Entry* m_table = nullptr;
    std::size_t m_tableSize = 0, m_entryCount = 0;
    Waiting* m_waiting = nullptr;
    Waiting m_current{};
    bool m_isCounting = true, m_isAnyHidden = false;
    Draft* m_draft = nullptr;
    std::array<float*, kMostSpills> m_spills{};
};

}  // namespace zel
