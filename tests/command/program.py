"""The program under test, for the tests beside this file: their arguments are ZEL and SOURCE."""

import json
import os
import shutil
import subprocess
import sys
import tempfile
import unittest
from concurrent.futures import ThreadPoolExecutor

import numpy as np
from PIL import Image

try:
    import openvdb
except ImportError:
    try:
        import pyopenvdb as openvdb
    except ImportError:
        openvdb = None

zel, source = os.path.abspath(sys.argv.pop(1)), os.path.abspath(sys.argv.pop(1))
subcommands = ["show", "eval", "slice", "volume", "mesh", "render", "info", "bench"]
generator = np.random.default_rng(7)


def run(*arguments, status=0, **options):
    options.setdefault("capture_output", True)
    result = subprocess.run([zel, *map(str, arguments)], text=True, timeout=300, **options)
    assert result.returncode == status, (arguments, result.returncode, result.stderr)
    return result


def scene(name, root):
    with open(name, "w") as file:
        json.dump({"version": 1, "root": root}, file)
    return name


def png(path):
    """The pixels of a grey or RGB image."""
    with Image.open(path) as image:
        return np.asarray(image).astype(int)


def joins_ranks():
    """Whether there is mpirun, and the program was built with MPI."""
    if not shutil.which("mpirun"):
        return False
    result = subprocess.run([*mpirun(2), zel, "show", "none"], capture_output=True, text=True, timeout=60)
    return "runs in one process" in result.stderr


def mpirun(ranks):
    return ["mpirun", "--oversubscribe", "--bind-to", "none", *(["--allow-run-as-root"] if os.getuid() == 0 else []),
            "-n", str(ranks)]


def at_once(call, items):
    """Calls for several items at a time: most of the time of mpirun is waiting."""
    with ThreadPoolExecutor(4) as pool:
        list(pool.map(call, items))


class ProgramTest(unittest.TestCase):
    """Each test runs in a folder of its own, with two scenes."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        os.chdir(folder.name)
        self.addCleanup(os.chdir, "/")
        self.ball = scene("ball.json", {"type": "ScalarFieldSphere", "center": [0.5, 0, 0], "radius": 1})
        self.twist = scene("twist.json", {"type": "VectorFieldCross", "a": [0, 0, 1], "b": {"type": "Position"}})

    def distance(self, p, center=(0.5, 0, 0)):
        return np.linalg.norm(np.asarray(p, float) - center, axis=-1) - 1

    def refused(self, message, *arguments, **options):
        before = sorted(os.listdir())
        result = run(*arguments, status=2, **options)
        self.assertEqual(result.stdout or "", "")
        self.assertRegex(result.stderr, message)
        self.assertRegex(result.stderr, r"\Azel: [^\n]+\n\Z")
        self.assertEqual(sorted(os.listdir()), before)
