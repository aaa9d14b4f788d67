#include <cctype>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>

#include "support/random_nodes.h"
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
    operator ScalarPtr() const { return next<ScalarField>(); }
    operator VectorPtr() const { return next<VectorField>(); }
    mutable std::vector<Field const*> made;
    mutable std::string log;
};

/// Counts the nodes that a walk hands out to be changed.
struct Changer : FieldVisitor {
    using FieldVisitor::operator();
    void operator()(Field& /*node*/) override { ++count; }
    std::size_t count = 0;
};

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
    forEveryNode([&]<class Node>(std::string const& name) { listed.insert(name); });
    EXPECT_EQ(listed, declared);
}

TEST(EveryNode, HasItsNameAndWalksHooksAndAsksItsChildren) {
    forEveryNode([]<class Node>(std::string const& name) {
        SCOPED_TRACE(name);
        static_assert(zel::detail::isLibraryNode<Node>);
        Children children;
        auto const node = construct<Node>(children);
        auto const copy = node.clone();
        std::string pre, post;
        for (std::size_t i = 0; i < children.made.size(); ++i) {
            pre += static_cast<char>('a' + i);
            post += static_cast<char>('A' + i);
        }
        bool const hides = name.find("Noise") != name.npos || name.find("Turb") != name.npos;
        bool const wraps = name.find("Iterated") != name.npos;
        for (Quern::Ptr<Node> const& one : {node, copy}) {
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
        if constexpr (std::is_copy_assignable_v<Node>) {
            Node other = *construct<Node>(Children());
            other = std::move(*node);
            EXPECT_EQ(std::string(other.getType()), name);
        }
    });
}

TEST(EveryNode, HasAnExactGradientOrIsNamed) {
    std::set<std::string> const differences{
        "zel::ScalarFieldGradient", "zel::ScalarFieldDivergence", "zel::VectorFieldCurl",
        "zel::VectorFieldClosestPointTransform", "zel::VectorFieldIteratedNearPointTransform"};
    forEveryNode([&]<class Node>(std::string const& name) {
        SCOPED_TRACE(name);
        using Interface =
            std::conditional_t<std::is_base_of_v<ScalarField, Node>, ScalarField, VectorField>;
        struct Derived : Node {
            explicit Derived(Node const& node) : Node(node) {}
        };
        Quern::Ptr<Interface> const node = construct<Node>(Children()),
                                    derived = makePtr<Derived>(static_cast<Node const&>(*node));
        auto const exact = withExactGradients(node);
        EXPECT_EQ(exact->hasExactGradient(), !differences.contains(name));
        auto const named = hasExactGradients(*exact).differences;
        EXPECT_EQ(std::count(named.begin(), named.end(), name), differences.contains(name));
        EXPECT_FALSE(withExactGradients(derived)->hasExactGradient());
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

}  // namespace

TEST(ExactGradients, CopyTheGraphAndLeaveItAsItIs) {
    auto const still = makePtr<ScalarFieldConstant>(0.5F);
    auto const noise = makePtr<ScalarFieldSimplexNoise>(still, 1);
    ScalarPtr tree = makePtr<ScalarFieldSimplexNoise>(noise, 2);  // of a time that is a noise
    tree = makePtr<ScalarFieldAdd>(makePtr<Shows>(tree), makePtr<Knows>(noise));
    for (int i = 0; i < 50; ++i) tree = makePtr<ScalarFieldAdd>(tree, tree);
    EXPECT_EQ(hasExactGradients(*tree).differences,
              (std::vector<std::string>{"zel::ScalarFieldSimplexNoise"}));
    auto const exact = withExactGradients(tree);
    EXPECT_TRUE(hasExactGradients(*exact));
    EXPECT_FALSE(noise->hasExactGradient() || hasExactGradients(*tree));
    EXPECT_FALSE(withExactGradients(ScalarPtr()));
}
