#include <cctype>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>

#include "support/random_nodes.h"
#include "support/refused.h"
#include "zel/node/node_impl.h"

// What holds for every class of node.
using namespace support;
using namespace zel;

namespace {

/// Children named a, b, ..., in the order of the constructor's arguments, that log their hooks and
/// expect an index that does not fit into 32 bits.
struct Children : RandomNodes {
    Children() : RandomNodes(7) {}
    template <class Interface> struct Child : Interface {
        Child(char name, std::string& log) : name(name), log(&log) {}
        using Interface::eval;
        typename Interface::Value eval(float3 const& /*p*/, long long i) const override {
            EXPECT_EQ(i, kIndex);
            return {};
        }
        typename Interface::Gradient grad(float3 const& /*p*/, long long i) const override {
            EXPECT_EQ(i, kIndex);
            return {};
        }
        void preSampleField() const override { *log += name; }
        void postSampleField() const override { *log += static_cast<char>(std::toupper(name)); }
        char name;
        std::string* log;
    };
    template <class Interface> Quern::Ptr<Interface> next() const {
        auto child = makePtr<Child<Interface>>(static_cast<char>('a' + made.size()), log);
        made.push_back(child.get());
        return child;
    }
    operator ScalarPtr() const override { return next<ScalarField>(); }
    operator VectorPtr() const override { return next<VectorField>(); }
    mutable std::vector<Field const*> made;
    mutable std::string log;
};

/// Counts the nodes that a walk hands out to be changed.
struct Changer : FieldVisitor {
    using FieldVisitor::operator();
    void operator()(Field& /*node*/) override { ++count; }
    std::size_t count = 0;
};

/// Assignment, where a class has one, by name.
template <class... Nodes> std::map<std::string, void (*)(Field& to, Field& from)> assignments() {
    auto name = nodeMakers().begin();
    return {{(name++)->name, [](Field& to, Field& from) {
                 if constexpr (std::is_copy_assignable_v<Nodes>)
                     dynamic_cast<Nodes&>(to) = std::move(dynamic_cast<Nodes&>(from));
             }}...};
}

}  // namespace

TEST(EveryNode, IsInTheListOfThem) {
    std::set<std::string> declared, listed;
    std::regex const node("class ZEL_API (\\w+)\\s*:\\s*public\\s+\\w+<\\1,");
    for (auto const& file : std::filesystem::recursive_directory_iterator(ZEL_TEST_SOURCES)) {
        if (file.path().extension() != ".h") continue;
        std::ifstream stream(file.path());
        std::string const text(std::istreambuf_iterator<char>(stream), {});
        for (std::sregex_iterator found(text.begin(), text.end(), node), end; found != end; ++found)
            declared.insert("zel::" + found->str(1));
    }
    forEveryNode([&](std::string const& name, auto) { listed.insert(name); });
    EXPECT_EQ(listed, declared);
}

TEST(EveryNode, HasItsNameAndWalksHooksAndAsksItsChildren) {
    auto const assign = assignments<ZEL_LIBRARY_NODES>();
    forEveryNode([&](std::string const& name, auto construct) {
        SCOPED_TRACE(name);
        Children children;
        auto const node = construct(children);
        auto const copy = node.clone();
        std::string pre, post;
        for (std::size_t i = 0; i < children.made.size(); ++i) {
            pre += static_cast<char>('a' + i);
            post += static_cast<char>('A' + i);
        }
        bool const hides = name.find("Noise") != name.npos || name.find("Turb") != name.npos;
        bool const wraps = name.find("Iterated") != name.npos;
        for (auto const& one : {node, copy}) {
            EXPECT_EQ(std::string(one->getType()), name);
            EXPECT_EQ(one->is_triggerable(),
                      name.find("GeoProperty") != name.npos || name.find("OrvaneTr") != name.npos);
            auto const walked = childrenOf(*one);
            if (wraps)
                EXPECT_TRUE(dynamic_cast<VectorFieldClosestPointTransform const*>(walked.at(0)));
            else
                EXPECT_EQ(walked, hides ? std::vector<Field const*>() : children.made);
            children.log.clear();
            one->eval(Quern::Array<float3>());
            EXPECT_EQ(children.log, pre + post);
            one->eval(kPosition, kIndex);
            one->grad(kPosition, kIndex);
        }
        Changer changer;
        node->accept(changer);
        EXPECT_EQ(changer.count, hides ? 0 : children.made.size());
        auto const other = construct(Children());
        assign.at(name)(*other, *node);
        EXPECT_EQ(std::string(other->getType()), name);
    });
}

