#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <regex>
#include <string>

namespace {

/// What this program writes on its error stream when it is started with a setting of the variable
/// and only lists its tests, behind a redirection.
std::string errorOutput(std::string const& setting) {
    std::string const command = "env " + setting + " '" +
                                std::filesystem::read_symlink("/proc/self/exe").string() +
                                "' --gtest_list_tests 2>&1 >/dev/null";
    FILE* const pipe = popen(command.c_str(), "r");
    std::string text;
    std::array<char, 256> buffer{};
    while (std::fgets(buffer.data(), buffer.size(), pipe)) text += buffer.data();
    EXPECT_EQ(pclose(pipe), 0);
    return text;
}

TEST(VersionReport, IsPrintedWhenAskedFor) {
    std::regex const line(
        "             ZEL: Orvane version [0-9]+\\.[0-9]+\\.[0-9]+\\.[0-9]+ "
        "\\([A-Z][a-z]{2} [0-9]{4}-[0-9]{2}-[0-9]{2}, [0-9]{2}:[0-9]{2}:[0-9]{2}, "
        "build [0-9]+, commit [0-9a-f]{7}, branch [^ )]+\\)\n");
    for (char const* asked : {"1", "-7", "2x"})
        EXPECT_TRUE(
            std::regex_match(errorOutput(std::string("TALLOW_DUMP_VERSION_INFO=") + asked), line))
            << asked;
}

TEST(VersionReport, IsSilentOtherwise) {
    for (char const* setting : {"-u TALLOW_DUMP_VERSION_INFO", "TALLOW_DUMP_VERSION_INFO=0",
                                "TALLOW_DUMP_VERSION_INFO=", "TALLOW_DUMP_VERSION_INFO=yes"})
        EXPECT_EQ(errorOutput(setting), "") << setting;
}

}  // namespace
