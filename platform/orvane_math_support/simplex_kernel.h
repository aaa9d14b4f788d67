// The formulas of the simplex noises, each once, over a lane type L: ScalarLane, whose Real is a
// number, or BlockLane, whose Real is a register of them. A lane type says what a Real, a Word and
// their groups of four coordinates are, and gives the operations on them. Nothing below branches on
// a number, and every operation is rounded once, in the order that is written here: so all lanes
// give the same bits.
//
// After "hwy/highway.h" this header is compiled for the instruction set that Highway asks for, once
// for each, in a namespace of its own; without it, for the baseline.

#if defined(ZEL_SIMPLEX_KERNEL) == defined(HWY_TARGET_TOGGLE)
#ifdef HWY_TARGET_TOGGLE
#undef ZEL_SIMPLEX_KERNEL
#else
#define ZEL_SIMPLEX_KERNEL
#endif

#include "zel_platform/orvane_math_support/simplex_lattice.h"
#include "zel_platform/orvane_math_support/simplex_time.h"

#include <bit>
#include <cstdint>
#include <type_traits>

#ifdef HWY_NAMESPACE
#define ZEL_KERNEL_LAMBDA HWY_ATTR ZEL_ALWAYS_INLINE
#define ZEL_KERNEL_BEGIN namespace HWY_NAMESPACE {
HWY_BEFORE_NAMESPACE();
#else
#define ZEL_KERNEL_LAMBDA ZEL_ALWAYS_INLINE
#define ZEL_KERNEL_BEGIN inline namespace Baseline {
#endif
#define ZEL_KERNEL_END }

