#pragma once

#include "zel/api.h"
#include "zel/batch/block.h"

namespace zel::detail {

/// Sets `out` to the default gradients of a node: the differences of its values a step above and
/// below each position, as `grad` of the two interfaces has them. The node has values in blocks.
template <class Interface>
ZEL_API void differencesInBlock(Interface const& node, Block& block,
                                BlockResult<typename Interface::Gradient>& out);

}  // namespace zel::detail
