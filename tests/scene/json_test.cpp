#include <gmock/gmock.h>

#include "support/random_nodes.h"
#include "support/refused.h"
#include "zel_scene/compare.h"
#include "zel_scene/describe.h"
#include "zel_scene/json.h"
#include "zel_scene/operators.h"
#include "zel_scene/register_node.h"

// Trees as JSON: what is written is read back, and what people write is read or refused.
using namespace support;
using namespace zel;
using testing::HasSubstr;

namespace {

NodeRegistration<OwnScalar> const ownScalar("OwnScalar");
NodeRegistration<OwnSum> const ownSum("OwnSum");

template <class Interface>
void expectSameValues(Interface const& a, Interface const& b, unsigned seed) {
    auto const positions = somePositions(70, seed);
    auto const fromA = Core::Fields::evalAndGrad(a, positions);
    auto const fromB = Core::Fields::evalAndGrad(b, positions);
    for (long long i = 0; i < positions.size(); ++i) {
        EXPECT_TRUE(same((*fromA.values)[i], (*fromB.values)[i]));
        EXPECT_TRUE(same((*fromA.gradients)[i], (*fromB.gradients)[i]));
    }
}

std::string scene(std::string const& root, std::string const& nodes = "") {
    return R"({"version": 1, "root": )" + root + (nodes.empty() ? "" : ", \"nodes\": " + nodes) +
           '}';
}

/// Letters of two bytes each.
std::string accents(int count) {
    std::string text;
    while (count-- > 0) text += "\u00e9";
    return text;
}

std::string errorOf(std::string const& text, SceneLimits const& limits = {}) {
    return messageOf<SceneError>([&] { scalarFromJson(text, limits); });
}

}  // namespace

TEST(Json, ReadsBackRandomGraphsOfAllClasses) {
    unsigned seed = 100;
    for (int i = 0; i < 6; ++i)
        forEveryNode([&](std::string const& name, auto construct) {
            SCOPED_TRACE(name + " of seed " + std::to_string(++seed));
            auto tree = RandomNodes(seed, false).make(construct);
            if (seed % 3 == 0) tree = withExactGradients(tree);
            std::string const text = toJson(tree);
            Tree const read = fromJson(text);
            EXPECT_EQ(toJson(read), text);
            EXPECT_TRUE(sameTree(tree, read));
            if constexpr (std::is_same_v<decltype(tree), VectorPtr>) {
                EXPECT_TRUE(sameTree(tree, vectorFromJson(text)));
            }
            EXPECT_EQ(hashOf(tree), hashOf(read));
            expectSameValues(*tree, *std::get<decltype(tree)>(read), seed);
        });
}

