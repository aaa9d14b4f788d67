#include "zel/batch/block.h"

#include <algorithm>
#include <bit>

#include "zel/batch/block_impl.h"
#include "zel/field/thread_object.h"

namespace zel {

namespace detail {

void Arena::use(std::size_t chunk) {
    m_current = chunk;
    m_begin = m_next = m_chunks[chunk].begin;
    m_end = m_chunks[chunk].end;
}

void Arena::nextChunk(std::size_t size) {
    constexpr std::size_t kLeast = std::size_t{1} << 16, kAlignment = 64;
    // A chunk that is too small is left out; what comes after it is larger.
    for (std::size_t next = m_begin ? m_current + 1 : 0; next < m_chunks.size(); ++next) {
        use(next);
        if (size <= static_cast<std::size_t>(m_end - m_begin)) return;
    }
    std::size_t const bytes = std::max(
        size, m_chunks.empty()
                  ? kLeast
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
    // Two chunks never touch: there is room for the alignment between them.
    std::size_t chunk = m_current;
    while (chunk > 0 && !(std::less_equal<>()(m_chunks[chunk].begin, mark) &&
                          std::less_equal<>()(mark, m_chunks[chunk].end)))
        --chunk;
    use(chunk);
    if (mark) m_next = mark;  // null is the bottom, from before there was a chunk
}

Workspace& Workspace::local() {
    return threadObject<Workspace>();
}

Workspace::Run::Run(Workspace& workspace) : m_workspace(workspace) {
    if (workspace.m_depth++ == 0 && workspace.m_constantCount == kMaxConstants) {
        workspace.m_slots = {};
        workspace.m_constants.release(nullptr);
        workspace.m_constantCount = 0;
        workspace.planOfBatch = nullptr;  // which knows where constants were
    }
}

float const* Workspace::constant(float value) {
    auto const bits = std::bit_cast<std::uint32_t>(value);
    unsigned slot = (bits * 0x9e3779b1U) >> (32 - std::countr_zero(kSlots));
    while (m_slots[slot].values) {
        if (m_slots[slot].bits == bits) return m_slots[slot].values;
        slot = (slot + 1) % kSlots;
    }
    if (m_constantCount == kMaxConstants) return nullptr;
    float* const values = m_constants.floats(kBlockSize);
    std::fill_n(values, kBlockSize, value);
    m_slots[slot] = {bits, values};
    ++m_constantCount;
    return values;
}

}  // namespace detail

Columns<float> Block::constant(float value) {
    if (float const* const values = m_workspace.constant(value)) return {{values}, true, true};
    float* const values = allocate();
    std::fill_n(values, m_count, value);
    return {{values}, false, true};
}

namespace {

std::size_t bucketOf(void const* node, bool gradient, std::size_t count) {
    auto const address = reinterpret_cast<std::uintptr_t>(node);
    return (((address >> 4) + gradient) * 0x9e3779b97f4a7c15U >> 40) & (count - 1);
}

}  // namespace

detail::KeptResult* Block::find(void const* node, bool gradient) const {
    if (!m_positions.buckets) return nullptr;
    detail::KeptResult* kept =
        m_positions.buckets[bucketOf(node, gradient, m_positions.bucketCount)];
    while (kept && (kept->node != node || kept->gradient != gradient)) kept = kept->next;
    return kept;
}

detail::KeptResult* Block::keep(void const* node, bool gradient, float* storage) {
    if (!m_positions.buckets) {
        m_positions.bucketCount = m_workspace.bucketCount;
        m_positions.buckets = static_cast<detail::KeptResult**>(
            m_workspace.kept.allocate(m_positions.bucketCount * sizeof(detail::KeptResult*)));
        std::fill_n(m_positions.buckets, m_positions.bucketCount, nullptr);
    }
    detail::KeptResult*& first =
        m_positions.buckets[bucketOf(node, gradient, m_positions.bucketCount)];
    auto* const kept =
        new (m_workspace.kept.allocate(sizeof(detail::KeptResult))) detail::KeptResult;
    kept->node = node;
    kept->gradient = gradient;
    kept->complete = kept->light = false;
    kept->next = first;
    kept->known = {};
    kept->storage = storage;
    first = kept;
    ++m_positions.keptCount;
    return first;
}

Block::Kept::~Kept() {
    // Next time the chains are short.
    constexpr std::size_t kMostBuckets = 1024;
    while (m_workspace.bucketCount < std::min(m_positions.keptCount, kMostBuckets))
        m_workspace.bucketCount *= 2;
    m_workspace.kept.release(m_mark);
    m_workspace.innermost = m_outer;
}

int* Block::choose(int const* choice, int count, float* xyz) const {
    int* const places = static_cast<int*>(m_workspace.stack.allocate(kBlockSize * sizeof(int)));
    for (int i = 0; i < count; ++i) {
        places[i] = place(choice[i]);
        for (unsigned axis = 0; axis < 3; ++axis)
            xyz[static_cast<int>(axis) * kBlockSize + i] = m_position.component[axis][choice[i]];
    }
    return places;
}

void Block::moveIndices(detail::Positions& positions, int const* choice, int count) const {
    positions.first = m_positions.first;
    if (!choice && !m_choice) {
        positions.indices = m_positions.indices;
        return;
    }
    int* const indices = static_cast<int*>(m_workspace.stack.allocate(kBlockSize * sizeof(int)));
    for (int i = 0; i < count; ++i) {
        int const at = place(choice ? choice[i] : i);
        indices[i] = m_positions.indices ? m_positions.indices[at] : at;
    }
    positions.indices = indices;
}

namespace detail {

namespace {

/// Sets the derivatives along one axis.
template <class Interface>
void setColumn(int axis, int count, Columns<typename Interface::Value> const& above,
               Columns<typename Interface::Value> const& below, float const* divisor,
               ColumnWriter<typename Interface::Gradient> const& write) {
    constexpr int kRows = kComponents<typename Interface::Value>;
    for (int row = 0; row < kRows; ++row) {
        auto const r = static_cast<unsigned>(row);
        float const *const f1 = above.component[r], *const f2 = below.component[r];
        float* const out = write.component[static_cast<unsigned>(3 * row + axis)];
        Quern::forEachPosition(
            count, [=](int i) ZEL_ALWAYS_INLINE { out[i] = (f1[i] - f2[i]) / divisor[i]; });
    }
}

}  // namespace

template <class Interface>
void differencesInBlock(Interface const& node, Block& block,
                        BlockResult<typename Interface::Gradient>& out) {
    using Value = typename Interface::Value;
    auto const write = out.writer();
    for (int axis = 0; axis < 3; ++axis) {
        Block::Frame const frame(block);
        float* const up = block.allocate(3);
        float *const down = up + kBlockSize, *const divisor = down + kBlockSize;
        auto const at = static_cast<unsigned>(axis);
        float const* const coordinate = block.positions().component[at];
        Quern::forEachPosition(block.count(), [=](int i) ZEL_ALWAYS_INLINE {
            auto const step = stepAround(coordinate[i]);
            up[i] = step.up;
            down[i] = step.down;
            divisor[i] = step.divisor;
        });
        auto const ask = [&](float const* moved) {
            auto values = block.result<Value>();
            auto positions = block.positions();
            positions.component[at] = moved;
            block.withPositions(positions,
                                [&](Block& there) { there.writeValues(node, false, values); });
            return values.columns;
        };
        auto const above = ask(up);
        auto const below = ask(down);
        setColumn<Interface>(axis, block.count(), above, below, divisor, write);
    }
}

template <class Interface>
void evalByPoints(Interface const& node, Block& block,
                  BlockResult<typename Interface::Value>& out) {
    auto const write = out.writer();
    out.byPoints = true;
    for (int i = 0; i < block.count(); ++i)
        write.set(i, node.eval(block.positions()[i], block.index(i)));
}

template <class Interface>
void gradByPoints(Interface const& node, Block& block,
                  BlockResult<typename Interface::Gradient>& out) {
    auto const write = out.writer();
    out.byPoints = true;
    for (int i = 0; i < block.count(); ++i)
        write.set(i, node.grad(block.positions()[i], block.index(i)));
}

}  // namespace detail

#define ZEL_INSTANTIATE_BLOCK(Interface)                                                           \
    template Columns<Interface::Value> Block::askKept<false>(Interface const&);                    \
    template Columns<Interface::Gradient> Block::askKept<true>(Interface const&);                  \
    template void Block::writeValues(Interface const&, bool, BlockResult<Interface::Value>&);      \
    template void detail::differencesInBlock(Interface const&, Block&,                             \
                                             BlockResult<Interface::Gradient>&);                   \
    template void detail::evalByPoints(Interface const&, Block&, BlockResult<Interface::Value>&);  \
    template void detail::gradByPoints(Interface const&, Block&, BlockResult<Interface::Gradient>&)

ZEL_INSTANTIATE_BLOCK(Core::Fields::ScalarField);
ZEL_INSTANTIATE_BLOCK(Core::Fields::VectorField);
#undef ZEL_INSTANTIATE_BLOCK

}  // namespace zel
