#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "zel_scene/error.h"
#include "zel_scene/node_class.h"

// Trees as JSON. docs/scenes.md describes the format, and docs/scene.schema.json is its schema.
namespace zel {

/// The version of the format that toJson() writes, and the latest that fromJson() reads.
inline constexpr int kSceneVersion = 1;

/// Returns the tree as a text that fromJson() reads back to an equal tree, see sameTree(), if the
/// tree is within its limits. Each node is written once, also one with several parents. Leaves that
/// read a property or a volume are written with the names that they look for, unbound.
///
/// Throws SceneError, with the path from the root, for a class that is not registered, a null child
/// or curve, and a name that is not UTF-8; std::invalid_argument if there is no tree.
ZEL_SCENE_API std::string toJson(Tree const& tree);

/// What a file may hold. Reading takes up to 25 times the size of a file in memory, comments
/// included, and up to 500 bytes for each field in it: a node, a constant or a name for one.
struct SceneLimits {
    std::size_t bytes = std::size_t{1} << 28;  ///< no more than 2 GiB, also if this is more
    std::size_t nodes = 1'000'000;
    /// The most levels of a tree. The evaluation of a tree calls a function for each level: the
    /// default needs at most half of a stack of 8 MB. Sums and products of many `children` have a
    /// level for each: at most as many children as levels.
    std::size_t depth = 1000;
};

/// Reads a tree. Classes are those that are registered when it is called. `object` is given to the
/// classes that bind in their constructor, ScalarOrvane and VectorOrvane, which are unbound
/// without.
///
/// Throws SceneError for a text that is not a scene: what was wanted where, what was there, and the
/// nearest name for one that is not known. Nothing is kept of a tree that could not be read to the
/// end. An exception of a constructor that is no std::exception is passed on. Needs no more of the
/// call stack for a deep file than for a flat one.
ZEL_SCENE_API Tree fromJson(std::string_view text, SceneLimits const& limits = {},
                            Orvane::Object const* object = nullptr);

/// The same for a root that must be a scalar, or a vector field. Its class may then always be named
/// without the prefix of its kind, such as "Add", which fromJson() takes for one of two classes.
ZEL_SCENE_API ScalarPtr scalarFromJson(std::string_view text, SceneLimits const& limits = {},
                                       Orvane::Object const* object = nullptr);
ZEL_SCENE_API VectorPtr vectorFromJson(std::string_view text, SceneLimits const& limits = {},
                                       Orvane::Object const* object = nullptr);

}  // namespace zel
