#include "zel/batch/arena.h"

#include <algorithm>
#include <cstdint>
#include <utility>

namespace zel::detail {

void Arena::use(std::size_t chunk) {
    m_current = chunk;
    m_begin = m_next = m_chunks[chunk].begin;
    m_end = m_chunks[chunk].end;
}

void Arena::nextChunk(std::size_t size) {
    constexpr std::size_t kSmallest = std::size_t{1} << 16, kAlignment = 64;
    // A chunk that is too small is skipped: the chunks after it are larger.
    for (std::size_t next = m_begin ? m_current + 1 : 0; next < m_chunks.size(); ++next) {
        use(next);
        if (size <= static_cast<std::size_t>(m_end - m_begin)) return;
    }
    std::size_t const bytes = std::max(
        size, m_chunks.empty()
                  ? kSmallest
                  : 2 * static_cast<std::size_t>(m_chunks.back().end - m_chunks.back().begin));
    Chunk chunk;
    chunk.memory = std::make_unique_for_overwrite<std::byte[]>(bytes + kAlignment);
    auto const address = reinterpret_cast<std::uintptr_t>(chunk.memory.get());
    chunk.begin = chunk.memory.get() + (kAlignment - address % kAlignment) % kAlignment;
    chunk.end = chunk.begin + bytes;
    m_chunks.push_back(std::move(chunk));
    use(m_chunks.size() - 1);
}

void Arena::returnTo(Mark mark) {
    // A mark belongs to one chunk alone: the memory behind a chunk is 64 bytes longer than the
    // chunk, so that no chunk begins where another ends.
    std::size_t chunk = m_current;
    while (chunk > 0 && !(std::less_equal<>()(m_chunks[chunk].begin, mark) &&
                          std::less_equal<>()(mark, m_chunks[chunk].end)))
        --chunk;
    use(chunk);
    if (mark) m_next = mark;
}

}  // namespace zel::detail
