// The loop of a noise function over the points of a block, for the instruction set that Highway
// selects.

#if defined(ZEL_BLOCK_LOOP) == defined(HWY_TARGET_TOGGLE)
#ifdef HWY_TARGET_TOGGLE
#undef ZEL_BLOCK_LOOP
#else
#define ZEL_BLOCK_LOOP
#endif

#include <hwy/highway.h>

// Without SIMD registers, or with registers whose size the compiler does not know, the loop calls
// the function for one point.
#undef ZEL_HAS_SIMD_ARITHMETIC
#if HWY_TARGET == HWY_SCALAR || HWY_TARGET == HWY_EMU128 || HWY_HAVE_SCALABLE
#define ZEL_HAS_SIMD_ARITHMETIC 0
#else
#define ZEL_HAS_SIMD_ARITHMETIC 1
#include "zel_platform/orvane_math_support/simd_arithmetic.h"
#endif

#include "zel_platform/orvane_math_support/block_arrays.h"

#include <algorithm>
#include <type_traits>

HWY_BEFORE_NAMESPACE();
namespace Orvane::Math {
namespace HWY_NAMESPACE {

#if ZEL_HAS_SIMD_ARITHMETIC

using Simplex::HWY_NAMESPACE::kLanes;

inline constexpr int kGroups = 8;

/// Whether the order of the coordinates and the hashes of the vertices are found ahead of the
/// noise. AVX2 has too few registers for all of it, and looks up directions from memory, where a
/// gather is slower. With AVX-512, a loop over doubles would be too long for the processor to
/// overlap its iterations.
template <class Number>
inline constexpr bool kKeepsHashes = HWY_TARGET == HWY_AVX2 ||
                                     (HWY_TARGET <= HWY_AVX3 && std::is_same_v<Number, double>);

/// As CellVertices, from the hashes that were kept.
template <class Body> struct KeptVertices {
    typename Body::Arith::Word4 const& order;  // ranks
    std::uint32_t const (&hashes)[5][kGroups * kLanes];
    int from;
    template <int n> HWY_INLINE auto operator()(std::integral_constant<int, n> /*at*/) const {
        return Body::kept(hashes[n] + from);
    }
};

/// Evaluates `groups` registers of points, at most kGroups. The work is split into three short
/// loops over the registers: in one long loop each step would wait for the result of the step
/// before, while the processor can overlap the iterations of a short one.
template <class Arrays, class Body>
HWY_NOINLINE void evaluateGroups(Arrays const& arrays, int groups, Body const& body) {
    using Arith = typename Body::Arith;
    using namespace Simplex::HWY_NAMESPACE;
    // Plain arrays: g++ 12 copies structures of registers in pieces.
    alignas(64) typename Arrays::Number place[4][kGroups * kLanes];
    alignas(64) std::uint32_t low[4][kGroups * kLanes], high[4][kGroups * kLanes];
    bool inside[kGroups];
    for (int g = 0; g < groups; ++g) {
        int const i = g * kLanes;
        auto const keep = [&](auto const& d, auto const& cell) ZEL_KERNEL_LAMBDA {
            Arith::store(d, place, i);
            Arith::store(Arith::low(cell), low, i);
            Arith::store(Arith::high(cell), high, i);
        };
        inside[g] = body.find(arrays.from(i), keep);
    }
    Simplex::Keys const keys = Simplex::makeKeys(body.seed);
    alignas(64) std::uint32_t hashes[5][kGroups * kLanes];  // if they are kept
    for (int i = 0; i < groups * kLanes; i += kLanes) {
        auto const hash =
            hashCell<Arith>(Arith::makeCell(Arith::load(low, i), Arith::load(high, i)), keys);
        if constexpr (kKeepsHashes<typename Arrays::Number>) {
            auto const order = Arith::order(Arith::load(place, i));
            Arith::store(Arith::ranks(order), low, i);
            CellVertices<Arith> const vertices{order, hash};
            forEachVertex([&](auto n) ZEL_KERNEL_LAMBDA { body.keep(vertices(n), hashes[n] + i); });
        } else {
            Arith::store(hash.flip, low, i);
            Arith::store(hash.first, high[0] + i);
        }
    }
    for (int g = 0; g < groups; ++g) {
        int const i = g * kLanes;
        Arrays const a = arrays.from(i);
        if (!inside[g]) {
            for (int k = 0; k < kLanes; ++k) body.point(a.from(k));
            continue;
        }
        auto const d = Arith::load(place, i);
        if constexpr (kKeepsHashes<typename Arrays::Number>) {
            auto const order = Arith::load(low, i);
            body.evaluate(d, KeptVertices<Body>{order, hashes, i}, a);
        } else {
            CellHash<Arith> const hash{Arith::loadOne(high[0] + i), Arith::load(low, i)};
            auto const order = Arith::order(d);
            body.evaluate(d, CellVertices<Arith>{order, hash}, a);
        }
    }
}

/// Evaluates all points of a block. `body` offers `seed`; `find`, which passes the place and the
/// cell of a register of points to a callback and returns whether all points lie in the lattice;
/// `evaluate`, which writes their results; `point`, for a single point; and where hashes are kept
/// `keep`, which stores what `evaluate` needs of a hash, and `kept`, which finds it again. Its
/// constant `kAdds` tells whether results are added to the numbers in their arrays.
template <class Arrays, class Body>
HWY_INLINE void forEachInBlock(Arrays const& arrays, int count, Body const& body) {
    int i = 0;
    while (count - i >= kLanes) {
        int const groups = std::min((count - i) / kLanes, kGroups);
        evaluateGroups(arrays.from(i), groups, body);
        i += groups * kLanes;
    }
    if (i >= count) return;

    // The last points do not fill a register: the rest of it is padded with zeros.
    using Number = typename Arrays::Number;
    Number in[Arrays::kInputs][kLanes] = {}, out[Arrays::kOutputs][kLanes] = {};
    Arrays padded;
    for (std::size_t k = 0; k < Arrays::kInputs; ++k) {
        std::copy_n(arrays.in[k] + i, count - i, in[k]);
        padded.in[k] = in[k];
    }
    for (std::size_t k = 0; k < Arrays::kOutputs; ++k) {
        if constexpr (Body::kAdds) std::copy_n(arrays.out[k] + i, count - i, out[k]);
        padded.out[k] = out[k];
    }
    evaluateGroups(padded, 1, body);
    for (std::size_t k = 0; k < Arrays::kOutputs; ++k)
        std::copy_n(out[k], count - i, arrays.out[k] + i);
}

#else

template <class Arrays, class Body>
HWY_INLINE void forEachInBlock(Arrays const& arrays, int count, Body const& body) {
    for (int i = 0; i < count; ++i) body.point(arrays.from(i));
}

#endif

}  // namespace HWY_NAMESPACE
}  // namespace Orvane::Math
HWY_AFTER_NAMESPACE();
#endif
