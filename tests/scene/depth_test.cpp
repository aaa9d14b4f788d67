#include <gtest/gtest.h>
#include <pthread.h>
#include <tbb/global_control.h>

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <string>

#include "zel/zel.h"
#include "zel_scene/bind.h"
#include "zel_scene/compare.h"
#include "zel_scene/describe.h"
#include "zel_scene/json.h"

// Trees of many levels, and graphs of many paths.
namespace {

using namespace zel;
using Quern::Array;
using Quern::makePtr;

constexpr int kLevels = 100'000;
/// Evaluating takes several times the stack in a build that is not optimised, or has sanitizers.
#ifdef NDEBUG
constexpr int kPointLevels = kLevels, kBatchLevels = 4000;
#else
constexpr int kPointLevels = kLevels / 20, kBatchLevels = 500;
#endif

/// Runs `call` on a thread with a stack of so many bytes.
void onStack(std::size_t size, std::function<void()> call) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, size);
    pthread_t thread;
    auto const run = [](void* given) -> void* {
        (*static_cast<std::function<void()>*>(given))();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attributes, run, &call), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}

/// x plus the number of levels.
ScalarPtr chain(int levels) {
    ScalarPtr const one = makePtr<ScalarFieldConstant>(1.0F);
    ScalarPtr tree = makePtr<ScalarFieldXPosition>();
    for (int i = 0; i < levels; ++i) tree = makePtr<ScalarFieldAdd>(tree, one);
    return tree;
}

/// What does not evaluate a tree: copies of it equal it, and its texts have `lines` lines.
void expectSetUp(ScalarPtr const& tree, std::ptrdiff_t lines) {
    EXPECT_TRUE(sameTree(tree, tree.clone()));
    EXPECT_TRUE(hasExactGradients(*tree));
    EXPECT_TRUE(sameTree(tree, withExactGradients(tree)));
    EXPECT_TRUE(check(tree).empty());
    ScalarPtr bound = tree;
    EXPECT_TRUE(bind(bound, Orvane::Object()).isComplete());
    EXPECT_TRUE(sameTree(tree, bound));
    std::string const text = describe(tree);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), lines);
    EXPECT_FALSE(toDot(tree).empty());
    ScalarPtr const read = scalarFromJson(toJson(tree), {.depth = 2 * kLevels});
    EXPECT_TRUE(sameTree(tree, read));
    EXPECT_EQ(hashOf(tree), hashOf(read));
}

void expectBatches(ScalarField const& tree, float added) {
    for (long long const count : {1LL, 3LL, 300LL, 5000LL}) {
        Array<float3> const positions(count, float3{3, 1, 2});
        EXPECT_TRUE(*tree.eval(positions) == Array<float>(count, 3 + added));
        auto const both = Core::Fields::evalAndGrad(tree, positions);
        EXPECT_TRUE(*both.values == Array<float>(count, 3 + added));
        EXPECT_TRUE(*both.gradients == Array<float3>(count, float3{1, 0, 0}));
    }
}

TEST(Depth, IsNoLimitButOfEvaluating) {
    constexpr std::size_t kMegabyte = 1 << 20;
    onStack(8 * kMegabyte, [] {
        ScalarPtr const tree = chain(kLevels);
        expectSetUp(tree, 2 * kLevels + 1);
        EXPECT_THROW(scalarFromJson(toJson(tree)), SceneError);
        EXPECT_EQ(chain(kPointLevels)->eval({3, 1, 2}, 0), 3.0F + kPointLevels);
        VectorPtr const one = makePtr<VectorFieldConstant>(float3{1, 1, 1});
        VectorPtr product = makePtr<VectorFieldPosition>();  // whose gradients take most stack
        for (int i = 0; i < kPointLevels / 5; ++i)
            product = makePtr<VectorFieldMultiply>(product, one);
        EXPECT_EQ(product->grad({3, 1, 2}, 0)[1].y, 1);
        // Of several kinds of operators, whose blocks take most of the stack.
        ScalarPtr mixed = tree;
        for (int i = 0; i < kLevels / 10; ++i)
            mixed = makePtr<VectorFieldLengthSquared>(
                makePtr<VectorFieldWarp>(makePtr<VectorFieldFromComponents>(mixed, mixed, mixed),
                                         makePtr<VectorFieldPosition>()));
        for (auto const& deep : {tree, mixed}) {
            Array<float3> const positions(300LL, float3{3, 1, 2});
            EXPECT_THROW((void)deep->ScalarField::eval(positions), std::length_error);
            EXPECT_THROW(Core::Fields::grad(*deep, positions), std::length_error);
        }
        expectBatches(*chain(kBatchLevels), kBatchLevels);
    });
    // The threads of tasks have stacks of their own.
    tbb::global_control const limit(tbb::global_control::max_allowed_parallelism, 1);
    onStack(512 * kMegabyte, [] { expectBatches(*chain(kPointLevels), kPointLevels); });
    // A batch of one position would be a point call, once the graph is known.
    onStack(kMegabyte / 8, [] {
        VectorPtr moved = makePtr<VectorFieldPosition>();
        for (int i = 0; i < 2000; ++i) moved = makePtr<VectorFieldTranslate>(moved, float3{});
        Array<float3> const positions(1LL);
        for (int i = 0; i < 3; ++i) EXPECT_THROW((void)moved->eval(positions), std::length_error);
    });
}

TEST(Depth, OfAGraphOfManyPathsCostsItsNodes) {
    ScalarPtr const half = makePtr<ScalarFieldConstant>(0.5F);
    ScalarPtr graph = makePtr<ScalarFieldXPosition>();
    for (int i = 0; i < 40; ++i)
        graph = makePtr<ScalarFieldMultiply>(makePtr<ScalarFieldAdd>(graph, graph), half);
    expectSetUp(graph, 40 * 4 + 1);
    expectBatches(*graph, 0);
}

}  // namespace
