#include "zel_scene/json_text.h"

#include <algorithm>
#include <vector>

#include "zel_scene/error.h"
#include "zel_scene/nlohmann_json.h"
#include "zel_scene/shown_text.h"

namespace zel::detail {

/// Receives the events of the parser, which keeps its own stack on the heap.
struct JsonText::Builder : nlohmann::json_sax<nlohmann::json> {
    Builder(JsonText& to, std::string_view from, std::size_t most)
        : json(to), source(from), mostLevels(most) {}

    bool null() override { return add(Type::kNull, {}); }
    bool boolean(bool value) override { return add(value ? Type::kTrue : Type::kFalse, {}); }
    bool number_integer(number_integer_t value) override {
        return add(Type::kNumber, std::to_string(value));
    }
    bool number_unsigned(number_unsigned_t value) override {
        return add(Type::kNumber, std::to_string(value));
    }
    bool number_float(number_float_t /*value*/, string_t const& text) override {
        // The parser puts the decimal point of the locale in place of the one in the file.
        std::string written = text;
        auto const point = written.find_first_not_of("+-0123456789eE");
        if (point != std::string::npos) written[point] = '.';
        return add(Type::kNumber, written);
    }
    bool string(string_t& text) override { return add(Type::kString, text); }
    bool binary(binary_t& /*bytes*/) override { return false; }  // not in a text
    bool start_object(std::size_t /*count*/) override { return open(Type::kObject); }
    bool end_object() override { return close(); }
    bool start_array(std::size_t /*count*/) override { return open(Type::kArray); }
    bool end_array() override { return close(); }
    bool key(string_t& text) override {
        keyAt = json.m_texts.size();
        json.m_texts += text;
        return true;
    }
    bool parse_error(std::size_t position, std::string const& /*token*/,
                     nlohmann::json::exception const& error) override {
        std::string message = error.what();
        for (std::string_view const lead : {"] ", ": "})  // the number of the error, and its place
            if (auto const found = message.find(lead); found != std::string::npos)
                message.erase(0, found + lead.size());
        // The message shows the token, which may be long, or not be UTF-8.
        constexpr std::size_t kMost = 300;
        // The position is the number of bytes read, the faulty one included.
        refuse(position == 0 ? 0 : position - 1, shortened(message, kMost));
    }

    [[noreturn]] void refuse(std::size_t at, std::string const& message) const {
        std::string_view const before = source.substr(0, at);
        auto const line = static_cast<std::size_t>(std::count(before.begin(), before.end(), '\n'));
        std::size_t const start = before.rfind('\n') + 1;  // 0 if there is none
        throw SceneError(line + 1, before.size() - start + 1, message);
    }

    bool add(Type type, std::string_view text) {
        auto const at = static_cast<std::uint32_t>(json.m_items.size());
        Item item;
        item.type = type;
        item.parent = open_.empty() ? kNone : open_.back().item;
        item.text = static_cast<std::uint32_t>(json.m_texts.size());
        item.textSize = static_cast<std::uint32_t>(text.size());
        if (!open_.empty()) {
            Level& level = open_.back();
            Item& parent = json.m_items[level.item];
            if (parent.type == Type::kObject) {
                item.key = static_cast<std::uint32_t>(keyAt);
            }
            (level.last == kNone ? parent.firstChild : json.m_items[level.last].next) = at;
            level.last = at;
            ++parent.childCount;
        }
        json.m_texts += text;
        json.m_items.push_back(item);
        return true;
    }
    bool open(Type type) {
        add(type, {});
        auto const at = static_cast<std::uint32_t>(json.m_items.size() - 1);
        if (open_.size() >= mostLevels)
            throw SceneError(json.path(at), "nested deeper than the limit of " +
                                                std::to_string(mostLevels) + " arrays and objects");
        open_.push_back({at, kNone});
        return true;
    }
    bool close() {
        open_.pop_back();
        return true;
    }

    struct Level {
        std::uint32_t item, last;
    };

    JsonText& json;
    std::string_view source;
    std::size_t mostLevels;
    std::vector<Level> open_;
    std::size_t keyAt = 0;
};

JsonText::JsonText(std::string_view text, std::size_t mostBytes, std::size_t mostLevels) {
    // Positions are numbers of 32 bits. A text of the parser is no longer than it is written, but
    // for numbers: those of up to 20 digits are as long, others are kept as written.
    mostBytes = std::min(mostBytes, std::size_t{1} << 31);
    if (text.size() > mostBytes)
        throw SceneError("", "the file has " + std::to_string(text.size()) +
                                 " bytes, more than the limit of " + std::to_string(mostBytes));
    m_texts.reserve(text.size());
    Builder builder(*this, text, mostLevels);
    nlohmann::json::sax_parse(text.begin(), text.end(), &builder);
    // The parser takes a byte 0 for the end of the text.
    if (auto const zero = text.find('\0'); zero != std::string_view::npos)
        builder.refuse(zero, "syntax error: a byte 0 after the end of the scene");
}

std::string JsonText::path(std::uint32_t at) const {
    std::vector<std::string> names;
    for (; m_items[at].parent != kNone; at = m_items[at].parent) {
        Item const& parent = m_items[m_items[at].parent];
        std::string name;
        if (parent.type == Type::kObject) {
            appendPointer(name, key(m_items[at]));
        } else {
            std::size_t index = 0;
            for (std::uint32_t i = parent.firstChild; i != at; i = m_items[i].next) ++index;
            name = '/' + std::to_string(index);
        }
        names.push_back(std::move(name));
    }
    std::string text;
    for (auto name = names.rbegin(); name != names.rend(); ++name) text += *name;
    return text;
}

std::string JsonText::shown(std::uint32_t at) const {
    Item const& item = m_items[at];
    switch (item.type) {
    case Type::kNull:
        return "null";
    case Type::kFalse:
        return "false";
    case Type::kTrue:
        return "true";
    case Type::kNumber:
        return shortened(text(item));
    case Type::kString:
        return '"' + shortened(text(item)) + '"';
    case Type::kArray:
        return "an array of " + std::to_string(item.childCount);
    case Type::kObject:
        return "an object";
    }
    return {};
}

}  // namespace zel::detail
