#include "platform/volume/trees.h"

#include <algorithm>
#include <atomic>
#include <initializer_list>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "zel_platform/orvane_geometry_volume/free_list.h"
#include "zel_platform/orvane_geometry_volume/tree_rollback.h"

namespace {

using namespace trees;

float const kDefault = 7;

template <class Traits> DataChannel<Traits, float> makeChannel(int low, int high) {
    return {"c", &kDefault, 0, false, true, low, high};
}

template <class Traits> class Channels : public testing::Test {
public:
    using Tree = Container<Traits>;
    static constexpr int kWidth = static_cast<int>(width<Traits>(3));

    /// Three tiles of depth 3, the first one in the middle.
    Channels() {
        for (int i = 0; i < 3; ++i) tree->addTile(i * kWidth, 0, 0, 3);
    }
    /// A channel in which every sample of a depth-3 tile is its number.
    DataChannel<Traits, float> numbered(int low, int high) const {
        auto channel = makeChannel<Traits>(low, high);
        channel.update(topology);
        for (long long i = 0; i < channel.tileCount(3); ++i)
            std::fill_n(channel.samples({i, 3}), Traits::kSampleCount, static_cast<float>(i));
        return channel;
    }
    static std::vector<float> firsts(DataChannel<Traits, float> const& channel) {
        std::vector<float> firsts;
        for (long long i = 0; i < channel.tileCount(3); ++i)
            firsts.push_back(channel.tileData({i, 3})(Traits::kSampleCount - 1));
        return firsts;
    }

    Quern::Ptr<Tree> tree = Quern::makePtr<Tree>(1.0f);
    VoxelTopology<Traits> topology{tree};
};
TYPED_TEST_SUITE(Channels, Kinds);
using Floats = std::vector<float>;

TYPED_TEST(Channels, HoldSamplesOfTheDepthsAskedFor) {
    constexpr int W = TypeParam::kSamples;
    auto channel = makeChannel<TypeParam>(1, 3);
    EXPECT_TRUE(channel.empty() && channel.belongsTo(*this->tree));  // one without samples, to any
    EXPECT_FALSE(channel.tileData({0, 3}));
    channel.update(this->topology);
    EXPECT_EQ(channel.tileCount(-1), channel.tileCount(1) + channel.tileCount(2) + 3);
    EXPECT_EQ(channel.elementCount(3), 3 * W * W * W);
    EXPECT_EQ(channel.elementCount(TreeIndex{2, 3}), W * W * W);
    for (TreeIndex const& none : {TreeIndex{}, TreeIndex{0, 0}, TreeIndex{3, 3}, TreeIndex{0, 4},
                                  TreeIndex{-1, 3}, TreeIndex{0, 99}, TreeIndex{0, -5}}) {
        EXPECT_FALSE(std::as_const(channel).tileData(none));
        EXPECT_FALSE(channel.tileData(none));
        EXPECT_EQ(channel.elementCount(none), 0);
    }
    auto data = channel.tileData({1, 3});
    EXPECT_EQ(data(W - 1, W - 1, W - 1), kDefault);
    data(1, 2, 3) = 5;
    DataChannel<TypeParam, float> const copy(channel);
    data(1, 2, 3) = 6;
    EXPECT_EQ(copy.tileData({1, 3})(1 + W * (2 + W * 3)), 5);
    unsigned long long used = 0, held = 0;
    copy.memUse(used, held, true);
    EXPECT_EQ(used, copy.size() * sizeof(float) + sizeof copy);
}

TYPED_TEST(Channels, AreComponentsAsTheirTreeAndTopologyAre) {
    auto const channel = this->numbered(0, 3);
    for (ORV::Component const* const component : std::initializer_list<ORV::Component const*>{
             this->tree.get(), &this->topology, &channel}) {
        unsigned long long used = 0, held = 0, contents = 0, heldContents = 0;
        component->memUse(used, held, true);
        component->memUse(contents, heldContents, false);
        EXPECT_TRUE(contents < used && used <= held && held - heldContents == used - contents);
        long long elements = 0;
        for (int depth = 0; depth <= component->depth(); ++depth)
            elements += component->elementCount(depth);
        EXPECT_EQ(component->elementCount(-1), elements);
        EXPECT_EQ(static_cast<long long>(component->size()), elements);
        Quern::Ptr<ORV::Component> copy;
        component->copyTo(copy);
        EXPECT_EQ(copy->size(), component->size());
        EXPECT_EQ(copy->elementCount(TreeIndex{2, 3}), component->elementCount(TreeIndex{2, 3}));
        std::ostringstream text, textOfCopy;
        component->dump(text);
        copy->dump(textOfCopy);
        EXPECT_FALSE(text.str().empty());
        EXPECT_EQ(text.str(), textOfCopy.str());
    }
    EXPECT_THROW(this->topology.update(this->topology), std::logic_error);
}

TYPED_TEST(Channels, KeepSamplesAsTheTreeGrows) {
    auto channel = this->numbered(0, TypeParam::kMaxDepth);
    Floats const kept{0, 1, 2, kDefault};
    this->tree->addTile(-this->kWidth, 0, 0, 3);
    EXPECT_FALSE(channel.fits(*this->tree));
    channel.updateTilesAdded(this->topology);
    EXPECT_EQ(this->firsts(channel), kept);
    this->tree->addTile(1, 1, 1, 5);
    channel.update(this->topology);
    EXPECT_EQ(this->firsts(channel), kept);
    EXPECT_EQ(channel.tileCount(5), 1);
    channel.setDepth(3, this->topology);
    channel.setMinDepth(2, this->topology);
    EXPECT_EQ(channel.tileCount(5) + channel.tileCount(1), 0);
    EXPECT_EQ(this->firsts(channel), kept);
    channel.update(VoxelTopology<TypeParam>(Quern::makePtr<Container<TypeParam>>(1.0f)));
    EXPECT_TRUE(channel.empty());
}

TYPED_TEST(Channels, TellCopiesOfATreeApartOnceTheyGrow) {
    auto const old = this->numbered(0, 4);
    auto const twin = Quern::makePtr<Container<TypeParam>>(*this->tree);
    VoxelTopology<TypeParam> const twins(twin);
    EXPECT_TRUE(old.fits(*twin));
    this->tree->addTile(-this->kWidth, 0, 0, 3);
    twin->addTile(0, -this->kWidth, 0, 3);
    auto grown = old, other = old;
    grown.update(this->topology);
    grown.samples({3, 3})[TypeParam::kSampleCount - 1] = 3;
    other.update(twins);  // the tiles from before the copy are the same ones
    EXPECT_EQ(this->firsts(other), (Floats{0, 1, 2, kDefault}));
    EXPECT_TRUE(other.fits(*twin) && !other.fits(*this->tree));
    EXPECT_TRUE(old.belongsTo(*twin) && old.belongsTo(*this->tree) && !grown.belongsTo(*twin));
    other.update(this->topology);
    grown.update(twins);
    Floats const none(4, kDefault);
    EXPECT_TRUE(this->firsts(grown) == none && this->firsts(other) == none);
}

TYPED_TEST(Channels, LoseTheTilesOfADroppedRefinementAlone) {
    auto const old = this->numbered(0, 4);
    auto const copy =
        Quern::makePtr<Container<TypeParam>>(*this->tree);  // not a tree of its own yet
    for (auto const& tree : {this->tree, copy}) {
        VoxelTopology<TypeParam> const topology(tree);
        std::vector<DataChannel<TypeParam, float>> channels{old};
        for (int round = 1; round < 4; ++round) {
            for (int attempt = 0; attempt < 2; ++attempt) {
                auto channel = channels.front();
                Internal::Rollback<TypeParam> const rollback(*tree);
                for (int i = 0; i <= attempt; ++i)
                    tree->addTile(-this->kWidth * round, i * this->kWidth, 0, 3);
                channel.update(topology);
                channel.samples({tree->tileCount(3) - 1, 3})[TypeParam::kSampleCount - 1] = 100;
                channels.push_back(channel);
            }
            EXPECT_TRUE(old.belongsTo(*tree) && !channels.back().belongsTo(*tree));
            if (round == 1) continue;  // dropped twice over
            tree->addTile(0, -this->kWidth * round, 0, 3);
            Floats expected{0, 1, 2};
            expected.resize(static_cast<std::size_t>(tree->tileCount(3)), kDefault);
            for (auto& channel : channels) {
                channel.update(topology);
                EXPECT_EQ(this->firsts(channel), expected) << round;
            }
        }
    }
}

TYPED_TEST(Channels, RemoveAndPermuteTiles) {
    this->tree->addTile(-this->kWidth, 0, 0, 3);
    auto channel = this->numbered(3, 3);
    channel.updateTilesPermuted({{0}, {9, 9}, {}, {3, 0, 1, 2}});  // depth 3 is all it has
    EXPECT_EQ(this->firsts(channel), (Floats{3, 0, 1, 2}));
    EXPECT_FALSE(channel.fits(*this->tree));
    channel.updateTilesAdded(this->topology);
    EXPECT_TRUE(channel.fits(*this->tree));
    auto const smaller = Quern::makePtr<Container<TypeParam>>(1.0f);
    smaller->addTile(0, 0, 0, 3);
    smaller->addTile(-this->kWidth, 0, 0, 3);
    VoxelTopology<TypeParam> const left(smaller);
    using Ranges = std::vector<std::pair<long long, long long>>;
    for (auto const& bad : {Ranges{{0, 1}}, {{2, 3}, {0, 1}}, {{2, 5}}, {{1, 0}, {0, 3}}})
        EXPECT_THROW(channel.updateTilesRemoved({{}, {}, {}, bad}, left), std::invalid_argument);
    EXPECT_EQ(this->firsts(channel), (Floats{3, 0, 1, 2}));
    channel.updateTilesRemoved({{}, {{0, 9}}, {}, {{0, 1}, {2, 3}}}, left);
    EXPECT_EQ(this->firsts(channel), (Floats{0, 2}));
    EXPECT_TRUE(channel.fits(*smaller));
}

TYPED_TEST(Channels, MoveElementsAndWholeDepths) {
    auto channel = this->numbered(0, 4);
    long long const n = TypeParam::kSampleCount;
    channel.updateElements({{}, {}, {}, {{0, n}, {n, 2 * n}, {2 * n + 1, 0}}});  // all at once
    EXPECT_TRUE(*channel.samples({0, 3}) == 1 && *channel.samples({1, 3}) == 2);
    EXPECT_EQ(channel.samples({2, 3})[1], 0);
    auto const data = channel.channelData(3, 0.0f);
    auto& array = *static_cast<Quern::Array<float>*>(data.get());
    EXPECT_EQ(array.size(), 3 * n);
    array[n] = 9;
    EXPECT_EQ(*channel.samples({1, 3}), 2);
    channel.setChannelData(3, 0.0f, data);
    EXPECT_EQ(*channel.samples({1, 3}), 9);
}

TYPED_TEST(Channels, RefuseWhatDoesNotFit) {
    using Other = std::conditional_t<TypeParam::kBranch == 2, QuinaryTraits, BinaryTraits>;
    using Refused = std::invalid_argument;
    VoxelTopology<Other> const other(Quern::makePtr<Container<Other>>(1.0f));
    VoxelTopology<TypeParam> const smaller(Quern::makePtr<Container<TypeParam>>(1.0f));
    auto channel = this->numbered(0, 5);
    EXPECT_THROW(channel.update(other), Refused);
    EXPECT_THROW(channel.updateTilesAdded(smaller), Refused);
    for (auto const& bad : {std::vector<long long>{0, 1}, {0, 1, 1}, {0, 1, 3}, {-1, 0, 1}})
        EXPECT_THROW(channel.updateTilesPermuted({{}, {}, {}, bad}), Refused);
    EXPECT_THROW(channel.updateElements({{}, {}, {}, {{0, 3 * TypeParam::kSampleCount}}}), Refused);
    EXPECT_THROW(channel.updateElements({}, {{1}}), Refused);
    EXPECT_THROW(channel.updateElementResize(this->topology), std::logic_error);
    EXPECT_THROW(channel.setChannelData(2, 0.0f, channel.channelData(3, 0.0f)), Refused);
    EXPECT_THROW(channel.channelData(3, 0), Refused);
    EXPECT_THROW(channel.channelData(99, 0.0f), std::out_of_range);
    for (auto const& [low, high] : {std::pair{-1, 5}, {3, 2}, {0, TypeParam::kMaxDepth + 1}})
        EXPECT_THROW(makeChannel<TypeParam>(low, high), std::out_of_range);
    EXPECT_EQ(this->firsts(channel), (Floats{0, 1, 2}));

    HaloChannel<TypeParam, float> halo("", &kDefault, 0, false, true, 0, 5);
    auto const compute = [&](int low, int high) {
        computeHalo<TypeParam, float, 0, 0, 1, 0>(channel, *this->tree, halo, low, high);
    };
    EXPECT_THROW(compute(0, 5), Refused);
    halo.update(this->topology);
    EXPECT_NO_THROW(compute(0, 99));
    EXPECT_THROW(compute(-1, 5), std::out_of_range);
    EXPECT_THROW(compute(3, 2), std::out_of_range);
}

TEST(TileDataTest, OwnsOrRefers) {
    using Ring = TileData<float, 4, 1, 0>;
    Ring own(216);
    own(4, 4, 4) = 2;
    Ring copy(own);
    copy(4, 4, 4) = 3;
    EXPECT_TRUE(own.data()[215] == 2 && Ring(std::move(copy))(4, 4, 4) == 3);
    EXPECT_THROW(Ring(215), std::invalid_argument);
    Ring::Vector elements(218, 5.0f);
    Ring view(&elements);
    EXPECT_EQ(view.endElementsAdded() - view.beginElementsAdded(), 2);
    elements.resize(215);
    EXPECT_FALSE(Ring(&elements) || Ring() || Ring(0));
}

/// Leaves every pool off and empty.
class Pools : public testing::Test {
public:
    using Halo = HaloChannel<BinaryTraits, float>;

