"""import_module.py PREFIX: evaluates a field by the module that Python finds. The module, its stubs and
the libraries of ZEL that it loads must all be below PREFIX."""

import pathlib
import sys

import zel

PREFIX = pathlib.Path(sys.argv[1]).resolve()
module = pathlib.Path(zel.__file__).resolve()
mapped = {pathlib.Path(line.split()[-1]) for line in open("/proc/self/maps") if "/libzel" in line}
assert {path.name.split(".")[0] for path in mapped} == {"libzel", "libzel_platform", "libzel_scene"}, mapped
for path in {module, *mapped}:
    assert path.is_relative_to(PREFIX), path
assert "def sphere(" in module.with_name("__init__.pyi").read_text()
assert module.with_name("py.typed").exists()

field = zel.loads(zel.dumps(zel.sphere((1, 0, 0), 2)))
assert field((4, 4, 0)) == 3, field((4, 4, 0))
