"""A wheel of the libraries in the build tree, in a folder of its own."""

import pathlib
import subprocess
import sys

import zel

SOURCE = pathlib.Path(__file__).resolve().parents[2] / "python"
BUILD = pathlib.Path(zel.__file__).parents[2]
PROGRAM = """
import zel
names = {line.split()[-1] for line in open("/proc/self/maps") if "zel" in line and ".so" in line}
print(zel.sphere()((0, 3, 4)), zel.__version__)
print(*sorted(names), sep="\\n")
"""


def run(*command, **environment):
    done = subprocess.run([sys.executable, *map(str, command)], capture_output=True, text=True,
                          timeout=500, env={"PATH": "/usr/bin:/bin", **environment})
    assert done.returncode == 0, done.stdout + done.stderr
    return done.stdout


def test_a_wheel(tmp_path):
    pip = ["-m", "pip", "--no-input", "--disable-pip-version-check", "--no-cache-dir"]
    before = sorted(SOURCE.rglob("*"))
    run(*pip, "wheel", "--no-build-isolation", "--no-deps", "--no-index", "-w", tmp_path, SOURCE,
        ZEL_BUILD_DIR=str(BUILD))
    assert sorted(SOURCE.rglob("*")) == before
    (wheel,) = tmp_path.glob("zel-*.whl")
    run(*pip, "install", "--no-deps", "--no-index", "--target", tmp_path / "site", wheel)
    value, *libraries = run("-c", PROGRAM, PYTHONPATH=str(tmp_path / "site")).splitlines()
    assert value == f"4.0 {zel.__version__}"
    installed = tmp_path / "site" / "zel"
    assert len(libraries) == 4 and {pathlib.Path(name).parent for name in libraries} == {installed}
    assert (installed / "py.typed").exists() and (installed / "__init__.pyi").exists()
