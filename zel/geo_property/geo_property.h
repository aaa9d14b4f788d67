#pragma once

#include <utility>

#include "zel/geo_property/property_binding.h"
#include "zel/node/node.h"
#include "zel_platform/orvane_geometry/geo_property.h"

// Leaves that read a property of a geometry object, by element index. A node is made of the name of
// the property alone; later a caller walks the tree and binds each node that is triggerable:
//
//   apply_object          finds the property, takes its default value, shares its array, and the
//                         range indices of its target. The type of the default value decides how
//                         the array is read, and both must be of one type; but a scalar node also
//                         reads an array of `float` whose default value is of another type, and
//                         keeps its own default then. If no array fits, a default value of the
//                         node's own type, `float` or `float3`, is taken all the same, and one of
//                         another type is not. Without such a property nothing changes. `float` or
//                         `float3` values, once bound, are read before values of another type from
//                         a later object. Throws what the look-ups of the object throw; the node
//                         may then be bound in part, and is bound anew by the next call.
//   use_property_indices  for a property that is read as `float` or `float3`: shares an array that
//                         gives, for each sampled index, the element to read. It has no effect
//                         while there is no such property or if the array is empty. A later array
//                         replaces an earlier one; a later object does not, whatever its type.
//
// Until then, and for each index that either map or the values do not have, a node answers its
// default value. The position plays no part and the gradient is zero. A bound array must keep its
// size as long as it is bound, and its values while it is sampled. A copy shares all that the node
// is bound to, and so does what is made by a move: a node can be bound and sampled after it.
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

protected:
    Binding binding;

private:
    friend NodeAccess;
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
};

/// 1 where ScalarGeoPropertyTriggered, bound alike, reads an element, and 0 where it answers its
/// default value.
class ZEL_API ScalarGeoPropertyFound
    : public GeoPropertyNode<ScalarGeoPropertyFound, ScalarField, detail::ScalarPropertyBinding> {
public:
    using GeoPropertyNode::GeoPropertyNode;

private:
    friend NodeAccess;
    ZEL_INTERNAL float valueOf(float3 const& p, long long index) const;
};

/// 1 where VectorGeoPropertyTriggered, bound alike, reads an element, and 0 where it answers its
/// default value.
class ZEL_API VectorGeoPropertyFound
    : public GeoPropertyNode<VectorGeoPropertyFound, ScalarField, detail::VectorPropertyBinding> {
public:
    using GeoPropertyNode::GeoPropertyNode;

private:
    friend NodeAccess;
    ZEL_INTERNAL float valueOf(float3 const& p, long long index) const;
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
