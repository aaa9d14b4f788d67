#pragma once

#include <cstddef>

#include "zel/batch/block.h"

namespace zel {

namespace detail {

class Fusion;

/// The nodes of a graph and the fusions of which each is the root: a hash table by the address of
/// the node's interface. It is made by a walk over the graph, and looked up for each block. It is
/// never destroyed: the arena that it lies in is released as a whole.
class FusionPlan {
public:
    struct Entry {
        void const* node = nullptr;
        Fusion* values = nullptr;  ///< null where the node is computed by itself
        Fusion* duals = nullptr;
        // What the walk needs to know of the node:
        int parentCount = 0;  ///< counted once for each time that a parent names it
        bool isView = false;
        bool isRootOfValues = false, isRootOfDuals = false;  ///< or is queued as a root
        bool hasNoDuals = false;                             ///< no fusion of duals is possible
        /// A fusion of duals may ask it for values and gradients: a shared leaf, or a node that
        /// offers them and has no children but views.
        bool offersGradients = false;
    };

    explicit FusionPlan(Arena& memory) : m_memory(memory) {}

    /// The entry of a node, or an empty one. It is valid until the next `insert`.
    Entry const& find(void const* node) const { return m_entries[slotOf(node)]; }
    /// The entry of a node, which is made if there is none.
    Entry& insert(void const* node);

private:
    std::size_t slotOf(void const* node) const;
    void grow();

    Arena& m_memory;
    Entry* m_entries = nullptr;
    std::size_t m_size = 0, m_count = 0;  // the size is a power of two
};

/// Plans the fusions of a graph. The plan and all that belongs to it is allocated from `memory`.
template <class Interface> FusionPlan const* makeFusionPlan(Interface const& root, Arena& memory);

}  // namespace detail
}  // namespace zel
