#pragma once

#include <cerrno>
#include <cstdio>
#include <iostream>
#include <string>
#include <system_error>

namespace examples {

/// Flushes the standard output and returns the exit status of the program: 0, or 2, after a
/// message, if the output could not be written.
inline int finish(char const* program) {
    errno = 0;
    if (std::cout.flush() && std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return 0;
    std::string const reason = errno != 0 ? ": " + std::generic_category().message(errno) : "";
    std::fprintf(stderr, "%s: standard output: cannot be written%s\n", program, reason.c_str());
    return 2;
}

}  // namespace examples
