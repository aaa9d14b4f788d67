#pragma once

// The simplex lattice: its shape, its limits and the keys of its hash.

#include "zel_platform/orvane_math_support/simplex_gradients.h"
#include "zel_platform/quern_core/always_inline.h"

#include <array>
#include <bit>
#include <cstdint>

namespace Orvane::Math::Simplex {

// The conversion between Cartesian and lattice coordinates: lattice = p + kSkew * sum(p),
// p = lattice - kUnskew * sum(lattice). Of the two skews that make a simplex regular this is the
// negative one: it keeps the shortest reciprocal vectors of the lattice farther from the axis of
// time, along which the variance of curl noise changes most.
inline constexpr double kSkew = -0.80901699437494745;   // -(sqrt(5) + 1) / 4
inline constexpr double kUnskew = 0.36180339887498949;  // (5 + sqrt(5)) / 20

/// The normal of the mirror that turns space before the skew, and its scale: the mirror image of p
/// is p - normal * scale * dot(normal, p). A mirror is its own inverse, and costs less than a
/// rotation.
///
/// Without the turn, planes along two axes lie along planes of the lattice. The variance of noise
/// over the seeds is a sum of waves, one for each reciprocal vector, and the ten shortest matter
/// most. In a plane, a wave shows if its projection is too short to average out, and two add up if
/// their projections are equal. A search over all normals found this one: in each of the three
/// planes along two axes, the projections of the ten are at least 0.52 long and 0.26 apart, and
/// those of the next 45 are at least 0.26 long. The search over all rotations found none better.
inline constexpr std::array<double, 4> kMirrorNormal = {1, 11 / 16.0, 51 / 128.0, 0};
inline constexpr double kMirrorScale =
    2 / (1 + kMirrorNormal[1] * kMirrorNormal[1] + kMirrorNormal[2] * kMirrorNormal[2]);
inline constexpr std::array<double, 4> kScaledMirrorNormal = {
    kMirrorScale, kMirrorNormal[1] * kMirrorScale, kMirrorNormal[2] * kMirrorScale, 0};

/// The scaled normal in lattice coordinates.
inline constexpr std::array<double, 4> kLatticeNormal = [] {
    auto lattice = kScaledMirrorNormal;
    double const skewed = kSkew * (lattice[0] + lattice[1] + lattice[2]);
    for (double& coordinate : lattice) coordinate += skewed;
    return lattice;
}();

/// The shift of the lattice, which would else have a vertex at the origin: it is added to a point's
/// height above the mirror, dot(normal, p), and to each lattice coordinate. From a search: over the
/// seeds, the root mean square of every noise at the spatial origin is 0.9 to 1 of the usual one at
/// time 0, and 0.92 to 1.06 over all times.
inline constexpr double kMirrorShift = 181 / 16.0, kDiagonalShift = 13 / 128.0;

/// The squared radius of a vertex's support. A vertex is sqrt(1/2) away from the opposite facet of
/// each of its simplices, in any number of dimensions. Within a simplex, therefore, no vertex but
/// its own five contributes.
inline constexpr double kRadius2 = 0.5;

/// The limit of the sum of a time's absolute lattice coordinates: below it a double has bits left
/// for the place in a cell.
inline constexpr double kLatticeLimit = 0x1p50;

/// The limit of the sum of a point's absolute coordinates: below it the point's lattice coordinates
/// are below kLatticeLimit.
inline constexpr double kReach = 0x1p48;

/// Rounds when added: the low bits of kCellShift + x hold the integer nearest to x, for |x| < 2^51.
inline constexpr double kCellShift = 0x1.8p52;
/// The bits of kCellShift + x, as an integer, minus kCellBias are the integer nearest to x.
inline constexpr auto kCellBias = std::bit_cast<std::uint64_t>(kCellShift);

/// The kernel of a vertex is t^power * (kRim<power> - t), where t is kRadius2 - d^2. The power sets
/// the order of continuity. The last factor moves weight outwards from the vertices, between which
/// t^power alone leaves gaps. It lowers the strongest wave in the variance of noise over the seeds
/// from 0.48 to 0.28 of the mean for simplex noise, from 0.33 to 0.26 for curl noise and from 0.50
/// to 0.26 for smooth curl noise. A smaller rim would lower it further, and show rings around the
/// vertices.
template <int power> inline constexpr double kRim = 0;
template <> inline constexpr double kRim<3> = 5 / 4.0;
template <> inline constexpr double kRim<4> = 5 / 8.0;

/// Scales simplex noise to -1..1: the reciprocal, rounded down, of the largest possible sum over
/// the vertices, that of |d| * kernel, where all gradients point along d; and the length of the
/// table's directions. The largest sum is 0.0376733 / 16, from a search over the simplex; a single
/// vertex reaches 77 % of it.
inline constexpr double kScale = 26.544 * 16 / kDirectionLength;

/// Scale curl noise to a length of 2.8, root mean square over all places and seeds.
template <int power> inline constexpr double kCurlScale = 0;
template <> inline constexpr double kCurlScale<3> = 5.81395 * 8 / kSpatialDirectionLength;
template <> inline constexpr double kCurlScale<4> = 27.5006 * 16 / kSpatialDirectionLength;

/// The hash keys of a seed. No two seeds have the same axis keys.
struct Keys {
    std::array<std::uint32_t, 4> axis;
    std::uint32_t last;
};

/// After G. Steele, D. Lea, C. Flood, "Fast splittable pseudorandom number generators", 2014: a
/// bijection maps the seed to the first two axis keys, and a further round gives the other keys.
ZEL_ALWAYS_INLINE inline Keys makeKeys(std::int64_t seed) {
    std::uint64_t a = static_cast<std::uint64_t>(seed) + 0x9e3779b97f4a7c15u;
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

/// An odd factor for each axis, all different.
inline constexpr std::array<std::uint32_t, 4> kMix = {0xcc9e2d51u, 0x1b873593u, 0xe6546b65u,
                                                      0x85ebca6bu};

/// Stands for the origin of the lattice, which adds nothing to a cell.
struct NoOrigin {};

/// Stands for derivatives that are not computed.
struct NoDerivative {};

template <class T> struct Vec3 { T x, y, z; };

/// The derivatives of a curl.
template <class T> struct CurlDerivative {
    Vec3<Vec3<T>> rows;  ///< row r is the gradient of component r by the position
    Vec3<T> alongTime;
};

}  // namespace Orvane::Math::Simplex
