#pragma once

#include <climits>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "zel/api.h"
#include "zel/batch/columns.h"
#include "zel/batch/position_set.h"
#include "zel/batch/workspace.h"
#include "zel_platform/orvane_math/vectors.h"
#include "zel_platform/quern_core/ptr.h"

namespace zel {

namespace detail {
class FusionPlan;
}  // namespace detail

/// Positions at which a graph is evaluated together, 1 to kBlockSize of them, on one thread. A node
/// asks its children for their values and gradients through the block, in its `evalBlock` and
/// `gradBlock`:
///
///     zel::Block::Frame const frame(block);
///     zel::Columns<float> const v = block.values(child);
///
/// A node of the library with several owners computes its values once at each position, however
/// many parents ask for them, and its gradients once.
class ZEL_API Block {
public:
    using float3 = Orvane::Math::float3;

    Block(detail::Workspace& workspace, detail::PositionSet& positions, int count,
          Columns<float3>::Components const& at)
        : m_workspace(workspace), m_positions(positions),
          m_count(count), m_coordinates{at, true, true} {}
    Block(Block const&) = delete;
    Block& operator=(Block const&) = delete;

    int count() const { return m_count; }
    Columns<float3> const& positions() const { return m_coordinates; }
    /// The element index of position `i`.
    long long index(int i) const { return m_positions.element(numberOf(i)); }
    /// Whether the element indices rise by one from each position to the next, without overflow.
    bool hasConsecutiveIndices() const {
        return !m_choice && !m_positions.offsets && m_positions.first <= LLONG_MAX - kBlockSize;
    }

    /// Returns the values, or the gradients, of a child at the positions. The columns are valid
    /// until the frame ends in which they were asked for, or longer if they are persistent. Throws
    /// what the child throws, and std::length_error if the graph has more levels than the stack of
    /// the thread allows.
    template <class Interface>
    Columns<typename Interface::Value> values(Quern::Ptr<Interface> const& child) {
        return ask<false>(*child, isShared(child));
    }
    template <class Interface>
    Columns<typename Interface::Gradient> gradients(Quern::Ptr<Interface> const& child) {
        m_positions.keepAll = true;
        return ask<true>(*child, isShared(child));
    }

    /// Both. A node that has its gradients for little beside its values computes them together.
    template <class Interface>
    std::pair<Columns<typename Interface::Value>, Columns<typename Interface::Gradient>>
    valuesAndGradients(Quern::Ptr<Interface> const& child) {
        m_positions.keepAll = true;
        auto const known = values(child);
        return {known, gradients(child)};
    }

    /// The same as `values` and `gradients`, but columns that do not exist yet are written to the
    /// storage of `room`, and are valid only until `room` is written. A node asks for one child in
    /// this way, and then replaces the child's values by its own: a chain of nodes reuses the same
    /// cache lines. Nothing else that the node reads may be in `room`.
    template <class Interface>
    Columns<typename Interface::Value> values(Quern::Ptr<Interface> const& child,
                                              BlockResult<typename Interface::Value> const& room) {
        return ask<false>(*child, isShared(child), &room);
    }
    template <class Interface>
    Columns<typename Interface::Gradient>
    gradients(Quern::Ptr<Interface> const& child,
              BlockResult<typename Interface::Gradient> const& room) {
        m_positions.keepAll = true;
        return ask<true>(*child, isShared(child), &room);
    }

    /// The same for a node that is not a child.
    template <class Interface> Columns<typename Interface::Value> values(Interface const& node) {
        return ask<false>(node, false);
    }
    template <class Interface>
    Columns<typename Interface::Gradient> gradients(Interface const& node) {
        m_positions.keepAll = true;
        return ask<true>(node, false);
    }

    /// Writes the values of a child, or of a node that is not a child, to the storage of `out`, for
    /// a node whose own values they are.
    template <class Interface>
    void writeValues(Quern::Ptr<Interface> const& child,
                     BlockResult<typename Interface::Value>& out) {
        write(*child, isShared(child), out);
    }
    template <class Interface>
    void writeValues(Interface const& node, BlockResult<typename Interface::Value>& out) {
        write(node, false, out);
    }

    /// For a node that has its gradients for little beside its values. If gradients are asked for
    /// at the positions of the block too, and those of the node are not known yet, it calls
    /// `work(writer)`, which writes both; the gradients are then kept. Else returns false.
    template <class Interface, class Work>
    bool withGradients(Interface const& node, Work const& work) {
        using Gradient = typename Interface::Gradient;
        float* const storage = reserveGradients(&node, kComponents<Gradient>);
        if (!storage) return false;
        work(BlockResult<Gradient>(storage).writer());
        keepGradients(&node, kComponents<Gradient>, storage);
        return true;
    }

