#include "ranks.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
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
    std::vector<std::byte> receive(std::optional<std::size_t> /*from*/) override { failToJoin(); }
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
    : m_ranks(ranks), m_name(path.string()) {
    if (ranks.isRoot()) {
        m_output.emplace(path);
        m_output->write(header);
    }
    if (ranks.isAlone()) return;
    if (ranks.isRoot()) {
        if (m_output->isDirect())
            throw zel::FileError(m_name, {}, "is no regular file, which several ranks need");
        reserve(size);
    }
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

void SharedFile::reserve(std::uint64_t size) {
    if (size == 0) return;
    // posix_fallocate() would write all blocks on a file system that cannot reserve them.
    int const file = fileno(m_output->stream());
    if (fallocate(file, 0, 0, static_cast<off_t>(size)) != 0 && errno != EOPNOTSUPP &&
        errno != ENOSYS)
        fail(std::generic_category().message(errno));
}

void SharedFile::write(std::uint64_t offset, std::span<std::byte const> bytes) {
    if (!m_shared) return m_output->write(bytes);
    try {
        m_shared->write(offset, bytes);
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
    m_output->commit();
}

}  // namespace command
