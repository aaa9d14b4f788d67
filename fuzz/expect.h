#pragma once

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdlib>

/// Ends the fuzzer, which keeps the input.
inline void expect(bool condition) {
    if (!condition) std::abort();
}

/// Whether all floats have the same bits, or are both NaN.
template <class T> bool same(T const& a, T const& b) {
    using Floats = std::array<float, sizeof(T) / sizeof(float)>;
    auto const f = std::bit_cast<Floats>(a), g = std::bit_cast<Floats>(b);
    for (std::size_t i = 0; i < f.size(); ++i) {
        bool const equal = std::bit_cast<std::uint32_t>(f[i]) == std::bit_cast<std::uint32_t>(g[i]);
        if (!equal && !(std::isnan(f[i]) && std::isnan(g[i]))) return false;
    }
    return true;
}
