#include "zel/operators/closest_point.h"

#include "zel/field/math.h"
#include "zel/node/library_node_impl.h"

namespace zel {

namespace {

/// The position after one step towards the surface.
constexpr auto stepToSurface = [](float3 const& position, float distance, float3 const& gradient)
                                   ZEL_ALWAYS_INLINE { return position - distance * gradient; };

}  // namespace

float3 VectorFieldClosestPointTransform::eval(float3 const& position, long long index) const {
    float3 const g = field->grad(position, index);
    float const d = field->eval(position, index);
    return stepToSurface(position, d, g);
}

void VectorFieldClosestPointTransform::blockValues(Block& block, BlockResult<float3>& out) const {
    Block::Frame const frame(block);
    auto const g = block.gradients(field);
    auto const d = block.values(field);
    mapBlock(block, out, stepToSurface, block.positions(), d, g);
}

VectorFieldIteratedNearPointTransform::VectorFieldIteratedNearPointTransform(
    ScalarPtr field, float tolerance, std::int32_t iterations)
    : transform(Quern::makePtr<VectorFieldClosestPointTransform>(std::move(field))),
      tolerance(tolerance), iterations(iterations) {}

ScalarPtr VectorFieldIteratedNearPointTransform::projectedField() const {
    if (!transform) return {};
    VectorField const& step = *transform;
    if (typeid(step) != typeid(VectorFieldClosestPointTransform)) return {};
    return static_cast<VectorFieldClosestPointTransform const&>(step).field;
}

float3 VectorFieldIteratedNearPointTransform::eval(float3 const& position, long long index) const {
    float3 p = transform->eval(position, index);
    for (std::int32_t i = 0; i < iterations; ++i) {
        float3 const next = transform->eval(p, index);
        bool const done = atRest(p, next);
        p = next;
        if (done) break;
    }
    return p;
}

void VectorFieldIteratedNearPointTransform::blockValues(Block& block,
                                                        BlockResult<float3>& out) const {
    block.writeValues(transform, out);
    auto const write = out.writer();
    Block::Frame const frame(block);

    // The numbers in the block of the points that still move, and the points themselves.
    int* const moving = block.allocateInts();
    int count = block.count();
    for (int i = 0; i < count; ++i) moving[i] = i;
    auto here = block.result<float3>();
    auto const move = here.writer();
    for (int i = 0; i < count; ++i) move.set(i, out.columns[i]);

    for (std::int32_t step = 0; step < iterations && count > 0; ++step) {
        block.withPositions(here.columns, moving, count, [&](Block& there) {
            Block::Frame const inner(there);
            auto const next = there.values(transform);
            int left = 0;
            for (int i = 0; i < count; ++i) {
                float3 const p = here.columns[i], q = next[i];
                write.set(moving[i], q);
                move.set(left, q);
                moving[left] = moving[i];
                left += !atRest(p, q);
            }
            count = left;
        });
    }
}

}  // namespace zel

ZEL_DEFINE_FIELD(zel::VectorFieldClosestPointTransform, VectorField);
ZEL_DEFINE_FIELD(zel::VectorFieldIteratedNearPointTransform, VectorField);
