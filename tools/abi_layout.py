#!/usr/bin/env python3
"""Prints the layout of the classes that programs compiled against ZEL depend on.

abi_layout.py FILE.abi [--functions]: FILE.abi is the output of abidw for all public headers, compiled
with debug information. Prints a line for each size, base, member, virtual function and enumerator;
offsets are in bytes, and a virtual function has its index in the table. The instances of a base of
nodes share their lines.
With --functions it prints a C++ function for each class instead, since abidiff compares only classes
that are parameters of functions.
"""

import re
import sys
import xml.etree.ElementTree

NAMESPACES = ("zel", "Core", "Quern", "Orvane", "ORV", "Vellum")
SHARED = re.compile("(zel::[A-Za-z]*Node)<.*>$")


def declarations(element, scope):
    """All types below `element`, with their qualified names."""
    for child in element:
        name = child.get("name")
        if child.get("id"):
            yield "::".join(scope + [name or "?"]), child
        if child.tag in ("namespace-decl", "class-decl", "union-decl"):
            yield from declarations(child, scope + [name])
        elif child.tag in ("abi-instr", "member-type"):
            yield from declarations(child, scope)


class Types:
    def __init__(self, root):
        self.declared = {}
        for name, node in declarations(root, []):
            self.declared.setdefault(node.get("id"), (name, node))

    def name(self, identifier):
        """The type as C++ writes it, without the names that typedefs give it."""
        if identifier not in self.declared:
            return "?"
        name, node = self.declared[identifier]
        of = node.get("type-id")
        if node.tag == "typedef-decl":
            return self.name(of)
        if node.tag == "pointer-type-def":
            return self.name(of) + "*"
        if node.tag == "reference-type-def":
            return self.name(of) + ("&" if node.get("kind") == "lvalue" else "&&")
        if node.tag == "qualified-type-def":
            qualifiers = [q for q in ("const", "volatile") if node.get(q) == "yes"]
            return " ".join([self.name(of)] + qualifiers)
        if node.tag == "array-type-def":
            lengths = (f"[{sub.get('length')}]" for sub in node.findall("subrange"))
            return self.name(of) + "".join(lengths)
        return "function" if node.tag == "function-type" else name


def layout(name, node, types):
    if node.tag == "enum-decl":
        for value in node.findall("enumerator"):
            yield f"{name} enumerator {value.get('value')} {value.get('name')}"
        return
    yield f"{name} size {int(node.get('size-in-bits', 0)) // 8}"
    for base in node.findall("base-class"):
        offset = int(base.get("layout-offset-in-bits", 0)) // 8
        base_name = SHARED.sub(r"\1", types.name(base.get("type-id")))
        yield f"{name} base {offset} {base_name}"
    for member in node.findall("data-member"):
        if member.get("static") != "yes":
            variable = member.find("var-decl")
            offset = int(member.get("layout-offset-in-bits", 0)) / 8
            of = types.name(variable.get("type-id"))
            yield f"{name} member {offset:3g} {variable.get('name')}: {of}"
    for function in node.findall("member-function"):
        place = int(function.get("vtable-offset", -1))
        if place >= 0:
            declared = function.find("function-decl")
            parameters = ", ".join(types.name(p.get("type-id")) for p in declared.findall("parameter")
                                   if p.get("is-artificial") != "yes")
            result = types.name(declared.find("return").get("type-id"))
            yield f"{name} virtual {place:2} {result} {declared.get('name')}({parameters})"


def is_ours(name, node):
    return (node.tag in ("class-decl", "union-decl", "enum-decl")
            and name.split("::")[0] in NAMESPACES and node.get("is-declaration-only") != "yes")


def functions(element, scope):
    """A function for each class that is a member of no other."""
    for child in element:
        if child.tag == "namespace-decl":
            yield from functions(child, scope + [child.get("name")])
        elif child.tag == "abi-instr":
            yield from functions(child, scope)
        elif child.tag == "class-decl" and child.get("is-anonymous") != "yes":
            name = "::".join(scope + [child.get("name")])
            if is_ours(name, child):
                yield f"void zelTakes({name} const&) {{}}"


root = xml.etree.ElementTree.parse(sys.argv[1]).getroot()
if "--functions" in sys.argv:
    print("\n".join(sorted(set(functions(root, [])))))
    sys.exit()
types = Types(root)
lines = set()
for name, node in declarations(root, []):
    if is_ours(name, node):
        lines.update(layout(SHARED.sub(r"\1", name), node, types))
print("\n".join(sorted(lines)))
