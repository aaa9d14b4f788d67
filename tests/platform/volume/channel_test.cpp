#include "platform/volume/trees.h"

#include <algorithm>
#include <atomic>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace {

using namespace trees;

float const kDefault = 7;

template <class Traits, class T = float> DataChannel<Traits, T> makeChannel(int low, int high) {
    T value{};
    if constexpr (std::is_same_v<T, float>) value = kDefault;
    return DataChannel<Traits, T>("c", &value, 0, false, true, low, high);
}

template <class Traits> class Channels : public testing::Test {
public:
    using Tree = Container<Traits>;

    Quern::Ptr<Tree> tree = Quern::makePtr<Tree>(1.0f);
    VoxelTopology<Traits> topology{tree};

    /// Three tiles of depth 3, the first one in the middle.
    void grow() {
        for (long long i = 0; i < 3; ++i) {
            auto const x = static_cast<int>(i * width<Traits>(3));
            EXPECT_EQ(tree->addTile(x, 0, 0, 3).tile, i);
        }
    }
    /// Makes every sample of a depth-3 tile its number.
    static void number(DataChannel<Traits, float>& channel) {
        for (long long i = 0; i < channel.tileCount(3); ++i)
            std::fill_n(channel.samples({i, 3}), Traits::kSampleCount, static_cast<float>(i));
    }
    static std::vector<float> firsts(DataChannel<Traits, float> const& channel) {
        std::vector<float> firsts;
        for (long long i = 0; i < channel.tileCount(3); ++i)
            firsts.push_back(channel.tileData({i, 3})(Traits::kSampleCount - 1));
        return firsts;
    }
};
TYPED_TEST_SUITE(Channels, Kinds);
using Floats = std::vector<float>;

TYPED_TEST(Channels, HoldSamplesOfTheDepthsAskedFor) {
    using Traits = TypeParam;
    constexpr int W = Traits::kSamples;
    auto channel = makeChannel<Traits>(1, 3);
    EXPECT_TRUE(channel.empty());
    EXPECT_FALSE(std::as_const(channel).tileData({0, 3}));
    this->grow();
    channel.update(this->topology);
    EXPECT_EQ(channel.tileCount(-1), channel.tileCount(1) + channel.tileCount(2) + 3);
    EXPECT_EQ(channel.elementCount(3), 3 * W * W * W);
    EXPECT_EQ(channel.size(), static_cast<unsigned long long>(channel.elementCount(-1)));
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
    auto const read = std::as_const(channel).tileData({1, 3});
    EXPECT_TRUE(read);
    EXPECT_EQ(read(1 + W * (2 + W * 3)), 5);
    EXPECT_EQ(read(int3{1, 2, 3}), 5);
    EXPECT_EQ(&read(1, 2, 3) - &read(0, 0, 0), 1 + W * (2 + W * 3));

    DataChannel<Traits, float> const copy(channel);
    data(1, 2, 3) = 6;
    EXPECT_EQ(copy.tileData({1, 3})(1, 2, 3), 5);
    Quern::Ptr<ORV::Component> other;
    copy.copyTo(other);
    EXPECT_EQ(other->tileCount(3), 3);
    unsigned long long used = 0, held = 0;
    copy.memUse(used, held, true);
    EXPECT_EQ(used, copy.size() * sizeof(float) + sizeof copy);
    std::ostringstream text;
    copy.dump(text);
    EXPECT_NE(text.str().find("depth 3: 3 tiles"), std::string::npos) << text.str();
}

