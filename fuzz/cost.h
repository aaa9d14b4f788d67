#pragma once

#include <limits>
#include <map>
#include <type_traits>
#include <vector>

#include "expect.h"
#include "zel_scene/node_class.h"

/// How many calls of nodes a point call of the tree makes, or infinity if the tree has a parameter
/// that multiplies its time. A node with several parents counts once for each way to it.
class Cost {
public:
    template <class Node> double operator()(Quern::Ptr<Node> const& node) {
        if (!node) return 0;
        auto const [place, isNew] = m_costs.try_emplace(node.get(), 1.0);
        if (!isNew) return place->second;
        double cost = 1;
        std::vector<zel::Value> values;
        zel::NodeClass const* const nodeClass = findNodeClass(*node);
        expect(nodeClass != nullptr);
        nodeClass->read(*node, values);
        for (std::size_t i = 0; i < values.size(); ++i) {
            std::visit(
                [&](auto const& value) {
                    using T = std::remove_cvref_t<decltype(value)>;
                    if constexpr (std::is_same_v<T, zel::ScalarPtr> ||
                                  std::is_same_v<T, zel::VectorPtr>)
                        cost += kCallsOfAChild * (*this)(value);
                    else if constexpr (std::is_same_v<T, float>)
                        if (nodeClass->parameters[i].name == "octaves" && value > 20)
                            cost = std::numeric_limits<double>::infinity();
                },
                values[i]);
        }
        m_costs[node.get()] = cost;
        return cost;
    }

private:
    static constexpr double kCallsOfAChild = 2;

    std::map<void const*, double> m_costs;
};
