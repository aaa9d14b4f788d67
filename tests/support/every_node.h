#pragma once

#include <sstream>
#include <string>
#include <type_traits>
#include <utility>

#include "zel/zel.h"

// Every class of node, and a way to make one of it without knowing its constructor.
namespace support {

template <class... Nodes, class F> void forNodes(F const& f, std::istringstream names) {
    auto const next = [&] {
        std::string name;
        names >> name;
        return "zel::" + name.substr(0, name.find(','));
    };
    (f.template operator()<Nodes>(next()), ...);
}

#define ZEL_FOR_NODES(f, ...) forNodes<__VA_ARGS__>(f, std::istringstream(#__VA_ARGS__))

/// Calls `f.operator()<Node>(name)` for every class of node.
template <class F> void forEveryNode(F const& f) {
    using namespace zel;
    ZEL_FOR_NODES(
        f, ScalarFieldConstant, ScalarFieldAdd, ScalarFieldSubtract, ScalarFieldNegative,
        ScalarFieldMultiply, ScalarFieldDivide, ScalarFieldMax, ScalarFieldMin, ScalarFieldMask,
        ScalarFieldClamp, ScalarFieldSwitch, ScalarFieldAbsolute, ScalarFieldPow,
        ScalarFieldSquareRoot, ScalarFieldExp, ScalarFieldLerp, ScalarFieldSine, ScalarFieldCosine,
        ScalarFieldTangent, ScalarFieldArcSine, ScalarFieldArcCosine, ScalarFieldArcTangent,
        ScalarFieldArcTangent_2D, ScalarFieldXPosition, ScalarFieldYPosition, ScalarFieldZPosition,
        ScalarFieldTranslate, ScalarFieldScale, ScalarFieldRotate, VectorFieldConstant,
        VectorFieldConstantArray, VectorFieldAdd, VectorFieldSubtract, VectorFieldNegative,
        VectorFieldMultiply, VectorFieldDivide, VectorFieldMax, VectorFieldMin, VectorFieldAbsolute,
        VectorFieldPow, VectorFieldSquareRoot, VectorFieldClamp, VectorFieldCross,
        VectorFieldUnitVector, VectorFieldVSMultiply, VectorFieldVSDivide, VectorFieldLerp,
        VectorFieldSwitch, VectorFieldXComponent, VectorFieldYComponent, VectorFieldZComponent,
        VectorFieldComponent, VectorFieldFromComponents, VectorFieldDotProduct, VectorFieldLength,
        VectorFieldLengthSquared, VectorFieldPosition, VectorFieldTranslate, VectorFieldScale,
        VectorFieldRotate, ScalarFieldSphere, ScalarFieldImplicitBox, ScalarFieldPlane,
        ScalarFieldSimplexNoise, ScalarFieldFractalNoise, VectorFieldCurlNoise,
        VectorFieldFractalTurbulence, ScalarFieldWarp, VectorFieldWarp, ScalarFieldAdvect,
        VectorFieldAdvect, ScalarFieldGradient, ScalarFieldDivergence, VectorFieldCurl,
        VectorFieldClosestPointTransform, VectorFieldIteratedNearPointTransform, ScalarFieldFCurve,
        VectorFieldFCurve, ScalarGeoPropertyTriggered, VectorGeoPropertyTriggered,
        ScalarGeoPropertyFound, VectorGeoPropertyFound, ScalarOrvane, VectorOrvane,
        ScalarOrvaneTriggered, VectorOrvaneTriggered);
}

template <std::size_t, class T> using SameFor = T;

/// Makes a node by its constructor of the most arguments, all of them `argument`, which turns into
/// whatever is asked for, in their order.
template <class Node, std::size_t count = 10, class Argument>
Quern::Ptr<Node> construct(Argument const& argument) {
    return [&]<std::size_t... i>(std::index_sequence<i...>) {
        if constexpr (std::is_constructible_v<Node, SameFor<i, Argument const&>...>)
            return Quern::makePtr<Node>(Node{(static_cast<void>(i), argument)...});
        else
            return construct<Node, count - 1>(argument);
    }
    (std::make_index_sequence<count>());
}

}  // namespace support