TYPED_TEST(Channels, KeepSamplesAsTheTreeGrows) {
    using Traits = TypeParam;
    this->grow();
    auto channel = makeChannel<Traits>(0, Traits::kMaxDepth);
    channel.update(this->topology);
    this->number(channel);
    this->tree->addTile(static_cast<int>(-width<Traits>(3)), 0, 0, 3);
    EXPECT_FALSE(channel.fits(*this->tree));
    channel.updateTilesAdded(this->topology);
    EXPECT_EQ(this->firsts(channel), (Floats{0, 1, 2, kDefault}));
    this->tree->addTile(1, 1, 1, 5);
    channel.update(this->topology);
    EXPECT_EQ(this->firsts(channel), (Floats{0, 1, 2, kDefault}));
    EXPECT_EQ(channel.tileCount(5), 1);
    channel.setDepth(3, this->topology);
    channel.setMinDepth(2, this->topology);
    EXPECT_EQ(channel.tileCount(5) + channel.tileCount(1), 0);
    EXPECT_EQ(this->firsts(channel), (Floats{0, 1, 2, kDefault}));
    EXPECT_EQ(channel.minDepth() * 10 + channel.depth(), 23);
    EXPECT_THROW(channel.setDepth(1, this->topology), std::out_of_range);
    EXPECT_THROW(channel.setMinDepth(4, this->topology), std::out_of_range);
    EXPECT_EQ(channel.minDepth() * 10 + channel.depth(), 23);

    VoxelTopology<Traits> const fresh(Quern::makePtr<Container<Traits>>(1.0f));
    EXPECT_THROW(channel.updateTilesAdded(fresh), std::invalid_argument);
    EXPECT_EQ(this->firsts(channel), (Floats{0, 1, 2, kDefault}));
    channel.update(fresh);
    EXPECT_TRUE(channel.empty());
    EXPECT_FALSE(channel.tileData({0, 3}));
}

TYPED_TEST(Channels, TellCopiesOfATreeApartOnceTheyGrow) {
    using Traits = TypeParam;
    using Tree = Container<Traits>;
    this->grow();
    auto old = makeChannel<Traits>(0, 4);
    old.update(this->topology);
    this->number(old);
    auto const twin = Quern::makePtr<Tree>(*this->tree);
    VoxelTopology<Traits> const twins(twin);
    EXPECT_TRUE(old.fits(*twin));
    auto const w = static_cast<int>(width<Traits>(3));
    this->tree->addTile(-w, 0, 0, 3);
    twin->addTile(0, -w, 0, 3);
    auto grown = old, other = old;
    grown.update(this->topology);
    grown.samples({3, 3})[Traits::kSampleCount - 1] = 3;
    other.update(twins);  // the tiles from before the copy are the same ones
    EXPECT_EQ(this->firsts(other), (Floats{0, 1, 2, kDefault}));
    EXPECT_TRUE(other.fits(*twin) && !other.fits(*this->tree));
    EXPECT_TRUE(old.belongsTo(*twin) && old.belongsTo(*this->tree) && !grown.belongsTo(*twin));
    other.update(this->topology);
    grown.update(twins);
    Floats const none(4, kDefault);
    EXPECT_TRUE(this->firsts(grown) == none && this->firsts(other) == none);
}

TYPED_TEST(Channels, RemoveAndPermuteTiles) {
    using Traits = TypeParam;
    this->grow();
    this->tree->addTile(static_cast<int>(-width<Traits>(3)), 0, 0, 3);
    auto channel = makeChannel<Traits>(3, 3);
    channel.update(this->topology);
    this->number(channel);

    channel.updateTilesPermuted({{0}, {9, 9}, {}, {3, 0, 1, 2}});  // depth 3 is all it has
    EXPECT_EQ(this->firsts(channel), (Floats{3, 0, 1, 2}));
    EXPECT_FALSE(channel.fits(*this->tree));
    channel.updateTilesAdded(this->topology);
    EXPECT_TRUE(channel.fits(*this->tree));
    for (auto const& bad :
         {std::vector<long long>{0, 1, 2}, {0, 1, 2, 2}, {0, 1, 2, 4}, {-1, 0, 1, 2}})
        EXPECT_THROW(channel.updateTilesPermuted({{}, {}, {}, bad}), std::invalid_argument);

    auto const smaller = Quern::makePtr<Container<Traits>>(1.0f);
    smaller->addTile(0, 0, 0, 3);
    smaller->addTile(static_cast<int>(-width<Traits>(3)), 0, 0, 3);
    VoxelTopology<Traits> const left(smaller);
    using Ranges = std::vector<std::vector<std::pair<long long, long long>>>;
    for (auto const& bad : {Ranges{{}, {}, {}, {{0, 1}}}, Ranges{{}, {}, {}, {{2, 3}, {0, 1}}},
                            Ranges{{}, {}, {}, {{2, 5}}}, Ranges(40, {{0, 1}})})
        EXPECT_THROW(channel.updateTilesRemoved(bad, left), std::invalid_argument);
    EXPECT_EQ(this->firsts(channel), (Floats{3, 0, 1, 2}));
    channel.updateTilesRemoved({{}, {{0, 9}}, {}, {{0, 1}, {2, 3}}}, left);
    EXPECT_EQ(this->firsts(channel), (Floats{0, 2}));
    EXPECT_TRUE(channel.fits(*smaller));
}

