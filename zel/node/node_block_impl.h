#pragma once

#include <algorithm>
#include <array>
#include <concepts>
#include <tuple>
#include <type_traits>
#include <utility>

#include "zel/batch/block.h"
#include "zel/batch/block_differences.h"
#include "zel/node/block_maps.h"
#include "zel/node/block_selection.h"
#include "zel/node/node_access.h"
#include "zel_platform/quern_core/position_loop.h"

// The block forms of the bases in node.h, by the formulas of the node classes. A node computes by
// its block form only if it is exactly of its class: a class derived from it may override `eval`.
namespace zel {

namespace detail {

/// Whether a node's point `grad` is the default one of its interface.
template <class Node, class Interface>
inline constexpr bool hasDefaultGradient =
    std::same_as<decltype(&Node::grad), decltype(&Interface::grad)>;

// Each Columns stays where the call wrote it, since a copy, as of a tuple, would wait for its
// stores: see assign().

/// Calls `work(ask(child)...)`, with the children asked in their order.
template <class Ask, class Work>
ZEL_ALWAYS_INLINE inline void withColumns(Ask const& /*ask*/, Work const& work) {
    work();
}
template <class Ask, class Work, class First, class... Rest>
ZEL_ALWAYS_INLINE inline void withColumns(Ask const& ask, Work const& work, First const& first,
                                          Rest const&... rest) {
    auto const columns = ask(first);
    withColumns(
        ask, [&](auto const&... more) ZEL_ALWAYS_INLINE { work(columns, more...); }, rest...);
}

/// Calls `work` with the values, or the gradients, of the children, asked for in their order. The
/// columns of the first child may be in the storage of `room`.
template <class T, class Work, class First, class... Rest>
ZEL_ALWAYS_INLINE inline void withValues(Block& block, [[maybe_unused]] BlockResult<T> const& room,
                                         Work const& work, Quern::Ptr<First> const& first,
                                         Quern::Ptr<Rest> const&... rest) {
    auto const ofFirst = [&] {
        if constexpr (std::same_as<typename First::Value, T>)
            return block.values(first, room);
        else
            return block.values(first);
    }();
    withColumns([&](auto const& child) ZEL_ALWAYS_INLINE { return block.values(child); },
                [&](auto const&... more) ZEL_ALWAYS_INLINE { work(ofFirst, more...); }, rest...);
}
template <class T, class Work, class First, class... Rest>
ZEL_ALWAYS_INLINE inline void
withGradients(Block& block, [[maybe_unused]] BlockResult<T> const& room, Work const& work,
              Quern::Ptr<First> const& first, Quern::Ptr<Rest> const&... rest) {
    auto const ofFirst = [&] {
        if constexpr (std::same_as<typename First::Gradient, T>)
            return block.gradients(first, room);
        else
            return block.gradients(first);
    }();
    withColumns([&](auto const& child) ZEL_ALWAYS_INLINE { return block.gradients(child); },
                [&](auto const&... more) ZEL_ALWAYS_INLINE { work(ofFirst, more...); }, rest...);
}

/// Writes the choices of a node among the gradients of its children, whose values are `columns`.
template <class Node, class... In>
void chooseGradients(Block& block, Node const& node, int* chosen, Columns<In> const&... columns) {
    Quern::forEachPosition(
        block.count(),
        [chosen, ... in = columns.component](int i, Node const& n)
            ZEL_ALWAYS_INLINE { chosen[i] = NodeAccess::gradientChoice(n, Columns<In>{in}[i]...); },
        node);
}

/// The gradients of child number `number`.
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
    } else if constexpr (NodeAccess::hasBlockValues<Self, Value>) {
        NodeAccess::blockValues(node, block, out);
        out.columns.light = NodeAccess::isLight<Self>;
    } else {
        detail::mapPositions(block, out, node,
                             [](Self const& n, float3 const& p, long long i)
                                 ZEL_ALWAYS_INLINE { return NodeAccess::valueAt(n, p, i); });
    }
}

