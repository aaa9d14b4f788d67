#include "column_names.h"

#include <algorithm>
#include <map>
#include <set>

namespace zel::detail {

namespace {

struct Component {
    std::string vector;  // empty for a column that is no component
    std::size_t number = 0;
};

Component componentOf(std::string const& name) {
    static std::map<std::string, Component, std::less<>> const fixed = {
        {"nx", {"normal", 0}}, {"ny", {"normal", 1}},   {"nz", {"normal", 2}},
        {"red", {"color", 0}}, {"green", {"color", 1}}, {"blue", {"color", 2}},
        {"r", {"color", 0}},   {"g", {"color", 1}},     {"b", {"color", 2}},
    };
    if (auto const found = fixed.find(name); found != fixed.end()) return found->second;
    constexpr std::string_view kAxes = "xyzXYZ";
    std::size_t const axis = name.size() < 2 ? kAxes.npos : kAxes.find(name.back());
    if (axis == std::string_view::npos) return {};
    std::string base = name.substr(0, name.size() - 1);
    if (base.size() > 1 && (base.back() == '_' || base.back() == '.')) base.pop_back();
    return {base, axis % 3};
}

}  // namespace

std::array<std::size_t, 3> positionColumns(std::span<std::string const> names) {
    std::array<std::size_t, 3> columns{names.size(), names.size(), names.size()};
    for (std::size_t c = 0; c < 3; ++c)
        for (char const first : {'x', 'X'}) {
            std::string const name(1, static_cast<char>(first + static_cast<char>(c)));
            auto const found = std::find(names.begin(), names.end(), name);
            if (found == names.end()) continue;
            columns[c] = static_cast<std::size_t>(found - names.begin());
            break;
        }
    return columns;
}

std::vector<VectorColumns> vectorColumns(std::span<std::string const> names) {
    std::set<std::string, std::less<>> taken(names.begin(), names.end());
    std::vector<VectorColumns> vectors;
    std::size_t const none = names.size();
    for (std::size_t i = 0; i < names.size(); ++i) {
        Component const component = componentOf(names[i]);
        if (component.vector.empty()) continue;
        auto found = std::find_if(vectors.begin(), vectors.end(), [&](VectorColumns const& vector) {
            return vector.name == component.vector && vector.columns[component.number] == none;
        });
        if (found == vectors.end())
            found = vectors.insert(found, {component.vector, {none, none, none}});
        found->columns[component.number] = i;
    }
    std::erase_if(vectors, [&](VectorColumns const& vector) {
        return std::count(vector.columns.begin(), vector.columns.end(), none) > 0 ||
               !taken.insert(vector.name).second;
    });
    return vectors;
}

}  // namespace zel::detail
