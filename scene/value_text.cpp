#include "zel_scene/value_text.h"

#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <stdexcept>
#include <type_traits>

#include "zel/field/math.h"
#include "zel_scene/shown_text.h"

namespace zel::detail {

namespace {

using Orvane::Geometry::Query::SamplerType;
using Orvane::Math::FCurve;

template <class Enum> struct Name {
    std::string_view text;
    Enum value;
};
template <class Enum> Name(char const*, Enum) -> Name<Enum>;
constexpr std::array kSamplers{Name{"linear", SamplerType::kLinear},
                               Name{"cubicC0", SamplerType::kCubicC0},
                               Name{"cubicC1", SamplerType::kCubicC1}};
constexpr std::array kSegments{Name{"constant", FCurve::Segment::kConstant},
                               Name{"linear", FCurve::Segment::kLinear},
                               Name{"cubic", FCurve::Segment::kCubic}};
constexpr std::array kExtrapolations{
    Name{"constant", FCurve::Extrapolation::kConstant},
    Name{"linear", FCurve::Extrapolation::kLinear}, Name{"cycle", FCurve::Extrapolation::kCycle},
    Name{"cycleWithOffset", FCurve::Extrapolation::kCycleWithOffset}};

template <class Names, class Enum> std::string_view nameOf(Names const& names, Enum value) {
    for (auto const& name : names)
        if (name.value == value) return name.text;
    return {};
}
template <class Enum, class Names>
std::optional<Enum> valueOf(Names const& names, std::string_view text) {
    for (auto const& name : names)
        if (name.text == text) return name.value;
    return {};
}

template <class Real>
using BitsOf = std::conditional_t<sizeof(Real) == 4, std::uint32_t, std::uint64_t>;

template <class Real>
constexpr BitsOf<Real> kNan = std::bit_cast<BitsOf<Real>>(std::numeric_limits<Real>::quiet_NaN());

template <class Real> void appendReal(std::string& text, Real number, bool quoted) {
    char digits[40];
    if (std::isfinite(number)) {
        if (number == 0) {
            text += std::signbit(number) ? "-0.0" : "0";
            return;
        }
        text.append(digits, std::to_chars(digits, digits + sizeof digits, number).ptr);
        return;
    }
    if (quoted) text += '"';
    if (std::isinf(number)) {
        text += number < 0 ? "-inf" : "inf";
    } else {
        text += "nan";
        auto const bits = std::bit_cast<BitsOf<Real>>(number);
        if (bits != kNan<Real>) {
            text += ':';
            text.append(digits, std::to_chars(digits, digits + sizeof digits, bits, 16).ptr);
        }
    }
    if (quoted) text += '"';
}

template <class Vector> void appendComponents(std::string& text, Vector const& vector, bool json) {
    constexpr int kCount = sizeof(Vector) / sizeof(float);
    auto const components = std::bit_cast<std::array<float, kCount>>(vector);
    text += json ? '[' : '(';
    for (int i = 0; i < kCount; ++i) {
        if (i > 0) text += ", ";
        appendNumber(text, components[static_cast<std::size_t>(i)], json);
    }
    text += json ? ']' : ')';
}

void appendCurve(std::string& text, FCurve const& curve) {
    text += "{\"keys\": [";
    bool first = true;
    for (FCurve::Key const& key : curve.keys()) {
        text += first ? "[" : ", [";
        first = false;
        for (double const number : {key.x, key.value, key.inSlope, key.outSlope}) {
            appendNumber(text, number, true);
            text += ", ";
        }
        appendQuoted(text, nameOf(kSegments, key.segment));
        text += ']';
    }
    text += "], \"before\": ";
    appendQuoted(text, nameOf(kExtrapolations, curve.before()));
    text += ", \"after\": ";
    appendQuoted(text, nameOf(kExtrapolations, curve.after()));
    text += '}';
}

/// A direction as the vector that is normalised to it, if that gives the same bits; else under the
/// name "unit".
void appendDirection(std::string& text, UnitVector const& direction) {
    float3 const n = direction.value;
    float3 const again = n / Orvane::Math::length(n);
    // The bits of a quotient that is a NaN depend on the machine.
    bool const same =
        std::isfinite(n.x + n.y + n.z) && std::bit_cast<std::array<std::uint32_t, 3>>(again) ==
                                              std::bit_cast<std::array<std::uint32_t, 3>>(n);
    if (!same) text += "{\"unit\": ";
    appendComponents(text, n, true);
    if (!same) text += '}';
}

}  // namespace

void appendNumber(std::string& text, float number, bool quoted) {
    appendReal(text, number, quoted);
}
void appendNumber(std::string& text, double number, bool quoted) {
    appendReal(text, number, quoted);
}

template <class Real> std::optional<Real> numberOfWord(std::string_view word) {
    if (word == "inf") return std::numeric_limits<Real>::infinity();
    if (word == "-inf") return -std::numeric_limits<Real>::infinity();
    if (word == "nan") return std::bit_cast<Real>(kNan<Real>);
    if (!word.starts_with("nan:")) return {};
    word.remove_prefix(4);
    BitsOf<Real> bits = 0;
    auto const [end, error] = std::from_chars(word.data(), word.data() + word.size(), bits, 16);
    auto const number = std::bit_cast<Real>(bits);
    if (error != std::errc() || end != word.data() + word.size() || !std::isnan(number)) return {};
    return number;
}
template std::optional<float> numberOfWord(std::string_view);
template std::optional<double> numberOfWord(std::string_view);

std::optional<SamplerType> samplerOf(std::string_view name) {
    return valueOf<SamplerType>(kSamplers, name);
}
std::optional<FCurve::Segment> segmentOf(std::string_view name) {
    return valueOf<FCurve::Segment>(kSegments, name);
}
std::optional<FCurve::Extrapolation> extrapolationOf(std::string_view name) {
    return valueOf<FCurve::Extrapolation>(kExtrapolations, name);
}

std::string textOf(SamplerType type, bool quoted) {
    std::string const name(nameOf(kSamplers, type));
    if (name.empty()) return std::to_string(static_cast<std::int32_t>(type));
    return quoted ? '"' + name + '"' : name;
}

void appendQuoted(std::string& text, std::string_view string) {
    if (!isUtf8(string)) throw std::invalid_argument("a text that is not UTF-8");
    appendEscaped(text, string);
}

void appendEscaped(std::string& text, std::string_view string) {
    text += '"';
    for (char const c : string) {
        if (c == '"' || c == '\\') text += '\\';
        appendVisible(text, c);
    }
    text += '"';
}

void appendJson(std::string& text, Value const& value) {
    auto const append = [&]<class T>(T const& held) {
        if constexpr (std::is_same_v<T, bool>) {
            text += held ? "true" : "false";
        } else if constexpr (std::is_same_v<T, std::int64_t>) {
            text += std::to_string(held);
        } else if constexpr (std::is_floating_point_v<T>) {
            appendNumber(text, held, true);
        } else if constexpr (std::is_same_v<T, float3> || std::is_same_v<T, float4>) {
            appendComponents(text, held, true);
        } else if constexpr (std::is_same_v<T, UnitVector>) {
            appendDirection(text, held);
        } else if constexpr (std::is_same_v<T, Quern::String>) {
            appendQuoted(text, Quern::StringView(held).standardView());
        } else if constexpr (std::is_same_v<T, SamplerType>) {
            text += textOf(held, true);
        } else if constexpr (std::is_same_v<T, Quern::Ptr<FCurve>>) {
            if (!held) throw std::invalid_argument("no curve");
            appendCurve(text, *held);
        } else if constexpr (std::is_same_v<T, Quern::Ptr<Quern::Array<float3>>>) {
            text += '[';
            for (float3 const& vector : *held) {
                if (text.back() != '[') text += ", ";
                appendComponents(text, vector, true);
            }
            text += ']';
        }
    };
    std::visit(append, value);
}

void appendShort(std::string& text, Value const& value) {
    auto const append = [&]<class T>(T const& held) {
        if constexpr (std::is_floating_point_v<T>)
            appendNumber(text, held, false);
        else if constexpr (std::is_same_v<T, float3> || std::is_same_v<T, float4>)
            appendComponents(text, held, false);
        else if constexpr (std::is_same_v<T, UnitVector>)
            appendComponents(text, held.value, false);
        else if constexpr (std::is_same_v<T, Quern::String>)
            appendEscaped(text, Quern::StringView(held).standardView());
        else if constexpr (std::is_same_v<T, SamplerType>)
            text += textOf(held, false);
        else if constexpr (std::is_same_v<T, Quern::Ptr<FCurve>>)
            text += held ? std::to_string(held->keys().size()) + " keys" : "none";
        else if constexpr (std::is_same_v<T, Quern::Ptr<Quern::Array<float3>>>)
            text += std::to_string(held->size()) + " vectors";
        else
            appendJson(text, value);
    };
    std::visit(append, value);
}

char const* wantedText(ValueKind kind) {
    switch (kind) {
    case ValueKind::kNone:
        break;
    case ValueKind::kBool:
        return "true or false";
    case ValueKind::kInteger:
        return "an integer";
    case ValueKind::kFloat:
    case ValueKind::kDouble:
        return "a number";
    case ValueKind::kVector:
        return "a vector [x, y, z]";
    case ValueKind::kQuaternion:
        return "a rotation, a rotation vector [x, y, z] or a quaternion [x, y, z, w]";
    case ValueKind::kUnitVector:
        return "a direction [x, y, z]";
    case ValueKind::kString:
        return "a string";
    case ValueKind::kSampler:
        return "a sampler, \"linear\", \"cubicC0\" or \"cubicC1\"";
    case ValueKind::kCurve:
        return "a curve {\"keys\": [[x, value], ...]}";
    case ValueKind::kVectors:
        return "an array of vectors [x, y, z]";
    case ValueKind::kScalarField:
        return "a scalar field";
    case ValueKind::kVectorField:
        return "a vector field";
    }
    return "a value";
}

}  // namespace zel::detail
