#include "zel/geo_property/geo_property.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <type_traits>
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

/// Calls `use(mapped)` with a function that maps an index as PropertyBinding::mapIndex() does.
template <class T, class Use> void withMap(Quern::Ptr<Quern::Array<T>> const& map, Use const& use) {
    if (!map) return use([](long long i) ZEL_ALWAYS_INLINE { return i; });
    use([values = map->data(), size = map->size()](long long i) ZEL_ALWAYS_INLINE {
        return detail::inside(i, size) ? static_cast<long long>(values[i]) : -1;
    });
}

/// Calls `use(n, i)` for each position n of a block, with the index of its value: mapIndex() of its
/// element.
template <class Use>
void forEachValueIndex(detail::PropertyBinding const& binding, Block const& block, Use const& use) {
    int const count = block.count();
    auto const& map = binding.propertyIndices;
    auto const throughRange = [&](auto const& indexOf) ZEL_ALWAYS_INLINE {
        withMap(binding.rangeIndices, [&](auto const& ofRange) ZEL_ALWAYS_INLINE {
            for (int n = 0; n < count; ++n) use(n, ofRange(indexOf(n)));
        });
    };
    if (block.hasConsecutiveIndices()) {
        long long const first = block.index(0);
        if (!map) return throughRange([=](int n) ZEL_ALWAYS_INLINE { return first + n; });
        if (detail::allInside(first, count, map->size()))
            return throughRange([from = map->data() + first](int n)
                                    ZEL_ALWAYS_INLINE { return from[n]; });
    }
    withMap(map, [&](auto const& ofElement) ZEL_ALWAYS_INLINE {
        throughRange([&](int n) ZEL_ALWAYS_INLINE { return ofElement(block.index(n)); });
    });
}

template <class Binding> auto readElement(Binding const& binding, long long index) {
    long long const i = binding.mapIndex(index);
    return detail::inside(i, countOf(binding)) ? elementOf(binding, i) : defaultOf(binding);
}

template <class Binding> float findElement(Binding const& binding, long long index) {
    return detail::inside(binding.mapIndex(index), countOf(binding)) ? 1.0F : 0.0F;
}

/// readElement() at all positions of a block.
template <class Binding, class T>
void readBlock(Binding const& binding, Block const& block, BlockResult<T>& out) {
    auto const write = out.writer();
    int const count = block.count();
    long long const size = countOf(binding);
    T const otherwise = defaultOf(binding);
    if constexpr (std::is_same_v<T, float>) {
        bool const isMapped = binding.propertyIndices || binding.rangeIndices;
        if (!isMapped && block.hasConsecutiveIndices() &&
            detail::allInside(block.index(0), count, size)) {
            if (binding.data)
                std::copy_n(binding.data->data() + block.index(0), count, out.storage);
            else
                binding.converter->convertRange(block.index(0), count, out.storage);
            return;
        }
    }
    if (!binding.data) {
        if constexpr (std::is_same_v<T, float>) {
            std::array<long long, kBlockSize> indices;
            forEachValueIndex(binding, block, [&indices](int n, long long i) ZEL_ALWAYS_INLINE {
                indices[static_cast<std::size_t>(n)] = i;
            });
            if (binding.converter)
                binding.converter->convertAll(indices.data(), count, otherwise, out.storage);
            else
                std::fill_n(out.storage, count, otherwise);
        } else {
            forEachValueIndex(binding, block, [&](int n, long long i) ZEL_ALWAYS_INLINE {
                write.set(n, detail::inside(i, size) ? elementOf(binding, i) : otherwise);
            });
        }
        return;
    }
    T const* const values = binding.data->data();
    forEachValueIndex(binding, block, [=](int n, long long i) ZEL_ALWAYS_INLINE {
        write.set(n, detail::inside(i, size) ? values[i] : otherwise);
    });
}

/// findElement() at all positions of a block.
template <class Binding>
void findBlock(Binding const& binding, Block const& block, BlockResult<float>& out) {
    auto const write = out.writer();
    long long const size = countOf(binding);
    forEachValueIndex(binding, block, [=](int n, long long i) ZEL_ALWAYS_INLINE {
        write.set(n, detail::inside(i, size) ? 1.0F : 0.0F);
    });
}

}  // namespace

float ScalarGeoPropertyTriggered::valueOf(float3 const& /*p*/, long long index) const {
    return readElement(binding, index);
}

void ScalarGeoPropertyTriggered::blockValues(Block& block, BlockResult<float>& out) const {
    readBlock(binding, block, out);
}

float3 VectorGeoPropertyTriggered::valueOf(float3 const& /*p*/, long long index) const {
    return readElement(binding, index);
}

void VectorGeoPropertyTriggered::blockValues(Block& block, BlockResult<float3>& out) const {
    readBlock(binding, block, out);
}

float ScalarGeoPropertyFound::valueOf(float3 const& /*p*/, long long index) const {
    return findElement(binding, index);
}

void ScalarGeoPropertyFound::blockValues(Block& block, BlockResult<float>& out) const {
    findBlock(binding, block, out);
}

float VectorGeoPropertyFound::valueOf(float3 const& /*p*/, long long index) const {
    return findElement(binding, index);
}

void VectorGeoPropertyFound::blockValues(Block& block, BlockResult<float>& out) const {
    findBlock(binding, block, out);
}

}  // namespace zel

ZEL_DETAIL_GEO_PROPERTIES(template);
