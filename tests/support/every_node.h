#pragma once

#include <sstream>
#include <string>
#include <type_traits>
#include <utility>

#include "zel/library_nodes.h"

// Every class of node, and a way to make one of it without knowing its constructor.
namespace support {

template <class... Nodes, class F> void forNodes(F const& f, std::istringstream names) {
    auto const next = [&] {
        std::string name;
        names >> name;
        return "zel::" + name.substr(0, name.find(','));
    };
    (f.template operator()<Nodes>(next()), ...);
}

#define ZEL_NAMES_OF(...) #__VA_ARGS__
#define ZEL_FOR_NODES(f, ...)                                                                      \
    forNodes<__VA_ARGS__>(f, std::istringstream(ZEL_NAMES_OF(__VA_ARGS__)))

/// Calls `f.operator()<Node>(name)` for every class of node.
template <class F> void forEveryNode(F const& f) {
    using namespace zel;
    ZEL_FOR_NODES(f, ZEL_LIBRARY_NODES);
}

template <std::size_t, class T> using SameFor = T;

/// Makes a node by its constructor of the most arguments, all of them `argument`, which turns into
/// whatever is asked for, in their order.
template <class Node, std::size_t count = 10, class Argument>
Quern::Ptr<Node> construct(Argument const& argument) {
    return [&]<std::size_t... i>(std::index_sequence<i...>) {
        if constexpr (std::is_constructible_v<Node, SameFor<i, Argument const&>...>)
            return Quern::makePtr<Node>(Node{(static_cast<void>(i), argument)...});
        else
            return construct<Node, count - 1>(argument);
    }
    (std::make_index_sequence<count>());
}

}  // namespace support
