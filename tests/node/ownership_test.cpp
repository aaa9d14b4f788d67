#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "zel/zel.h"

// Copy, move, assignment and release of nodes.
namespace {

using namespace zel;
using Quern::makePtr;

struct Named : ScalarField {
    Named(char name, std::string& log) : name(name), log(&log) {}
    Named(Named const&) = default;
    Named& operator=(Named const&) = delete;
    ~Named() override { *log += name; }
    using ScalarField::eval;
    float eval(float3 const& /*p*/, long long /*i*/) const override {
        return static_cast<float>(name);
    }
    char name;
    std::string* log;
};

TEST(Ownership, ChildrenAreReleasedLastToFirst) {
    std::string log;
    {
        auto const leaf = [&](char name) -> ScalarPtr { return makePtr<Named>(name, log); };
        ScalarFieldLerp const lerp(leaf('a'), leaf('b'), leaf('t'));
        VectorFieldFromComponents const vector(leaf('x'), leaf('y'), leaf('z'));
    }
    EXPECT_EQ(log, "zyxtba");
}

TEST(Ownership, CopiesShareAndMovesTake) {
    std::string log;
    ScalarPtr const a = makePtr<Named>('a', log);
    ScalarPtr const b = makePtr<Named>('b', log);
    ScalarFieldSubtract source(a, b);
    ScalarFieldSubtract copy = source;
    EXPECT_EQ(a.useCount(), 3);
    ScalarFieldSubtract moved = std::move(source);
    EXPECT_EQ(a.useCount(), 3);
    EXPECT_EQ(moved.eval(float3{}, 0), -1);
    EXPECT_EQ(source.getType(), "zel::ScalarFieldSubtract");

    source = copy;  // a moved-from node may be assigned to
    EXPECT_EQ(source.eval(float3{}, 0), -1);
    copy = *&copy;
    moved = std::move(*&moved);
    EXPECT_EQ(copy.eval(float3{}, 0) + moved.eval(float3{}, 0), -2);
    EXPECT_EQ(a.useCount(), 4);
    EXPECT_TRUE(log.empty());
}

TEST(Ownership, ParametersAreAssignedAndMoved) {
    ScalarPtr const x = makePtr<ScalarFieldXPosition>();
    ScalarFieldClamp clamp(x, 0, 1);
    clamp = ScalarFieldClamp(x, -2, -1);
    EXPECT_EQ(clamp.eval(float3{}, 0), -1);
    VectorFieldConstantArray array(Quern::Array<float3>{{1, 2, 3}, {4, 5, 6}});
    VectorFieldConstantArray const moved = std::move(array);
    EXPECT_EQ(moved.eval(float3{}, 3), (float3{4, 5, 6}));
    EXPECT_EQ(array.eval(float3{}, 3), float3{});
}

TEST(DefaultObject, IsOneZeroField) {
    auto const& scalar = Quern::Internal::getDefaultClass<ScalarField>();
    EXPECT_EQ(&scalar, &Quern::Internal::getDefaultClass<ScalarField>());
    EXPECT_EQ(scalar->eval(float3{1, 2, 3}, 4), 0);
}

TEST(Ownership, ReleasesAnyChainOnABoundedStack) {
    std::string log;
    ScalarPtr chain = makePtr<Named>('a', log);
    for (int i = 0; i < 1'000'000; ++i)
        chain = makePtr<ScalarFieldAdd>(std::move(chain), makePtr<Named>('b', log));
    EXPECT_TRUE(log.empty());
    chain.reset();
    EXPECT_EQ(log.size(), 1'000'001U);
}

}  // namespace
