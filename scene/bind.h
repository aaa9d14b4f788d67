#pragma once

#include <concepts>
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "zel_platform/orvane_geometry/object.h"
#include "zel_scene/node_class.h"

// Binding a tree to a geometry object, and what came of it.
namespace zel {

namespace detail {
struct BindingPaths;

template <class T>
concept TreeVariable =
    std::same_as<T, Tree> || std::same_as<T, ScalarPtr> || std::same_as<T, VectorPtr>;
}  // namespace detail

/// A node that waits for an object.
struct ZEL_SCENE_API Binding {
    enum class State {
        kBound,
        kNoProperty,    ///< the object has no property of the name
        kWrongType,     ///< the property is of a type that the node does not read
        kNoVolume,      ///< the object has no volume
        kNoChannel,     ///< the volume has no channel of the name
        kWrongChannel,  ///< the channel, or the volume, is of a type that the node does not read
        kUnbound,       ///< for a reason that the class does not tell
        kConstructed,   ///< was not bound by its constructor, which alone binds the class
    };

    std::string className;  ///< such as "zel::ScalarGeoPropertyTriggered"
    /// The property or channel that the node looks for; empty for a class that does not tell.
    std::string name;
    State state = State::kBound;

    /// The state in words, such as `no property "density"`.
    std::string reason() const;
    /// The way from the root, such as "/root/a/field"; empty of a binding that no report made. It
    /// is put together by each call: in a deep tree, all paths take the square of its levels.
    std::string path() const;

    std::shared_ptr<detail::BindingPaths const> paths;  ///< of the report
    std::uint32_t node = 0;                             ///< the number of the node there
};

/// What became of each node that waits for an object, in the order of a walk by levels.
struct ZEL_SCENE_API BindReport {
    std::vector<Binding> bindings;

    bool isComplete() const;
    /// How many nodes are bound.
    std::size_t boundCount() const;
    /// The nodes that stayed unbound.
    std::vector<Binding> unbound() const;
    /// The unbound nodes, a line each.
    std::string text() const;
};

/// Binds all nodes of the tree that are triggerable, also those that a walk does not reach, such as
/// in the time of a noise. Calls `apply_object`, and `use_property_indices` if `indices` is given,
/// which maps each sampled index to an element of the object.
///
/// `tree` becomes a copy in which the nodes that were bound, and their ancestors, are new; all
/// others, and everything that other trees hold, stay as they are. A node with several parents has
/// them in the copy, too. The object need not outlive the tree. Whether a node is bound is known of
/// registered classes that have `bool isBound() const`; of others it is taken for granted. Their
/// nodes are made anew from their parameters, and read nothing of an earlier object or of its
/// property indices, except for a node that was bound before and for which this object has nothing:
/// that keeps its binding, and counts as unbound.
///
/// ScalarOrvane and VectorOrvane take their volume from the object given to their constructor, or
/// to fromJson(). They are not bound here, and are in the report if they are unbound.
///
/// Throws the exceptions of `apply_object`, and std::invalid_argument if there is no tree; `tree`
/// is then as it was. Belongs to the set-up of a tree.
ZEL_SCENE_API BindReport bind(Tree& tree, Orvane::Object const& object,
                              Quern::Ptr<Quern::Array<long long>> const& indices = nullptr);
ZEL_SCENE_API BindReport bind(ScalarPtr& tree, Orvane::Object const& object,
                              Quern::Ptr<Quern::Array<long long>> const& indices = nullptr);
ZEL_SCENE_API BindReport bind(VectorPtr& tree, Orvane::Object const& object,
                              Quern::Ptr<Quern::Array<long long>> const& indices = nullptr);

/// The same. `bind(tree, object)` without `zel::` also finds std::bind, through the std::variant of
/// a Tree or a using directive. For an object that is not const, or of a derived class, that would
/// be the better match, and bind nothing; this template goes before it.
template <class T, class Host, class... Indices>
requires detail::TreeVariable<std::remove_cvref_t<T>> &&
    std::derived_from<std::remove_cvref_t<Host>, Orvane::Object>
        BindReport bind(T&& tree, Host&& object, Indices&&... indices) {
    static_assert(std::same_as<T, std::remove_cvref_t<T>&>,
                  "A tree changes when it is bound: it must be a variable that is not const.");
    Quern::Ptr<Quern::Array<long long>> const given(std::forward<Indices>(indices)...);
    return bind(tree, static_cast<Orvane::Object const&>(object), given);
}

/// The same, but throws std::invalid_argument if a node stays unbound. The text lists all these
/// nodes, and the names of the properties and channels that there are; of a host's object, only the
/// properties that were set, not those that its look-ups find. `tree` is then as it was.
ZEL_SCENE_API void bindStrictly(Tree& tree, Orvane::Object const& object,
                                Quern::Ptr<Quern::Array<long long>> const& indices = nullptr);
ZEL_SCENE_API void bindStrictly(ScalarPtr& tree, Orvane::Object const& object,
                                Quern::Ptr<Quern::Array<long long>> const& indices = nullptr);
ZEL_SCENE_API void bindStrictly(VectorPtr& tree, Orvane::Object const& object,
                                Quern::Ptr<Quern::Array<long long>> const& indices = nullptr);

/// The paths of all null children, such as "/root/a/field", and "/root" for a null root. A tree
/// with a null child must not be evaluated, walked or bound. Of a class that is not registered,
/// null children are not seen.
ZEL_SCENE_API std::vector<std::string> check(Tree const& tree);

}  // namespace zel
