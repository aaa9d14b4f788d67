#include <gtest/gtest.h>
#include <tbb/global_control.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>
#include <tbb/task_group.h>

#include <atomic>
#include <bit>
#include <cctype>
#include <cstdint>
#include <new>
#include <random>
#include <string>
#include <thread>

#include "zel/zel.h"

// Batch evaluation.
namespace {

using namespace zel;
using Quern::makePtr;

Quern::Array<float3> randomPositions(long long count) {
    std::mt19937 random(20240607);
    std::uniform_real_distribution<float> coordinate(-10, 10);
    Quern::Array<float3> positions(count);
    for (auto& p : positions) p = {coordinate(random), coordinate(random), coordinate(random)};
    return positions;
}

/// Logs its hooks and the thread they run on; counts its calls by element.
class Hooked : public ScalarField {
public:
    explicit Hooked(long long count) : calls(count) {}
    using ScalarField::eval;
    float eval(float3 const& p, long long i) const override {
        EXPECT_EQ(log, "pre");
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
};

TEST(Batch, CallsEachElementOnceBetweenTheHooks) {
    for (long long const count : {0, 1, 2, 1000, 100003}) {
        auto const positions = randomPositions(count);
        auto const leaf = makePtr<Hooked>(count);
        ScalarFieldNegative const node(leaf);
        auto const result = static_cast<ScalarField const&>(node).eval(positions);
        ASSERT_EQ(result->size(), count);
        EXPECT_EQ(leaf->log, "prepost");
        for (long long i = 0; i < count; ++i) {
            ASSERT_EQ(leaf->calls[i], 1);
            ASSERT_EQ((*result)[i], -(positions[i].x + static_cast<float>(i)));
        }
    }
}

TEST(Batch, HooksReachAllChildrenInOrder) {
    struct Logged : ScalarField {
        Logged(char name, std::string& log) : name(name), log(&log) {}
        void preSampleField() const override { *log += name; }
        void postSampleField() const override { *log += static_cast<char>(std::toupper(name)); }
        char name;
        std::string* log;
    };
    std::string log;
    auto const leaf = [&](char name) -> ScalarPtr { return makePtr<Logged>(name, log); };
    auto const vector = [&](char name) -> VectorPtr {
        return makePtr<VectorFieldFromComponents>(leaf(name), makePtr<ScalarField>(),
                                                  makePtr<ScalarField>());
    };
    Quern::Array<float3> const none;
    for (ScalarPtr const& node :
         {ScalarPtr(makePtr<ScalarFieldSwitch>(leaf('a'), leaf('b'), leaf('c'))),
          ScalarPtr(makePtr<ScalarFieldLerp>(leaf('a'), leaf('b'), leaf('c'))),
          ScalarPtr(makePtr<VectorFieldDotProduct>(
              vector('a'), makePtr<VectorFieldVSMultiply>(vector('b'), leaf('c'))))}) {
        log.clear();
        node->eval(none);
        EXPECT_EQ(log, "abcABC") << node->getType();
    }
}

struct Odd : std::runtime_error {
    using std::runtime_error::runtime_error;
    int payload = 77;
};

TEST(Batch, PassesAnExceptionWithItsTypeAndNoPostHook) {
    struct Throwing : Hooked {
        using Hooked::Hooked;
        using ScalarField::eval;
        float eval(float3 const& p, long long i) const override {
            if (i == at) throw Odd("element");
            return Hooked::eval(p, i);
        }
        long long at = 0;
    };
    for (long long const count : {1, 50000}) {
        auto const leaf = makePtr<Throwing>(count);
        leaf->at = count / 2;
        ScalarFieldAbsolute const node(leaf);
        ScalarField const& field = node;
        try {
            field.eval(randomPositions(count));
            FAIL();
        } catch (Odd const& odd) {
            EXPECT_EQ(odd.payload, 77);
        }
        EXPECT_EQ(leaf->log, "pre");
    }
}

TEST(Batch, RunsToItsEndInsideACancelledGroup) {
    auto const positions = randomPositions(20000);
    ScalarFieldXPosition const field;
    tbb::task_group_context outer;
    std::atomic<int> finished = 0;
    tbb::parallel_for(
        tbb::blocked_range<int>(0, 1),
        [&](auto const&) {
            outer.cancel_group_execution();
            auto const result = static_cast<ScalarField const&>(field).eval(positions);
            for (long long i = 0; i < positions.size(); ++i)
                finished += (*result)[i] == positions[i].x;
        },
        tbb::simple_partitioner(), outer);
    EXPECT_EQ(finished, 20000);
}

/// A tree with a bit of everything, on the position and on the index.
VectorPtr mixedTree() {
    VectorPtr const p = makePtr<VectorFieldPosition>();
    ScalarPtr const x = makePtr<VectorFieldXComponent>(p);
    ScalarPtr const ball = makePtr<ScalarFieldSphere>(float3{1, 2, 3}, 2.0F);
    VectorPtr const table = makePtr<VectorFieldConstantArray>(
        Quern::Array<float3>{{1, 2, 3}, {-4, 5, 0.5F}, {0.25F, -2, 8}});
    VectorPtr const turned = makePtr<VectorFieldRotate>(table, float3{0.3F, 1, -2});
    ScalarPtr const sine = makePtr<ScalarFieldSine>(makePtr<ScalarFieldMultiply>(x, ball));
    return makePtr<VectorFieldSwitch>(
        ball, makePtr<VectorFieldLerp>(turned, makePtr<VectorFieldCross>(p, table), sine),
        makePtr<VectorFieldVSDivide>(p, makePtr<ScalarFieldExp>(sine)));
}

TEST(Batch, EqualsPointsToTheBitOnAnyNumberOfThreads) {
    VectorPtr const tree = mixedTree();
    auto const positions = randomPositions(30011);
    for (std::size_t const threads : {1U, 2U, 4U}) {
        tbb::global_control const limit(tbb::global_control::max_allowed_parallelism, threads);
        // An arena of its own, which may have more threads than the machine has cores.
        tbb::task_arena arena(static_cast<int>(threads));
        auto const batch = arena.execute([&] { return tree->eval(positions); });
        for (long long i = 0; i < positions.size(); ++i) {
            float3 const point = tree->eval(positions[i], i);
            for (int c = 0; c < 3; ++c)
                ASSERT_EQ(std::bit_cast<std::uint32_t>((*batch)[i][c]),
                          std::bit_cast<std::uint32_t>(point[c]));
        }
    }
}

TEST(Batch, HonoursAClassDerivedFromANode) {
    struct Doubled : ScalarFieldAdd {
        using ScalarField::eval;
        using ScalarFieldAdd::ScalarFieldAdd;
        float eval(float3 const& p, long long i) const override {
            return 2 * ScalarFieldAdd::eval(p, i);
        }
    };
    ScalarPtr const x = makePtr<ScalarFieldXPosition>();
    ScalarPtr const doubled = makePtr<Doubled>(x, x);
    auto const positions = randomPositions(5000);
    auto const alone = doubled->eval(positions);
    auto const below = ScalarPtr(makePtr<ScalarFieldNegative>(doubled))->eval(positions);
    for (long long i = 0; i < positions.size(); ++i) {
        ASSERT_EQ((*alone)[i], 4 * positions[i].x);
        ASSERT_EQ((*below)[i], -4 * positions[i].x);
    }
}

}  // namespace
