#pragma once

// What the two evaluation interfaces do alike. Private to their sources.

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/partitioner.h>
#include <tbb/task_group.h>

#include <bit>
#include <cstddef>
#include <cstdint>

#include "orvane_geometry_volume/array_pool.h"
#include "orvane_math/vectors.h"
#include "quern_core/array.h"
#include "quern_core/ptr.h"

namespace zel::detail {

/// An array of `count` zeros, out of the pool of arrays if that is enabled.
template <class Value> Quern::Ptr<Quern::Array<Value>> zeros(long long count) {
    namespace ArrayPool = ORV::TileTree3D::ArrayPool;
    if (ArrayPool::enabled())
        return ArrayPool::allocate<Value>(Value{}, static_cast<unsigned long long>(count));
    return Quern::makePtr<Quern::Array<Value>>(count, Value{});
}

/// The batch `eval` of both interfaces.
template <class Interface>
Quern::Ptr<Quern::Array<typename Interface::Value>>
evalBatch(Interface const& field, Quern::Array<Orvane::Math::float3> const& positions) {
    using Value = typename Interface::Value;
    auto const count = static_cast<std::size_t>(positions.size());
    auto result = zeros<Value>(positions.size());
    Orvane::Math::float3 const* const in = positions.data();
    Value* const out = result->data();

    field.preSampleField();
    auto const loop = [self = &field, in, out](tbb::blocked_range<std::size_t> const& range) {
        std::size_t const end = range.end();
        for (std::size_t i = range.begin(); i != end; ++i)
            out[i] = self->eval(in[i], static_cast<long long>(i));
    };
    tbb::blocked_range<std::size_t> const all(0, count, 1);
    if (all.is_divisible()) {
        // Isolated, so that cancelling the caller's own tasks leaves no batch half done.
        tbb::task_group_context context(tbb::task_group_context::isolated);
        tbb::parallel_for(all, loop, tbb::auto_partitioner(), context);
    } else {
        loop(all);
    }
    field.postSampleField();
    return result;
}

/// The step factors of the default gradients.
inline constexpr float kUpperStep = 1.01F;
inline constexpr float kLowerStep = 0.990099F;          // 1 / kUpperStep
inline constexpr float kStepDifference = 0.019900978F;  // kUpperStep - kLowerStep
static_assert(std::bit_cast<std::uint32_t>(kUpperStep) == 0x3F8147AE);
static_assert(std::bit_cast<std::uint32_t>(kLowerStep) == 0x3F7D7721);
static_assert(std::bit_cast<std::uint32_t>(kStepDifference) == 0x3CA30760);

/// The default gradient: hands `set(axis, f1, f2, divisor)` the values a relative step above and
/// below the position along each axis, in the order x, y, z, and the divisor of their difference.
template <class Interface, class Set>
void differences(Interface const& field, Orvane::Math::float3 const& position, long long index,
                 Set const& set) {
    for (int axis = 0; axis < 3; ++axis) {
        float const c = position[axis];
        float const d = c == 0.0F ? 0.0001F : 0.0F;
        float const h = c + d;
        Orvane::Math::float3 up = position;
        Orvane::Math::float3 down = position;
        up[axis] = h * kUpperStep;
        down[axis] = h * kLowerStep;
        auto const f1 = field.eval(up, index);
        auto const f2 = field.eval(down, index);
        set(axis, f1, f2, (d + c) * kStepDifference);
    }
}

}  // namespace zel::detail
