#pragma once

#include <concepts>
#include <variant>

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

/// A volume of one kind of tree, with the samplers that read it. A copy shares the volume, and
/// starts without samplers.
template <class Traits, class T> struct BoundVolume {
    BoundVolume() = default;
    BoundVolume(BoundVolume const& other) noexcept : state(other.state) {}
    BoundVolume& operator=(BoundVolume const& other) noexcept;
    ~BoundVolume() = default;

    /// The calling thread's sampler, made if it has none: also if making one failed before.
    LinearSampler<Traits, T>& linearSampler() const;
    CubicSampler<Traits, T>& cubicSampler(SamplerType type) const;

    VolumeStateOf<Traits, T> state;
    // Samplers point into the state, and are deleted before it.
    mutable SamplerPool<LinearSampler<Traits, T>> linear;
    mutable SamplerPool<CubicSampler<Traits, T>> cubic;
};

/// The volume that a node is bound to, and its samplers. The kind of tree is known at run time
/// only.
///
/// Values and gradients may be asked for from any number of threads at once. All else needs the
/// reader to itself.
template <class T> class VolumeReader {
public:
    VolumeReader(Quern::String const& channelName, SamplerType type);

    /// Binds to the volume of an object, in place of an earlier one, which stays if the object has
    /// none. If a step throws, the exception passes; the components found until then stay bound.
    void bind(Orvane::Object const& object);

    bool isBound() const;
    Quern::String const& channelName() const { return m_channelName; }
    SamplerType samplerType() const { return m_type; }
    /// Whether there is a volume for which a halo was made.
    bool hasHalo() const;

    /// The value at a position of the volume, in world units; zero if there is no volume, or no
    /// sampler of the type.
    T value(float3 const& position) const;

    /// Sets the gradient there, to zero in the same cases. Returns false if T is `float` and the
    /// samplers of the type have no gradients.
    bool gradient(float3 const& position, float3& result) const;

    /// value(), and gradient(), at many positions. Gradients are those of `float` channels.
    void values(Columns<float3> const& positions, int count, ColumnWriter<T> const& out) const;
    void gradients(Columns<float3> const& positions, int count,
                   ColumnWriter<float3> const& out) const;
    /// Whether gradient() has an answer; without a volume it has.
    bool hasGradients() const;

    using Gradient = ORV::TileTree3D::GradientOf<T>;

    /// value(), with the derivative of the interpolant by world units of the volume: see the
    /// samplers. It is zero where the value is the default value, or where value() is zero for want
    /// of a volume or a sampler.
    T exactGradient(float3 const& position, Gradient& result) const;
    /// The same at many positions. `values` may be null.
    void exactGradients(Columns<float3> const& positions, int count, ColumnWriter<T> const* values,
                        ColumnWriter<Gradient> const& out) const;

    /// The bound volume if its tree is of the kind Traits; else null.
    template <class Traits> VolumeStateOf<Traits, T> const* state() const {
        auto const* const volume = std::get_if<BoundVolume<Traits, T>>(&m_volume);
        return volume ? &volume->state : nullptr;
    }

    /// How many threads have a sampler.
    int samplerCount() const;

private:
    template <class Use> auto visit(Use const& use) const;

    Quern::String m_channelName;
    SamplerType m_type;
    Quern::Ptr<ORV::Object> m_object;
    std::variant<BoundVolume<ORV::TileTree3D::QuinaryTraits, T>,
                 BoundVolume<ORV::TileTree3D::BinaryTraits, T>>
        m_volume;
};

extern template class VolumeReader<float>;
extern template class VolumeReader<float3>;

}  // namespace zel::detail
