#include <charconv>
#include <cmath>
#include <cstdio>
#include <numbers>
#include <stdexcept>

#include <drawing/palette.h>
#include <drawing/tracer.h>
#include <zel/field/math.h>
#include <zel/node/exact_gradients.h>
#include <zel/scalar/arithmetic.h>
#include <zel/scalar/spatial.h>

#include "commands.h"
#include "picture.h"
#include "scene.h"
#include "session.h"

namespace command {

namespace {

using Orvane::Math::float3;
using Quern::makePtr;

/// The distance of the eye to which the tracer's sizes belong.
constexpr float kEyeDistance = 8;

float3 vectorOf(std::array<float, 3> const& numbers) {
    return {numbers[0], numbers[1], numbers[2]};
}

std::string textOf(float3 const& p) {
    char text[64];
    std::snprintf(text, sizeof text, "%.9g,%.9g,%.9g", double{p.x}, double{p.y}, double{p.z});
    return text;
}

drawing::Color colorOf(std::string const& text) {
    std::uint32_t rgb = 0;
    char const* const end = text.data() + text.size();
    if (text.size() != 6 || std::from_chars(text.data(), end, rgb, 16).ptr != end)
        throw std::runtime_error("--color " + text + ": wanted six hexadecimal digits RRGGBB");
    return drawing::fromHex(rgb);
}

}  // namespace

void render(RenderOptions const& options, std::stop_token const& stop) {
    auto const size = parseSize(options.size);
    drawing::Color const color = colorOf(options.color);
    float3 const eye = vectorOf(options.eye);
    float3 const target = vectorOf(options.target);
    float const unit = Orvane::Math::length(eye - target) / kEyeDistance;
    float const across = std::hypot(eye.x - target.x, eye.z - target.z);
    if (!std::isnormal(unit) || !(across > 1e-4F * unit))
        throw std::runtime_error("--eye " + textOf(eye) +
                                 " must be at a finite distance beside --target " + textOf(target) +
                                 ", not above or below");
    expectPicture(options.output);
    zel::ScalarPtr field = zel::withExactGradients(
        Scene(options.scene).completeScalar("a surface needs a scalar field"));
    float const shrink = 1 / unit;
    field = makePtr<zel::ScalarFieldMultiply>(
        makePtr<zel::ScalarFieldScale>(std::move(field), float3{shrink, shrink, shrink}),
        makePtr<zel::ScalarFieldConstant>(shrink));

    constexpr float kRadians = std::numbers::pi_v<float> / 180;
    drawing::Camera const camera{eye * shrink, target * shrink,
                                 std::tan(options.angle / 2 * kRadians)};
    drawing::Meter meter(stop);
    Progress progress("rows");
    drawing::Image const image = traceSolids(
        meter, *field, camera, size[0], size[1], options.step,
        [&](auto const& at) {
            return std::vector<drawing::Color>(static_cast<std::size_t>(at.size()), color);
        },
        progress.function());
    writePicture(options.output, image);
}

}  // namespace command
