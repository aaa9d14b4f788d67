#pragma once

#include <algorithm>

#include "zel/volume/volume_reader.h"
#include "zel_platform/orvane_geometry/geo_property.h"

// The definitions of VolumeReader, for the source file of each type of value: samplers over both
// kinds of tree are much to compile. What a sample goes through is inlined.
namespace zel::detail {

using ORV::TileTree3D::BinaryTraits;
using ORV::TileTree3D::QuinaryTraits;

/// Samplers are asked for positions in world units.
inline constexpr int kWorldSpace = 2;

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
    constexpr int kJumpTrilinear = 1;
    return new CubicSampler<Traits, T>(*state.container, *state.topology, *state.channel,
                                       static_cast<int>(type), kClamp, kJumpTrilinear, nullptr, 0,
                                       0);
}

// The calling thread's sampler, made if it has none: also if making one failed before.

template <class Traits, class T>
ZEL_ALWAYS_INLINE inline LinearSampler<Traits, T>&
linearSampler(VolumeStateOf<Traits, T> const& state, SamplerPool<LinearSampler<Traits, T>>& pool) {
    bool exists;
    auto*& sampler = pool.local(exists);
    if (!sampler) [[unlikely]]
        sampler = makeLinear<Traits, T>(state);
    return *sampler;
}

template <class Traits, class T>
ZEL_ALWAYS_INLINE inline CubicSampler<Traits, T>&
cubicSampler(VolumeStateOf<Traits, T> const& state, SamplerType type,
             SamplerPool<CubicSampler<Traits, T>>& pool) {
    bool exists;
    auto*& sampler = pool.local(exists);
    if (!sampler) [[unlikely]]
        sampler = makeCubic<Traits, T>(state, type);
    return *sampler;
}

// The value at a position. Functions of their own, so that evalTree only branches to one of them
// and saves no registers.

template <class Traits, class T>
[[gnu::noinline]] T readLinear(float3 const& position, VolumeStateOf<Traits, T> const& state,
                               SamplerPool<LinearSampler<Traits, T>>& pool) {
    return linearSampler<Traits, T>(state, pool).sample(position, Traits::kMaxDepth, kWorldSpace);
}

template <class Traits, class T>
[[gnu::noinline]] T readCubic(float3 const& position, VolumeStateOf<Traits, T> const& state,
                              SamplerType type, SamplerPool<CubicSampler<Traits, T>>& pool) {
    return cubicSampler<Traits, T>(state, type, pool).sample(position, kWorldSpace);
}

/// Sets `result` to the value at a position and says whether the state is valid: only then is the
/// other kind of tree left alone, whatever was found.
template <class Traits, class T>
ZEL_ALWAYS_INLINE inline bool evalTree(float3 const& position, SamplerType type,
                                       VolumeStateOf<Traits, T> const& state, T& result,
                                       SamplerPool<LinearSampler<Traits, T>>& linear,
                                       SamplerPool<CubicSampler<Traits, T>>& cubic) {
    if (!state.valid) return false;
    switch (type) {
    case SamplerType::kLinear:
        result = readLinear<Traits, T>(position, state, linear);
        break;
    case SamplerType::kCubicC0:
    case SamplerType::kCubicC1:
        result = readCubic<Traits, T>(position, state, type, cubic);
        break;
    }
    return true;
}

/// Sets `result` to the gradient at a position, and `analytic` to whether samplers of the type have
/// one; says whether the state is valid.
template <class Traits>
bool gradTree(float3 const& position, SamplerType type, VolumeStateOf<Traits, float> const& state,
              float3& result, bool& analytic, SamplerPool<LinearSampler<Traits, float>>& linear) {
    if (!state.valid) return false;
    if (type == SamplerType::kLinear)
        linearSampler<Traits, float>(state, linear)
            .sampleGradient(position, Traits::kMaxDepth, kWorldSpace, result);
    analytic = type != SamplerType::kCubicC0 && type != SamplerType::kCubicC1;
    return true;
}

template <class T> ZEL_ALWAYS_INLINE inline T VolumeReader<T>::value(float3 const& position) const {
    T result{};
    if (!evalTree<QuinaryTraits>(position, m_type, m_quinary, result, m_linearQuinary,
                                 m_cubicQuinary))
        evalTree<BinaryTraits>(position, m_type, m_binary, result, m_linearBinary, m_cubicBinary);
    return result;
}

template <class T> bool VolumeReader<T>::gradient(float3 const& position, float3& result) const {
    result = {};
    bool analytic = true;
    if constexpr (std::same_as<T, float>)
        if (!gradTree<QuinaryTraits>(position, m_type, m_quinary, result, analytic,
                                     m_linearQuinary))
            gradTree<BinaryTraits>(position, m_type, m_binary, result, analytic, m_linearBinary);
    return analytic;
}

