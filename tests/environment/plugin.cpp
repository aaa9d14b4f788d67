#include <numeric>
#include <vector>

#include "zel/zel.h"

// What a host loads: evaluates a field at `count` positions, and returns the sum of the values.
extern "C" __attribute__((visibility("default"))) double sumOfValues(long long count,
                                                                     bool parallel) {
    using namespace zel;
    using Quern::makePtr;
    ScalarPtr const field = makePtr<ScalarFieldSimplexNoise>(makePtr<ScalarFieldXPosition>(), 3);
    std::vector<float3> positions;
    for (long long i = 0; i < count; ++i)
        positions.push_back({0.001F * static_cast<float>(i), 1, 2});
    std::vector<float> values(positions.size());
    zel::EvaluateOptions options;
    options.parallel = parallel;
    evaluate(*field, PointView::of(positions), values, options);
    return std::accumulate(values.begin(), values.end(), 0.0);
}
