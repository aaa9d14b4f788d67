#!/usr/bin/env python3
"""Prints the layout of the classes that programs compiled against ZEL depend on.

abi_layout.py FILE.abi...: what abidw made of libraries with debug information. A line for each size,
base, member and virtual function; offsets are in bytes, virtual functions by their place in the table.
"""

import re
import sys
import xml.etree.ElementTree

NAMESPACES = ("zel", "Core", "Quern", "Orvane", "ORV", "Vellum")
# What is not exported, and the bases of nodes, which the nodes themselves stand for.
LEFT_OUT = re.compile("anonymous|Sampler|VolumeReader|ScalarConverter|TileTree3D::Internal|"
                      "zel::[A-Za-z]*Node<|Internal::ObjectBlock|^zel::detail::Fusion")


def classes(element, scope):
    for child in element:
        name = child.get("name")
        if child.tag == "namespace-decl":
            yield from classes(child, scope + [name])
        elif child.tag in ("class-decl", "union-decl") and name:
            if scope and scope[0] in NAMESPACES and child.get("is-declaration-only") != "yes":
                yield "::".join(scope + [name]), child
            for member in child.iter("member-type"):
                yield from classes(member, scope + [name])
        elif child.tag == "abi-instr":
            yield from classes(child, scope)


def layout(name, node, names):
    yield f"{name} size {int(node.get('size-in-bits', 0)) // 8}"
    for base in node.findall("base-class"):
        offset = int(base.get("layout-offset-in-bits", 0)) // 8
        yield f"{name} base {offset} {names.get(base.get('type-id'), '?')}"
    for member in node.findall("data-member"):
        variable = member.find("var-decl")
        if member.get("static") != "yes":
            offset = int(member.get("layout-offset-in-bits", 0)) / 8
            yield f"{name} member {offset:g} {variable.get('name')}"
    for function in node.findall("member-function"):
        place = function.get("vtable-offset")
        if place and int(place) >= 0:
            yield f"{name} virtual {place} {function.find('function-decl').get('name')}"


lines = set()
for path in sys.argv[1:]:
    found = list(classes(xml.etree.ElementTree.parse(path).getroot(), []))
    names = {node.get("id"): name for name, node in found}
    for name, node in found:
        if not LEFT_OUT.search(name):
            lines.update(layout(name, node, names))
print("\n".join(sorted(lines)))
