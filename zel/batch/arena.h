#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

#include "zel/api.h"

namespace zel::detail {

/// Memory that is allocated and released in the order of a stack. It grows by chunks, which it
/// keeps until it is destroyed.
class ZEL_API Arena {
public:
    /// A state of the stack, to which release() returns. Null is the empty stack.
    using Mark = std::byte*;

    Mark mark() const { return m_next; }

    /// Releases what has been allocated since `mark`.
    void release(Mark mark) {
        if (std::less_equal<>()(m_begin, mark) && std::less_equal<>()(mark, m_end))
            m_next = mark;
        else
            returnTo(mark);
    }

    /// Returns `size` bytes, aligned to 64. Throws std::bad_alloc.
    void* allocate(std::size_t size) {
        size = (size + 63) & ~std::size_t{63};
        if (static_cast<std::size_t>(m_end - m_next) < size) nextChunk(size);
        std::byte* const allocated = m_next;
        m_next += size;
        return allocated;
    }
    float* floats(std::size_t count) {
        return static_cast<float*>(allocate(count * sizeof(float)));
    }

private:
    struct Chunk {
        std::unique_ptr<std::byte[]> memory;
        std::byte* begin = nullptr;
        std::byte* end = nullptr;
    };
    void nextChunk(std::size_t size);
    void returnTo(Mark mark);
    void use(std::size_t chunk);

    std::byte* m_next = nullptr;   // the next free byte of the current chunk
    std::byte* m_begin = nullptr;  // the bounds of the current chunk
    std::byte* m_end = nullptr;
    std::size_t m_current = 0;
    std::vector<Chunk> m_chunks;
};

}  // namespace zel::detail
