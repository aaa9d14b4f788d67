#include "zel_scene/library_classes.h"

#include "zel/library_nodes.h"
#include "zel/node/type_name.h"
#include "zel_scene/register_node.h"

namespace zel::detail {

namespace {

template <class Node> NodeClass libraryClass() {
    std::string const name = typeNameOf(typeid(Node));
    return nodeClassOf<Node>(name.substr(std::string_view("zel::").size()));
}

template <class... Nodes> std::vector<NodeClass> classes() {
    std::vector<NodeClass> all;
    all.reserve(sizeof...(Nodes));
    (all.push_back(libraryClass<Nodes>()), ...);
    return all;
}

}  // namespace

std::vector<NodeClass> libraryClasses() {
    return classes<ZEL_LIBRARY_NODES>();
}

}  // namespace zel::detail
