#include <algorithm>
#include <functional>
#include <random>
#include <span>
#include <typeinfo>
#include <valarray>

#include "support/probe.h"

// Nodes with exact gradients, each beside the same function in double precision, which shares no
// code with the nodes. The value is compared with that function and the gradient with its central
// differences. Curves and noises have their tests elsewhere, and their gradients those of every
// node.
using namespace support;
using namespace zel;

namespace {
using double3 = std::valarray<double>;
double3 triple(double x, double y, double z) {
    return {x, y, z};
}
double3 triple(float3 const& a) {
    return triple(a.x, a.y, a.z);
}
double inner(double3 const& a, double3 const& b) {
    return (a * b).sum();
}
double norm(double3 const& a) {
    return std::sqrt(inner(a, a));
}
double3 crossed(double3 const& a, double3 const& b) {
    return a.cshift(1) * b.cshift(2) - a.cshift(2) * b.cshift(1);
}
/// Rodrigues' formula.
double3 turned(double3 const& p, double3 const& axis, double angle) {
    double3 const n = axis / norm(axis);
    return p * std::cos(angle) + crossed(n, p) * std::sin(angle) +
           n * (inner(n, p) * (1 - std::cos(angle)));
}

std::mt19937 engine(20240611);
float number(double low, double high) {
    return static_cast<float>(std::uniform_real_distribution(low, high)(engine));
}
float3 numbers(double low, double high) {
    return {number(low, high), number(low, high), number(low, high)};
}

double3 components(double a) {
    return double3(a, 1);
}
double3 components(double3 const& a) {
    return a;
}
template <class T> auto floatsOf(T const& a) {
    return std::bit_cast<std::array<float, sizeof(T) / sizeof(float)>>(a);
}

/// What a node should be a step along an axis away.
using Moved = std::function<double3(unsigned axis, double step)>;

/// Compares a value and a gradient with a function. Whether it could: at a kink or a jump the
/// differences to both sides disagree. No template, since it is used for a hundred nodes.
bool compare(std::span<float const> got, std::span<float const> gradient, Moved const& f) {
    constexpr double kStep = 1e-6, kTolerance = 2e-4;
    double3 const value = f(0, 0);
    for (unsigned axis = 0; axis < 3; ++axis) {
        double3 const above = (f(axis, kStep) - value) / kStep,
                      below = (value - f(axis, -kStep)) / kStep, slope = (above + below) / 2.0;
        for (std::size_t r = 0; r < value.size(); ++r) {
            double const slack = kTolerance * (10 + std::abs(slope[r]));
            if (std::abs(above[r] - below[r]) > slack) return false;
            EXPECT_NEAR(got[r], value[r], kTolerance * (1 + std::abs(value[r])));
            EXPECT_NEAR(gradient[3 * r + axis], slope[r], slack / 5)
                << "derivative of " << r << " along " << axis;
        }
    }
    return true;
}
bool compare(ScalarField const& node, float3 const& p, Moved const& f) {
    return compare(floatsOf(node.eval(p, 1)), floatsOf(node.grad(p, 1)), f);
}
bool compare(VectorField const& node, float3 const& p, Moved const& f) {
    return compare(floatsOf(node.eval(p, 1)), floatsOf(node.grad(p, 1)), f);
}
/// Of 200 random nodes of a class that `once` compares.
void compareMany(std::type_info const& node, std::function<bool()> const& once) {
    SCOPED_TRACE(typeNameOf(node).c_str());
    int compared = 0;
    for (int n = 0; n < 200; ++n) compared += once();
    EXPECT_GE(compared, 150);
}

/// A child with a random value and gradient, and its value in double precision.
struct Child {
    float value;
    float3 gradient = numbers(-2, 2);
    ScalarPtr node = s(value, gradient);
    double at(unsigned axis, double h) const { return value + h * floatsOf(gradient)[axis]; }
};
struct VectorChild {
    float3 value;
    float3x3 gradient{{numbers(-2, 2), numbers(-2, 2), numbers(-2, 2)}};
    VectorPtr node = v(value, gradient);
    double3 at(unsigned axis, double h) const {
        auto const g = floatsOf(gradient);
        return {value.x + h * g[axis], value.y + h * g[3 + axis], value.z + h * g[6 + axis]};
    }
};
constexpr auto any = [] { return Child{number(-3, 3)}; };
constexpr auto tiny = [] { return Child{number(-9e-5, 9e-5)}; };
constexpr auto belowOne = [] { return Child{number(-0.9, 0.9)}; };
constexpr auto positive = [] { return Child{number(0.5, 3)}; };
constexpr auto negative = [] { return Child{number(-3, -0.5)}; };
constexpr auto vector = [] { return VectorChild{numbers(-3, 3)}; };
constexpr auto positives = [] { return VectorChild{numbers(0.5, 3)}; };

template <class... Makers> auto from(Makers... makers) {
    return std::tuple<Makers...>(makers...);
}

/// A node whose gradient is the derivative of its value.
template <class Node> auto exact(auto const&... arguments) {
    using Pointer = std::conditional_t<std::is_base_of_v<ScalarField, Node>, ScalarPtr, VectorPtr>;
    Pointer const node = makePtr<Node>(arguments...), copy = withExactGradients(node);
    EXPECT_TRUE(copy->hasExactGradient());
    return copy;
}

/// A node of random children, beside `f` of their values.
template <class Node, class... Parameter, class... Makers>
void of(auto const& f, std::tuple<Makers...> const& makers, Parameter... parameter) {
    compareMany(typeid(Node), [&] {
        auto const compareWith = [&](auto const&... c) {
            return compare(*exact<Node>(c.node..., parameter...), {}, [&](unsigned axis, double h) {
                return components(f(c.at(axis, h)...));
            });
        };
        return std::apply([&](auto... make) { return compareWith(make()...); }, makers);
    });
}
using Unary = double (*)(double);
using Binary = double (*)(double, double);
/// A node beside `f` of the position.
template <class Node> void at(auto const& f, Node const& node) {
    compareMany(typeid(Node), [&] {
        float3 const p = numbers(-2, 2);
        return compare(node, p, [&](unsigned axis, double h) {
            double3 moved = triple(p);
            moved[axis] += h;
            return components(f(moved));
        });
    });
}

constexpr auto choose = [](double condition, auto const& a, auto const& b) {
    return condition > 0 ? a : b;
};
constexpr auto mix = [](auto const& a, auto const& b, double t) {
    return std::remove_cvref_t<decltype(a)>(a + (b - a) * t);
};
constexpr auto eachOf = [](Binary f) {
    return [=](double3 const& a, double3 const& b) {
        return triple(f(a[0], b[0]), f(a[1], b[1]), f(a[2], b[2]));
    };
};
constexpr auto root = [](auto const& a) { return std::sqrt(a); };
auto const k = from(any);
auto const v1 = from(vector);
auto const kk = from(any, any);
auto const vv = from(vector, vector);
}  // namespace

