"""Writes the type stubs of the module zel: make_stubs.py FOLDER OUTPUT

Node classes and functions are read from the module, which is imported from the folder. The file
stub_head.pyi has the stubs of all else. The documentation is that of the module.
"""

import ast
import inspect
import pathlib
import sys
import textwrap

sys.path[0] = sys.argv[1]

import zel  # noqa: E402

# What a parameter of each kind takes, and the type of the attribute by which it is read.
TYPES = {
    "bool": ("bool", "bool"),
    "integer": ("int", "int"),
    "float": ("_Number", "float"),
    "double": ("_Number", "float"),
    "vector": ("_Vector", "tuple[float, float, float]"),
    "quaternion": ("_Vector", "tuple[float, float, float, float]"),
    "unitVector": ("_Vector", "tuple[float, float, float]"),
    "string": ("str", "str"),
    "sampler": ("_Sampler | int", "_Sampler | int"),
    "curve": ("_Keys", "Curve"),
    "vectors": ("ArrayLike", "_Floats"),
    "scalarField": ("_Scalar", "ScalarField"),
    "vectorField": ("_VectorLike", "VectorField"),
}


def signatures(parameters, more=None, volume=False):
    """The parameters of a call as texts, without parentheses. There are two if one without a default
    follows one with a default: either all of these are given, or keywords alone."""
    def texts(parameters):
        return [f"{name}: {TYPES[kind][0]}" + ("" if default is None else f" = {default}")
                for name, kind, default in parameters]

    needed = [i for i, (_, _, default) in enumerate(parameters) if default is None]
    last = needed[-1] + 1 if needed else 0
    given = [(name, kind, None) for name, kind, _ in parameters[:last]] + parameters[last:]
    found = [texts(given[:last]) + ([f"*more: {more}"] if more else []) + texts(given[last:])]
    if last > len(needed):
        found.append(["*"] + texts(parameters))
    if volume:
        found = [one + ["*", "volume: Volume | None = None"] for one in found]
    return [", ".join(one) for one in found]


def overloads(stubs):
    return ["@overload\n" + stub for stub in stubs] if len(stubs) > 1 else stubs


def docstring(text, indent=""):
    text = inspect.cleandoc(text or "").replace("\\", "\\\\").replace('"""', '\\"\\"\\"')
    if not text:
        return ""
    body = f'"""{text}"""' if "\n" not in text else f'"""{text}\n"""'
    return textwrap.indent(body, indent)


def class_stub(name, is_scalar, parameters, volume):
    cls = getattr(zel, name)
    doc = docstring(inspect.getdoc(cls), "    ")
    lines = ["@final", f"class {name}({'Scalar' if is_scalar else 'Vector'}Field):", doc]
    texts = signatures(parameters, volume=volume)
    stubs = [f"def __new__({', '.join(['cls', text]) if text else 'cls'}) -> Self: ..."
             for text in texts]
    lines += [textwrap.indent(stub, "    ") for stub in overloads(stubs)]
    for parameter, kind, _ in parameters:
        if parameter in vars(cls):
            lines += ["    @property", f"    def {parameter}(self) -> {TYPES[kind][1]}: ..."]
    return "\n".join(line for line in lines if line)


def function_stubs(name, class_names, classes):
    stubs, known = [], []
    for class_name in class_names:
        _, _, comment, parameters, chains, volume = classes[class_name]
        if parameters in known:  # the class before it is always chosen
            continue
        known.append(parameters)
        more = TYPES[parameters[0][1]][0] if chains else None
        doc = docstring(comment, "    ")
        stubs += [f"def {name}({text}) -> {class_name}:" + (f"\n{doc}" if doc else " ...")
                  for text in signatures(parameters, more, volume)]
    return overloads(stubs)


def with_docs(head):
    """The head with the docstrings that classes, methods and functions have at run time."""
    lines = head.splitlines()
    places = []  # (the line above the docstring, the docstring, whether it is the body of a function)
    seen = set()  # functions whose first overload has the docstring

    def visit(body, scope, prefix, indent):
        for node in body:
            if isinstance(node, ast.ClassDef):
                cls = vars(scope)[node.name]
                places.append((node.lineno, docstring(vars(cls).get("__doc__"), indent + "    "), False))
                visit(node.body, cls, node.name + ".", indent + "    ")
            elif isinstance(node, ast.FunctionDef) and prefix + node.name not in seen:
                seen.add(prefix + node.name)
                found = vars(scope).get(node.name)
                doc = getattr(found, "__doc__", None)
                if found is None or node.name.startswith("_") or not doc:
                    continue
                if doc.startswith(node.name + "("):  # the signature that pybind11 writes
                    doc = doc.partition("\n")[2]
                places.append((node.end_lineno, docstring(doc, indent + "    "), True))

    visit(ast.parse(head).body, zel, "", "")
    for line, doc, is_function in sorted(places, reverse=True):
        if not doc:
            continue
        if is_function:
            lines[line - 1] = lines[line - 1].removesuffix(" ...")
        lines.insert(line, doc)
    return "\n".join(lines)


def main():
    here = pathlib.Path(__file__).parent
    classes = {one[0]: one for one in zel._zel._node_classes()}
    functions = dict(zel._zel._functions)
    parts = [f'"""{inspect.cleandoc(zel.__doc__)}\n"""', with_docs((here / "stub_head.pyi").read_text())]
    parts += [class_stub(name, is_scalar, parameters, volume)
              for name, is_scalar, _, parameters, _, volume in classes.values() if hasattr(zel, name)]
    names = {}  # the first name of each function
    for name, class_names in functions.items():
        if hasattr(zel, name):
            names[id(getattr(zel, name))] = name
            parts += function_stubs(name, class_names, classes)
    for alias, function in vars(zel).items():
        if names.get(id(function), alias) != alias:
            parts.append(f"{alias} = {names[id(function)]}")
    text = "\n\n".join(parts) + "\n"
    ast.parse(text)  # to fail here rather than in an editor
    pathlib.Path(sys.argv[2]).write_text(text)


if __name__ == "__main__":
    main()
