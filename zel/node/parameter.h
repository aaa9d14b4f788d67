#pragma once

#include <tuple>

#include "zel_platform/orvane_math/vectors.h"

// The names of a node's parameters: the arguments of its constructor, children among them, in their
// order. A node class states them once, beside its children:
//
//     template <class Node> static constexpr auto parameters() {
//         return std::tuple(named("field", &Node::field),
//                           named("exponent", &Node::exponent, 2.0F));
//     }
//
// Nothing in libzel reads them. The descriptions, files and comparisons of libzel_scene come from
// them, for classes of the library and of a user alike.
namespace zel {

/// Stands for the default value of a parameter that has none.
struct NoDefault {};

/// A parameter of a node class. `get` is a pointer to a member, or a function of the node, that
/// returns the value to construct an equal node with.
template <class Get, class Default> struct Parameter {
    char const* name;
    Get get;
    [[no_unique_address]] Default defaultValue;
};

template <class Get, class Default = NoDefault>
constexpr Parameter<Get, Default> named(char const* name, Get get, Default defaultValue = {}) {
    return {name, get, defaultValue};
}

/// How a file may give an operator of two children more of them. A node class that has a meaning
/// for that has `static constexpr Chain kChain`.
enum class Chain {
    kNone,
    kLeft,      ///< op(op(op(a, b), c), d): rounding depends on the order
    kBalanced,  ///< op(op(a, b), op(c, d)): the order is kept, and the depth is logarithmic
};

/// A direction that is already divided by its length.
struct UnitVector {
    UnitVector() = default;
    explicit UnitVector(Orvane::Math::float3 const& vector) : value(vector) {}

    Orvane::Math::float3 value;
};

}  // namespace zel
