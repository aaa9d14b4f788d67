#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <bit>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "zel_exchange/error.h"
#include "zel_platform/orvane_math/vectors.h"

namespace support {

/// A folder that is removed at the end of a test.
class Folder {
public:
    Folder()
        : path(std::filesystem::temp_directory_path() /
               ("zel-" + std::to_string(getpid()) + "-" +
                testing::UnitTest::GetInstance()->current_test_info()->name())) {
        std::filesystem::create_directories(path);
    }
    Folder(Folder const&) = delete;
    Folder& operator=(Folder const&) = delete;
    ~Folder() { std::filesystem::remove_all(path); }

    std::filesystem::path operator/(std::string_view name) const { return path / name; }
    std::size_t size() const {
        return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(path),
                                                      std::filesystem::directory_iterator()));
    }

private:
    std::filesystem::path path;
};

inline std::string contentOf(std::filesystem::path const& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}
inline void writeContent(std::filesystem::path const& path, std::string_view content) {
    std::ofstream(path, std::ios::binary) << content;
}
inline std::span<std::byte const> bytesOf(std::string_view text) {
    return std::as_bytes(std::span(text));
}

/// The message of the FileError that a call throws, without the name of the file.
template <class Call> std::string errorOf(Call const& call) {
    try {
        call();
    } catch (zel::FileError const& error) {
        return std::string(error.what()).substr(error.file().size() + 2);
    }
    return "none";
}

/// A float of any bits, but that NaNs are all the same.
inline float anyFloat(std::mt19937& random) {
    auto const number = std::bit_cast<float>(static_cast<std::uint32_t>(random()));
    return number != number ? std::bit_cast<float>(0x7FC00000U) : number;
}
inline std::vector<float> anyFloats(std::mt19937& random, std::size_t count) {
    std::vector<float> numbers(count);
    for (float& number : numbers) number = anyFloat(random);
    return numbers;
}
inline std::vector<std::uint32_t> bitsOf(std::span<float const> numbers) {
    std::vector<std::uint32_t> bits;
    for (float const number : numbers) bits.push_back(std::bit_cast<std::uint32_t>(number));
    return bits;
}
inline std::span<float const> floatsOf(std::span<Orvane::Math::float3 const> vectors) {
    return vectors.empty() ? std::span<float const>()
                           : std::span(&vectors.front().x, 3 * vectors.size());
}
inline std::vector<std::uint32_t> bitsOf(std::span<Orvane::Math::float3 const> vectors) {
    return bitsOf(floatsOf(vectors));
}

}  // namespace support
