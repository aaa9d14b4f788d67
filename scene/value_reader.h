#pragma once

#include "zel_scene/json_text.h"
#include "zel_scene/node_class.h"

namespace zel::detail {

/// The value of a parameter that is not a child, as a file has it. Throws SceneError, with the
/// path in the file, for a value of another kind or out of range.
Value readValue(JsonText const& json, std::uint32_t at, ParameterInfo const& parameter);

/// A vector [x, y, z].
float3 readVector(JsonText const& json, std::uint32_t at);
float readFloat(JsonText const& json, std::uint32_t at);

/// Throws a SceneError "wanted ..., found ...".
[[noreturn]] void refuse(JsonText const& json, std::uint32_t at, std::string const& wanted);

}  // namespace zel::detail
