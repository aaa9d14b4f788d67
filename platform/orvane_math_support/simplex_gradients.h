#pragma once

#include <array>
#include <numbers>

namespace Orvane::Math::Simplex {

/// Number of gradient directions.
inline constexpr int kDirections = 120;

/// Unit vectors of x, y, z, w, a row each, 16 bytes or 32.
template <class Real> struct alignas(4 * sizeof(Real)) Direction { Real x, y, z, w; };

using Quaternion = std::array<double, 4>;  // real part last

constexpr Quaternion multiply(Quaternion const& a, Quaternion const& b) {
    return {a[3] * b[0] + a[0] * b[3] + a[1] * b[2] - a[2] * b[1],
            a[3] * b[1] - a[0] * b[2] + a[1] * b[3] + a[2] * b[0],
            a[3] * b[2] + a[0] * b[1] - a[1] * b[0] + a[2] * b[3],
            a[3] * b[3] - a[0] * b[0] - a[1] * b[1] - a[2] * b[2]};
}

/// The 120 vertices of the regular 600-cell (H. S. M. Coxeter, "Regular Polytopes", 1973). Their
/// moments are those of the whole sphere up to the eleventh degree, so that no axis shows in sums
/// of noise. They are turned by v -> p * v * q with two unit quaternions, which takes them off the
/// axes and diagonals of the lattice.
template <class Real> constexpr std::array<Direction<Real>, kDirections> makeDirections() {
    constexpr Quaternion p = {1 / 11.0, 2 / 11.0, 4 / 11.0, 10 / 11.0};
    constexpr Quaternion q = {2 / 9.0, 4 / 9.0, 5 / 9.0, 6 / 9.0};
    std::array<Direction<Real>, kDirections> out{};
    std::size_t count = 0;
    auto add = [&](Quaternion const& v) {
        auto const r = multiply(multiply(p, v), q);
        out[count++] = {static_cast<Real>(r[0]), static_cast<Real>(r[1]), static_cast<Real>(r[2]),
                        static_cast<Real>(r[3])};
    };
    for (std::size_t axis = 0; axis < 4; ++axis)
        for (double sign : {-1.0, 1.0}) {
            Quaternion v{};
            v[axis] = sign;
            add(v);
        }
    for (int signs = 0; signs < 16; ++signs) {
        Quaternion v{};
        for (std::size_t c = 0; c < 4; ++c) v[c] = (signs >> c & 1) != 0 ? 0.5 : -0.5;
        add(v);
    }
    // The even permutations of (+-phi, +-1, +-1/phi, 0) / 2.
    double const parts[4] = {std::numbers::phi / 2, 0.5, 0.5 / std::numbers::phi, 0};
    for (std::size_t a = 0; a < 4; ++a)
        for (std::size_t b = 0; b < 4; ++b)
            for (std::size_t c = 0; c < 4; ++c) {
                if (a == b || a == c || b == c) continue;
                std::size_t const d = 6 - a - b - c;
                int const swaps = (a > b) + (a > c) + (a > d) + (b > c) + (b > d) + (c > d);
                if (swaps % 2 != 0) continue;
                for (int signs = 0; signs < 8; ++signs) {
                    Quaternion v{};
                    v[a] = (signs & 1) != 0 ? parts[0] : -parts[0];
                    v[b] = (signs & 2) != 0 ? parts[1] : -parts[1];
                    v[c] = (signs & 4) != 0 ? parts[2] : -parts[2];
                    v[d] = parts[3];
                    add(v);
                }
            }
    return out;
}

template <class Real>
inline constexpr std::array<Direction<Real>, kDirections> kDirectionTable = makeDirections<Real>();

}  // namespace Orvane::Math::Simplex
