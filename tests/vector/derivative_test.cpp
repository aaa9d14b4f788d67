#include <algorithm>
#include <functional>
#include <random>

#include "support/probe.h"

// Nodes whose gradient is the derivative of their value, each beside the same function in double
// precision, which shares no code with the nodes. The value is compared with that function and the
// gradient with its central differences.
using namespace support;
using namespace zel;

namespace {
struct double3 {
    double x, y, z;
    double3(double x, double y, double z) : x(x), y(y), z(z) {}
    explicit double3(float3 const& a) : x(a.x), y(a.y), z(a.z) {}
};
double3 operator+(double3 a, double3 b) {
    return {a.x + b.x, a.y + b.y, a.z + b.z};
}
double3 operator*(double3 a, double k) {
    return {a.x * k, a.y * k, a.z * k};
}
double3 operator-(double3 a, double3 b) {
    return a + b * -1;
}
double inner(double3 a, double3 b) {
    return a.x * b.x + a.y * b.y + a.z * b.z;
}
double norm(double3 a) {
    return std::hypot(a.x, a.y, a.z);
}
double3 crossed(double3 a, double3 b) {
    return {a.y * b.z - b.y * a.z, b.x * a.z - a.x * b.z, a.x * b.y - b.x * a.y};
}
/// Rodrigues' formula.
double3 turned(double3 p, double3 axis, double angle) {
    double3 const n = axis * (1 / norm(axis));
    return p * std::cos(angle) + crossed(n, p) * std::sin(angle) +
           n * (inner(n, p) * (1 - std::cos(angle)));
}
double3 stepAlong(int axis, double h) {
    return {axis == 0 ? h : 0, axis == 1 ? h : 0, axis == 2 ? h : 0};
}

std::mt19937 engine(20240611);
float number(double low, double high) {
    return static_cast<float>(std::uniform_real_distribution(low, high)(engine));
}
float3 numbers(double low, double high) {
    return {number(low, high), number(low, high), number(low, high)};
}

std::vector<double> components(auto const& a) {
    if constexpr (std::is_arithmetic_v<std::remove_cvref_t<decltype(a)>>)
        return {a};
    else
        return {a.x, a.y, a.z};
}
float3 const& row(float3 const& gradient, int) {
    return gradient;
}
float3 const& row(float3x3 const& m, int r) {
    return m[r];
}

/// Compares a node with `f(axis, step)`, the function that it should be a step along an axis away.
/// Whether it could: at a kink or a jump the differences to both sides disagree.
template <class Node, class F> bool compare(Node const& node, float3 const& p, F const& f) {
    constexpr double kStep = 1e-5, kTolerance = 2e-4;
    auto const value = components(f(0, 0)), got = components(node.eval(p, 1));
    auto const gradient = node.grad(p, 1);
    for (int axis = 0; axis < 3; ++axis) {
        auto const up = components(f(axis, kStep)), down = components(f(axis, -kStep));
        for (std::size_t r = 0; r < value.size(); ++r) {
            double const above = (up[r] - value[r]) / kStep, below = (value[r] - down[r]) / kStep;
            double const slope = (above + below) / 2, slack = kTolerance * (10 + std::abs(slope));
            if (std::abs(above - below) > slack) return false;
            EXPECT_NEAR(got[r], value[r], kTolerance * (1 + std::abs(value[r])));
            EXPECT_NEAR(row(gradient, static_cast<int>(r))[axis], slope, slack)
                << "derivative of " << r << " along " << axis;
        }
    }
    return true;
}
/// Of 200 random nodes that `once` compares.
template <class Node, class Once> void compareMany(Once const& once) {
    SCOPED_TRACE(typeNameOf(typeid(Node)).c_str());
    int compared = 0;
    for (int n = 0; n < 200; ++n) compared += once();
    EXPECT_GE(compared, 150);
}

/// A child with a random value and gradient, and its value in double precision.
struct Child {
    float value;
    float3 gradient = numbers(-2, 2);
    ScalarPtr node = s(value, gradient);
    double at(int axis, double h) const { return value + h * gradient[axis]; }
};
struct VectorChild {
    float3 value;
    float3x3 gradient{{numbers(-2, 2), numbers(-2, 2), numbers(-2, 2)}};
    VectorPtr node = v(value, gradient);
    double3 at(int axis, double h) const {
        float3x3 const& g = gradient;
        return double3(value) + double3(g[0][axis], g[1][axis], g[2][axis]) * h;
    }
};
constexpr auto any = [] { return Child{number(-3, 3)}; };
constexpr auto belowOne = [] { return Child{number(-0.9, 0.9)}; };
constexpr auto positive = [] { return Child{number(0.5, 3)}; };
constexpr auto negative = [] { return Child{number(-3, -0.5)}; };
constexpr auto vector = [] { return VectorChild{numbers(-3, 3)}; };
constexpr auto positives = [] { return VectorChild{numbers(0.5, 3)}; };

template <class... Makers> auto from(Makers... makers) {
    return std::tuple<Makers...>(makers...);
}

/// A node of random children, beside `f` of their values.
template <class Node, class... Parameter, class... Makers>
void of(auto const& f, std::tuple<Makers...> const& makers, Parameter... parameter) {
    compareMany<Node>([&] {
        auto const compareWith = [&](auto const&... c) {
            return compare(Node(c.node..., parameter...), {},
                           [&](int axis, double h) { return f(c.at(axis, h)...); });
        };
        return std::apply([&](auto... make) { return compareWith(make()...); }, makers);
    });
}
using Unary = double (*)(double);
using Binary = double (*)(double, double);
/// A node beside `f` of the position.
template <class Node> void at(auto const& f, Node const& node) {
    compareMany<Node>([&] {
        float3 const p = numbers(-2, 2);
        return compare(node, p,
                       [&](int axis, double h) { return f(double3(p) + stepAlong(axis, h)); });
    });
}

constexpr auto componentwise = [](auto f) {
    return [=](auto... a) { return double3(f(a.x...), f(a.y...), f(a.z...)); };
};
constexpr auto choose = [](double condition, auto a, auto b) { return condition > 0 ? a : b; };
constexpr auto mix = [](auto a, auto b, double t) { return a + (b - a) * t; };
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
    of<ScalarFieldSquareRoot>(Unary(std::sqrt), from(positive));
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
    of<VectorFieldXComponent>([](double3 a) { return a.x; }, v1);
    of<VectorFieldYComponent>([](double3 a) { return a.y; }, v1);
    of<VectorFieldZComponent>([](double3 a) { return a.z; }, v1);
    of<VectorFieldComponent>([](double3 a) { return a.y; }, v1, 1);
    of<VectorFieldDotProduct>(inner, vv);
    of<VectorFieldLength>(norm, from(positives));
    of<VectorFieldLengthSquared>([](double3 a) { return inner(a, a); }, v1);
}

