#include <gmock/gmock.h>

#include "support/random_nodes.h"
#include "support/refused.h"
#include "zel_scene/bind.h"
#include "zel_scene/compare.h"
#include "zel_scene/describe.h"
#include "zel_scene/json.h"
#include "zel_scene/operators.h"
#include "zel_scene/register_node.h"
#include "zel_scene/schema.h"

// Trees described, compared, bound and written as formulas, and classes that take part.
using namespace support;
using namespace zel;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Lt;
using testing::SizeIs;

namespace {

/// A class of a user with a parameter of every type that is not in the library.
struct Everything : ScalarField {
    Everything(double a_, std::uint16_t b_, Quern::Ptr<ScalarFieldConstant> c_)
        : a(a_), b(b_), c(std::move(c_)) {}
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("a", &Node::a, 0.1), named("b", &Node::b),
                          named("c/~", &Node::c, 1));
    }
    double a;
    std::uint16_t b;
    Quern::Ptr<ScalarFieldConstant> c;
};

/// An operator whose child is no parameter.
struct HidesALeaf : ScalarFieldNegative {
    explicit HidesALeaf(float size_)
        : ScalarFieldNegative(makePtr<ScalarGeoPropertyFound>("none")), size(size_) {}
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("size", &Node::size));
    }
    float size;
};

/// A sum whose weight is named before the fields, and may be refused.
struct Weighted : ScalarFieldAdd {
    static constexpr Chain kChain = Chain::kLeft;
    Weighted(float w, ScalarPtr const& a_, ScalarPtr const& b_)
        : ScalarFieldAdd(a_, b_), weight(w) {
        if (w < 0) throw std::runtime_error("a weight below 0");
    }
    template <class Node> static constexpr auto parameters() {
        return std::tuple_cat(std::tuple(named("weight", &Node::weight)),
                              NodeAccess::parameters<ScalarFieldAdd>());
    }
    float weight;
};

}  // namespace

TEST(NodeClass, OfAUserTakesPart) {
    auto const tree =
        makePtr<Everything>(0.3, std::uint16_t{65535}, makePtr<ScalarFieldConstant>(2.0F));
    EXPECT_THAT(messageOf([&] { toJson(tree); }), HasSubstr("Everything is not registered"));
    EXPECT_THAT(messageOf([&] { hashOf(tree); }), HasSubstr("/root: the class"));
    registerNode<Everything>("Everything");
    EXPECT_TRUE(sameTree(tree, fromJson(toJson(tree))));
    auto const read = [](std::string const& members) {
        return messageOf([&] {
            fromJson(R"({"version": 1, "root": {"type": "Everything", )" + members + "}}");
        });
    };
    EXPECT_EQ(read(R"("b": 1, "c/~": 3)"), "none");
    EXPECT_EQ(read(R"("b": 1)"), "none");
    EXPECT_EQ(read(R"("b": 65536, "c/~": 3)"),
              "/root/b: wanted an integer from 0 to 65535, found 65536");
    EXPECT_EQ(read(R"("b": 1, "c/~": {"type": "XPosition"})"),
              "/root: the child is not of the class that this node asks for");

    EXPECT_THAT(messageOf([] { registerNode<Everything>("Other"); }),
                HasSubstr("the class is registered as \"Everything\""));
    struct Another : ScalarField {};
    EXPECT_THAT(messageOf([] { registerNode<Another>("ScalarFieldAdd"); }),
                HasSubstr("as \"ScalarFieldAdd\": the name is taken"));
    struct Third : ScalarField {};
    registerNode<Third>("Third");
    for (auto const& [name, why] : std::vector<std::pair<std::string, std::string>>{
             {"", "the name is empty"},
             {"a\xff", "as \"a?\": the name is not UTF-8"},
             {"zel::Another", "the name begins with \"zel::\""},
             {"Sphere", "files have this name for ScalarFieldSphere"},
             {"VectorFieldThird", "files would have the name of Third for it"}})
        EXPECT_THAT(messageOf([&, &given = name] { registerNode<Another>(given); }),
                    HasSubstr(why));
    NodeClass unreadable = nodeClassOf<Everything>("Unreadable");
    unreadable.parameters[0].name = "\xff";
    EXPECT_THAT(messageOf([&] { addNodeClass(unreadable); }), HasSubstr("is not UTF-8: ?"));
    EXPECT_EQ(findNodeClass("Other"), nullptr);
    EXPECT_THAT(check(makePtr<Everything>(0.3, std::uint16_t{1}, nullptr)),
                ElementsAre("/root/c~1~0"));
    EXPECT_EQ(findNodeClass(*tree), findNodeClass("Everything"));
    // A class derived from a registered one is another class.
    struct Derived : ScalarFieldAdd {
        using ScalarFieldAdd::ScalarFieldAdd;
    };
    EXPECT_EQ(findNodeClass(Derived(nullptr, nullptr)), nullptr);
}

