#pragma once

#include "zel/zel.h"

/// All node classes of the library, in namespace zel.
#define ZEL_LIBRARY_NODES                                                                          \
    ScalarFieldConstant, ScalarFieldAdd, ScalarFieldSubtract, ScalarFieldNegative,                 \
        ScalarFieldMultiply, ScalarFieldDivide, ScalarFieldMax, ScalarFieldMin, ScalarFieldMask,   \
        ScalarFieldClamp, ScalarFieldSwitch, ScalarFieldAbsolute, ScalarFieldPow,                  \
        ScalarFieldSquareRoot, ScalarFieldExp, ScalarFieldLerp, ScalarFieldSine,                   \
        ScalarFieldCosine, ScalarFieldTangent, ScalarFieldArcSine, ScalarFieldArcCosine,           \
        ScalarFieldArcTangent, ScalarFieldArcTangent_2D, ScalarFieldXPosition,                     \
        ScalarFieldYPosition, ScalarFieldZPosition, ScalarFieldTranslate, ScalarFieldScale,        \
        ScalarFieldRotate, VectorFieldConstant, VectorFieldConstantArray, VectorFieldAdd,          \
        VectorFieldSubtract, VectorFieldNegative, VectorFieldMultiply, VectorFieldDivide,          \
        VectorFieldMax, VectorFieldMin, VectorFieldAbsolute, VectorFieldPow,                       \
        VectorFieldSquareRoot, VectorFieldClamp, VectorFieldCross, VectorFieldUnitVector,          \
        VectorFieldVSMultiply, VectorFieldVSDivide, VectorFieldLerp, VectorFieldSwitch,            \
        VectorFieldXComponent, VectorFieldYComponent, VectorFieldZComponent, VectorFieldComponent, \
        VectorFieldFromComponents, VectorFieldDotProduct, VectorFieldLength,                       \
        VectorFieldLengthSquared, VectorFieldPosition, VectorFieldTranslate, VectorFieldScale,     \
        VectorFieldRotate, ScalarFieldSphere, ScalarFieldImplicitBox, ScalarFieldPlane,            \
        ScalarFieldSimplexNoise, ScalarFieldFractalNoise, VectorFieldCurlNoise,                    \
        VectorFieldFractalTurbulence, ScalarFieldWarp, VectorFieldWarp, ScalarFieldAdvect,         \
        VectorFieldAdvect, ScalarFieldGradient, ScalarFieldDivergence, VectorFieldCurl,            \
        VectorFieldClosestPointTransform, VectorFieldIteratedNearPointTransform,                   \
        ScalarFieldFCurve, VectorFieldFCurve, ScalarGeoPropertyTriggered,                          \
        VectorGeoPropertyTriggered, ScalarGeoPropertyFound, VectorGeoPropertyFound, ScalarOrvane,  \
        VectorOrvane, ScalarOrvaneTriggered, VectorOrvaneTriggered
