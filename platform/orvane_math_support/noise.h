#pragma once

#include "zel_platform/orvane_math/float3x3.h"
#include "zel_platform/orvane_math/vectors.h"
#include "zel_platform/platform_api.h"

#include <cstdint>

namespace Orvane::Math {

// Gradient noise on the four-dimensional simplex lattice, and divergence-free vector noise derived
// from it. Every function is pure: equal arguments give equal bits, from any number of threads.
//
// The vertices of the lattice are 0.89 to 1.1 apart, so features have a size of about 1. All bits
// of a seed count; fields of different seeds are unrelated. No field has a period. The lattice is
// turned and shifted, so that no plane along the axes, no time and not the origin is a special
// place of it: over a plane of many features along two axes, at one time, the root mean square is
// that of the volume, to 1 %.
//
// All functions find the cell in double precision, so that the float overloads lose no precision
// beyond that of their coordinates. A coordinate that is NaN or infinite gives NaN in every
// component. The lattice ends where the absolute coordinates sum up to 2^48, about 2.8 * 10^14, and
// a double has few bits left for the place in a cell; the value of every point outside is 0.

/// Simplex noise at a point: within -1..1, of mean 0 and root mean square 0.25. One value in a
/// million lies beyond +-0.88. The third derivatives are continuous.
///
/// K. Perlin, "Noise hardware", SIGGRAPH course notes, 2001; S. Gustavson, "Simplex noise
/// demystified", 2005. This noise differs from both: the support of a vertex ends inside the
/// simplices around it, within which its kernel is flatter, the lattice is hashed without a table,
/// and the gradients are the 120 vertices of a regular polytope, to 0.4 % of their length.
ZEL_PLATFORM_API float simplex_noise(float4 const& point, std::int64_t seed);

/// The same field in double precision. The float overload differs from it by at most about 5e-7.
ZEL_PLATFORM_API double simplex_noise(double4 const& point, std::int64_t seed);

/// Returns the same value, bit for bit, and sets `derivative` to the gradient along the four
/// coordinates, computed analytically.
ZEL_PLATFORM_API float simplex_noise(float4 const& point, std::int64_t seed, float4& derivative);
ZEL_PLATFORM_API double simplex_noise(double4 const& point, std::int64_t seed, double4& derivative);

/// The curl of a vector potential at `position`. The potential's three components are gradient
/// noises of (position, time), each within -1.1..1.1, on the lattice of simplex noise. The curl is
/// computed from analytic derivatives, so that its divergence is 0 but for rounding, and has
/// continuous first derivatives. The root mean square of its length is about 2.8.
///
/// R. Bridson, J. Hourihan, M. Nordenstam, "Curl-noise for procedural fluid flow", 2007. This noise
/// differs in its gradients: 56 spatial directions of one length to 0.1 %, without a part along the
/// time.
ZEL_PLATFORM_API float3 curl_noise(float3 const& position, float time, std::uint32_t seed);

/// As `curl_noise`, with a smoother potential on the same lattice and directions: the second
/// derivatives of the curl are continuous. The root mean square of its length is about 2.8. The
/// function keeps its spatial detail at any time inside the lattice, whose limit is about 4e14.
ZEL_PLATFORM_API float3 smooth_curl_noise(float3 const& position, float time, std::uint32_t seed);

/// Return the same values, bit for bit, and set `jacobian` to their analytic Jacobian: row r is the
/// gradient of component r; and `alongTime` to the derivatives along the time. All are continuous,
/// and the trace of the Jacobian is 0 but for rounding.
ZEL_PLATFORM_API float3 curl_noise_derivative(float3 const& position, float time,
                                              std::uint32_t seed, float3x3& jacobian,
                                              float3& alongTime);
ZEL_PLATFORM_API float3 smooth_curl_noise_derivative(float3 const& position, float time,
                                                     std::uint32_t seed, float3x3& jacobian,
                                                     float3& alongTime);

/// Sets the 16 floats of `table` to the quantities that `smooth_curl_noise` derives from the time
/// alone: the lattice cell of the point (0, 0, 0, time), and the place of the point in that cell.
/// The floats are finite for every finite time.
ZEL_PLATFORM_API void create_curl_noise_time_table(float time, float* table);

/// Returns the value of `smooth_curl_noise` at the time for which the 16 floats of `table` were
/// created, bit for bit.
ZEL_PLATFORM_API float3 smooth_curl_noise(float3 const& position, float const* table,
                                          std::uint32_t seed);

}  // namespace Orvane::Math