TEST(NodeClass, OfAUserMayBeAChain) {
    registerNode<Weighted>("curve");
    auto const read = [](std::string const& weight) {
        return scalarFromJson(R"({"version": 1, "root": {"type": "curve", "children": [1, 2, 3],
                                  "weight": )" +
                              weight + "}}");
    };
    ScalarPtr const one = constant(1), two = constant(2), three = constant(3);
    EXPECT_TRUE(
        sameTree(read("7"), makePtr<Weighted>(7.0F, makePtr<Weighted>(7.0F, one, two), three)));
    EXPECT_EQ(messageOf([&] { read("-1"); }), "/root: a weight below 0");
    EXPECT_THAT(sceneSchema(), HasSubstr("inSlope"));  // the definition of a curve

    NodeClass wrong = nodeClassOf<Everything>("Wrong");
    wrong.parameters[0].name = "exactGradient";
    EXPECT_THAT(messageOf([&] { addNodeClass(wrong); }), HasSubstr("\"exactGradient\" is a bool"));
}

TEST(Describe, ShowsClassesParametersAndSharing) {
    ScalarPtr const ball = makePtr<ScalarFieldSphere>(float3{0, 0.5F, 0}, 1.0F);
    ScalarPtr const tree = makePtr<ScalarFieldAdd>(
        makePtr<ScalarFieldMin>(ball, makePtr<OwnScalar>()),
        makePtr<ScalarFieldAdd>(makePtr<ScalarFieldSimplexNoise>(ball, 7), nullptr));
    EXPECT_EQ(describe(tree), R"(zel::ScalarFieldAdd
  a: zel::ScalarFieldMin
    a: zel::ScalarFieldSphere #1 center=(0, 0.5, 0) radius=1
    b: support::OwnScalar
  b: zel::ScalarFieldAdd
    a: zel::ScalarFieldSimplexNoise seed=7
      time: zel::ScalarFieldSphere #1
    b: null
)");
    std::string const dot = toDot(tree);
    EXPECT_THAT(dot, HasSubstr("n1 -> n3 [label=\"a\"];"));
    EXPECT_THAT(dot, HasSubstr("n5 -> n3 [label=\"time\"];"));
    EXPECT_THAT(dot,
                HasSubstr(R"(n3 [label="zel::ScalarFieldSphere\ncenter (0, 0.5, 0)\nradius 1"];)"));
    EXPECT_EQ(describe(makePtr<ScalarGeoPropertyFound>("a\n\"b")),
              "zel::ScalarGeoPropertyFound property=\"a\\u000a\\\"b\"\n");
    EXPECT_THAT(toDot(makePtr<ScalarGeoPropertyFound>("<&lt;" + std::string(20'000, 'x'))),
                AllOf(HasSubstr(R"(property \"<&amp;lt;xxx)"), SizeIs(Lt(1000U))));
    EXPECT_THAT(check(tree), ElementsAre("/root/b/b"));
    EXPECT_THAT(check(ScalarPtr()), ElementsAre("/root"));
    EXPECT_THROW(describe(ScalarPtr()), std::invalid_argument);
}

TEST(Compare, SeesClassesBitsAndSharing) {
    ScalarPtr const x = xPosition();
    Tree const trees[] = {x,
                          x + x,
                          x + xPosition(),
                          x - x,
                          x + 0.0F,
                          x + -0.0F,
                          withExactGradients(length(normalize(position()))),
                          length(normalize(position())),
                          position(),
                          makePtr<ScalarGeoPropertyFound>("a"),
                          makePtr<ScalarGeoPropertyFound>("b"),
                          makePtr<VectorGeoPropertyFound>("a"),
                          makePtr<VectorFieldConstantArray>(),
                          makePtr<VectorFieldConstantArray>(Quern::Array<float3>{{1, 2, 3}}),
                          makePtr<ScalarOrvane>(Orvane::Object(), "a", SamplerType::kLinear),
                          makePtr<ScalarOrvane>(Orvane::Object(), "a", SamplerType::kCubicC0)};
    for (Tree const& a : trees)
        for (Tree const& b : trees) {
            EXPECT_EQ(sameTree(a, b), &a == &b);
            EXPECT_EQ(hashOf(a) == hashOf(b), &a == &b);
        }
    // FNV-1a of the classes, kinds, children and bits, worked out apart.
    EXPECT_EQ(hashOf(trees[4]), 3974395112096795194U);
}

TEST(Bind, TellsWhatWasBoundAndWhatWasNot) {
    auto const object = boundObject<ORV::TileTree3D::BinaryTraits>();
    auto const property = [](char const* name) -> ScalarPtr {
        return makePtr<ScalarGeoPropertyTriggered>(name);
    };
    auto const channel = [](char const* name) -> ScalarPtr {
        return makePtr<ScalarOrvaneTriggered>(name, SamplerType::kLinear);
    };
    ScalarPtr const shared = property("scalar");
    ScalarPtr const fixed = xPosition() + 1;
    ScalarPtr tree = ScalarPtr(makePtr<ScalarFieldSimplexNoise>(shared, 3)) + shared + fixed;
    ScalarPtr const before = tree;
    BindReport const report = bind(tree, object);
    EXPECT_TRUE(report.isComplete());
    ASSERT_EQ(report.boundCount(), 1U);  // one node, although it has two parents
    EXPECT_EQ(report.bindings[0].path(), "/root/a/b");
    EXPECT_TRUE(sameTree(tree, before));
    EXPECT_EQ(fixed.useCount(), 3);  // shared by both trees
    EXPECT_NE(tree->eval(float3{0.3F, 0, 0}, 9), before->eval(float3{0.3F, 0, 0}, 9));

    tree = max(
        max(max(property("scalar"), property("none")), max(property("vector"), channel("none"))),
        max(channel("vector"), channel("scalar")));
    ScalarPtr const kept = tree;
    std::string const expected = R"(/root/a/a/b: zel::ScalarGeoPropertyTriggered: no property "none"
/root/a/b/a: zel::ScalarGeoPropertyTriggered: the property "vector" is of another type
/root/a/b/b: zel::ScalarOrvaneTriggered: no channel "none"
)";
    EXPECT_EQ(messageOf([&] { bindStrictly(tree, object); }),
              "zel::bindStrictly: unbound:\n"
              "/root/b/a: zel::ScalarOrvaneTriggered: the channel \"vector\" is of another type\n" +
                  expected +
                  "there are properties: scalar, short, turn, vector; channels: scalar, vector");
    EXPECT_EQ(tree, kept);
    EXPECT_EQ(bind(tree, object).boundCount(), 2U);
    Orvane::Object const empty;
    tree = channel("scalar");
    EXPECT_EQ(bind(tree, empty).text(),
              "/root: zel::ScalarOrvaneTriggered: no volume for the channel \"scalar\"\n");
    {
        using namespace std;  // its bind takes any arguments, and does nothing
        struct Host : Orvane::Object {
        } host;
        Tree either = tree;
        EXPECT_EQ(bind(either, host).bindings.size(), 1U);
        EXPECT_EQ(bind(tree, host, nullptr).bindings.size(), 1U);
        VectorPtr vector = makePtr<ScalarFieldGradient>(tree), unbound = vector;
        EXPECT_TRUE(bind(vector, object).isComplete());
        EXPECT_THROW(bindStrictly(unbound, host), std::invalid_argument);
        EXPECT_THROW(bindStrictly(either, host), std::invalid_argument);
    }
    tree = nullptr;
    EXPECT_THROW(bind(tree, object), std::invalid_argument);

    // A leaf at each of many levels: the paths of all would take gigabytes.
    tree = property("scalar");
    for (int i = 0; i < 100'000; ++i) tree = tree + property("scalar");
    EXPECT_EQ(bind(tree, object).boundCount(), 100'001U);
}

TEST(Bind, LeavesNothingOfAnEarlierObject) {
    auto const& object = boundObject<ORV::TileTree3D::BinaryTraits>();
    auto const& other = boundObject<ORV::TileTree3D::QuinaryTraits>();
    ScalarPtr const leaf = makePtr<ScalarOrvaneTriggered>("scalar", SamplerType::kLinear);
    ScalarPtr tree = leaf, direct = leaf;
    bind(direct, other);
    bind(tree, object);
    ScalarPtr const first = tree;
    EXPECT_TRUE(bind(tree, other).isComplete());
    auto const positions = somePositions(50);
    auto const valuesOf = [&](ScalarPtr const& field) {
        std::vector<float> values;
        for (float3 const& p : positions) values.push_back(field->eval(p, 0));
        return values;
    };
    EXPECT_EQ(valuesOf(tree), valuesOf(direct));
    EXPECT_NE(valuesOf(tree), valuesOf(first));

    // The property is of another type there, and the leaf keeps its values.
    Orvane::Object turned;
    auto const data = makePtr<Quern::Array<float4>>(90LL);
    Orvane::Geometry::setGeoProperty(turned, "scalar", float4{}, data);
    tree = makePtr<ScalarGeoPropertyTriggered>("scalar");
    bind(tree, object);
    ScalarPtr const before = tree;
    EXPECT_EQ(bind(tree, turned).text(), "/root: zel::ScalarGeoPropertyTriggered: the property "
                                         "\"scalar\" is of another type\n");
    EXPECT_EQ(valuesOf(tree), valuesOf(before));
}

TEST(Bind, ReportsLeavesThatItCannotBind) {
    registerNode<HidesALeaf>("HidesALeaf");
    ScalarPtr tree = constant(1) + makePtr<HidesALeaf>(2.0F);
    EXPECT_EQ(bind(tree, Orvane::Object()).text(),
              "/root/b/1: zel::ScalarGeoPropertyFound: no property \"none\"\n");
    tree = makePtr<ScalarOrvane>(Orvane::Object(), "scalar", SamplerType::kLinear);
    auto const& object = boundObject<ORV::TileTree3D::BinaryTraits>();
    EXPECT_THAT(messageOf([&] { bindStrictly(tree, object); }),
                HasSubstr("/root: zel::ScalarOrvane: the channel \"scalar\" was not bound by its"));
    tree = makePtr<ScalarOrvane>(object, "scalar", SamplerType::kLinear);
    EXPECT_TRUE(bind(tree, Orvane::Object()).isComplete());
}

TEST(Operators, MakeTheNodesOfTheirFormulas) {
    auto const ball = makePtr<ScalarFieldSphere>(float3{}, 1.0F);  // a pointer to a class of nodes
    ScalarPtr const x = xPosition();
    VectorPtr const p = position();
    float3 const at{0.3F, -2, 5}, v{1, 2, 4};
    auto const value = [&](ScalarPtr const& field) { return field->eval(at, 0); };
    auto const vector = [&](VectorPtr const& field) { return field->eval(at, 0); };
    float const b = value(ball);
    EXPECT_EQ(value(ball + x), b + at.x);
    EXPECT_EQ(value(2 * ball - x / 3.0), 2 * b - at.x / 3);
    EXPECT_EQ(value(-ball * ball), -b * b);
    EXPECT_EQ(value(min(ball, 0.5F) + max(1, x)), std::min(b, 0.5F) + 1);
    EXPECT_EQ(value(lerp(ball, 3, 0.25F)), 3 * 0.25F + b * 0.75F);
    EXPECT_EQ(value(lerp(x, ball, x)), b * at.x + at.x * (1 - at.x));
    EXPECT_EQ(value(translate(ball, {0, 1, 0})), ball->eval({0.3F, -3, 5}, 0));
    EXPECT_EQ(value(scale(ball, {2, 2, 2})), ball->eval({0.15F, -1, 2.5F}, 0));
    EXPECT_EQ(value(length(p) + dot(p, v)), Orvane::Math::length(at) + Orvane::Math::dot(at, v));
    EXPECT_EQ(vector(p + v), at + v);
    EXPECT_EQ(vector(v - p), v - at);
    EXPECT_EQ(vector(p * x), at * at.x);
    EXPECT_EQ(vector(2 * p), at * 2);
    EXPECT_EQ(vector(p / 4), at / 4);
    EXPECT_EQ(vector(v * x), v * at.x);
    EXPECT_EQ(vector(p * p), (float3{at.x * at.x, at.y * at.y, at.z * at.z}));
    EXPECT_EQ(vector(cross(v, p)), Orvane::Math::cross(v, at));
    EXPECT_EQ(vector(lerp(p, v, 1)), v);
    EXPECT_EQ(value(lerp(2, 4, x)), 4 * at.x + 2 * (1 - at.x));
    EXPECT_EQ(vector(lerp(float3{}, v, x)), v * at.x);
    EXPECT_EQ(vector(vectorOf(x, 1, ball)), (float3{at.x, 1, b}));
    {
        using namespace std;  // its min and max also take two operands of one type
        EXPECT_EQ(value(max(x, x) + min(ball, ball)), at.x + b);
        EXPECT_EQ(vector(min(p, p)), at);
    }
    EXPECT_TRUE(sameTree(rotate(p, v), makePtr<VectorFieldRotate>(p, v)));

    std::vector<ScalarPtr> fields;
    for (int i = 0; i < 1000; ++i) fields.push_back(constant(static_cast<float>(i * 7 % 1000)));
    EXPECT_EQ(value(unionOf(fields)), 0);
    EXPECT_EQ(value(intersectionOf(fields)), 999);
    EXPECT_EQ(unionOf(std::span(fields).first(1)), fields[0]);
    EXPECT_EQ(value(unionOf({x, ball})) + value(intersectionOf({x, ball})), at.x + b);
    EXPECT_THROW(unionOf({}), std::invalid_argument);
    std::string const text = toJson(unionOf(fields));
    EXPECT_NO_THROW(fromJson(text, {.depth = 11}));
    EXPECT_THROW(fromJson(text, {.depth = 10}), SceneError);
}
