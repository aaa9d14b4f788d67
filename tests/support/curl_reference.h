#pragma once

#include <cstdint>
#include <valarray>

#include "zel_platform/orvane_math_support/scalar_arithmetic.h"

namespace support {

/// Calls use(d, hash) for a point of four coordinates: as the kernel places it in the lattice.
template <class Use>
auto atPlace(std::valarray<double> const& p, std::uint32_t seed, Use const& use) {
    using namespace Orvane::Math::Simplex;
    using Arith = ScalarArithmetic<double>;
    Double4 const w = {Double2{p[0], p[1]}, Double2{p[2], p[3]}};
    return atPlace<Arith>(skew<Arith>(w), NoOrigin{}, [&](auto const& d, auto const& cell) {
        return use(d, hashCell<Arith>(cell, makeKeys(seed)));
    });
}

/// The curl noises in double precision: power 3, or 4 for the smooth one.
template <int power>
std::valarray<double> curl(std::valarray<double> const& p, std::uint32_t seed) {
    return atPlace(p, seed, [](auto const& d, auto const& hash) {
        using namespace Orvane::Math::Simplex;
        NoDerivative none;
        auto const v = curl<ScalarArithmetic<double>, power>(d, hash, none);
        return std::valarray<double>{v.x, v.y, v.z};
    });
}

}  // namespace support
