// The formulas of the simplex noises, each written once, over an arithmetic `Arith`. An arithmetic
// is a class that defines the number types (Real, Word, Cell, and their groups of four coordinates)
// and the operations on them: the Real of ScalarArithmetic is one number, that of SimdArithmetic a
// register of numbers. No formula branches on a number, and each operation is rounded once, in the
// order written here, so that all arithmetics give the same bits.
//
// Where "hwy/highway.h" is included first, this header is compiled once for each instruction set
// that Highway selects, in a namespace for that set; otherwise it is compiled for the baseline.

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

/// Hashes each coordinate of a cell separately, from the low word plus the key, and the high word.
/// The hash is not linear, so that no translation maps the hashes of the lattice onto one another.
/// The low word is mixed before the high word is added: otherwise a small step of the low word
/// could cancel a carry into the high word.
template <class Arith>
ZEL_ALWAYS_INLINE inline typename Arith::Word4 hashAxes(typename Arith::Word4 u,
                                                        typename Arith::Word4 const& high) {
    u = (u ^ shiftRight<16>(u)) * Arith::load(kMix);
    return ((u ^ shiftRight<15>(u)) + high) * 0x9e3779b1u;
}

/// Mixes the exclusive or of four axis hashes. The upper bits of the result are the best mixed.
template <class Word> ZEL_ALWAYS_INLINE inline Word finishHash(Word h) {
    h = (h ^ shiftRight<16>(h)) * 0x7feb352du;
    return (h ^ shiftRight<15>(h)) * 0x846ca68bu;
}

/// The spatial direction of potential component `n`, 0 to 2. Callers must not use its w.
template <class Arith, int n>
ZEL_ALWAYS_INLINE inline typename Arith::Real4 spatialDirection(typename Arith::Word const& hash) {
    static_assert(kSpatialDirections == 64);
    return Arith::template spatialDirection<32 - 6 * (n + 1)>(hash);
}

/// Whether a point lies in the lattice; false if a coordinate is NaN.
template <class Arith> ZEL_ALWAYS_INLINE inline auto inLattice(typename Arith::Real4 const& p) {
    return Arith::size(p) < static_cast<typename Arith::Number>(kReach);
}

/// The lattice coordinates of a point, each minus 1/2. Rounded to integers they name the cell.
template <class Arith>
ZEL_ALWAYS_INLINE inline typename Arith::Wide4 skew(typename Arith::Wide4 const& p) {
    // The mirror is a term of its own, so that the processor can overlap the two sums.
    auto const height = (p[0] + p[1] * kMirrorNormal[1]) + (p[2] * kMirrorNormal[2] + kMirrorShift);
    return (p + (Arith::sum(p) * kSkew + (kDiagonalShift - 0.5))) -
           Arith::load(kLatticeNormal) * height;
}

/// Turns the derivative of a noise from the space of the lattice back to that of the caller.
template <class Arith>
ZEL_ALWAYS_INLINE inline typename Arith::Real4 turnBack(typename Arith::Real4 const& d) {
    auto const height = Arith::dot3(d, Arith::narrow(Arith::load(kMirrorNormal)));
    return d - Arith::narrow(Arith::load(kScaledMirrorNormal)) * height;
}

/// The same for a vector in space.
template <class Number, class T> ZEL_ALWAYS_INLINE inline Vec3<T> turnBack(Vec3<T> const& v) {
    constexpr auto number = [](double a) { return static_cast<Number>(a); };
    constexpr auto const& scaled = kScaledMirrorNormal;
    auto const height = (v.x + v.y * number(kMirrorNormal[1])) + v.z * number(kMirrorNormal[2]);
    return {v.x - height * number(scaled[0]), v.y - height * number(scaled[1]),
            v.z - height * number(scaled[2])};
}

/// Calls use(d, cell) for a point with the coordinates `lattice`, from skew() and below 2^51 in
/// magnitude. `d` is the point minus the first vertex of its cell. `origin`, if it is not NoOrigin,
/// is added to the cell.
///
/// The results are passed to a callback and not returned, because g++ 12 copies structures of
/// registers in pieces.
template <class Arith, class Origin, class Use>
ZEL_ALWAYS_INLINE inline auto atPlace(typename Arith::Wide4 const& lattice, Origin const& origin,
                                      Use&& use) {
    using Number = typename Arith::Number;
    auto const shifted = lattice + kCellShift;
    // The fractions, -1/2 to 1/2, need no more than the precision of the Real.
    auto const rest = Arith::narrow(lattice - (shifted - kCellShift));
    auto const d = rest + (static_cast<Number>(0.5 - 2 * kUnskew) -
                           Arith::sum(rest) * static_cast<Number>(kUnskew));
    auto const cell = Arith::bits(shifted);
    if constexpr (std::is_same_v<Origin, NoOrigin>)
        return use(d, cell);
    else
        return use(d, cell + origin);
}

