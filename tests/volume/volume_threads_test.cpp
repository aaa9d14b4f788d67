#include <pthread.h>

#include <atomic>
#include <barrier>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <set>
#include <thread>

#include "support/random_nodes.h"
#include "volume/volumes.h"

// Copies and threads of volume nodes.
namespace {

using namespace volumes;

/// Runs `work(number)` on as many threads, all at the same time.
template <class Work> void onThreads(int count, Work const& work) {
    std::barrier start(count);
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i)
        threads.emplace_back([&, i] {
            start.arrive_and_wait();
            work(i);
            start.arrive_and_wait();  // until then each thread has its own identity
        });
    for (auto& thread : threads) thread.join();
}

TEST(SamplerPool, GivesEachThreadOneSamplerAndDeletesThem) {
    constexpr int kThreads = 300;  // more than a block of slots
    auto const alive = std::make_shared<int>();
    using Counted = std::shared_ptr<int>;
    {
        zel::detail::SamplerPool<Counted> pool;
        onThreads(kThreads, [&](int) {
            bool exists = true;
            Counted*& first = pool.local(exists);
            EXPECT_TRUE(!exists && first == nullptr);  // and so it stays if none can be made
            EXPECT_EQ(&pool.local(exists), &first);
            EXPECT_TRUE(exists);
            auto* const made = first = new Counted(alive);
            for (int k = 0; k < 100; ++k) EXPECT_EQ(pool.local(exists), made);
        });
        std::set<Counted*> visited;
        pool.forEach([&](Counted* sampler) { visited.insert(sampler); });
        EXPECT_EQ(visited.size(), kThreads);
        EXPECT_EQ(alive.use_count(), 1 + kThreads);
    }
    EXPECT_EQ(alive.use_count(), 1);
}

TEST(SamplerPool, HandsOnWhatAnEndedThreadHadAndMayEndBeforeIt) {
    zel::detail::SamplerPool<int> pool, cleared;
    auto gone = std::make_unique<zel::detail::SamplerPool<int>>();
    bool exists = true;
    std::set<pthread_t> threads;
    std::barrier turn(2);
    std::thread thread([&] {
        threads.insert(pthread_self());
        for (auto* const asked : {&pool, &cleared, gone.get()}) asked->local(exists) = new int(5);
        turn.arrive_and_wait();
        turn.arrive_and_wait();
        cleared.local(exists);
        EXPECT_FALSE(exists);
    });
    turn.arrive_and_wait();
    gone.reset();
    cleared.clear();
    turn.arrive_and_wait();
    thread.join();
    for (int i = 0; i < 3; ++i)
        std::thread([&] {
            int* const sampler = pool.local(exists);
            EXPECT_EQ(exists, !threads.insert(pthread_self()).second);
            EXPECT_TRUE(!sampler || *sampler == 5);
            pool.local(exists);
            EXPECT_TRUE(exists);
        }).join();
}

TEST(VolumeThreads, ShareOneFieldOfEachType) {
    forAllKinds([]<class Traits, class T>(Traits, T) {
        auto const volume = build<Traits, T>(waves<T>);
        auto const object = host(volume);
        auto const at = positions(300);
        for (SamplerType const type : kTypes) {
            NodeFor<T> const field(object, "d", type), other(object, "d", type);
            std::vector<T> expected;
            for (float3 const& p : at) expected.push_back(other.eval(p, 0));
            std::atomic<int> wrong = 0;
            onThreads(40, [&](int number) {
                for (int k = 0; k < 300; ++k) {
                    int const i = (k * (number % 7 + 1) + number) % 300;
                    wrong += !same(field.eval(at[i], i), expected[static_cast<std::size_t>(i)]);
                    if (k % 16 == 0) (void)field.grad(at[i], i);
                    if (k % 8 == number % 8) (void)other.eval(at[i], i);
                }
            });
            EXPECT_EQ(wrong, 0);
            EXPECT_EQ(field.samplers(), 40);
            EXPECT_EQ(other.samplers(), 41);
        }
        EXPECT_EQ(volume.channel.useCount(), 2);  // all fields are gone, after their threads
    });
}

