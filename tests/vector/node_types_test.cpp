#include <sstream>

#include "support/probe.h"

using namespace support;
using namespace zel;

namespace {
/// Turns into any argument that a node's constructor takes.
struct Argument {
    operator ScalarPtr() const { return s(1); }
    operator VectorPtr() const { return v({1, 2, 3}); }
    operator float3() const { return {1, 2, 3}; }
    operator float() const { return 1; }
    operator int() const { return 1; }
};

template <class Node, class... Arguments> Node makeNode(Arguments... arguments) {
    if constexpr (std::is_constructible_v<Node, Arguments...>)
        return Node(arguments...);
    else
        return makeNode<Node>(arguments..., Argument{});
}

template <class Node> void checkType(std::string const& name) {
    SCOPED_TRACE(name);
    Node node = makeNode<Node>();
    EXPECT_EQ(std::string(node.getType()), name);
    EXPECT_EQ(std::string(Node(node).getType()), name);
    EXPECT_EQ(std::string(makePtr<Node>(node).clone()->getType()), name);
    Node assigned = makeNode<Node>();
    assigned = std::move(node);
    EXPECT_EQ(std::string(assigned.getType()), name);
    EXPECT_FALSE(assigned.is_triggerable());
}

/// `names` lists the types, with a comma and a space between two.
template <class... Nodes> void checkTypes(char const* names) {
    std::istringstream list(names);
    auto const next = [&] {
        std::string name;
        list >> name;
        return "zel::" + name.substr(0, name.find(','));
    };
    (checkType<Nodes>(next()), ...);
}
}  // namespace

#define CHECK_TYPES(...) checkTypes<__VA_ARGS__>(#__VA_ARGS__)

TEST(NodeTypes, AreTheClassNamesAlsoInACopy) {
    CHECK_TYPES(ScalarFieldConstant, ScalarFieldAdd, ScalarFieldSubtract, ScalarFieldNegative,
                ScalarFieldMultiply, ScalarFieldDivide, ScalarFieldMax, ScalarFieldMin,
                ScalarFieldMask, ScalarFieldClamp, ScalarFieldSwitch, ScalarFieldAbsolute,
                ScalarFieldPow, ScalarFieldSquareRoot, ScalarFieldExp, ScalarFieldLerp);
    CHECK_TYPES(ScalarFieldSine, ScalarFieldCosine, ScalarFieldTangent, ScalarFieldArcSine,
                ScalarFieldArcCosine, ScalarFieldArcTangent, ScalarFieldArcTangent_2D);
    CHECK_TYPES(ScalarFieldXPosition, ScalarFieldYPosition, ScalarFieldZPosition,
                ScalarFieldTranslate, ScalarFieldScale, ScalarFieldRotate);
    CHECK_TYPES(VectorFieldConstant, VectorFieldConstantArray, VectorFieldAdd, VectorFieldSubtract,
                VectorFieldNegative, VectorFieldMultiply, VectorFieldDivide, VectorFieldMax,
                VectorFieldMin, VectorFieldAbsolute, VectorFieldPow, VectorFieldSquareRoot,
                VectorFieldClamp, VectorFieldCross, VectorFieldUnitVector, VectorFieldVSMultiply,
                VectorFieldVSDivide, VectorFieldLerp, VectorFieldSwitch);
    CHECK_TYPES(VectorFieldXComponent, VectorFieldYComponent, VectorFieldZComponent,
                VectorFieldComponent, VectorFieldFromComponents, VectorFieldDotProduct,
                VectorFieldLength, VectorFieldLengthSquared);
    CHECK_TYPES(VectorFieldPosition, VectorFieldTranslate, VectorFieldScale, VectorFieldRotate);
    CHECK_TYPES(ScalarFieldSphere, ScalarFieldImplicitBox, ScalarFieldPlane);
}