/// The parts from which the hashes of all vertices of a cell are computed.
template <class Arith> struct CellHash {
    typename Arith::Word first;  // of the first vertex
    typename Arith::Word4 flip;  // bits that a step along each axis flips
};

template <class Arith>
ZEL_ALWAYS_INLINE inline CellHash<Arith> hashCell(typename Arith::Cell4 const& cell,
                                                  Keys const& keys) {
    auto const low = Arith::low(cell) + Arith::load(keys.axis);
    auto const here = hashAxes<Arith>(low, Arith::high(cell));
    return {Arith::fold(here) ^ keys.last,
            here ^ hashAxes<Arith>(low + 1u, Arith::highOfNext(cell))};
}

/// The vertices of the simplex around a point: `order` is that of the coordinates of the point
/// minus the first vertex, and a call with the number of a vertex computes its hash. The path from
/// the first vertex to the last steps along the axis of the largest coordinate first, then along
/// those of the second and the third largest.
template <class Arith> struct CellVertices {
    typename Arith::Order const& order;
    CellHash<Arith> const& hash;

    template <int n>
    ZEL_ALWAYS_INLINE typename Arith::Word operator()(std::integral_constant<int, n> /*at*/) const {
        if constexpr (n == 0)
            return finishHash(hash.first);
        else if constexpr (n == 4)
            return finishHash(hash.first ^ Arith::fold(hash.flip));
        else
            return finishHash(Arith::template flipped<n>(hash.first, hash.flip, order));
    }
};

/// Calls use(n) with the number of each vertex, as a constant.
template <class Use> ZEL_ALWAYS_INLINE inline void forEachVertex(Use&& use) {
    use(std::integral_constant<int, 0>());
    use(std::integral_constant<int, 1>());
    use(std::integral_constant<int, 2>());
    use(std::integral_constant<int, 3>());
    use(std::integral_constant<int, 4>());
}

/// Calls add(d, hash) for each vertex, with the point minus the vertex and the hash of the vertex.
/// The parameter `d` is the point minus the first vertex.
template <class Arith, class Vertices, class Add>
ZEL_ALWAYS_INLINE inline void forEachVertex(typename Arith::Real4 const& d,
                                            Vertices const& vertices, Add&& add) {
    using Number = typename Arith::Number;
    forEachVertex([&](auto n) ZEL_KERNEL_LAMBDA {
        auto const hash = vertices(n);
        if constexpr (n == 0)
            add(d, hash);
        else if constexpr (n == 4)
            add(d + static_cast<Number>(4 * kUnskew - 1), hash);
        else
            add(Arith::template step<n>(d, vertices.order, static_cast<Number>(n * kUnskew)), hash);
    });
}

/// The squared distance to a vertex, and the falloff t of the vertex: 1/2 - distance2 within its
/// support, else 0.
template <class Real> struct Falloff { Real distance2, t; };
template <class Arith>
ZEL_ALWAYS_INLINE inline Falloff<typename Arith::Real> falloff(typename Arith::Real4 const& d) {
    auto const distance2 = Arith::dot(d, d);
    return {distance2, Arith::positive(static_cast<typename Arith::Number>(kRadius2) - distance2)};
}

/// The kernel of a vertex, from its falloff: t^power * (kRim - t).
template <int power, class Number, class Real>
ZEL_ALWAYS_INLINE inline Real kernel(Falloff<Real> const& at) {
    static_assert(power == 3 || power == 4);
    auto const t2 = at.t * at.t;
    return (power == 3 ? t2 * at.t : t2 * t2) * (static_cast<Number>(kRim<power>) - at.t);
}

/// Twice the derivative of the kernel along t. The gradient of the kernel is minus this times d.
template <int power, class Number, class Real>
ZEL_ALWAYS_INLINE inline Real kernelSlope(Falloff<Real> const& at) {
    auto const t2 = at.t * at.t, weight = power == 3 ? t2 : t2 * at.t;
    constexpr Number scale = 2 * (power + 1);
    // Where a rim makes the kernel flat at the vertex, the other factor is the distance.
    if constexpr (power * kRim<power> == (power + 1) * kRadius2)
        return weight * (at.distance2 * scale);
    else
        return weight * (static_cast<Number>(2 * power * kRim<power>) - at.t * scale);
}

