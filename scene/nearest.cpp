#include "zel_scene/nearest.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "zel_scene/shown_text.h"

namespace zel::detail {

namespace {

constexpr std::size_t kLongest = 64;
constexpr std::size_t kMostNames = 1000;  // a file may have millions

char lower(char c) {
    return 'A' <= c && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

std::size_t distance(std::string_view a, std::string_view b) {
    // Rows of the table of distances between the beginnings of both.
    std::vector<std::size_t> before, last(b.size() + 1), row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) last[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            bool const same = lower(a[i - 1]) == lower(b[j - 1]);
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (same ? 0 : 1)});
            if (i > 1 && j > 1 && lower(a[i - 1]) == lower(b[j - 2]) &&
                lower(a[i - 2]) == lower(b[j - 1]))
                row[j] = std::min(row[j], before[j - 2] + 1);
        }
        before = std::exchange(last, row);
    }
    return last[b.size()];
}

}  // namespace

std::string_view nearestName(std::string_view misspelt, std::span<std::string_view const> names) {
    std::string_view nearest;
    if (misspelt.size() > kLongest) return nearest;
    std::size_t least = std::max<std::size_t>(2, misspelt.size() / 3) + 1;
    for (std::string_view const name : names.first(std::min(names.size(), kMostNames))) {
        if (name.size() > kLongest) continue;
        // A name shares some letter with its misspelling.
        std::size_t const d = distance(misspelt, name);
        if (d >= std::max(misspelt.size(), name.size())) continue;
        if (d < least) {
            least = d;
            nearest = name;
        }
    }
    return nearest;
}

std::string didYouMean(std::string_view misspelt, std::span<std::string_view const> names) {
    std::string_view const nearest = nearestName(misspelt, names);
    return nearest.empty() ? std::string()
                           : "; did you mean \"" + shortened(nearest, kLongest) + "\"?";
}

}  // namespace zel::detail
