#include "zel_platform/quern_core/expect.h"

#include <cstdio>
#include <cstdlib>

void Quern::Internal::failExpectation(char const* condition, char const* file, int line) noexcept {
    std::fprintf(stderr, "ZEL: %s:%d: broken precondition: %s\n", file, line, condition);
    std::abort();
}
