#pragma once

#include <array>
#include <bit>

// Which results of a fusion's stages are in the registers, and which in memory, at each stage.
namespace zel {

namespace detail {

/// The registers hold one tile, the result of one stage. When another stage needs them before that
/// result is read, the result is spilled: copied to a spill tile, where it stays until its one
/// reader takes it.
class RegisterPlan {
public:
    static constexpr int kSpillTiles = 8;
    /// A node has one stage of its own, and at most one that spills. One stage writes the result.
    static constexpr int kMostNodes = 64, kMostStages = 2 * kMostNodes + 1;

    /// Plans for a new fusion: the registers and all spill tiles are free.
    void reset() {
        m_inRegisters = kNone;
        m_freeTiles = kAllTiles;
    }

    bool isInUse() const { return m_inRegisters != kNone; }
    bool holds(int stage) const { return m_inRegisters == stage; }

    /// Whether a stage that overwrites the registers can be planned now.
    bool canBeFreed() const { return !isInUse() || m_freeTiles != 0; }

    /// Plans that the result of `stage` is in the registers from now on.
    void hold(int stage) { m_inRegisters = stage; }

    /// Plans that the result in the registers is spilled, and returns the number of its spill tile.
    int spill() {
        int const tile = std::countr_zero(m_freeTiles);
        m_freeTiles &= m_freeTiles - 1;
        m_tileOf[static_cast<unsigned>(m_inRegisters)] = tile;
        m_inRegisters = kNone;
        return tile;
    }

    /// The number of the spill tile of `stage`, which is free for others once it has been read.
    int takeSpilled(int stage) {
        int const tile = m_tileOf[static_cast<unsigned>(stage)];
        m_freeTiles |= 1U << tile;
        return tile;
    }

private:
    static constexpr int kNone = -1;
    static constexpr unsigned kAllTiles = (1U << kSpillTiles) - 1;

    int m_inRegisters = kNone;              // the number of a stage
    unsigned m_freeTiles = kAllTiles;       // bit t: spill tile t
    std::array<int, kMostStages> m_tileOf;  // of stages that are spilled
};

}  // namespace detail
}  // namespace zel
