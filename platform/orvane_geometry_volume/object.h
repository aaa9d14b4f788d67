#pragma once

#include <map>
#include <string>
#include <vector>

#include "zel_platform/orvane_geometry_volume/component.h"
#include "zel_platform/quern_core/ptr.h"
#include "zel_platform/quern_core/string.h"

namespace ORV {

/// A volume: components under names. Copies share the components. Any number of threads may read
/// one object while none writes it.
class ZEL_PLATFORM_API Object {
public:
    Object();
    Object(Object const&);
    Object(Object&&) noexcept;
    Object& operator=(Object const&);
    Object& operator=(Object&&) noexcept;
    virtual ~Object();

    /// Sets the component of a name, or replaces it; an empty pointer removes it.
    void setComponent(Quern::StringView name, Quern::Ptr<Component> component);

    /// The component of that name if it is a T, else an empty pointer.
    template <class T> Quern::Ptr<T> component(Quern::String const& name) const {
        return Quern::dynamicPtrCast<T>(find(name));
    }

    /// The names of the components, in ascending order.
    std::vector<std::string> componentNames() const;

private:
    Quern::Ptr<Component> find(Quern::StringView name) const;

    std::map<std::string, Quern::Ptr<Component>, std::less<>> m_components;
};

}  // namespace ORV
