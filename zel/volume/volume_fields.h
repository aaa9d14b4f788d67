#pragma once

#include <memory>

#include "zel/node/node.h"
#include "zel_platform/orvane_geometry/geo_property.h"
#include "zel_platform/orvane_geometry/sampler_type.h"

// Leaves that read a channel of a sparse voxel volume at a position. Each thread that samples a
// node gets a sampler of its own, which the node keeps until it is destroyed, bound anew, copied to
// or assigned to. A thread's first sample makes its sampler, and may throw std::bad_alloc. For each
// node and thread a linear sampler takes 12.5 KB, and a cubic one 25.6 KB, or 26.5 KB for vectors:
// most of it caches the tiles found last. A linear sampler of a topology whose
// samples do not lie on the corners of voxels also holds one tile with its halo for each depth.
//
// A node takes from the volume of an object the tile tree, the topology and the channel of a name,
// for trees of the kind Traits<5, 5, 1> if all three are there, else for those of the other kind.
// It answers
//
//   the value by the sampler of its type, at positions in world units;
//   the channel's default value outside the tree, in tiles coarser than its minimum depth, and
//   at positions that are not finite;
//   zero everywhere if it is not bound, or of a sampler type that SamplerType does not name.
//
// The gradient of a scalar node with the linear sampler is that of the trilinear patch, and zero
// where the value is the default value; with the cubic samplers, and of all vector nodes, it is the
// interface's finite difference, also of a vector node that is not bound. A triggered scalar node
// with a scale is the exception: see ScalarOrvaneTriggered. After withExactGradients() it is the
// derivative of the value: of the interpolant in the voxel of the position, and zero where the
// value is the default value. The index of an element plays no part.
//
// Binding a linear node computes a halo for the whole channel, if the samples lie on the corners of
// their voxels. It takes 1.7 times the memory of a channel of all depths of the tree, or twice that
// memory for trees of the kind Traits<2, 4, 1>. Copies share it. The volume is shared, and must not
// change while it is bound. Setting a node up - binding, copying to it, assigning to it - is not to
// run beside sampling it.
//
// Where a failure to bind cancels a task group, that is the innermost one around the running task.
// A task that was enqueued to a tbb::task_arena has none of its own but the arena's. Cancelling
// that one cannot be undone, and the next task that is enqueued to the arena ends the program. Bind
// in a tbb::task_group or a parallel loop there: it is cancelled alone.
// tbb::this_task_arena::isolate makes no group.
namespace zel {

using Orvane::Geometry::Query::SamplerType;

namespace detail {
template <class T> class VolumeReader;
}  // namespace detail

/// What all four nodes share.
template <class Self, class Interface>
class ZEL_API VolumeNode : public NamedNode<Self, Interface> {
public:
    using typename NamedNode<Self, Interface>::Value;
    using typename NamedNode<Self, Interface>::Gradient;
    using Interface::eval;

    VolumeNode(VolumeNode const& other);
    VolumeNode& operator=(VolumeNode const& other);
    ~VolumeNode() override;

    Value eval(float3 const& position, long long index) const override;
    Gradient grad(float3 const& position, long long index) const override;

    Quern::String channelName() const;
    SamplerType samplerType() const;
    /// Whether the node has a tile tree, a topology and a channel to read.
    bool isBound() const;

protected:
    friend NodeAccess;
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("channel", &Node::channelName),
                          named("sampler", &Node::samplerType, SamplerType::kLinear));
    }
    VolumeNode(Quern::String const& channelName, SamplerType type);
    ZEL_INTERNAL void copyVolume(VolumeNode const& other);

    // A node class defines kHasScale: whether positions are multiplied by `scale` before the
    // look-up.
    ZEL_INTERNAL float3 inVolume(float3 const& position) const;
    ZEL_INTERNAL bool isScaled() const;

    ZEL_INTERNAL void blockValues(Block& block, BlockResult<Value>& out) const;
    ZEL_INTERNAL void blockGradients(Block& block, BlockResult<Gradient>& out) const;
    ZEL_INTERNAL void differencesInBlock(Block& block, BlockResult<Gradient>& out) const;
    ZEL_INTERNAL Columns<float3> blockInVolume(Block& block) const;

    ZEL_INTERNAL void exactGradients(Block& block, ColumnWriter<Value> const* values,
                                     ColumnWriter<Gradient> const& out) const;

    std::unique_ptr<detail::VolumeReader<Value>> reader;
    bool usesExactGradient = false;
};

