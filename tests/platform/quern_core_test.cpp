#include <limits>
#include <memory>
#include <stdexcept>
#include <utility>

#include "support/refused.h"
#include "zel_platform/quern_core/any.h"
#include "zel_platform/quern_core/array.h"
#include "zel_platform/quern_core/ptr.h"
#include "zel_platform/quern_core/string.h"

namespace {

using namespace Quern;

struct Base {
    virtual ~Base() = default;
    int tag = 1;
};
struct Other {
    virtual ~Other() = default;
    int otherTag = 2;
};
struct Derived : Other, Base {
    explicit Derived(int& count) : alive(&count) { ++count; }
    Derived(Derived const& from) : Other(from), Base(from), alive(from.alive) { ++*alive; }
    ~Derived() override { --*alive; }
    Derived& operator=(Derived const&) = delete;
    int* alive;
};

TEST(Ptr, SharesMovesClonesAndReleases) {
    int alive = 0;
    static_assert(sizeof(Ptr<Base>) == 2 * sizeof(void*));
    {
        auto first = makePtr<Derived>(alive);
        Ptr<Base> base = first;  // a base that is not at the start
        Ptr<Derived const> constant = first;
        EXPECT_EQ(first.useCount(), 3);
        EXPECT_TRUE(base == first);
        base->tag = 7;
        base = base.clone();
        EXPECT_EQ(alive, 2);
        EXPECT_EQ(base->tag, 7);
        EXPECT_EQ(dynamic_cast<Derived&>(*base).otherTag, 2);
        Ptr<Base> moved = std::move(base);
        EXPECT_TRUE(base == nullptr && !base && base.useCount() == 0);
        moved = *&moved;
        EXPECT_EQ(moved.useCount(), 1);
        first.reset();
        EXPECT_EQ(alive, 2);  // `constant` still holds the first
    }
    EXPECT_EQ(alive, 0);
    EXPECT_TRUE(Ptr<Base>().clone() == nullptr);
    EXPECT_THROW(makePtr<std::unique_ptr<int>>().clone(), std::logic_error);
}

TEST(Array, GrowsCopiesAndMoves) {
    Array<std::string> array{"a", "b"};
    for (int i = 0; i < 100; ++i) array.push_back(array[i]);  // an element of itself, across growth
    ASSERT_EQ(array.size(), 102);
    EXPECT_EQ(array[100], "a");
    Array<std::string> copy = array;
    copy[0] = "changed";
    EXPECT_EQ(array[0], "a");
    auto const* const storage = copy.data();
    EXPECT_EQ(Array<std::string>(std::move(copy)).data(), storage);
    EXPECT_EQ(copy.size(), 0);
    array.resize(1);
    array.resize(3);
    EXPECT_EQ(array, (Array<std::string>{"a", "", ""}));
    auto const shared = makePtr<int>(1);
    Array<Ptr<int>> owners(3, shared);
    owners.resize(1);
    EXPECT_EQ(shared.useCount(), 2);
    array.reserve(1000);
    EXPECT_TRUE(array.size() == 3 && array.capacity() >= 1000);
    EXPECT_EQ(Array<int>(2, 9), (Array<int>{9, 9}));
}

TEST(Array, RefusesSizesThatCannotBe) {
    Array<int> array{1, 2};
    EXPECT_THROW(Array<int>(std::numeric_limits<long long>::max(), 1), std::length_error);
    support::expectRefused<std::length_error>([&] { array.resize(-12); }, "-12");
    EXPECT_EQ(array, (Array<int>{1, 2}));
}

TEST(Array, DestroysWhatItBuiltWhenAnElementThrows) {
    struct Third {
        explicit Third(int& live) : count(&++live) {}
        Third(Third const& from) : count(from.count) {
            if (*count == 3) throw std::runtime_error("third");
            ++*count;
        }
        ~Third() { --*count; }
        Third& operator=(Third const&) = delete;
        int* count;
    };
    int count = 0;
    EXPECT_THROW(Array<Third>(5, Third(count)), std::runtime_error);
    EXPECT_EQ(count, 0);
}

TEST(String, IsSharedTextThatComparesWithAll) {
    std::string const embedded("a\0b", 3);
    String const text = embedded;
    EXPECT_EQ(static_cast<std::string>(text), embedded);
    EXPECT_EQ(String(text).c_str(), text.c_str());  // the same characters, not equal ones
    EXPECT_EQ(StringView(text).size(), 3);
    EXPECT_TRUE(String("b") == "b" && "b" == String("b") && StringView("b") == std::string("b"));
    EXPECT_TRUE(String("a") < String("b") && String("a") < "b" &&
                StringView("a") < StringView("aa"));
    EXPECT_STREQ(String().c_str(), "");
    EXPECT_STREQ(String(static_cast<char const*>(nullptr)).c_str(), "");
}

TEST(Any, FindsOnlyTheExactType) {
    Any any = 2.5F;
    ASSERT_NE(any.get<float>(), nullptr);
    *any.get<float>() = 3;
    EXPECT_EQ(*std::as_const(any).get<float>(), 3);
    EXPECT_EQ(any.get<double>(), nullptr);
    int alive = 0;
    any = makePtr<Derived>(alive);
    EXPECT_EQ(any.get<Ptr<Base>>(), nullptr);
    Ptr<Derived> const taken = std::move(*any.get<Ptr<Derived>>());
    EXPECT_EQ(taken.useCount(), 1);
    any = Any();
    EXPECT_TRUE(any.empty() && Any(any).empty());
}

}  // namespace
