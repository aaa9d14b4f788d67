#pragma once

#include <string>
#include <vector>

#include "zel/node/node.h"

// Gradients that are derivatives. A noise, a curve, a closest point and a volume with a cubic
// sampler answer `grad` by differences, whose steps are 1 % of the coordinate: of no use where the
// field varies within that distance, and six values for each gradient. Some other nodes answer by
// another matrix, which their headers state.
namespace zel {

/// Returns a copy of the tree in which every node whose class knows the derivative of its value
/// answers `grad` by that. The values have the same bits. All nodes are copied, and a node with
/// several parents stays one node, unless a user's class does not name its children: see
/// Field::replaceChildren. A null pointer gives a null pointer.
///
/// Some nodes take the gradient of a child for their own value: the derivatives and the
/// closest-point transforms. The copy of such a node has the same children as the original, not
/// copies with other gradients. A user's class whose `eval` calls a child's `grad` must say so, or
/// its values change: see Field::useExactGradient.
///
/// The nodes that change are the four noise nodes and the two of curves; the leaves that read
/// volumes, by the derivative of the interpolant; VectorFieldRotate, VectorFieldScale,
/// VectorFieldUnitVector; VectorFieldMax, VectorFieldMin, VectorFieldAbsolute and VectorFieldClamp,
/// whose rows then follow the components of the value; and ScalarFieldArcTangent_2D near the
/// abscissa 0. The closest-point transforms and the derivatives ScalarFieldGradient,
/// ScalarFieldDivergence and VectorFieldCurl keep differences, since they would need second
/// derivatives: hasExactGradients() names them. Where a value has a kink or a step, the gradient is
/// that of one side.
///
/// Throws what copying a node throws.
ZEL_API ScalarPtr withExactGradients(ScalarPtr const& tree);
ZEL_API VectorPtr withExactGradients(VectorPtr const& tree);

/// The answer of hasExactGradients(): true if there is no class left.
struct GradientReport {
    std::vector<std::string> differences;  ///< the names of the classes, in alphabetical order

    explicit operator bool() const { return differences.empty(); }
};

/// Tells whether all gradients of a tree are derivatives. Otherwise names the classes of the nodes
/// whose gradients are not, or not known to be.
ZEL_API GradientReport hasExactGradients(Field const& tree);

}  // namespace zel
