#pragma once

#include <concepts>
#include <ostream>
#include <string>
#include <typeinfo>

#include "zel_platform/orvane_geometry_volume/component.h"
#include "zel_platform/quern_core/string.h"
#include "zel_platform/quern_core/text_of.h"

// Builds the texts of exceptions, which name the value at fault.
namespace ORV::TileTree3D::Internal {

inline void put(std::ostream& stream, int3 const& p) {
    stream << '(' << p.x << ", " << p.y << ", " << p.z << ')';
}
inline void put(std::ostream& stream, Component const& component) {
    stream << typeid(component).name();
}
inline void put(std::ostream& stream, Quern::String const& text) {
    stream << text.c_str();
}
template <class Value>
requires std::is_arithmetic_v<Value> || std::convertible_to<Value, char const*>
void put(std::ostream& stream, Value value) {
    stream << value;
}

/// Joins the parts of a message. Throws std::bad_alloc.
template <class... Parts> std::string message(Parts const&... parts) {
    return Quern::Internal::textOf([&](std::ostream& stream) { (put(stream, parts), ...); });
}

}  // namespace ORV::TileTree3D::Internal
