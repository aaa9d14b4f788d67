#pragma once

#include <algorithm>
#include <array>
#include <concepts>
#include <cstring>
#include <tuple>
#include <type_traits>
#include <utility>

#include "zel/batch/block.h"
#include "zel/node/node_access.h"
#include "zel_platform/quern_core/position_loop.h"

// The block forms of the bases in node.h, by the formulas that their point forms use.
namespace zel {

namespace detail {

/// Sets `out` to `formula(node, v...)` of each position, with the values in `columns`. The formula
/// has no state of its own.
template <class T, class Node, class Formula, class... In>
void mapNode(Block& block, BlockResult<T>& out, Node const& node, Formula const& formula,
             Columns<In> const&... columns) {
    auto const write = out.writer();
    Quern::forEachPosition<kComponents<T> == 1>(
        block.count(),
        [write, formula, ... in = columns.component](int i, Node const& n)
            ZEL_ALWAYS_INLINE { write.set(i, formula(n, Columns<In>{in}[i]...)); },
        node);
}

}  // namespace detail

/// Sets `out` to `formula(v...)` of each position, with the values in `columns`. Part of a node's
/// block form.
template <class T, class Formula, class... In>
void mapBlock(Block& block, BlockResult<T>& out, Formula const& formula,
              Columns<In> const&... columns) {
    auto const object = formula;  // which a function is not
    detail::mapNode(
        block, out, object,
        [](auto const& f, auto const&... v) ZEL_ALWAYS_INLINE { return f(v...); }, columns...);
}

namespace detail {

/// Whether a node's point `grad` is the default one of its interface.
template <class Node, class Interface>
inline constexpr bool hasDefaultGradient =
    std::same_as<decltype(&Node::grad), decltype(&Interface::grad)>;

/// Values, and gradients, of the children, in their order. Those of the first may come to lie in
/// `room`.
template <class T, class First, class... Rest>
ZEL_ALWAYS_INLINE inline auto
valuesInBlock(Block& block, [[maybe_unused]] BlockResult<T> const& room,
              Quern::Ptr<First> const& first, Quern::Ptr<Rest> const&... rest) {
    auto const ofFirst = [&] {
        if constexpr (std::same_as<typename First::Value, T>)
            return block.values(first, room);
        else
            return block.values(first);
    };
    return std::tuple<Columns<typename First::Value>, Columns<typename Rest::Value>...>{
        ofFirst(), block.values(rest)...};
}
template <class T, class First, class... Rest>
ZEL_ALWAYS_INLINE inline auto
gradientsInBlock(Block& block, [[maybe_unused]] BlockResult<T> const& room,
                 Quern::Ptr<First> const& first, Quern::Ptr<Rest> const&... rest) {
    auto const ofFirst = [&] {
        if constexpr (std::same_as<typename First::Gradient, T>)
            return block.gradients(first, room);
        else
            return block.gradients(first);
    };
    return std::tuple<Columns<typename First::Gradient>, Columns<typename Rest::Gradient>...>{
        ofFirst(), block.gradients(rest)...};
}

/// An array of integers that stays until the frame ends.
inline int* allocateInts(Block& block) {
    static_assert(sizeof(int) == sizeof(float));
    return new (block.allocate()) int[kBlockSize];
}

inline bool allEqual(int const* chosen, int count) {
    int differing = 0;
    for (int i = 1; i < count; ++i) differing |= chosen[i] ^ chosen[0];
    return differing == 0;
}

/// Sets `out` from `ask(branch, block)` for the positions at which the branch is `chosen`, of 0 to
/// kBranches - 1, and to zero where it is negative. A branch is asked once at most, for its own
/// positions alone.
template <int kBranches, class T, class Ask>
void select(Block& block, int const* chosen, BlockResult<T>& out, Ask const& ask) {
    int const count = block.count();
    if (chosen[0] >= 0 && allEqual(chosen, count)) {
        out.set(ask(chosen[0], block));
        return;
    }
    auto const write = out.writer();
    int* const places = allocateInts(block);
    for (int branch = -1; branch < kBranches; ++branch) {
        int placeCount = 0;
        for (int i = 0; i < count; ++i) {
            places[placeCount] = i;
            placeCount += chosen[i] == branch;
        }
        if (placeCount == 0) continue;
        auto const scatter = [&](auto const& from) {
            for (int i = 0; i < placeCount; ++i) write.set(places[i], from[i]);
        };
        if (branch < 0) {
            for (int i = 0; i < placeCount; ++i) write.set(places[i], T{});
        } else {
            block.withChoice(places, placeCount, [&](Block& some) { scatter(ask(branch, some)); });
        }
    }
}

/// Sets `out` to the gradient of the child that is `chosen`, zero where that is negative. All
/// children are asked, at all positions: for light ones that is quicker than to ask for some.
template <class Gradient, class... Child>
void blend(Block& block, int const* chosen, BlockResult<Gradient>& out,
           Quern::Ptr<Child> const&... child) {
    Block::Frame const frame(block);
    std::array<Columns<Gradient>, sizeof...(Child)> const g{block.gradients(child)...};
    auto const write = out.writer();
    for (unsigned c = 0; c < write.component.size(); ++c) {
        float* const to = write.component[c];
        float const* const first = g[0].component[c];
        if constexpr (sizeof...(Child) == 2) {
            float const* const second = g[1].component[c];
            Quern::forEachPosition<true>(block.count(), [=](int i) ZEL_ALWAYS_INLINE {
                to[i] = chosen[i] == 0 ? first[i] : second[i];
            });
        } else {
            static_assert(sizeof...(Child) == 1);
            Quern::forEachPosition<true>(block.count(), [=](int i) ZEL_ALWAYS_INLINE {
                to[i] = chosen[i] == 0 ? first[i] : 0.0F;
            });
        }
    }
}

/// The gradients of the child of a number.
template <class Gradient, class... Child>
Columns<Gradient> gradientsOfChild(int number, Block& block, Quern::Ptr<Child> const&... child) {
    Columns<Gradient> columns;
    int at = 0;
    ((at++ == number ? void(columns = block.gradients(child)) : void()), ...);
    return columns;
}

}  // namespace detail

template <class Self, class Interface>
void NamedNode<Self, Interface>::evalBlock(Block& block, BlockResult<Value>& out) const {
    if constexpr (NodeAccess::hasBlockValues<Self, Value>)
        if (detail::isExactly(this->self())) {
            NodeAccess::blockValues(this->self(), block, out);
            out.columns.light = false;
            return;
        }
    Interface::evalBlock(block, out);
}

template <class Self, class Interface>
void NamedNode<Self, Interface>::gradBlock(Block& block, BlockResult<Gradient>& out) const {
    if constexpr (NodeAccess::hasBlockGradients<Self, Gradient>) {
        if (detail::isExactly(this->self()))
            return NodeAccess::blockGradients(this->self(), block, out);
    } else if constexpr (NodeAccess::hasBlockValues<Self, Value> &&
                         detail::hasDefaultGradient<Self, Interface>) {
        if (detail::isExactly(this->self()))
            return detail::differencesInBlock<Interface>(*this, block, out);
    }
    Interface::gradBlock(block, out);
}

template <class Self, class Interface>
void LeafNode<Self, Interface>::evalBlock(Block& block, BlockResult<Value>& out) const {
    Self const& node = this->self();
    if (!detail::isExactly(node)) return NamedNode<Self, Interface>::evalBlock(block, out);
    if constexpr (NodeAccess::hasView<Self, Block>) {
        out.set(NodeAccess::viewOf(node, block));
        out.columns.light = NodeAccess::isLight<Self>;
    } else {
        auto const write = out.writer();
        Quern::forEachPosition(
            block.count(),
            [write, p = block.positions()](int i, Self const& n, Block const& b)
                ZEL_ALWAYS_INLINE { write.set(i, NodeAccess::valueAt(n, p[i], b.index(i))); },
            node, block);
        out.columns.light = NodeAccess::isLight<Self>;
    }
}

template <class Self, class Interface>
void LeafNode<Self, Interface>::gradBlock(Block& block, BlockResult<Gradient>& out) const {
    Self const& node = this->self();
    if (!detail::isExactly(node)) return NamedNode<Self, Interface>::gradBlock(block, out);
    auto const write = out.writer();
    Quern::forEachPosition(
        block.count(),
        [write, p = block.positions()](int i, Self const& n, Block const& b)
            ZEL_ALWAYS_INLINE { write.set(i, NodeAccess::gradientAt(n, p[i], b.index(i))); },
        node, block);
}

template <class Self, class Interface>
void PointwiseNode<Self, Interface>::evalBlock(Block& block, BlockResult<Value>& out) const {
    Self const& node = this->self();
    if (!detail::isExactly(node)) return NamedNode<Self, Interface>::evalBlock(block, out);
    if constexpr (detail::isFusible<Self>)
        if (block.evalFused(static_cast<Interface const*>(this), out)) return;
    auto const form = [&]<class... Child>(Quern::Ptr<Child> const&... child) {
        if constexpr (NodeAccess::hasView<Self, Columns<typename Child::Value> const...>) {
            std::tuple<Columns<typename Child::Value>...> const in{block.values(child)...};
            out.set(std::apply(
                [&](auto const&... columns) { return NodeAccess::viewOf(node, columns...); }, in));
            out.columns.light = out.columns.light && NodeAccess::isLight<Self>;
        } else {
            Block::Frame const frame(block);
            std::apply(
                [&](auto const&... columns) {
                    detail::mapNode(
                        block, out, node,
                        [](Self const& n, auto const&... v)
                            ZEL_ALWAYS_INLINE { return NodeAccess::valueOf(n, v...); },
                        columns...);
                    out.columns.light = (NodeAccess::isLight<Self> && ... && columns.light);
                },
                detail::valuesInBlock(block, out, child...));
        }
    };
    std::apply(form, NodeAccess::children(node));
}

template <class Self, class Interface>
void PointwiseNode<Self, Interface>::gradBlock(Block& block, BlockResult<Gradient>& out) const {
    Self const& node = this->self();
    if (!detail::isExactly(node)) return NamedNode<Self, Interface>::gradBlock(block, out);
    if constexpr (detail::isFusible<Self>)
        if (block.gradFused(static_cast<Interface const*>(this), out)) return;
    auto const form = [&]<class... Child>([[maybe_unused]] Quern::Ptr<Child> const&... child) {
        auto const map = [&](auto const& formula, auto const&... columns) {
            std::apply(
                [&](auto const&... in) { detail::mapNode(block, out, node, formula, in...); },
                std::tuple_cat(columns...));
        };
        auto const formula = [](Self const& n, auto const&... in)
                                 ZEL_ALWAYS_INLINE { return NodeAccess::gradientOf(n, in...); };
        using Values = std::tuple<Columns<typename Child::Value>...>;

        if constexpr (NodeAccess::hasGradient<Self>) {
            map(formula);
        } else if constexpr (NodeAccess::hasGradient<Self, typename Child::Gradient...>) {
            Block::Frame const frame(block);
            map(formula, detail::gradientsInBlock(block, out, child...));
        } else if constexpr (NodeAccess::hasGradientFromValue<Self, Value,
                                                              typename Child::Gradient...>) {
            Block::Frame const frame(block);
            std::tuple const own{block.values(static_cast<Interface const&>(*this))};
            map([](Self const& n, auto const&... in)
                    ZEL_ALWAYS_INLINE { return NodeAccess::gradientFromValue(n, in...); },
                own, detail::gradientsInBlock(block, out, child...));
        } else if constexpr (NodeAccess::hasGradientChoice<Self, typename Child::Value...>) {
            int* const chosen = detail::allocateInts(block);
            bool light = false;
            {
                Block::Frame const frame(block);
                Values const values{block.values(child)...};
                std::apply(
                    [&](auto const&... v) {
                        Quern::forEachPosition(
                            block.count(),
                            [chosen, v...](int i, Self const& n) ZEL_ALWAYS_INLINE {
                                chosen[i] = NodeAccess::gradientChoice(n, v[i]...);
                            },
                            node);
                        light = (v.light && ...);
                    },
                    values);
            }
            if (light && !detail::allEqual(chosen, block.count()))
                return detail::blend<Gradient>(block, chosen, out, child...);
            detail::select<sizeof...(Child)>(block, chosen, out, [&](int number, Block& some) {
                return detail::gradientsOfChild<Gradient>(number, some, child...);
            });
        } else {
            Block::Frame const frame(block);
            Values const v{block.values(child)...};
            map(formula, v, detail::gradientsInBlock(block, out, child...));
        }
    };
    std::apply(form, NodeAccess::children(node));
}

namespace detail {

/// The positions at which a TransformNode asks its child.
template <class Node> Columns<float3> childPositions(Node const& node, Block& block) {
    auto moved = block.result<float3>();
    mapNode(
        block, moved, node,
        [](Node const& n, float3 const& p)
            ZEL_ALWAYS_INLINE { return NodeAccess::childPosition(n, p); },
        block.positions());
    return moved.columns;
}

}  // namespace detail

template <class Self, class Interface>
void TransformNode<Self, Interface>::evalBlock(Block& block, BlockResult<Value>& out) const {
    Self const& node = this->self();
    if (!detail::isExactly(node)) return NamedNode<Self, Interface>::evalBlock(block, out);
    auto const& field = std::get<0>(NodeAccess::children(node));
    Block::Frame const frame(block);
    block.withPositions(detail::childPositions(node, block), [&](Block& there) {
        if constexpr (NodeAccess::movesOnly<Self>) {
            there.writeValues(*field, field.useCount() > 1, out);
            out.columns.light = out.columns.light && NodeAccess::isLight<Self>;
        } else {
            auto const v = there.values(field, out);
            detail::mapNode(
                there, out, node,
                [](Self const& n, Value const& in)
                    ZEL_ALWAYS_INLINE { return NodeAccess::valueOf(n, in); },
                v);
            out.columns.light = NodeAccess::isLight<Self> && v.light;
        }
    });
}

template <class Self, class Interface>
void TransformNode<Self, Interface>::gradBlock(Block& block, BlockResult<Gradient>& out) const {
    Self const& node = this->self();
    if (!detail::isExactly(node)) return NamedNode<Self, Interface>::gradBlock(block, out);
    auto const& field = std::get<0>(NodeAccess::children(node));
    Block::Frame const frame(block);
    block.withPositions(detail::childPositions(node, block), [&](Block& there) {
        detail::mapNode(
            there, out, node,
            [](Self const& n, Gradient const& g)
                ZEL_ALWAYS_INLINE { return NodeAccess::gradientOf(n, g); },
            there.gradients(field, out));
    });
}

namespace detail {

/// Which child of a SwitchNode is taken.
inline int* branches(Block& block, ScalarPtr const& condition) {
    int* const chosen = allocateInts(block);
    Block::Frame const frame(block);
    auto const c = block.values(condition);
    Quern::forEachPosition(block.count(),
                           [chosen, c](int i) ZEL_ALWAYS_INLINE { chosen[i] = c[i] > 0 ? 0 : 1; });
    return chosen;
}

}  // namespace detail

template <class Self, class Interface>
void SwitchNode<Self, Interface>::evalBlock(Block& block, BlockResult<Value>& out) const {
    Self const& node = this->self();
    if (!detail::isExactly(node)) return NamedNode<Self, Interface>::evalBlock(block, out);
    auto const& [condition, a, b] = NodeAccess::children(node);
    int* const chosen = detail::branches(block, condition);
    if (a == b) std::fill_n(chosen, block.count(), 0);
    detail::select<2>(block, chosen, out, [&, &a = a, &b = b](int branch, Block& some) {
        return some.values(branch == 0 ? a : b);
    });
    out.columns.light = false;  // the condition and the other branch may not be
}

template <class Self, class Interface>
void SwitchNode<Self, Interface>::gradBlock(Block& block, BlockResult<Gradient>& out) const {
    Self const& node = this->self();
    if (!detail::isExactly(node)) return NamedNode<Self, Interface>::gradBlock(block, out);
    auto const& [condition, a, b] = NodeAccess::children(node);
    int* const chosen = detail::branches(block, condition);
    if (a == b) std::fill_n(chosen, block.count(), 0);
    detail::select<2>(block, chosen, out, [&, &a = a, &b = b](int branch, Block& some) {
        return some.gradients(branch == 0 ? a : b);
    });
}

}  // namespace zel
