#include <gtest/gtest.h>

#include "benchmarks/allocation_count.h"
#include "orvane_geometry_volume/array_pool.h"
#include "zel/zel.h"

namespace {

using namespace zel;
using Quern::makePtr;

TEST(Allocation, BuildingATreeTakesOneBlockANode) {
    auto const build = [] {
        ScalarPtr const x = makePtr<ScalarFieldXPosition>();
        ScalarPtr const ball = makePtr<ScalarFieldSphere>(float3{1, 2, 3}, 2.0F);
        return makePtr<ScalarFieldClamp>(makePtr<ScalarFieldMin>(x, ball), 0.0F, 1.0F);
    };
    build();  // makes the texts of the class names
    AllocationCount const count;
    auto const tree = build();
    EXPECT_EQ(count.blocks(), 4U);
}

TEST(Allocation, ABatchAllocatesItsResultAndAPointNothing) {
    ScalarFieldMultiply const node(makePtr<ScalarFieldXPosition>(),
                                   makePtr<ScalarFieldConstant>(2.0F));
    ScalarField const& field = node;
    Quern::Array<float3> const positions(100000, float3{1, 2, 3});
    field.eval(positions);  // starts the threads
    AllocationCount const batch;
    auto const result = field.eval(positions);
    EXPECT_EQ(batch.blocks(), 2U);  // the array object and its elements
    AllocationCount const point;
    field.eval(positions[0], 0);
    field.grad(positions[0], 0);
    EXPECT_EQ(point.blocks(), 0U);
}

TEST(Allocation, ABatchTakesItsResultFromThePoolWhereThatIsEnabled) {
    namespace ArrayPool = ORV::TileTree3D::ArrayPool;
    ScalarFieldXPosition const node;
    ScalarField const& field = node;
    Quern::Array<float3> const positions(5000, float3{1, 2, 3});
    ArrayPool::setEnabled(true);
    float const* const first = field.eval(positions)->data();
    auto const second = field.eval(positions);
    EXPECT_EQ(second->data(), first);
    EXPECT_EQ((*second)[4999], 1);
    ArrayPool::setEnabled(false);
    EXPECT_NE(field.eval(positions)->data(), first);
}

}  // namespace
