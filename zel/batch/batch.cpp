#include "zel/field/batch.h"

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/partitioner.h>
#include <tbb/task_group.h>

#include <algorithm>
#include <atomic>
#include <concepts>

#include "zel/batch/evaluate_range.h"
#include "zel/batch/float_environment.h"
#include "zel/batch/hook_walk.h"
#include "zel_platform/orvane_geometry_volume/array_pool.h"

namespace zel::detail {

std::uint64_t newBatch() {
    static std::atomic<std::uint64_t> last = 0;
    return ++last;
}

}  // namespace zel::detail

namespace Core::Fields {

using Orvane::Math::float3;
using Orvane::Math::float3x3;

namespace {

/// An uninitialised array of `count` values, from the pool of arrays if that is enabled and holds
/// arrays of this type.
template <class T> Quern::Ptr<Quern::Array<T>> makeResult(long long count) {
    if constexpr (!std::same_as<T, float3x3>)
        if (ORV::TileTree3D::ArrayPool::enabled())
            return ORV::TileTree3D::ArrayPool::allocate<T>(T{},
                                                           static_cast<unsigned long long>(count));
    return Quern::makePtr<Quern::Array<T>>(Quern::Array<T>::forOverwrite(count));
}

template <class T> void clear(Quern::Ptr<Quern::Array<T>> const& array) {
    if (array) std::fill(array->begin(), array->end(), T{});
}

/// Computes the results for which `out` has an array, in parallel.
template <class Interface>
void evaluate(Interface const& field, Quern::Array<float3> const& positions,
              ValuesAndGradients<Interface> const& out) {
    auto* const values = out.values ? out.values->data() : nullptr;
    auto* const gradients = out.gradients ? out.gradients->data() : nullptr;
    auto const loop = [&field, in = positions.data(), values, gradients,
                       batch =
                           zel::detail::newBatch()](tbb::blocked_range<std::size_t> const& range) {
        zel::detail::FloatEnvironment const standard;
        zel::detail::evaluateRange(field, in, values, gradients, range.begin(), range.end(), batch);
    };
    zel::detail::FloatEnvironment const standard;  // for the hooks; each worker sets its own
    {
        zel::detail::HookWalk::Scope const ownWalk;
        field.preSampleField();
    }
    tbb::blocked_range<std::size_t> const all(0, static_cast<std::size_t>(positions.size()), 1);
    if (all.is_divisible()) {
        // Isolated: cancelling the tasks of the caller does not interrupt the batch.
        tbb::task_group_context context(tbb::task_group_context::isolated);
        tbb::parallel_for(all, loop, tbb::auto_partitioner(), context);
        if (context.is_group_execution_cancelled()) {  // by a node: some blocks are missing
            clear(out.values);
            clear(out.gradients);
        }
    } else {
        loop(all);
    }
    zel::detail::HookWalk::Scope const ownWalk;
    field.postSampleField();
}

template <class Interface>
ValuesAndGradients<Interface> evaluate(Interface const& field,
                                       Quern::Array<float3> const& positions, bool values,
                                       bool gradients) {
    ValuesAndGradients<Interface> out;
    if (values) out.values = makeResult<typename Interface::Value>(positions.size());
    if (gradients) out.gradients = makeResult<typename Interface::Gradient>(positions.size());
    evaluate(field, positions, out);
    return out;
}

}  // namespace

Quern::Ptr<Quern::Array<float>> ScalarField::eval(Quern::Array<float3> const& positions) const {
    return evaluate(*this, positions, true, false).values;
}

Quern::Ptr<Quern::Array<float3>> VectorField::eval(Quern::Array<float3> const& positions) const {
    return evaluate(*this, positions, true, false).values;
}

Quern::Ptr<Quern::Array<float3>> grad(ScalarField const& field,
                                      Quern::Array<float3> const& positions) {
    return evaluate(field, positions, false, true).gradients;
}

Quern::Ptr<Quern::Array<float3x3>> grad(VectorField const& field,
                                        Quern::Array<float3> const& positions) {
    return evaluate(field, positions, false, true).gradients;
}

ValuesAndGradients<ScalarField> evalAndGrad(ScalarField const& field,
                                            Quern::Array<float3> const& positions) {
    return evaluate(field, positions, true, true);
}

ValuesAndGradients<VectorField> evalAndGrad(VectorField const& field,
                                            Quern::Array<float3> const& positions) {
    return evaluate(field, positions, true, true);
}

}  // namespace Core::Fields
