#include "session.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <stdexcept>

#include <zel_exchange/output_file.h>

#include "ranks.h"

namespace command {

Interrupts::Interrupts() {
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    sigemptyset(&m_signals);
    for (int const signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction before {};
        if (sigaction(signal, nullptr, &before) == 0 && before.sa_handler != SIG_IGN)
            sigaddset(&m_signals, signal);
    }
    // The destructor sends it, to end the thread.
    sigaddset(&m_signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &m_signals, nullptr);
    m_thread = std::thread([this] { wait(); });
}

Interrupts::~Interrupts() {
    {
        std::lock_guard const lock(m_mutex);
        m_isOver = true;
    }
    m_changed.notify_all();
    pthread_kill(m_thread.native_handle(), SIGUSR1);
    m_thread.join();
}

void Interrupts::wait() {
    int signal = 0;
    do {
        if (sigwait(&m_signals, &signal) != 0) return;
        std::lock_guard const lock(m_mutex);
        if (m_isOver) return;
    } while (signal == SIGUSR1);
    m_stop.request_stop();
    std::unique_lock lock(m_mutex);
    if (!m_endsAtOnce &&
        m_changed.wait_for(lock, std::chrono::milliseconds(500), [&] { return m_isOver; }))
        return;
    abandonFiles();
    _exit(kInterrupted);
}

namespace {

std::string clockText(double seconds) {
    auto const s = std::llround(std::min(seconds, 1e9));
    char text[32];
    if (s >= 3600)
        std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", s / 3600, s / 60 % 60, s % 60);
    else
        std::snprintf(text, sizeof text, "%lld:%02lld", s / 60, s % 60);
    return text;
}

}  // namespace

void print(std::string const& text) {
    zel::OutputFile file("-");
    file.write(text);
    file.commit();
}

void expectWritable(std::string const& path) {
    std::error_code ignored;
    if (!zel::OutputFile::isDirect(path) || std::filesystem::is_directory(path, ignored))
        zel::OutputFile const file(path);
}

std::string expectSuffix(std::string const& path, char const* what,
                         std::vector<std::string> const& suffixes) {
    std::string suffix = std::filesystem::path(path).extension().string();
    for (char& c : suffix) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    std::string known;
    for (std::string const& one : suffixes) {
        if (one == suffix) return suffix;
        known += (known.empty() ? "" : " or ") + one;
    }
    throw std::runtime_error(path + ": " + what + " is written as " + known);
}

void expectOneInput(std::span<std::string const> names) {
    if (std::count(names.begin(), names.end(), "-") > 1)
        throw std::runtime_error("standard input can be read only once");
}

void warn(std::string const& message) {
    std::fputs(("zel: " + printable(message) + '\n').c_str(), stderr);
}

std::string printable(std::string const& text) {
    std::string clean;
    for (std::size_t i = 0; i < text.size(); ++i) {
        auto const byte = [&](std::size_t at) {
            return at < text.size() ? static_cast<unsigned char>(text[at]) : 0U;
        };
        bool const isOfTwo = byte(i) == 0xC2 && byte(i + 1) >= 0x80 && byte(i + 1) < 0xA0;
        clean += isOfTwo || byte(i) < ' ' || byte(i) == 0x7F ? ' ' : text[i];
        if (isOfTwo) ++i;
    }
    return clean;
}

std::string shortNumber(double number) {
    constexpr std::array kUnits{"", " k", " M", " G"};
    std::size_t unit = 0;
    for (; number >= 1000 && unit + 1 < kUnits.size(); ++unit) number /= 1000;
    char text[64];
    std::snprintf(text, sizeof text, number < 10 && unit > 0 ? "%.1f%s" : "%.0f%s", number,
                  kUnits[unit]);
    return text;
}

Progress::Progress(std::string unit) : Progress(std::move(unit), isatty(STDERR_FILENO) == 1) {}
Progress::Progress(std::string unit, bool isShown) : m_unit(std::move(unit)), m_isShown(isShown) {}

Progress::~Progress() {
    if (m_isDrawn) std::fputs("\r\x1b[K", stderr);
}

void Progress::operator()(std::size_t done, std::size_t all) {
    constexpr auto kDelay = std::chrono::milliseconds(150);
    Clock::time_point const now = Clock::now();
    if (!m_isShown || now - m_last < kDelay) return;
    m_last = now;
    m_isDrawn = true;
    double const seconds = std::chrono::duration<double>(now - m_start).count();
    auto const count = static_cast<double>(done);
    std::string const rate = shortNumber(count / seconds) + " " + m_unit + "/s";
    if (all == 0) {
        std::fprintf(stderr, "\r%s %s, %s\x1b[K", shortNumber(count).c_str(), m_unit.c_str(),
                     rate.c_str());
        return;
    }
    constexpr int kWidth = 30;
    double const part = std::min(count / static_cast<double>(all), 1.0);
    std::string bar(kWidth, '.');
    std::fill_n(bar.begin(), static_cast<int>(part * kWidth), '#');
    std::string const left = part > 0 ? clockText(seconds / part - seconds) + " left" : "";
    std::fprintf(stderr, "\r[%s] %3d %%, %s, %s\x1b[K", bar.c_str(), static_cast<int>(part * 100),
                 rate.c_str(), left.c_str());
}

}  // namespace command
