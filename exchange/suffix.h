#pragma once

#include <cctype>
#include <filesystem>
#include <string>

namespace zel::detail {

/// The suffix of a name in lower case, such as ".ply".
inline std::string lowerSuffix(std::filesystem::path const& path) {
    std::string suffix = path.extension().string();
    for (char& c : suffix) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return suffix;
}

}  // namespace zel::detail
