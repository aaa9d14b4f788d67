#include "ranks.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <stdexcept>
#include <system_error>

#include <zel_exchange/error.h>

namespace command {

namespace {

class SingleRank final : public Ranks {
public:
    bool showsProgress() const override { return isatty(STDERR_FILENO) == 1; }
    std::string fromRoot(std::string const& text) override { return text; }
    std::vector<double> gather(std::span<double const> numbers) override {
        return {numbers.begin(), numbers.end()};
    }
    void send(std::span<std::byte const> /*bytes*/) override { failToJoin(); }
    void receive(std::optional<std::size_t> /*from*/, std::vector<std::byte>& /*bytes*/) override {
        failToJoin();
    }
    std::unique_ptr<File> open(std::filesystem::path const& /*path*/) override { failToJoin(); }
    void fail(std::string const& line) override { std::fputs(line.c_str(), stderr); }

private:
    [[noreturn]] static void failToJoin() {
        throw std::logic_error("command::Ranks: there is one rank");
    }
};

/// Never destroyed, since a signal may end the program at any time.
struct Guarded {
    std::mutex mutex;
    std::filesystem::path path;
};
Guarded& guarded() {
    static auto* const file = new Guarded;
    return *file;
}

}  // namespace

std::optional<std::string> launchedProcesses() {
    // NOLINTBEGIN(concurrency-mt-unsafe): nothing changes the environment
    for (char const* const name : {"OMPI_COMM_WORLD_SIZE", "PMI_SIZE"})
        if (char const* const size = std::getenv(name)) return size;
    if (std::getenv("PMIX_RANK")) return std::string();
    // NOLINTEND(concurrency-mt-unsafe)
    return std::nullopt;
}

std::unique_ptr<Ranks> makeSingleRank() {
    return std::make_unique<SingleRank>();
}

void guardFile(std::filesystem::path const& temporary) {
    std::lock_guard const lock(guarded().mutex);
    guarded().path = temporary;
}

void abandonFiles() noexcept {
    zel::abandonOutputFiles();
    std::lock_guard const lock(guarded().mutex);
    if (!guarded().path.empty()) unlink(guarded().path.c_str());
}

void expectFiles(Ranks const& ranks, std::span<std::string const> names) {
    if (!ranks.isAlone() && std::find(names.begin(), names.end(), "-") != names.end())
        throw std::runtime_error("standard input is read in one process: give a file, or start zel "
                                 "without mpirun");
}

SharedFile::SharedFile(Ranks& ranks, std::filesystem::path const& path, std::string const& header,
                       std::uint64_t size)
    : m_ranks(ranks), m_name(path.string()), m_end(header.size()) {
    if (ranks.isRoot()) {
        if (!ranks.isAlone() && zel::OutputFile::isDirect(path))
            throw zel::FileError(m_name, {}, "is no regular file, which several ranks need");
        m_output.emplace(path);
        expectRoom(size);
        m_output->write(header);
    }
    if (ranks.isAlone()) return;
    if (ranks.isRoot()) reserve(size);
    std::filesystem::path const temporary =
        ranks.fromRoot(ranks.isRoot() ? m_output->temporaryPath().string() : std::string());
    guardFile(temporary);
    try {
        m_shared = ranks.open(temporary);
    } catch (std::runtime_error const& error) {
        fail(error.what());
    }
}

SharedFile::~SharedFile() = default;

void SharedFile::fail(std::string const& why) const {
    throw zel::FileError(m_name, {}, "cannot be written: " + why);
}

void SharedFile::expectRoom(std::uint64_t size) {
    struct statvfs status {};
    if (m_output->isDirect() || fstatvfs(fileno(m_output->stream()), &status) != 0 ||
        status.f_blocks == 0)  // of a file system without a limit
        return;
    std::uint64_t const free = std::uint64_t{status.f_bfree} * status.f_frsize;
    if (size > free)
        fail("it takes " + std::to_string(size) + " bytes, of which the disk has " +
             std::to_string(free) + " free");
}

void SharedFile::reserve(std::uint64_t size) {
    if (size == 0) return;
    // posix_fallocate() would write all blocks on a file system that cannot reserve them.
    int const file = fileno(m_output->stream());
    if (fallocate(file, 0, 0, static_cast<off_t>(size)) != 0 && errno != EOPNOTSUPP &&
        errno != ENOSYS)
        fail(std::generic_category().message(errno));
}

/// Some versions of MPI report bytes as written that were not.
void SharedFile::expectWhole() {
    if (std::fflush(m_output->stream()) != 0) fail(std::generic_category().message(errno));
    // A file that is opened anew has its present size on a network file system, too.
    int const file = ::open(m_output->temporaryPath().c_str(), O_RDONLY | O_CLOEXEC);
    struct stat status {};
    int const result = file < 0 ? -1 : fstat(file, &status);
    int const error = errno;
    if (file >= 0) ::close(file);
    if (result != 0) fail(std::generic_category().message(error));
    if (static_cast<std::uint64_t>(status.st_size) != m_end)
        fail("the file has " + std::to_string(status.st_size) + " bytes instead of " +
             std::to_string(m_end));
}

void SharedFile::write(std::uint64_t offset, std::span<std::byte const> bytes) {
    if (!m_shared) return m_output->write(bytes);
    try {
        m_end = std::max(m_end, m_shared->write(offset, bytes));
    } catch (std::runtime_error const& error) {
        fail(error.what());
    }
}

void SharedFile::commit(std::string const& header) {
    if (m_shared) {
        try {
            m_shared->close();
        } catch (std::runtime_error const& error) {
            fail(error.what());
        }
        m_ranks.gather({});  // the ranks' bytes are in the file
    }
    if (!m_output) return;
    if (!header.empty()) m_output->rewriteBegin(std::as_bytes(std::span(header)));
    if (m_shared) expectWhole();
    m_output->commit();
}

}  // namespace command