    Pools() {
        for (int i = 0; i < 50; ++i) tree->addTile(4 * i, 0, 0, 28);
    }
    Quern::Ptr<Halo> allocate(float value, int low = 0, bool pooledMemory = false) const {
        return ChannelPool::allocate<BinaryTraits, float, 5, 0>(value, pooledMemory, true, low, 28,
                                                                0, &topology);
    }
    static void all(bool on) {
        ArrayPool::setEnabled(on);
        ChannelPool::setEnabled(on);
        ChannelMemoryPool::setEnabled(on);
    }
    void TearDown() override {
        all(false);
        EXPECT_EQ(
            ArrayPool::heldBytes() + ChannelPool::heldBytes() + ChannelMemoryPool::heldBytes(), 0u);
    }

    Quern::Ptr<Container<BinaryTraits>> tree = Quern::makePtr<Container<BinaryTraits>>(1.0f);
    VoxelTopology<BinaryTraits> topology{tree};
};

TEST(FreeList, HoldsNoMoreThanItsLimit) {
    Internal::FreeList<int> list(100);
    EXPECT_FALSE(list.give(1, 1));
    list.setEnabled(true);
    EXPECT_TRUE(list.give(60, 6) && list.give(40, 4) && !list.give(101, 0));
    EXPECT_EQ(list.heldSize(), 100U);
    EXPECT_TRUE(!list.take(19) && !list.take(61));  // too large, or none
    EXPECT_EQ(list.take(20)->entry, 4);
    EXPECT_EQ(list.heldSize(), 60U);
    EXPECT_TRUE(list.give(50, 5));  // in place of all the others
    EXPECT_EQ(list.heldSize(), 50U);
}

TEST_F(Pools, ArraysUseStorageAgain) {
    all(true);
    auto array = ArrayPool::allocate<float3>({1, 2, 3}, 1001);
    auto const* const storage = array->data();
    {
        auto const shared = array;
        array.reset();
        EXPECT_EQ(ArrayPool::heldBytes(), 0u);  // still in use
    }
    EXPECT_EQ(ArrayPool::heldBytes(), 12012u);
    auto const again = ArrayPool::allocate<float3>({4, 5, 6}, 900);
    EXPECT_EQ(again->data(), storage);
    EXPECT_EQ(*again, (Quern::Array<float3>(900, {4, 5, 6})));
}

TEST_F(Pools, ChannelsUseMemoryAgain) {
    auto const make = [&](bool pooled, int low = 0) {
        auto channel = Quern::makePtr<Halo>("", &kDefault, 0, pooled, true, low, 28);
        channel->update(topology);
        return channel;
    };
    all(true);
    auto channel = make(true);
    float* const first = channel->samples({0, 0});
    *first = 1;
    channel.reset();
    auto const held = ChannelMemoryPool::heldBytes();
    EXPECT_NE(make(false)->samples({0, 0}), first);
    channel = make(true);
    EXPECT_TRUE(channel->samples({0, 0}) == first && *first == kDefault);
    EXPECT_EQ(ChannelMemoryPool::heldBytes(), 0u);
    channel.reset();
    EXPECT_EQ(make(true, 1)->samples({0, 1}), first);
    EXPECT_EQ(ChannelMemoryPool::heldBytes(), held);  // more than was asked for
}

TEST_F(Pools, ChannelsAreUsedAgain) {
    EXPECT_FALSE(allocate(0));  // the pools are off at first
    EXPECT_EQ((*ArrayPool::allocate<float>(2, 100))[99], 2);
    all(true);
    auto channel = allocate(3);
    float* const samples = channel->samples({0, 28});
    EXPECT_TRUE(*samples == 3 && channel->fits(*tree));
    channel.reset();
    channel = allocate(4);
    EXPECT_TRUE(channel->samples({0, 28}) == samples && *samples == 4);
    EXPECT_NE(allocate(5)->samples({0, 28}), samples);  // the first is in use
    *samples = 6;
    channel->update(topology);  // in step already
    EXPECT_TRUE(channel->samples({0, 28}) == samples && *samples == 6);
    channel.reset();
    ChannelPool::clear();
    // A channel of few depths comes back to a request for the same depths.
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(allocate(1, 28)->elementCount(-1), 50 * 125);
        EXPECT_EQ(ChannelPool::heldBytes(), 50u * 125 * sizeof(float)) << i;
    }
}

TEST_F(Pools, ServeManyThreads) {
    all(true);
    std::atomic<int> wrong = 0;
    std::vector<std::jthread> threads;
    for (unsigned t = 0; t < 8; ++t)
        threads.emplace_back([&, t] {
            std::mt19937 engine(t);
            auto const value = static_cast<float>(t);
            auto const isAll = [&](auto const* first, long long count) {
                return std::count(first, first + count, value) == count;
            };
            for (int i = 0; i < 300; ++i) {
                auto const array = ArrayPool::allocate<float>(value, engine() % 2000);
                auto const channel = allocate(value, static_cast<int>(engine() % 28), true);
                Quern::Ptr<ORV::Component> copy;
                channel->copyTo(copy);
                std::this_thread::yield();  // the values are still this thread's own
                wrong += !isAll(array->begin(), array->size());
                wrong += !isAll(channel->samples({0, 28}), channel->elementCount(28));
                if (i % 50 == 0) ChannelPool::clear();
            }
        });
    threads.clear();
    EXPECT_EQ(wrong, 0);
}

}  // namespace
