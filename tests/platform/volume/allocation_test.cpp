#include "platform/volume/trees.h"

#include <cstdlib>
#include <new>

#include "zel_platform/orvane_geometry_volume/tree_rollback.h"

namespace {

thread_local int allocationsLeft = -1;  // negative: as many as there are

void* allocate(std::size_t size, std::size_t alignment) {
    if (allocationsLeft == 0) throw std::bad_alloc();
    if (allocationsLeft > 0) --allocationsLeft;
    void* const block = std::aligned_alloc(alignment, (size / alignment + 1) * alignment);
    return block ? block : throw std::bad_alloc();
}

}  // namespace

[[gnu::noinline]] void* operator new(std::size_t size) {
    return allocate(size, alignof(std::max_align_t));
}
[[gnu::noinline]] void* operator new(std::size_t size, std::align_val_t alignment) {
    return allocate(size, static_cast<std::size_t>(alignment));
}
#define ZEL_TEST_DELETE(...)                                                                       \
    [[gnu::noinline]] void operator delete(void* block, ##__VA_ARGS__) noexcept {                  \
        std::free(block);                                                                          \
    }
ZEL_TEST_DELETE()
ZEL_TEST_DELETE(std::size_t)
ZEL_TEST_DELETE(std::align_val_t)
ZEL_TEST_DELETE(std::size_t, std::align_val_t)

namespace {

using namespace trees;

/// Has the first allocation of `call` fail, then the second, and so on until it succeeds; `check`
/// looks at what each failure left. The number of failures.
template <class Call, class Check> int failEach(Call const& call, Check const& check) {
    for (int failures = 0;; ++failures) {
        allocationsLeft = failures;
        try {
            call();
            allocationsLeft = -1;
            return failures;
        } catch (std::bad_alloc const&) {
            allocationsLeft = -1;
            check();
        }
    }
}

template <class Traits> class Allocation : public testing::Test {};
TYPED_TEST_SUITE(Allocation, Kinds);

TYPED_TEST(Allocation, ThatFailsLeavesAllAsItWas) {
    using Channel = DataChannel<TypeParam, float>;
    auto const tree = Quern::makePtr<Container<TypeParam>>(1.0f);
    tree->addTile(5, 5, 5, TypeParam::kMaxDepth);
    VoxelTopology<TypeParam> const topology(tree);
    Channel channel("", nullptr, 0, true, true, 0, TypeParam::kMaxDepth);
    channel.update(topology);
    *channel.samples({0, 3}) = 5;
    auto const state = [&] {
        unsigned long long used = 0, held = 0;
        tree->memUse(used, held, true);
        auto const accessor = tree->tileAccessor();
        return std::tuple(tree->size(), used, tree->stamp().tree, tree->stamp().version,
                          accessor.tile(-5, 5, 5, 99).depth(),
                          accessor.tile(5, 5, 5, 99).treeIndex(), *channel.samples({0, 3}),
                          channel.tileCount(-1));
    };
    auto before = state();
    auto const unchanged = [&] { ASSERT_EQ(state(), before); };
    EXPECT_GT(failEach([&] { Container<TypeParam> const copy(*tree); }, unchanged), 3);
    EXPECT_GT(failEach([&] { Channel const copy(channel); }, unchanged), 0);
    // As refineTree does it; the task scheduler itself does not survive a failure.
    auto const refine = [&] {
        Internal::Rollback<TypeParam> rollback(*tree);
        for (int d = 0; d < 3; ++d)
            for (long long i = 0; i < tree->tileCount(d); ++i)
                for (int y = 0; y < TypeParam::kBranch; ++y) tree->addChild({i, d}, {0, y, 1});
        rollback.keep();
    };
    EXPECT_GT(failEach(refine, unchanged), 1);
    before = state();
    EXPECT_GT(failEach([&] { channel.update(topology); }, unchanged), 0);
    EXPECT_EQ(*channel.samples({0, 3}), 5);
    Container<TypeParam> fresh(1);
    auto const empty = [&] { ASSERT_FALSE(fresh.tileAccessor().tile(0, 0, 0, 99).exists()); };
    EXPECT_GT(failEach([&] { fresh.addTile(-5, 5, 5, TypeParam::kMaxDepth); }, empty), 4);
}

TEST(PoolAllocation, ThatFailsKeepsNothing) {
    ChannelPool::setEnabled(true);
    auto const tree = Quern::makePtr<Container<BinaryTraits>>(1.0f);
    tree->addTile(0, 0, 0, 28);
    VoxelTopology<BinaryTraits> const topology(tree);
    Quern::Ptr<HaloChannel<BinaryTraits, float>> channel;
    auto const nothingHeld = [] { ASSERT_EQ(ChannelPool::heldBytes(), 0u); };
    auto const allocate = [&] {
        channel =
            ChannelPool::allocate<BinaryTraits, float, 5, 0>(1, false, true, 0, 28, 0, &topology);
    };
    EXPECT_GT(failEach(allocate, nothingHeld), 0);
    allocationsLeft = 0;  // no memory to note what comes back
    channel.reset();
    allocationsLeft = -1;
    nothingHeld();
    ChannelPool::setEnabled(false);
}

}  // namespace
