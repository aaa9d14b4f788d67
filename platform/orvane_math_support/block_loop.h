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

HWY_BEFORE_NAMESPACE();
namespace Orvane::Math {
namespace HWY_NAMESPACE {

#if ZEL_HAS_SIMD_ARITHMETIC

using Simplex::HWY_NAMESPACE::kLanes;

/// Evaluates `groups` registers of points, at most kGroups. The work is split into three short
/// loops over the registers: in one long loop each step would wait for the result of the step
/// before, while the processor can overlap the iterations of a short one.
inline constexpr int kGroups = 8;
template <class Arrays, class Body>
HWY_NOINLINE void evaluateGroups(Arrays const& arrays, int groups, Body const& body) {
    using Arith = typename Body::Arith;
    using Simplex::HWY_NAMESPACE::CellHash;
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
    for (int i = 0; i < groups * kLanes; i += kLanes) {
        auto const hash = Simplex::HWY_NAMESPACE::hashCell<Arith>(
            Arith::makeCell(Arith::load(low, i), Arith::load(high, i)), keys);
        Arith::store(hash.flip, low, i);
        Arith::store(hash.first, high[0] + i);
    }
    for (int g = 0; g < groups; ++g) {
        int const i = g * kLanes;
        Arrays const a = arrays.from(i);
        if (inside[g])
            body.evaluate(Arith::load(place, i),
                          CellHash<Arith>{Arith::loadOne(high[0] + i), Arith::load(low, i)}, a);
        else
            for (int k = 0; k < kLanes; ++k) body.point(a.from(k));
    }
}

/// Evaluates all points of a block. `body` offers `seed`; `find`, which passes the place and the
/// cell of a register of points to a callback and returns whether all points lie in the lattice;
/// `evaluate`, which writes their results; and `point`, for a single point.
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
    Number in[Arrays::kInputs][kLanes] = {}, out[Arrays::kOutputs][kLanes];
    Arrays padded;
    for (std::size_t k = 0; k < Arrays::kInputs; ++k) {
        std::copy_n(arrays.in[k] + i, count - i, in[k]);
        padded.in[k] = in[k];
    }
    for (std::size_t k = 0; k < Arrays::kOutputs; ++k) padded.out[k] = out[k];
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
