#include <algorithm>
#include <concepts>
#include <functional>
#include <random>
#include <tuple>

#include "support/probe.h"

// Random trees of all nodes whose gradient is the derivative of their value, each beside the same
// function in double precision, which shares no code with the nodes. The value is compared with
// that function and the gradient with its central differences.
using namespace support;
using namespace zel;

namespace {
struct double3 {
    double x, y, z;
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

template <class Interface, class T> struct Tree {
    Quern::Ptr<Interface> node;
    std::function<T(double3)> f;
};
using Scalar = Tree<ScalarField, double>;
using Vector = Tree<VectorField, double3>;
template <class Node>
using TreeOf = std::conditional_t<std::is_base_of_v<ScalarField, Node>, Scalar, Vector>;
using Random = std::mt19937;
/// Makes a random tree with a given root class, whose children have the depth passed.
template <class T> using Maker = std::function<T(Random&, int)>;
std::vector<Maker<Scalar>> const& scalarMakers();
std::vector<Maker<Vector>> const& vectorMakers();

// Random children.
Scalar scalar(Random& random, int depth) {
    auto const& makers = scalarMakers();
    return makers[random() % (depth > 0 ? makers.size() : 6)](random, depth - 1);
}
Vector vector(Random& random, int depth) {
    auto const& makers = vectorMakers();
    return makers[random() % (depth > 0 ? makers.size() : 2)](random, depth - 1);
}
/// `middle + 0.875 * sin(...)`, for functions that are not defined everywhere.
template <int middle> Scalar within(Random& random, int depth) {
    Scalar const c = scalar(random, depth);
    auto const sine = makePtr<ScalarFieldMultiply>(makePtr<ScalarFieldSine>(c.node),
                                                   makePtr<ScalarFieldConstant>(0.875F));
    return {makePtr<ScalarFieldAdd>(sine, makePtr<ScalarFieldConstant>(float{middle})),
            [=](double3 p) { return middle + 0.875 * std::sin(c.f(p)); }};
}
constexpr auto belowOne = within<0>, positive = within<2>, negative = within<-2>;
template <auto makeX, auto makeY, auto makeZ> Vector vectorOf(Random& random, int depth) {
    Scalar const x = makeX(random, depth), y = makeY(random, depth), z = makeZ(random, depth);
    return {makePtr<VectorFieldFromComponents>(x.node, y.node, z.node), [=](double3 p) {
                return double3{x.f(p), y.f(p), z.f(p)};
            }};
}
constexpr auto positives = vectorOf<positive, positive, positive>;
constexpr auto nonzero = vectorOf<scalar, negative, scalar>;

/// A leaf beside `f` of the position.
template <class Node, class... Parameter> Maker<TreeOf<Node>> leaf(auto f, Parameter... parameter) {
    return [=](Random&, int) { return TreeOf<Node>{makePtr<Node>(parameter...), f}; };
}
/// An operator beside `f` of the values of its children, which `child` make.
template <class Node, class... Child, class... Parameter>
Maker<TreeOf<Node>> operation(auto f, std::tuple<Child...> children, Parameter... parameter) {
    return [=](Random& random, int depth) {
        auto const make = [&](auto... child) {
            return std::apply(
                [&](auto const&... c) {
                    return TreeOf<Node>{makePtr<Node>(c.node..., parameter...),
                                        [=](double3 p) { return f(c.f(p)...); }};
                },
                std::tuple{child(random, depth)...});
        };
        return std::apply(make, children);
    };
}
/// An operator beside its child's function at the position `move(p)`, times `factor`.
template <class Node, class Parameter>
Maker<TreeOf<Node>> moved(auto move, auto child, Parameter parameter, double factor = 1) {
    return [=](Random& random, int depth) {
        auto const c = child(random, depth);
        return TreeOf<Node>{makePtr<Node>(c.node, parameter),
                            [=](double3 p) { return c.f(move(p)) * factor; }};
    };
}

template <class... Child> auto of(Child... child) {
    return std::tuple<Child...>(child...);
}
/// One scalar child, and `f` out of the mathematics library.
template <class Node> auto unary(double (*f)(double), Scalar (*child)(Random&, int) = scalar) {
    return operation<Node>(f, of(child));
}
template <class Node>
auto binary(double (*f)(double, double), Scalar (*second)(Random&, int) = scalar) {
    return operation<Node>(f, of(scalar, second));
}
constexpr auto componentwise = [](auto f) {
    return [=](auto... a) { return double3{f(a.x...), f(a.y...), f(a.z...)}; };
};
constexpr auto choose = [](double condition, auto a, auto b) { return condition > 0 ? a : b; };
constexpr auto mix = [](auto a, auto b, double t) { return a + (b - a) * t; };

constexpr double3 kPoint{0.25, -0.5, 1}, kTurn{0.5, -1, 0.75};
constexpr float3 kPointF{0.25F, -0.5F, 1}, kTurnF{0.5F, -1, 0.75F};
double box(double3 p) {
    double3 const d =
        componentwise([](double c) { return std::pow(std::abs(c), 2.5); })(p - kPoint);
    return std::pow(d.x + d.y + d.z, 0.4) - std::pow(0.75, 2.5);
}
double3 translated(double3 p) {
    return p - kPoint;
}
double3 turnedByVector(double3 p) {
    return turned(p, kTurn, norm(kTurn));
}
/// For the quaternion (kTurn, 1.25): the child sees the turn back, and its length scales.
double3 turnedByQuaternion(double3 p) {
    return turned(p, kTurn, -2 * std::atan2(norm(kTurn), 1.25)) * 3.375;
}

std::vector<Maker<Scalar>> const& scalarMakers() {
    auto const s = scalar;
    auto const v = vector;
    static std::vector<Maker<Scalar>> const makers{
        leaf<ScalarFieldPlane>(
            [](double3 p) {
                return inner(p - kPoint, {2, -3, 6}) / 7;
            },
            kPointF, float3{2, -3, 6}),
        leaf<ScalarFieldSphere>([](double3 p) { return norm(p - kPoint) - 0.5; }, kPointF, 0.5F),
        leaf<ScalarFieldImplicitBox>(box, kPointF, -0.75F, 2.5F),
        leaf<ScalarFieldXPosition>([](double3 p) { return p.x; }),
        leaf<ScalarFieldYPosition>([](double3 p) { return p.y; }),
        leaf<ScalarFieldZPosition>([](double3 p) { return p.z; }),
        leaf<ScalarFieldConstant>([](double3) { return -1.25; }, -1.25F),
        operation<ScalarFieldAdd>(std::plus<>(), of(s, s)),
        operation<ScalarFieldSubtract>(std::minus<>(), of(s, s)),
        operation<ScalarFieldNegative>(std::negate<>(), of(s)),
        operation<ScalarFieldMultiply>(std::multiplies<>(), of(s, s)),
        operation<ScalarFieldDivide>(std::divides<>(), of(s, positive)),
        operation<ScalarFieldDivide>(std::divides<>(), of(s, negative)),
        binary<ScalarFieldMax>(std::fmax),
        binary<ScalarFieldMin>(std::fmin),
        operation<ScalarFieldMask>([](double u) { return u > 0; }, of(s)),
        operation<ScalarFieldClamp>([](double u) { return std::clamp(u, -0.5, 0.75); }, of(s),
                                    -0.5F, 0.75F),
        operation<ScalarFieldSwitch>(choose, of(s, s, s)),
        unary<ScalarFieldAbsolute>(std::fabs),
        operation<ScalarFieldPow>([](double u) { return 1 / (u * std::sqrt(u)); }, of(positive),
                                  -1.5F),
        operation<ScalarFieldPow>([](double u) { return u * u * u; }, of(s), 3.0F),
        unary<ScalarFieldSquareRoot>(std::sqrt, positive),
        unary<ScalarFieldExp>(std::exp, belowOne),
        operation<ScalarFieldLerp>(mix, of(s, s, s)),
        unary<ScalarFieldSine>(std::sin),
        unary<ScalarFieldCosine>(std::cos),
        unary<ScalarFieldTangent>(std::tan, belowOne),
        unary<ScalarFieldArcSine>(std::asin, belowOne),
        unary<ScalarFieldArcCosine>(std::acos, belowOne),
        unary<ScalarFieldArcTangent>(std::atan),
        binary<ScalarFieldArcTangent_2D>(std::atan2, positive),
        binary<ScalarFieldArcTangent_2D>(std::atan2, negative),
        moved<ScalarFieldTranslate>(translated, s, kPointF),
        moved<ScalarFieldScale>(
            [](double3 p) {
                return double3{p.x / 2, p.y / -0.5, p.z * 0.8};
            },
            s, float3{2, -0.5F, 1.25F}),
        moved<ScalarFieldRotate>(turnedByVector, s, kTurnF),
        moved<ScalarFieldRotate>(turnedByQuaternion, s, float4{0.5F, -1, 0.75F, 1.25F}),
        operation<VectorFieldXComponent>([](double3 a) { return a.x; }, of(v)),
        operation<VectorFieldYComponent>([](double3 a) { return a.y; }, of(v)),
        operation<VectorFieldZComponent>([](double3 a) { return a.z; }, of(v)),
        operation<VectorFieldComponent>([](double3 a) { return a.y; }, of(v), 1),
        operation<VectorFieldDotProduct>(inner, of(v, v)),
        operation<VectorFieldLength>(norm, of(nonzero)),
        operation<VectorFieldLengthSquared>([](double3 a) { return inner(a, a); }, of(v)),
    };
    return makers;
}

std::vector<Maker<Vector>> const& vectorMakers() {
    auto const v = vector;
    auto const constant = [](double3) { return kPoint; };
    static std::vector<Maker<Vector>> const makers{
        vectorOf<scalar, scalar, scalar>,
        leaf<VectorFieldPosition>([](double3 p) { return p; }),
        leaf<VectorFieldConstant>(constant, kPointF),
        leaf<VectorFieldConstantArray>(constant, Quern::Array<float3>(3, kPointF)),
        operation<VectorFieldAdd>(std::plus<>(), of(v, v)),
        operation<VectorFieldSubtract>(std::minus<>(), of(v, v)),
        operation<VectorFieldNegative>([](double3 a) { return a * -1; }, of(v)),
        operation<VectorFieldMultiply>(componentwise(std::multiplies<>()), of(v, v)),
        operation<VectorFieldDivide>(componentwise(std::divides<>()), of(v, positives)),
        operation<VectorFieldPow>(
            [](double3 a) {
                return double3{std::sqrt(a.x), a.y * a.y, 1 / a.z};
            },
            of(positives), float3{0.5F, 2, -1}),
        operation<VectorFieldSquareRoot>(componentwise([](double u) { return std::sqrt(u); }),
                                         of(positives)),
        operation<VectorFieldCross>(crossed, of(v, v)),
        operation<VectorFieldVSMultiply>([](double3 a, double k) { return a * k; }, of(v, scalar)),
        operation<VectorFieldVSDivide>([](double3 a, double k) { return a * (1 / k); },
                                       of(v, positive)),
        operation<VectorFieldLerp>(mix, of(v, v, scalar)),
        operation<VectorFieldSwitch>(choose, of(scalar, v, v)),
        moved<VectorFieldTranslate>(translated, v, kPointF),
        moved<VectorFieldScale>([](double3 p) { return p * -0.5; }, v, float3{-2, -2, -2}, -2),
    };
    return makers;
}

std::vector<double> components(std::floating_point auto const& a) {
    return {a};
}
std::vector<double> components(auto const& a) {
    return {a.x, a.y, a.z};
}
float3 const& row(float3 const& gradient, std::size_t) {
    return gradient;
}
float3 const& row(float3x3 const& m, std::size_t r) {
    return m[static_cast<int>(r)];
}

template <class T> void compare(std::vector<Maker<T>> const& makers) {
    constexpr unsigned kSeed = 20240611;
    constexpr double kStep = 1e-5, kTolerance = 2e-4;
    for (auto const& make : makers) {
        Random random(kSeed);
        int compared = 0;
        for (int trial = 0; trial < 200; ++trial) {
            T const tree = make(random, 2);
            auto const coordinate = [&] {
                return static_cast<float>(random() % 3001) / 1000 - 1.5F;
            };
            float3 const p{coordinate(), coordinate(), coordinate()};
            double3 const at{p.x, p.y, p.z};
            auto const value = components(tree.f(at));
            // One-sided differences that disagree mark a kink or a jump within a step, and bound
            // what it can add to the error of their mean.
            std::vector<std::array<double, 3>> slopes(value.size());
            bool smooth = true;
            for (std::size_t c = 0; c < 3; ++c) {
                double3 const h{c == 0 ? kStep : 0, c == 1 ? kStep : 0, c == 2 ? kStep : 0};
                auto const up = components(tree.f(at + h)), down = components(tree.f(at - h));
                for (std::size_t r = 0; r < value.size(); ++r) {
                    double const above = (up[r] - value[r]) / kStep;
                    double const below = (value[r] - down[r]) / kStep;
                    slopes[r][c] = (above + below) / 2;
                    smooth = smooth &&
                             std::abs(above - below) < kTolerance * (1 + std::abs(slopes[r][c]));
                }
            }
            if (!smooth) continue;
            ++compared;
            SCOPED_TRACE(std::string(tree.node->getType()) + ", seed " + std::to_string(kSeed) +
                         ", trial " + std::to_string(trial));
            auto const nodeValue = components(tree.node->eval(p, 1));
            auto const gradient = tree.node->grad(p, 1);
            for (std::size_t r = 0; r < value.size(); ++r) {
                double const magnitude = 1 + norm({slopes[r][0], slopes[r][1], slopes[r][2]});
                EXPECT_NEAR(nodeValue[r], value[r], kTolerance * (magnitude + std::abs(value[r])));
                for (int c = 0; c < 3; ++c)
                    EXPECT_NEAR(row(gradient, r)[c], slopes[r][static_cast<std::size_t>(c)],
                                kTolerance * magnitude)
                        << "derivative of " << r << " along " << c;
            }
        }
        EXPECT_GE(compared, 150) << make(random, 2).node->getType();
    }
}
}  // namespace

TEST(Derivatives, OfScalarNodes) {
    compare(scalarMakers());
}
TEST(Derivatives, OfVectorNodes) {
    compare(vectorMakers());
}