/// The number that an environment variable sets, to look longer or with more threads for faults.
int setting(char const* name, int normal) {
    char const* const set = std::getenv(name);
    return set ? std::atoi(set) : normal;
}

/// Graphs of all classes, bound and in part of a user's, and what one thread makes of them.
struct SharedGraph {
    explicit SharedGraph(unsigned seed) : nodes(seed), points(support::somePositions(3000, seed)) {
        tree = makePtr<zel::ScalarFieldLerp>(nodes, nodes, nodes);
        values.resize(3000), gradients.resize(3000);
        for (std::size_t i = 0; i < values.size(); ++i) {
            auto const index = static_cast<long long>(i);
            values[i] = tree->eval(points[index], index);
            gradients[i] = tree->grad(points[index], index);
        }
    }
    /// Whether a batch has the same bits.
    bool isSame(std::size_t first, std::size_t count, zel::EvaluateOptions options) const {
        std::vector<float> v(count);
        std::vector<float3> g(count);
        options.firstIndex = static_cast<long long>(first);
        auto const view = zel::PointView::of({&points[options.firstIndex], count});
        evaluate(*tree, view, v, g, options);
        for (std::size_t i = 0; i < count; ++i)
            if (!same(v[i], values[first + i]) || !same(g[i], gradients[first + i])) return false;
        return true;
    }

    support::RandomNodes nodes;
    zel::ScalarPtr tree;
    Quern::Array<float3> points;
    std::vector<float> values;
    std::vector<float3> gradients;
};

TEST(VolumeThreads, HaveTheBitsOfOneWhileCopiesAreBoundAndBatchesStopped) {
    int const threads = setting("ZEL_TEST_THREADS", 8), seconds = setting("ZEL_TEST_SECONDS", 0);
    auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    std::vector<std::unique_ptr<SharedGraph const>> graphs;
    for (unsigned seed = 0; seed < 12; ++seed)
        graphs.push_back(std::make_unique<SharedGraph>(seed));
    Orvane::Object const objects[] = {support::boundObject<BinaryTraits>(),
                                      support::boundObject<QuinaryTraits>()};
    ScalarLate late("scalar", SamplerType::kCubicC1);
    late.apply_object(objects[0]);
    float3 const p{0.1F, -0.2F, 0.3F};
    float expected[2];
    for (unsigned k : {0U, 1U}) {
        ScalarLate one("scalar", SamplerType::kCubicC1);
        one.apply_object(objects[k]);
        expected[k] = one.eval(p, 0);
    }
    std::atomic<int> wrong = 0, batches = 0;
    onThreads(threads, [&](int number) {
        std::mt19937 random(static_cast<unsigned>(number));
        auto const bindCopy = [&] {
            ScalarLate copy = late;
            wrong += !same(copy.eval(p, 0), expected[0]);
            copy.apply_object(objects[1]);
            wrong += !same(copy.eval(p, 0), expected[1]);
        };
        for (int round = 0; round < 12 || std::chrono::steady_clock::now() < end; ++round) {
            auto const& graph = *graphs[random() % graphs.size()];
            std::size_t const first = random() % 2000, count = 1 + random() % 1000;
            zel::EvaluateOptions options;
            options.parallel = random() % 2 != 0;
            wrong += !graph.isSame(first, count, options);
            wrong += !same(late.eval(p, 0), expected[0]);
            if (round % 4 == number % 4) bindCopy();
            if (round % 8 == number % 8) {  // a thread ends while what it has sampled is destroyed
                auto copy = std::make_unique<ScalarLate>(late);
                std::atomic<bool> isSampled = false;
                std::jthread const brief([&] {
                    bindCopy();
                    wrong += !same(copy->eval(p, 0), expected[0]);
                    isSampled = true;
                    isSampled.notify_one();
                });
                isSampled.wait(false);
                copy.reset();
            }
            std::stop_source source;
            options.stop = source.get_token();
            std::jthread const stopper([&] { source.request_stop(); });
            try {
                wrong += !graph.isSame(first, count, options);
            } catch (zel::Stopped const&) {
            }
            ++batches;
        }
    });
    EXPECT_EQ(wrong, 0);
    EXPECT_GE(batches, 12 * threads);
}

