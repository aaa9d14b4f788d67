#include "zel_platform/orvane_geometry/object.h"

#include <stdexcept>
#include <string>

namespace Orvane {

namespace {

void refuseReserved(char const* caller, Quern::StringView key) {
    if (key.standardView().starts_with("Orvane::"))
        throw std::invalid_argument(std::string("Orvane::Object::") + caller + ": the key \"" +
                                    std::string(key) + "\" is reserved");
}

}  // namespace

Object::Object() = default;
Object::Object(Object const&) = default;
Object::~Object() = default;
Object& Object::operator=(Object const&) = default;

bool Object::hasProperty(Quern::StringView key) const {
    return entries.find(key.standardView()) != entries.end();
}

Quern::Any Object::property(Quern::StringView key) const {
    auto const found = entries.find(key.standardView());
    return found == entries.end() ? Quern::Any() : found->second;
}

void Object::setProperty(Quern::StringView key, Quern::Any value) {
    if (key.empty()) throw std::invalid_argument("Orvane::Object::setProperty: the key is empty");
    refuseReserved("setProperty", key);
    entries.insert_or_assign(key, std::move(value));
}

void Object::removeProperty(Quern::StringView key) {
    refuseReserved("removeProperty", key);
    auto const found = entries.find(key.standardView());
    if (found != entries.end()) entries.erase(found);
}

std::vector<std::string> Object::propertyNames() const {
    std::vector<std::string> names;
    for (auto const& [key, value] : entries)
        if (!key.starts_with("Orvane::")) names.push_back(key);
    return names;
}

}  // namespace Orvane