TEST(Derivatives, OfScalarNodes) {
    of<ScalarFieldAdd>(std::plus<>(), kk);
    of<ScalarFieldSubtract>(std::minus<>(), kk);
    of<ScalarFieldNegative>(std::negate<>(), k);
    of<ScalarFieldMultiply>(std::multiplies<>(), kk);
    of<ScalarFieldDivide>(std::divides<>(), from(any, positive));
    of<ScalarFieldDivide>(std::divides<>(), from(any, negative));
    of<ScalarFieldMax>(Binary(std::fmax), kk);
    of<ScalarFieldMin>(Binary(std::fmin), kk);
    of<ScalarFieldMask>([](double u) { return u > 0 ? 1.0 : 0.0; }, k);
    of<ScalarFieldClamp>([](double u) { return std::clamp(u, -0.5, 0.75); }, k, -0.5F, 0.75F);
    of<ScalarFieldSwitch>(choose, from(any, any, any));
    of<ScalarFieldAbsolute>(Unary(std::fabs), k);
    of<ScalarFieldPow>([](double u) { return 1 / (u * std::sqrt(u)); }, from(positive), -1.5F);
    of<ScalarFieldPow>([](double u) { return u * u * u; }, k, 3.0F);
    of<ScalarFieldSquareRoot>(root, from(positive));
    of<ScalarFieldExp>(Unary(std::exp), k);
    of<ScalarFieldLerp>(mix, from(any, any, any));
    of<ScalarFieldSine>(Unary(std::sin), k);
    of<ScalarFieldCosine>(Unary(std::cos), k);
    of<ScalarFieldTangent>(Unary(std::tan), from(belowOne));
    of<ScalarFieldArcSine>(Unary(std::asin), from(belowOne));
    of<ScalarFieldArcCosine>(Unary(std::acos), from(belowOne));
    of<ScalarFieldArcTangent>(Unary(std::atan), k);
    of<ScalarFieldArcTangent_2D>(Binary(std::atan2), from(any, positive));
    of<ScalarFieldArcTangent_2D>(Binary(std::atan2), from(any, negative));
    of<ScalarFieldArcTangent_2D>(Binary(std::atan2), from(negative, tiny));
    of<VectorFieldXComponent>([](double3 a) { return a[0]; }, v1);
    of<VectorFieldYComponent>([](double3 a) { return a[1]; }, v1);
    of<VectorFieldZComponent>([](double3 a) { return a[2]; }, v1);
    of<VectorFieldComponent>([](double3 a) { return a[1]; }, v1, 1);
    of<VectorFieldDotProduct>(inner, vv);
    of<VectorFieldLength>(norm, from(positives));
    of<VectorFieldLengthSquared>([](double3 a) { return inner(a, a); }, v1);
}

