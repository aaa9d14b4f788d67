#include <gtest/gtest.h>
#include <tbb/parallel_for.h>
#include <tbb/task_group.h>

#include <atomic>
#include <string>
#include <thread>

#include "zel/zel.h"

// Batch evaluation: hooks, exceptions and cancelled groups. Its values are the business of the
// tests of blocks.
namespace {

using namespace zel;
using Quern::makePtr;

/// Logs its hooks, counts its calls by element, and throws at an element if told to.
class Hooked : public ScalarField {
public:
    explicit Hooked(long long count, long long bad = -1) : calls(count), bad(bad) {}
    using ScalarField::eval;
    float eval(float3 const& p, long long i) const override {
        EXPECT_EQ(log, "pre");
        if (i == bad) throw 77;
        std::atomic_ref(calls[i]) += 1;
        return p.x + static_cast<float>(i);
    }
    void preSampleField() const override { note("pre"); }
    void postSampleField() const override { note("post"); }

    mutable std::string log;
    mutable Quern::Array<int> calls;

private:
    void note(char const* what) const {
        EXPECT_EQ(std::this_thread::get_id(), caller);
        log += what;
    }
    std::thread::id caller = std::this_thread::get_id();
    long long bad;
};

/// A tree with two ways to the leaf: it is hooked and asked by one of them.
ScalarPtr over(Quern::Ptr<Hooked> const& leaf) {
    ScalarPtr const shared = makePtr<ScalarFieldNegative>(leaf);
    return makePtr<ScalarFieldAdd>(shared, shared);
}

TEST(Batch, CallsEachElementOnceBetweenTheHooks) {
    for (long long const count : {0, 1, 2, 1000, 100003}) {
        auto const leaf = makePtr<Hooked>(count);
        auto const result = over(leaf)->eval(Quern::Array<float3>(count, float3{0.5F, 0, 0}));
        ASSERT_EQ(result->size(), count);
        EXPECT_EQ(leaf->log, "prepost");
        for (long long i = 0; i < count; ++i) {
            ASSERT_EQ(leaf->calls[i], 1);
            ASSERT_EQ((*result)[i], -2 * (0.5F + static_cast<float>(i)));
        }
    }
}

TEST(Batch, PassesAnExceptionWithItsTypeAndNoPostHook) {
    for (long long const count : {1, 50000}) {
        auto const leaf = makePtr<Hooked>(count, count / 2);
        EXPECT_THROW(over(leaf)->eval(Quern::Array<float3>(count)), int);
        EXPECT_EQ(leaf->log, "pre");
    }
}

TEST(Batch, RunsToItsEndInsideACancelledGroup) {
    auto const leaf = makePtr<Hooked>(20000);
    tbb::task_group_context outer;
    tbb::parallel_for(
        tbb::blocked_range<int>(0, 1),
        [&](auto const&) {
            outer.cancel_group_execution();
            over(leaf)->eval(Quern::Array<float3>(20000));
        },
        tbb::simple_partitioner(), outer);
    EXPECT_EQ(leaf->calls, Quern::Array<int>(20000, 1));
}

}  // namespace
