#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <zel_exchange/output_file.h>

// Several processes that share the work of one subcommand. ranks.cpp has the version of a single
// process; ranks_mpi.cpp, or ranks_none.cpp in a program without MPI, joins those of mpirun.
namespace command {

/// The processes that one mpirun started, each with its number, its rank. The root is rank 0; it
/// alone makes the output, names it, and shows the progress. Without mpirun there is the root
/// alone.
///
/// The functions are for the main thread. All ranks must call those that are called collective, in
/// the same order; each waits there for the others.
class Ranks {
public:
    /// A file that all ranks write.
    class File {
    public:
        virtual ~File() = default;
        /// Collective: copies bytes and begins to write them at an offset, or none, and waits for
        /// those that were given before. Returns the end of the last bytes that any rank writes.
        /// Throws std::runtime_error, also for a failure of the bytes before.
        virtual std::uint64_t write(std::uint64_t offset, std::span<std::byte const> bytes) = 0;
        /// Collective. Throws std::runtime_error.
        virtual void close() = 0;
    };

    Ranks() = default;
    Ranks(Ranks const&) = delete;
    Ranks& operator=(Ranks const&) = delete;
    virtual ~Ranks() = default;

    std::size_t rank() const { return m_rank; }
    std::size_t size() const { return m_size; }
    bool isRoot() const { return m_rank == 0; }
    bool isAlone() const { return m_size == 1; }

    /// Whether this rank draws the bar of the progress.
    virtual bool showsProgress() const = 0;
    /// Collective: the root's text.
    virtual std::string fromRoot(std::string const& text) = 0;
    /// Collective: the numbers of all ranks, as many of each, in the order of the ranks.
    virtual std::vector<double> gather(std::span<double const> numbers) = 0;
    /// Sends bytes to the root, fewer than 2^31, and waits until they are received.
    virtual void send(std::span<std::byte const> bytes) = 0;
    /// Receives at the root the next bytes from another rank, or from any, in place of those that
    /// `bytes` has.
    virtual void receive(std::optional<std::size_t> from, std::vector<std::byte>& bytes) = 0;
    /// Collective: opens a file that exists. Throws std::runtime_error at all ranks if one of them
    /// cannot open it.
    virtual std::unique_ptr<File> open(std::filesystem::path const& path) = 0;
    /// Ends all ranks, removes the files that are being written, and prints a line to the standard
    /// error stream; of several ranks that fail at once, one prints. Returns if there is no other.
    virtual void fail(std::string const& line) = 0;

protected:
    std::size_t m_rank = 0, m_size = 1;
};

/// The number of processes that a launcher, such as mpirun, has told this one in the environment;
/// empty if it tells none. Nothing without a launcher.
std::optional<std::string> launchedProcesses();

/// The single process.
std::unique_ptr<Ranks> makeSingleRank();
/// Joins the other processes, if mpirun started this one. Throws std::runtime_error if they cannot
/// be joined.
std::unique_ptr<Ranks> joinRanks();

/// A file of known layout that all ranks write in pieces; the root makes it beside and renames it:
/// see OutputFile. All functions are collective.
class SharedFile {
public:
    /// Begins a file with a header. `size` is the bytes of the file, or 0 if it is not known. A
    /// disk with less room is an error at once, and several ranks reserve the room where the file
    /// system can; a disk that others fill is an error of write(). Throws zel::FileError.
    SharedFile(Ranks& ranks, std::filesystem::path const& path, std::string const& header,
               std::uint64_t size);
    ~SharedFile();

    /// Writes bytes at an offset, or none. A single rank writes in the order of the file.
    void write(std::uint64_t offset, std::span<std::byte const> bytes);
    /// Puts the file under its name, with another header of the same size if one is given.
    void commit(std::string const& header = {});

private:
    void expectRoom(std::uint64_t size);
    void reserve(std::uint64_t size);
    void expectWhole();
    [[noreturn]] void fail(std::string const& why) const;

    Ranks& m_ranks;
    std::string m_name;
    std::optional<zel::OutputFile> m_output;  // of the root
    std::unique_ptr<Ranks::File> m_shared;    // of several ranks
    std::uint64_t m_end;                      // of the bytes that are written
};

/// Throws std::runtime_error for "-" among the names of files if there are several ranks: the
/// standard input is that of the root alone.
void expectFiles(Ranks const& ranks, std::span<std::string const> names);

/// Removes a file that another rank makes, if this process ends before the file is complete: the
/// other one may be killed.
void guardFile(std::filesystem::path const& temporary);
/// Removes the file that is guarded, and all output files of this process: see
/// zel::abandonOutputFiles().
void abandonFiles() noexcept;

}  // namespace command
