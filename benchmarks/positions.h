#pragma once

#include "zel_platform/orvane_math/vectors.h"
#include "zel_platform/quern_core/array.h"

/// 2^20 positions in the cube from -1.5 to 1.5, along the scan lines of a grid of 128 by 128 by 64
/// points.
inline Quern::Array<Orvane::Math::float3> scanLines() {
    constexpr int kColumns = 128, kRows = 128, kSlices = 64;
    auto const coordinate = [](int i, int count) {
        return -1.5F + 3.0F * (static_cast<float>(i) + 0.5F) / static_cast<float>(count);
    };
    Quern::Array<Orvane::Math::float3> positions;
    positions.reserve(kColumns * kRows * kSlices);
    for (int z = 0; z < kSlices; ++z)
        for (int y = 0; y < kRows; ++y)
            for (int x = 0; x < kColumns; ++x)
                positions.push_back(
                    {coordinate(x, kColumns), coordinate(y, kRows), coordinate(z, kSlices)});
    return positions;
}
