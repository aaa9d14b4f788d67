// SimdArithmetic: the types and operations of the simplex kernel for a register of points, one
// point a lane, for the instruction set that Highway selects. The four coordinates of the points
// are four registers. Functions without a comment are those of ScalarArithmetic.

#if defined(ZEL_SIMD_ARITHMETIC) == defined(HWY_TARGET_TOGGLE)
#ifdef HWY_TARGET_TOGGLE
#undef ZEL_SIMD_ARITHMETIC
#else
#define ZEL_SIMD_ARITHMETIC
#endif

#include <hwy/highway.h>

#include "zel_platform/orvane_math_support/simplex_kernel.h"

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

HWY_BEFORE_NAMESPACE();
namespace Orvane::Math::Simplex {
namespace HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

using FloatTag = hn::ScalableTag<float>;
using WordTag = hn::ScalableTag<std::uint32_t>;
using DoubleTag = hn::ScalableTag<double>;
using HalfFloatTag = hn::Half<FloatTag>;

/// The number of points in a register: that of its float lanes. Doubles take two registers.
inline constexpr int kLanes = HWY_LANES(float);

/// Four values of a type, one for each coordinate. Operators apply to each coordinate; an operand
/// that is not a Four applies to all of them.
template <class T> struct Four {
    T x, y, z, w;

    ZEL_ALWAYS_INLINE T const& operator[](int i) const {
        return i == 0 ? x : i == 1 ? y : i == 2 ? z : w;
    }
    template <int bits> ZEL_ALWAYS_INLINE Four shiftRight() const {
        return {x.template shiftRight<bits>(), y.template shiftRight<bits>(),
                z.template shiftRight<bits>(), w.template shiftRight<bits>()};
    }
};
template <class T>
ZEL_ALWAYS_INLINE inline Four<T> makeFour(T const& x, T const& y, T const& z, T const& w) {
    return {x, y, z, w};
}
#define ZEL_FOUR_OPERATOR(op)                                                                      \
    template <class A, class B>                                                                    \
    ZEL_ALWAYS_INLINE auto operator op(Four<A> const& a, Four<B> const& b) {                       \
        return makeFour(a.x op b.x, a.y op b.y, a.z op b.z, a.w op b.w);                           \
    }                                                                                              \
    template <class A, class B> ZEL_ALWAYS_INLINE auto operator op(Four<A> const& a, B const& b) { \
        return makeFour(a.x op b, a.y op b, a.z op b, a.w op b);                                   \
    }
ZEL_FOUR_OPERATOR(+)
ZEL_FOUR_OPERATOR(-)
ZEL_FOUR_OPERATOR(*)
ZEL_FOUR_OPERATOR(^)
ZEL_FOUR_OPERATOR(&)
ZEL_FOUR_OPERATOR(|)
#undef ZEL_FOUR_OPERATOR

/// A truth value for each lane of a register of words: all bits set, or none.
struct Mask {
    hn::Vec<WordTag> v;
    ZEL_ALWAYS_INLINE Mask operator&(Mask const& b) const { return {hn::And(v, b.v)}; }
    ZEL_ALWAYS_INLINE Mask operator|(Mask const& b) const { return {hn::Or(v, b.v)}; }
    ZEL_ALWAYS_INLINE Mask operator!() const { return {hn::Not(v)}; }
#if HWY_TARGET <= HWY_AVX3
    /// Combines three masks by any logic: bit 4 * a + 2 * b + c of `table` is the result for a, b
    /// and c.
    template <int table>
    ZEL_ALWAYS_INLINE static Mask logic(Mask const& a, Mask const& b, Mask const& c) {
        return {{_mm512_ternarylogic_epi32(a.v.raw, b.v.raw, c.v.raw, table)}};
    }
#endif
};

/// A register of 32-bit unsigned integers.
struct Word {
    hn::Vec<WordTag> v;
    ZEL_ALWAYS_INLINE static Word all(std::uint32_t a) { return {hn::Set(WordTag(), a)}; }
    ZEL_ALWAYS_INLINE Word operator+(Word const& b) const { return {hn::Add(v, b.v)}; }
    ZEL_ALWAYS_INLINE Word operator*(Word const& b) const { return {hn::Mul(v, b.v)}; }
    ZEL_ALWAYS_INLINE Word operator^(Word const& b) const { return {hn::Xor(v, b.v)}; }
    ZEL_ALWAYS_INLINE Word operator&(Word const& b) const { return {hn::And(v, b.v)}; }
    ZEL_ALWAYS_INLINE Word operator+(std::uint32_t b) const { return *this + all(b); }
    ZEL_ALWAYS_INLINE Word operator*(std::uint32_t b) const { return *this * all(b); }
    ZEL_ALWAYS_INLINE Word operator&(std::uint32_t b) const { return *this & all(b); }
    ZEL_ALWAYS_INLINE Word operator^(std::uint32_t b) const { return *this ^ all(b); }
    ZEL_ALWAYS_INLINE Word operator&(Mask const& b) const { return {hn::And(v, b.v)}; }
    template <int bits> ZEL_ALWAYS_INLINE Word shiftRight() const {
        return {hn::ShiftRight<bits>(v)};
    }
};

/// A register of floats.
struct FloatReal {
    hn::Vec<FloatTag> v;
    ZEL_ALWAYS_INLINE static FloatReal all(float a) { return {hn::Set(FloatTag(), a)}; }
    ZEL_ALWAYS_INLINE FloatReal operator+(FloatReal const& b) const { return {hn::Add(v, b.v)}; }
    ZEL_ALWAYS_INLINE FloatReal operator-(FloatReal const& b) const { return {hn::Sub(v, b.v)}; }
    ZEL_ALWAYS_INLINE FloatReal operator*(FloatReal const& b) const { return {hn::Mul(v, b.v)}; }
    ZEL_ALWAYS_INLINE FloatReal operator+(float b) const { return *this + all(b); }
    ZEL_ALWAYS_INLINE FloatReal operator*(float b) const { return *this * all(b); }
    ZEL_ALWAYS_INLINE friend FloatReal operator-(float a, FloatReal const& b) { return all(a) - b; }
    /// Whether all lanes are less.
    ZEL_ALWAYS_INLINE bool operator<(float b) const {
        return hn::AllTrue(FloatTag(), hn::Lt(v, all(b).v));
    }
    ZEL_ALWAYS_INLINE FloatReal magnitude() const { return {hn::Abs(v)}; }
    ZEL_ALWAYS_INLINE FloatReal positive() const { return {hn::Max(v, hn::Zero(FloatTag()))}; }
};

/// Doubles in two registers: `a` has the first half of the points, `b` the second.
struct Wide {
    using V = hn::Vec<DoubleTag>;
    V a, b;

