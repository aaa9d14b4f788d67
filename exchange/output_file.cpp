#include "output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "error.h"

namespace zel {

namespace {

[[noreturn]] void failWith(std::filesystem::path const& path, char const* what) {
    throw FileError(path.string(), {},
                    std::string(what) + ": " + std::generic_category().message(errno));
}

}  // namespace

OutputFile::OutputFile(std::filesystem::path path) : m_path(std::move(path)) {
    // A name that ends in the suffix of the file, since libraries choose the format by it.
    std::string name = m_path.parent_path() / ("." + m_path.stem().string() + "-XXXXXX");
    std::string const suffix = m_path.extension().string();
    name += suffix;
    int const file = mkostemps(name.data(), static_cast<int>(suffix.size()), O_CLOEXEC);
    if (file < 0) failWith(m_path, "cannot be written");
    m_temporary = name;
    // The rights that a file made by its own name would have.
    mode_t const mask = umask(0);
    umask(mask);
    static_cast<void>(fchmod(file, 0666 & ~mask));
    m_stream = fdopen(file, "w+b");
    if (m_stream == nullptr) {
        int const error = errno;
        close(file);
        unlink(m_temporary.c_str());
        errno = error;
        failWith(m_path, "cannot be written");
    }
}

OutputFile::~OutputFile() {
    if (m_stream == nullptr) return;
    std::fclose(m_stream);
    unlink(m_temporary.c_str());
}

void OutputFile::write(std::span<std::byte const> bytes) {
    if (std::fwrite(bytes.data(), 1, bytes.size(), m_stream) != bytes.size())
        failWith(m_path, "cannot be written");
}
void OutputFile::write(std::string_view text) {
    write(std::as_bytes(std::span(text)));
}

void OutputFile::commit() {
    bool const flushed = std::fflush(m_stream) == 0;
    bool const closed = std::fclose(m_stream) == 0;
    m_stream = nullptr;
    if (flushed && closed && std::rename(m_temporary.c_str(), m_path.c_str()) == 0) return;
    int const error = errno;
    unlink(m_temporary.c_str());
    errno = error;
    failWith(m_path, "cannot be written");
}

}  // namespace zel
