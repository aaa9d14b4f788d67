#pragma once

#include <array>
#include <bit>
#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "zel/zel.h"

// What the tests of node classes share: children whose answers a test chooses and that record how
// they were asked, and comparisons to the bit.
namespace support {

using Orvane::Math::float3;
using Orvane::Math::float3x3;
using Orvane::Math::float4;
using zel::ScalarPtr;
using zel::VectorPtr;

inline constexpr float kInf = std::numeric_limits<float>::infinity();
inline constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
inline constexpr float kLeast = std::numeric_limits<float>::denorm_min();
inline constexpr float kRounding = 4e-7F;  // about three steps of a float near 1

/// Where tables of nodes are asked. The index does not fit into 32 bits.
inline constexpr float3 kPosition{3, -5, 7};
inline constexpr long long kIndex = -(1LL << 40) - 7;

/// Gradients without any symmetry.
inline constexpr float3 kA{1, -2, 4}, kB{8, 16, -32}, kT{0.5F, 0.25F, -1};
inline constexpr float3x3 kMatrixA{{{1, 2, -3}, {0.5F, -4, 5}, {6, -7, 8}}};
inline constexpr float3x3 kMatrixB{{{2, -1, 4}, {3, 5, -2}, {-6, 1, 0.5F}}};

/// A vector of the components, or a scalar, which is the first of them.
template <class T> T make(float x, float y, float z) {
    if constexpr (std::is_same_v<T, float>)
        return x;
    else
        return {x, y, z};
}

/// Compares float by float: equal bits, or both NaN. With a tolerance a float may also be off by
/// less than that share of the larger of 1 and its expected magnitude.
template <class T>
testing::AssertionResult same(T const& got, T const& expected, float tolerance = 0) {
    using Floats = std::array<float, sizeof(T) / sizeof(float)>;
    auto const g = std::bit_cast<Floats>(got), e = std::bit_cast<Floats>(expected);
    for (std::size_t i = 0; i < g.size(); ++i) {
        bool const equal = std::bit_cast<int>(g[i]) == std::bit_cast<int>(e[i]);
        bool const near = std::fabs(g[i] - e[i]) < tolerance * std::fmax(1.0F, std::fabs(e[i]));
        if (!equal && !near && !(std::isnan(g[i]) && std::isnan(e[i])))
            return testing::AssertionFailure()
                   << "float " << i << " is " << g[i] << ", expected " << e[i];
    }
    return testing::AssertionSuccess();
}

struct Call {
    std::string what;
    float3 position;
};

/// All calls of probes since the last `takeCalls`, oldest first.
inline std::vector<Call> calls;

/// The calls as text, such as "a.eval b.grad ", and forgets them.
inline std::string takeCalls() {
    std::string text;
    for (Call const& call : std::exchange(calls, {})) text += call.what + ' ';
    return text;
}

/// A leaf with a fixed value and gradient that records its calls.
template <class Interface> class Probe : public Interface {
public:
    using Interface::eval;
    using typename Interface::Gradient;
    using typename Interface::Value;

    Probe(Value const& value, Gradient const& gradient, std::string name)
        : value(value), gradient(gradient), name(std::move(name)) {}

    Value eval(float3 const& p, long long /*i*/) const override {
        calls.push_back({name + ".eval", p});
        return value;
    }
    Gradient grad(float3 const& p, long long /*i*/) const override {
        calls.push_back({name + ".grad", p});
        return gradient;
    }

private:
    Value value;
    Gradient gradient;
    std::string name;
};

inline ScalarPtr s(float value, float3 const& gradient = kA, std::string name = "") {
    return Quern::makePtr<Probe<zel::ScalarField>>(value, gradient, std::move(name));
}
inline VectorPtr v(float3 const& value, float3x3 const& gradient = kMatrixA,
                   std::string name = "") {
    return Quern::makePtr<Probe<zel::VectorField>>(value, gradient, std::move(name));
}

/// A leaf that consists of functions. Without a gradient it has that of all fields.
struct FunctionField : zel::ScalarField {
    using Value = std::function<float(float3 const&, long long)>;
    using Gradient = std::function<float3(float3 const&, long long)>;

    explicit FunctionField(Value value) : value(std::move(value)) {}
    using ScalarField::eval;
    float eval(float3 const& p, long long i) const override { return value(p, i); }
    float3 grad(float3 const& p, long long i) const override {
        return gradient ? gradient(p, i) : ScalarField::grad(p, i);
    }
    void preSampleField() const override { pre(); }
    void postSampleField() const override { post(); }

    Value value;
    Gradient gradient;
    std::function<void()> pre = [] {}, post = pre;
};

using Quern::makePtr;

/// The children of a node in the order of a walk that only reads.
inline std::vector<zel::Field const*> childrenOf(zel::Field const& node) {
    struct : zel::FieldConstVisitor {
        void operator()(zel::Field const& child) override { seen.push_back(&child); }
        std::vector<zel::Field const*> seen;
    } visitor;
    node.caccept(visitor);
    return visitor.seen;
}

/// Puts one node in place of each scalar child.
struct ScalarReplacer final : zel::ChildReplacer {
    explicit ScalarReplacer(ScalarPtr node) : node(std::move(node)) {}
    void operator()(ScalarPtr& child) override { child = node; }
    void operator()(VectorPtr&) override {}
    void operator()(zel::Field&) override {}
    ScalarPtr node;
};

/// What a node must answer, and where a node that moves the position must ask its child.
template <class Interface> struct Row {
    Quern::Ptr<Interface> node;
    typename Interface::Value value;
    typename Interface::Gradient gradient;
    float tolerance = 0;
    float3 position = kPosition;
    float3 childPosition = kPosition;
};
using ScalarRows = std::vector<Row<zel::ScalarField>>;
using VectorRows = std::vector<Row<zel::VectorField>>;

/// Value and gradient of each row, and that its probes were asked there.
template <class Interface> void check(std::vector<Row<Interface>> const& rows) {
    for (auto const& row : rows) {
        SCOPED_TRACE(std::string(row.node->getType()) + ", row " +
                     std::to_string(&row - rows.data()));
        calls.clear();
        EXPECT_TRUE(same(row.node->eval(row.position, kIndex), row.value, row.tolerance));
        EXPECT_TRUE(same(row.node->grad(row.position, kIndex), row.gradient, row.tolerance));
        for (Call const& call : calls)
            EXPECT_TRUE(same(call.position, row.childPosition, row.tolerance));
    }
}

}  // namespace support
