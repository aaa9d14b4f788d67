#pragma once

#include <new>
#include <utility>

#include "zel/batch/block.h"

namespace zel {

namespace detail {

/// A node of either interface.
class NodeRef {
public:
    template <class Interface>
    explicit NodeRef(Interface const& node)
        : m_address(&node), m_fuse([](void const* address, Fuser& fuser) {
              static_cast<Interface const*>(address)->fuse(fuser);
          }) {}

    void const* address() const { return m_address; }
    void fuse(Fuser& fuser) const { m_fuse(m_address, fuser); }

private:
    void const* m_address;
    void (*m_fuse)(void const* address, Fuser& fuser);
};

/// Nodes that a walk has met and not visited yet. The one that was met last is visited first.
class PendingNodes {
public:
    explicit PendingNodes(Arena& memory) : m_memory(memory) {}

    bool isEmpty() const { return !m_last; }
    void push(NodeRef const& node) {
        m_last = new (m_memory.allocate(sizeof(Element))) Element{node, m_last};
    }
    NodeRef pop() { return std::exchange(m_last, m_last->next)->node; }

private:
    struct Element {
        NodeRef node;
        Element* next;
    };
    Arena& m_memory;
    Element* m_last = nullptr;
};

}  // namespace detail
}  // namespace zel
