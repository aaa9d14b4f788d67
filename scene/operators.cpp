#include "zel_scene/operators.h"

#include <stdexcept>
#include <string>
#include <vector>

namespace zel {

namespace {

/// As the reader of files joins the fields of "children".
template <class Node> ScalarPtr balanced(std::span<ScalarPtr const> fields, char const* caller) {
    if (fields.empty()) throw std::invalid_argument(std::string(caller) + ": no fields");
    std::vector<ScalarPtr> level(fields.begin(), fields.end());
    for (; level.size() > 1; level.resize((level.size() + 1) / 2))
        for (std::size_t i = 0; i < level.size(); i += 2)
            level[i / 2] = i + 1 < level.size() ? detail::made<Node>(level[i], level[i + 1])
                                                : std::move(level[i]);
    return std::move(level[0]);
}

}  // namespace

ScalarPtr unionOf(std::span<ScalarPtr const> fields) {
    return balanced<ScalarFieldMin>(fields, "zel::unionOf");
}

ScalarPtr intersectionOf(std::span<ScalarPtr const> fields) {
    return balanced<ScalarFieldMax>(fields, "zel::intersectionOf");
}

}  // namespace zel
