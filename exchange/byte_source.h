#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace zel::detail {

/// The bytes of a file, of a pipe or of memory, to be read. Errors are FileError with its name.
class ByteSource {
public:
    /// Opens a file; "-" is the standard input. Throws FileError.
    explicit ByteSource(std::filesystem::path const& path);
    /// Bytes that stay in memory of the caller; `name` stands for a file in errors.
    ByteSource(std::span<std::byte const> memory, std::string name);
    ByteSource(ByteSource&& other) noexcept;
    ByteSource& operator=(ByteSource&&) = delete;
    ~ByteSource();

    std::string const& name() const { return m_name; }
    /// The bytes of a regular file or of memory; none of a pipe or a device.
    std::optional<std::uint64_t> size() const { return m_size; }
    /// Reads the next bytes: fewer than wanted only at the end.
    std::size_t read(std::span<std::byte> to);
    /// Reads bytes at an offset, of a source that has a size. Throws FileError at the end.
    void readAt(std::uint64_t offset, std::span<std::byte> to) const;
    /// The memory that was given, or null.
    std::byte const* memory() const { return m_memory; }
    int descriptor() const { return m_file; }
    [[noreturn]] void fail(std::string const& place, std::string const& message) const;

private:
    std::string m_name;
    std::byte const* m_memory = nullptr;
    int m_file = -1;
    bool m_owned = false;
    std::optional<std::uint64_t> m_size;
    std::uint64_t m_place = 0;  // of read() in memory
};

/// A source read through a buffer, in lines or in blocks.
class ByteReader {
public:
    static constexpr std::size_t kLongestLine = std::size_t{1} << 20;

    explicit ByteReader(ByteSource source) : m_source(std::move(source)) {}

    ByteSource const& source() const { return m_source; }
    /// Buffers at least `count` bytes, at most 2^24. Returns false if the source has fewer.
    bool fill(std::size_t count);
    /// The unread bytes that are buffered.
    std::span<std::byte const> buffered() const {
        return {m_buffer.data() + m_begin, m_end - m_begin};
    }
    void consume(std::size_t count) { m_begin += count; }
    /// Passes over bytes. Returns false if the source has fewer.
    bool skip(std::uint64_t count);
    /// Reads a line without its end. The text is valid until the next call of another function.
    /// Returns false at the end. Throws FileError for a line above kLongestLine.
    bool nextLine(std::string_view& line);
    /// The number of the last line, from 1.
    std::uint64_t line() const { return m_line; }
    /// Of the first unread byte.
    std::uint64_t offset() const { return m_offset + m_begin; }

    /// Throws FileError for the last line, or for the first unread byte.
    [[noreturn]] void failAtLine(std::string const& message) const;
    [[noreturn]] void failAtByte(std::string const& message) const;

private:
    bool readMore();

    ByteSource m_source;
    std::vector<std::byte> m_buffer;
    std::size_t m_begin = 0, m_end = 0;
    std::uint64_t m_offset = 0;  // of the first byte of the buffer
    std::uint64_t m_line = 0;
};

}  // namespace zel::detail
