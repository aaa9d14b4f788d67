#pragma once

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "zel_platform/platform_api.h"
#include "zel_platform/quern_core/any.h"
#include "zel_platform/quern_core/ptr.h"
#include "zel_platform/quern_core/string.h"

namespace Orvane {

namespace Geometry {
class ReservedEntries;
}  // namespace Geometry

/// A geometry object: entries of any type under string keys. A host with entries of its own derives
/// from it and overrides the two look-ups; their exceptions are passed on to the caller. A copy has
/// the same entries, and shares the objects to which they point. Any number of threads may look up
/// entries while no thread sets or removes one.
///
/// Keys that begin with "Orvane::" are reserved for entries of the library, such as the volume:
/// they can be looked up, but neither set nor removed.
class ZEL_PLATFORM_API Object {
public:
    Object();
    Object(Object const&);
    virtual ~Object();
    Object& operator=(Object const&);

    /// Whether there is an entry under `key`, even an empty Any.
    virtual bool hasProperty(Quern::StringView key) const;

    /// The entry under `key`; an empty Any if there is none.
    virtual Quern::Any property(Quern::StringView key) const;

    /// Sets or replaces an entry. Throws std::invalid_argument if `key` is empty or reserved.
    void setProperty(Quern::StringView key, Quern::Any value);

    /// Removes an entry, if there is one. Throws std::invalid_argument if `key` is reserved.
    void removeProperty(Quern::StringView key);

    /// The keys of the entries that were set, in ascending order. Reserved keys are not among them,
    /// nor are entries that a host keeps elsewhere.
    std::vector<std::string> propertyNames() const;

private:
    friend Geometry::ReservedEntries;

    std::map<std::string, Quern::Any, std::less<>> entries;
};

/// The entry under `key` if it is exactly a `Quern::Ptr<T>`, else an empty pointer.
template <class T> Quern::Ptr<T> pointerProperty(Object const& object, Quern::StringView key) {
    Quern::Any entry = object.property(key);
    auto* const held = entry.get<Quern::Ptr<T>>();
    return held ? std::move(*held) : Quern::Ptr<T>();
}

}  // namespace Orvane
