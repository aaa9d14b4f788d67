#pragma once

#include <vector>

#include "zel_scene/node_class.h"

namespace zel::detail {

/// The node classes of libzel.
std::vector<NodeClass> libraryClasses();

}  // namespace zel::detail
