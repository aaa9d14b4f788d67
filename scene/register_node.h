#pragma once

#include <concepts>
#include <functional>
#include <stdexcept>
#include <tuple>
#include <type_traits>
#include <utility>

#include "zel/node/node_access.h"
#include "zel_platform/orvane_geometry/object.h"
#include "zel_scene/node_class.h"

// How a class of a user takes part: it names its parameters beside its children, and registers
// itself under a name by
//
//     zel::registerNode<Ring>("Ring");
//
// or, in its source file, by a static object:
//
//     zel::NodeRegistration<Ring> const registered("Ring");
//
// The parameters must be of these types: bool, float, double, integers up to 64 bits but for an
// unsigned one of 64, float3, float4 (a quaternion), UnitVector, Quern::String, SamplerType,
// Quern::Ptr<Orvane::Math::FCurve>, Quern::Array<float3>, and pointers to nodes. A default value is
// of the type of its parameter; of a child it is the number or the vector of a constant.
namespace zel {

namespace detail {

template <class T> struct IsPtr : std::false_type {};
template <class T> struct IsPtr<Quern::Ptr<T>> : std::true_type { using Element = T; };

/// The place of a type among the alternatives of a variant, or the number of these.
template <class T, class... All>
constexpr std::size_t placeAmong(std::type_identity<std::variant<All...>> /*variant*/) {
    std::size_t place = 0;
    static_cast<void>(((std::same_as<T, All> || (++place, false)) || ...));
    return place;
}

template <class T> constexpr ValueKind valueKind() {
    if constexpr (std::same_as<T, bool>) {
        return ValueKind::kBool;
    } else if constexpr (std::integral<T>) {
        static_assert(sizeof(T) < 8 || std::signed_integral<T>,
                      "A parameter cannot be an unsigned integer of 64 bits.");
        return ValueKind::kInteger;
    } else if constexpr (std::same_as<T, Quern::Array<float3>>) {
        return ValueKind::kVectors;
    } else if constexpr (IsPtr<T>::value && !std::same_as<T, Quern::Ptr<Orvane::Math::FCurve>>) {
        using Element = typename IsPtr<T>::Element;
        static_assert(std::derived_from<Element, Field>, "This pointer cannot be a parameter.");
        return std::derived_from<Element, ScalarField> ? ValueKind::kScalarField
                                                       : ValueKind::kVectorField;
    } else {
        constexpr std::size_t kPlace = placeAmong<T>(std::type_identity<Value>());
        static_assert(kPlace < std::variant_size_v<Value>,
                      "A parameter cannot be of this type: register_node.h lists those that can.");
        return static_cast<ValueKind>(kPlace);
    }
}

template <class T> Value toValue(T const& value) {
    constexpr ValueKind kKind = valueKind<T>();
    if constexpr (kKind == ValueKind::kInteger)
        return static_cast<std::int64_t>(value);
    else if constexpr (kKind == ValueKind::kVectors)
        return Quern::makePtr<Quern::Array<float3>>(value);
    else if constexpr (kKind == ValueKind::kScalarField)
        return ScalarPtr(value);
    else if constexpr (kKind == ValueKind::kVectorField)
        return VectorPtr(value);
    else
        return value;
}

template <class T> T fromValue(Value& value) {
    constexpr ValueKind kKind = valueKind<T>();
    auto& held = std::get<static_cast<std::size_t>(kKind)>(value);
    if constexpr (kKind == ValueKind::kInteger) {
        return static_cast<T>(held);
    } else if constexpr (kKind == ValueKind::kVectors) {
        return *held;
    } else if constexpr (isField(kKind) && !std::same_as<T, std::remove_cvref_t<decltype(held)>>) {
        auto cast = Quern::dynamicPtrCast<typename IsPtr<T>::Element>(held);
        if (!cast && held)
            throw std::invalid_argument("the child is not of the class that this node asks for");
        return cast;
    } else {
        return std::move(held);
    }
}

/// The type of the value that a parameter of a class has.
template <class Node, class P>
using ParameterType =
    std::remove_cvref_t<std::invoke_result_t<decltype(std::declval<P const&>().get), Node const&>>;

template <class Node, class Get, class Default>
ParameterInfo parameterInfo(Parameter<Get, Default> const& parameter) {
    using T = ParameterType<Node, Parameter<Get, Default>>;
    ParameterInfo info;
    info.name = parameter.name;
    info.kind = valueKind<T>();
    if constexpr (std::integral<T>) {
        info.least = static_cast<std::int64_t>(std::numeric_limits<T>::min());
        info.most = static_cast<std::int64_t>(std::numeric_limits<T>::max());
    }
    if constexpr (!std::same_as<Default, NoDefault>) {
        if constexpr (valueKind<T>() == ValueKind::kScalarField)
            info.defaultValue = static_cast<float>(parameter.defaultValue);
        else if constexpr (valueKind<T>() == ValueKind::kVectorField)
            info.defaultValue = float3(parameter.defaultValue);
        else
            info.defaultValue = toValue(static_cast<T>(parameter.defaultValue));
    }
    return info;
}

/// The functions of a NodeClass. The parameters are passed on as a type, so that each class has one
/// instance of each function.
template <class Node, class Parameters = decltype(NodeAccess::parameters<Node>())>
struct NodeFunctions;
template <class Node, class... P> struct NodeFunctions<Node, std::tuple<P...>> {
    static constexpr bool kHasSwitch = NodeAccess::hasExactSwitch<Node>;

    static void read(Field const& field, std::vector<Value>& values) {
        auto const& node = static_cast<Node const&>(field);
        std::apply(
            [&](auto const&... p) { (values.push_back(toValue(std::invoke(p.get, node))), ...); },
            NodeAccess::parameters<Node>());
        if constexpr (kHasSwitch) values.emplace_back(NodeAccess::isExact(node));
    }

    static Tree make(std::span<Value> values, Orvane::Object const& object) {
        auto node = make(values, object, std::index_sequence_for<P...>());
        if constexpr (kHasSwitch)
            if (std::get<bool>(values[sizeof...(P)])) NodeAccess::setExact(*node);
        return node;
    }

    /// Whether there are two children, both of the kind of the node, as a chain needs them.
    static constexpr bool kJoinsTwo = [] {
        [[maybe_unused]] constexpr ValueKind kOwn = std::derived_from<Node, ScalarField>
                                                        ? ValueKind::kScalarField
                                                        : ValueKind::kVectorField;
        int all = 0, own = 0;
        ((all += isField(valueKind<ParameterType<Node, P>>()) ? 1 : 0), ...);
        ((own += valueKind<ParameterType<Node, P>>() == kOwn ? 1 : 0), ...);
        return all == 2 && own == 2;
    }();

    static bool isBound(Field const& field) {
        if constexpr (requires(Node const& node) { node.isBound(); })
            return static_cast<Node const&>(field).isBound();
        else
            return true;
    }

private:
    template <std::size_t... i>
    static Quern::Ptr<Node> make([[maybe_unused]] std::span<Value> values,
                                 [[maybe_unused]] Orvane::Object const& object,
                                 std::index_sequence<i...> /*indices*/) {
        if constexpr (std::constructible_from<Node, ParameterType<Node, P>...>) {
            return Quern::makePtr<Node>(fromValue<ParameterType<Node, P>>(values[i])...);
        } else {
            static_assert(
                std::constructible_from<Node, Orvane::Object const&, ParameterType<Node, P>...>,
                "The parameters of a node are the arguments of a constructor.");
            return Quern::makePtr<Node>(object, fromValue<ParameterType<Node, P>>(values[i])...);
        }
    }
};

}  // namespace detail

/// A description of a node class, for addNodeClass().
template <class Node> NodeClass nodeClassOf(std::string_view name) {
    using Functions = detail::NodeFunctions<Node>;
    static_assert(std::derived_from<Node, ScalarField> || std::derived_from<Node, VectorField>);
    static_assert(
        !NodeAccess::hasChildren<Node> ||
            std::tuple_size_v<decltype(NodeAccess::parameters<Node>())> != 0,
        "A node class with children names its parameters: template <class Node> static "
        "constexpr auto parameters() { return std::tuple(zel::named(\"a\", &Node::a)); }");
    static_assert(NodeAccess::chain<Node> == Chain::kNone || Functions::kJoinsTwo,
                  "A node class with kChain has two children, both of its own kind.");
    NodeClass made;
    made.name = name;
    made.type = &typeid(Node);
    made.isScalar = std::derived_from<Node, ScalarField>;
    made.chain = NodeAccess::chain<Node>;
    std::apply(
        [&](auto const&... p) { (made.parameters.push_back(detail::parameterInfo<Node>(p)), ...); },
        NodeAccess::parameters<Node>());
    if constexpr (Functions::kHasSwitch)
        made.parameters.push_back({"exactGradient", ValueKind::kBool, false});
    made.read = Functions::read;
    made.make = Functions::make;
    if constexpr (requires(Node const& node) { node.isBound(); }) made.isBound = Functions::isBound;
    return made;
}

/// Registers a node class under a name. May be called at any time, by any thread; trees that were
/// described before are not affected. A library that registers classes must stay loaded. Throws as
/// addNodeClass() does.
template <class Node> void registerNode(std::string_view name) {
    addNodeClass(nodeClassOf<Node>(name));
}

/// Registers a class when it is constructed, as a static object before the program begins. An
/// exception then ends the program.
template <class Node> struct NodeRegistration {
    explicit NodeRegistration(std::string_view name) { registerNode<Node>(name); }
};

}  // namespace zel
