#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

// A host that loads libzel late, forks, and unloads it. It does not link libzel itself.
namespace {

constexpr long long kShort = 1000, kLong = 300'000;

class Plugin {
public:
    explicit Plugin(char const* path = ZEL_TEST_PLUGIN)
        : m_library(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {}
    Plugin(Plugin const&) = delete;
    Plugin& operator=(Plugin const&) = delete;
    ~Plugin() { dlclose(m_library); }

    double sum(long long count, bool parallel) const {
        auto* const sumOfValues =
            reinterpret_cast<double (*)(long long, bool)>(dlsym(m_library, "sumOfValues"));
        return sumOfValues(count, parallel);
    }

private:
    void* m_library;
};

bool isLoaded(char const* name = ZEL_TEST_SONAME) {
    void* const library = dlopen(name, RTLD_NOW | RTLD_NOLOAD);
    if (library) dlclose(library);
    return library != nullptr;
}

TEST(Environment, UnloadsTheLibraryWhenItsThreadsHaveEnded) {
    double first = 0;
    for (int round = 0; round < 3; ++round) {
        {
            Plugin const plugin;
            double sum = 0;
            std::thread([&] { sum = plugin.sum(kShort, false); }).join();
            EXPECT_EQ(round > 0 ? first : sum, sum);
            first = sum;
            EXPECT_TRUE(isLoaded());
        }
        EXPECT_FALSE(isLoaded());
    }
}

// Also unloads the library, if no thread of oneTBB's keeps it loaded, while these threads exist.
TEST(Environment, WorksInTheChildOfAFork) {
    Plugin const plugin;
    double const sum = plugin.sum(kLong, true);
    pid_t const child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) _exit(plugin.sum(kLong, true) == sum ? 0 : 1);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

#ifdef ZEL_TEST_OTHER_PLUGIN
// The other version is the same code under another name, so it has the same values.
TEST(Environment, HoldsTwoVersionsInOneProcess) {
    Plugin const one;
    double const sum = one.sum(kLong, true);
    {
        Plugin const other(ZEL_TEST_OTHER_PLUGIN);
        EXPECT_TRUE(isLoaded() && isLoaded(ZEL_TEST_OTHER_SONAME));
        std::thread at([&] { EXPECT_EQ(one.sum(kLong, true), sum); });
        EXPECT_EQ(other.sum(kLong, true), sum);
        at.join();
    }
    EXPECT_EQ(one.sum(kLong, true), sum);
}
#endif

}  // namespace
