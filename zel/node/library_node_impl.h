#pragma once

#include "zel/node/fused_forms.h"  // IWYU pragma: export
#include "zel/node/node_impl.h"    // IWYU pragma: export

// What the sources of the library's own nodes include in place of node_impl.h.
