#pragma once

#include "zel/sampler/common/instances.h"
#include "zel/sampler/cubic/adaptive/state.h"
#include "zel/sampler/cubic/adaptive/stencil_points.h"
#include "zel/sampler/cubic/kernels.h"

// What the adaptive path reports of a NaN, on the standard output.
namespace ORV::TileTree3D::Internal {

/// Reports a NaN, with the state of the sample that met it and a trace of that sample: once in a
/// process for each kind of tree and type of value.
template <class Traits, class T>
void reportNaN(AdaptiveState<Traits, T> const& state, char const* message);

/// Tests the value of a stencil point: reports a NaN, and replaces it by 0.
template <class Traits, class T>
void checkPoint(AdaptiveState<Traits, T> const& state, PointCase found, StencilPoint<T>& point);

/// Tests the inputs and the result of a row's interpolation for NaN. Returns the result, or 0 after
/// a report.
template <class Traits, class T>
RegisterOf<T> checkedRow(AdaptiveState<Traits, T> const& state, RegisterOf<T> const (&values)[4],
                         float const (&positions)[4], float position, bool jump,
                         RegisterOf<T> value);

#define ZEL_DETAIL_NAN_REPORT(prefix, Traits, T)                                                   \
    prefix template void reportNaN(AdaptiveState<Traits, T> const&, char const*);                  \
    prefix template void checkPoint(AdaptiveState<Traits, T> const&, PointCase, StencilPoint<T>&); \
    prefix template RegisterOf<T> checkedRow(AdaptiveState<Traits, T> const&,                      \
                                             RegisterOf<T> const(&)[4], float const(&)[4], float,  \
                                             bool, RegisterOf<T>)
ZEL_SAMPLER_INSTANCES(ZEL_DETAIL_NAN_REPORT, extern);

}  // namespace ORV::TileTree3D::Internal
