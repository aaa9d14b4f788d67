#pragma once

#include "zel_platform/platform_api.h"

#include <cstdint>

namespace Orvane::Math {

// The noise functions of noise.h for many points at once, with the vector instructions of the
// machine. Coordinates and results are separate arrays of `count` elements; nothing is done for a
// count of 0 or below. Each element is, in every bit, what the function for one point gives, for
// any input, on any machine.
//
// A result array may be one of the coordinate arrays; otherwise no two arrays may overlap. Arrays
// need no alignment. Blocks of some hundred points use the instructions fully.

/// simplex_noise of (x, y, z, w).
ZEL_PLATFORM_API void simplex_noise_block(float const* x, float const* y, float const* z,
                                          float const* w, int count, std::int64_t seed, float* out);
ZEL_PLATFORM_API void simplex_noise_block(double const* x, double const* y, double const* z,
                                          double const* w, int count, std::int64_t seed,
                                          double* out);

/// Also the derivatives along the four coordinates.
ZEL_PLATFORM_API void simplex_noise_block(float const* x, float const* y, float const* z,
                                          float const* w, int count, std::int64_t seed, float* out,
                                          float* alongX, float* alongY, float* alongZ,
                                          float* alongW);
ZEL_PLATFORM_API void simplex_noise_block(double const* x, double const* y, double const* z,
                                          double const* w, int count, std::int64_t seed,
                                          double* out, double* alongX, double* alongY,
                                          double* alongZ, double* alongW);

/// curl_noise, and smooth_curl_noise, of the position (x, y, z) at a time of its own for each. The
/// smooth one is quicker where all times are the same.
ZEL_PLATFORM_API void curl_noise_block(float const* x, float const* y, float const* z,
                                       float const* time, int count, std::uint32_t seed,
                                       float* outX, float* outY, float* outZ);
ZEL_PLATFORM_API void smooth_curl_noise_block(float const* x, float const* y, float const* z,
                                              float const* time, int count, std::uint32_t seed,
                                              float* outX, float* outY, float* outZ);

/// curl_noise_derivative, and smooth_curl_noise_derivative. `jacobian` holds nine arrays, row after
/// row: jacobian[3 * r + c] is the derivative of component r along coordinate c.
ZEL_PLATFORM_API void curl_noise_derivative_block(float const* x, float const* y, float const* z,
                                                  float const* time, int count, std::uint32_t seed,
                                                  float* outX, float* outY, float* outZ,
                                                  float* const (&jacobian)[9]);
ZEL_PLATFORM_API void smooth_curl_noise_derivative_block(float const* x, float const* y,
                                                         float const* z, float const* time,
                                                         int count, std::uint32_t seed, float* outX,
                                                         float* outY, float* outZ,
                                                         float* const (&jacobian)[9]);

}  // namespace Orvane::Math
