#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "zel/api.h"
#include "zel/batch/columns.h"
#include "zel/field/scalar_field.h"
#include "zel/field/vector_field.h"
#include "zel_platform/quern_core/ptr.h"

namespace zel {

namespace detail {

class FusionPlan;

/// Memory that is taken and given back in the order of a stack. What it has once taken it keeps.
class ZEL_API Arena {
public:
    /// A place in the stack; releasing it gives up what was taken since.
    using Mark = std::byte*;

    Mark mark() const { return m_next; }
    void release(Mark mark) {
        if (std::less_equal<>()(m_begin, mark) && std::less_equal<>()(mark, m_end))
            m_next = mark;
        else
            returnTo(mark);
    }

    /// `size` bytes, aligned to 64.
    void* allocate(std::size_t size) {
        size = (size + 63) & ~std::size_t{63};
        if (static_cast<std::size_t>(m_end - m_next) < size) nextChunk(size);
        std::byte* const place = m_next;
        m_next += size;
        return place;
    }
    float* floats(int count) {
        return static_cast<float*>(allocate(static_cast<std::size_t>(count) * sizeof(float)));
    }

private:
    struct Chunk {
        std::unique_ptr<std::byte[]> memory;
        std::byte* begin = nullptr;
        std::byte* end = nullptr;
    };
    void nextChunk(std::size_t size);
    void returnTo(Mark mark);
    void use(std::size_t chunk);

    std::byte* m_next = nullptr;  // in the current chunk, whose bounds follow
    std::byte* m_begin = nullptr;
    std::byte* m_end = nullptr;
    std::size_t m_current = 0;
    std::vector<Chunk> m_chunks;
};

struct Positions;

/// What a thread evaluates blocks with. It grows on first use and stays with the thread.
class Workspace {
public:
    static Workspace& local();

    /// An array of kBlockSize floats of one value, which stays for as long as the thread runs
    /// batches; null when there are too many values already.
    float const* constant(float value);

    /// Brackets the work on a range of positions, which may start another one below it.
    class Run {
    public:
        explicit Run(Workspace& workspace);
        ~Run() { --m_workspace.m_depth; }
        Run(Run const&) = delete;
        Run& operator=(Run const&) = delete;

    private:
        Workspace& m_workspace;
    };

    /// Whether the range that is worked on is below another one.
    bool isNested() const { return m_depth > 1; }

    Arena stack;                           ///< results of the nodes that are at work
    Arena kept;                            ///< results that are kept until their positions are done
    Arena plans;                           ///< plans of fusions, with their fusions
    Positions const* innermost = nullptr;  ///< whose results are kept now
    FusionPlan const* plan = nullptr;      ///< of the positions that are worked on, if any
    // Of the last range that was not nested: its batch, how many positions this thread has had of
    // it, and the plan of its tree.
    std::uint64_t batch = 0;
    std::size_t countOfBatch = 0;
    FusionPlan const* planOfBatch = nullptr;
    std::size_t bucketCount = 8;

private:
    static constexpr unsigned kMaxConstants = 64, kSlots = 2 * kMaxConstants;
    struct Slot {
        std::uint32_t bits;
        float const* values;
    };

    std::array<Slot, kSlots> m_slots{};
    Arena m_constants;
    unsigned m_constantCount = 0;
    int m_depth = 0;
};

/// A node at the positions of a block, as it is known so far.
struct KeptResult {
    void const* node;
    bool gradient;
    bool complete;  ///< known at all positions
    bool light;
    KeptResult* next;
    std::array<std::uint64_t, kBlockSize / 64> known;  ///< bit i: position i
    float const* component[9];
    float* storage;
};

/// Positions that nodes are asked at, with all that is kept about them. Blocks are these positions,
/// or some of them.
struct Positions {
    long long first = 0;           ///< element index of position 0
    int const* indices = nullptr;  ///< if not null, what to add to `first` for each position
    KeptResult** buckets = nullptr;
    std::size_t bucketCount = 0, keptCount = 0;
    bool keepAll = false;  ///< whether the values of all nodes are kept, not of shared ones alone
};

}  // namespace detail

/// Positions at which a tree is evaluated together, 1 to kBlockSize of them, on one thread. A node
/// asks its children through it, in its `evalBlock` and `gradBlock`:
///
///     zel::Block::Frame const frame(block);
///     zel::Columns<float> const v = block.values(child);
///
/// Nodes of the library with more than one owner are worked out once at the same positions, however
/// often they are asked.
class ZEL_API Block {
public:
    using float3 = Orvane::Math::float3;

