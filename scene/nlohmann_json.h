#pragma once

// The parser asserts that strtod reads each number to its end. This fails in locales whose decimal
// point has several bytes, since the parser takes the first of these alone. The numbers of strtod
// are not used here.
#define JSON_ASSERT(condition) static_cast<void>(0)

#include <nlohmann/json.hpp>
