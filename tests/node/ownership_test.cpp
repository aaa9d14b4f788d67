#include <stdexcept>

#include "support/probe.h"

// Copy, move, assignment and release of nodes, and the walk that changes them.
namespace {

using namespace zel;
using namespace support;

/// A leaf that a walk can change, and that notes its release.
struct Leaf : ScalarField {
    explicit Leaf(float value, std::string* log = nullptr, char name = 0)
        : value(value), log(log), name(name) {}
    Leaf(Leaf const&) = default;
    Leaf& operator=(Leaf const&) = delete;
    ~Leaf() override {
        if (log) *log += name;
    }
    using ScalarField::eval;
    float eval(float3 const& /*p*/, long long /*i*/) const override { return value; }
    bool is_triggerable() const override { return true; }
    float value;
    std::string* log;
    char name;
};

TEST(Ownership, ChildrenAreReleasedLastToFirst) {
    std::string log;
    {
        auto const leaf = [&](char name) -> ScalarPtr { return makePtr<Leaf>(0.0F, &log, name); };
        ScalarFieldLerp const lerp(leaf('a'), leaf('b'), leaf('t'));
        VectorFieldFromComponents const vector(leaf('x'), leaf('y'), leaf('z'));
    }
    EXPECT_EQ(log, "zyxtba");
}

TEST(Ownership, CopiesShareAndMovesTake) {
    ScalarPtr const a = makePtr<Leaf>(1.0F), b = makePtr<Leaf>(2.0F);
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

    ScalarFieldClamp clamp(a, 0, 1);
    clamp = ScalarFieldClamp(a, -2, -1);
    EXPECT_EQ(clamp.eval(float3{}, 0), -1);
    VectorFieldConstantArray array(Quern::Array<float3>{{1, 2, 3}, {4, 5, 6}});
    VectorFieldConstantArray const elsewhere = std::move(array);
    EXPECT_EQ(elsewhere.eval(float3{}, 3), (float3{4, 5, 6}));
    EXPECT_EQ(array.eval(float3{}, 3), float3{});
}

TEST(Ownership, ReleasesAnyChainOnABoundedStack) {
    std::string log;
    ScalarPtr chain = makePtr<Leaf>(0.0F, &log, 'a');
    for (int i = 0; i < 1'000'000; ++i)
        chain = makePtr<ScalarFieldAdd>(std::move(chain), makePtr<Leaf>(0.0F, &log, 'b'));
    EXPECT_TRUE(log.empty());
    chain.reset();
    EXPECT_EQ(log.size(), 1'000'001U);
}

TEST(DefaultObject, IsOneZeroField) {
    auto const& scalar = Quern::Internal::getDefaultClass<ScalarField>();
    EXPECT_EQ(&scalar, &Quern::Internal::getDefaultClass<ScalarField>());
    EXPECT_EQ(scalar->eval(float3{1, 2, 3}, 4), 0);
}

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

TEST(MutableWalk, CopiesExactlyWhatIsShared) {
    ScalarPtr const shared = makePtr<ScalarFieldNegative>(makePtr<Leaf>(1.0F));
    auto own = makePtr<Leaf>(2.0F);
    Field const* const ownNode = own.get();
    ScalarFieldAdd tree(shared, std::move(own));
    ScalarFieldAdd const other(shared, shared);
    Changer changer;
    tree.accept(changer);
    EXPECT_EQ(changer.count, 2);
    EXPECT_EQ(tree.eval(float3{}, 0), -11 + 12);
    EXPECT_EQ(other.eval(float3{}, 0), -2);
    EXPECT_EQ(shared.useCount(), 3);  // here and twice in `other`
    auto const changed = childrenOf(tree);
    EXPECT_NE(changed[0], shared.get());
    EXPECT_EQ(changed[1], ownNode);  // owned alone: not copied
    tree.accept(changer);            // nothing is shared any more
    EXPECT_EQ(childrenOf(tree), changed);
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
    EXPECT_NE(childrenOf(tree)[0], node);
    EXPECT_EQ(childrenOf(tree)[1], node);
}

TEST(MutableWalk, PutsTheChildBackWhenTheVisitorThrows) {
    ScalarPtr const shared = makePtr<Leaf>(2.0F), last = makePtr<Leaf>(3.0F);
    ScalarFieldLerp tree(makePtr<Leaf>(1.0F), shared, last);
    Changer changer;
    changer.throwAt = 1;
    EXPECT_THROW(tree.accept(changer), std::runtime_error);
    EXPECT_EQ(childrenOf(tree)[2], last.get());           // not reached
    EXPECT_EQ(tree.eval(float3{}, 0), 12 * 3 + 11 * -2);  // the copies, with their changes
    EXPECT_EQ(shared->eval(float3{}, 0), 2);
}

}  // namespace
