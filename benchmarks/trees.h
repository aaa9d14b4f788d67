#pragma once

#include <cmath>
#include <memory>
#include <utility>

#include "naive_tree.h"
#include "zel/zel.h"

// The trees that are measured, each in two forms: a function that builds the nodes, and the same
// formula by hand, with the nodes' order of operations, so that all results agree bit for bit.

struct ZelNodes {
    using Ptr = zel::ScalarPtr;
    using Constant = zel::ScalarFieldConstant;
    using XPosition = zel::ScalarFieldXPosition;
    using YPosition = zel::ScalarFieldYPosition;
    using ZPosition = zel::ScalarFieldZPosition;
    using Sphere = zel::ScalarFieldSphere;
    using Box = zel::ScalarFieldImplicitBox;
    using Plane = zel::ScalarFieldPlane;
    using Negative = zel::ScalarFieldNegative;
    using Absolute = zel::ScalarFieldAbsolute;
    using Clamp = zel::ScalarFieldClamp;
    using Add = zel::ScalarFieldAdd;
    using Subtract = zel::ScalarFieldSubtract;
    using Multiply = zel::ScalarFieldMultiply;
    using Min = zel::ScalarFieldMin;
    using Max = zel::ScalarFieldMax;
    using Lerp = zel::ScalarFieldLerp;
    template <class Node, class... Args> static Ptr make(Args&&... args) {
        return Quern::makePtr<Node>(std::forward<Args>(args)...);
    }
};

struct NaiveNodes {
    using Ptr = naive::NodePtr;
    using Constant = naive::Constant;
    using XPosition = naive::XPosition;
    using YPosition = naive::YPosition;
    using ZPosition = naive::ZPosition;
    using Sphere = naive::Sphere;
    using Box = naive::Box;
    using Plane = naive::Plane;
    using Negative = naive::Negative;
    using Absolute = naive::Absolute;
    using Clamp = naive::Clamp;
    using Add = naive::Add;
    using Subtract = naive::Subtract;
    using Multiply = naive::Multiply;
    using Min = naive::Min;
    using Max = naive::Max;
    using Lerp = naive::Lerp;
    template <class Node, class... Args> static Ptr make(Args&&... args) {
        return std::make_shared<Node>(std::forward<Args>(args)...);
    }
};

/// A sphere; a superellipsoid in trees with boxes, where the exponent is used.
struct Solid {
    Orvane::Math::float3 center;
    float size;
    float exponent;
};

struct HalfSpace {
    Orvane::Math::float3 point, normal;
};

/// The numbers in the trees. They are run-time values, like those of nodes: if the compiler knew an
/// exponent, it would replace the call of pow by a multiplication.
struct Parameters {
    Solid body{{-0.6F, 0.1F, 0.2F}, 0.7F, 3.0F};
    Solid head{{-0.2F, 0.8F, 0.0F}, 0.4F, 2.0F};
    Solid arm{{-0.9F, 0.5F, -0.3F}, 0.3F, 2.0F};
    Solid shell{{0.7F, -0.1F, 0.1F}, 0.8F, 4.0F};
    Solid hollow{{0.9F, 0.2F, 0.0F}, 0.5F, 2.0F};
    Solid ring{{0.1F, -0.4F, 0.6F}, 0.6F, 2.0F};
    HalfSpace cut{{0.0F, 0.9F, 0.0F}, {0.2F, 1.0F, 0.1F}};
    HalfSpace ground{{0.0F, -1.1F, 0.0F}, {0.1F, 2.0F, -0.3F}};
    float thickness = 0.05F;
    float blendFrom = 0.0F, blendTo = 1.0F;
    float scale = 0.75F, shift = 0.3F;
};

