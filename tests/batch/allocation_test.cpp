#include <tbb/global_control.h>

#include "benchmarks/allocation_count.h"
#include "support/random_nodes.h"
#include "zel_platform/orvane_geometry_volume/array_pool.h"

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
    // Without other threads, whose first part of a batch may come late.
    tbb::global_control const limit(tbb::global_control::max_allowed_parallelism, 1);
    auto const positions = support::somePositions(5000);
    unsigned seed = 0;
    support::forEveryNode([&](std::string const& name, auto construct) {
        for (int round = 0; round < 3; ++round) {
            SCOPED_TRACE(name + ", seed " + std::to_string(seed));
            auto const node = support::RandomNodes(seed++).make(construct);
            auto const blocks = [&](auto const& call) {
                call();  // fills what a thread keeps
                AllocationCount const count;
                call();
                return count.blocks();
            };
            // An array object and its elements.
            EXPECT_EQ(blocks([&] { node->eval(positions); }), 2U);
            EXPECT_EQ(blocks([&] { Core::Fields::grad(*node, positions); }), 2U);
            EXPECT_EQ(blocks([&] { node->eval(positions[0], 0), node->grad(positions[1], 1); }),
                      0U);
            using Value = decltype(node->eval(positions[0], 0));
            using Gradient = decltype(node->grad(positions[0], 0));
            std::vector<Value> values(5000);
            std::vector<Gradient> gradients(5000);
            EvaluateOptions serial;
            serial.parallel = false;
            for (std::size_t const count : {5U, 100U, 5000U})
                EXPECT_EQ(blocks([&] {
                              evaluate(*node, PointView::of({positions.data(), count}),
                                       std::span(values).first(count),
                                       std::span(gradients).first(count), serial);
                          }),
                          0U);
        }
    });
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
