#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

#include "zel/zel.h"

// The two walks and copy-on-write.
namespace {

using namespace zel;
using Quern::makePtr;

/// A leaf that can be told apart and changed.
class Leaf : public ScalarField {
public:
    explicit Leaf(float value) : value(value) {}
    using ScalarField::eval;
    float eval(float3 const& /*p*/, long long /*i*/) const override { return value; }
    bool is_triggerable() const override { return true; }
    float value;
};

struct Recorder : FieldConstVisitor {
    void operator()(Field const& node) override { seen.push_back(&node); }
    std::vector<Field const*> seen;
};

/// Adds 10 to each leaf below, and throws at leaf number `throwAt`.
struct Changer : FieldVisitor {
    using FieldVisitor::operator();
    void operator()(Field& node) override {
        if (auto* leaf = dynamic_cast<Leaf*>(&node)) {
            leaf->value += 10;
            if (count++ == throwAt) throw std::runtime_error("as told");
        }
        node.accept(*this);
    }
    int count = 0;
    int throwAt = -1;
};

float valueOf(Field const& node) {
    return dynamic_cast<ScalarField const&>(node).eval(float3{}, 0);
}

TEST(ConstWalk, ReportsDirectChildrenInOrder) {
    ScalarPtr const x = makePtr<Leaf>(1.0F);
    ScalarPtr const y = makePtr<Leaf>(2.0F);
    VectorPtr const v = makePtr<VectorFieldPosition>();
    VectorFieldLerp const lerp(v, v, x);
    ScalarFieldSwitch const choice(y, x, makePtr<ScalarFieldAdd>(x, y));
    Recorder recorder;
    lerp.accept(recorder);
    choice.accept(recorder);
    ASSERT_EQ(recorder.seen.size(), 6U);
    std::vector<Field const*> const expected{v.get(), v.get(), x.get(), y.get(), x.get()};
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), recorder.seen.begin()));
    EXPECT_FALSE(choice.is_triggerable());
}

TEST(ConstWalk, TakesTheConstOperatorOfAMutableVisitor) {
    struct Both : FieldVisitor {
        void operator()(Field const& /*node*/) override { ++constant; }
        void operator()(Field& /*node*/) override { ++changing; }
        int constant = 0, changing = 0;
    } both;
    ScalarFieldNegative node(makePtr<Leaf>(1.0F));
    node.caccept(both);
    static_cast<Field const&>(node).accept(both);
    EXPECT_EQ(both.constant, 2);
    EXPECT_EQ(both.changing, 0);
    node.accept(both);
    EXPECT_EQ(both.changing, 1);
}

TEST(Walk, LeavesReportNobody) {
    Recorder recorder;
    Changer changer;
    ScalarFieldConstant constant(1);
    ScalarFieldXPosition x;
    VectorFieldPosition position;
    for (Field* leaf : {static_cast<Field*>(&constant), static_cast<Field*>(&x),
                        static_cast<Field*>(&position)}) {
        leaf->caccept(recorder);
        leaf->accept(changer);
    }
    EXPECT_TRUE(recorder.seen.empty());
    EXPECT_EQ(changer.count, 0);
}

TEST(MutableWalk, CopiesExactlyWhatIsShared) {
    ScalarPtr const shared = makePtr<ScalarFieldNegative>(makePtr<Leaf>(1.0F));
    auto own = makePtr<Leaf>(2.0F);
    Field const* const ownNode = own.get();
    ScalarFieldAdd tree(shared, std::move(own));
    ScalarFieldAdd const other(shared, shared);
    Recorder before;
    other.accept(before);

    Changer changer;
    tree.accept(changer);
    EXPECT_EQ(changer.count, 2);
    EXPECT_EQ(tree.eval(float3{}, 0), -11 + 12);
    EXPECT_EQ(other.eval(float3{}, 0), -2);
    Recorder after;
    other.accept(after);
    EXPECT_EQ(after.seen, before.seen);
    EXPECT_EQ(shared.useCount(), 3);  // here and twice in `other`
    Recorder mine;
    tree.accept(mine);
    EXPECT_NE(mine.seen[0], shared.get());
    EXPECT_EQ(mine.seen[1], ownNode);  // owned alone: not copied

    Field const* const copied = mine.seen[0];
    tree.accept(changer);  // nothing is shared any more
    mine.seen.clear();
    tree.accept(mine);
    EXPECT_EQ(mine.seen[0], copied);
}

TEST(MutableWalk, OfATwinChildCopiesOnce) {
    ScalarPtr twin = makePtr<Leaf>(1.0F);
    Field const* const node = twin.get();
    ScalarFieldMultiply tree(twin, twin);
    twin.reset();
    Changer changer;
    tree.accept(changer);
    EXPECT_EQ(changer.count, 2);
    EXPECT_EQ(tree.eval(float3{}, 0), 121);
    Recorder recorder;
    tree.accept(recorder);
    EXPECT_NE(recorder.seen[0], node);
    EXPECT_EQ(recorder.seen[1], node);
}

TEST(MutableWalk, PutsTheChildBackWhenTheVisitorThrows) {
    ScalarPtr const first = makePtr<Leaf>(1.0F);
    ScalarPtr const shared = makePtr<Leaf>(2.0F);
    ScalarPtr const last = makePtr<Leaf>(3.0F);
    ScalarFieldLerp tree(first, shared, last);
    Changer changer;
    changer.throwAt = 1;
    EXPECT_THROW(tree.accept(changer), std::runtime_error);
    Recorder recorder;
    tree.accept(recorder);
    ASSERT_EQ(recorder.seen.size(), 3U);
    EXPECT_EQ(valueOf(*recorder.seen[0]), 11);
    EXPECT_EQ(valueOf(*recorder.seen[1]), 12);  // the copy, with its change
    EXPECT_EQ(recorder.seen[2], last.get());    // not reached
    EXPECT_EQ(valueOf(*shared), 2);

    VectorFieldUnitVector alone(makePtr<VectorFieldPosition>());
    struct Thrower : FieldVisitor {
        using FieldVisitor::operator();
        void operator()(Field& /*node*/) override { throw 7; }
    } thrower;
    EXPECT_THROW(alone.accept(thrower), int);
    EXPECT_EQ(alone.eval(float3{0, 0, 2}, 0), (float3{0, 0, 1}));
}

TEST(MutableWalk, OfACopiedNodeLeavesItsSourceAlone) {
    ScalarFieldAdd const source(makePtr<Leaf>(1.0F), makePtr<Leaf>(2.0F));
    ScalarFieldAdd copy = source;
    Changer changer;
    copy.accept(changer);
    EXPECT_EQ(copy.eval(float3{}, 0), 23);
    EXPECT_EQ(source.eval(float3{}, 0), 3);
}

}  // namespace
