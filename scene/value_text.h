#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "zel_scene/node_class.h"

// The text of values, for descriptions and files.
namespace zel::detail {

/// Appends the shortest decimal number that is read back to the same bits, or, of a number that is
/// not finite, "inf", "-inf", "nan", or "nan:" and all bits of another NaN in hexadecimal digits.
/// With `quoted`, these are in quotation marks. -0 is "-0.0".
void appendNumber(std::string& text, float number, bool quoted);
void appendNumber(std::string& text, double number, bool quoted);

/// The number of such a word, or nothing.
template <class Real> std::optional<Real> numberOfWord(std::string_view word);

/// The names of enumerators in files.
std::optional<Orvane::Geometry::Query::SamplerType> samplerOf(std::string_view name);
std::optional<Orvane::Math::FCurve::Segment> segmentOf(std::string_view name);
std::optional<Orvane::Math::FCurve::Extrapolation> extrapolationOf(std::string_view name);
/// A sampler type without a name is its number.
std::string textOf(Orvane::Geometry::Query::SamplerType type, bool quoted);

/// Appends a value that is not a child, as JSON. Throws std::invalid_argument for a value that a
/// file cannot have: a text that is not UTF-8, or no curve.
void appendJson(std::string& text, Value const& value);
/// The same for a reader: vectors in parentheses, and the sizes alone of curves and arrays.
void appendShort(std::string& text, Value const& value);
/// Appends a text in quotation marks, and with the escapes of JSON, so that it is on one line.
void appendEscaped(std::string& text, std::string_view string);
/// Appends a JSON string. Throws std::invalid_argument if it is not UTF-8.
void appendQuoted(std::string& text, std::string_view string);

/// What a value of a kind is called in an error, with examples of how it is written.
char const* wantedText(ValueKind kind);

}  // namespace zel::detail