TYPED_TEST(Channels, MoveElementsAndWholeDepths) {
    using Traits = TypeParam;
    this->grow();
    auto channel = makeChannel<Traits>(0, 4);
    channel.update(this->topology);
    this->number(channel);
    long long const n = Traits::kSampleCount;
    channel.updateElements({{}, {}, {}, {{0, n}, {n, 2 * n}, {2 * n + 1, 0}}});  // all at once
    EXPECT_EQ(*channel.samples({0, 3}), 1);
    EXPECT_EQ(*channel.samples({1, 3}), 2);
    EXPECT_EQ(channel.samples({2, 3})[1], 0);
    EXPECT_THROW(channel.updateElements({{}, {}, {}, {{0, 3 * n}}}), std::invalid_argument);
    EXPECT_THROW(channel.updateElements({}, {{1}}), std::invalid_argument);
    EXPECT_THROW(channel.updateElementResize(this->topology), std::logic_error);

    EXPECT_TRUE(channel.hasElementType(1.0f));
    EXPECT_FALSE(channel.hasElementType(1.0));
    auto const data = channel.channelData(3, 0.0f);
    auto& array = *static_cast<Quern::Array<float>*>(data.get());
    EXPECT_EQ(array.size(), 3 * n);
    EXPECT_EQ(array[n], 2);
    array[n] = 9;
    EXPECT_EQ(*channel.samples({1, 3}), 2);
    channel.setChannelData(3, 0.0f, data);
    EXPECT_EQ(*channel.samples({1, 3}), 9);
    EXPECT_THROW(channel.setChannelData(2, 0.0f, data), std::invalid_argument);
    EXPECT_THROW(channel.setChannelData(3, 0.0f, {}), std::invalid_argument);
    EXPECT_THROW(channel.channelData(3, 0), std::invalid_argument);
    EXPECT_THROW(channel.channelData(99, 0.0f), std::out_of_range);
}

TYPED_TEST(Channels, RefuseForeignTopologiesAndDepths) {
    using Traits = TypeParam;
    using Other = std::conditional_t<Traits::kBranch == 2, QuinaryTraits, BinaryTraits>;
    this->grow();
    auto channel = makeChannel<Traits>(0, 5);
    channel.update(this->topology);
    VoxelTopology<Other> const other(Quern::makePtr<Container<Other>>(1.0f));
    EXPECT_THROW(channel.update(other), std::invalid_argument);
    EXPECT_THROW(channel.update(channel), std::invalid_argument);
    EXPECT_THROW(channel.setDepth(4, other), std::invalid_argument);
    EXPECT_EQ(channel.tileCount(3), 3);
    EXPECT_THROW(makeChannel<Traits>(-1, 5), std::out_of_range);
    EXPECT_THROW(makeChannel<Traits>(3, 2), std::out_of_range);
    EXPECT_THROW(makeChannel<Traits>(0, Traits::kMaxDepth + 1), std::out_of_range);
    EXPECT_THROW((DataChannel<Traits, float>("", nullptr, 1, false, true, 0, 1)),
                 std::invalid_argument);

    auto vectors = makeChannel<Traits, float3>(0, 3);
    EXPECT_THROW(
        (fillChannel<Traits, float3>(vectors, this->topology, [](float3 const& p) { return p; })),
        std::invalid_argument);
    HaloChannel<Traits, float> halo("", &kDefault, 0, false, true, 0, 5);
    auto const compute = [&](int low, int high) {
        computeHalo<Traits, float, 0, 0, 1, 0>(channel, *this->tree, halo, low, high);
    };
    EXPECT_THROW(compute(0, 5), std::invalid_argument);
    halo.update(this->topology);
    EXPECT_NO_THROW(compute(0, 99));
    EXPECT_THROW(compute(-1, 5), std::out_of_range);
    EXPECT_THROW(compute(3, 2), std::out_of_range);
    this->tree->addTile(static_cast<int>(-width<Traits>(3)), 0, 0, 3);
    EXPECT_THROW(compute(0, 5), std::invalid_argument);
}

