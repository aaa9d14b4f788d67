#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <regex>
#include <string>

TEST(VersionReport, IsPrintedWhenAskedFor) {
    std::string const line =
        "             ZEL: Orvane version [0-9]+\\.[0-9]+\\.[0-9]+\\.[0-9]+ "
        "\\([A-Z][a-z]{2} [0-9]{4}-[0-9]{2}-[0-9]{2}, [0-9]{2}:[0-9]{2}:[0-9]{2}, "
        "build [0-9]+, commit [0-9a-f]{7}, branch [^ )]+\\)\n";
    auto const program = std::filesystem::read_symlink("/proc/self/exe").string();
    for (std::string const set : {"=1", "=-7", "=2x", "=0", "=", "=yes", " -u"}) {
        // What this program writes on its error stream when it only lists its tests.
        std::string const name = "TALLOW_DUMP_VERSION_INFO";
        std::string const command = "env " + (set == " -u" ? "-u " + name : name + set) + " '" +
                                    program + "' --gtest_list_tests 2>&1 >/dev/null";
        FILE* const pipe = popen(command.c_str(), "r");
        std::string text;
        std::array<char, 256> buffer{};
        while (std::fgets(buffer.data(), buffer.size(), pipe)) text += buffer.data();
        EXPECT_EQ(pclose(pipe), 0);
        bool const asked = set.find_first_of("127") != std::string::npos;
        EXPECT_TRUE(std::regex_match(text, std::regex(asked ? line : ""))) << set << ": " << text;
    }
}
