#pragma once

#include <concepts>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <span>
#include <type_traits>
#include <utility>

#include "zel/scalar/arithmetic.h"
#include "zel/scalar/powers.h"
#include "zel/scalar/selection.h"
#include "zel/scalar/spatial.h"
#include "zel/scalar/transcendental.h"
#include "zel/vector/arithmetic.h"
#include "zel/vector/powers.h"
#include "zel/vector/projection.h"
#include "zel/vector/selection.h"
#include "zel/vector/spatial.h"
#include "zel_scene/api.h"

// Trees written as formulas of child pointers. `a + b` is a node that adds, not the sum of two
// numbers:
//
//     ScalarPtr const ball = length(position()) - 1.0F;
//     ScalarPtr const lens = max(ball, translate(ball, {0.5F, 0, 0}));
//
// The operators take pointers to nodes of any class; a number or a float3 on one side stands for a
// constant. They are found by the types of their arguments, without a using declaration; the
// functions without such an argument, such as position(), are in namespace zel. Each call makes one
// node, and shares its children. A null pointer is a broken precondition of the node that is made:
// check() in bind.h finds it. Any number of threads may write trees at once. Throws std::bad_alloc.
namespace zel {

namespace detail {

template <class T> struct PointedTo { using Type = void; };
template <class T> struct PointedTo<Quern::Ptr<T>> { using Type = T; };

template <class T>
concept ScalarNode = std::derived_from<typename PointedTo<T>::Type, ScalarField>;
template <class T>
concept VectorNode = std::derived_from<typename PointedTo<T>::Type, VectorField>;
template <class T>
concept Number = (std::integral<T> || std::floating_point<T>)&&!std::same_as<T, bool>;
template <class T>
concept Scalar = ScalarNode<T> || Number<T>;
template <class T>
concept Vector = VectorNode<T> || std::same_as<T, float3>;

/// Two operands of which one at least is a node.
template <class A, class B>
concept Scalars = (ScalarNode<A> && (ScalarNode<B> || Number<B>)) || (Number<A> && ScalarNode<B>);
template <class A, class B>
concept Vectors = (VectorNode<A> && (VectorNode<B> || std::same_as<B, float3>)) ||
                  (std::same_as<A, float3> && VectorNode<B>);
/// A vector and the number by which it is multiplied or divided.
template <class A, class B>
concept Scaled = (VectorNode<A> && (ScalarNode<B> || Number<B>)) ||
                 (std::same_as<A, float3> && ScalarNode<B>);

template <ScalarNode T> ScalarPtr node(T const& pointer) {
    return pointer;
}
template <VectorNode T> VectorPtr node(T const& pointer) {
    return pointer;
}
template <Number T> ScalarPtr node(T number) {
    return Quern::makePtr<ScalarFieldConstant>(static_cast<float>(number));
}
inline VectorPtr node(float3 const& vector) {
    return Quern::makePtr<VectorFieldConstant>(vector);
}

template <class Node, class... Args> auto made(Args&&... args) {
    using Interface =
        std::conditional_t<std::derived_from<Node, ScalarField>, ScalarField, VectorField>;
    return Quern::Ptr<Interface>(Quern::makePtr<Node>(std::forward<Args>(args)...));
}

}  // namespace detail

// Constants and coordinates.

inline ScalarPtr constant(float value) {
    return detail::node(value);
}
inline VectorPtr constant(float3 const& value) {
    return detail::node(value);
}
inline ScalarPtr xPosition() {
    return detail::made<ScalarFieldXPosition>();
}
inline ScalarPtr yPosition() {
    return detail::made<ScalarFieldYPosition>();
}
inline ScalarPtr zPosition() {
    return detail::made<ScalarFieldZPosition>();
}
inline VectorPtr position() {
    return detail::made<VectorFieldPosition>();
}
/// The vector of three scalar fields or numbers, of which one at least is a node.
template <class X, class Y, class Z>
requires(detail::Scalars<X, Y> || detail::Scalars<X, Z> || detail::Scalars<Y, Z>) VectorPtr
    vectorOf(X const& x, Y const& y, Z const& z) {
    return detail::made<VectorFieldFromComponents>(detail::node(x), detail::node(y),
                                                   detail::node(z));
}

/// Operators and functions of two operands of one kind, component by component for vectors.
#define ZEL_DETAIL_BINARY(function, Name)                                                          \
    template <class A, class B>                                                                    \
    requires detail::Scalars<A, B> ScalarPtr function(A const& a, B const& b) {                    \
        return detail::made<ScalarField##Name>(detail::node(a), detail::node(b));                  \
    }                                                                                              \
    template <class A, class B>                                                                    \
    requires detail::Vectors<A, B> VectorPtr function(A const& a, B const& b) {                    \
        return detail::made<VectorField##Name>(detail::node(a), detail::node(b));                  \
    }
ZEL_DETAIL_BINARY(operator+, Add)
ZEL_DETAIL_BINARY(operator-, Subtract)
ZEL_DETAIL_BINARY(operator*, Multiply)
ZEL_DETAIL_BINARY(operator/, Divide)
ZEL_DETAIL_BINARY(min, Min)
ZEL_DETAIL_BINARY(max, Max)
#undef ZEL_DETAIL_BINARY

// Of two operands of one type: these go before std::min and std::max under a using directive.
template <detail::ScalarNode T> ScalarPtr min(T const& a, T const& b) {
    return detail::made<ScalarFieldMin>(a, b);
}
template <detail::VectorNode T> VectorPtr min(T const& a, T const& b) {
    return detail::made<VectorFieldMin>(a, b);
}
template <detail::ScalarNode T> ScalarPtr max(T const& a, T const& b) {
    return detail::made<ScalarFieldMax>(a, b);
}
template <detail::VectorNode T> VectorPtr max(T const& a, T const& b) {
    return detail::made<VectorFieldMax>(a, b);
}

/// A vector field times or by a scalar field or a number.
template <class A, class B>
requires detail::Scaled<A, B> VectorPtr operator*(A const& a, B const& b) {
    return detail::made<VectorFieldVSMultiply>(detail::node(a), detail::node(b));
}
template <class A, class B>
requires detail::Scaled<B, A> VectorPtr operator*(A const& a, B const& b) {
    return detail::made<VectorFieldVSMultiply>(detail::node(b), detail::node(a));
}
template <class A, class B>
requires detail::Scaled<A, B> VectorPtr operator/(A const& a, B const& b) {
    return detail::made<VectorFieldVSDivide>(detail::node(a), detail::node(b));
}

// Functions of one operand, for both kinds and for scalars.

#define ZEL_DETAIL_SCALAR(function, Name)                                                          \
    template <detail::ScalarNode T> ScalarPtr function(T const& field) {                           \
        return detail::made<ScalarField##Name>(field);                                             \
    }
#define ZEL_DETAIL_VECTOR(function, Name)                                                          \
    template <detail::VectorNode T> VectorPtr function(T const& field) {                           \
        return detail::made<VectorField##Name>(field);                                             \
    }
ZEL_DETAIL_SCALAR(operator-, Negative)
ZEL_DETAIL_VECTOR(operator-, Negative)
ZEL_DETAIL_SCALAR(abs, Absolute)
ZEL_DETAIL_VECTOR(abs, Absolute)
ZEL_DETAIL_SCALAR(sqrt, SquareRoot)
ZEL_DETAIL_VECTOR(sqrt, SquareRoot)
ZEL_DETAIL_SCALAR(exp, Exp)
ZEL_DETAIL_SCALAR(sin, Sine)
ZEL_DETAIL_SCALAR(cos, Cosine)
ZEL_DETAIL_SCALAR(tan, Tangent)
ZEL_DETAIL_VECTOR(normalize, UnitVector)
#undef ZEL_DETAIL_SCALAR
#undef ZEL_DETAIL_VECTOR

template <detail::ScalarNode T> ScalarPtr pow(T const& field, float exponent) {
    return detail::made<ScalarFieldPow>(field, exponent);
}
template <detail::ScalarNode T> ScalarPtr clamp(T const& field, float least, float most) {
    return detail::made<ScalarFieldClamp>(field, least, most);
}
template <detail::VectorNode T> ScalarPtr length(T const& field) {
    return detail::made<VectorFieldLength>(field);
}
template <class A, class B>
requires detail::Vectors<A, B> ScalarPtr dot(A const& a, B const& b) {
    return detail::made<VectorFieldDotProduct>(detail::node(a), detail::node(b));
}
template <class A, class B>
requires detail::Vectors<A, B> VectorPtr cross(A const& a, B const& b) {
    return detail::made<VectorFieldCross>(detail::node(a), detail::node(b));
}

/// a where t is 0, b where t is 1. Each is a field or a constant, and one at least a field.
template <detail::Scalar A, detail::Scalar B, detail::Scalar T>
requires(detail::Scalars<A, B> || detail::ScalarNode<T>) ScalarPtr
    lerp(A const& a, B const& b, T const& t) {
    return detail::made<ScalarFieldLerp>(detail::node(a), detail::node(b), detail::node(t));
}
template <detail::Vector A, detail::Vector B, detail::Scalar T>
requires(detail::Vectors<A, B> || detail::ScalarNode<T>) VectorPtr
    lerp(A const& a, B const& b, T const& t) {
    return detail::made<VectorFieldLerp>(detail::node(a), detail::node(b), detail::node(t));
}

/// A field moved as a whole: see ScalarFieldTranslate, ScalarFieldRotate, ScalarFieldScale and
/// those of vector fields. rotate() takes a rotation vector, whose length is an angle in radians,
/// and turns clockwise, seen against the vector: a ball at +x comes to -y by {0, 0, pi / 2}.
#define ZEL_DETAIL_TRANSFORM(function, Name, Parameter)                                            \
    template <detail::ScalarNode T> ScalarPtr function(T const& field, Parameter const& by) {      \
        return detail::made<ScalarField##Name>(field, by);                                         \
    }                                                                                              \
    template <detail::VectorNode T> VectorPtr function(T const& field, Parameter const& by) {      \
        return detail::made<VectorField##Name>(field, by);                                         \
    }
ZEL_DETAIL_TRANSFORM(translate, Translate, float3)
ZEL_DETAIL_TRANSFORM(scale, Scale, float3)
ZEL_DETAIL_TRANSFORM(rotate, Rotate, float3)
#undef ZEL_DETAIL_TRANSFORM
/// Turns by a quaternion, counter-clockwise: a ball at +x comes to +y by {0, 0, 1, 1} / sqrt(2).
template <detail::ScalarNode T> ScalarPtr rotateBy(T const& field, float4 const& quaternion) {
    return detail::made<ScalarFieldRotate>(field, quaternion);
}
template <detail::VectorNode T> VectorPtr rotateBy(T const& field, float4 const& quaternion) {
    return detail::made<VectorFieldRotate>(field, quaternion);
}

/// The least, and the greatest, of many scalar fields, as a balanced tree in their order: of `n`
/// fields, no more than log2(n) + 1 levels. One field is returned as it is. Throws
/// std::invalid_argument if there is none.
ZEL_SCENE_API ScalarPtr unionOf(std::span<ScalarPtr const> fields);
ZEL_SCENE_API ScalarPtr intersectionOf(std::span<ScalarPtr const> fields);
inline ScalarPtr unionOf(std::initializer_list<ScalarPtr> fields) {
    return unionOf(std::span(fields.begin(), fields.size()));
}
inline ScalarPtr intersectionOf(std::initializer_list<ScalarPtr> fields) {
    return intersectionOf(std::span(fields.begin(), fields.size()));
}

}  // namespace zel
