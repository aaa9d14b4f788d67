#pragma once

namespace zel::detail {

/// Eight floats in a vector register, and sixteen.
using Float8 = float __attribute__((vector_size(32)));
using Float16 = float __attribute__((vector_size(64)));

}  // namespace zel::detail
