#include "zel_scene/value_reader.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <stdexcept>

#include "zel/field/math.h"
#include "zel/node/transform.h"
#include "zel_platform/orvane_math_support/decimal_range.h"
#include "zel_scene/error.h"
#include "zel_scene/nearest.h"
#include "zel_scene/value_text.h"

namespace zel::detail {

namespace {

using Orvane::Geometry::Query::SamplerType;
using Orvane::Math::FCurve;
using Orvane::Math::isBelowRange;
using Type = JsonText::Type;

/// A number, rounded once from its decimal digits, or the word for one that is not finite.
template <class Real>
Real readReal(JsonText const& json, std::uint32_t at, char const* wanted = "a number") {
    std::string_view const text = json.text(json[at]);
    if (json[at].type == Type::kString) {
        if (auto const number = numberOfWord<Real>(text)) return *number;
        refuse(json, at, std::string(wanted) + ", or \"inf\", \"-inf\" or \"nan\"");
    }
    if (json[at].type != Type::kNumber) refuse(json, at, wanted);
    Real number = 0;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error == std::errc::result_out_of_range) {
        // Too small for a subnormal number is 0, as for literals of the language.
        if (isBelowRange(text)) return text.starts_with('-') ? -Real(0) : Real(0);
        refuse(json, at,
               sizeof(Real) == 4 ? "a number in the range of a float"
                                 : "a number in the range of a double");
    }
    if (error != std::errc() || end != text.data() + text.size()) refuse(json, at, wanted);
    return number;
}

std::int64_t readInteger(JsonText const& json, std::uint32_t at, std::int64_t least,
                         std::int64_t most) {
    std::string_view const text = json.text(json[at]);
    std::int64_t number = 0;
    bool isInteger = json[at].type == Type::kNumber;
    if (isInteger) {
        auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
        isInteger = error == std::errc() && end == text.data() + text.size();
    }
    if (!isInteger || number < least || number > most)
        refuse(json, at,
               "an integer from " + std::to_string(least) + " to " + std::to_string(most));
    return number;
}

/// The elements of an array.
std::vector<std::uint32_t> elements(JsonText const& json, std::uint32_t at) {
    std::vector<std::uint32_t> found;
    for (std::uint32_t i = json[at].firstChild; i != JsonText::kNone; i = json[i].next)
        found.push_back(i);
    return found;
}

Value readRotation(JsonText const& json, std::uint32_t at) {
    if (json[at].type == Type::kArray && json[at].childCount == 3)
        return rotationOf(readVector(json, at));
    if (json[at].type != Type::kArray || json[at].childCount != 4)
        refuse(json, at, wantedText(ValueKind::kQuaternion));
    std::array<float, 4> q{};
    for (std::size_t i = 0; std::uint32_t const element : elements(json, at))
        q[i++] = readFloat(json, element);
    return float4{q[0], q[1], q[2], q[3]};
}

/// Calls `use(key, item)` for each member of an object. Throws for a key that is there twice, or is
/// not among `names`.
template <class Use>
void forMembers(JsonText const& json, std::uint32_t at, std::span<std::string_view const> names,
                Use const& use) {
    std::vector<bool> seen(names.size());
    for (std::uint32_t i = json[at].firstChild; i != JsonText::kNone; i = json[i].next) {
        std::string_view const key = json.key(json[i]);
        auto const found = std::find(names.begin(), names.end(), key);
        if (found == names.end())
            throw SceneError(json.path(i), "no member has this name" + didYouMean(key, names));
        auto const number = static_cast<std::size_t>(found - names.begin());
        if (seen[number]) throw SceneError(json.path(i), "this member is there twice");
        seen[number] = true;
        use(number, i);
    }
}

Value readDirection(JsonText const& json, std::uint32_t at) {
    if (json[at].type != Type::kObject) {
        if (json[at].type != Type::kArray) refuse(json, at, wantedText(ValueKind::kUnitVector));
        float3 const vector = readVector(json, at);
        float const length = Orvane::Math::length(vector);
        // Its square must neither overflow nor lose digits, or the quotient is no unit vector.
        if (!(length >= 0x1p-63F) || std::isinf(length)) {
            std::string found;
            for (std::uint32_t const element : elements(json, at))
                found += (found.empty() ? "[" : ", ") + json.shown(element);
            throw SceneError(json.path(at), "wanted a direction [x, y, z] of a length from 1.1e-19 "
                                            "to 1.8e19, found " +
                                                found + ']');
        }
        return UnitVector(vector / length);
    }
    constexpr std::array<std::string_view, 1> kNames{"unit"};
    Value value;
    forMembers(json, at, kNames, [&](std::size_t /*member*/, std::uint32_t item) {
        value = UnitVector(readVector(json, item));
    });
    if (value.index() == 0) refuse(json, at, wantedText(ValueKind::kUnitVector));
    return value;
}

/// [x, value], [x, value, slope] or [x, value, inSlope, outSlope], each with the name of the
/// segment after the numbers, if that is not linear.
FCurve::Key readKey(JsonText const& json, std::uint32_t at) {
    constexpr char const* kWanted = "a key [x, value], [x, value, slope] or "
                                    "[x, value, inSlope, outSlope], with a segment \"constant\", "
                                    "\"linear\" or \"cubic\" at its end or without";
    if (json[at].type != Type::kArray) refuse(json, at, kWanted);
    std::vector<std::uint32_t> numbers = elements(json, at);
    FCurve::Key key;
    if (!numbers.empty() && json[numbers.back()].type == Type::kString) {
        auto const segment = segmentOf(json.text(json[numbers.back()]));
        if (!segment) refuse(json, numbers.back(), "\"constant\", \"linear\" or \"cubic\"");
        key.segment = *segment;
        numbers.pop_back();
    }
    if (numbers.size() < 2 || numbers.size() > 4) refuse(json, at, kWanted);
    key.x = readReal<double>(json, numbers[0]);
    key.value = readReal<double>(json, numbers[1]);
    if (numbers.size() > 2) key.inSlope = readReal<double>(json, numbers[2]);
    if (numbers.size() > 2) key.outSlope = readReal<double>(json, numbers.back());
    return key;
}

Value readCurve(JsonText const& json, std::uint32_t at) {
    if (json[at].type != Type::kObject) refuse(json, at, wantedText(ValueKind::kCurve));
    std::vector<FCurve::Key> keys;
    FCurve::Extrapolation ends[2] = {FCurve::Extrapolation::kConstant,
                                     FCurve::Extrapolation::kConstant};
    constexpr std::array<std::string_view, 3> kNames{"keys", "before", "after"};
    forMembers(json, at, kNames, [&](std::size_t member, std::uint32_t item) {
        if (member == 0) {
            if (json[item].type != Type::kArray) refuse(json, item, "an array of keys");
            for (std::uint32_t const key : elements(json, item)) keys.push_back(readKey(json, key));
            return;
        }
        auto const end = json[item].type == Type::kString ? extrapolationOf(json.text(json[item]))
                                                          : std::optional<FCurve::Extrapolation>();
        if (!end) refuse(json, item, "\"constant\", \"linear\", \"cycle\" or \"cycleWithOffset\"");
        ends[member - 1] = *end;
    });
    try {
        return Quern::makePtr<FCurve>(std::move(keys), ends[0], ends[1]);
    } catch (std::invalid_argument const& error) {
        throw SceneError(json.path(at), error.what());
    }
}

Value readVectors(JsonText const& json, std::uint32_t at) {
    if (json[at].type != Type::kArray) refuse(json, at, wantedText(ValueKind::kVectors));
    auto const vectors = Quern::makePtr<Quern::Array<float3>>();
    for (std::uint32_t const element : elements(json, at))
        vectors->push_back(readVector(json, element));
    return vectors;
}

Value readSampler(JsonText const& json, std::uint32_t at) {
    if (json[at].type == Type::kNumber)
        return static_cast<SamplerType>(readInteger(json, at,
                                                    std::numeric_limits<std::int32_t>::min(),
                                                    std::numeric_limits<std::int32_t>::max()));
    auto const sampler = json[at].type == Type::kString ? samplerOf(json.text(json[at]))
                                                        : std::optional<SamplerType>();
    if (!sampler) refuse(json, at, wantedText(ValueKind::kSampler));
    return *sampler;
}

}  // namespace

