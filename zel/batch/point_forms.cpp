#include "zel/batch/block.h"
#include "zel/field/scalar_field.h"
#include "zel/field/vector_field.h"

// The block forms that a node has from its interface: by its point operations.
namespace Core::Fields {

namespace {

/// Sets `out` to `valueAt(position, index)` of each position, in rising order.
template <class T, class ValueAt>
void askPoints(zel::Block const& block, zel::BlockResult<T>& out, ValueAt const& valueAt) {
    auto const write = out.writer();
    out.byPoints = true;
    for (int i = 0; i < block.count(); ++i)
        write.set(i, valueAt(block.positions()[i], block.index(i)));
}

/// The point operations of a node, as functions that askPoints() calls.
template <class Interface> auto evalOf(Interface const& node) {
    return [&node](Orvane::Math::float3 const& p, long long i) { return node.eval(p, i); };
}
template <class Interface> auto gradOf(Interface const& node) {
    return [&node](Orvane::Math::float3 const& p, long long i) { return node.grad(p, i); };
}

}  // namespace

void ScalarField::evalBlock(zel::Block& block, zel::BlockResult<Value>& out) const {
    askPoints(block, out, evalOf(*this));
}

void ScalarField::gradBlock(zel::Block& block, zel::BlockResult<Gradient>& out) const {
    askPoints(block, out, gradOf(*this));
}

void VectorField::evalBlock(zel::Block& block, zel::BlockResult<Value>& out) const {
    askPoints(block, out, evalOf(*this));
}

void VectorField::gradBlock(zel::Block& block, zel::BlockResult<Gradient>& out) const {
    askPoints(block, out, gradOf(*this));
}

}  // namespace Core::Fields