    Block(detail::Workspace& workspace, detail::Positions& positions, int count, float const* x,
          float const* y, float const* z)
        : m_workspace(workspace), m_positions(positions),
          m_count(count), m_position{{x, y, z}, true, true} {}
    Block(Block const&) = delete;
    Block& operator=(Block const&) = delete;

    int count() const { return m_count; }
    /// The positions.
    Columns<float3> const& positions() const { return m_position; }
    /// The element index of position `i`.
    long long index(int i) const {
        int const at = m_choice ? m_choice[i] : i;
        return m_positions.first + (m_positions.indices ? m_positions.indices[at] : at);
    }

    /// The values, and the gradients, of a child at these positions. The arrays stay until the
    /// frame ends in which they were asked for, unless they are lasting. Throws what the node
    /// throws.
    template <class Interface>
    Columns<typename Interface::Value> values(Quern::Ptr<Interface> const& child) {
        return ask<false>(*child, child.useCount() > 1);
    }
    template <class Interface>
    Columns<typename Interface::Gradient> gradients(Quern::Ptr<Interface> const& child) {
        m_positions.keepAll = true;
        return ask<true>(*child, child.useCount() > 1);
    }
    /// The same, in the storage of `room` where there are no arrays of them yet, and only until
    /// `room` is written: a node asks one child so, whose values it then overwrites with its own.
    /// Nothing else that the node reads may lie there. So a chain of nodes works in one place, and
    /// the caches see little of it.
    template <class Interface>
    Columns<typename Interface::Value> values(Quern::Ptr<Interface> const& child,
                                              BlockResult<typename Interface::Value> const& room) {
        return ask<false>(*child, child.useCount() > 1, &room);
    }
    template <class Interface>
    Columns<typename Interface::Gradient>
    gradients(Quern::Ptr<Interface> const& child,
              BlockResult<typename Interface::Gradient> const& room) {
        m_positions.keepAll = true;
        return ask<true>(*child, child.useCount() > 1, &room);
    }
    /// The same of a node that is not a child.
    template <class Interface> Columns<typename Interface::Value> values(Interface const& node) {
        return ask<false>(node, false);
    }
    template <class Interface>
    Columns<typename Interface::Gradient> gradients(Interface const& node) {
        m_positions.keepAll = true;
        return ask<true>(node, false);
    }
    /// Writes a node's values to the storage of `out`.
    template <class Interface>
    void writeValues(Interface const& node, bool shared,
                     BlockResult<typename Interface::Value>& out);

    /// An array of one value.
    Columns<float> constant(float value);

    /// Sets `out` to the values, or the gradients, of a node of the library by the fusion whose
    /// root it is. Returns false if there is no such fusion, and leaves `out` as it is.
    bool evalFused(void const* node, BlockResult<float>& out) {
        return m_workspace.plan && runFusion(node, out);
    }
    bool gradFused(void const* node, BlockResult<float3>& out) {
        return m_workspace.plan && runDualFusion(node, out);
    }

    /// Takes arrays that stay until the frame ends.
    float* allocate(int arrays = 1) { return m_workspace.stack.floats(arrays * kBlockSize); }
    template <class T> BlockResult<T> result() { return BlockResult<T>(allocate(kComponents<T>)); }

    /// What is asked for and allocated while a frame exists is given up when it ends.
    class Frame {
    public:
        explicit Frame(Block& block) : Frame(block, block.m_workspace.stack.mark()) {}
        Frame(Block& block, detail::Arena::Mark mark)
            : m_stack(block.m_workspace.stack), m_mark(mark) {}
        ~Frame() { m_stack.release(m_mark); }
        Frame(Frame const&) = delete;
        Frame& operator=(Frame const&) = delete;

    private:
        detail::Arena& m_stack;
        detail::Arena::Mark m_mark;
    };

