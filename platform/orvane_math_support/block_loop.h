// How a block form works its arrays off, for the instruction set that Highway asks for.

#if defined(ZEL_BLOCK_LOOP) == defined(HWY_TARGET_TOGGLE)
#ifdef HWY_TARGET_TOGGLE
#undef ZEL_BLOCK_LOOP
#else
#define ZEL_BLOCK_LOOP
#endif

#include <hwy/highway.h>

// Without vectors, or with vectors of a size that the compiler does not know, a block form is a
// loop over points.
#undef ZEL_HAS_BLOCK_LANE
#if HWY_TARGET == HWY_SCALAR || HWY_TARGET == HWY_EMU128 || HWY_HAVE_SCALABLE
#define ZEL_HAS_BLOCK_LANE 0
#else
#define ZEL_HAS_BLOCK_LANE 1
#include "zel_platform/orvane_math_support/block_lane.h"
#endif

#include "zel_platform/orvane_math_support/block_arrays.h"

#include <algorithm>

HWY_BEFORE_NAMESPACE();
namespace Orvane::Math {
namespace HWY_NAMESPACE {

#if ZEL_HAS_BLOCK_LANE

using Simplex::HWY_NAMESPACE::kLanes;

/// Works off `groups` registers of points, at most kGroups. Three short loops leave the machine
/// more to do at the same time than a long one, in which each step waits for the one before.
inline constexpr int kGroups = 8;
template <class Arrays, class Body>
HWY_NOINLINE void evaluateGroups(Arrays const& arrays, int groups, Body const& body) {
    using L = typename Body::L;
    using Simplex::HWY_NAMESPACE::CellHash;
    // Plain arrays: g++ 12 copies structures of registers in pieces.
    alignas(64) typename Arrays::Number place[4][kGroups * kLanes];
    alignas(64) std::uint32_t low[4][kGroups * kLanes], high[4][kGroups * kLanes];
    bool inside[kGroups];
    for (int g = 0; g < groups; ++g) {
        int const i = g * kLanes;
        auto const keep = [&](auto const& d, auto const& cell) ZEL_KERNEL_LAMBDA {
            L::store(d, place, i);
            L::store(L::low(cell), low, i);
            L::store(L::high(cell), high, i);
        };
        inside[g] = body.find(arrays.from(i), keep);
    }
    Simplex::Keys const keys = Simplex::makeKeys(body.seed);
    for (int i = 0; i < groups * kLanes; i += kLanes) {
        auto const hash = Simplex::HWY_NAMESPACE::hashCell<L>(
            L::makeCell(L::load(low, i), L::load(high, i)), keys);
        L::store(hash.flip, low, i);
        L::store(hash.first, high[0] + i);
    }
    for (int g = 0; g < groups; ++g) {
        int const i = g * kLanes;
        Arrays const a = arrays.from(i);
        if (inside[g])
            body.evaluate(L::load(place, i), CellHash<L>{L::loadOne(high[0] + i), L::load(low, i)},
                          a);
        else
            for (int k = 0; k < kLanes; ++k) body.point(a.from(k));
    }
}

/// Works off all points.
template <class Arrays, class Body>
HWY_INLINE void forEachInBlock(Arrays const& arrays, int count, Body const& body) {
    int i = 0;
    while (count - i >= kLanes) {
        int const groups = std::min((count - i) / kLanes, kGroups);
        evaluateGroups(arrays.from(i), groups, body);
        i += groups * kLanes;
    }
    if (i >= count) return;

    // The last points are padded with zeros.
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