/// Twice the derivative of kernelSlope() along t. The gradient of kernelSlope() is minus this times
/// d.
template <int power, class Number, class Real>
ZEL_ALWAYS_INLINE inline Real kernelCurvature(Falloff<Real> const& at) {
    constexpr auto rim = static_cast<Number>(4 * power * (power - 1) * kRim<power>);
    return (power == 3 ? at.t : at.t * at.t) * (rim - at.t * Number{4 * power * (power + 1)});
}

/// Simplex noise: the sum over the vertices of kernel * dot(g, d), where g is the gradient
/// direction of the vertex.
template <class Arith, class Vertices>
ZEL_ALWAYS_INLINE inline typename Arith::Real simplexValue(typename Arith::Real4 const& place,
                                                           Vertices const& vertices) {
    using Number = typename Arith::Number;
    typename Arith::Real sum{};
    forEachVertex<Arith>(place, vertices, [&](auto const& d, auto const& hash) ZEL_KERNEL_LAMBDA {
        auto const at = falloff<Arith>(d);
        sum = sum + kernel<4, Number>(at) * Arith::dot(Arith::direction(hash), d);
    });
    return sum * static_cast<Number>(kScale * Arith::kDirectionUnit);
}

/// The value of simplexValue(), and its derivative: the sum of kernel * g - kernelSlope * dot(g, d)
/// * d.
template <class Arith, class Vertices>
ZEL_ALWAYS_INLINE inline typename Arith::Real simplexDerivative(typename Arith::Real4 const& place,
                                                                Vertices const& vertices,
                                                                typename Arith::Real4& derivative) {
    using Number = typename Arith::Number;
    typename Arith::Real sum{};
    typename Arith::Real4 slope{};
    forEachVertex<Arith>(place, vertices, [&](auto const& d, auto const& hash) ZEL_KERNEL_LAMBDA {
        auto const at = falloff<Arith>(d);
        auto const flat = kernel<4, Number>(at);
        auto const g = Arith::direction(hash);
        auto const along = Arith::dot(g, d);
        sum = sum + flat * along;
        // Within the support this is the distance again; computing it anew leaves a register free.
        auto const near = Falloff<typename Arith::Real>{static_cast<Number>(kRadius2) - at.t, at.t};
        slope = slope + (g * flat - d * (kernelSlope<4, Number>(near) * along));
    });
    derivative = turnBack<Arith>(slope * static_cast<Number>(kScale * Arith::kDirectionUnit));
    return sum * static_cast<Number>(kScale * Arith::kDirectionUnit);
}

