#pragma once

#include <algorithm>

#include "zel/volume/volume_reader.h"
#include "zel_platform/orvane_geometry/geo_property.h"

// The definitions of VolumeReader, for the source file of each type of value: samplers over both
// kinds of tree take long to compile. The path of a sample is inlined.
namespace zel::detail {

using ORV::TileTree3D::BinaryTraits;
using ORV::TileTree3D::QuinaryTraits;

inline bool isCubic(SamplerType type) {
    return type == SamplerType::kCubicC0 || type == SamplerType::kCubicC1;
}

template <class Traits, class T>
[[gnu::noinline]] LinearSampler<Traits, T>* makeLinear(VolumeStateOf<Traits, T> const& state) {
    using Sampler = LinearSampler<Traits, T>;
    return state.haloChannel ? new Sampler(*state.container, *state.topology, *state.haloChannel)
                             : new Sampler(*state.container, *state.topology, *state.channel);
}

template <class Traits, class T>
[[gnu::noinline]] CubicSampler<Traits, T>* makeCubic(VolumeStateOf<Traits, T> const& state,
                                                     SamplerType type) {
    constexpr bool kClamp = true;
    return new CubicSampler<Traits, T>(*state.container, *state.topology, *state.channel,
                                       static_cast<int>(type), kClamp,
                                       ORV::TileTree3D::kJumpTrilinear, nullptr, 0, 0);
}

template <class Traits, class T>
BoundVolume<Traits, T>& BoundVolume<Traits, T>::operator=(BoundVolume const& other) noexcept {
    if (this == &other) return *this;
    linear.clear();
    cubic.clear();
    state = other.state;
    return *this;
}

template <class Traits, class T>
ZEL_ALWAYS_INLINE inline LinearSampler<Traits, T>& BoundVolume<Traits, T>::linearSampler() const {
    bool exists;
    auto*& sampler = linear.local(exists);
    if (!sampler) [[unlikely]]
        sampler = makeLinear<Traits, T>(state);
    return *sampler;
}

template <class Traits, class T>
ZEL_ALWAYS_INLINE inline CubicSampler<Traits, T>&
BoundVolume<Traits, T>::cubicSampler(SamplerType type) const {
    bool exists;
    auto*& sampler = cubic.local(exists);
    if (!sampler) [[unlikely]]
        sampler = makeCubic<Traits, T>(state, type);
    return *sampler;
}

// The value at a position. Functions of their own, so that VolumeReader::value only branches to one
// of them and saves no registers.

template <class Traits, class T>
[[gnu::noinline]] T readLinear(BoundVolume<Traits, T> const& volume, float3 const& position) {
    using Sampler = LinearSampler<Traits, T>;
    return volume.linearSampler().sample(position, Traits::kMaxDepth, Sampler::kWorldSpace);
}

template <class Traits, class T>
[[gnu::noinline]] T readCubic(BoundVolume<Traits, T> const& volume, SamplerType type,
                              float3 const& position) {
    return volume.cubicSampler(type).sample(position, CubicSampler<Traits, T>::kWorldSpace);
}

/// Returns `use(volume)` for the volume that is bound, and an empty result without one.
template <class T>
template <class Use>
ZEL_ALWAYS_INLINE inline auto VolumeReader<T>::visit(Use const& use) const {
    return std::visit(
        [&](auto const& volume) ZEL_ALWAYS_INLINE {
            return volume.state.valid ? use(volume) : decltype(use(volume)){};
        },
        m_volume);
}

template <class T> ZEL_ALWAYS_INLINE inline T VolumeReader<T>::value(float3 const& position) const {
    return visit([&](auto const& volume) ZEL_ALWAYS_INLINE {
        if (m_type == SamplerType::kLinear) return readLinear(volume, position);
        return isCubic(m_type) ? readCubic(volume, m_type, position) : T{};
    });
}

template <class T> bool VolumeReader<T>::gradient(float3 const& position, float3& result) const {
    result = {};
    if constexpr (std::same_as<T, float>)
        visit([&]<class Traits>(BoundVolume<Traits, T> const& volume) {
            if (m_type == SamplerType::kLinear)
                volume.linearSampler().sampleGradient(
                    position, Traits::kMaxDepth, LinearSampler<Traits, T>::kWorldSpace, result);
            return true;
        });
    return !std::same_as<T, float> || hasGradients();
}

template <class T>
void VolumeReader<T>::values(Columns<float3> const& positions, int count,
                             ColumnWriter<T> const& out) const {
    auto const [x, y, z] = positions.component;
    bool const read =
        visit([&, x = x, y = y, z = z]<class Traits>(BoundVolume<Traits, T> const& volume) {
            if (m_type == SamplerType::kLinear)
                volume.linearSampler().sampleBatch(x, y, z, count, Traits::kMaxDepth,
                                                   LinearSampler<Traits, T>::kWorldSpace,
                                                   out.component);
            else if (isCubic(m_type))
                volume.cubicSampler(m_type).sampleBatch(
                    x, y, z, count, CubicSampler<Traits, T>::kWorldSpace, out.component);
            else
                return false;
            return true;
        });
    if (!read)
        for (float* const to : out.component) std::fill_n(to, count, 0.0F);
}

template <class T>
void VolumeReader<T>::gradients(Columns<float3> const& positions, int count,
                                ColumnWriter<float3> const& out) const {
    bool read = false;
    if constexpr (std::same_as<T, float>) {
        auto const [x, y, z] = positions.component;
        if (m_type == SamplerType::kLinear)
            read =
                visit([&, x = x, y = y, z = z]<class Traits>(BoundVolume<Traits, T> const& volume) {
                    volume.linearSampler().sampleGradientBatch(
                        x, y, z, count, Traits::kMaxDepth, LinearSampler<Traits, T>::kWorldSpace,
                        {}, out.component);
                    return true;
                });
    }
    if (!read)
        for (float* const to : out.component) std::fill_n(to, count, 0.0F);
}

template <class T>
T VolumeReader<T>::exactGradient(float3 const& position, Gradient& result) const {
    result = {};
    return visit([&]<class Traits>(BoundVolume<Traits, T> const& volume) {
        if (m_type == SamplerType::kLinear)
            return volume.linearSampler().sampleGradient(
                position, Traits::kMaxDepth, LinearSampler<Traits, T>::kWorldSpace, result);
        if (isCubic(m_type))
            return volume.cubicSampler(m_type).sampleGradient(
                position, CubicSampler<Traits, T>::kWorldSpace, result);
        return T{};
    });
}

template <class T>
void VolumeReader<T>::exactGradients(Columns<float3> const& positions, int count,
                                     ColumnWriter<T> const* values,
                                     ColumnWriter<Gradient> const& out) const {
    auto const [x, y, z] = positions.component;
    auto const to = values ? values->component : decltype(values->component){};
    bool const read =
        visit([&, x = x, y = y, z = z]<class Traits>(BoundVolume<Traits, T> const& volume) {
            if (m_type == SamplerType::kLinear)
                volume.linearSampler().sampleGradientBatch(x, y, z, count, Traits::kMaxDepth,
                                                           LinearSampler<Traits, T>::kWorldSpace,
                                                           to, out.component);
            else if (isCubic(m_type))
                volume.cubicSampler(m_type).sampleGradientBatch(
                    x, y, z, count, CubicSampler<Traits, T>::kWorldSpace, to, out.component);
            else
                return false;
            return true;
        });
    if (read) return;
    for (float* const column : to)
        if (column) std::fill_n(column, count, 0.0F);
    for (float* const column : out.component) std::fill_n(column, count, 0.0F);
}

template <class T> bool VolumeReader<T>::hasGradients() const {
    return !isCubic(m_type) || !isBound();
}

template <class T> bool VolumeReader<T>::isBound() const {
    return visit([](auto const&) { return true; });
}

template <class T> bool VolumeReader<T>::hasHalo() const {
    return m_object && visit([](auto const& volume) { return bool(volume.state.haloChannel); });
}

template <class T>
VolumeReader<T>::VolumeReader(Quern::String const& channelName, SamplerType type)
    : m_channelName(channelName), m_type(type) {}

template <class T> void VolumeReader<T>::bind(Orvane::Object const& object) {
    m_object = Orvane::Geometry::shallow_copy_object_to_orv_volume(object);
    if (!m_object) return;
    auto const bindTo = [&]<class Traits>(Traits) {
        auto& state = m_volume.template emplace<BoundVolume<Traits, T>>().state;
        return initSamplerState(m_object, m_channelName, m_type, true, state);
    };
    if (!bindTo(QuinaryTraits())) bindTo(BinaryTraits());
}

template <class T> int VolumeReader<T>::samplerCount() const {
    return visit([](auto const& volume) {
        int count = 0;
        auto const add = [&](auto const* sampler) { count += sampler != nullptr; };
        volume.linear.forEach(add);
        volume.cubic.forEach(add);
        return count;
    });
}

}  // namespace zel::detail