TEST(TileDataTest, OwnsOrRefers) {
    using Ring = TileData<float, 4, 1, 0>;
    Ring own(216);
    own(-1, -1, -1) = 1;
    own(4, 4, 4) = 2;
    EXPECT_EQ(own.data()[0], 1);
    EXPECT_EQ(own.data()[215], 2);
    Ring copy(own);
    copy(4, 4, 4) = 3;
    EXPECT_EQ(own(4, 4, 4), 2);
    Ring moved;
    EXPECT_FALSE(moved || Ring(0));
    moved = std::move(copy);
    EXPECT_EQ(moved(4, 4, 4), 3);
    EXPECT_THROW(Ring(215), std::invalid_argument);
    EXPECT_THROW(Ring(-1), std::invalid_argument);

    Ring::Vector elements(218, 5.0f);
    Ring view(&elements);
    EXPECT_EQ(view.elementsAddedSize(), 2);
    EXPECT_EQ(view.endElementsAdded() - view.beginElementsAdded(), 2);
    EXPECT_EQ(view.beginElementsAdded(), &elements[216]);
    view.clearElementsAdded();
    EXPECT_EQ(elements.size(), 216u);
    Ring second(view);
    second(0, 0, 0) = 8;
    EXPECT_EQ(view(0, 0, 0), 8);
    using ConstRing = ConstTileData<float, 4, 1, 0>;
    ConstRing read(&elements);
    EXPECT_EQ(read(int3{0, 0, 0}), 8);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(elements.data()) % 64, 0u);
    elements.resize(215);
    EXPECT_FALSE(ConstRing(&elements) || ConstRing() || Ring(&elements));
    EXPECT_FALSE(ConstRing(static_cast<ConstRing::Vector*>(nullptr)));
    view.setFlatPointer(own.data());
    EXPECT_EQ(view(4, 4, 4), 2);
    EXPECT_EQ(view.elementsAddedSize(), 0);
}

/// Every pool on for one test, and off and empty after it.
class Pools : public testing::Test {
public:
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
};

TEST_F(Pools, AreOffAtFirst) {
    EXPECT_FALSE(ArrayPool::enabled() || ChannelPool::enabled() || ChannelMemoryPool::enabled());
    EXPECT_FALSE(
        (ChannelPool::allocate<BinaryTraits, float, 5, 0>(0, false, true, 0, 28, 0, nullptr)));
    auto const array = ArrayPool::allocate<float>(2, 100);
    EXPECT_EQ((*array)[99], 2);
}

TEST_F(Pools, ArraysUseStorageAgain) {
    all(true);
    auto array = ArrayPool::allocate<float3>({1, 2, 3}, 1001);
    auto const* const storage = array->data();
    auto const shared = array;
    array.reset();
    EXPECT_EQ(ArrayPool::heldBytes(), 0u);  // still in use
    array = shared;
    const_cast<Quern::Ptr<Quern::Array<float3>>&>(shared).reset();
    array.reset();
    EXPECT_EQ(ArrayPool::heldBytes(), 12012u);
    auto const tooSmall = ArrayPool::allocate<float3>({}, 1002),
               tooLarge = ArrayPool::allocate<float3>({}, 500);
    EXPECT_TRUE(tooSmall->data() != storage && tooLarge->data() != storage);
    auto const again = ArrayPool::allocate<float3>({4, 5, 6}, 900);
    EXPECT_EQ(again->data(), storage);
    EXPECT_EQ(again->size(), 900);
    EXPECT_EQ(std::count(again->begin(), again->end(), float3{4, 5, 6}), 900);
    EXPECT_THROW(ArrayPool::allocate<float>(0, ~0ULL), std::length_error);
}