TEST(Derivatives, OfVectorNodes) {
    of<VectorFieldFromComponents>([](auto... a) { return triple(a...); }, from(any, any, any));
    of<VectorFieldAdd>(std::plus<>(), vv);
    of<VectorFieldSubtract>(std::minus<>(), vv);
    of<VectorFieldNegative>(std::negate<>(), v1);
    of<VectorFieldMultiply>(std::multiplies<>(), vv);
    of<VectorFieldDivide>(std::divides<>(), from(vector, positives));
    of<VectorFieldPow>([](double3 a) { return triple(std::sqrt(a[0]), a[1] * a[1], 1 / a[2]); },
                       from(positives), float3{0.5F, 2, -1});
    of<VectorFieldSquareRoot>(root, from(positives));
    of<VectorFieldCross>(crossed, vv);
    of<VectorFieldVSMultiply>(std::multiplies<>(), from(vector, any));
    of<VectorFieldVSDivide>(std::divides<>(), from(vector, positive));
    of<VectorFieldLerp>(mix, from(vector, vector, any));
    of<VectorFieldSwitch>(choose, from(any, vector, vector));
    of<VectorFieldUnitVector>([](double3 a) { return double3(a / norm(a)); }, from(positives));
    of<VectorFieldMax>(eachOf(Binary(std::fmax)), vv);
    of<VectorFieldMin>(eachOf(Binary(std::fmin)), vv);
    of<VectorFieldAbsolute>([](double3 a) { return double3(std::abs(a)); }, v1);
    of<VectorFieldClamp>(
        [](double3 a) { return a.apply([](double u) { return std::clamp(u, -0.5, 0.75); }); }, v1,
        float3{-0.5F, 0.75F, -0.5F}, float3{0.75F, -0.5F, 0.75F});
}

namespace {
/// Fields of the position with exact gradients, of which no transposition leaves the second alone.
struct Hill : ScalarField {
    using ScalarField::eval;
    static auto of(auto const& p) { return p[0] * p[1] + 3 * p[2] - p[2] * p[2]; }
    float eval(float3 const& p, long long /*i*/) const override { return of(p); }
    float3 grad(float3 const& p, long long /*i*/) const override { return {p.y, p.x, 3 - 2 * p.z}; }
};
struct Bent : VectorField {
    using VectorField::eval;
    template <class Vector> static Vector of(Vector const& p) {
        return {p[0] / 2 + p[1] * p[2], p[0] * p[0] - p[2] / 4, p[1] * p[1] / 8 + 2 * p[0]};
    }
    float3 eval(float3 const& p, long long /*i*/) const override { return of(p); }
    float3x3 grad(float3 const& p, long long /*i*/) const override {
        return {{{0.5F, p.z, p.y}, {2 * p.x, 0, -0.25F}, {2, p.y / 4, 0}}};
    }
};
}  // namespace

