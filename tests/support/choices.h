#pragma once

#include <cstdint>
#include <random>
#include <span>

namespace support {

/// The numbers of an engine. With bytes, such as a fuzzer's, it first gives two of them a number,
/// in its lower as in its upper half, so that both remainders and distributions show them.
class Choices {
public:
    using result_type = std::mt19937::result_type;

    explicit Choices(unsigned seed) : m_engine(seed) {}
    explicit Choices(std::span<std::uint8_t const> bytes) : m_bytes(bytes) {}

    static constexpr result_type min() { return std::mt19937::min(); }
    static constexpr result_type max() { return std::mt19937::max(); }
    result_type operator()() {
        if (m_bytes.size() < 2) return m_engine();
        unsigned const two = m_bytes[0] | unsigned{m_bytes[1]} << 8;
        m_bytes = m_bytes.subspan(2);
        return two * 0x10001U;
    }
    /// Whether the bytes are used up.
    bool ended() const { return m_bytes.size() < 2; }

private:
    std::span<std::uint8_t const> m_bytes;
    std::mt19937 m_engine;
};

}  // namespace support