TEST(Json, KeepsEveryBitOfANumber) {
    std::mt19937 random(3);
    auto const check = [](float number) {
        auto const tree = makePtr<ScalarFieldSphere>(float3{number, 0, number}, number);
        EXPECT_TRUE(sameTree(tree, fromJson(toJson(tree)))) << std::bit_cast<std::uint32_t>(number);
    };
    for (int i = 0; i < 20'000; ++i)
        check(std::bit_cast<float>(static_cast<std::uint32_t>(random())));
    using Limits = std::numeric_limits<float>;
    for (float const number : {0.0F, -0.0F, Limits::denorm_min(), Limits::min(), Limits::max(),
                               0.1F, 16777216.0F, -Limits::infinity(), Limits::quiet_NaN()})
        check(number);
    for (std::uint32_t const bits : {0x7fc00001U, 0xffc00000U, 0x7f800001U, 0xffffffffU})
        check(std::bit_cast<float>(bits));

    for (int i = 0; i < 2000; ++i) {
        auto const number = [&] {
            return std::bit_cast<float>(static_cast<std::uint32_t>(random()));
        };
        float3 const direction{number(), number(), i % 5 == 0 ? 0 : number()};
        auto const plane = makePtr<ScalarFieldPlane>(
            float3{}, i % 2 ? direction : float3{0.1F * static_cast<float>(i), 1, 0.3F});
        EXPECT_TRUE(sameTree(plane, fromJson(toJson(plane))));
        auto const turned = makePtr<VectorFieldRotate>(makePtr<VectorFieldPosition>(), direction);
        EXPECT_TRUE(sameTree(turned, fromJson(toJson(turned))));
    }
    // Of a NaN, a division need not keep the bits.
    EXPECT_THAT(toJson(makePtr<ScalarFieldPlane>(float3{}, float3{Limits::quiet_NaN(), 0, 0})),
                HasSubstr("\"normal\": {\"unit\""));
}

TEST(Json, RoundsADecimalNumberOnce) {
    // Just above the middle between two floats: by way of a double it would be the lower one.
    std::string const number = "1.000000059604644775390625000000000000000001";
    auto const tree = scalarFromJson(scene(number));
    EXPECT_EQ(tree->eval(float3{}, 0), std::nextafterf(1.0F, 2.0F));
    for (std::string const& small : std::vector<std::string>{
             "-1e-60", "0.01e-999999999999", "123.4e-400", "-0." + std::string(60, '0') + "1e3"})
        EXPECT_EQ(scalarFromJson(scene(small))->eval(float3{}, 0), 0) << small;
    for (std::string const& large :
         std::vector<std::string>{"1e60", "0.1e299", "1000" + std::string(60, '0')})
        EXPECT_THAT(errorOf(scene(large)), HasSubstr("in the range of a float"));
}

TEST(Json, ReadsWhatPeopleWrite) {
    struct Case {
        char const* root;
        ScalarPtr tree;
    };
    using Orvane::Math::FCurve;
    ScalarPtr const x = xPosition(), one = constant(1), two = constant(2), three = constant(3),
                    four = constant(4);
    VectorPtr const vector = makePtr<VectorFieldConstant>(float3{1, 2, 3});
    auto const curve =
        makePtr<FCurve>(std::vector<FCurve::Key>{{0, 1}, {1, 2, 0.5, 0.5, FCurve::Segment::kCubic}},
                        FCurve::Extrapolation::kConstant, FCurve::Extrapolation::kConstant);
    Case const cases[] = {
        {"7", constant(7)},
        {R"({"type": "Sphere"})", makePtr<ScalarFieldSphere>(float3{}, 1.0F)},
        {R"({"type": "zel::ScalarFieldSphere", "radius": 2, "comment": "large"})",
         makePtr<ScalarFieldSphere>(float3{}, 2.0F)},
        {R"({"type": "Add", "a": {"type": "XPosition"}, "b": -1.5e1})", x + -15},
        {R"({"type": "Add", "children": [1, 2, 3, 4]})", one + two + three + four},
        {R"({"type": "Min", "children": [1, 2, 3, 4, 5]})",
         min(min(min(one, two), min(three, four)), 5)},
        {R"({"type": "Multiply", "children": [{"type": "XPosition"}]})", x},
        {R"({"type": "Length", "field": [1, 2, 3]})", length(vector)},
        {R"({"type": "DotProduct", "a": {"type": "Negative", "field": [1, 2, 3]}, "b": [1, 2, 3]})",
         dot(-vector, vector.clone())},
        {R"({"type": "Rotate", "field": 1, "rotation": [0, 0, 0.5]})",
         rotate(one, float3{0, 0, 0.5F})},
        {R"({"type": "Plane", "normal": [0.1, 5, 3]})",
         makePtr<ScalarFieldPlane>(float3{}, float3{0.1F, 5, 3})},
        {R"({"type": "FractalNoise", "octaves": 3, "seed": -5})",
         makePtr<ScalarFieldFractalNoise>(1.0F, 3.0F, 1.0F, 0.5F, 0.5F, constant(0), 1.0F, -5)},
        {R"({"type": "FCurve", "field": 2, "curve": {"keys": [[0, 1], [1, 2, 0.5, "cubic"]]}})",
         makePtr<ScalarFieldFCurve>(two, curve)},
        {R"({"type": "ScalarOrvaneTriggered", "channel": "density"})",
         makePtr<ScalarOrvaneTriggered>("density", SamplerType::kLinear)},
    };
    for (auto const& [root, tree] : cases)
        EXPECT_TRUE(sameTree(scalarFromJson(scene(root)), tree)) << root;

    ScalarPtr const ball = makePtr<ScalarFieldSphere>(float3{}, 0.5F);
    std::string const text =
        scene(R"({"type": "Add", "a": "ball", "b": {"type": "Negative", "field": "ball"}})",
              R"({"ball": {"type": "Sphere", "radius": 0.5}, "unused": 4})");
    EXPECT_TRUE(sameTree(scalarFromJson(text), ball + -ball));
}

TEST(Json, NamesWhatIsWrongAndWhere) {
    struct Case {
        std::string text, error;
    };
    auto const normal = [](std::string const& components) {
        return scene(R"({"type": "Plane", "normal": [)" + components + "]}");
    };
    std::string const noDirection = "/root/normal: wanted a direction [x, y, z] of a length from "
                                    "1.1e-19 to 1.8e19, found ";
    Case const cases[] = {
        {"", "line 1, column 1: syntax error"},
        {"{\"version\": 1,\n \"root\": }", "line 2, column 10: syntax error"},
        {"{\"version\": 1,\n\"root\": 1}" + std::string("\0garbage", 8),
         "line 2, column 11: syntax error: a byte 0 after the end of the scene"},
        {"[1]", "/: wanted an object with a member \"root\", found an array of 1"},
        {R"({"root": 1})", "/: wanted a member \"version\": 1"},
        {R"({"version": 2, "root": 1})", "/version: wanted the version 1, found 2"},
        {R"({"version": 1})", "/: wanted a member \"root\""},
        {R"({"version": 1, "root": 1, "note": {}})",
         "/note: a scene has no such member; did you mean \"nodes\"?"},
        {R"({"version": 1, "root": 1, "root": 2})", "/root: this member is there twice"},
        {R"({"version": 1, "a\n/\u001b)" + std::string(100, 'k') + R"(": 1})",
         R"(/a\u000a~1\u001b)" + std::string(54, 'k') + "...: a scene has no such member"},
        {scene("true"), "/root: wanted a scalar field: a number, a name, or an object with a "
                        "\"type\", found true"},
        {scene("[1, 2, 3]"), "/root: wanted a scalar field: a number, a name, or an object with a "
                             "\"type\", found an array of 3"},
        {scene("{}"), "/root: wanted a member \"type\", the name of a class"},
        {scene(R"({"type": "Spere"})"),
         "/root/type: wanted the class of a scalar field, found \"Spere\"; did you mean "
         "\"Sphere\"?"},
        {scene(R"({"type": "zel::Sphere"})"),
         "/root/type: wanted the class of a scalar field, found \"zel::Sphere\"; did you mean "
         "\"Sphere\"?"},
        {scene(R"({"type": "Position"})"),
         "/root/type: wanted the class of a scalar field, found VectorFieldPosition, of a vector "
         "field"},
        {scene(R"({"type": "Sphere", "radius": "x)" + accents(60) + R"("})"),
         "/root/radius: wanted a number, or \"inf\", \"-inf\" or \"nan\", found \"x" + accents(29) +
             "...\""},
        {scene("\"" + accents(60) + "\""),
         "/root: wanted a scalar field, found \"" + accents(30) + "...\", which is no name"},
        {"{\"\xff\": 1}", "line 1, column 3: syntax error while parsing object key - invalid "
                          "string: ill-formed UTF-8 byte; last read: '\"?'"},
        {scene(R"({"type": "VectorFieldAdd"})"),
         "/root/type: wanted the class of a scalar field, found VectorFieldAdd, of a vector field"},
        {scene(R"({"type": "Sphere", "raduis": 1})"),
         "/root/raduis: ScalarFieldSphere has no such parameter; did you mean \"radius\"? It has "
         "center, radius"},
        {scene(R"({"type": "Sphere", "children": []})"),
         "/root/children: ScalarFieldSphere has no such parameter. It has center, radius"},
        {scene(R"({"type": "Add", "children": [1, {"type": "Sphere", "radius": "one"}]})"),
         "/root/children/1/radius: wanted a number, or \"inf\", \"-inf\" or \"nan\", found "
         "\"one\""},
        {scene(R"({"type": "Add", "a": 1})"), "/root: ScalarFieldAdd wants \"b\", a scalar field"},
        {scene(R"({"type": "Add", "children": [1], "a": 1})"),
         "/root/a: the node has \"children\" already"},
        {scene(R"({"type": "Sphere", "radius": 1e39})"),
         "/root/radius: wanted a number in the range of a float, found 1e39"},
        {scene(R"({"type": "SimplexNoise", "seed": 1.5})"),
         "/root/seed: wanted an integer from -9223372036854775808 to 9223372036854775807, found "
         "1.5"},
        {scene(R"({"type": "ScalarOrvane", "channel": "d", "sampler": "cubic"})"),
         "/root/sampler: wanted a sampler, \"linear\", \"cubicC0\" or \"cubicC1\", found "
         "\"cubic\""},
        {normal("0, 0, 0"), noDirection + "[0, 0, 0]"},
        {normal("-1e20, 0, 3"), noDirection + "[-1e20, 0, 3]"},
        {normal("0, 3e-20, 0"), noDirection + "[0, 3e-20, 0]"},
        {normal("0, 0, \"inf\""), noDirection + "[0, 0, \"inf\"]"},
        {normal("0, 1, \"nan\""), noDirection + "[0, 1, \"nan\"]"},
        {normal("1e19, 1e-18, 0"), "none"},
        {scene(R"({"type": "FCurve", "field": 1, "curve": {"keys": [[1, 0], [1, 2]]}})"),
         "/root/curve: "},
        {scene(R"({"type": "Negative", "field": "bal"})", R"({"ball": 1})"),
         "/root/field: wanted a scalar field, found \"bal\", which is no name in \"nodes\"; did "
         "you mean \"ball\"?"},
        {scene("\"a\"", R"({"a": {"type": "Negative", "field": "a"}})"),
         "/nodes/a/field: the node \"a\" is its own descendant"},
        {scene(R"({"type": "Add", "a": "v", "b": {"type": "Length", "field": "v"}})",
               R"({"v": 2})"),
         "/root/b/field: wanted a vector field, found \"v\", a scalar field"},
        {scene("\"a\"", R"({"a": "b", "b": 1})"),
         "/nodes/a: wanted a node, not the name of another, found \"b\""},
    };
    for (auto const& [text, error] : cases) EXPECT_EQ(errorOf(text).substr(0, error.size()), error);
}

TEST(Json, RefusesWhatIsBeyondALimit) {
    EXPECT_THAT(errorOf(std::string(1'000'000, '[')), HasSubstr("nested deeper"));

    // Each name doubles the depth of the tree, but for the call stack it is flat.
    std::string names = "{\"n0\": {\"type\": \"XPosition\"}";
    for (int i = 1; i < 60; ++i) {
        std::string const below = "\"n" + std::to_string(i - 1) + '"';
        names += ", \"n" + std::to_string(i) + R"(": {"type": "Add", "a": )" + below +
                 ", \"b\": " + below + '}';
    }
    EXPECT_EQ(errorOf(scene("\"n59\"", names + '}'), {.nodes = 60, .depth = 60}), "none");
    EXPECT_NE(errorOf(scene("\"n59\"", names + '}'), {.nodes = 60, .depth = 59}), "none");
    EXPECT_EQ(errorOf(scene("\"n59\"", names + '}'), {.nodes = 59}),
              "/nodes/n59: the scene has more nodes than the limit of 59");
    EXPECT_THAT(errorOf(scene(R"({"type": "Add", "children": [1, 2, 3, 4]})"), {.depth = 3}),
                HasSubstr("/root: the tree is deeper than the limit of 3 levels: sums"));
    EXPECT_EQ(errorOf("{}", {.bytes = 1}), "/: the file has 2 bytes, more than the limit of 1");
}

TEST(Json, RefusesTreesThatAFileCannotHold) {
    struct Unknown : ScalarField {};
    auto const errorOfTree = [](ScalarPtr const& tree) {
        return messageOf<SceneError>([&] { toJson(tree); });
    };
    EXPECT_EQ(errorOfTree(-ScalarPtr(makePtr<ScalarFieldAdd>(xPosition(), nullptr))),
              "/root/field/b: wanted a scalar field, found null");
    EXPECT_EQ(errorOfTree(makePtr<ScalarFieldNegative>(makePtr<Unknown>())).substr(0, 27),
              "/root/field: the class Json");
    EXPECT_EQ(errorOfTree(makePtr<ScalarGeoPropertyFound>("\xff")),
              "/root/property: wanted a string, found a text that is not UTF-8");
    EXPECT_THROW(toJson(ScalarPtr()), std::invalid_argument);
}