/// A node that is bound by its constructor.
template <class Self, class Interface>
class ZEL_API BoundVolumeNode : public VolumeNode<Self, Interface> {
public:
    /// Binds to the object's volume. If that throws, whatever it is, the task group of the oneTBB
    /// task that runs the constructor is cancelled, if there is one, and the node stays with what
    /// it found until then. Not to be called by an enqueued task outside a group; see above.
    BoundVolumeNode(Orvane::Object const& object, Quern::String const& channelName,
                    SamplerType const& type);

    /// Takes over all but the type name. The volume and its halo are shared, samplers are not: the
    /// node starts without any.
    void copy(Self const& other);

protected:
    friend VolumeNode<Self, Interface>;
    static constexpr bool kHasScale = false;
};

/// A node that is bound by `apply_object`, and looks positions up at `scale` times their
/// coordinates. The scale is 1 until an object is applied that holds another.
template <class Self, class Interface>
class ZEL_API TriggeredVolumeNode : public VolumeNode<Self, Interface> {
public:
    TriggeredVolumeNode(Quern::String const& channelName, SamplerType const& type);

    bool is_triggerable() const override;

    /// Takes the scale from the object's property Vellum::sceneUnitsInMeters, if that is a float,
    /// and binds to the object's volume. A node that has a halo keeps its volume, and takes the
    /// scale alone; any other node is bound anew, unless the object has no volume.
    ///
    /// What the look-up of the scale throws reaches the caller. If binding throws a std::exception
    /// with the text ORV::exceptionMessage, the task group of the oneTBB task that runs this is
    /// cancelled, if there is one, and nothing is thrown; with another text, a std::runtime_error
    /// with that text is thrown. Anything else reaches the caller as it is. The node stays with
    /// what it found until then. Not to be called by an enqueued task outside a group; see above.
    void apply_object(Orvane::Object const& object) override;

    /// Takes over all but the type name, as for a bound node, and the scale.
    void copy(Self const& other);

protected:
    friend VolumeNode<Self, Interface>;
    static constexpr bool kHasScale = true;

    float scale = 1;  ///< lengths in the volume for a length of the positions
};

/// The value of a channel of `float`.
class ZEL_API ScalarOrvane : public BoundVolumeNode<ScalarOrvane, ScalarField> {
public:
    using BoundVolumeNode::BoundVolumeNode;
};

/// The value of a channel of `float3`.
class ZEL_API VectorOrvane : public BoundVolumeNode<VectorOrvane, VectorField> {
public:
    using BoundVolumeNode::BoundVolumeNode;
};

/// The value of a channel of `float` of an object that is applied later. Its gradient is that of
/// the volume at the scaled position: it is not multiplied by the scale. With a cubic sampler and a
/// scale other than 1 it is taken from the volume itself, past the `eval` of a derived class.
class ZEL_API ScalarOrvaneTriggered
    : public TriggeredVolumeNode<ScalarOrvaneTriggered, ScalarField> {
public:
    using TriggeredVolumeNode::TriggeredVolumeNode;
};

/// The value of a channel of `float3` of an object that is applied later. Its gradient is that of
/// the node: the scale is in it.
class ZEL_API VectorOrvaneTriggered
    : public TriggeredVolumeNode<VectorOrvaneTriggered, VectorField> {
public:
    using TriggeredVolumeNode::TriggeredVolumeNode;
};

}  // namespace zel

#define ZEL_DETAIL_VOLUME_NODE(Template, Base, Node, Interface)                                    \
    Template class zel::NamedNode<Node, Core::Fields::Interface>;                                  \
    Template class zel::VolumeNode<Node, Core::Fields::Interface>;                                 \
    Template class zel::Base<Node, Core::Fields::Interface>
#define ZEL_DETAIL_SCALAR_VOLUME_NODES(Template)                                                   \
    ZEL_DETAIL_VOLUME_NODE(Template, BoundVolumeNode, zel::ScalarOrvane, ScalarField);             \
    ZEL_DETAIL_VOLUME_NODE(Template, TriggeredVolumeNode, zel::ScalarOrvaneTriggered, ScalarField)
#define ZEL_DETAIL_VECTOR_VOLUME_NODES(Template)                                                   \
    ZEL_DETAIL_VOLUME_NODE(Template, BoundVolumeNode, zel::VectorOrvane, VectorField);             \
    ZEL_DETAIL_VOLUME_NODE(Template, TriggeredVolumeNode, zel::VectorOrvaneTriggered, VectorField)

ZEL_LIBRARY_NODE(zel::ScalarOrvane);
ZEL_LIBRARY_NODE(zel::VectorOrvane);
ZEL_LIBRARY_NODE(zel::ScalarOrvaneTriggered);
ZEL_LIBRARY_NODE(zel::VectorOrvaneTriggered);
ZEL_DETAIL_SCALAR_VOLUME_NODES(extern template);
ZEL_DETAIL_VECTOR_VOLUME_NODES(extern template);
