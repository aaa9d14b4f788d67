#pragma once

#include <any>
#include <concepts>
#include <type_traits>
#include <utility>

namespace Quern {

/// A value of any copyable type, or no value. Access never converts: a `float` is not found as a
/// `double`, nor a `Ptr<Derived>` as a `Ptr<Base>`.
class Any {
public:
    Any() noexcept = default;

    template <class T>
    requires(!std::same_as<std::remove_cvref_t<T>, Any>) Any(T&& value)
        : held(std::forward<T>(value)) {}

    bool empty() const noexcept { return !held.has_value(); }

    /// A pointer to the value if its type is exactly T, else null.
    template <class T> T* get() noexcept { return std::any_cast<T>(&held); }
    template <class T> T const* get() const noexcept { return std::any_cast<T>(&held); }

private:
    std::any held;
};

}  // namespace Quern
