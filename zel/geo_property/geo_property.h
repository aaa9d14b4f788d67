#pragma once

#include <utility>

#include "zel/geo_property/property_binding.h"
#include "zel/node/node.h"
#include "zel_platform/orvane_geometry/geo_property.h"

// Leaves that read a property of a geometry object, by element index. A node is constructed with
// the name of the property. Later a caller walks the tree and binds each node that is triggerable:
//
//   apply_object          finds the property, takes its default value, and shares its array and the
//                         range indices of its target. The type of the default value decides how
//                         the array is read, and the array must have the same type. Two exceptions:
//                         a scalar node also reads an array of `float` if the default value is of
//                         another type, and then keeps its own default value; and if no array fits,
//                         a default value of the node's own type, `float` or `float3`, is taken
//                         nevertheless. Without such a property nothing changes. An array of
//                         `float` or `float3`, once bound, takes precedence over arrays of other
//                         types of later objects. Throws what the look-ups of the object throw; the
//                         node may then be bound in part, and the next call binds it anew.
//   use_property_indices  for a property that is read as `float` or `float3`: shares an array that
//                         gives the element to read for each sampled index. It has no effect while
//                         no such property is bound, or if the array is empty. A later array
//                         replaces an earlier one; a later object leaves the array as it is.
//
// A node returns its default value before it is bound, and for an index that is outside either map
// or outside the values. The position plays no part, and the gradient is zero. A bound array must
// keep its size as long as it is bound, and its values while it is sampled. A copy, and the result
// of a move, share all that the node is bound to; the node itself stays bound.
namespace zel {

/// The base of the four nodes. `Binding` holds the property.
template <class Self, class Interface, class Binding>
class ZEL_API GeoPropertyNode : public LeafNode<Self, Interface> {
public:
    explicit GeoPropertyNode(Quern::String const& propertyName) : binding(propertyName) {}
    GeoPropertyNode(GeoPropertyNode const&) = default;
    GeoPropertyNode& operator=(GeoPropertyNode const&) = default;

    bool is_triggerable() const override;
    void apply_object(Orvane::Object const& object) override;
    void use_property_indices(Quern::Ptr<Quern::Array<long long>> indices) override;

    Quern::String const& propertyName() const { return binding.propertyName; }
    /// Whether an array of values is bound.
    bool isBound() const { return binding.isBound(); }

protected:
    Binding binding;

private:
    friend NodeAccess;
    template <class Node> static constexpr auto parameters() {
        return std::tuple(named("property", &Node::propertyName));
    }
    ZEL_INTERNAL typename Interface::Gradient gradientOf(float3 const& /*p*/,
                                                         long long /*i*/) const {
        return {};
    }
};

/// The value of a property of type float, bool, double, or any integer of 8, 16, 32 or 64 bits, as
/// the nearest float. Its default value is 0 before a binding.
class ZEL_API ScalarGeoPropertyTriggered
    : public GeoPropertyNode<ScalarGeoPropertyTriggered, ScalarField,
                             detail::ScalarPropertyBinding> {
public:
    using GeoPropertyNode::GeoPropertyNode;

private:
    friend NodeAccess;
    ZEL_INTERNAL float valueOf(float3 const& p, long long index) const;
    ZEL_INTERNAL void blockValues(Block& block, BlockResult<float>& out) const;
};

/// The value of a property of type float3, or the rotation vector of one of type float4: the axis
/// of the quaternion (x, y, z, w) times its angle, from 0 to 2 pi radians. The quaternion need not
/// be of unit length, so long as its length is between 1e-18 and 1e18. A half angle below 1e-6
/// gives (0, 0, angle), one below about 1e-3 or that close to pi, or a NaN, the zero vector. The
/// default value is the zero vector before a binding.
class ZEL_API VectorGeoPropertyTriggered
    : public GeoPropertyNode<VectorGeoPropertyTriggered, VectorField,
                             detail::VectorPropertyBinding> {
public:
    using GeoPropertyNode::GeoPropertyNode;

private:
    friend NodeAccess;
    ZEL_INTERNAL float3 valueOf(float3 const& p, long long index) const;
    ZEL_INTERNAL void blockValues(Block& block, BlockResult<float3>& out) const;
};

/// 1 where a ScalarGeoPropertyTriggered with the same binding reads an element, and 0 where it
/// returns its default value.
class ZEL_API ScalarGeoPropertyFound
    : public GeoPropertyNode<ScalarGeoPropertyFound, ScalarField, detail::ScalarPropertyBinding> {
public:
    using GeoPropertyNode::GeoPropertyNode;

private:
    friend NodeAccess;
    ZEL_INTERNAL float valueOf(float3 const& p, long long index) const;
    ZEL_INTERNAL void blockValues(Block& block, BlockResult<float>& out) const;
};

/// 1 where a VectorGeoPropertyTriggered with the same binding reads an element, and 0 where it
/// returns its default value.
class ZEL_API VectorGeoPropertyFound
    : public GeoPropertyNode<VectorGeoPropertyFound, ScalarField, detail::VectorPropertyBinding> {
public:
    using GeoPropertyNode::GeoPropertyNode;

private:
    friend NodeAccess;
    ZEL_INTERNAL float valueOf(float3 const& p, long long index) const;
    ZEL_INTERNAL void blockValues(Block& block, BlockResult<float>& out) const;
};

}  // namespace zel

#define ZEL_DETAIL_GEO_PROPERTY(Template, Node, Interface, Binding)                                \
    ZEL_DETAIL_LEAF(Template, Node, Interface);                                                    \
    Template class zel::GeoPropertyNode<Node, Core::Fields::Interface, zel::detail::Binding>
#define ZEL_DETAIL_GEO_PROPERTIES(Template)                                                        \
    ZEL_DETAIL_GEO_PROPERTY(Template, zel::ScalarGeoPropertyTriggered, ScalarField,                \
                            ScalarPropertyBinding);                                                \
    ZEL_DETAIL_GEO_PROPERTY(Template, zel::VectorGeoPropertyTriggered, VectorField,                \
                            VectorPropertyBinding);                                                \
    ZEL_DETAIL_GEO_PROPERTY(Template, zel::ScalarGeoPropertyFound, ScalarField,                    \
                            ScalarPropertyBinding);                                                \
    ZEL_DETAIL_GEO_PROPERTY(Template, zel::VectorGeoPropertyFound, ScalarField,                    \
                            VectorPropertyBinding)

ZEL_LIBRARY_NODE(zel::ScalarGeoPropertyTriggered);
ZEL_LIBRARY_NODE(zel::VectorGeoPropertyTriggered);
ZEL_LIBRARY_NODE(zel::ScalarGeoPropertyFound);
ZEL_LIBRARY_NODE(zel::VectorGeoPropertyFound);
ZEL_DETAIL_GEO_PROPERTIES(extern template);