void refuse(JsonText const& json, std::uint32_t at, std::string const& wanted) {
    throw SceneError(json.path(at), "wanted " + wanted + ", found " + json.shown(at));
}

float readFloat(JsonText const& json, std::uint32_t at) {
    return readReal<float>(json, at);
}

float3 readVector(JsonText const& json, std::uint32_t at) {
    if (json[at].type != Type::kArray || json[at].childCount != 3)
        refuse(json, at, wantedText(ValueKind::kVector));
    float3 vector;
    for (int i = 0; std::uint32_t const element : elements(json, at))
        vector[i++] = readFloat(json, element);
    return vector;
}

Value readValue(JsonText const& json, std::uint32_t at, ParameterInfo const& parameter) {
    Type const type = json[at].type;
    switch (parameter.kind) {
    case ValueKind::kBool:
        if (type != Type::kTrue && type != Type::kFalse) break;
        return type == Type::kTrue;
    case ValueKind::kInteger:
        return readInteger(json, at, parameter.least, parameter.most);
    case ValueKind::kFloat:
        return readFloat(json, at);
    case ValueKind::kDouble:
        return readReal<double>(json, at);
    case ValueKind::kVector:
        return readVector(json, at);
    case ValueKind::kQuaternion:
        return readRotation(json, at);
    case ValueKind::kUnitVector:
        return readDirection(json, at);
    case ValueKind::kString:
        if (type != Type::kString) break;
        return Quern::String(std::string(json.text(json[at])));
    case ValueKind::kSampler:
        return readSampler(json, at);
    case ValueKind::kCurve:
        return readCurve(json, at);
    case ValueKind::kVectors:
        return readVectors(json, at);
    case ValueKind::kNone:
    case ValueKind::kScalarField:
    case ValueKind::kVectorField:
        break;
    }
    refuse(json, at, wantedText(parameter.kind));
}

}  // namespace zel::detail
