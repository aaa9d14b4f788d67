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
    Recorder once, twice;
    tree.accept(once);
    EXPECT_NE(once.seen[0], shared.get());
    EXPECT_EQ(once.seen[1], ownNode);  // owned alone: not copied
    tree.accept(changer);              // nothing is shared any more
    tree.accept(twice);
    EXPECT_EQ(once.seen, twice.seen);
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
    EXPECT_EQ(recorder.seen[2], last.get());              // not reached
    EXPECT_EQ(tree.eval(float3{}, 0), 12 * 3 + 11 * -2);  // the copies, with their changes
    EXPECT_EQ(shared->eval(float3{}, 0), 2);
}

}  // namespace