/// min(lerp(max(min(min(body, head), arm), cut), max(shell, -hollow), clamp(x)),
///     min(abs(ring) - thickness, ground)): signed distances to spheres and planes. With boxes,
///     body
/// and shell are superellipsoids; their four calls of pow each take most of the time in any form.
template <bool kBoxes> struct CsgTree {
    static constexpr char const* kName = kBoxes ? "csg with boxes" : "csg of spheres";

    template <class N> static typename N::Ptr build(Parameters const& k) {
        auto const sphere = [](Solid const& s) {
            return N::template make<typename N::Sphere>(s.center, s.size);
        };
        auto const solid = [&](Solid const& s) {
            if constexpr (kBoxes)
                return N::template make<typename N::Box>(s.center, s.size, s.exponent);
            else
                return sphere(s);
        };
        auto const plane = [](HalfSpace const& h) {
            return N::template make<typename N::Plane>(h.point, h.normal);
        };
        auto const min = [](auto a, auto b) {
            return N::template make<typename N::Min>(std::move(a), std::move(b));
        };
        auto const max = [](auto a, auto b) {
            return N::template make<typename N::Max>(std::move(a), std::move(b));
        };
        auto figure = max(min(min(solid(k.body), sphere(k.head)), sphere(k.arm)), plane(k.cut));
        auto bowl = max(solid(k.shell), N::template make<typename N::Negative>(sphere(k.hollow)));
        auto blend = N::template make<typename N::Clamp>(N::template make<typename N::XPosition>(),
                                                         k.blendFrom, k.blendTo);
        auto rind = N::template make<typename N::Subtract>(
            N::template make<typename N::Absolute>(sphere(k.ring)),
            N::template make<typename N::Constant>(k.thickness));
        return min(N::template make<typename N::Lerp>(std::move(figure), std::move(bowl),
                                                      std::move(blend)),
                   min(std::move(rind), plane(k.ground)));
    }

    /// Holds a copy of the parameters: the compiler can tell that no result overwrites them.
    struct Fused {
        explicit Fused(Parameters const& parameters) : k(parameters) {
            k.cut.normal = k.cut.normal / length(k.cut.normal);
            k.ground.normal = k.ground.normal / length(k.ground.normal);
            k.body = levelled(k.body);
            k.shell = levelled(k.shell);
        }

        float operator()(Orvane::Math::float3 const& p) const {
            float const figure = max(
                min(min(solid(k.body, p), sphere(k.head, p)), sphere(k.arm, p)), plane(k.cut, p));
            float const bowl = max(solid(k.shell, p), -sphere(k.hollow, p));
            // Both alternatives are computed, without a branch, so that the loop can be vectorised.
            float const below = p.x >= k.blendTo ? k.blendTo : p.x;
            float const t = p.x <= k.blendFrom ? k.blendFrom : below;
            float const blended = bowl * t + figure * (1 - t);
            float const rind = std::fabs(sphere(k.ring, p)) - k.thickness;
            return min(blended, min(rind, plane(k.ground, p)));
        }

    private:
        static float min(float a, float b) { return a < b ? a : b; }
        static float max(float a, float b) { return a > b ? a : b; }
        static Solid levelled(Solid s) {
            if constexpr (kBoxes) s.size = std::pow(std::fabs(s.size), s.exponent);
            return s;
        }
        static float sphere(Solid const& s, Orvane::Math::float3 const& p) {
            float const x = p.x - s.center.x, y = p.y - s.center.y, z = p.z - s.center.z;
            return std::sqrt((y * y + x * x) + z * z) - s.size;
        }
        static float solid(Solid const& s, Orvane::Math::float3 const& p) {
            if constexpr (kBoxes) {
                float const x = std::pow(std::fabs(p.x - s.center.x), s.exponent);
                float const y = std::pow(std::fabs(p.y - s.center.y), s.exponent);
                float const z = std::pow(std::fabs(p.z - s.center.z), s.exponent);
                return std::pow((y + x) + z, 1 / s.exponent) - s.size;
            } else {
                return sphere(s, p);
            }
        }
        static float plane(HalfSpace const& h, Orvane::Math::float3 const& p) {
            float const x = p.x - h.point.x, y = p.y - h.point.y, z = p.z - h.point.z;
            return (y * h.normal.y + x * h.normal.x) + z * h.normal.z;
        }

        Parameters k;
    };
};

