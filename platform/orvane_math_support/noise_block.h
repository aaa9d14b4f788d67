#pragma once

#include "zel_platform/platform_api.h"

#include <cstdint>

namespace Orvane::Math {

// The noise functions of noise.h for a block of points, with the SIMD instructions of the machine.
// Each coordinate and each component of a result is an array of `count` elements. A count of 0 or
// below does nothing. Each result equals that of the function for one point, bit for bit, for any
// input, on any machine; only a sum of NaNs may be another NaN.
//
// A result array may be one of the coordinate arrays; otherwise no two arrays may overlap. Arrays
// need no alignment. A block of a few hundred points reaches the full speed.

/// simplex_noise of (x, y, z, w).
ZEL_PLATFORM_API void simplex_noise_block(float const* x, float const* y, float const* z,
                                          float const* w, int count, std::int64_t seed, float* out);
ZEL_PLATFORM_API void simplex_noise_block(double const* x, double const* y, double const* z,
                                          double const* w, int count, std::int64_t seed,
                                          double* out);

/// Also writes the derivatives along the four coordinates.
ZEL_PLATFORM_API void simplex_noise_block(float const* x, float const* y, float const* z,
                                          float const* w, int count, std::int64_t seed, float* out,
                                          float* alongX, float* alongY, float* alongZ,
                                          float* alongW);
ZEL_PLATFORM_API void simplex_noise_block(double const* x, double const* y, double const* z,
                                          double const* w, int count, std::int64_t seed,
                                          double* out, double* alongX, double* alongY,
                                          double* alongZ, double* alongW);

/// An octave of a fractal sum of noise.
struct NoiseOctave {
    double scale;      ///< of the position
    double timeScale;  ///< of the fourth coordinate
    double weight;
};

/// Adds an octave of simplex noise to sums in double precision: `weight * simplex_noise(scale *
/// x, scale * y, scale * z, timeScale * w)`.
ZEL_PLATFORM_API void add_simplex_octave_block(double const* x, double const* y, double const* z,
                                               double const* w, int count,
                                               NoiseOctave const& octave, std::int64_t seed,
                                               double* sum);

/// Also adds the derivatives along the four coordinates: `weight * (scale * derivative)` and, along
/// w, `weight * (timeScale * derivative)`.
ZEL_PLATFORM_API void add_simplex_octave_block(double const* x, double const* y, double const* z,
                                               double const* w, int count,
                                               NoiseOctave const& octave, std::int64_t seed,
                                               double* sum, double* alongX, double* alongY,
                                               double* alongZ, double* alongW);

/// curl_noise and smooth_curl_noise of the positions (x, y, z), each at its own time. The smooth
/// function is faster where all times are equal.
ZEL_PLATFORM_API void curl_noise_block(float const* x, float const* y, float const* z,
                                       float const* time, int count, std::uint32_t seed,
                                       float* outX, float* outY, float* outZ);
ZEL_PLATFORM_API void smooth_curl_noise_block(float const* x, float const* y, float const* z,
                                              float const* time, int count, std::uint32_t seed,
                                              float* outX, float* outY, float* outZ);

/// curl_noise_derivative and smooth_curl_noise_derivative. `jacobian` holds nine arrays:
/// jacobian[3 * r + c] is the derivative of component r along coordinate c. `alongTime` holds the
/// arrays of the three derivatives along the time.
ZEL_PLATFORM_API void curl_noise_derivative_block(float const* x, float const* y, float const* z,
                                                  float const* time, int count, std::uint32_t seed,
                                                  float* outX, float* outY, float* outZ,
                                                  float* const (&jacobian)[9],
                                                  float* const (&alongTime)[3]);
ZEL_PLATFORM_API void smooth_curl_noise_derivative_block(float const* x, float const* y,
                                                         float const* z, float const* time,
                                                         int count, std::uint32_t seed, float* outX,
                                                         float* outY, float* outZ,
                                                         float* const (&jacobian)[9],
                                                         float* const (&alongTime)[3]);

}  // namespace Orvane::Math
