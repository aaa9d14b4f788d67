#include <gtest/gtest.h>

#include <atomic>

#include "benchmarks/allocation_count.h"
#include "zel/zel.h"

// What sampling a property costs apart from time.
namespace {

using namespace zel;
using namespace Orvane::Geometry;
using Quern::Array;
using Quern::makePtr;

std::atomic<int> lookUps = 0;

struct Counting : Orvane::Object {
    bool hasProperty(Quern::StringView key) const override {
        return ++lookUps, Object::hasProperty(key);
    }
    Quern::Any property(Quern::StringView key) const override {
        return ++lookUps, Object::property(key);
    }
};

constexpr long long kCount = 1'000'000;

/// Samples 1 M elements `stored(i)`, through both maps, and expects them backwards.
template <class Node, class T, class Stored, class Expected>
void check(T defaultValue, Stored const& stored, Expected const& expected) {
    auto const values = makePtr<Array<T>>(kCount);
    auto const ranges = makePtr<Array<unsigned int>>(kCount);
    auto const map = makePtr<Array<long long>>(kCount);
    for (long long i = 0; i < kCount; ++i) {
        (*values)[i] = stored(i);
        (*ranges)[i] = static_cast<unsigned int>(kCount - 1 - i);
        (*map)[i] = i;
    }
    auto const node = makePtr<Node>("p");
    Counting object;
    {
        setGeoProperty(object, "p", defaultValue, values, "points");
        setRangeGeoPropIndices(object, "points", ranges);
        auto const property = makePtr<Counting>();
        static_cast<Orvane::Object&>(*property) =
            *Orvane::pointerProperty<Orvane::Object>(object, "p");
        object.setProperty("p", Quern::Ptr<Orvane::Object>(property));
        node->apply_object(object);
        node->use_property_indices(map);
    }
    EXPECT_GT(lookUps.exchange(0), 0);
    Array<float3> const positions(kCount);
    (void)node->eval(positions);  // wakes the threads
    AllocationCount const allocations;
    auto const result = node->eval(positions);
    EXPECT_EQ(allocations.blocks(), 2U);  // the array and its elements
    EXPECT_LT(allocations.bytes(), kCount * sizeof((*result)[0]) + 200);
    long long wrong = 0;
    for (long long i = 0; i < kCount; ++i) wrong += !((*result)[i] == expected(kCount - 1 - i));
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(lookUps, 0);
}

TEST(PropertyBatch, AllocatesItsResultAndLooksNothingUp) {
    auto const number = [](long long i) { return static_cast<float>(i); };
    auto const vector = [&](long long i) { return float3{number(i), -1, 2}; };
    check<ScalarGeoPropertyTriggered>(-1.0F, number, number);
    check<ScalarGeoPropertyTriggered>(
        -1LL, [](long long i) { return i; }, number);
    check<VectorGeoPropertyTriggered>(float3{}, vector, vector);
    check<ScalarGeoPropertyFound>(0.0F, number, [](long long) { return 1.0F; });
    check<VectorGeoPropertyTriggered>(
        float4{},
        [](long long) {
            return float4{0, 0, 0, 1};
        },
        [](long long) { return float3{}; });
    check<VectorGeoPropertyFound>(
        float4{}, [](long long) { return float4{}; }, [](long long) { return 1.0F; });
}

}  // namespace
