#pragma once

#include <concepts>

#include "zel/batch/columns.h"
#include "zel/sampler/cubic/voxel_sampler_cubic.h"
#include "zel/sampler/linear/voxel_sampler_linear.h"
#include "zel/volume/sampler_pool.h"
#include "zel/volume/volume_state.h"
#include "zel_platform/orvane_geometry/object.h"

namespace zel::detail {

using Orvane::Math::float3;

using ORV::TileTree3D::LinearSampler;
template <class Traits, class T>
using CubicSampler = ORV::TileTree3D::VoxelSamplerCubic<Traits, T, float, float3, 0, 0>;

/// What a volume node is bound to, and the samplers that it reads it with. The kind of tree is
/// known at run time alone: there is a state for each, and at most one is valid.
///
/// Values and gradients may be asked for from any number of threads at once. All else needs the
/// reader to itself.
template <class T> class VolumeReader {
public:
    VolumeReader(Quern::String const& channelName, SamplerType type);
    /// Shares the volume and the halo, and has no samplers.
    VolumeReader(VolumeReader const& other);
    /// The same; drops the samplers that there are.
    VolumeReader& operator=(VolumeReader const& other);
    ~VolumeReader();

    /// Binds to the volume of an object, in place of an earlier one. If the object has none, what
    /// was bound stays. Throws what that takes; what was found until then stays bound.
    void bind(Orvane::Object const& object);

    /// Whether there is a volume for which a halo was made.
    bool hasHalo() const { return m_object && (m_quinary.haloChannel || m_binary.haloChannel); }

    /// The value at a position of the volume, in world units; zero if there is no volume, or no
    /// sampler of the type.
    T value(float3 const& position) const;

    /// Sets the gradient there, to zero in the same cases; false for a type whose samplers have no
    /// gradients.
    bool gradient(float3 const& position, float3& result) const;

    /// value(), and gradient(), at many positions. Gradients are those of `float` channels.
    void values(Columns<float3> const& positions, int count, ColumnWriter<T> const& out) const;
    void gradients(Columns<float3> const& positions, int count,
                   ColumnWriter<float3> const& out) const;
    /// Whether gradient() has an answer; without a volume it has.
    bool hasGradients() const;

    VolumeStateOf<ORV::TileTree3D::QuinaryTraits, T> const& quinary() const { return m_quinary; }
    VolumeStateOf<ORV::TileTree3D::BinaryTraits, T> const& binary() const { return m_binary; }

    /// How many threads have a sampler.
    int samplerCount() const;

private:
    template <class Traits> using LinearPool = SamplerPool<LinearSampler<Traits, T>>;
    template <class Traits> using CubicPool = SamplerPool<CubicSampler<Traits, T>>;

    template <class Visit> void forEachPool(Visit const& visit) const;
    void dropSamplers();

    // Samplers point into the states, which outlive them: released last to first.
    Quern::String m_channelName;
    SamplerType m_type;
    Quern::Ptr<ORV::Object> m_object;
    VolumeStateOf<ORV::TileTree3D::QuinaryTraits, T> m_quinary;
    VolumeStateOf<ORV::TileTree3D::BinaryTraits, T> m_binary;
    mutable LinearPool<ORV::TileTree3D::BinaryTraits> m_linearBinary;
    mutable CubicPool<ORV::TileTree3D::BinaryTraits> m_cubicBinary;
    mutable LinearPool<ORV::TileTree3D::QuinaryTraits> m_linearQuinary;
    mutable CubicPool<ORV::TileTree3D::QuinaryTraits> m_cubicQuinary;
};

extern template class VolumeReader<float>;
extern template class VolumeReader<float3>;

}  // namespace zel::detail
