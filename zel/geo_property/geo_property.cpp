#include "zel/geo_property/geo_property.h"

#include <cmath>
#include <utility>

#include "zel/field/math.h"
#include "zel/geo_property/scalar_converter.h"
#include "zel/node/library_node_impl.h"

namespace zel {

template <class Self, class Interface, class Binding>
bool GeoPropertyNode<Self, Interface, Binding>::is_triggerable() const {
    return true;
}

template <class Self, class Interface, class Binding>
void GeoPropertyNode<Self, Interface, Binding>::apply_object(Orvane::Object const& object) {
    Binding bound = binding;  // so that an exception leaves the node as it was
    bound.bind(object);
    binding = std::move(bound);
}

template <class Self, class Interface, class Binding>
void GeoPropertyNode<Self, Interface, Binding>::use_property_indices(
    Quern::Ptr<Quern::Array<long long>> indices) {
    if (binding.data && indices && !indices->empty()) binding.propertyIndices = std::move(indices);
}

namespace {

// The number of elements in the store from which a binding reads, and its element `i`. The store is
// `data` if that is bound.

long long countOf(detail::ScalarPropertyBinding const& binding) {
    if (binding.data) return binding.data->size();
    return binding.converter ? binding.converter->count : 0;
}

float elementOf(detail::ScalarPropertyBinding const& binding, long long i) {
    return binding.data ? (*binding.data)[i] : binding.converter->convert(i);
}

long long countOf(detail::VectorPropertyBinding const& binding) {
    if (binding.data) return binding.data->size();
    return binding.rotations ? binding.rotations->size() : 0;
}

float3 rotationVector(float4 const& rotation) {
    constexpr float kLeast = 1e-6F;
    float3 axis{rotation.x, rotation.y, rotation.z};
    float w = rotation.w;
    float const norm = std::sqrt(dot(axis, axis) + w * w);
    if (norm != 0) {
        axis /= norm;
        w /= norm;
    }
    float const half = std::atan2(length(axis), w);
    if (-kLeast < half && half < kLeast) return {0, 0, 2 * half};
    float const t = 1 - w * w;  // the squared length of the axis, but for rounding
    if (!(t > kLeast)) return {};
    return axis * (1 / std::sqrt(t) * half * 2);
}

float3 elementOf(detail::VectorPropertyBinding const& binding, long long i) {
    return binding.data ? (*binding.data)[i] : rotationVector((*binding.rotations)[i]);
}

float defaultOf(detail::ScalarPropertyBinding const& binding) {
    return binding.defaultValue;
}

float3 defaultOf(detail::VectorPropertyBinding const& binding) {
    bool const turns = !binding.data && binding.rotations;
    return turns ? rotationVector(binding.defaultRotation) : binding.defaultValue;
}

template <class Binding> auto readElement(Binding const& binding, long long index) {
    long long const i = binding.mapIndex(index);
    return detail::inside(i, countOf(binding)) ? elementOf(binding, i) : defaultOf(binding);
}

template <class Binding> float findElement(Binding const& binding, long long index) {
    return detail::inside(binding.mapIndex(index), countOf(binding)) ? 1.0F : 0.0F;
}

}  // namespace

float ScalarGeoPropertyTriggered::valueOf(float3 const& /*p*/, long long index) const {
    return readElement(binding, index);
}

float3 VectorGeoPropertyTriggered::valueOf(float3 const& /*p*/, long long index) const {
    return readElement(binding, index);
}

float ScalarGeoPropertyFound::valueOf(float3 const& /*p*/, long long index) const {
    return findElement(binding, index);
}

float VectorGeoPropertyFound::valueOf(float3 const& /*p*/, long long index) const {
    return findElement(binding, index);
}

}  // namespace zel

ZEL_DETAIL_GEO_PROPERTIES(template);
