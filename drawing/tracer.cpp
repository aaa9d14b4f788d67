#include "drawing/tracer.h"

#include <cmath>
#include <numeric>

#include "drawing/palette.h"
#include "zel/field/math.h"

namespace drawing {

namespace {

using Orvane::Math::cross;
using Orvane::Math::dot;
using Orvane::Math::length;
using zel::float3;

constexpr int kFine = 2;  // samples for each pixel along an axis
constexpr float kFar = 40.0F;
constexpr float kTouch = 4e-4F;  // nearer than this is on the surface

float3 normalized(float3 const& v) {
    return v / length(v);
}

struct Ray {
    float3 origin, direction;  // direction of length 1

    float3 at(float t) const { return origin + direction * t; }
};

/// Marches along all rays together, from distance `start` on. `step(i, t, value)` receives the
/// value of the field at distance `t` on ray `i`, increases `t`, and returns whether the ray
/// continues.
template <class Step>
void march(Meter& meter, zel::ScalarField const& field, std::vector<Ray> const& rays, float start,
           Step const& step) {
    constexpr int kMostSteps = 220;
    std::vector<std::size_t> active(rays.size());
    std::iota(active.begin(), active.end(), std::size_t{0});
    std::vector<float> t(rays.size(), start);
    for (int round = 0; round < kMostSteps && !active.empty(); ++round) {
        Quern::Array<float3> positions;
        positions.reserve(static_cast<long long>(active.size()));
        for (std::size_t const i : active) positions.push_back(rays[i].at(t[i]));
        auto const values = meter.values(field, positions);
        std::size_t kept = 0;
        for (std::size_t k = 0; k < active.size(); ++k) {
            std::size_t const i = active[k];
            if (step(i, t[i], (*values)[static_cast<long long>(k)])) active[kept++] = i;
        }
        active.resize(kept);
    }
}

/// The distance of the surface along each ray; infinite if the ray misses it.
std::vector<float> surfaceDistances(Meter& meter, zel::ScalarField const& field,
                                    std::vector<Ray> const& rays, float safety) {
    std::vector<float> distances(rays.size(), INFINITY);
    march(meter, field, rays, 0.5F, [&](std::size_t i, float& t, float value) {
        if (value < kTouch * t) {
            distances[i] = t;
            return false;
        }
        t += value * safety;
        return t < kFar;
    });
    return distances;
}

/// The light that reaches the start of each ray, 0 to 1: the smaller the angle between the ray and
/// a solid, seen from its start, the less.
std::vector<float> lightAlong(Meter& meter, zel::ScalarField const& field,
                              std::vector<Ray> const& rays) {
    constexpr float kSharpness = 11.0F;  // about 1 / the angle of the light source
    std::vector<float> light(rays.size(), 1.0F);
    march(meter, field, rays, 0.02F, [&](std::size_t i, float& t, float value) {
        light[i] = std::min(light[i], 0.5F + 0.5F * kSharpness * value / t);
        if (light[i] <= 0) return false;
        t += std::clamp(std::fabs(value), 0.012F, 0.3F);
        return t < 6.0F;
    });
    for (float& l : light) {
        l = std::max(l, 0.0F);
        l = l * l * (3 - 2 * l);
    }
    return light;
}

/// The openness of the space above each point, 0 to 1: the field at some heights above it, relative
/// to the field above a plane.
std::vector<float> openness(Meter& meter, zel::ScalarField const& field,
                            std::vector<Ray> const& normals) {
    std::vector<float> closed(normals.size());
    float weight = 1;
    for (float const height : {0.04F, 0.1F, 0.2F, 0.36F}) {
        Quern::Array<float3> positions;
        positions.reserve(static_cast<long long>(normals.size()));
        for (Ray const& normal : normals) positions.push_back(normal.at(height));
        auto const values = meter.values(field, positions);
        for (std::size_t i = 0; i < closed.size(); ++i) {
            float const value = (*values)[static_cast<long long>(i)];
            closed[i] += weight * std::clamp(1 - value / height, 0.0F, 1.0F);
        }
        weight *= 0.75F;
    }
    for (float& c : closed) c = std::max(1 - c / 2.73F, 0.0F);
    return closed;
}

/// The rays through the rows from `first` on, of an image of `height` rows.
std::vector<Ray> cameraRays(Camera const& camera, int width, int height, int first, int rows) {
    float3 const forward = normalized(camera.target - camera.eye);
    float3 const right = normalized(cross(forward, {0, 1, 0}));
    float3 const up = cross(right, forward);
    std::vector<Ray> rays;
    rays.reserve(static_cast<std::size_t>(width) * static_cast<std::size_t>(rows));
    float const step = 2 * camera.halfWidth / static_cast<float>(width);
    float const top = camera.halfWidth * static_cast<float>(height) / static_cast<float>(width);
    for (int y = first; y < first + rows; ++y)
        for (int x = 0; x < width; ++x) {
            float const sx = (static_cast<float>(x) + 0.5F) * step - camera.halfWidth;
            float const sy = top - (static_cast<float>(y) + 0.5F) * step;
            rays.push_back({camera.eye, normalized(forward + right * sx + up * sy)});
        }
    return rays;
}

/// Draws `rays`, one a pixel, and returns an image of half the size.
Image drawRays(Meter& meter, zel::ScalarField const& field, std::vector<Ray> const& rays, int width,
               float safety, Albedo const& albedo) {
    float3 const sun = normalized({-0.7F, 0.85F, 0.55F});
    Color const sunlight{1.9F, 1.72F, 1.42F};
    Color const skylight{0.26F, 0.33F, 0.45F};
    Color const bounce{0.17F, 0.13F, 0.1F};
    Color const horizon = fromHex(0xDDE5EC);

    std::vector<float> const distances = surfaceDistances(meter, field, rays, safety);

    std::vector<std::size_t> hits;
    Quern::Array<float3> positions;
    for (std::size_t i = 0; i < rays.size(); ++i)
        if (std::isfinite(distances[i])) {
            hits.push_back(i);
            positions.push_back(rays[i].at(distances[i]));
        }
    auto const gradients = meter.gradients(field, positions);
    std::vector<Ray> normals, shadowRays;
    for (long long k = 0; k < positions.size(); ++k) {
        float3 const normal = normalized(gradients[k]);
        normals.push_back({positions[k], normal});
        shadowRays.push_back({positions[k] + normal * 0.006F, sun});
    }
    std::vector<float> const light = lightAlong(meter, field, shadowRays);
    std::vector<float> const open = openness(meter, field, normals);
    std::vector<Color> const colors = albedo(positions);

    Image fine(width, static_cast<int>(rays.size()) / width, horizon);
    for (std::size_t k = 0; k < hits.size(); ++k) {
        Ray const& ray = rays[hits[k]];
        float3 const normal = normals[k].direction;
        float const lit = std::max(dot(normal, sun), 0.0F) * light[k];
        float3 const half = normalized(sun - ray.direction);
        float const shine = 0.35F * std::pow(std::max(dot(normal, half), 0.0F), 48.0F) * lit;
        Color const incoming = sunlight * lit + skylight * (open[k] * (0.55F + 0.45F * normal.y)) +
                               bounce * (open[k] * (0.5F - 0.5F * normal.y));
        Color const surface =
            Orvane::Math::multiplyComponents(colors[k], incoming) + Color{shine, shine, shine};
        Color const exposed =
            Orvane::Math::mapComponents([](float c) { return 1 - std::exp(-1.15F * c); }, surface);
        float const haze = 1 - std::exp(-std::pow(distances[hits[k]] / 19.0F, 4.0F));
        int const index = static_cast<int>(hits[k]);
        fine.at(index % fine.width(), index / fine.width()) = mix(exposed, horizon, haze);
    }
    return fine.reduced(kFine);
}

}  // namespace

Image traceSolids(Meter& meter, zel::ScalarField const& field, Camera const& camera, int width,
                  int height, float safety, Albedo const& albedo, Progress const& progress) {
    return inBands(width, height, progress, [&](int top, int rows) {
        auto const rays =
            cameraRays(camera, width * kFine, height * kFine, top * kFine, rows * kFine);
        return drawRays(meter, field, rays, width * kFine, safety, albedo);
    });
}

std::vector<Color> albedoOfLeast(Meter& meter, std::vector<Part> const& parts,
                                 Quern::Array<float3> const& positions) {
    std::vector<Color> colors(static_cast<std::size_t>(positions.size()));
    std::vector<float> least(colors.size(), INFINITY);
    for (Part const& part : parts) {
        auto const values = meter.values(*part.field, positions);
        for (std::size_t i = 0; i < colors.size(); ++i) {
            float const value = (*values)[static_cast<long long>(i)];
            if (value < least[i]) {
                least[i] = value;
                colors[i] = part.color;
            }
        }
    }
    return colors;
}

}  // namespace drawing
