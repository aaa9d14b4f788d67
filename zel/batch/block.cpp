#include "zel/batch/block.h"

#include <algorithm>

#include "zel/field/scalar_field.h"
#include "zel/field/vector_field.h"

namespace zel {

Columns<float> Block::constant(float value) {
    if (float const* const values = m_workspace.constant(value)) return {{values}, true, true};
    float* const values = allocate();
    std::fill_n(values, m_count, value);
    return {{values}, false, true};
}

int* Block::choose(int const* choice, int count, float* xyz) const {
    int* const numbers = allocateInts();
    for (int i = 0; i < count; ++i) numbers[i] = numberOf(choice[i]);
    for (float const* const coordinate : m_coordinates.component) {
        for (int i = 0; i < count; ++i) xyz[i] = coordinate[choice[i]];
        xyz += kBlockSize;
    }
    return numbers;
}

void Block::moveElements(detail::PositionSet& positions, int const* choice, int count) const {
    positions.first = m_positions.first;
    if (!choice && !m_choice) {
        positions.offsets = m_positions.offsets;
        return;
    }
    int* const offsets = allocateInts();
    for (int i = 0; i < count; ++i) {
        int const number = numberOf(choice ? choice[i] : i);
        offsets[i] = m_positions.offsets ? m_positions.offsets[number] : number;
    }
    positions.offsets = offsets;
}

namespace {

/// Copies a result that names columns elsewhere into its storage.
template <class T> void moveToStorage(BlockResult<T>& out, int count) {
    Columns<T> const from = out.columns;
    auto const to = out.writer();
    out.columns.light = from.light;
    for (std::size_t c = 0; c < kComponents<T>; ++c)
        if (from.component[c] != to.component[c])
            std::copy_n(from.component[c], count, to.component[c]);
}

}  // namespace

template <class Interface>
void Block::write(Interface const& node, bool shared, BlockResult<typename Interface::Value>& out) {
    m_workspace.expectStack();
    if (shared || m_positions.keepAll)
        out.set(askKept<false>(node));
    else
        node.evalBlock(*this, out);
    if (!out.inStorage()) moveToStorage(out, m_count);
    out.byPoints = false;  // the result belongs to the node that asks, which has a block form
}

/// The result of a node that is kept if it is known at all positions of the block, or that is
/// computed now and then kept.
template <bool gradient, class Interface>
auto Block::askKept(Interface const& node) -> Columns<Asked<gradient, Interface>> {
    using T = Asked<gradient, Interface>;
    detail::KeptResult* const kept = m_positions.find(&node, gradient);
    if (kept && kept->complete && !m_choice) return kept->template columns<T>();
    if (&m_positions != m_workspace.innermost) {
        // A node asks at these positions while other positions are evaluated. A result that is kept
        // now would be released with the results of the others.
        auto out = result<T>();
        call<gradient>(node, *this, out);
        return out.columns;
    }
    if (kept || m_choice) return complete<gradient>(node, kept);

    BlockResult<T> out(m_workspace.kept.floats(kComponents<T> * kBlockSize));
    call<gradient>(node, *this, out);
    if (!out.columns.persistent && !out.byPoints) moveToStorage(out, m_count);
    out.columns.persistent = true;
    if (out.byPoints) return out.columns;
    detail::KeptResult& added = m_positions.add(&node, gradient, out.storage, m_workspace);
    added.known.fill(~std::uint64_t{0});
    added.complete = true;
    added.light = out.columns.light;
    std::copy(out.columns.component.begin(), out.columns.component.end(), added.component);
    return out.columns;
}

bool Block::knowsGradients(void const* node) const {
    return m_positions.find(node, true) != nullptr;
}

/// Columns for gradients of a node that are to be kept; null if they cannot be, or are known.
float* Block::reserveGradients(void const* node, std::size_t columns) {
    bool const canKeep = m_positions.keepAll && !m_choice && &m_positions == m_workspace.innermost;
    if (!canKeep || m_positions.find(node, true)) return nullptr;
    return m_workspace.kept.floats(columns * kBlockSize);
}

void Block::keepGradients(void const* node, std::size_t columns, float* storage) {
    detail::KeptResult& added = m_positions.add(node, true, storage, m_workspace);
    added.known.fill(~std::uint64_t{0});
    added.complete = true;
    for (std::size_t c = 0; c < columns; ++c) added.component[c] = storage + c * kBlockSize;
    m_positions.knowsGradients = true;
}

/// The result of a node that is known at some positions of the block at most: it is computed at the
/// others.
template <bool gradient, class Interface>
auto Block::complete(Interface const& node, detail::KeptResult* kept)
    -> Columns<Asked<gradient, Interface>> {
    using T = Asked<gradient, Interface>;
    int* const missing = allocateInts();
    int missingCount = 0;
    for (int i = 0; i < m_count; ++i)
        if (!kept || !kept->isKnown(numberOf(i))) missing[missingCount++] = i;
    // Computes the result in a block, and keeps it; or returns false if it must not be kept.
    auto const learn = [&](Block& block, BlockResult<T>& out) {
        call<gradient>(node, block, out);
        if (out.byPoints) return false;
        if (!kept) {
            float* const storage = m_workspace.kept.floats(kComponents<T> * kBlockSize);
            kept = &m_positions.add(&node, gradient, storage, m_workspace);
            for (std::size_t c = 0; c < kComponents<T>; ++c)
                kept->component[c] = storage + c * kBlockSize;
            kept->light = out.columns.light;
        }
        float* to = kept->storage;
        for (float const* const from : out.columns.component) {
            for (int i = 0; i < block.m_count; ++i) to[block.numberOf(i)] = from[i];
            to += kBlockSize;
        }
        for (int i = 0; i < block.m_count; ++i) kept->setKnown(block.numberOf(i));
        return true;
    };
    auto out = result<T>();
    if (missingCount == m_count) {
        learn(*this, out);
        return out.columns;
    }
    bool learned = true;
    if (missingCount > 0)
        withChoice(missing, missingCount, [&](Block& rest) {
            auto some = rest.template result<T>();
            learned = learn(rest, some);
        });
    if (!learned) {
        call<gradient>(node, *this, out);
        return out.columns;
    }
    auto const known = kept->template columns<T>();
    if (!m_choice) {
        kept->complete = true;
        return known;
    }
    auto const write = out.writer();
    for (int i = 0; i < m_count; ++i) write.set(i, known[numberOf(i)]);
    out.columns.light = kept->light;
    return out.columns;
}

#define ZEL_INSTANTIATE_BLOCK(Interface)                                                           \
    template Columns<Interface::Value> Block::askKept<false>(Interface const&);                    \
    template Columns<Interface::Gradient> Block::askKept<true>(Interface const&);                  \
    template void Block::write(Interface const&, bool, BlockResult<Interface::Value>&)

ZEL_INSTANTIATE_BLOCK(Core::Fields::ScalarField);
ZEL_INSTANTIATE_BLOCK(Core::Fields::VectorField);
#undef ZEL_INSTANTIATE_BLOCK

}  // namespace zel
