#include <tbb/task_arena.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "support/random_nodes.h"
#include "support/refused.h"

// Evaluation over arrays of the caller: layouts, errors, stopping, and that a graph which a thread
// knows is the one that it is asked for. Block by block it is what the tests of blocks are about.
namespace {

using namespace zel;
using namespace support;

/// The positions that a view of some layout gives, in arrays between floats of others.
struct Layout {
    std::vector<float> floats;
    PointView view;

    Layout(Quern::Array<float3> const& positions, int kind) {
        auto const count = static_cast<std::size_t>(positions.size());
        std::ptrdiff_t const stride = std::array{3, 1, 5, -4}[static_cast<unsigned>(kind)];
        std::ptrdiff_t const apart = stride == 3 ? 1 : static_cast<std::ptrdiff_t>(5 * count + 7);
        floats.resize(3 * static_cast<std::size_t>(apart) + 5 * count + 8, kNaN);
        float* const x = floats.data() + 1 + (stride < 0 ? -stride * std::ptrdiff_t(count) : 0);
        for (std::size_t i = 0; i < count; ++i)
            for (int axis = 0; axis < 3; ++axis)
                x[stride * std::ptrdiff_t(i) + apart * axis] =
                    positions[static_cast<long long>(i)][axis];
        view = {x, x + apart, x + 2 * apart, stride, count};
        if (stride == 1) view = PointView::of(column(0), column(1), column(2));
    }
    std::span<float const> column(int axis) const {
        return {axis == 0 ? view.x : axis == 1 ? view.y : view.z, view.count};
    }
};

/// Results at all positions against points, as often as makes a thread know the graph and plan it.
template <class Interface>
void expectPoints(Interface const& field, Quern::Array<float3> const& positions, int kind = 0,
                  long long firstIndex = 0) {
    Layout const layout(positions, kind);
    auto const count = static_cast<std::size_t>(positions.size());
    constexpr int kBehind = 64;
    std::vector<typename Interface::Value> values(count + 1), alone(count + 1 + kBehind);
    std::vector<typename Interface::Gradient> gradients(count + 1), gradientsAlone(count + 1);
    // Not aligned to a vector.
    std::span const v(values.data() + 1, count), va(alone.data() + 1, count);
    std::span const g(gradients.data() + 1, count), ga(gradientsAlone.data() + 1, count);
    for (bool const parallel : {false, true}) {
        EvaluateOptions options;
        options.firstIndex = firstIndex;
        options.parallel = parallel;
        evaluate(field, layout.view, va, options);
        evaluate(field, layout.view, {}, ga, options);
        evaluate(field, layout.view, v, g, options);
        for (std::size_t i = 0; i < count; ++i) {
            float3 const& p = positions[static_cast<long long>(i)];
            auto const index = static_cast<long long>(static_cast<std::uint64_t>(firstIndex) + i);
            ASSERT_TRUE(same(va[i], field.eval(p, index))) << i;
            ASSERT_TRUE(same(v[i], field.eval(p, index))) << i;
            ASSERT_TRUE(same(ga[i], field.grad(p, index))) << i;
            ASSERT_TRUE(same(g[i], field.grad(p, index))) << i;
        }
        for (int n = 0; n < kBehind; ++n)  // fused nodes write whole vectors
            ASSERT_TRUE(same(alone.end()[-1 - n], typename Interface::Value())) << n;
    }
}

TEST(Evaluate, EqualsPointsInEveryLayout) {
    constexpr long long kCounts[] = {0, 1, 2, 3, 5, 9, 63, 64, 65, 257, 1000};
    constexpr long long kFirst[] = {0,  1,      (1LL << 31) - 2,
                                    -5, kIndex, std::numeric_limits<long long>::max() - 1};
    unsigned number = 0;
    forEveryNode([&](std::string const& name, auto construct) {
        for (int round = 0; round < 8; ++round, ++number) {
            SCOPED_TRACE(name + ", seed " + std::to_string(number));
            auto const node = RandomNodes(number).make(construct);
            auto const positions = somePositions(kCounts[number % std::size(kCounts)], number);
            ASSERT_NO_FATAL_FAILURE(expectPoints(*node, positions, static_cast<int>(number % 4),
                                                 kFirst[number % std::size(kFirst)]));
        }
    });
    for (unsigned seed = 0; seed < 30; ++seed) {
        SCOPED_TRACE(seed);
        ScalarPtr const tree = RandomTrees(seed, 2 + seed % 60);
        for (long long const count : {1, 70, 5001, 3, 192, 600})
            ASSERT_NO_FATAL_FAILURE(
                expectPoints(*tree, somePositions(count, seed), static_cast<int>(seed % 4)));
    }
}

TEST(Evaluate, KnowsAGraphUntilItChanges) {
    auto const expectBoth = [](ScalarField const& field) {
        for (long long const count : {3000, 2})
            ASSERT_NO_FATAL_FAILURE(expectPoints(field, somePositions(count)));
    };
    auto const sphere = makePtr<ScalarFieldSphere>(float3{0, 0.1F, 0}, 1.0F);
    auto const constant = makePtr<ScalarFieldConstant>(0.5F);
    auto const sum = makePtr<ScalarFieldAdd>(makePtr<ScalarFieldAbsolute>(sphere), constant);
    ScalarFieldMin tree(sum, makePtr<ScalarFieldXPosition>());
    expectBoth(tree);

    *constant = ScalarFieldConstant(-0.25F);  // a leaf
    expectBoth(tree);
    *sum = ScalarFieldAdd(sphere, makePtr<ScalarFieldYPosition>());  // an operator
    expectBoth(tree);
    tree = ScalarFieldMin(constant, sum);  // the root
    expectBoth(tree);

    struct : FieldVisitor {
        using FieldVisitor::operator();
        void operator()(Field& node) override {  // a copy of a node that has other owners
            if (auto* const leaf = dynamic_cast<ScalarFieldConstant*>(&node))
                *leaf = ScalarFieldConstant(2);
            node.accept(*this);
        }
    } visitor;
    tree.accept(visitor);
    expectBoth(tree);

    ScalarReplacer replacer(makePtr<ScalarFieldZPosition>());
    tree.replaceChildren(replacer);
    expectBoth(tree);

    // Others at the address of one that is gone, of the same class and of another.
    alignas(64) std::byte place[256];
    for (float const size : {1.0F, 2.0F, 3.0F}) {
        ScalarPtr const child = makePtr<ScalarFieldSphere>(float3{}, size);
        auto* const first = new (place) ScalarFieldNegative(child);
        expectBoth(*first);
        std::destroy_at(first);
        auto* const second = new (place) ScalarFieldAbsolute(makePtr<ScalarFieldNegative>(child));
        expectBoth(*second);
        std::destroy_at(second);
    }

    // More constants than a thread has columns of, and more trees and nodes than it keeps plans of.
    std::vector<ScalarPtr> trees;
    for (int i = 0; i < 150; ++i) {
        trees.push_back(makePtr<ScalarFieldMultiply>(
            makePtr<ScalarFieldConstant>(static_cast<float>(i)),
            makePtr<ScalarFieldAdd>(sphere, makePtr<ScalarFieldConstant>(0.5F))));
        for (int n = 0; n < 25; ++n)
            trees.back() = makePtr<ScalarFieldAdd>(
                trees.back(), makePtr<ScalarFieldConstant>(static_cast<float>(25 * i + n)));
    }
    auto const positions = somePositions(2100);
    std::vector<float> values(2100);
    for (int round = 0; round < 2; ++round)
        for (ScalarPtr const& each : trees) {
            evaluate(*each, PointView::of({positions.data(), 2100}), values);
            for (long long const i : {0, 7, 2099})
                ASSERT_TRUE(same(values[static_cast<std::size_t>(i)], each->eval(positions[i], i)));
        }
}

TEST(Evaluate, RefusesArraysThatDiffer) {
    ScalarFieldXPosition const field;
    std::vector<float3> const points(7);
    std::vector<float> values(6);
    std::vector<float3> gradients(8);
    auto const view = PointView::of(points);
    using Refusal = std::invalid_argument;
    expectRefused<Refusal>([&] { evaluate(field, view, values); }, "6 values for 7");
    expectRefused<Refusal>([&] { evaluate(field, view, {}, gradients); }, "8 gradients for 7");
    expectRefused<Refusal>([&] { evaluate(field, PointView(), values); }, "6 values for 0");
    expectRefused<Refusal>(
        [&] {
            evaluate(field, PointView{nullptr, values.data(), nullptr, 1, 6}, values);
        },
        "null");
    std::span<float const> const all(values);
    expectRefused<Refusal>([&] { PointView::of(all, all.first(5), all); }, "6, 5 and 6");
    expectRefused<Refusal>([&] { PointView::of(all, all, all.first(4)); }, "6, 6 and 4");
}

TEST(Evaluate, TellsItsProgressAndStops) {
    constexpr std::size_t kCount = 100 * 256;
    std::vector<float3> const points(kCount, float3{1, 2, 3});
    tbb::task_arena twoThreads(2);
    for (bool const parallel : {false, true}) {
        std::string log;
        std::atomic<std::size_t> asked = 0;
        std::size_t askedAtEnd = 0;
        FunctionField field([&](float3 const& p, long long i) {
            if (i % 256 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
            ++asked;
            return p.x;
        });
        field.pre = [&] { log += "pre "; };
        field.post = [&] { log += "post "; };
        std::vector<float> values(kCount);
        std::atomic<int> reporting = 0;
        std::vector<std::size_t> reports;
        std::stop_source source;
        EvaluateOptions options;
        options.parallel = parallel;
        options.stop = source.get_token();
        enum class End { kNone, kStop, kThrow } end = End::kNone;
        options.progress = [&](std::size_t done, std::size_t all) {
            EXPECT_EQ(reporting++, 0);
            EXPECT_EQ(all, kCount);
            EXPECT_TRUE(reports.empty() || reports.back() < done);
            reports.push_back(done);
            // A report may evaluate fields, and so take a task of this evaluation.
            ScalarFieldXPosition().eval(Quern::Array<float3>(20000));
            --reporting;
            if (end == End::kStop) source.request_stop();
            // A thread that counts on from here sees the stop before its next block.
            askedAtEnd = asked.fetch_add(0);
            if (end == End::kThrow) throw 77;
        };
        auto const run = [&] {
            log.clear();
            reports.clear();
            twoThreads.execute([&] { evaluate(field, PointView::of(points), values, options); });
        };
        run();
        EXPECT_EQ(log, "pre post ");
        EXPECT_EQ(values, std::vector<float>(kCount, 1));
        ASSERT_GT(reports.size(), 1U);
        EXPECT_EQ(reports.back(), kCount);

        for (End const how : {End::kThrow, End::kStop}) {
            end = how;
            if (how == End::kStop)
                EXPECT_THROW(run(), Stopped);
            else
                EXPECT_THROW(run(), int);
            EXPECT_EQ(log, "pre ");
            // After a stop, a block of the other thread may take long enough for a report.
            EXPECT_LE(reports.size(), parallel && how == End::kStop ? 2U : 1U);
            if (!parallel || how == End::kStop) {
                EXPECT_LE(asked - askedAtEnd, parallel ? 256U : 0U);
            }
        }
        EXPECT_THROW(run(), Stopped);
        EXPECT_EQ(log + std::to_string(reports.size()), "0");
        options.stop = {};
        options.progress = {};

        // By another thread, in a graph of the library.
        std::stop_source late;
        options.stop = late.get_token();
        std::jthread const stopper([&] { late.request_stop(); });
        ScalarFieldNegative const negative(makePtr<ScalarFieldXPosition>());
        auto const evaluateForever = [&] {
            for (;;) evaluate(negative, PointView::of(points), values, options);
        };
        EXPECT_THROW(evaluateForever(), Stopped);
        // Few positions of a graph that is known.
        std::size_t done = 0;
        options.progress = [&](std::size_t now, std::size_t) { done = now; };
        auto const some = PointView::of(std::span(points).first(3));
        EXPECT_THROW(evaluate(negative, some, std::span(values).first(3), options), Stopped);
        EXPECT_EQ(done, 0U);
        options.stop = {};
        evaluate(negative, some, std::span(values).first(3), options);
        EXPECT_EQ(done, 3U);
    }
}

TEST(Evaluate, PassesOnWhatANodeThrows) {
    std::string log;
    FunctionField field([](float3 const&, long long i) {
        if (i == 40000) throw 77;
        return 1.0F;
    });
    field.pre = [&] { log += "pre "; };
    field.post = [&] { log += "post "; };
    std::vector<float3> const points(50000);
    std::vector<float> values(points.size());
    for (bool const parallel : {false, true}) {
        EvaluateOptions options;
        options.parallel = parallel;
        EXPECT_THROW(evaluate(field, PointView::of(points), values, options), int);
        options.firstIndex = 40001;
        evaluate(field, PointView::of(points), values, options);
    }
    EXPECT_EQ(log, "pre pre post pre pre post ");
    // Without positions there are hooks, too.
    evaluate(field, PointView::of(std::span(points).first(0)), {});
    evaluate(field, PointView{values.data(), values.data(), values.data(), 1, 0}, {});
    field.eval(Quern::Array<float3>());
    EXPECT_EQ(log, "pre pre post pre pre post pre post pre post pre post ");
}

}  // namespace
