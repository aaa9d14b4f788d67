#include <gtest/gtest.h>
#include <tbb/parallel_for.h>
#include <tbb/task.h>
#include <tbb/task_group.h>

#include <atomic>
#include <cfenv>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#ifdef __SSE__
#include <xmmintrin.h>
#endif

#include "zel/zel.h"

// Batch evaluation: hooks, exceptions, cancelled groups and threads. Its values are the business of
// the tests of blocks.
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

TEST(Batch, ThatANodeCancelsGivesZerosAlone) {
    struct Cancelling : ScalarField {
        using ScalarField::eval;
        float eval(float3 const& p, long long i) const override {
            if (i == 0) tbb::task::current_context()->cancel_group_execution();
            return p.x;
        }
    };
    Cancelling const node;
    auto const out = Core::Fields::evalAndGrad(node, Quern::Array<float3>(50000, float3{1, 2, 3}));
    EXPECT_EQ(*out.values, Quern::Array<float>(50000, 0.0F));
    EXPECT_EQ(*out.gradients, Quern::Array<float3>(50000, float3()));
}

/// Counts how often it is prepared, and expects to be so when asked.
class Prepared : public ScalarField {
public:
    using ScalarField::eval;
    float eval(float3 const& /*p*/, long long /*i*/) const override {
        EXPECT_GT(prepared, 0);
        return 1;
    }
    void preSampleField() const override {
        if (std::exchange(throwsOnce, false)) throw 77;
        ++prepared;
        ++times;
    }
    void postSampleField() const override { --prepared; }
    mutable int prepared = 0, times = 0;
    mutable bool throwsOnce = false;
};

/// Does what it is told to do in each of its hooks.
struct InHooks : ScalarField {
    explicit InHooks(std::function<void()> work) : work(std::move(work)) {}
    void preSampleField() const override { work(); }
    void postSampleField() const override { work(); }
    std::function<void()> work;
};

TEST(Batch, PreparesATreeAnewForEachHookThatSamplesIt) {
    auto const leaf = makePtr<Prepared>();
    ScalarPtr const tree = makePtr<ScalarFieldNegative>(leaf);
    auto const sampling = makePtr<InHooks>([&] {
        for (int i = 0; i < 2; ++i) {
            tree->preSampleField();
            EXPECT_EQ(tree->eval(float3(), 0), -1);
            tree->postSampleField();
        }
    });
    auto const inBatch = makePtr<InHooks>([&] { tree->eval(Quern::Array<float3>(3)); });
    auto const sum = [](ScalarPtr a, ScalarPtr b) -> ScalarPtr {
        return makePtr<ScalarFieldAdd>(std::move(a), std::move(b));
    };
    for (ScalarPtr const& root :
         {sum(sampling, sampling), sum(tree, tree), sum(tree, sum(sampling, tree)),
          sum(sum(sampling, sum(tree, sampling)), tree), sum(inBatch, inBatch)}) {
        root->eval(Quern::Array<float3>(3));
        EXPECT_EQ(leaf->prepared, 0);
    }
    // A batch prepares its tree for itself, also within a walk that has done so: before it, and in
    // each of its two hooks.
    leaf->times = 0;
    sum(tree, inBatch)->eval(Quern::Array<float3>(3));
    EXPECT_EQ(leaf->times, 3);
    // An operator at the address of one that is gone, and one whose hook failed.
    makePtr<ScalarFieldNegative>(makePtr<InHooks>([&] {
        for (int i = 0; i < 3; ++i) {
            ScalarFieldNegative(tree.clone()).preSampleField();
            EXPECT_EQ(std::exchange(leaf->prepared, 0), 1);
        }
        leaf->throwsOnce = true;
        EXPECT_THROW(tree->preSampleField(), int);
        tree->preSampleField();
        EXPECT_EQ(std::exchange(leaf->prepared, 0), 1);
    }))->eval(Quern::Array<float3>());
}

TEST(Batch, RoundsToNearestAndKeepsSubnormalsWhateverTheThreadHasSet) {
    ScalarPtr const x = makePtr<ScalarFieldXPosition>();
    ScalarPtr const third = makePtr<ScalarFieldDivide>(x, makePtr<ScalarFieldConstant>(3.0F));
    for (long long const count : {1, 1000, 100000}) {
        Quern::Array<float3> positions(count, float3{1, 0, 0});
        positions[0].x = 1e-38F;
        auto const expected = third->eval(positions);
        std::fesetround(FE_UPWARD);
#ifdef __SSE__
        _mm_setcsr(_mm_getcsr() | _MM_FLUSH_ZERO_ON);
#endif
        auto const values = third->eval(positions);
        float volatile little = 0x1p-30F;
        bool const isUpward = 1 + little > 1;  // as before
        std::fesetenv(FE_DFL_ENV);
        EXPECT_TRUE(isUpward);
        EXPECT_EQ(*values, *expected);
    }
}

TEST(Batch, OfOneTreeRunsOnManyThreadsAtOnce) {
    ScalarPtr const time = makePtr<ScalarFieldConstant>(0.375F);
    VectorFieldFractalTurbulence const field(1, 2, 1, 0.5F, 0.5F, time, 2, true, 1);
    Quern::Array<float3> positions;
    for (int i = 0; i < 500; ++i)
        positions.push_back(float3{0.1F, 0.2F, 0.3F} * static_cast<float>(i));
    auto const expected = field.eval(positions);
    std::atomic<int> wrong = 0;
    std::vector<std::jthread> threads;
    for (int t = 0; t < 3; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) wrong += *field.eval(positions) != *expected;
        });
    threads.clear();
    EXPECT_EQ(wrong, 0);
}

}  // namespace
