#pragma once

#include <string>

#include "zel_scene/node_class.h"

namespace zel {

/// A text of the tree for a reader, a node a line, indented by two spaces a level down to level 50:
///
///     zel::ScalarFieldMax
///       a: zel::ScalarFieldSphere #1 center=(0, 0, 0) radius=1
///       b: zel::ScalarFieldNegative
///         field: zel::ScalarFieldSphere #1
///
/// A node with several parents has a number, and its descendants are listed where it first appears.
/// Parameters with their default value are listed, too, but for an `exactGradient` that is false.
/// Of a class that is not registered the children alone are known. Null children are "null". Throws
/// std::invalid_argument if there is no tree. Any number of threads may describe a tree while no
/// thread changes it; this holds for all functions of libzel_scene that only read one.
ZEL_SCENE_API std::string describe(Tree const& tree);

/// A graph in the language of graphviz, from left to right, in which each node appears once. Edges
/// are labelled by the names of the children. Long names and values are cut. Throws as describe()
/// does.
ZEL_SCENE_API std::string toDot(Tree const& tree);

}  // namespace zel