namespace Orvane::Math::Simplex {
ZEL_KERNEL_BEGIN

template <int bits, class W> ZEL_ALWAYS_INLINE inline W shiftRight(W const& w) {
    if constexpr (requires { w.template shiftRight<bits>(); })
        return w.template shiftRight<bits>();
    else
        return w >> bits;
}

/// Hash of each coordinate of a cell by itself, from its low word plus the key, and its high
/// word. Not linear, so that no translation maps the lattice's hashes onto one another. The low
/// word is mixed before the high word enters: a small step of one must not undo a carry into
/// the other.
template <class L>
ZEL_ALWAYS_INLINE inline typename L::Word4 hashAxes(typename L::Word4 u,
                                                    typename L::Word4 const& high) {
    u = (u ^ shiftRight<16>(u)) * L::load(kMix);
    return ((u ^ shiftRight<15>(u)) + high) * 0x9e3779b1u;
}

/// Mixes the exclusive or of four axis hashes; the upper bits are the ones to use.
template <class Word> ZEL_ALWAYS_INLINE inline Word finishHash(Word h) {
    h = (h ^ shiftRight<16>(h)) * 0x7feb352du;
    return (h ^ shiftRight<15>(h)) * 0x846ca68bu;
}

/// Direction of a vertex, from its hash.
template <class L>
ZEL_ALWAYS_INLINE inline typename L::Real4 direction(typename L::Word const& hash) {
    static_assert(kDirections == 128);
    return L::direction(shiftRight<32 - 7>(hash));
}

/// Direction number `n` in space, 0 to 2. Its w is not to be used.
template <class L, int n>
ZEL_ALWAYS_INLINE inline typename L::Real4 spatialDirection(typename L::Word const& hash) {
    static_assert(kSpatialDirections == 64);
    return L::template spatialDirection<32 - 6 * (n + 1)>(hash);
}

/// Whether a point lies in the lattice; not if a coordinate is NaN.
template <class L> ZEL_ALWAYS_INLINE inline auto inLattice(typename L::Real4 const& p) {
    return L::size(p) < static_cast<typename L::Number>(kReach);
}

/// Lattice coordinates, less 1/2 each: the nearest integers to these make the cell.
template <class L> ZEL_ALWAYS_INLINE inline typename L::Wide4 skew(typename L::Wide4 const& p) {
    return p + (L::sum(p) * kSkew - 0.5);
}

/// Calls use(d, cell) with the place in the lattice of a point for which skew() gives `lattice`,
/// within 2^51: the point minus the first vertex of its cell, and the cell. `origin` is added to
/// the cell.
///
/// Groups are handed on in calls like this one, since g++ 12 copies structures of registers in
/// pieces.
template <class L, class Origin, class Use>
ZEL_ALWAYS_INLINE inline auto atPlace(typename L::Wide4 const& lattice, Origin const& origin,
                                      Use&& use) {
    using Number = typename L::Number;
    auto const shifted = lattice + kCellShift;
    // Small numbers from here on, so that their own precision does; -1/2 to 1/2.
    auto const rest = L::narrow(lattice - (shifted - kCellShift));
    auto const d = rest + (static_cast<Number>(0.5 - 2 * kUnskew) -
                           L::sum(rest) * static_cast<Number>(kUnskew));
    auto const cell = L::bits(shifted);
    if constexpr (std::is_same_v<Origin, NoOrigin>)
        return use(d, cell);
    else
        return use(d, cell + origin);
}

/// What the hashes of the vertices of a cell are made of.
template <class L> struct CellHash {
    typename L::Word first;  // of the first vertex
    typename L::Word4 flip;  // what changes with a step along each axis
};

template <class L>
ZEL_ALWAYS_INLINE inline CellHash<L> hashCell(typename L::Cell4 const& cell, Keys const& keys) {
    auto const low = L::low(cell) + L::load(keys.axis);
    auto const here = hashAxes<L>(low, L::high(cell));
    return {L::fold(here) ^ keys.last, here ^ hashAxes<L>(low + 1u, L::highOfNext(cell))};
}

/// Calls add(d, hash) for the five vertices of the simplex that holds a point, with the point minus
/// the vertex and the hash of the vertex. The arguments are the same of the first one, and of the
/// cell.
template <class L, class Add>
ZEL_ALWAYS_INLINE inline void forEachVertex(typename L::Real4 const& d, CellHash<L> const& hash,
                                            Add&& add) {
    using Number = typename L::Number;
    auto const& first = hash.first;
    auto const& flip = hash.flip;

    // The path through the simplex steps along the largest coordinate first: at the first inner
    // vertex it has moved, at the second the second largest too, at the third all but the
    // smallest.
    auto const moved = L::largest(d);
    auto const inner = [&](int steps, auto const& mask) ZEL_KERNEL_LAMBDA {
        add(L::step(d, mask) + static_cast<Number>(steps * kUnskew),
            finishHash(first ^ L::fold(flip & mask)));
    };
    add(d, finishHash(first));
    inner(1, moved[0]);
    inner(2, moved[1]);
    inner(3, moved[2]);
    add(d + static_cast<Number>(4 * kUnskew - 1), finishHash(first ^ L::fold(flip)));
}

/// The base of the kernel's power: 1/2 - d^2 within the support, else 0.
template <class L> ZEL_ALWAYS_INLINE inline typename L::Real falloff(typename L::Real4 const& d) {
    return L::positive(static_cast<typename L::Number>(kRadius2) - L::dot(d, d));
}

/// Simplex noise: the sum over the vertices of t^4 * dot(g, d), with t the falloff and g the
/// gradient of the vertex.
template <class L>
ZEL_ALWAYS_INLINE inline typename L::Real simplexValue(typename L::Real4 const& place,
                                                       CellHash<L> const& cellHash) {
    typename L::Real sum{};
    forEachVertex<L>(place, cellHash, [&](auto const& d, auto const& hash) ZEL_KERNEL_LAMBDA {
        auto const t = falloff<L>(d), t2 = t * t;
        sum = sum + (t2 * t2) * L::dot(direction<L>(hash), d);
    });
    return sum * static_cast<typename L::Number>(kScale);
}

/// The same value, and the derivative: the sum of t^4 * g - 8 * t^3 * dot(g, d) * d.
template <class L>
ZEL_ALWAYS_INLINE inline typename L::Real simplexDerivative(typename L::Real4 const& place,
                                                            CellHash<L> const& cellHash,
                                                            typename L::Real4& derivative) {
    using Number = typename L::Number;
    typename L::Real sum{};
    typename L::Real4 slope{};
    forEachVertex<L>(place, cellHash, [&](auto const& d, auto const& hash) ZEL_KERNEL_LAMBDA {
        auto const t = falloff<L>(d), t2 = t * t, t4 = t2 * t2;
        auto const g = direction<L>(hash);
        auto const along = L::dot(g, d);
        sum = sum + t4 * along;
        slope = slope + (g * t4 - d * ((t2 * t) * along * Number{8}));
    });
    derivative = slope * static_cast<Number>(kScale);
    return sum * static_cast<Number>(kScale);
}

/// Spatial curl of the potential whose components are sums of t^power * dot(g, d), with
/// directions g of its own in space at each vertex: only their parts in space give the curl of
/// dot(g, d). A vertex gives t^power * c - 2 * power * t^(power - 1) * cross(d, s), where s is the
/// field of the three dot products and c its curl.
///
/// `jacobian` is a NoJacobian, or rows of the derivatives of a component along x, y and z. To that
/// of component r along coordinate j a vertex gives d_j * (4 * power * (power - 1) * t^(power - 2)
/// * cross_r - 2 * power * t^(power - 1) * c_r) - 2 * power * t^(power - 1) * (derivative of
/// cross_r along j).
template <class L, int power, class Jacobian>
ZEL_ALWAYS_INLINE inline Vec3<typename L::Real>
curl(typename L::Real4 const& place, CellHash<L> const& cellHash, Jacobian& jacobian) {
    static_assert(power == 3 || power == 4);
    using Number = typename L::Number;
    Vec3<typename L::Real> sum{};
    Jacobian slope{};
    forEachVertex<L>(place, cellHash, [&](auto const& d, auto const& hash) ZEL_KERNEL_LAMBDA {
        auto const t = falloff<L>(d), t2 = t * t;
        auto const weight = power == 3 ? t2 : t2 * t;
        auto const steep = weight * Number{2 * power}, flat = weight * t;
        auto const gx = spatialDirection<L, 0>(hash);
        auto const sx = L::dot3(gx, d);
        auto const gy = spatialDirection<L, 1>(hash);
        auto const sy = L::dot3(gy, d);
        auto const gz = spatialDirection<L, 2>(hash);
        auto const sz = L::dot3(gz, d);
        auto const cx = gz[1] - gy[2], cy = gx[2] - gz[0], cz = gy[0] - gx[1];
        auto const rx = d[1] * sz - d[2] * sy, ry = d[2] * sx - d[0] * sz,
                   rz = d[0] * sy - d[1] * sx;
        sum.x = sum.x + (flat * cx - steep * rx);
        sum.y = sum.y + (flat * cy - steep * ry);
        sum.z = sum.z + (flat * cz - steep * rz);
        if constexpr (!std::is_same_v<Jacobian, NoJacobian>) {
            auto const steeper = (power == 3 ? t : t2) * Number{4 * power * (power - 1)};
            auto const ax = steeper * rx - steep * cx, ay = steeper * ry - steep * cy,
                       az = steeper * rz - steep * cz;
            auto const ex = steep * d[0], ey = steep * d[1], ez = steep * d[2];
            auto const ux = steep * sx, uy = steep * sy, uz = steep * sz;
            auto& [jx, jy, jz] = slope;
            jx.x = jx.x + (d[0] * ax - (ey * gz[0] - ez * gy[0]));
            jx.y = jx.y + (d[1] * ax - (ey * gz[1] - ez * gy[1] + uz));
            jx.z = jx.z + (d[2] * ax - (ey * gz[2] - ez * gy[2] - uy));
            jy.x = jy.x + (d[0] * ay - (ez * gx[0] - ex * gz[0] - uz));
            jy.y = jy.y + (d[1] * ay - (ez * gx[1] - ex * gz[1]));
            jy.z = jy.z + (d[2] * ay - (ez * gx[2] - ex * gz[2] + ux));
            jz.x = jz.x + (d[0] * az - (ex * gy[0] - ey * gx[0] + uy));
            jz.y = jz.y + (d[1] * az - (ex * gy[1] - ey * gx[1] - ux));
            jz.z = jz.z + (d[2] * az - (ex * gy[2] - ey * gx[2]));
        }
    });
    auto const scaled = [](Vec3<typename L::Real> const& v) ZEL_KERNEL_LAMBDA {
        auto const scale = static_cast<Number>(kCurlScale<power>);
        return Vec3<typename L::Real>{v.x * scale, v.y * scale, v.z * scale};
    };
    if constexpr (!std::is_same_v<Jacobian, NoJacobian>)
        jacobian = {scaled(slope.x), scaled(slope.y), scaled(slope.z)};
    return scaled(sum);
}

/// Lattice coordinates of a time.
template <class L>
ZEL_ALWAYS_INLINE inline typename L::Wide4 skewTime(typename L::Wide const& time) {
    auto const skewed = time * kSkew;
    return L::spread(skewed, time + skewed);
}

/// Whether they lie in the lattice, or in the cell of a TimePlace; not if one is NaN.
template <class L> ZEL_ALWAYS_INLINE inline auto timeInLattice(typename L::Wide4 const& lattice) {
    return L::size(lattice) < kLatticeLimit;
}

/// Keeps what two floats hold, 48 bits. Cut off in the representation, not by going to float
/// and back: g++ 12 drops such a round trip where it vectorises, and the bits would depend on
/// that.
template <class L>
ZEL_ALWAYS_INLINE inline typename L::Wide roundToTwoFloats(typename L::Wide const& a) {
    auto const high = L::cutToFloat(a);
    return high + L::cutToFloat(a - high);
}

/// Calls use() with the four members of the TimePlace of a time within the lattice, from its
/// coordinates there.
template <class L, class Use>
ZEL_ALWAYS_INLINE inline auto placeTime(typename L::Wide4 const& lattice, Use const& use) {
    auto const shifted = (lattice - 0.5) + kCellShift;
    auto const place = lattice - (shifted - kCellShift);
    auto const cell = L::unbiased(L::bits(shifted));
    return use(roundToTwoFloats<L>(place[2]), roundToTwoFloats<L>(place[3]), cell[2], cell[3]);
}

ZEL_KERNEL_END
}  // namespace Orvane::Math::Simplex

#ifdef HWY_NAMESPACE
HWY_AFTER_NAMESPACE();
#endif
#undef ZEL_KERNEL_BEGIN
#undef ZEL_KERNEL_END
#endif
