#include "zel_platform/orvane_geometry_volume/object.h"

#include <utility>

namespace ORV {

Component::~Component() = default;

Object::Object() = default;
Object::Object(Object const&) = default;
Object::Object(Object&&) noexcept = default;
Object& Object::operator=(Object const&) = default;
Object& Object::operator=(Object&&) noexcept = default;
Object::~Object() = default;

void Object::setComponent(Quern::StringView name, Quern::Ptr<Component> component) {
    if (component)
        m_components.insert_or_assign(std::string(name.standardView()), std::move(component));
    else if (auto const found = m_components.find(name.standardView()); found != m_components.end())
        m_components.erase(found);
}

std::vector<std::string> Object::componentNames() const {
    std::vector<std::string> names;
    for (auto const& [name, component] : m_components) names.push_back(name);
    return names;
}

Quern::Ptr<Component> Object::find(Quern::StringView name) const {
    auto const found = m_components.find(name.standardView());
    return found == m_components.end() ? Quern::Ptr<Component>() : found->second;
}

}  // namespace ORV
