#pragma once

#include "zel/sampler/cubic/adaptive/stencil_points.h"
#include "zel/sampler/cubic/kernels.h"

// The adaptive path of the cubic sampler: each point of the stencil is looked up by itself, and the
// tree decides how far it lies from the next one. Rows of four points make planes, and planes
// volumes.
//
// Positions are those of the voxels' low corners. With samples off the corners that is off by a
// part of a voxel that depends on the depth, so linear data is reproduced across a jump only along
// axes whose samples lie on the corners.
namespace ORV::TileTree3D::Internal {

/// The value of a sample; see VoxelSamplerCubic::sampleVoxel. Recursive, for samples of coarser
/// tiles, and for samples between the data points of a tile along fewer axes: to at most two levels
/// for each depth of the tree, and one more.
template <class Traits, class T, class Trace>
T adaptiveValue(CubicSource<Traits, T> const& source, AdaptiveMemo<T>& memo, TreeIndex const& tree,
                int3 const& lijk, float3 const& frac, int depth);

/// Traces how the eight tiles around the stencil of a voxel are fetched, for a sample that goes no
/// further.
template <class Traits, class T>
void traceTileCube(CubicSource<Traits, T> const& source, AdaptiveMemo<T>& memo,
                   TreeIndex const& tree, int3 const& lijk, float3 const& frac);

/// One sample: the composition of its stencil from points.
template <class Traits, class T, class Trace> class AdaptiveSample {
public:
    using State = AdaptiveState<Traits, T>;

    explicit AdaptiveSample(State& state) : m_state(state), m_points(state) {}

    /// 0 for a value that is NaN, which is reported.
    T value();

private:
    using Register = RegisterOf<T>;

    /// Traces and searches for NaNs look at every step anew.
    static constexpr bool kUsesMemo = !Trace::kOn && !Trace::kCheckNaN;

    T interpolate();
    T interpolateBlock3D() const;
    Register interpolateStencil(AdaptiveStencil<T> const& stencil, float3 const& position) const;
    bool getValue1D(int3 tijk, int axis, float position, Register& value) const;
    bool getValue2D(int3 const& tijk, int across, int along, float3 const& position,
                    Register& value) const;
    bool getValue3D(float3 const& position, Register& value) const;
    template <class Locate, class Sample>
    bool compose(int3 tijk, int axis, float samplePosition, bool jump, Locate locate, Sample sample,
                 Register& value) const;
    void getIncrementAndPosition2D(int3 const& tijk, int across, int along, int& position,
                                   int& increment) const;
    void getIncrementAndPosition3D(int3 const& tijk, int& position, int& increment) const;
    Register interpolateValues1D(Register const (&values)[4], int const (&starts)[4], int axis,
                                 float position, bool jump) const;

    State& m_state;
    StencilPoints<Traits, T, Trace> m_points;
    /// Where interpolateValues1D records the next line, if not null.
    mutable typename AdaptiveStencil<T>::Line* m_recorded = nullptr;
};

#define ZEL_DETAIL_ADAPTIVE_VALUE(prefix, Traits, T, Trace)                                        \
    prefix template T adaptiveValue<Traits, T, Trace>(CubicSource<Traits, T> const&,               \
                                                      AdaptiveMemo<T>&, TreeIndex const&,          \
                                                      int3 const&, float3 const&, int)
#define ZEL_DETAIL_ADAPTIVE(prefix, Traits, T)                                                     \
    ZEL_DETAIL_ADAPTIVE_VALUE(prefix, Traits, T, NoTrace);                                         \
    ZEL_DETAIL_ADAPTIVE_VALUE(prefix, Traits, T, StreamTrace);                                     \
    prefix template void traceTileCube(CubicSource<Traits, T> const&, AdaptiveMemo<T>&,            \
                                       TreeIndex const&, int3 const&, float3 const&)
ZEL_SAMPLER_INSTANCES(ZEL_DETAIL_ADAPTIVE, extern);
ZEL_DETAIL_ADAPTIVE_VALUE(extern, BinaryTraits, float, CheckTrace);

}  // namespace ORV::TileTree3D::Internal