/// (x * y + z) * scale - abs(y + shift): nodes so cheap that the traversal dominates the time.
struct ArithmeticTree {
    static constexpr char const* kName = "arithmetic";

    template <class N> static typename N::Ptr build(Parameters const& k) {
        auto product = N::template make<typename N::Multiply>(
            N::template make<typename N::XPosition>(), N::template make<typename N::YPosition>());
        auto sum = N::template make<typename N::Add>(std::move(product),
                                                     N::template make<typename N::ZPosition>());
        auto scaled = N::template make<typename N::Multiply>(
            std::move(sum), N::template make<typename N::Constant>(k.scale));
        auto shifted =
            N::template make<typename N::Add>(N::template make<typename N::YPosition>(),
                                              N::template make<typename N::Constant>(k.shift));
        return N::template make<typename N::Subtract>(
            std::move(scaled), N::template make<typename N::Absolute>(std::move(shifted)));
    }

    struct Fused {
        explicit Fused(Parameters const& k) : scale(k.scale), shift(k.shift) {}
        float operator()(Orvane::Math::float3 const& p) const {
            return (p.x * p.y + p.z) * scale - std::fabs(p.y + shift);
        }
        float scale, shift;
    };
};

/// lerp(a, b, clamp(x)) of two moved vector fields, 14 nodes: a = rotate(p * stretch + shift), and
/// b = -translate(scale(p - centre)).
struct VectorTree {
    using float3 = Orvane::Math::float3;

    struct Parameters {
        float3 stretch{1.1F, 0.9F, 1.2F}, shift{0.1F, -0.2F, 0.3F}, centre{0.5F, 0.4F, -0.1F};
        float3 scale{1.5F, 0.75F, 1.25F}, offset{0.2F, 0.1F, -0.3F};
        Orvane::Math::float4 rotation{0.1825742F, 0.3651484F, 0.5477226F, 0.7302967F};
        float from = 0, to = 1;
    };

    static zel::VectorPtr build(Parameters const& k) {
        using namespace zel;
        using Quern::makePtr;
        auto const at = [] { return makePtr<VectorFieldPosition>(); };
        auto const constant = [](float3 const& v) { return makePtr<VectorFieldConstant>(v); };
        auto stretched = makePtr<VectorFieldMultiply>(at(), constant(k.stretch));
        auto shifted = makePtr<VectorFieldAdd>(std::move(stretched), constant(k.shift));
        auto scaled = makePtr<VectorFieldScale>(
            makePtr<VectorFieldSubtract>(at(), constant(k.centre)), k.scale);
        return makePtr<VectorFieldLerp>(
            makePtr<VectorFieldRotate>(std::move(shifted), k.rotation),
            makePtr<VectorFieldNegative>(
                makePtr<VectorFieldTranslate>(std::move(scaled), k.offset)),
            makePtr<ScalarFieldClamp>(makePtr<ScalarFieldXPosition>(), k.from, k.to));
    }

    struct Fused {
        float3 operator()(float3 const& p) const {
            using namespace Orvane::Math;
            auto const times = [](float3 const& a, float3 const& b) {
                return float3{a.x * b.x, a.y * b.y, a.z * b.z};
            };
            float3 const turned = rotate(conjugate(k.rotation), p), moved = p - k.offset,
                         shrunk{moved.x / k.scale.x, moved.y / k.scale.y, moved.z / k.scale.z};
            float3 const a = rotate(k.rotation, times(turned, k.stretch) + k.shift),
                         b = -times(k.scale, shrunk - k.centre);
            float const below = p.x >= k.to ? k.to : p.x;
            float const t = p.x <= k.from ? k.from : below;
            return a * (1 - t) + b * t;
        }
        Parameters k;
    };
};