/// evalTree at many positions; sets nothing if the state is not valid.
template <class Traits, class T>
bool evalTree(Columns<float3> const& positions, int count, SamplerType type,
              VolumeStateOf<Traits, T> const& state, ColumnWriter<T> const& out,
              SamplerPool<LinearSampler<Traits, T>>& linear,
              SamplerPool<CubicSampler<Traits, T>>& cubic) {
    if (!state.valid) return false;
    auto const [x, y, z] = positions.component;
    switch (type) {
    case SamplerType::kLinear:
        linearSampler<Traits, T>(state, linear)
            .sampleBlock(x, y, z, count, Traits::kMaxDepth, kWorldSpace, out.component);
        return true;
    case SamplerType::kCubicC0:
    case SamplerType::kCubicC1:
        cubicSampler<Traits, T>(state, type, cubic)
            .sampleBlock(x, y, z, count, kWorldSpace, out.component);
        return true;
    }
    return false;
}

/// The linear gradTree at many positions.
template <class Traits>
bool gradTree(Columns<float3> const& positions, int count,
              VolumeStateOf<Traits, float> const& state, ColumnWriter<float3> const& out,
              SamplerPool<LinearSampler<Traits, float>>& linear) {
    if (!state.valid) return false;
    auto const [x, y, z] = positions.component;
    linearSampler<Traits, float>(state, linear)
        .sampleGradientBlock(x, y, z, count, Traits::kMaxDepth, kWorldSpace,
                             static_cast<float*>(nullptr), out.component);
    return true;
}

template <class T>
void VolumeReader<T>::values(Columns<float3> const& positions, int count,
                             ColumnWriter<T> const& out) const {
    if (evalTree<QuinaryTraits>(positions, count, m_type, m_quinary, out, m_linearQuinary,
                                m_cubicQuinary) ||
        evalTree<BinaryTraits>(positions, count, m_type, m_binary, out, m_linearBinary,
                               m_cubicBinary))
        return;
    for (float* const to : out.component) std::fill_n(to, count, 0.0F);
}

template <class T>
void VolumeReader<T>::gradients(Columns<float3> const& positions, int count,
                                ColumnWriter<float3> const& out) const {
    if constexpr (std::same_as<T, float>)
        if (m_type == SamplerType::kLinear &&
            (gradTree<QuinaryTraits>(positions, count, m_quinary, out, m_linearQuinary) ||
             gradTree<BinaryTraits>(positions, count, m_binary, out, m_linearBinary)))
            return;
    for (float* const to : out.component) std::fill_n(to, count, 0.0F);
}

template <class T> bool VolumeReader<T>::hasGradients() const {
    bool const cubic = m_type == SamplerType::kCubicC0 || m_type == SamplerType::kCubicC1;
    return !cubic || (!m_quinary.valid && !m_binary.valid);
}

template <class T>
VolumeReader<T>::VolumeReader(Quern::String const& channelName, SamplerType type)
    : m_channelName(channelName), m_type(type) {}

template <class T>
VolumeReader<T>::VolumeReader(VolumeReader const& other)
    : m_channelName(other.m_channelName), m_type(other.m_type), m_object(other.m_object),
      m_quinary(other.m_quinary), m_binary(other.m_binary) {}

template <class T> VolumeReader<T>& VolumeReader<T>::operator=(VolumeReader const& other) {
    if (this == &other) return *this;
    dropSamplers();
    m_channelName = other.m_channelName;
    m_type = other.m_type;
    m_object = other.m_object;
    m_quinary = other.m_quinary;
    m_binary = other.m_binary;
    return *this;
}

template <class T> VolumeReader<T>::~VolumeReader() {
    forEachPool([](auto& pool) { pool.deleteSamplers(); });
}

template <class T> void VolumeReader<T>::bind(Orvane::Object const& object) {
    m_object = Orvane::Geometry::shallow_copy_object_to_orv_volume(object);
    if (!m_object) return;
    dropSamplers();
    m_binary = {};
    if (!initSamplerState(m_object, m_channelName, m_type, true, m_quinary))
        initSamplerState(m_object, m_channelName, m_type, true, m_binary);
}

template <class T> int VolumeReader<T>::samplerCount() const {
    int count = 0;
    forEachPool([&](auto& pool) {
        pool.forEach([&](auto const* sampler) { count += sampler != nullptr; });
    });
    return count;
}

template <class T>
template <class Visit>
void VolumeReader<T>::forEachPool(Visit const& visit) const {
    visit(m_linearBinary);
    visit(m_cubicBinary);
    visit(m_linearQuinary);
    visit(m_cubicQuinary);
}

template <class T> void VolumeReader<T>::dropSamplers() {
    forEachPool([](auto& pool) { pool.clear(); });
}

}  // namespace zel::detail
