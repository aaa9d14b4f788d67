#include <gtest/gtest.h>

#include "benchmarks/allocation_count.h"
#include "volume/volumes.h"

// What sampling a volume costs apart from time.
namespace {

using namespace volumes;

TEST(VolumeBatch, AllocatesItsResultAlone) {
    forAllKinds([]<class Traits, class T>(Traits, T) {
        auto const object = host(build<Traits, T>(waves<T>));
        auto const at = positions(20000);
        for (SamplerType const type : kTypes) {
            NodeFor<T> const node(object, "d", type);
            auto const& field = static_cast<typename NodeFor<T>::NamedNode const&>(node);
            (void)node.eval(at[0], 0);
            {
                AllocationCount const allocations;
                for (float3 const& p : at) (void)node.eval(p, 0);
                EXPECT_EQ(allocations.blocks(), 0U);
            }
            (void)field.eval(at);  // makes the samplers of the other threads, or most of them
            AllocationCount const allocations;
            EXPECT_EQ(field.eval(at)->size(), at.size());
            EXPECT_LT(allocations.blocks(), 40U);
        }
    });
}

}  // namespace