TEST(Derivatives, OfFunctionsOfThePosition) {
    float3 const point{0.25F, -0.5F, 1}, turn{0.5F, -1, 0.75F};
    double3 const o = triple(point), axis = triple(turn);
    auto const hill = makePtr<Hill>();
    auto const bent = makePtr<Bent>();
    at([](double3 p) { return p[0]; }, ScalarFieldXPosition());
    at([](double3 p) { return p[1]; }, ScalarFieldYPosition());
    at([](double3 p) { return p[2]; }, ScalarFieldZPosition());
    at([](double3 p) { return p; }, VectorFieldPosition());
    at([](double3 const&) { return -1.25; }, ScalarFieldConstant(-1.25F));
    at([&](double3 const&) { return o; }, VectorFieldConstant(point));
    at([&](double3 const&) { return o; }, VectorFieldConstantArray(Quern::Array<float3>(3, point)));
    at([&](double3 p) { return inner(p - o, triple(2, -3, 6)) / 7; },
       ScalarFieldPlane(point, {2, -3, 6}));
    at([&](double3 p) { return norm(p - o) - 0.5; }, ScalarFieldSphere(point, 0.5F));
    auto const box = [&](double3 p) { return std::pow(std::pow(std::abs(p - o), 2.5).sum(), 0.4); };
    at([&](double3 p) { return box(p) - std::pow(0.75, 2.5); },
       ScalarFieldImplicitBox(point, -0.75F, 2.5F));
    at([&](double3 p) { return Hill::of(p - o); }, ScalarFieldTranslate(hill, point));
    at([&](double3 p) { return Bent::of<double3>(p - o); }, VectorFieldTranslate(bent, point));
    at([&](double3 p) { return Hill::of(p / triple(2, -0.5, 1.25)); },
       ScalarFieldScale(hill, float3{2, -0.5F, 1.25F}));
    at([&](double3 p) { return double3(Bent::of<double3>(p / -2.0) * -2.0); },
       VectorFieldScale(bent, float3{-2, -2, -2}));
    at([&](double3 p) { return Hill::of(turned(p, axis, norm(axis))); },
       ScalarFieldRotate(hill, turn));
    // For a quaternion the child sees the turn back, and its length scales.
    double const angle = -2 * std::atan2(norm(axis), 1.25);
    at([&](double3 p) { return Hill::of(turned(p, axis, angle) * 3.375); },
       ScalarFieldRotate(hill, float4{0.5F, -1, 0.75F, 1.25F}));
    at([](double3 p) { return Hill::of(Bent::of(p)); }, ScalarFieldWarp(hill, bent));
    at([](double3 p) { return Bent::of(Bent::of(p)); }, VectorFieldWarp(bent, bent));
    at([](double3 p) { return Hill::of(p - Bent::of(p) * 0.5); },
       ScalarFieldAdvect(hill, bent, 0.5F));
    at([](double3 p) { return Bent::of<double3>(p + Bent::of(p) * 0.75); },
       VectorFieldAdvect(bent, bent, -0.75F));
    // Each with an uneven motion, and with matrices that are not symmetric.
    at([&](double3 p) { return turned(Bent::of(turned(p, axis, norm(axis))), axis, -norm(axis)); },
       *exact<VectorFieldRotate>(bent, turn));
    at(
        [&](double3 p) {
            double3 const scale = triple(2, -0.5, 1.25);
            return double3(Bent::of<double3>(p / scale) * scale);
        },
        *exact<VectorFieldScale>(bent, float3{2, -0.5F, 1.25F}));
}
