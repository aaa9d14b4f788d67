#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

#include "zel/api.h"
#include "zel/batch/arena.h"
#include "zel/batch/columns.h"

namespace zel {

namespace detail {

class FusionPlan;
struct PositionSet;

/// The memory and the state by which one thread evaluates blocks. It grows on first use and belongs
/// to the thread until the thread ends.
class Workspace {
public:
    /// The workspace of the calling thread.
    static Workspace& local();

    /// Returns a column of `value` that is valid until no batch runs on the thread; null when
    /// kMaxConstants other values have columns already.
    float const* constant(float value) {
        auto const bits = std::bit_cast<std::uint32_t>(value);
        unsigned const slot = bits * 0x9e3779b1U >> (32 - std::countr_zero(kSlots));
        Slot const& found = m_slots[slot];
        return found.bits == bits && found.values ? found.values : constantFrom(slot, bits);
    }

    /// Marks the evaluation of a range of positions while it exists. A node may start another batch
    /// and so a range inside the range.
    class Run {
    public:
        explicit Run(Workspace& workspace);
        ~Run() { --m_workspace.m_depth; }
        Run(Run const&) = delete;
        Run& operator=(Run const&) = delete;

    private:
        Workspace& m_workspace;
    };

    /// Whether the range that is evaluated now is inside another.
    bool isNested() const { return m_depth > 1; }

    /// Changes when columns of constants end.
    std::uint64_t constantsVersion() const { return m_constantsVersion; }

    /// Throws std::length_error if the thread has just enough stack left for what nodes need beside
    /// their children. On a stack that is not the thread's own, such as that of a fibre, this is
    /// not known. One comparison, since each block of each node asks.
    void expectStack() const {
        char const here = 0;
        if (reinterpret_cast<std::uintptr_t>(&here) < m_stackEnd.limit) [[unlikely]]
            checkStack();
    }

    /// Whether so many bytes of stack are left above that part, or nothing is known of it.
    bool hasStack(std::size_t bytes) const {
        char const here = 0;
        auto const at = reinterpret_cast<std::uintptr_t>(&here);
        return at >= m_stackEnd.limit + bytes || at < m_stackEnd.begin;
    }

    Arena stack;  ///< columns that are valid until a Block::Frame ends
    Arena kept;   ///< results that are kept with their PositionSet
    Arena plans;  ///< plans of fusions, with their fusions, of graphs that are not pure

    PositionSet const* innermost = nullptr;  ///< the set whose results are at the top of `kept`
    std::size_t bucketCount = 8;             ///< of the next PositionSet

    FusionPlan const* plan = nullptr;  ///< of the range that is evaluated now; null if none
    // Of the last range that was not nested: its batch, the number of positions of the batch that
    // this thread has evaluated, and the plan of its tree.
    std::uint64_t batch = 0;
    std::size_t countOfBatch = 0;
    FusionPlan const* planOfBatch = nullptr;

private:
    ZEL_API void checkStack() const;
    /// The column of the value with these bits, which is looked for from a slot on, or made.
    float const* constantFrom(unsigned slot, std::uint32_t bits);

    static constexpr unsigned kMaxConstants = 512, kSlots = 2 * kMaxConstants;
    struct Slot {
        std::uint32_t bits;
        float const* values;
    };
    /// The part of the thread's stack in which no further node is evaluated.
    struct StackEnd {
        std::uintptr_t begin = 0, limit = 0;  ///< the lowest addresses of the part, and above it
    };
    static StackEnd stackEnd();

    StackEnd const m_stackEnd = stackEnd();
    std::array<Slot, kSlots> m_slots{};  // a hash table of the constants
    Arena m_constants;
    unsigned m_constantCount = 0;
    int m_depth = 0;
    std::uint64_t m_constantsVersion = 0;
};

}  // namespace detail
}  // namespace zel
