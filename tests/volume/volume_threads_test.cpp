#include "volume/volumes.h"

#include <tbb/global_control.h>
#include <tbb/task_arena.h>

#include <atomic>
#include <barrier>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "examples/binder.h"

// Copies, threads and batches of volume nodes.
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
    static std::atomic<int> alive;
    struct Counted {
        Counted() { ++alive; }
        ~Counted() { --alive; }
    };
    constexpr int kThreads = 300;
    {
        zel::detail::SamplerPool<Counted> pool;
        std::vector<Counted*> found(kThreads);
        for (int round = 0; round < 2; ++round) {
            onThreads(kThreads, [&](int i) {
                bool exists = true;
                Counted*& first = pool.local(exists);
                EXPECT_FALSE(exists);
                EXPECT_EQ(first, nullptr);  // and so it stays if none can be made
                EXPECT_EQ(&pool.local(exists), &first);
                EXPECT_TRUE(exists);
                first = new Counted;
                for (int k = 0; k < 100; ++k) EXPECT_EQ(pool.local(exists), first);
                found[static_cast<std::size_t>(i)] = first;
            });
            EXPECT_EQ(std::set<Counted*>(found.begin(), found.end()).size(), kThreads);
            int visited = 0;
            pool.forEach([&](Counted* sampler) { visited += sampler != nullptr; });
            EXPECT_EQ(visited, kThreads);
            EXPECT_EQ(alive, kThreads);
            if (round == 0) pool.clear();
            EXPECT_EQ(alive, round * kThreads);
        }
    }
    EXPECT_EQ(alive, 0);
}

TEST(VolumeThreads, ShareOneFieldOfEachType) {
    forAllKinds([]<class Traits, class T>(Traits, T) {
        auto const volume = build<Traits, T>(waves<T>);
        auto const object = host(volume);
        auto const at = positions(300);
        for (SamplerType const type : kTypes) {
            auto const field = makePtr<NodeFor<T>>(object, "d", type);
            NodeFor<T> const other(object, "d", type);
            std::vector<T> expected;
            for (float3 const& p : at) expected.push_back(other.eval(p, 0));
            EXPECT_EQ(other.samplers(), 1);
            std::atomic<int> wrong = 0;
            onThreads(40, [&](int number) {
                long long const count = at.size();
                for (long long k = 0; k < count; ++k) {
                    long long const i = (k * (number % 7 + 1) + number) % count;
                    wrong += !same(field->eval(at[i], i), expected[static_cast<std::size_t>(i)]);
                    if (k % 16 == 0) (void)field->grad(at[i], i);
                    if (k % 8 == number % 8) (void)other.eval(at[i], i);
                }
            });
            EXPECT_EQ(wrong, 0);
            EXPECT_EQ(field->samplers(), 40);
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
                auto copy = makePtr<Node>(node);
                auto const& from = node.template state<Traits>();
                auto const& to = copy->template state<Traits>();
                EXPECT_EQ(from.container, to.container);
                EXPECT_EQ(from.topology, to.topology);
                EXPECT_EQ(from.channel, to.channel);
                EXPECT_EQ(from.haloChannel, to.haloChannel);
                EXPECT_EQ(to.valid, from.valid);
                EXPECT_EQ(copy->samplers(), 0);
                EXPECT_TRUE(same(copy->eval(p, 0), value));
                auto const& self = *copy;
                *copy = self;
                copy->copy(self);
                EXPECT_EQ(copy->samplers(), 1);
                auto moved = makePtr<Node>(std::move(*copy));
                EXPECT_TRUE(same(moved->eval(p, 0), value));
                EXPECT_TRUE(same(copy->eval(p, 0), value));
                node = Node(node);
                EXPECT_EQ(node.samplers(), 0);
            };
            NodeFor<T> node(object, "d", type);
            check(node);
            LateNodeFor<T> late("d", type);
            late.apply_object(object);
            EXPECT_TRUE(same(late.eval(p, 0), node.eval(p * 0.5F, 0)));
            check(late);
            LateNodeFor<T> copied("e", SamplerType::kLinear), assigned(copied);
            copied.copy(late);
            assigned = late;
            EXPECT_TRUE(same(copied.eval(p, 0), late.eval(p, 0)));
            EXPECT_TRUE(same(assigned.eval(p, 0), late.eval(p, 0)));
        }
        EXPECT_EQ(volume.container.useCount(), 2);  // here and in the topology
        EXPECT_EQ(volume.channel.useCount(), 1);
    });
}

