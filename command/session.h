#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstddef>
#include <functional>
#include <mutex>
#include <span>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

namespace command {

constexpr int kFailed = 2;
constexpr int kInterrupted = 130;

/// Ends the program on SIGINT, SIGTERM and SIGHUP. The token's stop is requested first, so that the
/// subcommand ends by itself; if that takes more than half a second, as when it waits for its
/// input, the files that are being written are removed, and the program ends. Signals that were
/// ignored when the program started remain so. SIGPIPE and SIGXFSZ are ignored: writing fails
/// instead.
///
/// To be made before any other thread, which would receive the signals otherwise.
class Interrupts {
public:
    Interrupts();
    Interrupts(Interrupts const&) = delete;
    Interrupts& operator=(Interrupts const&) = delete;
    ~Interrupts();

    std::stop_token token() const { return m_stop.get_token(); }
    /// From now on a signal ends the program at once, since it waits for other processes, which
    /// end, too.
    void endAtOnce() { m_endsAtOnce = true; }

private:
    void wait();

    std::stop_source m_stop;
    std::atomic<bool> m_endsAtOnce = false;
    sigset_t m_signals{};
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_isOver = false;
    std::thread m_thread;
};

/// A line on the terminal with a bar, the rate and the time left, drawn anew a few times a second.
/// Draws nothing if the error stream is no terminal, unless `isShown` tells.
class Progress {
public:
    /// `unit` is the plural of what is counted.
    explicit Progress(std::string unit);
    Progress(std::string unit, bool isShown);
    Progress(Progress const&) = delete;
    Progress& operator=(Progress const&) = delete;
    ~Progress();

    /// `all` is 0 if it is not known. Any thread may call it, one at a time.
    void operator()(std::size_t done, std::size_t all);
    /// A function that calls this object, which must outlive it.
    std::function<void(std::size_t, std::size_t)> function() { return std::ref(*this); }

private:
    using Clock = std::chrono::steady_clock;

    std::string m_unit;
    bool m_isShown;
    bool m_isDrawn = false;
    Clock::time_point m_start = Clock::now(), m_last = m_start;
};

/// Writes a text to standard output. Throws zel::FileError.
void print(std::string const& text);

/// Throws zel::FileError if a file of this name cannot be made: to be known before long work. A
/// device or a pipe is not touched.
void expectWritable(std::string const& path);

/// The suffix of a file in lower case. Throws std::runtime_error if it is none of `suffixes`, in
/// which `what` is written, such as "a mesh".
std::string expectSuffix(std::string const& path, char const* what,
                         std::vector<std::string> const& suffixes);

/// Throws std::runtime_error if more than one of the names of files is "-".
void expectOneInput(std::span<std::string const> names);

/// Prints a line on the standard error stream about something that is no error.
void warn(std::string const& message);

/// The text without control characters, which a terminal would obey.
std::string printable(std::string const& text);

/// Such as "1.5 M".
std::string shortNumber(double number);

}  // namespace command
