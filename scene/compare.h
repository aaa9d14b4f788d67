#pragma once

#include <cstdint>

#include "zel_scene/node_class.h"

namespace zel {

/// Whether two trees have equal classes, equal bits in all parameters, and the same shape: nodes
/// with several parents have the same ones in both. Curves and arrays are compared by their
/// contents. Two NaN are equal if their bits are; -0 is not 0. What a leaf is bound to plays no
/// part.
///
/// Throws std::invalid_argument if there is no tree, or if a class is not registered, with its name
/// and the path from the root.
ZEL_SCENE_API bool sameTree(Tree const& a, Tree const& b);

/// A hash of what sameTree() compares: equal for equal trees, on every machine, in every run and
/// with every compiler. A version of ZEL that adds a parameter to a class changes the hashes of
/// trees with that class. Not for protection against tampering. Throws as sameTree() does.
ZEL_SCENE_API std::uint64_t hashOf(Tree const& tree);

}  // namespace zel
