#pragma once

#include <type_traits>

namespace support {

/// A vector of the components, or a scalar, which is the first of them.
template <class T> T make(float x, float y, float z) {
    if constexpr (std::is_same_v<T, float>)
        return x;
    else
        return {x, y, z};
}

}  // namespace support
