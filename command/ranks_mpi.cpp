#include <fcntl.h>
#include <mpi.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <thread>

#include "ranks.h"
#include "session.h"

namespace command {

namespace {

constexpr int kBytes = 1, kFailure = 2;  // tags of messages

/// Errors of communication end all ranks, by the default of MPI; those of files are returned.
void expect(int result) {
    if (result == MPI_SUCCESS) return;
    std::array<char, MPI_MAX_ERROR_STRING> text{};
    int length = 0;
    MPI_Error_string(result, text.data(), &length);
    throw std::runtime_error(text.data());
}

class MpiFile final : public Ranks::File {
public:
    explicit MpiFile(std::filesystem::path const& path) {
        expect(
            MPI_File_open(MPI_COMM_WORLD, path.c_str(), MPI_MODE_WRONLY, MPI_INFO_NULL, &m_file));
    }
    // A destructor that closes would wait for the other ranks after an error.

    void write(std::uint64_t offset, std::span<std::byte const> bytes) override {
        MPI_Status status;
        expect(MPI_File_write_at_all(m_file, static_cast<MPI_Offset>(offset), bytes.data(),
                                     static_cast<int>(bytes.size()), MPI_BYTE, &status));
        int written = 0;
        MPI_Get_count(&status, MPI_BYTE, &written);
        if (written != static_cast<int>(bytes.size()))
            throw std::runtime_error("only " + std::to_string(written) + " of " +
                                     std::to_string(bytes.size()) + " bytes were written");
    }
    void close() override { expect(MPI_File_close(&m_file)); }

private:
    MPI_File m_file = MPI_FILE_NULL;
};

/// Whether the standard error stream ends at a terminal. mpirun reads it from a pipe, and copies it
/// to its own; on other machines than that of mpirun, this is not found out.
bool isOnTerminal() {
    if (isatty(STDERR_FILENO) == 1) return true;
    std::string const stream = "/proc/" + std::to_string(getppid()) + "/fd/2";
    int const file = ::open(stream.c_str(), O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (file < 0) return false;
    bool const isTerminal = isatty(file) == 1;
    ::close(file);
    return isTerminal;
}

class MpiRanks final : public Ranks {
public:
    MpiRanks() {
        int provided = 0, rank = 0, size = 1;
        MPI_Init_thread(nullptr, nullptr, MPI_THREAD_FUNNELED, &provided);
        MPI_Comm_rank(MPI_COMM_WORLD, &rank);
        MPI_Comm_size(MPI_COMM_WORLD, &size);
        m_rank = static_cast<std::size_t>(rank);
        m_size = static_cast<std::size_t>(size);
        if (provided < MPI_THREAD_FUNNELED)
            throw std::runtime_error("this MPI does not allow a process to have threads");
    }
    MpiRanks(MpiRanks const&) = delete;
    MpiRanks& operator=(MpiRanks const&) = delete;
    ~MpiRanks() override { MPI_Finalize(); }

    bool showsProgress() const override { return isRoot() && isOnTerminal(); }

    std::string fromRoot(std::string const& text) override {
        auto size = static_cast<std::uint64_t>(text.size());
        MPI_Bcast(&size, 1, MPI_UINT64_T, 0, MPI_COMM_WORLD);
        std::string copy = text;
        copy.resize(size);
        MPI_Bcast(copy.data(), static_cast<int>(size), MPI_CHAR, 0, MPI_COMM_WORLD);
        return copy;
    }

    std::vector<double> gather(std::span<double const> numbers) override {
        if (numbers.empty()) MPI_Barrier(MPI_COMM_WORLD);
        std::vector<double> all(numbers.size() * m_size);
        auto const count = static_cast<int>(numbers.size());
        if (count > 0)
            MPI_Allgather(numbers.data(), count, MPI_DOUBLE, all.data(), count, MPI_DOUBLE,
                          MPI_COMM_WORLD);
        return all;
    }

    void send(std::span<std::byte const> bytes) override {
        MPI_Ssend(bytes.data(), static_cast<int>(bytes.size()), MPI_BYTE, 0, kBytes,
                  MPI_COMM_WORLD);
    }

    std::vector<std::byte> receive(std::optional<std::size_t> from) override {
        MPI_Status status;
        MPI_Probe(from ? static_cast<int>(*from) : MPI_ANY_SOURCE, kBytes, MPI_COMM_WORLD, &status);
        int count = 0;
        MPI_Get_count(&status, MPI_BYTE, &count);
        std::vector<std::byte> bytes(static_cast<std::size_t>(count));
        MPI_Recv(bytes.data(), count, MPI_BYTE, status.MPI_SOURCE, kBytes, MPI_COMM_WORLD,
                 MPI_STATUS_IGNORE);
        return bytes;
    }

    std::unique_ptr<File> open(std::filesystem::path const& path) override {
        return std::make_unique<MpiFile>(path);
    }

    void fail(std::string const& line) override {
        abandonFiles();
        if (isFirstToFail()) {
            // The root, which is killed, leaves its bar.
            std::fprintf(stderr, "%s%s", isOnTerminal() ? "\r\x1b[K" : "", line.c_str());
            std::fflush(stderr);
        } else {
            std::this_thread::sleep_for(std::chrono::seconds(5));  // the other one ends this one
        }
        MPI_Abort(MPI_COMM_WORLD, kFailed);
    }

private:
    /// Whether no rank of a lower number fails within a moment: an error that is in the input is
    /// found by all ranks.
    bool isFirstToFail() const {
        auto const number = static_cast<int>(m_rank);
        for (int to = number + 1; to < static_cast<int>(m_size); ++to) {
            MPI_Request request;
            MPI_Isend(nullptr, 0, MPI_BYTE, to, kFailure, MPI_COMM_WORLD, &request);
            MPI_Request_free(&request);
        }
        auto const end = std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
        do {
            int isThere = 0;
            MPI_Iprobe(MPI_ANY_SOURCE, kFailure, MPI_COMM_WORLD, &isThere, MPI_STATUS_IGNORE);
            if (isThere != 0) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        } while (std::chrono::steady_clock::now() < end);
        return true;
    }
};

/// MPI is not touched in a process of its own: it takes time and memory to start.
bool isStartedByMpi() {
    for (char const* const name : {"OMPI_COMM_WORLD_SIZE", "PMIX_RANK", "PMI_SIZE"})
        // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing changes the environment
        if (std::getenv(name)) return true;
    return false;
}

}  // namespace

std::unique_ptr<Ranks> joinRanks() {
    if (!isStartedByMpi()) return makeSingleRank();
    return std::make_unique<MpiRanks>();
}

}  // namespace command