namespace {

/// Classes without exact gradients.
std::set<std::string> const differences{
    "zel::ScalarFieldGradient", "zel::ScalarFieldDivergence", "zel::VectorFieldCurl",
    "zel::VectorFieldClosestPointTransform", "zel::VectorFieldIteratedNearPointTransform"};

/// Children that vary between -0.9 and 0.9, each in another direction, so that no Jacobian is
/// symmetric.
struct Waves : RandomNodes {
    struct Wave : ScalarField {
        explicit Wave(float3 const& k) : k(k) {}
        using ScalarField::eval;
        float eval(float3 const& p, long long) const override {
            return 0.9F * std::sin(dot(k, p) + k.y);
        }
        float3 grad(float3 const& p, long long) const override {
            return k * (0.9F * std::cos(dot(k, p) + k.y));
        }
        float3 k;
    };
    using RandomNodes::RandomNodes;
    operator ScalarPtr() const override { return makePtr<Wave>(float3(*this)); }
    operator VectorPtr() const override {
        return makePtr<VectorFieldFromComponents>(ScalarPtr(*this), ScalarPtr(*this),
                                                  ScalarPtr(*this));
    }
};

/// Compares the gradient at a position with central differences, to 3 % of the largest of these.
/// Whether it could: not where differences to both sides disagree, or are not finite.
template <class Interface> bool hasDerivative(Interface const& node, float3 const& p) {
    constexpr float kStep = 1 / 512.0F;
    constexpr std::size_t kRows = sizeof(typename Interface::Value) / sizeof(float);
    auto const at = [&](int axis, float step) {
        float3 moved = p;
        moved[axis] += step;
        return std::bit_cast<std::array<float, kRows>>(node.eval(moved, 3));
    };
    std::array<float, 3 * kRows> expected, bend;
    float largest = 1;
    for (unsigned axis = 0; axis < 3; ++axis) {
        int const a = static_cast<int>(axis);
        auto const low = at(a, -kStep), middle = at(a, 0), high = at(a, kStep);
        for (std::size_t r = 0; r < kRows; ++r) {
            expected[3 * r + axis] = (high[r] - low[r]) / (2 * kStep);
            bend[3 * r + axis] = ((high[r] - middle[r]) - (middle[r] - low[r])) / kStep;
            largest = std::max(largest, std::fabs(expected[3 * r + axis]));
        }
    }
    if (!std::ranges::all_of(bend, [&](float b) { return std::fabs(b) < 0.05F * largest; }))
        return false;
    auto const gradient = std::bit_cast<std::array<float, 3 * kRows>>(node.grad(p, 3));
    for (std::size_t i = 0; i < gradient.size(); ++i)
        EXPECT_NEAR(gradient[i], expected[i], 0.03F * largest)
            << "component " << i << " at " << p.x << ' ' << p.y << ' ' << p.z;
    return true;
}

}  // namespace

TEST(EveryNode, HasAnExactGradientOrIsNamed) {
    forEveryNode([](std::string const& name, auto construct) {
        SCOPED_TRACE(name);
        bool const isExact = !differences.contains(name);
        auto const exact = withExactGradients(construct(Children()));
        EXPECT_EQ(exact->hasExactGradient(), isExact);
        auto const named = hasExactGradients(*exact).differences;
        EXPECT_EQ(std::ranges::count(named, name), isExact ? 0 : 1);

        int compared = 0;
        for (unsigned n = 0; n < 100 && isExact; ++n) {
            Waves const waves(n);
            auto const random = construct(waves);
            if (random->is_triggerable()) random->apply_object(waves);
            compared += hasDerivative(*withExactGradients(random), waves);
        }
        EXPECT_GE(compared, isExact ? 10 : 0);
    });
}

