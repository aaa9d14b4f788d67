#include "output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "error.h"

namespace zel {

namespace fs = std::filesystem;

namespace {

/// The temporary files of this process.
struct TemporaryFiles {
    std::mutex mutex;
    std::vector<fs::path> paths;
    bool isAbandoned = false;
};

/// Never destroyed, since another thread may write a file while the program ends.
TemporaryFiles& temporaryFiles() {
    static auto* const files = new TemporaryFiles;
    return *files;
}

/// A name that ends in the suffix of the file, since libraries choose the format by it.
std::string temporaryName(fs::path const& path, unsigned number) {
    constexpr std::size_t kLongest = 255;
    std::string const end =
        "-" + std::to_string(getpid()) + "-" + std::to_string(number) + path.extension().string();
    std::string stem = "." + path.stem().string();
    if (stem.size() + end.size() > kLongest && end.size() < kLongest) {
        std::size_t size = kLongest - end.size();
        while (size > 1 && (stem[size] & 0xC0) == 0x80) --size;  // within a character of UTF-8
        stem.resize(size);
    }
    return stem + end;
}

void expectOpen(std::FILE const* stream) {
    if (stream == nullptr)
        throw std::logic_error("zel::OutputFile: commit() has been called already");
}

}  // namespace

bool OutputFile::isDirect(fs::path const& path) {
    std::error_code ignored;
    fs::file_status const status = fs::status(path, ignored);
    return path == "-" || (fs::exists(status) && !fs::is_regular_file(status));
}

OutputFile::OutputFile(fs::path path) : m_name(path.string()), m_path(std::move(path)) {
    if (m_path == "-") {
        m_name = "standard output";
        m_temporary = m_path;
        m_stream = stdout;
        return;
    }
    if (isDirect(m_path)) {
        m_temporary = m_path;
        m_stream = std::fopen(m_path.c_str(), "wbe");
    } else {
        openBeside();
    }
    if (m_stream == nullptr) fail(errno);
}

void OutputFile::openBeside() {
    std::error_code error;
    if (fs::exists(m_path, error)) {
        m_path = fs::canonical(m_path, error);
    } else {
        // Links whose last one leads to a file that is not there yet.
        error.clear();
        constexpr int kMostLinks = 40;
        int links = 0;
        while (!error && links < kMostLinks && fs::is_symlink(fs::symlink_status(m_path, error))) {
            fs::path const target = fs::read_symlink(m_path, error);
            m_path = m_path.parent_path() / target;
            ++links;
        }
        if (links == kMostLinks)
            error = std::make_error_code(std::errc::too_many_symbolic_link_levels);
        else if (error == std::errc::no_such_file_or_directory)
            error.clear();
    }
    if (!error && m_path.empty())
        error = std::make_error_code(std::errc::no_such_file_or_directory);
    if (error) {
        errno = error.value();
        return;
    }
    static std::atomic<unsigned> number = 0;
    TemporaryFiles& all = temporaryFiles();
    int file = -1;
    do {
        m_temporary = m_path.parent_path() / temporaryName(m_path, number++);
        std::lock_guard const lock(all.mutex);
        if (all.isAbandoned) {
            errno = ECANCELED;
            return;
        }
        // Nothing allocates once the file is there.
        fs::path listed = m_temporary;
        all.paths.reserve(all.paths.size() + 1);
        file = open(m_temporary.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (file >= 0) all.paths.push_back(std::move(listed));
    } while (file < 0 && errno == EEXIST);
    if (file < 0) return;
    struct stat before {};
    // Some file systems have no permissions, so that a failure means nothing.
    if (stat(m_path.c_str(), &before) == 0) static_cast<void>(fchmod(file, before.st_mode & 0777));
    m_stream = fdopen(file, "w+b");
    if (m_stream != nullptr) return;
    int const reason = errno;
    close(file);
    discard();
    errno = reason;
}

OutputFile::~OutputFile() {
    discard();
}

void OutputFile::discard() noexcept {
    if (m_stream != nullptr && m_stream != stdout) std::fclose(m_stream);
    m_stream = nullptr;
    if (isDirect() || m_temporary.empty()) return;
    TemporaryFiles& all = temporaryFiles();
    std::lock_guard const lock(all.mutex);
    unlink(m_temporary.c_str());
    std::erase(all.paths, m_temporary);
    m_temporary.clear();
}

/// Puts the file under its name. Sets errno if that fails.
bool OutputFile::rename() {
    TemporaryFiles& all = temporaryFiles();
    std::lock_guard const lock(all.mutex);
    if (std::rename(m_temporary.c_str(), m_path.c_str()) != 0) return false;
    std::erase(all.paths, m_temporary);
    m_temporary.clear();
    return true;
}

void abandonOutputFiles() noexcept {
    TemporaryFiles& all = temporaryFiles();
    std::lock_guard const lock(all.mutex);
    all.isAbandoned = true;
    for (fs::path const& path : all.paths) unlink(path.c_str());
}

void OutputFile::fail(int error) const {
    throw FileError(m_name, {}, "cannot be written: " + std::generic_category().message(error));
}

void OutputFile::write(std::span<std::byte const> bytes) {
    expectOpen(m_stream);
    if (bytes.empty()) return;  // fwrite() takes no null pointer
    if (std::fwrite(bytes.data(), 1, bytes.size(), m_stream) != bytes.size()) fail(errno);
}
void OutputFile::write(std::string_view text) {
    write(std::as_bytes(std::span(text)));
}

void OutputFile::rewriteBegin(std::span<std::byte const> bytes) {
    expectOpen(m_stream);
    if (isDirect()) fail(ESPIPE);
    if (fseeko(m_stream, 0, SEEK_SET) != 0) fail(errno);
    write(bytes);
    if (fseeko(m_stream, 0, SEEK_END) != 0) fail(errno);
}

void OutputFile::commit() {
    expectOpen(m_stream);
    bool done = std::fflush(m_stream) == 0;
    int error = errno;
    if (m_stream != stdout && std::fclose(m_stream) != 0) {
        if (done) error = errno;
        done = false;
    }
    m_stream = nullptr;
    if (done && !isDirect()) {
        done = rename();
        error = errno;
    }
    if (done) return;
    discard();
    fail(error);
}

}  // namespace zel