TEST(Derivatives, OfVectorNodes) {
    of<VectorFieldFromComponents>([](double a, double b, double c) { return double3(a, b, c); },
                                  from(any, any, any));
    of<VectorFieldAdd>(std::plus<>(), vv);
    of<VectorFieldSubtract>(std::minus<>(), vv);
    of<VectorFieldNegative>([](double3 a) { return a * -1; }, v1);
    of<VectorFieldMultiply>(componentwise(std::multiplies<>()), vv);
    of<VectorFieldDivide>(componentwise(std::divides<>()), from(vector, positives));
    of<VectorFieldPow>([](double3 a) { return double3(std::sqrt(a.x), a.y * a.y, 1 / a.z); },
                       from(positives), float3{0.5F, 2, -1});
    of<VectorFieldSquareRoot>(componentwise([](double u) { return std::sqrt(u); }),
                              from(positives));
    of<VectorFieldCross>(crossed, vv);
    of<VectorFieldVSMultiply>([](double3 a, double u) { return a * u; }, from(vector, any));
    of<VectorFieldVSDivide>([](double3 a, double u) { return a * (1 / u); },
                            from(vector, positive));
    of<VectorFieldLerp>(mix, from(vector, vector, any));
    of<VectorFieldSwitch>(choose, from(any, vector, vector));
}

