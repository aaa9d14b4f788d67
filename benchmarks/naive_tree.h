#pragma once

#include <cmath>
#include <memory>
#include <utility>

#include "zel/field/math.h"

// A minimal expression tree: one virtual function and std::shared_ptr children. The nodes have the
// formulas of ZEL's nodes and none of their other features.
namespace naive {

using Orvane::Math::float3;

struct Node {
    virtual ~Node() = default;
    virtual float eval(float3 const& p) const = 0;
};
using NodePtr = std::shared_ptr<Node>;

struct Constant : Node {
    explicit Constant(float value) : value(value) {}
    float eval(float3 const& /*p*/) const override { return value; }
    float value;
};

struct XPosition : Node {
    float eval(float3 const& p) const override { return p.x; }
};
struct YPosition : Node {
    float eval(float3 const& p) const override { return p.y; }
};
struct ZPosition : Node {
    float eval(float3 const& p) const override { return p.z; }
};

struct Sphere : Node {
    Sphere(float3 const& center, float radius) : center(center), radius(radius) {}
    float eval(float3 const& p) const override { return length(p - center) - radius; }
    float3 center;
    float radius;
};

struct Box : Node {
    Box(float3 const& center, float size, float exponent)
        : center(center), level(std::pow(std::fabs(size), exponent)), exponent(exponent) {}
    float eval(float3 const& p) const override {
        float3 const d = p - center;
        float const sum = std::pow(std::fabs(d.y), exponent) + std::pow(std::fabs(d.x), exponent) +
                          std::pow(std::fabs(d.z), exponent);
        return std::pow(sum, 1 / exponent) - level;
    }
    float3 center;
    float level, exponent;
};

struct Plane : Node {
    Plane(float3 const& point, float3 const& normal)
        : point(point), normal(normal / length(normal)) {}
    float eval(float3 const& p) const override { return dot(p - point, normal); }
    float3 point, normal;
};

struct Unary : Node {
    explicit Unary(NodePtr field) : field(std::move(field)) {}
    NodePtr field;
};

struct Negative : Unary {
    using Unary::Unary;
    float eval(float3 const& p) const override { return -field->eval(p); }
};

struct Absolute : Unary {
    using Unary::Unary;
    float eval(float3 const& p) const override { return std::fabs(field->eval(p)); }
};

struct Clamp : Unary {
    Clamp(NodePtr field, float min, float max) : Unary(std::move(field)), min(min), max(max) {}
    float eval(float3 const& p) const override {
        float const v = field->eval(p);
        return v <= min ? min : v >= max ? max : v;
    }
    float min, max;
};

struct Binary : Node {
    Binary(NodePtr a, NodePtr b) : a(std::move(a)), b(std::move(b)) {}
    NodePtr a, b;
};

struct Add : Binary {
    using Binary::Binary;
    float eval(float3 const& p) const override { return a->eval(p) + b->eval(p); }
};

struct Subtract : Binary {
    using Binary::Binary;
    float eval(float3 const& p) const override { return a->eval(p) - b->eval(p); }
};

struct Multiply : Binary {
    using Binary::Binary;
    float eval(float3 const& p) const override { return a->eval(p) * b->eval(p); }
};

struct Min : Binary {
    using Binary::Binary;
    float eval(float3 const& p) const override {
        float const av = a->eval(p), bv = b->eval(p);
        return av < bv ? av : bv;
    }
};

struct Max : Binary {
    using Binary::Binary;
    float eval(float3 const& p) const override {
        float const av = a->eval(p), bv = b->eval(p);
        return av > bv ? av : bv;
    }
};

struct Lerp : Node {
    Lerp(NodePtr a, NodePtr b, NodePtr t) : a(std::move(a)), b(std::move(b)), t(std::move(t)) {}
    float eval(float3 const& p) const override {
        float const av = a->eval(p), bv = b->eval(p), tv = t->eval(p);
        return bv * tv + av * (1 - tv);
    }
    NodePtr a, b, t;
};

}  // namespace naive
