#include "byte_source.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "error.h"

namespace zel::detail {

ByteSource::ByteSource(std::filesystem::path const& path)
    : m_name(path == "-" ? "standard input" : path.string()) {
    if (path == "-") {
        m_file = STDIN_FILENO;
    } else {
        m_file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (m_file < 0) fail({}, "cannot be opened: " + std::generic_category().message(errno));
        m_owned = true;
    }
    // Of a redirected standard input, the offset need not be 0, so it is read as a pipe is.
    struct stat status {};
    if (m_owned && fstat(m_file, &status) == 0 && S_ISREG(status.st_mode))
        m_size = static_cast<std::uint64_t>(status.st_size);
}

ByteSource::ByteSource(std::span<std::byte const> memory, std::string name)
    : m_name(std::move(name)), m_memory(memory.data()), m_size(memory.size()) {}

ByteSource::ByteSource(ByteSource&& other) noexcept
    : m_name(std::move(other.m_name)), m_memory(other.m_memory),
      m_file(std::exchange(other.m_file, -1)), m_owned(std::exchange(other.m_owned, false)),
      m_size(other.m_size), m_place(other.m_place) {}

ByteSource::~ByteSource() {
    if (m_owned) close(m_file);
}

std::size_t ByteSource::read(std::span<std::byte> to) {
    if (m_file < 0) {
        std::size_t const count =
            static_cast<std::size_t>(std::min<std::uint64_t>(to.size(), *m_size - m_place));
        if (count > 0) std::memcpy(to.data(), m_memory + m_place, count);
        m_place += count;
        return count;
    }
    std::size_t done = 0;
    while (done < to.size()) {
        ssize_t const count = ::read(m_file, to.data() + done, to.size() - done);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) fail({}, "cannot be read: " + std::generic_category().message(errno));
        if (count == 0) break;
        done += static_cast<std::size_t>(count);
    }
    return done;
}

void ByteSource::readAt(std::uint64_t offset, std::span<std::byte> to) const {
    auto const end = [&] { fail("byte " + std::to_string(offset), "the file ends too early"); };
    if (m_file < 0) {
        if (offset > *m_size || to.size() > *m_size - offset) end();
        if (!to.empty()) std::memcpy(to.data(), m_memory + offset, to.size());
        return;
    }
    for (std::size_t done = 0; done < to.size();) {
        ssize_t const count =
            pread(m_file, to.data() + done, to.size() - done, static_cast<off_t>(offset + done));
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) fail({}, "cannot be read: " + std::generic_category().message(errno));
        if (count == 0) end();
        done += static_cast<std::size_t>(count);
    }
}

void ByteSource::fail(std::string const& place, std::string const& message) const {
    throw FileError(m_name, place, message);
}

/// Reads on into the buffer, whose unread bytes move to its begin. Returns false at the end.
bool ByteReader::readMore() {
    constexpr std::uint64_t kLeast = 1 << 12, kMost = 1 << 18;
    std::size_t const block = std::clamp(m_source.size().value_or(kMost), kLeast, kMost);
    std::size_t const kept = m_end - m_begin;
    if (m_begin > 0) std::memmove(m_buffer.data(), m_buffer.data() + m_begin, kept);
    m_offset += std::exchange(m_begin, 0);
    m_buffer.resize(std::max(m_buffer.size(), kept + block));
    std::size_t const count = m_source.read(std::span(m_buffer).subspan(kept));
    m_end = kept + count;
    return count > 0;
}

bool ByteReader::fill(std::size_t count) {
    while (m_end - m_begin < count)
        if (!readMore()) return false;
    return true;
}

bool ByteReader::skip(std::uint64_t count) {
    while (count > 0) {
        if (m_begin == m_end && !readMore()) return false;
        auto const step = std::min<std::uint64_t>(count, m_end - m_begin);
        consume(static_cast<std::size_t>(step));
        count -= step;
    }
    return true;
}

bool ByteReader::nextLine(std::string_view& line) {
    std::size_t searched = 0;
    for (;;) {
        std::span<std::byte const> const rest = buffered();
        auto const* const found = rest.size() > searched
                                      ? static_cast<std::byte const*>(std::memchr(
                                            rest.data() + searched, '\n', rest.size() - searched))
                                      : nullptr;
        std::size_t const length =
            found ? static_cast<std::size_t>(found - rest.data()) : rest.size();
        if (length > kLongestLine) {
            ++m_line;
            failAtLine("the line is longer than " + std::to_string(kLongestLine) + " bytes");
        }
        searched = rest.size();
        if (!found && readMore()) continue;
        if (!found && rest.empty()) return false;
        // readMore() may have moved the rest.
        line = {reinterpret_cast<char const*>(buffered().data()), length};
        consume(found ? length + 1 : length);
        if (line.ends_with('\r')) line.remove_suffix(1);
        ++m_line;
        return true;
    }
}

void ByteReader::failAtLine(std::string const& message) const {
    m_source.fail("line " + std::to_string(m_line), message);
}
void ByteReader::failAtByte(std::string const& message) const {
    m_source.fail("byte " + std::to_string(offset()), message);
}

}  // namespace zel::detail
