#include "zel_platform/quern_core/simd_target.h"

#include "zel_platform/quern_core/simd_kernels.h"

#include <hwy/highway.h>

namespace Quern {

std::vector<SimdTarget> simdTargets() {
    static std::vector<SimdTarget> const targets = [] {
        std::vector<SimdTarget> found;
        for (std::int64_t const bit : {HWY_AVX3, HWY_AVX2, HWY_SSE4})
            if ((HWY_TARGETS & ~HWY_STATIC_TARGET & hwy::SupportedTargets() & bit) != 0)
                found.push_back({bit, hwy::TargetName(bit)});
        found.push_back({HWY_STATIC_TARGET, "baseline"});
        return found;
    }();
    return targets;
}

namespace {

bool isWide(SimdTarget const& target) {
    return target.bit == HWY_AVX3 || target.bit == HWY_AVX2;
}

bool isWideChosen = isWide(simdTargets().front());
bool isWidestChosen = simdTargets().front().bit == HWY_AVX3;

}  // namespace

bool const& wideVectors = isWideChosen;
bool const& widestVectors = isWidestChosen;

void useSimdTarget(SimdTarget const& target) {
    simdTargets();  // must query the machine before the first restriction
    hwy::SetSupportedTargetsForTest(target.bit);
    hwy::GetChosenTarget().Update(hwy::SupportedTargets());
    isWideChosen = isWide(target);
    isWidestChosen = target.bit == HWY_AVX3;
}

}  // namespace Quern
