#pragma once

#include <span>
#include <string>
#include <string_view>

namespace zel::detail {

/// The name that is nearest to a misspelt one by the number of letters to insert, remove, replace
/// or swap with the next, capital or not; empty if none of the first 1000 is near.
std::string_view nearestName(std::string_view misspelt, std::span<std::string_view const> names);

/// "; did you mean "radius"?" with the nearest name, or nothing.
std::string didYouMean(std::string_view misspelt, std::span<std::string_view const> names);

}  // namespace zel::detail