/// The spatial curl of a vector potential. Each component of the potential is a sum over the
/// vertices of kernel * dot(g, d), with a spatial direction g for each vertex and component. A
/// vertex contributes kernel * c - kernelSlope * cross(d, s), where s is the vector of the three
/// dot products and c the curl of s.
///
/// `derivative` is a NoDerivative or a CurlDerivative. A vertex contributes to the derivative of
/// component r along coordinate j: d_j * (kernelCurvature * cross_r - kernelSlope * c_r) -
/// kernelSlope * (derivative of cross_r along j). The last term is 0 along the time.
template <class Arith, int power, class Vertices, class Derivative>
ZEL_ALWAYS_INLINE inline Vec3<typename Arith::Real>
curl(typename Arith::Real4 const& place, Vertices const& vertices, Derivative& derivative) {
    using Number = typename Arith::Number;
    Vec3<typename Arith::Real> sum{};
    Derivative slope{};
    forEachVertex<Arith>(place, vertices, [&](auto const& d, auto const& hash) ZEL_KERNEL_LAMBDA {
        auto const at = falloff<Arith>(d);
        auto const flat = kernel<power, Number>(at), steep = kernelSlope<power, Number>(at);
        auto const gx = spatialDirection<Arith, 0>(hash);
        auto const sx = Arith::dot3(gx, d);
        auto const gy = spatialDirection<Arith, 1>(hash);
        auto const sy = Arith::dot3(gy, d);
        auto const gz = spatialDirection<Arith, 2>(hash);
        auto const sz = Arith::dot3(gz, d);
        auto const cx = gz[1] - gy[2], cy = gx[2] - gz[0], cz = gy[0] - gx[1];
        auto const rx = d[1] * sz - d[2] * sy, ry = d[2] * sx - d[0] * sz,
                   rz = d[0] * sy - d[1] * sx;
        sum.x = sum.x + (flat * cx - steep * rx);
        sum.y = sum.y + (flat * cy - steep * ry);
        sum.z = sum.z + (flat * cz - steep * rz);
        if constexpr (!std::is_same_v<Derivative, NoDerivative>) {
            auto const steeper = kernelCurvature<power, Number>(at);
            auto const ax = steeper * rx - steep * cx, ay = steeper * ry - steep * cy,
                       az = steeper * rz - steep * cz;
            auto const ex = steep * d[0], ey = steep * d[1], ez = steep * d[2];
            auto const ux = steep * sx, uy = steep * sy, uz = steep * sz;
            auto& [jx, jy, jz] = slope.rows;
            jx.x = jx.x + (d[0] * ax - (ey * gz[0] - ez * gy[0]));
            jx.y = jx.y + (d[1] * ax - (ey * gz[1] - ez * gy[1] + uz));
            jx.z = jx.z + (d[2] * ax - (ey * gz[2] - ez * gy[2] - uy));
            jy.x = jy.x + (d[0] * ay - (ez * gx[0] - ex * gz[0] - uz));
            jy.y = jy.y + (d[1] * ay - (ez * gx[1] - ex * gz[1]));
            jy.z = jy.z + (d[2] * ay - (ez * gx[2] - ex * gz[2] + ux));
            jz.x = jz.x + (d[0] * az - (ex * gy[0] - ey * gx[0] + uy));
            jz.y = jz.y + (d[1] * az - (ex * gy[1] - ey * gx[1] - ux));
            auto& jt = slope.alongTime;
            jt.x = jt.x + d[3] * ax;
            jt.y = jt.y + d[3] * ay;
            jt.z = jt.z + d[3] * az;
        }
    });
    auto const scaled = [](Vec3<typename Arith::Real> const& v) ZEL_KERNEL_LAMBDA {
        auto const scale = static_cast<Number>(kCurlScale<power>);
        return Vec3<typename Arith::Real>{v.x * scale, v.y * scale, v.z * scale};
    };
    if constexpr (!std::is_same_v<Derivative, NoDerivative>) {
        // The divergence is 0. The mirror turns each row, then each column.
        auto& rows = slope.rows;
        rows.z.z = Number{0} - (rows.x.x + rows.y.y);
        auto const x = turnBack<Number>(scaled(rows.x)), y = turnBack<Number>(scaled(rows.y)),
                   z = turnBack<Number>(scaled(rows.z));
        using Column = Vec3<typename Arith::Real>;
        auto const along0 = turnBack<Number>(Column{x.x, y.x, z.x}),
                   along1 = turnBack<Number>(Column{x.y, y.y, z.y}),
                   along2 = turnBack<Number>(Column{x.z, y.z, z.z});
        derivative = {{{along0.x, along1.x, along2.x},
                       {along0.y, along1.y, along2.y},
                       {along0.z, along1.z, along2.z}},
                      turnBack<Number>(scaled(slope.alongTime))};
    }
    return turnBack<Number>(scaled(sum));
}

/// The lattice coordinates of the point (0, 0, 0, time).
template <class Arith>
ZEL_ALWAYS_INLINE inline typename Arith::Wide4 skewTime(typename Arith::Wide const& time) {
    auto const skewed = time * kSkew;
    return Arith::spread(skewed, time + skewed);
}

/// Whether lattice coordinates of a time, or those of a TimePlace, lie in the lattice; false if one
/// is NaN.
template <class Arith>
ZEL_ALWAYS_INLINE inline auto timeInLattice(typename Arith::Wide4 const& lattice) {
    return Arith::size(lattice) < kLatticeLimit;
}

/// Truncates a double to the 48 bits that the sum of two floats can hold. The bits are masked and
/// not converted to float and back: g++ 12 drops such a conversion where it vectorises, and the
/// result would depend on it.
template <class Arith>
ZEL_ALWAYS_INLINE inline typename Arith::Wide roundToTwoFloats(typename Arith::Wide const& a) {
    auto const high = Arith::cutToFloat(a);
    return high + Arith::cutToFloat(a - high);
}

/// Calls use() with the four members of the TimePlace of a time, from the lattice coordinates of
/// the time, which must lie in the lattice.
template <class Arith, class Use>
ZEL_ALWAYS_INLINE inline auto placeTime(typename Arith::Wide4 const& lattice, Use const& use) {
    auto const shifted = (lattice - 0.5) + kCellShift;
    auto const place = lattice - (shifted - kCellShift);
    auto const cell = Arith::unbiased(Arith::bits(shifted));
    return use(roundToTwoFloats<Arith>(place[2]), roundToTwoFloats<Arith>(place[3]), cell[2],
               cell[3]);
}

ZEL_KERNEL_END
}  // namespace Orvane::Math::Simplex

#ifdef HWY_NAMESPACE
HWY_AFTER_NAMESPACE();
#endif
#undef ZEL_KERNEL_BEGIN
#undef ZEL_KERNEL_END
#endif