template <class Self, class Interface>
void LeafNode<Self, Interface>::gradBlock(Block& block, BlockResult<Gradient>& out) const {
    Self const& node = this->self();
    if (!detail::isExactly(node)) return NamedNode<Self, Interface>::gradBlock(block, out);
    detail::mapPositions(block, out, node,
                         [](Self const& n, float3 const& p, long long i)
                             ZEL_ALWAYS_INLINE { return NodeAccess::gradientAt(n, p, i); });
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
            detail::withValues(
                block, out,
                [&](auto const&... columns) {
                    detail::mapNode(
                        block, out, node,
                        [](Self const& n, auto const&... v)
                            ZEL_ALWAYS_INLINE { return NodeAccess::valueOf(n, v...); },
                        columns...);
                },
                child...);
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
        using detail::GradientForm;
        constexpr GradientForm kForm = detail::gradientForm<Self, Child...>;
        auto const withChildValues = [&](auto const& work) {
            detail::withColumns([&](auto const& c) { return block.values(c); }, work, child...);
        };
        auto const map = [&]<GradientForm form>(std::integral_constant<GradientForm, form> /*form*/,
                                                auto const& formula) {
            Block::Frame const frame(block);
            auto const work = [&](auto const&... columns) {
                detail::mapNode(block, out, node, formula, columns...);
            };
            if constexpr (form == GradientForm::kSame) {
                work();
            } else if constexpr (form == GradientForm::kFromGradients) {
                detail::withGradients(block, out, work, child...);
            } else if constexpr (form == GradientForm::kFromOwnValue) {
                auto const own = block.values(static_cast<Interface const&>(*this));
                detail::withGradients(
                    block, out, [&](auto const&... g) { work(own, g...); }, child...);
            } else {
                withChildValues([&](auto const&... v) {
                    detail::withGradients(
                        block, out, [&](auto const&... g) { work(v..., g...); }, child...);
                });
            }
        };

        if constexpr (NodeAccess::hasExactGradient<Self, typename Child::Value...,
                                                   typename Child::Gradient...>)
            if (NodeAccess::isExact(node)) {
                constexpr std::integral_constant<GradientForm,
                                                 GradientForm::kFromValuesAndGradients>
                    kOfAll;
                return map(kOfAll, [](Self const& n, auto const&... in) ZEL_ALWAYS_INLINE {
                    return NodeAccess::exactGradientOf(n, in...);
                });
            }
        if constexpr (kForm == GradientForm::kChoice) {
            int* const chosen = block.allocateInts();
            bool light = false;
            {
                Block::Frame const frame(block);
                withChildValues([&](auto const&... v) {
                    detail::chooseGradients(block, node, chosen, v...);
                    light = (v.light && ...);
                });
            }
            if (light && !detail::allEqual(chosen, block.count()))
                return detail::blend<Gradient>(block, chosen, out, child...);
            detail::select<sizeof...(Child)>(block, chosen, out, [&](int number, Block& some) {
                return detail::gradientsOfChild<Gradient>(number, some, child...);
            });
        } else if constexpr (kForm != GradientForm::kNone) {
            map(std::integral_constant<GradientForm, kForm>(),
                [](Self const& n, auto const&... in)
                    ZEL_ALWAYS_INLINE { return detail::gradientBy<kForm>(n, in...); });
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
    Columns<float3> columns;
    assign(columns, moved.columns);
    return columns;
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
            there.writeValues(field, out);
            out.columns.light = out.columns.light && NodeAccess::isLight<Self>;
        } else {
            detail::mapNode(
                there, out, node,
                [](Self const& n, Value const& v)
                    ZEL_ALWAYS_INLINE { return NodeAccess::valueOf(n, v); },
                there.values(field, out));
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
        auto const map = [&](auto const& formula) {
            detail::mapNode(there, out, node, formula, there.gradients(field, out));
        };
        if constexpr (NodeAccess::hasExactGradient<Self, Gradient>)
            if (NodeAccess::isExact(node))
                return map([](Self const& n, Gradient const& g)
                               ZEL_ALWAYS_INLINE { return NodeAccess::exactGradientOf(n, g); });
        map([](Self const& n, Gradient const& g)
                ZEL_ALWAYS_INLINE { return NodeAccess::gradientOf(n, g); });
    });
}

namespace detail {

/// The branch of a SwitchNode at each position: 0 for `a`, 1 for `b`.
inline int* branches(Block& block, ScalarPtr const& condition) {
    int* const chosen = block.allocateInts();
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
    out.columns.light = false;  // the condition, or the branch not taken, may be heavy
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
