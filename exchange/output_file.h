#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>

#include "zel_exchange/api.h"

namespace zel {

/// A file that appears under its name only when it is complete. It is written beside, under a name
/// of its own in the same folder, and renamed by commit(); without that call the destructor removes
/// it, and a file that had the name before stays as it was. A symbolic link is kept: its target is
/// replaced. A device or a pipe, and the standard output, "-", are written directly. write(),
/// rewriteBegin() and commit() throw std::logic_error after commit(). One thread at a time may use
/// it.
class ZEL_EXCHANGE_API OutputFile {
public:
    /// Whether there is a device, a pipe or a folder of this name, which is not opened to know it,
    /// or the name is that of the standard output: no file beside can replace it.
    static bool isDirect(std::filesystem::path const& path);

    /// Throws FileError if the file cannot be made. Waits for the reader of a pipe.
    explicit OutputFile(std::filesystem::path path);
    OutputFile(OutputFile const&) = delete;
    OutputFile& operator=(OutputFile const&) = delete;
    ~OutputFile();

    /// Appends bytes. Throws FileError, on a full disk for example.
    void write(std::span<std::byte const> bytes);
    void write(std::string_view text);
    /// Writes the first bytes of the file anew. Throws FileError, also if the file is written
    /// directly.
    void rewriteBegin(std::span<std::byte const> bytes);
    /// Whether the file is written directly.
    bool isDirect() const { return m_temporary == m_path; }
    /// The file that is being written, for libraries that write by name or by stream. Those that
    /// open it anew must close it before commit(), after which the path is empty.
    std::filesystem::path const& temporaryPath() const { return m_temporary; }
    std::FILE* stream() { return m_stream; }
    /// The name for errors.
    std::string const& name() const { return m_name; }
    /// Puts the file under its name. Throws FileError, and removes it then.
    void commit();

private:
    void openBeside();
    void discard() noexcept;
    bool rename();
    [[noreturn]] void fail(int error) const;

    std::string m_name;
    std::filesystem::path m_path, m_temporary;
    std::FILE* m_stream = nullptr;
};

/// Removes all files that are not complete, and makes none from now on: commit(), and making an
/// OutputFile, throw FileError, unless the file is written directly. For a program that is about to
/// end without the destructors, such as on a signal. Any thread may call it, but no handler of a
/// signal.
ZEL_EXCHANGE_API void abandonOutputFiles() noexcept;

}  // namespace zel