namespace {

/// A user's nodes: one that shows its child to a walk alone, and one with a child of a known class.
struct Shows : ScalarField {
    explicit Shows(ScalarPtr node) : child(std::move(node)) {}
    using ScalarField::accept;
    void accept(FieldConstVisitor& visitor) const override { visitor(std::as_const(*child)); }
    void accept(FieldVisitor& visitor) override {
        child = child.clone();
        visitor(*child);
    }
    bool hasExactGradient() const override { return true; }
    ScalarPtr child;
};
struct Knows : FieldNode<Knows, ScalarField> {
    explicit Knows(Quern::Ptr<ScalarFieldSimplexNoise> node) : child(std::move(node)) {}
    using ScalarField::eval;
    float eval(float3 const& p, long long i) const override { return child->eval(p, i); }
    float3 grad(float3 const& p, long long i) const override { return child->grad(p, i); }
    template <class Node> static auto children(Node& node) { return std::tie(node.child); }
    Quern::Ptr<ScalarFieldSimplexNoise> child;
};
/// A user's node that makes its children anew for each copy, so that these have one owner, and
/// later ones the addresses of earlier ones.
struct Rebuilds : ScalarField {
    explicit Rebuilds(int levels = 3) : a(makePtr<ScalarFieldConstant>(float(levels))) {
        for (int i = 0; i < 4 && levels > 0; ++i)
            b = makePtr<ScalarFieldAdd>(b, makePtr<Rebuilds>(levels - 1));
    }
    Rebuilds(Rebuilds const& other) : Rebuilds(static_cast<int>(other.a->eval(float3{}, 0))) {}
    using ScalarField::eval;
    float eval(float3 const& p, long long i) const override {
        return a->eval(p, i) - b->eval(p, i);
    }
    void listChildren(FieldConstVisitor& visitor) const override { visitor(*a), visitor(*b); }
    void replaceChildren(ChildReplacer& replacer) override { replacer(a), replacer(b); }
    void useExactGradient(ChildReplacer& replacer) override { replaceChildren(replacer); }
    bool hasExactGradient() const override { return true; }
    ScalarPtr a, b = makePtr<ScalarFieldConstant>(0.5F);
};

/// A class derived from one with exact gradients, whose value is another.
struct Doubled : ScalarFieldSimplexNoise {
    using ScalarField::eval;
    using ScalarFieldSimplexNoise::ScalarFieldSimplexNoise;
    float eval(float3 const& p, long long i) const override {
        return 2 * ScalarFieldSimplexNoise::eval(p, i);
    }
};

std::size_t countNodes(Field const& root) {
    struct Counter : FieldConstVisitor {
        void operator()(Field const& node) override {
            if (nodes.insert(&node).second) node.listChildren(*this);
        }
        std::set<Field const*> nodes;
    } counter;
    counter(root);
    return counter.nodes.size();
}

}  // namespace

TEST(ExactGradients, CopyTheGraphAndLeaveItAsItIs) {
    auto const still = makePtr<ScalarFieldConstant>(0.5F);
    auto const noise = makePtr<ScalarFieldSimplexNoise>(still, 1);
    ScalarPtr tree = makePtr<ScalarFieldSimplexNoise>(noise, 2);  // of a time that is a noise
    tree = makePtr<ScalarFieldAdd>(makePtr<Shows>(tree), makePtr<Knows>(noise));
    tree = makePtr<ScalarFieldAdd>(tree, makePtr<Rebuilds>());
    tree = makePtr<ScalarFieldAdd>(tree, makePtr<Knows>(noise));
    for (int i = 0; i < 50; ++i) tree = makePtr<ScalarFieldAdd>(tree, tree);
    EXPECT_EQ(hasExactGradients(*tree).differences,
              (std::vector<std::string>{"zel::ScalarFieldSimplexNoise"}));
    auto const exact = withExactGradients(tree);
    EXPECT_TRUE(hasExactGradients(*exact));
    EXPECT_EQ(countNodes(*exact), countNodes(*tree));
    EXPECT_FALSE(noise->hasExactGradient() || hasExactGradients(*tree));
    EXPECT_FALSE(withExactGradients(ScalarPtr()));
    ScalarPtr const rebuilt = makePtr<Rebuilds>();
    EXPECT_EQ(withExactGradients(rebuilt)->eval(float3{}, 0), rebuilt->eval(float3{}, 0));
    ScalarPtr const doubled = makePtr<Doubled>(still, 1);
    EXPECT_FALSE(withExactGradients(doubled)->hasExactGradient());
    EXPECT_TRUE(same(withExactGradients(doubled)->grad({1, 2, 3}, 0), doubled->grad({1, 2, 3}, 0)));

    ScalarReplacer replacer(makePtr<ScalarFieldXPosition>());
    Knows knows(noise);
    expectRefused<std::invalid_argument>([&] { knows.replaceChildren(replacer); },
                                         "zel::ScalarFieldXPosition");
    EXPECT_EQ(knows.child, noise);
    // A time that was constant and is not anymore.
    VectorFieldFractalTurbulence turbulence(1, 2, 1, 0.5F, 0.5F, still, 1, true, 3);
    turbulence.replaceChildren(replacer);
    auto const at = somePositions(9);
    EXPECT_TRUE(same((*turbulence.eval(at))[5], turbulence.eval(at[5], 5)));
}
