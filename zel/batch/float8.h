#pragma once

namespace zel::detail {

/// Eight floats in a vector register.
using Float8 = float __attribute__((vector_size(32)));

}  // namespace zel::detail