    /// Calls `work(block)` with the `count` positions of this block whose places are in `choice`,
    /// rising.
    template <class Work> void withChoice(int const* choice, int count, Work const& work) {
        Frame const frame(*this);
        float* const xyz = allocate(3);
        int* const places = choose(choice, count, xyz);
        Block block(m_workspace, m_positions, count, xyz, xyz + kBlockSize, xyz + 2 * kBlockSize);
        block.m_choice = places;
        work(block);
    }

    /// Calls `work(block)` with other positions for the same elements; with `choice`, for `count`
    /// of them only. What that block gives ends with it, also what is lasting. What a child gives
    /// at the positions of this block is best asked for before: asked for from within, it is not
    /// kept for the child's other parents.
    template <class Work> void withPositions(Columns<float3> const& other, Work const& work) {
        withPositions(other, nullptr, m_count, work);
    }
    template <class Work>
    void withPositions(Columns<float3> const& other, int const* choice, int count,
                       Work const& work) {
        Frame const frame(*this);
        detail::Positions positions;
        moveIndices(positions, choice, count);
        Kept const kept(m_workspace, positions);
        Block block(m_workspace, positions, count, other.component[0], other.component[1],
                    other.component[2]);
        work(block);
    }

    /// Gives up what was kept about positions, when they are done.
    class Kept {
    public:
        Kept(detail::Workspace& workspace, detail::Positions& positions)
            : m_workspace(workspace), m_positions(positions), m_mark(workspace.kept.mark()),
              m_outer(std::exchange(workspace.innermost, &positions)) {}
        ~Kept();
        Kept(Kept const&) = delete;
        Kept& operator=(Kept const&) = delete;

    private:
        detail::Workspace& m_workspace;
        detail::Positions& m_positions;
        detail::Arena::Mark m_mark;
        detail::Positions const* m_outer;
    };

private:
    template <bool gradient, class Interface>
    using Asked =
        std::conditional_t<gradient, typename Interface::Gradient, typename Interface::Value>;

    template <bool gradient, class Interface>
    Columns<Asked<gradient, Interface>>
    ask(Interface const& node, bool shared,
        BlockResult<Asked<gradient, Interface>> const* room = nullptr) {
        if (shared || (m_positions.keepAll && !gradient)) return askKept<gradient>(node);
        using T = Asked<gradient, Interface>;
        auto out = room ? BlockResult<T>(room->storage, room->stride) : result<T>();
        call<gradient>(node, *this, out);
        return out.columns;
    }
    template <bool gradient, class Interface, class Result>
    static void call(Interface const& node, Block& block, Result& out) {
        if constexpr (gradient)
            node.gradBlock(block, out);
        else
            node.evalBlock(block, out);
    }
    template <bool gradient, class Interface>
    Columns<Asked<gradient, Interface>> askKept(Interface const& node);
    template <bool gradient, class Interface>
    Columns<Asked<gradient, Interface>> complete(Interface const& node, detail::KeptResult* kept);

    ZEL_INTERNAL detail::KeptResult* find(void const* node, bool gradient) const;
    ZEL_INTERNAL detail::KeptResult* keep(void const* node, bool gradient, float* storage);
    bool runFusion(void const* node, BlockResult<float>& out);
    bool runDualFusion(void const* node, BlockResult<float3>& out);
    int* choose(int const* choice, int count, float* xyz) const;
    void moveIndices(detail::Positions& positions, int const* choice, int count) const;
    int place(int i) const { return m_choice ? m_choice[i] : i; }

    detail::Workspace& m_workspace;
    detail::Positions& m_positions;
    int m_count;
    int const* m_choice = nullptr;  // the places of these positions among those of m_positions
    Columns<float3> m_position;
};

namespace detail {

/// The gradients of a node without a formula for them, by differences of its own values.
template <class Interface>
ZEL_API void differencesInBlock(Interface const& node, Block& block,
                                BlockResult<typename Interface::Gradient>& out);

/// By one call of the node's point `eval` or `grad` for each position.
template <class Interface>
ZEL_API void evalByPoints(Interface const& node, Block& block,
                          BlockResult<typename Interface::Value>& out);
template <class Interface>
ZEL_API void gradByPoints(Interface const& node, Block& block,
                          BlockResult<typename Interface::Gradient>& out);

}  // namespace detail
}  // namespace zel
