#pragma once

// The formulas of the simplex noises, each once, over a lane type L such as ScalarLane: what a
// Real, a Word and their groups of four coordinates are, and the operations on them. A form that
// computes many points at once supplies an L whose Real is a register of points; nothing below
// branches on a number.

#include "orvane_math_support/scalar_lane.h"

#include <array>
#include <cstdint>

namespace Orvane::Math::Simplex {

// Between Cartesian and lattice coordinates: lattice = p + kSkew * sum(p), p = lattice - kUnskew *
// sum(lattice).
inline constexpr double kSkew = 0.30901699437494745;    // (sqrt(5) - 1) / 4
inline constexpr double kUnskew = 0.13819660112501053;  // (5 - sqrt(5)) / 20

/// Squared radius of a vertex's support. A vertex is sqrt(1/2) away from the opposite facet of each
/// of its simplices, in four dimensions as in all others, so that nothing is cut off when a simplex
/// sums its own five vertices alone.
inline constexpr double kRadius2 = 0.5;

/// The absolute lattice coordinates of a point sum up to less than this, so that a double has bits
/// for the place in a cell.
inline constexpr double kLatticeLimit = 0x1p50;

/// Puts a noise with kernel (1 - 2 d^2)^power into -1..1: the reciprocal, rounded down, of the
/// largest sum over the vertices of |d| * (1 - 2 d^2)^power, which needs all gradients along d. The
/// largest sums, found by a search over the simplex, are 0.1931963 and 0.1473733; one vertex alone
/// reaches 87 % and 99.8 % of them.
template <int power> inline constexpr double kScale = 0;
template <> inline constexpr double kScale<3> = 5.176;
template <> inline constexpr double kScale<4> = 6.7854;

/// Hash keys of a seed. No two seeds have the same axis keys.
struct Keys {
    std::array<std::uint32_t, 4> axis;
    std::uint32_t last;
};

/// After G. Steele, D. Lea, C. Flood, "Fast splittable pseudorandom number generators", 2014: a
/// bijection of the seed to the first two axis keys, and a further round.
ZEL_INLINE Keys makeKeys(std::uint64_t seed) {
    std::uint64_t a = seed + 0x9e3779b97f4a7c15u;
    a = (a ^ (a >> 30)) * 0xbf58476d1ce4e5b9u;
    a = (a ^ (a >> 27)) * 0x94d049bb133111ebu;
    a ^= a >> 31;
    std::uint64_t b = (a ^ (a >> 29)) * 0xd6e8feb86659fd93u;
    b ^= b >> 32;
    auto const word = [](std::uint64_t v, int shift) {
        return static_cast<std::uint32_t>(v >> shift);
    };
    return {{word(a, 0), word(a, 32), word(b, 0), word(b, 32)}, word(a + b, 16)};
}

/// Odd factors, another one for each axis.
inline constexpr std::array<std::uint32_t, 4> kMix = {0xcc9e2d51u, 0x1b873593u, 0xe6546b65u,
                                                      0x85ebca6bu};

/// Hash of each coordinate of a cell by itself, from its low word plus the key, and its high word.
/// Not linear, so that no translation maps the lattice's hashes onto one another. The low word is
/// mixed before the high word enters: a small step of one must not undo a carry into the other.
template <class L>
ZEL_INLINE typename L::Word4 hashAxes(typename L::Word4 u, typename L::Word4 high) {
    u = (u ^ (u >> 16)) * L::load(kMix);
    u = ((u ^ (u >> 15)) + high) * 0x9e3779b1u;
    return u ^ (u >> 16);
}

/// Mixes the exclusive or of four axis hashes; the upper 24 bits are the ones to use.
template <class Word> ZEL_INLINE Word finishHash(Word h, std::uint32_t key) {
    h = h * 0x7feb352du + key;
    return (h ^ (h >> 15)) * 0x846ca68bu;
}

/// Successive random directions from one hash: its upper 24 bits are a fraction of which each
/// direction takes one digit to the base kDirections.
template <class L> class Directions {
public:
    ZEL_INLINE explicit Directions(typename L::Word hash) : fraction_(hash >> 8) {}
    ZEL_INLINE typename L::Real4 next() {
        auto const scaled = fraction_ * static_cast<std::uint32_t>(kDirections);
        fraction_ = scaled & 0xffffffu;
        return L::direction(scaled >> 24);
    }

private:
    typename L::Word fraction_;
};

template <class L> ZEL_INLINE typename L::Wide4 skew(typename L::Wide4 const& p) {
    return p + L::sum(p) * kSkew;
}

/// Calls add(d, hash) for the five vertices of the simplex that holds the point `p`; d is the point
/// minus the vertex. `lattice` are the lattice coordinates of `p`, within kLatticeLimit; `origin`
/// is added to every cell before it is hashed.
template <class L, class Add>
ZEL_INLINE void forEachVertex(typename L::Wide4 const& p, typename L::Wide4 const& lattice,
                              typename L::Cell4 const& origin, Keys const& keys, Add&& add) {
    using Number = typename L::Number;

    // The cell, and the point relative to its first vertex.
    typename L::Wide4 whole;
    typename L::Cell4 const cell = L::cell(lattice, whole) + origin;
    typename L::Real4 const d = L::narrow(p - (whole - L::sum(whole) * kUnskew));

    auto const low = L::low(cell) + L::load(keys.axis);
    auto const here = hashAxes<L>(low, L::high(cell));
    auto const flip = here ^ hashAxes<L>(low + 1, L::high(cell + 1));
    auto const first = L::fold(here);

    // The path through the simplex steps along the largest coordinate first. At the first inner
    // vertex the coordinate above all others has moved, at the second those above two, at the third
    // those above one.
    auto const [a, b, c] = L::comparisons(d);
    auto const inner = [&](auto const& moved, double steps) __attribute__((always_inline)) {
        add((d - L::ones(moved)) + static_cast<Number>(steps * kUnskew),
            finishHash(first ^ L::fold(flip & L::words(moved)), keys.last));
    };
    add(d, finishHash(first, keys.last));
    inner(a & b & c, 1);
    inner((a & b) | (c & (a | b)), 2);
    inner(a | b | c, 3);
    add(d + static_cast<Number>(4 * kUnskew - 1), finishHash(first ^ L::fold(flip), keys.last));
}

/// The base of the kernel's power: 1 - 2 d^2 within the support, else 0.
template <class L> ZEL_INLINE typename L::Real falloff(typename L::Real4 const& d) {
    return L::twicePositive(static_cast<typename L::Number>(kRadius2) - L::dot(d, d));
}

/// Simplex noise: the sum over the vertices of t^4 * dot(g, d), with t the falloff and g the
/// gradient of the vertex.
template <class L>
ZEL_INLINE typename L::Real simplexValue(typename L::Wide4 const& p,
                                         typename L::Wide4 const& lattice, Keys const& keys) {
    typename L::Real sum{};
    forEachVertex<L>(
        p, lattice, typename L::Cell4{},
        keys, [&](auto const& d, auto hash) __attribute__((always_inline)) {
            auto const t = falloff<L>(d), t2 = t * t;
            sum = sum + (t2 * t2) * L::dot(Directions<L>(hash).next(), d);
        });
    return sum * static_cast<typename L::Number>(kScale<4>);
}

/// The same value, and the derivative: the sum of t^4 * g - 16 * t^3 * dot(g, d) * d.
template <class L>
ZEL_INLINE typename L::Real simplexDerivative(typename L::Wide4 const& p,
                                              typename L::Wide4 const& lattice, Keys const& keys,
                                              typename L::Real4& derivative) {
    using Number = typename L::Number;
    typename L::Real sum{};
    typename L::Real4 slope{};
    forEachVertex<L>(
        p, lattice, typename L::Cell4{},
        keys, [&](auto const& d, auto hash) __attribute__((always_inline)) {
            auto const t = falloff<L>(d), t2 = t * t, t4 = t2 * t2;
            auto const g = Directions<L>(hash).next();
            auto const along = L::dot(g, d);
            sum = sum + t4 * along;
            slope = slope + (g * t4 - d * ((t2 * t) * along * Number{16}));
        });
    derivative = slope * static_cast<Number>(kScale<4>);
    return sum * static_cast<Number>(kScale<4>);
}

template <class T> struct Vec3 { T x, y, z; };

/// Spatial curl of the potential whose components are sums of t^power * dot(g, d), with directions
/// g of its own at each vertex. A vertex gives t^power * c - 4 * power * t^(power - 1) * cross(d,
/// s), where s is the field of the three dot products and c its curl.
template <class L, int power>
ZEL_INLINE Vec3<typename L::Real> curl(typename L::Wide4 const& p, typename L::Wide4 const& lattice,
                                       typename L::Cell4 const& origin, Keys const& keys) {
    static_assert(power == 3 || power == 4);
    using Number = typename L::Number;
    Vec3<typename L::Real> sum{};
    forEachVertex<L>(
        p, lattice, origin, keys, [&](auto const& d, auto hash) __attribute__((always_inline)) {
            auto const t = falloff<L>(d), t2 = t * t;
            auto const weight = power == 3 ? t2 : t2 * t;
            auto const steep = weight * Number{4 * power}, flat = weight * t;
            Directions<L> directions(hash);
            auto const gx = directions.next(), gy = directions.next(), gz = directions.next();
            auto const sx = L::dot(gx, d), sy = L::dot(gy, d), sz = L::dot(gz, d);
            sum.x = sum.x + (flat * (gz[1] - gy[2]) - steep * (d[1] * sz - d[2] * sy));
            sum.y = sum.y + (flat * (gx[2] - gz[0]) - steep * (d[2] * sx - d[0] * sz));
            sum.z = sum.z + (flat * (gy[0] - gx[1]) - steep * (d[0] * sy - d[1] * sx));
        });
    auto const scale = static_cast<Number>(kScale<power>);
    return {sum.x * scale, sum.y * scale, sum.z * scale};
}

}  // namespace Orvane::Math::Simplex
