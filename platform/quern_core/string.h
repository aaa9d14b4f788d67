#pragma once

#include <compare>
#include <iosfwd>
#include <string>
#include <string_view>

#include "zel_platform/platform_api.h"
#include "zel_platform/quern_core/ptr.h"

namespace Quern {

/// An immutable text. Copies share the text, so that a copy allocates nothing. As for Ptr, distinct
/// strings may be used from any number of threads.
class ZEL_PLATFORM_API String {
public:
    String() noexcept = default;
    String(char const* text);  ///< null gives the empty text
    String(std::string text);

    long long size() const noexcept { return shared ? static_cast<long long>(shared->size()) : 0; }
    bool empty() const noexcept { return size() == 0; }
    char const* c_str() const noexcept { return shared ? shared->c_str() : ""; }
    operator std::string() const;

private:
    Ptr<std::string const> shared;  // empty for the empty text
};

/// A view of a null-terminated text: a literal, a std::string or a String, which must outlive the
/// view.
class ZEL_PLATFORM_API StringView {
public:
    constexpr StringView() noexcept = default;
    constexpr StringView(char const* text) noexcept : view(text ? text : "") {}
    StringView(std::string const& text) noexcept : view(text) {}
    StringView(String const& text) noexcept
        : view(text.c_str(), static_cast<std::size_t>(text.size())) {}

    constexpr long long size() const noexcept { return static_cast<long long>(view.size()); }
    constexpr bool empty() const noexcept { return view.empty(); }
    constexpr char const* c_str() const noexcept { return view.data(); }
    operator std::string() const { return std::string(view); }
    explicit operator String() const { return String(std::string(view)); }

    constexpr std::string_view standardView() const noexcept { return view; }

private:
    std::string_view view = "";
};

inline bool operator==(StringView a, StringView b) noexcept {
    return a.standardView() == b.standardView();
}
inline std::strong_ordering operator<=>(StringView a, StringView b) noexcept {
    return a.standardView() <=> b.standardView();
}
// Two Strings are compared as views.
inline bool operator==(String const& a, String const& b) noexcept {
    return StringView(a) == StringView(b);
}
inline std::strong_ordering operator<=>(String const& a, String const& b) noexcept {
    return StringView(a) <=> StringView(b);
}

ZEL_PLATFORM_API std::ostream& operator<<(std::ostream& stream, StringView text);

}  // namespace Quern