    /// A column of one value.
    Columns<float> constant(float value);
    /// Changes when columns of constants that were persistent end, after a batch.
    std::uint64_t constantsVersion() const { return m_workspace.constantsVersion(); }

    /// Sets `out` to the values, or the gradients, of a node of the library by the fusion whose
    /// root it is. Returns false if there is no such fusion, and leaves `out` as it is.
    bool evalFused(void const* node, BlockResult<float>& out) {
        return m_workspace.plan && runFusion(node, out);
    }
    bool gradFused(void const* node, BlockResult<float3>& out) {
        return m_workspace.plan && runDualFusion(node, out);
    }

    /// Allocates columns that are valid until the frame ends.
    float* allocate(std::size_t columns = 1) {
        return m_workspace.stack.floats(columns * kBlockSize);
    }
    /// The same for kBlockSize integers.
    int* allocateInts() const {
        return static_cast<int*>(m_workspace.stack.allocate(kBlockSize * sizeof(int)));
    }
    template <class T> BlockResult<T> result() { return BlockResult<T>(allocate(kComponents<T>)); }

    /// Releases at its end what is asked for and allocated while it exists.
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

    /// Calls `work(block)` with a block of the `count` positions that `choice` lists, in rising
    /// order.
    template <class Work> void withChoice(int const* choice, int count, Work const& work) {
        Frame const frame(*this);
        float* const xyz = allocate(3);
        int* const numbers = choose(choice, count, xyz);
        Block block(m_workspace, m_positions, count, {xyz, xyz + kBlockSize, xyz + 2 * kBlockSize});
        block.m_choice = numbers;
        work(block);
    }

    /// Calls `work(block)` with a block of other positions for the same elements; with `choice`,
    /// for the `count` elements that it lists. All columns of that block are released with it,
    /// persistent ones too. A node that also needs a child at the positions of this block asks for
    /// it first: what is asked of this block during `work` is not kept for other parents.
    template <class Work> void withPositions(Columns<float3> const& other, Work const& work) {
        withPositions(other, nullptr, m_count, work);
    }
    template <class Work>
    void withPositions(Columns<float3> const& other, int const* choice, int count,
                       Work const& work) {
        Frame const frame(*this);
        detail::PositionSet positions;
        moveElements(positions, choice, count);
        detail::PositionScope const scope(m_workspace, positions);
        Block block(m_workspace, positions, count, other.component);
        work(block);
    }

private:
    template <bool gradient, class Interface>
    using Asked =
        std::conditional_t<gradient, typename Interface::Gradient, typename Interface::Value>;

    template <class Interface> static bool isShared(Quern::Ptr<Interface> const& node) {
        return node.useCount() > 1;
    }
    template <bool gradient, class Interface>
    Columns<Asked<gradient, Interface>>
    ask(Interface const& node, bool shared,
        BlockResult<Asked<gradient, Interface>> const* room = nullptr) {
        m_workspace.expectStack();
        bool const maybeKept =
            shared ||
            (gradient ? m_positions.knowsGradients && knowsGradients(&node) : m_positions.keepAll);
        using T = Asked<gradient, Interface>;
        Columns<T> columns;  // returned in its place: see assign()
        if (maybeKept) {
            assign(columns, askKept<gradient>(node));
        } else {
            auto out = room ? BlockResult<T>(room->storage, room->stride) : result<T>();
            call<gradient>(node, *this, out);
            assign(columns, out.columns);
        }
        return columns;
    }
    template <bool gradient, class Interface, class Result>
    static void call(Interface const& node, Block& block, Result& out) {
        if constexpr (gradient)
            node.gradBlock(block, out);
        else
            node.evalBlock(block, out);
    }
    template <class Interface>
    void write(Interface const& node, bool shared, BlockResult<typename Interface::Value>& out);
    template <bool gradient, class Interface>
    Columns<Asked<gradient, Interface>> askKept(Interface const& node);
    template <bool gradient, class Interface>
    Columns<Asked<gradient, Interface>> complete(Interface const& node, detail::KeptResult* kept);

    bool knowsGradients(void const* node) const;
    float* reserveGradients(void const* node, std::size_t columns);
    void keepGradients(void const* node, std::size_t columns, float* storage);
    bool runFusion(void const* node, BlockResult<float>& out);
    bool runDualFusion(void const* node, BlockResult<float3>& out);
    int* choose(int const* choice, int count, float* xyz) const;
    void moveElements(detail::PositionSet& positions, int const* choice, int count) const;
    /// The number of position `i` in the set.
    int numberOf(int i) const { return m_choice ? m_choice[i] : i; }

    detail::Workspace& m_workspace;
    detail::PositionSet& m_positions;
    int m_count;
    int const* m_choice = nullptr;  // the number of each position in the set; null if all are here
    Columns<float3> m_coordinates;
};

}  // namespace zel