TEST(VolumeCopies, LeaveNoThreadWithTheVolumeBefore) {
    struct Named : Scalar {
        Named(Orvane::Object const& object, SamplerType type) : Scalar(object, "d", type) {}
        void name(char const* text) { typeName = text; }
    };
    for (SamplerType const type : kTypes)
        for (bool const byCopy : {false, true}) {
            auto first = build<BinaryTraits, float>(plane<float>);
            auto const second = build<QuinaryTraits, float>(waves<float>);
            auto const linear = makePtr<Named>(host(first), type);
            auto const curved = makePtr<Named>(host(second), type);
            curved->name("curved");
            float3 const p{0.1F, -0.2F, 0.3F};
            std::barrier turn(5);
            std::vector<std::thread> threads;
            for (int i = 0; i < 4; ++i)
                threads.emplace_back([&] {
                    EXPECT_TRUE(same(linear->eval(p, 0), plane<float>(p), 1e-6F));
                    turn.arrive_and_wait();
                    turn.arrive_and_wait();
                    EXPECT_TRUE(same(linear->eval(p, 0), waves<float>(p), 0.05F));
                    turn.arrive_and_wait();
                });
            turn.arrive_and_wait();
            EXPECT_EQ(linear->samplers(), 4);
            if (byCopy)
                linear->copy(*curved);
            else
                *linear = *curved;
            EXPECT_EQ(linear->samplers(), 0);
            EXPECT_EQ(first.channel.useCount(), 1);
            first = {};  // gone for good: nothing may read it any more
            turn.arrive_and_wait();
            turn.arrive_and_wait();
            for (auto& thread : threads) thread.join();
            EXPECT_EQ(linear->samplers(), 4);
            EXPECT_EQ(linear->getType() == Quern::String("curved"), !byCopy);
        }
}

/// Volumes, a property, noise and warps, and some of all the operators.
zel::VectorPtr mixedTree(SamplerType type) {
    using namespace zel;
    ScalarPtr const density = makePtr<ScalarOrvaneTriggered>("d", type);
    VectorPtr const flow = makePtr<VectorOrvaneTriggered>("flow", type);
    ScalarPtr const mass = makePtr<ScalarGeoPropertyTriggered>("mass");
    ScalarPtr const noise = makePtr<ScalarFieldFractalNoise>(
        0.2F, 3.0F, 2.0F, 0.5F, 0.5F, makePtr<ScalarFieldConstant>(0.3F), 1.0F, 4);
    VectorPtr const bent = makePtr<VectorFieldAdd>(makePtr<VectorFieldPosition>(),
                                                   makePtr<VectorFieldVSMultiply>(flow, noise));
    ScalarPtr const warped = makePtr<ScalarFieldWarp>(density, bent);
    ScalarPtr const ball = makePtr<ScalarFieldSphere>(float3{0.1F, 0, 0}, 0.3F);
    ScalarPtr const cut = makePtr<ScalarFieldMax>(makePtr<ScalarFieldMultiply>(warped, mass), ball);
    auto const curve = makePtr<Orvane::Math::FCurve>(
        std::vector<Orvane::Math::FCurve::Key>{{-2, -1}, {3, 2}},
        Orvane::Math::FCurve::Extrapolation::kLinear, Orvane::Math::FCurve::Extrapolation::kLinear);
    return makePtr<VectorFieldAdvect>(
        makePtr<VectorFieldFromComponents>(
            makePtr<ScalarFieldFCurve>(cut, curve), warped,
            makePtr<VectorFieldDotProduct>(flow, makePtr<ScalarFieldGradient>(density))),
        flow, 0.01F);
}

template <class Traits> Orvane::Object mixedObject(long long elements) {
    auto const density = build<Traits, float>(waves<float>);
    auto const flow = makePtr<DataChannel<Traits, float3>>("", nullptr, 0, false, true, 0,
                                                           density.container->depth());
    flow->update(*density.topology);
    fillChannel<Traits, float3>(*flow, *density.topology, waves<float3>);
    auto const view = object(density);
    view->setComponent("flow", flow);
    Orvane::Object made;
    Orvane::Geometry::setVolume(made, view);
    auto const mass = makePtr<Quern::Array<float>>(elements);
    for (long long i = 0; i < elements; ++i) (*mass)[i] = 0.5F + static_cast<float>(i % 17);
    Orvane::Geometry::setGeoProperty(made, "mass", 1.0F, mass);
    made.setProperty("scene units in meters", 0.75F);
    return made;
}

TEST(VolumeBatch, OfAMixedTreeEqualsItsPointsToTheBit) {
    auto const at = positions(5003, 0.7F);
    auto const check = [&](Orvane::Object const& object) {
        for (SamplerType const type : kTypes) {
            zel::VectorPtr const tree = mixedTree(type);
            zel::VectorPtr const bound = bindTree(tree, object);
            for (std::size_t const threads : {1U, 2U, 4U}) {
                tbb::global_control const limit(tbb::global_control::max_allowed_parallelism,
                                                threads);
                tbb::task_arena arena(static_cast<int>(threads));
                auto const batch = arena.execute([&] { return bound->eval(at); });
                bool varies = false;
                for (long long i = 0; i < at.size(); ++i) {
                    ASSERT_TRUE(same((*batch)[i], bound->eval(at[i], i)));
                    varies = varies || !((*batch)[i] == (*batch)[0]);
                }
                EXPECT_TRUE(varies);
            }
            // Whoever holds the tree still has one that is not bound.
            EXPECT_TRUE(same(tree->eval({0.1F, 0.1F, 0.1F}, 0).y, 0.0F));
            EXPECT_FALSE(same(bound->eval({0.1F, 0.1F, 0.1F}, 0).y, 0.0F));
        }
    };
    check(mixedObject<BinaryTraits>(at.size()));
    check(mixedObject<QuinaryTraits>(at.size()));
}

}  // namespace
