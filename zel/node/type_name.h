#pragma once

#include <typeinfo>

#include "zel/api.h"
#include "zel_platform/quern_core/string.h"

namespace zel {

/// The demangled name of a type, such as "zel::ScalarFieldAdd". A node class that stands on none of
/// the bases in node.h stores it in its `typeName`. It allocates: where many nodes are made, keep
/// the text in a static.
ZEL_API Quern::String typeNameOf(std::type_info const& type);

}  // namespace zel
