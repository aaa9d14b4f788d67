#pragma once

#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "faults/failing_new.h"
#include "zel_platform/orvane_math/float3x3.h"
#include "zel_platform/quern_core/array.h"

namespace faults {

using Orvane::Math::float3;
using Orvane::Math::float3x3;

/// Bits to compare, in which all NaN are the same.
class Bits {
public:
    Bits& operator<<(float number) {
        bits.push_back(number != number ? 0x7FC00000U : std::bit_cast<std::uint32_t>(number));
        return *this;
    }
    Bits& operator<<(std::string_view text) {
        bits.insert(bits.end(), text.begin(), text.end());
        return *this;
    }
    Bits& operator<<(float3 const& v) { return *this << v.x << v.y << v.z; }
    Bits& operator<<(float3x3 const& m) { return *this << m[0] << m[1] << m[2]; }
    Bits& operator<<(Bits const& more) {
        bits.insert(bits.end(), more.bits.begin(), more.bits.end());
        return *this;
    }
    template <class T> Bits& operator<<(std::vector<T> const& elements) { return addAll(elements); }
    template <class T> Bits& operator<<(Quern::Array<T> const& elements) {
        return addAll(elements);
    }
    bool operator==(Bits const&) const = default;

private:
    template <class Range> Bits& addAll(Range const& elements) {
        for (auto const& element : elements) *this << element;
        return *this;
    }

    std::vector<std::uint32_t> bits;
};

/// The text of an exception, unless memory lacks.
inline Bits refusalOf(std::function<void()> const& call) {
    try {
        call();
    } catch (std::bad_alloc const&) {
        throw;
    } catch (std::exception const& error) {
        return Bits() << error.what();
    }
    throw std::logic_error("not refused");
}

struct Attempt {
    std::function<void()> work;
    /// What there was before the work, and then what came of it.
    std::function<Bits()> state;
};
struct Case {
    std::string name;
    std::function<Attempt()> prepare;
    bool throwsText = false;  ///< whether a std::runtime_error with the text arrives
    long long mayLose = 0;    ///< how many blocks a library below may lose
};

/// Has each allocation of a piece of work fail in turn, until the work goes through. The exception
/// has to arrive, to leave all as it was, and to lose no block; the next try has to succeed. Each
/// failure is on a new thread, which has none of the memory that threads keep.
inline void failEach(Case const& tested) {
    Bits done;
    auto const onThread = [](auto const& call) { std::thread(call).join(); };
    onThread([&] {  // makes what a process keeps
        Attempt const attempt = tested.prepare();
        attempt.work();
        done = attempt.state();
    });
    for (long long n = 0;; ++n) {
        SCOPED_TRACE(tested.name + ", allocation " + std::to_string(n));
        long long const before = liveBlocks();
        Failure failure;
        bool arrived = false, unchanged = true, repeated = false;
        std::string other;
        onThread([&] {
            Attempt const attempt = tested.prepare();
            Bits const state = attempt.state();
            failAfter(n);
            try {
                attempt.work();
            } catch (std::bad_alloc const&) {
                arrived = true;
            } catch (std::exception const& error) {
                failure = endFailures();
                arrived = tested.throwsText && error.what() == std::string("std::bad_alloc");
                if (!arrived) other = error.what();
            }
            auto const ended = endFailures();
            failure = {failure.came || ended.came, failure.thrown || ended.thrown};
            if (arrived || !other.empty()) {
                unchanged = attempt.state() == state;
                attempt.work();
            }
            repeated = attempt.state() == done;
        });
        EXPECT_EQ(other, "");
        EXPECT_LE(failure.thrown, arrived);
        EXPECT_LE(arrived, failure.came);
        EXPECT_TRUE(unchanged);
        EXPECT_TRUE(repeated);
        other.clear();
        other.shrink_to_fit();
        long long const lost = liveBlocks() - before;
        EXPECT_TRUE(lost == 0 || (failure.came && lost == tested.mayLose)) << lost;
        if (!failure.came || testing::Test::HasFailure()) {
            EXPECT_GT(n, 0) << "nothing was allocated";
            return;
        }
    }
}

}  // namespace faults
