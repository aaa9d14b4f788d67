#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

namespace zel::detail {

/// A parsed JSON text: a flat list of its values, the top one first. Values and their texts are
/// kept as written, so that a number can be rounded once, to the type that is asked for.
class JsonText {
public:
    static constexpr std::uint32_t kNone = ~std::uint32_t{0};

    enum class Type : std::uint8_t { kNull, kFalse, kTrue, kNumber, kString, kArray, kObject };

    struct Item {
        std::uint32_t parent = kNone, firstChild = kNone, next = kNone;
        std::uint32_t childCount = 0;
        std::uint32_t key = 0;  // into the texts, of a member of an object; the text follows it
        std::uint32_t text = 0, textSize = 0;  // of a number as written, or of a string
        Type type = Type::kNull;
    };

    /// Throws SceneError for a text that is not JSON, is longer than `mostBytes`, or nests arrays
    /// and objects deeper than `mostLevels`.
    JsonText(std::string_view text, std::size_t mostBytes, std::size_t mostLevels);

    Item const& operator[](std::uint32_t at) const { return m_items[at]; }
    std::string_view key(Item const& item) const { return view(item.key, item.text - item.key); }
    std::string_view text(Item const& item) const { return view(item.text, item.textSize); }

    /// The JSON pointer of a value.
    std::string path(std::uint32_t at) const;
    /// The value for an error message: a number or a text as written, else what it is.
    std::string shown(std::uint32_t at) const;

private:
    struct Builder;

    std::string_view view(std::uint32_t at, std::uint32_t size) const {
        return std::string_view(m_texts).substr(at, size);
    }

    std::deque<Item> m_items;  // no copy of all while it grows
    std::string m_texts;
};

}  // namespace zel::detail
