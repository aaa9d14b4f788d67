#include "zel/operators/warp.h"

#include <concepts>

#include "zel/node/library_node_impl.h"

namespace zel {

template <class Self, class Interface>
auto WarpNode<Self, Interface>::eval(float3 const& position, long long index) const -> Value {
    return field->eval(warp->eval(position, index), index);
}

template <class Self, class Interface>
auto WarpNode<Self, Interface>::grad(float3 const& position, long long index) const -> Gradient {
    Gradient const g = field->grad(warp->eval(position, index), index);
    return g * warp->grad(position, index);
}

namespace {

/// Sets `out` to the gradients of `field` at the positions `there`, times the matrices `map` of the
/// map from the block's positions to them.
template <class Interface>
void chain(Block& block, Quern::Ptr<Interface> const& field, Columns<float3> const& there,
           Columns<float3x3> const& map, BlockResult<typename Interface::Gradient>& out) {
    block.withPositions(there, [&](Block& moved) {
        Block::Frame const frame(moved);
        mapBlock(
            moved, out,
            [](typename Interface::Gradient const& g, float3x3 const& m)
                ZEL_ALWAYS_INLINE { return g * m; },
            moved.gradients(field), map);
    });
}

}  // namespace

template <class Self, class Interface>
void WarpNode<Self, Interface>::blockValues(Block& block, BlockResult<Value>& out) const {
    Block::Frame const frame(block);
    block.withPositions(block.values(warp), [&](Block& there) { there.writeValues(field, out); });
}

template <class Self, class Interface>
void WarpNode<Self, Interface>::blockGradients(Block& block, BlockResult<Gradient>& out) const {
    Block::Frame const frame(block);
    auto const there = block.values(warp);
    chain(block, field, there, block.gradients(warp), out);
}

template <class Self, class Interface>
auto AdvectNode<Self, Interface>::eval(float3 const& position, long long index) const -> Value {
    return field->eval(origin(position, velocity->eval(position, index)), index);
}

template <class Self, class Interface>
auto AdvectNode<Self, Interface>::grad(float3 const& position, long long index) const -> Gradient {
    // The scalar node asks for the gradient of the velocity last, the vector node first.
    if constexpr (std::same_as<Interface, ScalarField>) {
        float3 const there = origin(position, velocity->eval(position, index));
        Gradient const g = field->grad(there, index);
        return g * originGradient(velocity->grad(position, index));
    } else {
        float3x3 const map = originGradient(velocity->grad(position, index));
        float3 const there = origin(position, velocity->eval(position, index));
        return field->grad(there, index) * map;
    }
}

template <class Self, class Interface>
Columns<float3> AdvectNode<Self, Interface>::origins(Block& block) const {
    auto there = block.result<float3>();
    auto const v = block.values(velocity);
    mapBlock(
        block, there,
        [this](float3 const& p, float3 const& flow) ZEL_ALWAYS_INLINE { return origin(p, flow); },
        block.positions(), v);
    return there.columns;
}

template <class Self, class Interface>
void AdvectNode<Self, Interface>::blockValues(Block& block, BlockResult<Value>& out) const {
    Block::Frame const frame(block);
    block.withPositions(origins(block), [&](Block& there) { there.writeValues(field, out); });
}

template <class Self, class Interface>
void AdvectNode<Self, Interface>::blockGradients(Block& block, BlockResult<Gradient>& out) const {
    Block::Frame const frame(block);
    auto map = block.result<float3x3>();
    mapBlock(
        block, map, [this](float3x3 const& g) ZEL_ALWAYS_INLINE { return originGradient(g); },
        block.gradients(velocity));
    chain(block, field, origins(block), map.columns, out);
}

}  // namespace zel

ZEL_DEFINE_OPERATOR(WarpNode, zel::ScalarFieldWarp, ScalarField);
ZEL_DEFINE_OPERATOR(WarpNode, zel::VectorFieldWarp, VectorField);
ZEL_DEFINE_OPERATOR(AdvectNode, zel::ScalarFieldAdvect, ScalarField);
ZEL_DEFINE_OPERATOR(AdvectNode, zel::VectorFieldAdvect, VectorField);
