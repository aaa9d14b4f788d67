#include <tbb/parallel_for.h>
#include <tbb/task.h>
#include <tbb/task_group.h>

#include <atomic>
#include <thread>

#include "support/float_modes.h"
#include "support/probe.h"

// Batch evaluation: hooks, exceptions, cancelled groups and threads. Its values are the business of
// the tests of blocks.
namespace {

using namespace zel;
using namespace support;

TEST(Batch, CallsEachElementOnceBetweenTheHooks) {
    struct Row {
        long long count;
        bool insideCancelledGroup = false;
    };
    for (auto const& [count, cancelled] :
         std::initializer_list<Row>{{0}, {1}, {2}, {1000}, {100003}, {20000, true}}) {
        SCOPED_TRACE(count);
        std::string log;
        Quern::Array<int> calls(count), expected(count, 1);
        auto const leaf = makePtr<FunctionField>([&](float3 const& p, long long i) {
            EXPECT_EQ(log, "pre");
            std::atomic_ref(calls[i]) += 1;
            return p.x + static_cast<float>(i);
        });
        auto const note = [&, caller = std::this_thread::get_id()](char const* what) {
            EXPECT_EQ(std::this_thread::get_id(), caller);
            log += what;
        };
        leaf->pre = [&] { note("pre"); };
        leaf->post = [&] { note("post"); };
        // A leaf that the root reaches in two ways is hooked and evaluated once.
        ScalarPtr const shared = makePtr<ScalarFieldNegative>(leaf);
        ScalarPtr const tree = makePtr<ScalarFieldAdd>(shared, shared);
        Quern::Array<float3> const positions(count, float3{0.5F, 0, 0});
        Quern::Ptr<Quern::Array<float>> result;
        tbb::task_group_context outer;
        tbb::parallel_for(
            tbb::blocked_range<int>(0, 1),
            [&, cancelled = cancelled](auto const&) {
                if (cancelled) outer.cancel_group_execution();
                result = tree->eval(positions);
            },
            tbb::simple_partitioner(), outer);
        EXPECT_EQ(log, "prepost");
        EXPECT_EQ(calls, expected);
        ASSERT_EQ(result->size(), count);
        for (long long i = 0; i < count; ++i)
            ASSERT_EQ((*result)[i], -2 * (0.5F + static_cast<float>(i)));
    }
}

TEST(Batch, ThatANodeCancelsGivesZerosAlone) {
    FunctionField const node([](float3 const& p, long long i) {
        if (i == 0) tbb::task::current_context()->cancel_group_execution();
        return p.x;
    });
    auto const out = Core::Fields::evalAndGrad(node, Quern::Array<float3>(50000, float3{1, 2, 3}));
    EXPECT_EQ(*out.values, Quern::Array<float>(50000, 0.0F));
    EXPECT_EQ(*out.gradients, Quern::Array<float3>(50000, float3()));
}

TEST(Batch, PreparesATreeAnewForEachHookThatSamplesIt) {
    int prepared = 0, times = 0;
    bool throwsOnce = false;
    auto const leaf = makePtr<FunctionField>([&](float3 const&, long long) {
        EXPECT_GT(prepared, 0);
        return 1.0F;
    });
    leaf->pre = [&] {
        if (std::exchange(throwsOnce, false)) throw 77;
        ++prepared;
        ++times;
    };
    leaf->post = [&] { --prepared; };
    ScalarPtr const tree = makePtr<ScalarFieldNegative>(leaf);
    auto const inHooks = [](std::function<void()> const& work) {
        auto field = makePtr<FunctionField>([](float3 const&, long long) { return 0.0F; });
        field->pre = field->post = work;
        return field;
    };
    auto const sampling = inHooks([&] {
        for (int i = 0; i < 2; ++i) {
            tree->preSampleField();
            EXPECT_EQ(tree->eval(float3(), 0), -1);
            tree->postSampleField();
        }
    });
    auto const inBatch = inHooks([&] { tree->eval(Quern::Array<float3>(3)); });
    auto const sum = [](ScalarPtr a, ScalarPtr b) -> ScalarPtr {
        return makePtr<ScalarFieldAdd>(std::move(a), std::move(b));
    };
    for (ScalarPtr const& root :
         {sum(sampling, sampling), sum(tree, tree), sum(tree, sum(sampling, tree)),
          sum(sum(sampling, sum(tree, sampling)), tree), sum(inBatch, inBatch)}) {
        root->eval(Quern::Array<float3>(3));
        EXPECT_EQ(prepared, 0);
    }
    // A batch prepares its tree for itself, also within a walk that has done so: before it, and in
    // each of its two hooks.
    times = 0;
    sum(tree, inBatch)->eval(Quern::Array<float3>(3));
    EXPECT_EQ(times, 3);
    // An operator at the address of one that is gone, and one whose hook failed.
    makePtr<ScalarFieldNegative>(inHooks([&] {
        for (int i = 0; i < 3; ++i) {
            ScalarFieldNegative(tree.clone()).preSampleField();
            EXPECT_EQ(std::exchange(prepared, 0), 1);
        }
        throwsOnce = true;
        EXPECT_THROW(tree->preSampleField(), int);
        tree->preSampleField();
        EXPECT_EQ(std::exchange(prepared, 0), 1);
    }))->eval(Quern::Array<float3>());
}

/// How the thread rounds and, with SSE, whether it reads and writes subnormal numbers as 0.
unsigned modes() {
#ifdef __SSE__
    return _mm_getcsr() & ~_MM_EXCEPT_MASK;
#else
    return static_cast<unsigned>(std::fegetround());
#endif
}

TEST(Batch, RoundsToNearestAndKeepsSubnormalsWhateverTheThreadHasSet) {
    ScalarPtr const x = makePtr<ScalarFieldXPosition>();
    ScalarPtr const third = makePtr<ScalarFieldDivide>(x, makePtr<ScalarFieldConstant>(3.0F));
    for (long long const count : {1, 1000, 100000})
        for (float const number : {1e-38F, 1.0F, 5.0F}) {  // 1 / 3 is rounded up, 5 / 3 down
            Quern::Array<float3> const positions(count, float3{number, 0, 0});
            auto const expected = third->eval(positions);
            for (int const direction : support::kDirections) {
                unsigned before = 0, after = 0;
                auto const values = support::inModes(direction, [&] {
                    before = modes();
                    auto const done = third->eval(positions);
                    after = modes();
                    return done;
                });
                EXPECT_EQ(after, before);
                EXPECT_EQ(*values, *expected);
            }
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
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 100; ++i) wrong += *field.eval(positions) != *expected;
            for (int i = 0; i < 10000; ++i) ScalarPtr const copy = time;
        });
    threads.clear();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(time.useCount(), 2);  // here and in the field
}

}  // namespace