TEST_F(Pools, ChannelsUseMemoryAndChannelsAgain) {
    auto const tree = Quern::makePtr<Container<BinaryTraits>>(1.0f);
    for (int i = 0; i < 50; ++i) tree->addTile(4 * i, 0, 0, 28);
    VoxelTopology<BinaryTraits> const topology(tree);
    using Halo = HaloChannel<BinaryTraits, float>;
    auto const make = [&](bool pooled) {
        auto channel = Quern::makePtr<Halo>("", &kDefault, 0, pooled, true, 0, 28);
        channel->update(topology);
        return channel;
    };
    all(true);
    auto channel = make(true);
    float* const first = channel->samples({0, 0});
    *first = 1;
    channel.reset();
    EXPECT_GT(ChannelMemoryPool::heldBytes(), 0u);
    EXPECT_NE(make(false)->samples({0, 0}), first);
    channel = make(true);
    EXPECT_EQ(channel->samples({0, 0}), first);
    EXPECT_EQ(*first, kDefault);
    EXPECT_EQ(ChannelMemoryPool::heldBytes(), 0u);

    auto const allocate = [&](float value) {
        return ChannelPool::allocate<BinaryTraits, float, 5, 0>(
            value, false, true, 0, 28, static_cast<unsigned long long>(topology.tileCount(-1)),
            &topology);
    };
    Quern::Ptr<Halo> pooled = allocate(3);
    float* const samples = pooled->samples({0, 28});
    EXPECT_EQ(*samples, 3);
    EXPECT_TRUE(pooled->fits(*tree));
    pooled.reset();
    EXPECT_GT(ChannelPool::heldBytes(), 0u);
    pooled = allocate(4);
    EXPECT_EQ(pooled->samples({0, 28}), samples);
    EXPECT_EQ(*samples, 4);
    EXPECT_EQ(pooled->defaultValue(), 4);
    EXPECT_NE(allocate(5)->samples({0, 28}), samples);  // the first is in use
    *samples = 6;
    pooled->update(topology);  // in step already
    EXPECT_TRUE(pooled->samples({0, 28}) == samples && *samples == 6);

    // A channel of few depths comes back to a request for the same depths.
    ChannelPool::clear();
    pooled.reset();
    ChannelPool::clear();
    for (int i = 0; i < 3; ++i) {
        auto const few = ChannelPool::allocate<BinaryTraits, float, 5, 0>(
            1, false, true, 28, 28, static_cast<unsigned long long>(topology.tileCount(-1)),
            &topology);
        EXPECT_EQ(few->elementCount(-1), 50 * 125);
        EXPECT_EQ(ChannelPool::heldBytes(), 0u) << i;
    }
    EXPECT_EQ(ChannelPool::heldBytes(), 50u * 125 * sizeof(float));
}

TEST_F(Pools, ServeManyThreads) {
    auto const tree = Quern::makePtr<Container<BinaryTraits>>(1.0f);
    for (int i = 0; i < 9; ++i) tree->addTile(4 * i, 0, 0, 28);
    VoxelTopology<BinaryTraits> const topology(tree);
    all(true);
    std::atomic<int> wrong = 0;
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 8; ++t)
        threads.emplace_back([&, t] {
            std::mt19937 engine(t);
            auto const value = static_cast<float>(t);
            auto const all = [&](auto const* first, long long count) {
                return std::count(first, first + count, value) == count;
            };
            for (int i = 0; i < 300; ++i) {
                auto const array = ArrayPool::allocate<float>(value, engine() % 2000);
                auto const channel = ChannelPool::allocate<BinaryTraits, float, 5, 0>(
                    value, true, true, static_cast<int>(engine() % 28), 28, 0, &topology);
                Quern::Ptr<ORV::Component> copy;
                channel->copyTo(copy);
                std::this_thread::yield();  // the values are still this thread's own
                wrong += !all(array->begin(), array->size());
                wrong += !all(channel->samples({0, 28}), channel->elementCount(28));
                if (i % 50 == 0) ChannelPool::clear();
            }
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
}

}  // namespace
