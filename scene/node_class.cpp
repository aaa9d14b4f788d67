#include "zel_scene/node_class.h"

#include <algorithm>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <stdexcept>
#include <typeindex>
#include <unordered_map>

#include "zel/node/type_name.h"
#include "zel_scene/library_classes.h"
#include "zel_scene/shown_text.h"

namespace zel {

namespace {

/// All registered classes. They are never removed, so that a pointer to one stays valid.
class Registry {
public:
    Registry() {
        for (NodeClass& one : detail::libraryClasses()) add(std::move(one));
    }

    void add(NodeClass added) {
        check(added);
        std::unique_lock const lock(m_mutex);
        if (m_byName.contains(added.name)) refuse(added, "the name is taken");
        refuseShortNames(added);
        if (auto const known = m_byType.find(*added.type); known != m_byType.end())
            refuse(added, "the class is registered as \"" + known->second->name + '"');
        NodeClass const& kept = m_classes.emplace_back(std::move(added));
        try {
            m_byName.emplace(kept.name, &kept);
            m_byType.emplace(*kept.type, &kept);
        } catch (...) {
            m_byName.erase(kept.name);
            m_classes.pop_back();
            throw;
        }
    }

    NodeClass const* find(std::string_view name) const {
        std::shared_lock const lock(m_mutex);
        auto const found = m_byName.find(name);
        return found == m_byName.end() ? nullptr : found->second;
    }

    NodeClass const* find(std::type_info const& type) const {
        std::shared_lock const lock(m_mutex);
        auto const found = m_byType.find(type);
        return found == m_byType.end() ? nullptr : found->second;
    }

    std::vector<NodeClass const*> all() const {
        std::shared_lock const lock(m_mutex);
        std::vector<NodeClass const*> classes;
        for (auto const& [name, one] : m_byName) classes.push_back(one);
        return classes;
    }

private:
    [[noreturn]] static void refuse(NodeClass const& added, std::string const& why) {
        throw std::invalid_argument("zel::registerNode: " + std::string(typeNameOf(*added.type)) +
                                    " as \"" + detail::shortened(added.name) + "\": " + why);
    }

    /// A file finds a class by its full name, or by the name without the prefix of its kind: no
    /// class may have a name of both sorts.
    void refuseShortNames(NodeClass const& added) const {
        for (std::string_view const prefix : {"ScalarField", "VectorField"}) {
            std::string const longName = std::string(prefix) + added.name;
            if (m_byName.contains(longName)) refuse(added, "files have this name for " + longName);
            if (!added.name.starts_with(prefix)) continue;
            std::string const shortName = added.name.substr(prefix.size());
            if (m_byName.contains(shortName))
                refuse(added, "files would have the name of " + shortName + " for it");
        }
    }

    static void check(NodeClass const& added) {
        if (added.name.empty()) refuse(added, "the name is empty");
        if (!detail::isUtf8(added.name)) refuse(added, "the name is not UTF-8");
        // Files may put this before the name of any class.
        if (added.name.starts_with("zel::")) refuse(added, "the name begins with \"zel::\"");
        std::set<std::string_view> names{"", "type", "children", "comment"};
        for (ParameterInfo const& parameter : added.parameters) {
            if (!detail::isUtf8(parameter.name))
                refuse(added, "the name of a parameter is not UTF-8: " +
                                  detail::shortened(parameter.name));
            if (!names.insert(parameter.name).second)
                refuse(added, "a parameter cannot be named \"" + parameter.name +
                                  "\", or has that name twice");
            auto const* const isExact = std::get_if<bool>(&parameter.defaultValue);
            if (parameter.name == "exactGradient" && (!isExact || *isExact))
                refuse(added, "the parameter \"exactGradient\" is a bool, false by default");
        }
    }

    mutable std::shared_mutex m_mutex;
    std::deque<NodeClass> m_classes;
    std::map<std::string, NodeClass const*, std::less<>> m_byName;
    std::unordered_map<std::type_index, NodeClass const*> m_byType;
};

Registry& registry() {
    static Registry classes;
    return classes;
}

}  // namespace

NodeClass const* findNodeClass(std::string_view name) {
    return registry().find(name);
}

NodeClass const* findNodeClass(Field const& node) {
    return registry().find(typeid(node));
}

std::vector<NodeClass const*> nodeClasses() {
    return registry().all();
}

void addNodeClass(NodeClass added) {
    registry().add(std::move(added));
}

}  // namespace zel
