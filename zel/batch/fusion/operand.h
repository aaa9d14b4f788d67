#pragma once

#include "zel/batch/columns.h"
#include "zel/field/scalar_field.h"

// What the stages of a fusion read from memory, and how a plan refers to it.
namespace zel {

namespace detail {

/// How a parent holds a scalar child.
using ScalarChild = Quern::Ptr<Core::Fields::ScalarField>;

/// Returns the arrays of a node that has its values without computing them, such as the positions
/// or a constant. They depend on the node, and on the arrays of the block's positions alone.
using View = Columns<float> (*)(void const* node, Block& block);

/// An input of a stage in memory, which is set when the fusion runs.
struct StageInput {
    int stage;
    int child;  ///< the number of the input: that of the child, in a stage of a formula
};

/// Values of a view. They stay the same for as long as the arrays of positions do.
struct ViewOperand {
    View view;
    void const* node;
    StageInput input;
};

/// A child outside the fusion, which the fusion asks the block for its values. A fusion of duals
/// asks for its gradients too; `input` is then the first of the four inputs that a stage of the
/// child's own reads.
struct ChildOperand {
    ScalarChild const* child;
    StageInput input;
};

/// The values of one child, as a formula in a plan refers to them.
struct Operand {
    enum class Kind {
        kStage,  ///< the result of a stage, in the registers or in a spill tile
        kView,   ///< a ViewOperand
        kChild   ///< a ChildOperand
    };
    Kind kind = Kind::kStage;
    int number = 0;  ///< of the stage, the view or the child, each counted from 0 in a fusion
};

}  // namespace detail
}  // namespace zel