    ZEL_ALWAYS_INLINE static Wide all(double v) {
        return {hn::Set(DoubleTag(), v), hn::Set(DoubleTag(), v)};
    }
    ZEL_ALWAYS_INLINE Wide operator+(Wide const& o) const {
        return {hn::Add(a, o.a), hn::Add(b, o.b)};
    }
    ZEL_ALWAYS_INLINE Wide operator-(Wide const& o) const {
        return {hn::Sub(a, o.a), hn::Sub(b, o.b)};
    }
    ZEL_ALWAYS_INLINE Wide operator*(Wide const& o) const {
        return {hn::Mul(a, o.a), hn::Mul(b, o.b)};
    }
    ZEL_ALWAYS_INLINE Wide operator+(double o) const { return *this + all(o); }
    ZEL_ALWAYS_INLINE Wide operator-(double o) const { return *this - all(o); }
    ZEL_ALWAYS_INLINE Wide operator*(double o) const { return *this * all(o); }
    ZEL_ALWAYS_INLINE friend Wide operator-(double v, Wide const& o) { return all(v) - o; }
    /// Whether all lanes are less.
    ZEL_ALWAYS_INLINE bool operator<(double o) const {
        auto const v = hn::Set(DoubleTag(), o);
        return hn::AllTrue(DoubleTag(), hn::And(hn::Lt(a, v), hn::Lt(b, v)));
    }
    ZEL_ALWAYS_INLINE Wide magnitude() const { return {hn::Abs(a), hn::Abs(b)}; }
    ZEL_ALWAYS_INLINE Wide positive() const {
        auto const zero = hn::Zero(DoubleTag());
        return {hn::Max(a, zero), hn::Max(b, zero)};
    }

