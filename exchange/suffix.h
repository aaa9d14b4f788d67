#pragma once

#include <filesystem>
#include <string>

namespace zel::detail {

/// The suffix of a name in lower case, such as ".ply".
inline std::string lowerSuffix(std::filesystem::path const& path) {
    std::string suffix = path.extension().string();
    for (char& c : suffix)
        if ('A' <= c && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return suffix;
}

}  // namespace zel::detail