TEST(VolumeCopies, ShareVolumeAndHaloAndStartWithoutSamplers) {
    forAllKinds([]<class Traits, class T>(Traits, T) {
        using Other = std::conditional_t<Traits::kBranch == 2, QuinaryTraits, BinaryTraits>;
        auto volume = build<Traits, T>(waves<T>);
        float3 const p{0.1F, -0.2F, 0.3F};
        for (SamplerType const type : kTypes) {
            auto object = host(volume);
            object.setProperty("scene units in meters", 0.5F);
            auto const check = [&]<class Node>(Node& node) {
                T const value = node.eval(p, 0);
                Node copy = node;
                EXPECT_EQ(copy.template state<Traits>().channel,
                          node.template state<Traits>().channel);
                EXPECT_EQ(copy.template state<Traits>().haloChannel,
                          node.template state<Traits>().haloChannel);
                EXPECT_EQ(copy.samplers(), 0);
                EXPECT_TRUE(same(copy.eval(p, 0), value));
                copy = *&copy;
                copy.copy(*&copy);
                EXPECT_EQ(copy.samplers(), 1);
                Node const moved = std::move(copy);
                EXPECT_TRUE(same(moved.eval(p, 0), value) && same(copy.eval(p, 0), value));
                node = moved;
                EXPECT_EQ(node.samplers(), 0);
            };
            NodeFor<T> node(object, "d", type), other(host(build<Other, T>(plane<T>)), "d", type);
            EXPECT_FALSE(same(other.eval(p, 0), node.eval(p, 0)));
            other = node;
            EXPECT_EQ(other.samplers(), 0);
            EXPECT_TRUE(same(other.eval(p, 0), node.eval(p, 0)));
            EXPECT_FALSE(other.template state<Other>().valid);
            check(node);
            LateNodeFor<T> late("d", type), copied("e", SamplerType::kLinear);
            late.apply_object(object);
            EXPECT_TRUE(same(late.eval(p, 0), node.eval(p * 0.5F, 0)));
            check(late);
            copied.copy(late);
            EXPECT_TRUE(same(copied.eval(p, 0), late.eval(p, 0)));
        }
        EXPECT_EQ(volume.channel.useCount(), 1);
    });
}

TEST(VolumeCopies, LeaveNoThreadWithTheVolumeBefore) {
    for (SamplerType const type : kTypes)
        for (bool const byCopy : {false, true}) {
            auto first = build<BinaryTraits, float>(plane<float>);
            Scalar linear(host(first), "d", type),
                curved(host(build<QuinaryTraits, float>(waves<float>)), "d", type);
            float3 const p{0.1F, -0.2F, 0.3F};
            std::barrier turn(5);
            std::vector<std::jthread> threads;
            for (int i = 0; i < 4; ++i)
                threads.emplace_back([&] {
                    EXPECT_TRUE(same(linear.eval(p, 0), plane<float>(p), 1e-6F));
                    turn.arrive_and_wait();
                    turn.arrive_and_wait();
                    EXPECT_TRUE(same(linear.eval(p, 0), waves<float>(p), 0.05F));
                    turn.arrive_and_wait();
                });
            turn.arrive_and_wait();
            EXPECT_EQ(linear.samplers(), 4);
            if (byCopy)
                linear.copy(curved);
            else
                linear = curved;
            EXPECT_EQ(linear.samplers(), 0);
            EXPECT_EQ(first.channel.useCount(), 1);
            first = {};  // gone for good: nothing may read it any more
            turn.arrive_and_wait();
            turn.arrive_and_wait();
            threads.clear();
            EXPECT_EQ(linear.samplers(), 4);
        }
}

}  // namespace
