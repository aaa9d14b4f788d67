#include "zel/field/version_report.h"

#include <cstdio>
#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <locale>
#include <sstream>
#include <string>

#include "zel_build_info.h"

namespace zel::detail {

namespace {

std::string versionText() {
    std::ostringstream text;
    text.imbue(std::locale::classic());
    text << "Orvane"
         << " version " << build::kVersion[0];
    for (int i = 1; i < 4; ++i) text << "." << build::kVersion[i];
    text << " (" << build::kDate << ", build " << build::kNumber << ", commit " << std::setw(7)
         << std::string(build::kCommit).substr(0, 7) << ", branch " << build::kBranch << ")";
    return text.str();
}

bool reportRequested() {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): runs once, while the library is loaded
    char const* const value = std::getenv("TALLOW_DUMP_VERSION_INFO");
    // By strtol, since atoi is undefined for a number out of range.
    bool const requested = value && static_cast<int>(std::strtol(value, nullptr, 10)) != 0;
    return requested && fileno(stderr) >= 0;
}

}  // namespace

bool reportVersion() {
    std::ios_base::Init const streams;  // this may run before this source's own initialisers
    bool const requested = reportRequested();
    // Flushed at once: the process may end without running destructors.
    if (requested)
        std::cerr << std::setw(16) << "ZEL"
                  << ": " << versionText() << std::endl;
    return requested;
}

}  // namespace zel::detail
