#pragma once

#include <typeinfo>

#include "zel/api.h"
#include "zel_platform/quern_core/string.h"

namespace zel {

/// The demangled name of a type, such as "zel::ScalarFieldAdd". A node class that derives from
/// none of the bases in node.h stores it in its `typeName`. The call allocates: a class of which
/// many nodes are constructed keeps the text in a static variable.
ZEL_API Quern::String typeNameOf(std::type_info const& type);

}  // namespace zel
