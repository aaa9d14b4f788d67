#include "volume/volumes.h"

#include <pthread.h>

#include <atomic>
#include <barrier>
#include <memory>
#include <set>
#include <thread>
#include <vector>

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

TEST(VolumeCopies, ShareVolumeAndHaloAndStartWithoutSamplers) {
    forAllKinds([]<class Traits, class T>(Traits, T) {
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
            NodeFor<T> node(object, "d", type);
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
