#include <algorithm>
#include <cstdint>
#include <utility>

#include "column_names.h"
#include "error.h"
#include "number_text.h"
#include "point_format.h"

namespace zel::detail {

namespace {

constexpr char const* kBlanks = " \t";
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

std::string_view trimmed(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
    return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

/// Rows of text: numbers with commas, semicolons, tabs or blanks between. The first row may hold
/// the names of the columns.
class TableReader : public RowReader {
public:
    explicit TableReader(ByteReader source_) : source(std::move(source_)) {
        std::string_view line;
        if (!nextRow(line)) {
            columns = {"x", "y", "z"};
            return;
        }
        if (line.find('\0') != std::string_view::npos)
            source.failAtLine("this is no text, .npy or .ply file");
        separator = line.find(';') != std::string_view::npos   ? ';'
                    : line.find(',') != std::string_view::npos ? ','
                                                               : ' ';
        std::vector<std::string> words = split(line);
        float ignored = 0;
        bool const isHeader = std::none_of(words.begin(), words.end(), [&](auto const& word) {
            return parseFloat(word, ignored) == nullptr;
        });
        if (!isHeader) {
            pending = line;
            columns = {"x", "y", "z"};
            for (std::size_t i = 3; i < words.size(); ++i)
                columns.push_back("column" + std::to_string(i + 1));
        } else {
            if (separator == ' ' && line.find('\t') != std::string_view::npos) {
                separator = '\t';
                words = split(line);
            }
            columns = std::move(words);
        }
    }

    std::size_t read(std::span<ColumnTarget const> targets, std::size_t most) override {
        std::size_t row = 0;
        std::string_view line;
        for (; row < most && nextRow(line); ++row) readRow(line, targets, row);
        return row;
    }

private:
    /// Passes over blank lines and comments.
    bool nextRow(std::string_view& row) {
        row = std::exchange(pending, {});
        if (!row.empty()) return true;
        while (source.nextLine(row)) {
            if (source.line() == 1 && row.starts_with(kByteOrderMark))
                row.remove_prefix(kByteOrderMark.size());
            std::size_t const first = row.find_first_not_of(kBlanks);
            if (first != std::string_view::npos && row[first] != '#') return true;
        }
        return false;
    }

    /// The characters around a field that are no part of it.
    char const* blanks() const { return separator == '\t' ? " " : kBlanks; }

    /// Removes the first field from a row that is not at its end. A quoted field goes to `unquoted`
    /// if it contains a quote.
    std::string_view nextField(std::string_view& row, std::string& unquoted) {
        row.remove_prefix(std::min(row.find_first_not_of(blanks()), row.size()));
        if (row.starts_with('"')) return quotedField(row, unquoted);
        std::size_t const end = separator == ' ' ? row.find_first_of(kBlanks) : row.find(separator);
        std::string_view const field = row.substr(0, end);
        leave(row, std::min(end, row.size()));
        return trimmed(field);
    }

    std::string_view quotedField(std::string_view& row, std::string& unquoted) {
        std::size_t end = row.find('"', 1);
        std::string_view field = row.substr(1, end - 1);
        if (end != std::string_view::npos && row.substr(end + 1).starts_with('"')) {
            unquoted = field;
            while (end != std::string_view::npos && row.substr(end + 1).starts_with('"')) {
                std::size_t const next = row.find('"', end + 2);
                unquoted += row.substr(end + 1, next - (end + 1));
                end = next;
            }
            field = unquoted;
        }
        if (end == std::string_view::npos)
            source.failAtLine("a quote is not closed: " + detail::quoted(row));
        std::size_t next = std::min(row.find_first_not_of(blanks(), end + 1), row.size());
        if (next < row.size() && separator != ' ' && row[next] != separator)
            source.failAtLine("wanted the next column after a quote, found " +
                              detail::quoted(row.substr(next)));
        if (separator == ' ') next = end + 1;
        leave(row, next);
        return field;
    }

    /// Removes a field that ends at `end`, and its separator. Notes whether another one follows.
    void leave(std::string_view& row, std::size_t end) {
        row.remove_prefix(end);
        if (separator == ' ')
            row.remove_prefix(std::min(row.find_first_not_of(kBlanks), row.size()));
        hasMore = !row.empty();
        if (hasMore && separator != ' ') row.remove_prefix(1);
    }

    std::vector<std::string> split(std::string_view row) {
        std::vector<std::string> words;
        std::string unquoted;
        if (separator == ' ') row = trimmed(row);
        do {
            if (words.size() == kMostColumns)
                source.failAtLine("there are more than " + std::to_string(kMostColumns) +
                                  " columns");
            words.emplace_back(nextField(row, unquoted));
        } while (hasMore);
        return words;
    }

    void readRow(std::string_view row, std::span<ColumnTarget const> targets, std::size_t number) {
        std::string unquoted;
        hasMore = true;
        for (std::size_t column = 0; column < columns.size(); ++column) {
            if (!hasMore)
                source.failAtLine("wanted " + std::to_string(columns.size()) + " numbers, found " +
                                  std::to_string(column));
            std::string_view const word = nextField(row, unquoted);
            if (targets[column].first == nullptr) continue;
            float value = 0;
            if (char const* const problem = parseFloat(word, value))
                failAtColumn(column, problem, word);
            targets[column].set(number, value);
        }
        if (hasMore)
            source.failAtLine("wanted " + std::to_string(columns.size()) +
                              " numbers, found more: " + detail::quoted(row));
    }

    [[noreturn]] void failAtColumn(std::size_t column, char const* problem, std::string_view word) {
        source.source().fail(
            "line " + std::to_string(source.line()) + ", column " + detail::quoted(columns[column]),
            std::string(problem) + ", found " + (word.empty() ? "nothing" : detail::quoted(word)));
    }

    ByteReader source;
    char separator = ' ';      // blank: any number of blanks and tabs
    bool hasMore = false;      // whether the row in hand has another field
    std::string_view pending;  // the first row, until it is read, if it has no names
};

}  // namespace

std::unique_ptr<RowReader> readTable(ByteReader source) {
    return std::make_unique<TableReader>(std::move(source));
}

}  // namespace zel::detail
