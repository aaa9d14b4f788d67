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
    """The pixels of a grey or RGB image without interlacing, by the definition of the format."""
    import struct
    import zlib

    with open(path, "rb") as file:
        data = file.read()
    place, pixels = 8, b""
    while place < len(data):
        length, kind = struct.unpack(">I4s", data[place : place + 8])
        body = data[place + 8 : place + 8 + length]
        if kind == b"IHDR":
            width, height, bits, colour = struct.unpack(">IIBB", body[:10])
        if kind == b"IDAT":
            pixels += body
        place += length + 12
    channels = {0: 1, 2: 3}[colour]
    size = channels * bits // 8
    rows = np.frombuffer(zlib.decompress(pixels), np.uint8).reshape(height, -1).astype(int)
    image = np.zeros((height, width * size), int)
    for y in range(height):
        kind, row = rows[y, 0], rows[y, 1:]
        above = image[y - 1] if y else np.zeros_like(image[0])
        for x in range(len(row)) if kind not in (0, 2) else ():
            left = image[y, x - size] if x >= size else 0
            corner = above[x - size] if x >= size else 0
            near = min((left, above[x], corner), key=lambda v: abs(left + above[x] - corner - v))
            image[y, x] = (row[x] + {1: left, 3: (left + above[x]) // 2, 4: near}[kind]) % 256
        if kind in (0, 2):
            image[y] = (row + (above if kind == 2 else 0)) % 256
    image = image.reshape(height, width, channels, bits // 8)
    return (image[..., 0] * 256 + image[..., 1] if bits == 16 else image[..., 0]).squeeze()


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
