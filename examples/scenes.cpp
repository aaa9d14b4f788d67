#include "scenes.h"

#include <algorithm>
#include <array>
#include <limits>
#include <numbers>
#include <utility>
#include <vector>

namespace examples {

namespace {

constexpr float kPi = std::numbers::pi_v<float>;

ScalarPtr sphere() {
    return make<zel::ScalarFieldSphere>(float3{}, 1.0F);
}

ScalarPtr box() {
    return roundedBox({1.0F, 0.7F, 0.5F}, 8.0F);
}

ScalarPtr gear() {
    return intersect(gearProfile(), absolute(zPosition()) - 0.17F);
}

/// A rounded cube, cut by a sphere and bored through along each axis.
ScalarPtr die() {
    ScalarPtr const bore = cylinder(0.42F);
    ScalarPtr const bores = unite(bore, unite(turned(bore, {kPi / 2, 0, 0}),  //
                                              turned(bore, {0, kPi / 2, 0})));
    ScalarPtr const ball = make<zel::ScalarFieldSphere>(float3{}, 1.0F);
    return carve(intersect(roundedBox({0.78F, 0.78F, 0.78F}, 10.0F), ball), bores);
}

ScalarPtr terraces() {
    return make<zel::ScalarFieldFCurve>(mountains(), terraceCurve());
}

ScalarPtr spreadInk() {
    return ink(8);
}

ScalarPtr allSolids() {
    Solids const s = solids();
    return unite(unite(s.floor, s.gear), unite(s.die, s.ball));
}

}  // namespace

ScalarPtr blend(ScalarPtr const& a, ScalarPtr const& b, float radius) {
    // The quadratic smooth minimum. A child that appears twice is evaluated twice at a point, so
    // that the form in which children appear least often is the fastest.
    ScalarPtr const near =
        make<zel::ScalarFieldMax>(constant(radius) - absolute(a - b), constant(0));
    ScalarPtr const square = make<zel::ScalarFieldPow>(near, 2.0F);
    return unite(a, b) - square * (0.25F / radius);
}

ScalarPtr bounded(ScalarPtr const& solid, float3 const& center, float radius) {
    // A switch evaluates only the branch that it takes.
    constexpr float kMargin = 0.15F;
    ScalarPtr const bound = make<zel::ScalarFieldSphere>(center, radius);
    return make<zel::ScalarFieldSwitch>(bound - kMargin, bound, solid);
}

ScalarPtr cylinder(float radius) {
    // A sphere that is stretched infinitely along z.
    constexpr float kEndless = std::numeric_limits<float>::infinity();
    ScalarPtr const sphere = make<zel::ScalarFieldSphere>(float3{}, radius);
    return make<zel::ScalarFieldScale>(sphere, float3{1, 1, kEndless});
}

ScalarPtr roundedBox(float3 const& halfWidths, float exponent) {
    // For a box of size 1 the size is the half width. Scaled to its half widths it has a slope of
    // at most 1 / least.
    ScalarPtr const unit = make<zel::ScalarFieldImplicitBox>(float3{}, 1.0F, exponent);
    float const least = std::min({halfWidths.x, halfWidths.y, halfWidths.z});
    return make<zel::ScalarFieldScale>(unit, halfWidths) * least;
}

ScalarPtr sharpBox(float3 const& halfWidths) {
    return intersect(intersect(absolute(xPosition()) - halfWidths.x,  //
                               absolute(yPosition()) - halfWidths.y),
                     absolute(zPosition()) - halfWidths.z);
}

ScalarPtr gearProfile() {
    constexpr int kTeeth = 12;
    constexpr int kHoles = 6;
    // A bar across the whole wheel makes two teeth.
    ScalarPtr const bar = intersect(absolute(xPosition()) - 1.0F, absolute(yPosition()) - 0.105F);
    ScalarPtr teeth = bar;
    for (int i = 1; i < kTeeth / 2; ++i)
        teeth = unite(teeth, turned(bar, {0, 0, 2 * kPi * static_cast<float>(i) / kTeeth}));

    ScalarPtr const hole = moved(cylinder(0.14F), {0.52F, 0, 0});
    ScalarPtr holes = hole;
    for (int i = 1; i < kHoles; ++i)
        holes = unite(holes, turned(hole, {0, 0, 2 * kPi * static_cast<float>(i) / kHoles}));

    ScalarPtr const key = moved(sharpBox({0.06F, 0.08F, 10.0F}), {0, 0.2F, 0});
    ScalarPtr const shaft = unite(cylinder(0.2F), key);
    return carve(blend(cylinder(0.8F), teeth, 0.12F), unite(holes, shaft));
}

ScalarPtr gyroidBall() {
    constexpr float kFrequency = 8.5F;
    constexpr float kSlope = 1.7F;  // bound of the gyroid's slope at frequency 1
    ScalarPtr const x = xPosition() * kFrequency;
    ScalarPtr const y = yPosition() * kFrequency;
    ScalarPtr const z = zPosition() * kFrequency;
    ScalarPtr const gyroid = sine(x) * cosine(y) + sine(y) * cosine(z) + sine(z) * cosine(x);
    ScalarPtr const walls = (absolute(gyroid) - 0.35F) * (1 / (kFrequency * kSlope));
    return intersect(walls, sphere());
}

Solids solids() {
    float3 const gearPlace{-2.0F, 0.99F, -0.15F};
    float3 const diePlace{0.15F, 0.78F, 0.5F};
    float3 const ballPlace{2.15F, 1.0F, -0.2F};
    ScalarPtr const standing = turned(turned(gear(), {0, 0, 0.02F}), {0, -0.35F, 0});
    return {make<zel::ScalarFieldPlane>(float3{}, float3{0, 1, 0}),
            bounded(moved(standing, gearPlace), gearPlace, 1.03F),
            bounded(moved(turned(die(), {0, 0.6F, 0}), diePlace), diePlace, 1.0F),
            bounded(moved(turned(gyroidBall(), {0.3F, 0.4F, 0}), ballPlace), ballPlace, 1.0F)};
}

ScalarPtr interference() {
    constexpr std::array<float3, 4> kCenters{
        {{-1.15F, 0.55F, 0}, {1.0F, 0.75F, 0}, {0.65F, -0.8F, 0}, {-0.6F, -0.65F, 0}}};
    ScalarPtr sum;
    for (float3 const& center : kCenters) {
        ScalarPtr const distance = make<zel::ScalarFieldSphere>(center, 0.0F);
        ScalarPtr const decay = make<zel::ScalarFieldExp>(distance * -0.55F);
        ScalarPtr const wave = decay * cosine(distance * 26.0F);
        sum = sum ? sum + wave : wave;
    }
    return sum;
}

ScalarPtr hills() {
    ScalarPtr const x = xPosition();
    ScalarPtr const y = yPosition();
    ScalarPtr const warpedX = x * 3.0F + sine(y * 2.3F) * 0.9F;
    ScalarPtr const warpedY = y * 3.0F + cosine(x * 1.9F) * 0.9F;
    auto const square = make<zel::VectorFieldLengthSquared>(make<zel::VectorFieldPosition>());
    ScalarPtr const fall = make<zel::ScalarFieldExp>(ScalarPtr(square) * -0.35F);
    return sine(warpedX) * cosine(warpedY) * fall + fall * 0.35F;
}

VectorPtr vortexStreet() {
    struct Eddy {
        float3 center;
        float turn;  // counter-clockwise if positive
    };
    constexpr std::array<Eddy, 6> kEddies{{{{-2.0F, 0.42F, 0}, -1},
                                           {{-1.2F, -0.42F, 0}, 1},
                                           {{-0.4F, 0.42F, 0}, -1},
                                           {{0.4F, -0.42F, 0}, 1},
                                           {{1.2F, 0.42F, 0}, -1},
                                           {{2.0F, -0.42F, 0}, 1}}};
    VectorPtr flow = make<zel::VectorFieldConstant>(float3{0.35F, 0, 0});
    for (Eddy const& eddy : kEddies) {
        // turn * axis x r / (|r|^2 + core): fastest near the rim of the core, and 0 at the centre.
        VectorPtr const axis = make<zel::VectorFieldConstant>(float3{0, 0, 0.55F * eddy.turn});
        VectorPtr const r = make<zel::VectorFieldPosition>();
        VectorPtr const swirl = make<zel::VectorFieldCross>(axis, r);
        ScalarPtr const square = make<zel::VectorFieldLengthSquared>(r);
        VectorPtr const vortex = make<zel::VectorFieldVSDivide>(swirl, square + 0.06F);
        flow = flow + make<zel::VectorFieldTranslate>(vortex, eddy.center);
    }
    return flow;
}

ScalarPtr mountains() {
    return fractalNoise(8, 0.95F, 20, 0.48F) * 1.2F;
}

Quern::Ptr<Orvane::Math::FCurve> terraceCurve() {
    using Orvane::Math::FCurve;
    constexpr int kSteps = 8;
    constexpr double kHeight = 2.0 / kSteps;
    constexpr double kSlope = 0.15;  // of a tread, where it meets the riser
    std::vector<FCurve::Key> keys;
    for (int i = 0; i < kSteps; ++i) {
        double const x = -1 + i * kHeight;
        keys.push_back({x, x, kSlope, kSlope, FCurve::Segment::kLinear});
        double const edge = x + 0.6 * kHeight;
        keys.push_back({edge, x + kSlope * 0.6 * kHeight, kSlope, kSlope, FCurve::Segment::kCubic});
    }
    keys.push_back({1, 1, kSlope, kSlope, FCurve::Segment::kLinear});
    auto const end = FCurve::Extrapolation::kCycleWithOffset;
    return make<FCurve>(std::move(keys), end, end);
}

ScalarPtr marbleVeins() {
    ScalarPtr const coordinate = xPosition() * 3.5F + yPosition() * 2.2F;
    return displaced(absolute(sine(coordinate)), turbulence(6, 0.8F, 11, 0.45F) * 0.1F);
}

ScalarPtr ink(int steps) {
    constexpr float kStep = 0.03F;
    ScalarPtr const radius =
        make<zel::ScalarFieldScale>(make<zel::ScalarFieldSphere>(float3{}, 0.0F),
                                    float3{1, 1, std::numeric_limits<float>::infinity()});
    ScalarPtr const rings = cosine(radius * 22.0F);
    ScalarPtr field = make<zel::ScalarFieldSwitch>(radius - 0.75F, constant(-2), rings);
    VectorPtr const flow = turbulence(1, 1, 5);
    for (int i = 0; i < steps; ++i) field = make<zel::ScalarFieldAdvect>(field, flow, kStep);
    return field;
}

ScalarPtr blossom() {
    constexpr float kEndless = std::numeric_limits<float>::infinity();
    constexpr float kWidth = 0.5F;
    ScalarPtr const petals =  // two opposite petals
        make<zel::ScalarFieldScale>(make<zel::ScalarFieldSphere>(float3{}, 1.0F),
                                    float3{1.2F, kWidth, kEndless}) *
        kWidth;
    ScalarPtr all = petals;
    for (float const angle : {kPi / 3, 2 * kPi / 3})
        all = unite(all, turned(petals, {0, 0, angle}));
    return all * 1.2F;
}

std::span<Scene const> scenes() {
    static constexpr std::array kScenes{
        Scene{"sphere", "the unit sphere", sphere},
        Scene{"box", "a rounded box, half widths 1, 0.7 and 0.5", box},
        Scene{"gear", "a gear wheel around the z axis, 0.34 thick", gear},
        Scene{"die", "a rounded cube cut by a sphere and bored along each axis", die},
        Scene{"gyroid", "a ball made of the walls of a gyroid", gyroidBall},
        Scene{"solids", "a gear, a die and a gyroid ball on a floor", allSolids},
        Scene{"interference", "rings from four centres", interference},
        Scene{"hills", "smooth hills and hollows", hills},
        Scene{"mountains", "fractal noise as the height of a landscape", mountains},
        Scene{"terraces", "the mountains, cut into terraces by a curve", terraces},
        Scene{"marble", "stripes that are warped by noise", marbleVeins},
        Scene{"ink", "a drop of rings that a flow of noise has spread", spreadInk},
        Scene{"blossom", "an implicit blossom around the z axis, not a distance", blossom},
    };
    return kScenes;
}

Scene const* findScene(std::string_view name) {
    for (Scene const& scene : scenes())
        if (scene.name == name) return &scene;
    return nullptr;
}

}  // namespace examples