    /// The low and the high 32 bits of each double.
    ZEL_ALWAYS_INLINE Word low() const {
        return {hn::ConcatEven(WordTag(), hn::BitCast(WordTag(), b), hn::BitCast(WordTag(), a))};
    }
    ZEL_ALWAYS_INLINE Word high() const {
        return {hn::ConcatOdd(WordTag(), hn::BitCast(WordTag(), b), hn::BitCast(WordTag(), a))};
    }
};

/// 64-bit integers in two's complement, as two registers of 32-bit halves.
struct Cell {
    Word low, high;
    ZEL_ALWAYS_INLINE static Cell all(std::uint64_t a) {
        return {Word::all(static_cast<std::uint32_t>(a)),
                Word::all(static_cast<std::uint32_t>(a >> 32))};
    }
    ZEL_ALWAYS_INLINE Cell operator+(Cell const& b) const {
        Word const sum = low + b.low;
        auto const carry = hn::VecFromMask(WordTag(), hn::Lt(sum.v, low.v));
        return {sum, {hn::Sub((high + b.high).v, carry)}};
    }
};

/// The operations that do not depend on the type of a Real. Cells are found in double precision in
/// both.
struct SimdCells {
    using Word = HWY_NAMESPACE::Word;
    using Word4 = Four<Word>;
    using Wide = HWY_NAMESPACE::Wide;
    using Wide4 = Four<Wide>;
    using Cell = HWY_NAMESPACE::Cell;
    using Cell4 = Four<Cell>;

#if HWY_TARGET == HWY_AVX2
    /// Of each coordinate, minus the number of those that it is larger than: this takes four of the
    /// few registers.
    using Order = Word4;
#else
    using Order = std::array<Four<Mask>, 3>;
#endif

