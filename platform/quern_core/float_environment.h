#pragma once

#ifdef __SSE__
#include <xmmintrin.h>
#else
#include <cfenv>
#endif

namespace Quern::Internal {

/// While it exists, the calling thread computes floats as at the start of a program: rounded to
/// nearest, subnormal numbers kept, no exception trapped. Its end restores the previous modes.
class FloatEnvironment {
public:
    FloatEnvironment(FloatEnvironment const&) = delete;
    FloatEnvironment& operator=(FloatEnvironment const&) = delete;

#ifdef __SSE__
    FloatEnvironment() : m_outer(_mm_getcsr()) {
        if (differs()) _mm_setcsr(kDefault);
    }
    ~FloatEnvironment() {
        if (differs()) _mm_setcsr(m_outer);
    }

private:
    static constexpr unsigned kDefault = 0x1f80, kStatusFlags = 0x3f;

    bool differs() const {
        return (m_outer & ~kStatusFlags) != kDefault;
    }

    unsigned m_outer;
#else
    FloatEnvironment() {
        std::fegetenv(&m_outer);
        std::fesetenv(FE_DFL_ENV);
    }
    ~FloatEnvironment() {
        std::fesetenv(&m_outer);
    }

private:
    std::fenv_t m_outer;
#endif
};

}  // namespace Quern::Internal