namespace {
/// Fields of the position with exact gradients, of which no transposition leaves the second alone.
struct Hill : ScalarField {
    using ScalarField::eval;
    static auto of(auto const& p) { return p.x * p.y + 3 * p.z - p.z * p.z; }
    float eval(float3 const& p, long long /*i*/) const override { return of(p); }
    float3 grad(float3 const& p, long long /*i*/) const override { return {p.y, p.x, 3 - 2 * p.z}; }
};
struct Bent : VectorField {
    using VectorField::eval;
    template <class Vector> static Vector of(Vector const& p) {
        return {p.x / 2 + p.y * p.z, p.x * p.x - p.z / 4, p.y * p.y / 8 + 2 * p.x};
    }
    float3 eval(float3 const& p, long long /*i*/) const override { return of(p); }
    float3x3 grad(float3 const& p, long long /*i*/) const override {
        return {{{0.5F, p.z, p.y}, {2 * p.x, 0, -0.25F}, {2, p.y / 4, 0}}};
    }
};
}  // namespace

TEST(Derivatives, OfFunctionsOfThePosition) {
    float3 const point{0.25F, -0.5F, 1}, turn{0.5F, -1, 0.75F};
    double3 const o(point), axis(turn);
    auto const hill = makePtr<Hill>();
    auto const bent = makePtr<Bent>();
    at([](double3 p) { return p.x; }, ScalarFieldXPosition());
    at([](double3 p) { return p.y; }, ScalarFieldYPosition());
    at([](double3 p) { return p.z; }, ScalarFieldZPosition());
    at([](double3 p) { return p; }, VectorFieldPosition());
    at([](double3) { return -1.25; }, ScalarFieldConstant(-1.25F));
    at([&](double3) { return o; }, VectorFieldConstant(point));
    at([&](double3) { return o; }, VectorFieldConstantArray(Quern::Array<float3>(3, point)));
    at([&](double3 p) { return inner(p - o, double3(2, -3, 6)) / 7; },
       ScalarFieldPlane(point, {2, -3, 6}));
    at([&](double3 p) { return norm(p - o) - 0.5; }, ScalarFieldSphere(point, 0.5F));
    at(
        [&](double3 p) {
            double3 const d =
                componentwise([](double c) { return std::pow(std::abs(c), 2.5); })(p - o);
            return std::pow(d.x + d.y + d.z, 0.4) - std::pow(0.75, 2.5);
        },
        ScalarFieldImplicitBox(point, -0.75F, 2.5F));
    at([&](double3 p) { return Hill::of(p - o); }, ScalarFieldTranslate(hill, point));
    at([&](double3 p) { return Bent::of(p - o); }, VectorFieldTranslate(bent, point));
    at([&](double3 p) { return Hill::of(double3(p.x / 2, p.y / -0.5, p.z * 0.8)); },
       ScalarFieldScale(hill, float3{2, -0.5F, 1.25F}));
    at([&](double3 p) { return Bent::of(p * -0.5) * -2; },
       VectorFieldScale(bent, float3{-2, -2, -2}));
    at([&](double3 p) { return Hill::of(turned(p, axis, norm(axis))); },
       ScalarFieldRotate(hill, turn));
    // For a quaternion the child sees the turn back, and its length scales.
    at(
        [&](double3 p) {
            return Hill::of(turned(p, axis, -2 * std::atan2(norm(axis), 1.25)) * 3.375);
        },
        ScalarFieldRotate(hill, float4{0.5F, -1, 0.75F, 1.25F}));
    at([](double3 p) { return Hill::of(Bent::of(p)); }, ScalarFieldWarp(hill, bent));
    at([](double3 p) { return Bent::of(Bent::of(p)); }, VectorFieldWarp(bent, bent));
    at([](double3 p) { return Hill::of(p - Bent::of(p) * 0.5); },
       ScalarFieldAdvect(hill, bent, 0.5F));
    at([](double3 p) { return Bent::of(p - Bent::of(p) * -0.75); },
       VectorFieldAdvect(bent, bent, -0.75F));
}