    ZEL_ALWAYS_INLINE static Word4 load(std::array<std::uint32_t, 4> const& a) {
        return {Word::all(a[0]), Word::all(a[1]), Word::all(a[2]), Word::all(a[3])};
    }
    ZEL_ALWAYS_INLINE static Wide4 load(std::array<double, 4> const& a) {
        return {Wide::all(a[0]), Wide::all(a[1]), Wide::all(a[2]), Wide::all(a[3])};
    }
    ZEL_ALWAYS_INLINE static Wide load(float const* p) {
        HalfFloatTag const half;
        return {hn::PromoteTo(DoubleTag(), hn::LoadU(half, p)),
                hn::PromoteTo(DoubleTag(), hn::LoadU(half, p + kLanes / 2))};
    }
    ZEL_ALWAYS_INLINE static Wide load(double const* p) {
        return {hn::LoadU(DoubleTag(), p), hn::LoadU(DoubleTag(), p + kLanes / 2)};
    }
    ZEL_ALWAYS_INLINE static Word loadOne(std::uint32_t const* p) {
        return {hn::LoadU(WordTag(), p)};
    }
    ZEL_ALWAYS_INLINE static FloatReal loadOne(float const* p) {
        return {hn::LoadU(FloatTag(), p)};
    }
    ZEL_ALWAYS_INLINE static Wide loadOne(double const* p) {
        return load(p);
    }
    ZEL_ALWAYS_INLINE static void store(Word const& a, std::uint32_t* p) {
        hn::StoreU(a.v, WordTag(), p);
    }
    ZEL_ALWAYS_INLINE static void store(FloatReal const& a, float* p) {
        hn::StoreU(a.v, FloatTag(), p);
    }
    ZEL_ALWAYS_INLINE static void store(Wide const& a, double* p) {
        hn::StoreU(a.a, DoubleTag(), p);
        hn::StoreU(a.b, DoubleTag(), p + kLanes / 2);
    }
    /// Loads or stores four arrays from element `i` on.
    template <class Number, std::size_t size>
    ZEL_ALWAYS_INLINE static auto load(Number const (&p)[4][size], int i) {
        return makeFour(loadOne(p[0] + i), loadOne(p[1] + i), loadOne(p[2] + i), loadOne(p[3] + i));
    }
    template <class T, class Number, std::size_t size>
    ZEL_ALWAYS_INLINE static void store(Four<T> const& a, Number (&p)[4][size], int i) {
        store(a.x, p[0] + i);
        store(a.y, p[1] + i);
        store(a.z, p[2] + i);
        store(a.w, p[3] + i);
    }
    template <class T> ZEL_ALWAYS_INLINE static Four<T> spread(T const& a, T const& b) {
        return {a, a, a, b};
    }
    ZEL_ALWAYS_INLINE static Wide cutToFloat(Wide const& a) {
        hn::RebindToUnsigned<DoubleTag> const bits;
        auto const mask = hn::Set(bits, ~std::uint64_t{0x1fffffff});
        auto const cut = [&](Wide::V const& v) ZEL_KERNEL_LAMBDA {
            return hn::BitCast(DoubleTag(), hn::And(hn::BitCast(bits, v), mask));
        };
        return {cut(a.a), cut(a.b)};
    }
    template <class T> ZEL_ALWAYS_INLINE static T sum(Four<T> const& a) {
        return (a.x + a.y) + (a.z + a.w);
    }
    template <class T> ZEL_ALWAYS_INLINE static T size(Four<T> const& a) {
        return sum(makeFour(a.x.magnitude(), a.y.magnitude(), a.z.magnitude(), a.w.magnitude()));
    }
    ZEL_ALWAYS_INLINE static Cell4 bits(Wide4 const& a) {
        return {{a.x.low(), a.x.high()},
                {a.y.low(), a.y.high()},
                {a.z.low(), a.z.high()},
                {a.w.low(), a.w.high()}};
    }
    ZEL_ALWAYS_INLINE static Cell4 unbiased(Cell4 const& a) {
        return a + Cell::all(0 - kCellBias);
    }
    ZEL_ALWAYS_INLINE static Cell4 makeCell(Word4 const& low, Word4 const& high) {
        return {{low.x, high.x}, {low.y, high.y}, {low.z, high.z}, {low.w, high.w}};
    }
    ZEL_ALWAYS_INLINE static Word4 low(Cell4 const& a) {
        return {a.x.low, a.y.low, a.z.low, a.w.low};
    }
    ZEL_ALWAYS_INLINE static Word4 high(Cell4 const& a) {
        return {a.x.high, a.y.high, a.z.high, a.w.high};
    }
    ZEL_ALWAYS_INLINE static Word4 highOfNext(Cell4 const& a) {
        // Subtracting an all-ones mask adds 1.
        auto const next = [](Cell const& c) ZEL_KERNEL_LAMBDA {
            auto const carry = hn::Eq((c.low + 1u).v, hn::Zero(WordTag()));
            return Word{hn::Sub(c.high.v, hn::VecFromMask(WordTag(), carry))};
        };
        return {next(a.x), next(a.y), next(a.z), next(a.w)};
    }
    ZEL_ALWAYS_INLINE static Word fold(Word4 const& a) {
        return (a.x ^ a.z) ^ (a.y ^ a.w);
    }
    /// The masks of the `n` largest coordinates.
    template <int n> ZEL_ALWAYS_INLINE static Four<Mask> largest(Order const& order) {
#if HWY_TARGET == HWY_AVX2
        auto const at = [](Word const& rank) ZEL_KERNEL_LAMBDA {
            hn::RebindToSigned<WordTag> const integers;
            auto const in = hn::Gt(hn::Set(integers, n - 3), hn::BitCast(integers, rank.v));
            return Mask{hn::BitCast(WordTag(), hn::VecFromMask(integers, in))};
        };
        return {at(order.x), at(order.y), at(order.z), at(order.w)};
#else
        return order[n - 1];
#endif
    }
    template <int n>
    ZEL_ALWAYS_INLINE static Word flipped(Word const& first, Word4 const& flip,
                                          Order const& order) {
        auto const mask = largest<n>(order);
#if HWY_TARGET <= HWY_AVX3
        auto hash = first.v.raw;
        for (int i = 0; i < 4; ++i)  // hash ^ (flip & mask)
            hash = _mm512_ternarylogic_epi32(hash, flip[i].v.raw, mask[i].v.raw, 0x78);
        return {{hash}};
#else
        return first ^ fold(flip & mask);
#endif
    }
    template <class T> ZEL_ALWAYS_INLINE static T dot(Four<T> const& a, Four<T> const& b) {
        return sum(a * b);
    }
    template <class T> ZEL_ALWAYS_INLINE static T dot3(Four<T> const& a, Four<T> const& b) {
        return (a.x * b.x + a.y * b.y) + a.z * b.z;
    }
    template <class T> ZEL_ALWAYS_INLINE static T positive(T const& a) {
        return a.positive();
    }
    /// As in ScalarArithmetic, but each pair of coordinates is compared only once: the opposite
    /// comparison is the complement of the mask.
    ZEL_ALWAYS_INLINE static Order order(Four<FloatReal> const& d) {
        auto const above = [](FloatReal const& p, FloatReal const& q) ZEL_KERNEL_LAMBDA {
            return Mask{hn::BitCast(WordTag(), hn::VecFromMask(FloatTag(), hn::Gt(p.v, q.v)))};
        };
        auto const xy = above(d.x, d.y), xz = above(d.x, d.z), xw = above(d.x, d.w),
                   yz = above(d.y, d.z), yw = above(d.y, d.w), zw = above(d.z, d.w);
#if HWY_TARGET == HWY_AVX2
        // A mask that is set adds -1; the opposite of a mask is -1 minus it.
        auto const number = [](Mask const& m) ZEL_KERNEL_LAMBDA { return Word{m.v}; };
        auto const less = [](Word const& a, Mask const& b)
                              ZEL_KERNEL_LAMBDA { return Word{hn::Sub(a.v, b.v)}; };
        return {number(xy) + number(xz) + number(xw), less(number(yz) + number(yw) + ~0u, xy),
                less(less(number(zw) + ~1u, xz), yz), less(less(less(Word::all(~2u), xw), yw), zw)};
#elif HWY_TARGET <= HWY_AVX3
        // All, two or one of three masks are set, of which the second row inverts the last, the
        // third row the last two, and the fourth all three.
        return Order{makeFour(Mask::logic<0x80>(xy, xz, xw), Mask::logic<0x40>(yz, yw, xy),
                              Mask::logic<0x10>(zw, xz, yz), Mask::logic<0x01>(xw, yw, zw)),
                     makeFour(Mask::logic<0xe8>(xy, xz, xw), Mask::logic<0xd4>(yz, yw, xy),
                              Mask::logic<0x71>(zw, xz, yz), Mask::logic<0x17>(xw, yw, zw)),
                     makeFour(Mask::logic<0xfe>(xy, xz, xw), Mask::logic<0xfd>(yz, yw, xy),
                              Mask::logic<0xf7>(zw, xz, yz), Mask::logic<0x7f>(xw, yw, zw))};
#else
        auto const a = makeFour(xy, yz, zw, !xw), b = makeFour(xz, yw, !xz, !yw),
                   c = makeFour(xw, !xy, !yz, !zw);
        return Order{a & b & c, (a & b) | (c & (a | b)), a | b | c};
#endif
    }
    ZEL_ALWAYS_INLINE static Order order(Wide4 const& d) {
        return order(round(d));
    }
#if HWY_TARGET == HWY_AVX2
    ZEL_ALWAYS_INLINE static Word4 const& ranks(Order const& order) {
        return order;
    }
#else
    /// Of each coordinate, minus the number of masks that are set.
    ZEL_ALWAYS_INLINE static Word4 ranks(Order const& order) {
        auto const at = [](Mask const& one, Mask const& two, Mask const& three) ZEL_KERNEL_LAMBDA {
            return Word{hn::Add(hn::Add(one.v, two.v), three.v)};
        };
        auto const& [one, two, three] = order;
        return {at(one.x, two.x, three.x), at(one.y, two.y, three.y), at(one.z, two.z, three.z),
                at(one.w, two.w, three.w)};
    }
#endif
    ZEL_ALWAYS_INLINE static FloatReal round(Wide const& a) {
        HalfFloatTag const half;
        return {hn::Combine(FloatTag(), hn::DemoteTo(half, a.b), hn::DemoteTo(half, a.a))};
    }
    ZEL_ALWAYS_INLINE static Four<FloatReal> round(Wide4 const& a) {
        return {round(a.x), round(a.y), round(a.z), round(a.w)};
    }
#if HWY_TARGET == HWY_AVX2
    /// Of each lane's direction the place in the table, in bytes.
    struct RowOffsets {
        std::uint32_t const* p;
        template <class Number> ZEL_ALWAYS_INLINE Number const* row(int lane) const {
            auto const* const table = reinterpret_cast<char const*>(kDirectionTable<Number>.data());
            return reinterpret_cast<Number const*>(table + p[lane]);
        }
    };
    /// What is kept of a hash to find its direction later. kept() reads it back.
    template <class Number> ZEL_ALWAYS_INLINE static Word toKeep(Word const& hash) {
        constexpr int kShift = std::bit_width(sizeof(Direction<Number>)) - 1;
        return hash.template shiftRight<kDirectionShift - kShift>() &
               static_cast<std::uint32_t>((kDirections - 1) << kShift);
    }
    ZEL_ALWAYS_INLINE static RowOffsets kept(std::uint32_t const* p) {
        return {p};
    }
#else
    template <class Number> ZEL_ALWAYS_INLINE static Word const& toKeep(Word const& hash) {
        return hash;
    }
    ZEL_ALWAYS_INLINE static Word kept(std::uint32_t const* p) {
        return loadOne(p);
    }
#endif
    /// Packed directions: the table's entries for a register of indices.
    template <std::size_t size>
    ZEL_ALWAYS_INLINE static auto look(std::array<std::uint32_t, size> const& packed,
                                       Word const& row) {
        hn::RebindToSigned<WordTag> const integers;
        return hn::GatherIndex(integers, reinterpret_cast<std::int32_t const*>(packed.data()),
                               hn::BitCast(integers, row.v));
    }
    ZEL_ALWAYS_INLINE static auto look(Word const& row) {
#if HWY_TARGET <= HWY_AVX3
        // The table fills eight registers. Four instructions look up in two of them each, by the
        // five lowest bits; the other two bits select among their results.
        hn::RebindToSigned<WordTag> const integers;
        auto const in = [&](std::size_t i) ZEL_KERNEL_LAMBDA {
            auto const* const part = kPackedDirections.data() + i;
            return hn::Vec<WordTag>{_mm512_permutex2var_epi32(
                hn::LoadU(WordTag(), part).raw, row.v.raw, hn::LoadU(WordTag(), part + 16).raw)};
        };
        auto const odd = hn::TestBit(row.v, hn::Set(WordTag(), 32));
        auto const upper = hn::TestBit(row.v, hn::Set(WordTag(), 64));
        return hn::BitCast(integers, hn::IfThenElse(upper, hn::IfThenElse(odd, in(96), in(64)),
                                                    hn::IfThenElse(odd, in(32), in(0))));
#else
        return look(kPackedDirections, row);
#endif
    }
    /// Packed spatial directions, indexed by the six bits of the hashes from bit `low` on.
    template <int low> ZEL_ALWAYS_INLINE static auto lookInSpace(Word const& hash) {
        if constexpr (kLanes >= 8) {
            auto const at = [](std::array<std::uint32_t, 8> const& table, Word const& row)
                                ZEL_KERNEL_LAMBDA {
                                    // The look-up uses the three lowest bits of an index, while
                                    // IndicesFromVec may assert that no other bit is set.
                                    using Index = decltype(hn::IndicesFromVec(WordTag(), row.v));
                                    return hn::TableLookupLanes(repeat(table), Index{row.v.raw});
                                };
            hn::RebindToSigned<WordTag> const integers;
            return hn::BitCast(integers, hn::Xor(at(kOctant, hash.template shiftRight<low + 3>()),
                                                 at(kMirrors, hash.template shiftRight<low>())));
        } else {
            return look(kPackedSpatialDirections, hash.template shiftRight<low>() & 63u);
        }
    }
    ZEL_ALWAYS_INLINE static hn::Vec<WordTag> repeat(std::array<std::uint32_t, 8> const& table) {
        alignas(64) std::uint32_t all[kLanes];
        for (std::size_t i = 0; i < kLanes; ++i) all[i] = table[i % 8];
        return hn::Load(WordTag(), all);
    }
};

template <class RealType> struct SimdArithmetic;

template <> struct SimdArithmetic<float> : SimdCells {
    using Number = float;
    static constexpr double kDirectionUnit = 1;
    using Real = FloatReal;
    using Real4 = Four<Real>;

    ZEL_ALWAYS_INLINE static Real4 narrow(Wide4 const& a) { return round(a); }
    template <int n>
    ZEL_ALWAYS_INLINE static Real4 step(Real4 const& d, Order const& order, float a) {
#if HWY_TARGET == HWY_AVX2
        // The two lowest bits of a rank select one of four numbers.
        auto const& m = order;
        auto const at = [&](Word const& rank) ZEL_KERNEL_LAMBDA {
            float const in = a - 1, one = n > 2 ? in : a, two = n > 1 ? in : a;
            auto const table = _mm256_setr_ps(a, in, two, one, a, in, two, one);
            hn::Vec<FloatTag> const chosen{_mm256_permutevar_ps(table, rank.v.raw)};
            return Real{chosen};
        };
#else
        auto const& m = order[n - 1];
        auto const at = [&](Mask const& in) ZEL_KERNEL_LAMBDA {
            auto const yes = Real::all(a - 1).v, no = Real::all(a).v,
                       mask = hn::BitCast(FloatTag(), in.v);
#if HWY_TARGET <= HWY_AVX3
            return Real{hn::IfVecThenElse(mask, yes, no)};
#else
            return Real{hn::IfThenElse(hn::MaskFromVec(mask), yes, no)};
#endif
        };
#endif
        return d + Real4{at(m.x), at(m.y), at(m.z), at(m.w)};
    }
    template <int low> ZEL_ALWAYS_INLINE static Real4 spatialDirection(Word const& hash) {
        auto const d = lookInSpace<low>(hash);
        FloatTag const f;
        return {Real{hn::ConvertTo(f, hn::ShiftLeft<21>(d))},
                Real{hn::ConvertTo(f, hn::ShiftLeft<10>(d))}, Real{hn::ConvertTo(f, d)},
                Real{hn::Zero(f)}};
    }
#if HWY_TARGET == HWY_AVX2
    ZEL_ALWAYS_INLINE static Real4 direction(RowOffsets const& at) {
        auto const two = [&](int i) ZEL_KERNEL_LAMBDA {
            HalfFloatTag const half;
            return hn::Combine(FloatTag(), hn::Load(half, at.row<float>(i + 4)),
                               hn::Load(half, at.row<float>(i)));
        };
        FloatTag const f;
        DoubleTag const pairs;
        auto const a = two(0), b = two(1), c = two(2), e = two(3);
        auto const xy0 = hn::BitCast(pairs, hn::InterleaveLower(f, a, b)),
                   zw0 = hn::BitCast(pairs, hn::InterleaveUpper(f, a, b)),
                   xy1 = hn::BitCast(pairs, hn::InterleaveLower(f, c, e)),
                   zw1 = hn::BitCast(pairs, hn::InterleaveUpper(f, c, e));
        Real const x{hn::BitCast(f, hn::InterleaveLower(pairs, xy0, xy1))},
            y{hn::BitCast(f, hn::InterleaveUpper(pairs, xy0, xy1))},
            z{hn::BitCast(f, hn::InterleaveLower(pairs, zw0, zw1))},
            w{hn::BitCast(f, hn::InterleaveUpper(pairs, zw0, zw1))};
        return {x, y, z, w};
    }
#endif
    ZEL_ALWAYS_INLINE static Real4 direction(Word const& hash) {
        auto const d = look(hash.template shiftRight<kDirectionShift>());
        FloatTag const f;
        return {Real{hn::ConvertTo(f, hn::ShiftLeft<24>(d))},
                Real{hn::ConvertTo(f, hn::ShiftLeft<16>(d))},
                Real{hn::ConvertTo(f, hn::ShiftLeft<8>(d))}, Real{hn::ConvertTo(f, d)}};
    }
};

template <> struct SimdArithmetic<double> : SimdCells {
    using Number = double;
    using Real = Wide;
    using Real4 = Wide4;

    ZEL_ALWAYS_INLINE static Real4 const& narrow(Wide4 const& a) { return a; }
#if HWY_TARGET <= HWY_AVX3
    static constexpr double kDirectionUnit = 0x1p-32;
    /// From ranks: their three lowest bits select one of eight numbers.
    template <int n>
    ZEL_ALWAYS_INLINE static Real4 step(Real4 const& d, Word4 const& ranks, double a) {
        double const in = a - 1;
        auto const table = _mm512_setr_pd(a, a, a, a, a, in, n > 1 ? in : a, n > 2 ? in : a);
        auto const at = [&](Word const& rank) ZEL_KERNEL_LAMBDA {
            Wide::V const low{_mm512_permutexvar_pd(twice<0>(rank), table)},
                high{_mm512_permutexvar_pd(twice<1>(rank), table)};
            return Real{low, high};
        };
        return d + Real4{at(ranks.x), at(ranks.y), at(ranks.z), at(ranks.w)};
    }
    /// The words of one half of a register, each twice.
    template <int half> ZEL_ALWAYS_INLINE static __m512i twice(Word const& w) {
        constexpr int i = half * 8;
        return _mm512_permutexvar_epi32(_mm512_setr_epi32(i, i, i + 1, i + 1, i + 2, i + 2, i + 3,
                                                          i + 3, i + 4, i + 4, i + 5, i + 5, i + 6,
                                                          i + 6, i + 7, i + 7),
                                        w.v.raw);
    }
    ZEL_ALWAYS_INLINE static Real4 direction(Word const& hash) {
        Word const d{hn::BitCast(WordTag(), look(hash.template shiftRight<kDirectionShift>()))};
        // Integers of 64 bits are converted faster than those of 32 bits, and need not be shifted
        // back: they stay multiples of 2^32.
        auto const lowWords = twice<0>(d), highWords = twice<1>(d);
        auto const at = [&](unsigned bits) ZEL_KERNEL_LAMBDA {
            Wide::V const low{_mm512_cvtepi64_pd(_mm512_slli_epi64(lowWords, bits))},
                high{_mm512_cvtepi64_pd(_mm512_slli_epi64(highWords, bits))};
            return Real{low, high};
        };
        return {at(56), at(48), at(40), at(32)};
    }
#else
    static constexpr double kDirectionUnit = 1;
    template <int n>
    ZEL_ALWAYS_INLINE static Real4 step(Real4 const& d, Order const& order, double a) {
        auto const m = largest<n>(order);
        return d + Real4{offset(m.x, a), offset(m.y, a), offset(m.z, a), offset(m.w, a)};
    }
    /// `a - 1` where the mask is set, else `a`.
    ZEL_ALWAYS_INLINE static Real offset(Mask const& m, double a) {
        Real const in = Real::all(a - 1), out = Real::all(a);
        hn::RebindToSigned<DoubleTag> const wide;
        hn::RebindToSigned<WordTag> const narrow;
        hn::Half<decltype(narrow)> const half;
        auto const words = hn::BitCast(narrow, m.v);
        auto const select = [&](auto const& part, auto const& yes,
                                auto const& no) ZEL_KERNEL_LAMBDA {
            auto const mask = hn::PromoteTo(wide, part);
            return hn::IfVecThenElse(hn::BitCast(DoubleTag(), mask), yes, no);
        };
        return {select(hn::LowerHalf(half, words), in.a, out.a),
                select(hn::UpperHalf(half, words), in.b, out.b)};
    }
#if HWY_TARGET == HWY_AVX2
    ZEL_ALWAYS_INLINE static Real4 direction(RowOffsets const& at) {
        auto const two = [&](int i, int part) ZEL_KERNEL_LAMBDA {
            hn::Half<DoubleTag> const half;
            return hn::Combine(DoubleTag(), hn::Load(half, at.row<double>(i + 2) + part),
                               hn::Load(half, at.row<double>(i) + part));
        };
        DoubleTag const f;
        auto const a0 = two(0, 0), b0 = two(1, 0), a1 = two(4, 0), b1 = two(5, 0);
        auto const c0 = two(0, 2), e0 = two(1, 2), c1 = two(4, 2), e1 = two(5, 2);
        Real const x{hn::InterleaveLower(f, a0, b0), hn::InterleaveLower(f, a1, b1)},
            y{hn::InterleaveUpper(f, a0, b0), hn::InterleaveUpper(f, a1, b1)},
            z{hn::InterleaveLower(f, c0, e0), hn::InterleaveLower(f, c1, e1)},
            w{hn::InterleaveUpper(f, c0, e0), hn::InterleaveUpper(f, c1, e1)};
        return {x, y, z, w};
    }
#endif
    ZEL_ALWAYS_INLINE static Real4 direction(Word const& hash) {
        auto const d = look(hash.template shiftRight<kDirectionShift>());
        auto const widen = [](auto const& words) ZEL_KERNEL_LAMBDA {
            hn::Half<hn::RebindToSigned<WordTag>> const half;
            return Real{hn::PromoteTo(DoubleTag(), hn::LowerHalf(half, words)),
                        hn::PromoteTo(DoubleTag(), hn::UpperHalf(half, words))};
        };
        return {widen(hn::ShiftLeft<24>(d)), widen(hn::ShiftLeft<16>(d)),
                widen(hn::ShiftLeft<8>(d)), widen(d)};
    }
#endif
};

}  // namespace HWY_NAMESPACE
}  // namespace Orvane::Math::Simplex
HWY_AFTER_NAMESPACE();
#endif
