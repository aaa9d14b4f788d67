#include <fcntl.h>
#include <mpi.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <system_error>
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

[[noreturn]] void failWith(int error) {
    throw std::runtime_error(std::generic_category().message(error));
}

class MpiFile final : public Ranks::File {
public:
    /// Owns `own`, the same file without MPI.
    MpiFile(std::filesystem::path const& path, int own) : m_own(own) {
        expect(
            MPI_File_open(MPI_COMM_WORLD, path.c_str(), MPI_MODE_WRONLY, MPI_INFO_NULL, &m_file));
    }
    MpiFile(MpiFile const&) = delete;
    MpiFile& operator=(MpiFile const&) = delete;
    // MPI_File_close() would wait for the other ranks after an error.
    ~MpiFile() override {
        // After an error, too, a thread of MPI may still read the bytes: MPI_Abort() will end it.
        if (m_request != MPI_REQUEST_NULL) static_cast<void>(m_bytes.release());
        ::close(m_own);
    }

    std::uint64_t write(std::uint64_t offset, std::span<std::byte const> bytes) override {
        finishWriting();
        bool const isReserved = reserve(offset, bytes.size());
        std::array<std::uint64_t, 2> most{bytes.empty() ? 0 : offset + bytes.size(),
                                          isReserved ? 0U : 1U};
        MPI_Allreduce(MPI_IN_PLACE, most.data(), 2, MPI_UINT64_T, MPI_MAX, MPI_COMM_WORLD);
        expectAllowed(most[0]);
        if (most[1] == 0)
            writeTogether(offset, bytes);
        else
            writeAlone(offset, bytes);
        return most[0];
    }
    void close() override {
        finishWriting();
        expect(MPI_File_close(&m_file));
    }

private:
    /// Takes the room on the disk: OpenMPI hides from the other ranks, and from itself, that the
    /// one which writes for all has found the disk full. Returns false if the file system cannot.
    bool reserve(std::uint64_t offset, std::size_t size) const {
        if (size == 0) return true;
        int result = 0;
        do result = fallocate(m_own, 0, static_cast<off_t>(offset), static_cast<off_t>(size));
        while (result != 0 && errno == EINTR);
        if (result == 0) return true;
        if (errno != EOPNOTSUPP && errno != ENOSYS) failWith(errno);
        return false;
    }

    /// Throws if this rank, which may write for all, may not make a file so large.
    static void expectAllowed(std::uint64_t end) {
        struct rlimit limit {};
        if (getrlimit(RLIMIT_FSIZE, &limit) == 0 && end > limit.rlim_cur) failWith(EFBIG);
    }

    /// Begins to write. Ranks of one machine wait for one another when they write to a file, so
    /// they evaluate meanwhile.
    void writeTogether(std::uint64_t offset, std::span<std::byte const> bytes) {
        m_bytes = std::make_unique<std::vector<std::byte>>(bytes.begin(), bytes.end());
        expect(MPI_File_iwrite_at_all(m_file, static_cast<MPI_Offset>(offset), m_bytes->data(),
                                      static_cast<int>(bytes.size()), MPI_BYTE, &m_request));
    }

    void finishWriting() {
        if (m_request == MPI_REQUEST_NULL) return;
        MPI_Status status;
        expect(MPI_Wait(&m_request, &status));
        int written = 0;
        MPI_Get_count(&status, MPI_BYTE, &written);
        if (written != static_cast<int>(m_bytes->size()))
            throw std::runtime_error("only " + std::to_string(written) + " of " +
                                     std::to_string(m_bytes->size()) + " bytes were written");
    }

    void writeAlone(std::uint64_t offset, std::span<std::byte const> bytes) const {
        while (!bytes.empty()) {
            ssize_t const count =
                pwrite(m_own, bytes.data(), bytes.size(), static_cast<off_t>(offset));
            if (count < 0 && errno == EINTR) continue;
            if (count < 0) failWith(errno);
            offset += static_cast<std::uint64_t>(count);
            bytes = bytes.subspan(static_cast<std::size_t>(count));
        }
    }

    MPI_File m_file = MPI_FILE_NULL;
    MPI_Request m_request = MPI_REQUEST_NULL;
    std::unique_ptr<std::vector<std::byte>> m_bytes;  // that are being written
    int m_own;
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
        // Each process of another MPI's launcher would do all of the work.
        if (std::string const launched = launchedProcesses().value_or("");
            !launched.empty() && launched != std::to_string(m_size))
            throw std::runtime_error("the launcher started " + launched +
                                     " processes, of which this MPI joins " +
                                     std::to_string(m_size) + ": use its own mpirun");
        // If mpirun is killed, MPI ends the processes without a word, and files would be left.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
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

    void receive(std::optional<std::size_t> from, std::vector<std::byte>& bytes) override {
        MPI_Status status;
        MPI_Probe(from ? static_cast<int>(*from) : MPI_ANY_SOURCE, kBytes, MPI_COMM_WORLD, &status);
        int count = 0;
        MPI_Get_count(&status, MPI_BYTE, &count);
        bytes.resize(static_cast<std::size_t>(count));
        MPI_Recv(bytes.data(), count, MPI_BYTE, status.MPI_SOURCE, kBytes, MPI_COMM_WORLD,
                 MPI_STATUS_IGNORE);
    }

    std::unique_ptr<File> open(std::filesystem::path const& path) override {
        // MPI_File_open() waits for ever if some ranks cannot open the file.
        int const file = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
        auto const errors = gather(std::array{file < 0 ? static_cast<double>(errno) : 0.0});
        for (std::size_t rank = 0; rank < m_size; ++rank)
            if (errors[rank] != 0)
                throw std::runtime_error(
                    "rank " + std::to_string(rank) + " cannot open " + path.string() + ": " +
                    std::generic_category().message(static_cast<int>(errors[rank])));
        return std::make_unique<MpiFile>(path, file);
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

}  // namespace

std::unique_ptr<Ranks> joinRanks() {
    // MPI is not touched in a process of its own: it takes time and memory to start.
    if (!launchedProcesses()) return makeSingleRank();
    return std::make_unique<MpiRanks>();
}

}  // namespace command
