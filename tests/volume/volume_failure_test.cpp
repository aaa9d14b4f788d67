#include "volume/volumes.h"

#include <tbb/parallel_for.h>
#include <tbb/task_group.h>

#include <stdexcept>

#include "zel_platform/orvane_math_support/exception_message.h"
#include "zel_platform/shape_store/scene_units.h"

// What binding does when it fails.
namespace {

using namespace volumes;

/// A host whose look-up of `key` fails.
struct Broken : Orvane::Object {
    Broken(Quern::String key, std::function<void()> fail)
        : key(std::move(key)), fail(std::move(fail)) {}
    Quern::Any property(Quern::StringView name) const override {
        if (name == key) fail();
        return Object::property(name);
    }
    Quern::String key;
    std::function<void()> fail;
};

struct Odd : std::exception {
    char const* what() const noexcept override { return "odd"; }
    int payload = 77;
};
struct Silent : std::exception {
    char const* what() const noexcept override { return nullptr; }
};

/// What `throwing` throws: the text, after the name of the exact type.
std::string thrown(std::function<void()> const& throwing) {
    try {
        throwing();
        return "nothing";
    } catch (Odd const& error) {
        return "Odd " + std::to_string(error.payload);
    } catch (int number) {
        return "int " + std::to_string(number);
    } catch (std::exception const& error) {
        bool const plain = typeid(error) == typeid(std::runtime_error);
        return std::string(plain ? "runtime_error " : "exception ") +
               (error.what() ? error.what() : "");
    }
}

/// Runs `work` in a group within another; whether that cancels the group, and nothing but it.
bool cancels(std::function<void()> const& work) {
    tbb::task_group_context outer, inner;
    auto const within = [](tbb::task_group_context& group, auto const& call) {
        tbb::parallel_for(
            tbb::blocked_range<int>(0, 1), [&](auto const&) { call(); }, tbb::simple_partitioner(),
            group);
    };
    within(outer, [&] { within(inner, work); });
    EXPECT_FALSE(outer.is_group_execution_cancelled());
    return inner.is_group_execution_cancelled();
}

/// Failures, and what leaves apply_object then; nothing where that cancels the group.
std::pair<std::function<void()>, std::string> const kFailures[] = {
    {[] { throw std::exception(); }, "runtime_error std::exception"},
    {[] { throw Odd(); }, "runtime_error odd"},
    {[] { throw Silent(); }, "runtime_error "},
    {[] { throw 5; }, "int 5"},
    {[] { throw std::logic_error(ORV::exceptionMessage); }, "nothing"}};

template <class Value> void checkFailures() {
    Orvane::Object const bound = volumes::host(build<QuinaryTraits, Value>(plane<Value>));
    for (auto const& [fail, passed] : kFailures)
        for (SamplerType const type : kTypes) {
            Broken const host(Orvane::Geometry::sVolume, fail);
            // A node that is bound by its constructor: nothing leaves it, and whatever it is, the
            // group is cancelled.
            auto const construct = [&] {
                NodeFor<Value> const node(host, "d", type);
                EXPECT_FALSE(node.bound());
                EXPECT_TRUE(same(node.eval({}, 0), Value()));
            };
            construct();
            EXPECT_TRUE(cancels(construct));

            LateNodeFor<Value> late("d", type);
            auto const apply = [&, &passed = passed] {
                EXPECT_EQ(thrown([&] { late.apply_object(host); }), passed);
            };
            apply();
            EXPECT_EQ(cancels(apply), passed == "nothing");
            EXPECT_TRUE(same(late.eval({}, 0), Value()));
            late.apply_object(bound);
            auto const value = late.eval({}, 0);
            thrown([&] { late.apply_object(host); });
            EXPECT_TRUE(same(late.eval({}, 0), value) && !same(value, Value()));  // as it was

            // The scale is looked up first, and outside of that.
            Broken const unit(Vellum::sceneUnitsInMeters, fail);
            std::string const direct = thrown(fail);
            EXPECT_FALSE(
                cancels([&] { EXPECT_EQ(thrown([&] { late.apply_object(unit); }), direct); }));
        }
}

TEST(VolumeFailure, CancelsTheGroupOrPassesTheExceptionOn) {
    ASSERT_FALSE(ORV::exceptionMessage.empty());
    checkFailures<float>();
    checkFailures<float3>();
}

// A channel that is not sized to the tree has no halo. What there is of it is read.
TEST(VolumeFailure, OfTheHaloLeavesTheChannel) {
    forAllKinds([]<class Traits, class T>(Traits, T) {
        auto volume = build<Traits, T>(plane<T>);
        constexpr int kHigh = static_cast<int>(Traits::kRootWidth / 2) - 1;
        volume.container->addTile(kHigh, kHigh, kHigh, 5);
        auto const stale = host(volume);
        bool const cancelled = cancels([&] {
            NodeFor<T> const node(stale, "d", SamplerType::kLinear);
            EXPECT_TRUE(node.bound());
            EXPECT_FALSE(node.held().hasHalo());
            EXPECT_TRUE(same(node.eval({0.1F, 0, 0}, 0), plane<T>({0.1F, 0, 0}), 1e-6F));
        });
        EXPECT_TRUE(cancelled);
        LateNodeFor<T> late("d", SamplerType::kLinear);
        EXPECT_EQ(thrown([&] { late.apply_object(stale); }).substr(0, 14), "runtime_error ");
        EXPECT_TRUE(same(late.eval({0.1F, 0, 0}, 0), plane<T>({0.1F, 0, 0}), 1e-6F));
        volume.channel->update(*volume.topology);
        late.apply_object(host(volume));
        EXPECT_TRUE(late.held().hasHalo());

        // Components that have nothing to do with one another, or hold nothing.
        auto mixed = volume, empty = volume;
        mixed.topology = build<Traits, T>(waves<T>).topology;
        empty.channel = makePtr<DataChannel<Traits, T>>("", nullptr, 0, false, true, 1, 2);
        auto bare = empty;
        bare.container = makePtr<Container<Traits>>(0.0F);
        bare.topology = makePtr<VoxelTopology<Traits>>(bare.container, 0);
        for (SamplerType const type : kTypes)
            for (auto const& odd : {mixed, empty, bare}) {
                NodeFor<T> const node(host(odd), "d", type);
                for (float3 const& p : positions(50, 0.6F)) {
                    EXPECT_TRUE(odd.channel == volume.channel || same(node.eval(p, 0), T{}));
                    (void)node.grad(p, 0);
                }
                for (float3 const& p : kNowhere) (void)node.eval(p, 0);
            }
    });
}

}  // namespace
