#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

#include "support/sanitized.h"

/// The target of fuzz/ that is compiled into the program. It aborts where what it checks is wrong.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

namespace support {

/// Runs it on inputs of random bytes; with a sanitizer on fewer, since fuzz/run has one, too.
inline void runFuzzTarget(int inputs, std::size_t size) {
    if (kIsSanitized) inputs /= 10;
    std::mt19937 random(20261127);
    std::vector<std::uint8_t> bytes(size);
    for (int i = 0; i < inputs; ++i) {
        for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(random());
        LLVMFuzzerTestOneInput(bytes.data(), size);
    }
}

}  // namespace support
