"""The type stubs, against the module and against programs that use it."""

import pathlib
import re
import shutil
import subprocess
import sys

import zel

HERE = pathlib.Path(__file__).resolve().parent
EXAMPLES = HERE.parents[1] / "examples" / "python"
FOLDER = pathlib.Path(zel.__file__).parent.parent
# Functions whose parameters have no order that a signature of Python could say: by place and by name,
# some without a default after those with one.
DIFFERENCES = [r"zel\.(plane|implicit_box)"]


def run(folder, *args):
    """Runs a module of Python in a folder in which it finds the stubs."""
    return subprocess.run([sys.executable, "-m", *map(str, args)], capture_output=True, text=True,
                          cwd=folder, timeout=500)


def test_examples_and_uses():
    # The cache of mypy saves most of the time from the second run on.
    done = run(FOLDER, "mypy", "--config-file", HERE / "mypy.ini", "--cache-dir", FOLDER / ".mypy_cache",
               "--no-error-summary", HERE / "uses.py", *sorted(EXAMPLES.glob("*.py")))
    found = [int(line.split(":")[1]) for line in done.stdout.splitlines()
             if re.search(r"uses\.py:\d+: error", line)]
    others = [line for line in done.stdout.splitlines() if ": error" in line and "uses.py" not in line]
    wanted = [number for number, line in enumerate((HERE / "uses.py").read_text().splitlines(), 1)
              if line.endswith("# error")]
    assert not others and not done.stderr, done.stdout + done.stderr
    assert found == wanted, done.stdout


def test_names_of_the_module(tmp_path):
    # Beside the stubs alone: of the module's files in Python there are none.
    (tmp_path / "zel").mkdir()
    shutil.copy(FOLDER / "zel" / "__init__.pyi", tmp_path / "zel")
    (tmp_path / "allowed").write_text("\n".join(DIFFERENCES))
    done = run(tmp_path, "mypy.stubtest", "zel", "--mypy-config-file", HERE / "mypy.ini",
               "--allowlist", tmp_path / "allowed", "--ignore-unused-allowlist")
    assert done.returncode == 0, done.stdout
