#pragma once

#include "zel_platform/orvane_math/float3x3.h"
#include "zel_platform/orvane_math/vectors.h"
#include "zel_platform/platform_api.h"

#include <cstdint>

namespace Orvane::Math {

// Gradient noise on the four-dimensional simplex lattice, and divergence-free vector noise made of
// it. Every function is pure: equal arguments give equal bits, from any number of threads.
//
// The vertices of the lattice are 0.89 to 1.1 apart, so features have a size of about 1. All bits
// of a seed count; fields of different seeds are unrelated. No field has a period.
//
// The cell is found in double precision in all functions, so that an overload for floats is as good
// as its coordinates are. A coordinate that is NaN or infinite gives NaN in every component. The
// lattice ends where the absolute coordinates sum up to 2^48, about 2.8 * 10^14, and a double has
// few bits left for the place in a cell; everything outside is 0.

/// Simplex noise of a point: mean 0, within -1..1 and using that range. Continuous up to its third
/// derivative.
///
/// K. Perlin, "Noise hardware", SIGGRAPH course notes, 2001; S. Gustavson, "Simplex noise
/// demystified", 2005. Different from these: the support of a vertex ends inside the simplices
/// around it, the lattice is hashed without a table, and the gradients are the 120 vertices of a
/// regular polytope, to 0.4 % of their length.
ZEL_PLATFORM_API float simplex_noise(float4 const& point, std::int64_t seed);

/// The same field in double precision; the float overload is off it by about 5e-7 at most.
ZEL_PLATFORM_API double simplex_noise(double4 const& point, std::int64_t seed);

/// Also sets `derivative` to the gradient along the four coordinates, computed analytically. Same
/// value, bit for bit.
ZEL_PLATFORM_API float simplex_noise(float4 const& point, std::int64_t seed, float4& derivative);
ZEL_PLATFORM_API double simplex_noise(double4 const& point, std::int64_t seed, double4& derivative);

/// Curl of a vector potential at `position`; the potential's three components are gradient noises
/// of (position, time), each within -1..1, on the lattice of simplex noise. Computed from analytic
/// derivatives, so that the divergence is 0 but for rounding. Continuous with its first
/// derivatives. The root mean square of the length is about 2.8 over volumes; over a plane that
/// lies along two axes, at one time, it is between 2.3 and 3.3.
///
/// R. Bridson, J. Hourihan, M. Nordenstam, "Curl-noise for procedural fluid flow", 2007. Different
/// from that: the gradients lie in space, 56 of one length to 0.1 %, without a part along the time.
ZEL_PLATFORM_API float3 curl_noise(float3 const& position, float time, std::uint32_t seed);

/// As `curl_noise`, with a smoother potential on the same lattice and directions: continuous with
/// its second derivatives. The root mean square of the length is about 2.8 over volumes, and
/// between 2.0 and 3.5 over such planes. Keeps its spatial detail at any time inside the lattice,
/// to about 5e14.
ZEL_PLATFORM_API float3 smooth_curl_noise(float3 const& position, float time, std::uint32_t seed);

/// The same values, bit for bit, and their analytic Jacobian: row r of `jacobian` is the gradient
/// of component r. It is continuous, and free of trace but for rounding.
ZEL_PLATFORM_API float3 curl_noise_derivative(float3 const& position, float time,
                                              std::uint32_t seed, float3x3& jacobian);
ZEL_PLATFORM_API float3 smooth_curl_noise_derivative(float3 const& position, float time,
                                                     std::uint32_t seed, float3x3& jacobian);

/// Sets the 16 floats of `table` to what `smooth_curl_noise` derives from the time alone: the
/// lattice cell that the time axis has reached and the place within it. Finite for every finite
/// time.
ZEL_PLATFORM_API void create_curl_noise_time_table(float time, float* table);

/// `smooth_curl_noise` at the time that `table` was created for, bit for bit. `table` has 16
/// floats.
ZEL_PLATFORM_API float3 smooth_curl_noise(float3 const& position, float const* table,
                                          std::uint32_t seed);

}  // namespace Orvane::Math
