"""command_test.py ZEL SOURCE: the program's results against formulas in NumPy, its errors, and its manual."""

import json
import os
import pty
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
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


class Test(unittest.TestCase):
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

    def test_eval(self):
        points = generator.normal(size=(70000, 3)).astype("f4")
        np.save("points.npy", points)
        np.savetxt("points.csv", points[:100], fmt="%.9g", delimiter=",", header="x,y,z", comments="")
        run("eval", self.ball, "points.npy", "-o", "out.npy", "--gradient")
        out = np.load("out.npy")
        np.testing.assert_allclose(out[:, 0], self.distance(points), atol=2e-6)
        np.testing.assert_allclose(np.linalg.norm(out[:, 1:], axis=1), 1, atol=2e-6)
        run("eval", self.twist, "points.csv", "points.npy", "-o", "out.csv", "--gradient")
        out = np.genfromtxt("out.csv", delimiter=",", names=True)
        names = [f"gradient_{r}{c}" for r in "xyz" for c in "xyz"]
        self.assertEqual(list(out.dtype.names), ["x", "y", "z", "value_x", "value_y", "value_z", *names])
        np.testing.assert_array_equal(out["value_x"][100:], -out["y"][100:])
        np.testing.assert_array_equal(out["value_y"][:100].astype("f4"), points[:100, 0])
        self.assertTrue((out["gradient_yx"] == 1).all() and (out["gradient_xy"] == -1).all())
        with open(self.ball) as ball, open("points.csv") as points:
            table = run("eval", "-", "points.csv", stdin=ball).stdout
            self.assertEqual(table, run("eval", self.ball, "-", stdin=points).stdout)
        run("eval", self.ball, "points.csv", "-o", "out.ply")
        run("eval", self.ball, "out.ply", "-o", "again.csv")
        with open("again.csv") as file:
            self.assertEqual(file.read(), table)

        # Of noise, far from the origin, where differences are wider than its features.
        noise = scene("noise.json", {"type": "FractalNoise", "octaves": 1})
        at = generator.uniform(30, 40, (100, 3)).astype("f4")
        steps = 2.0**-8 * np.vstack([np.eye(3), -np.eye(3)])
        np.save("at.npy", at)
        np.save("around.npy", (at[:, None] + steps).reshape(-1, 3).astype("f4"))
        run("eval", noise, "around.npy", "-o", "out.npy")
        around = np.load("out.npy").reshape(-1, 2, 3).astype(float)
        run("eval", noise, "at.npy", "--gradient", "--exact", "-o", "out.npy")
        np.testing.assert_allclose(np.load("out.npy")[:, 1:], (around[:, 0] - around[:, 1]) * 2**7, atol=5e-3)

    def test_properties_and_element_indices(self):
        mass = scene("mass.json", {"type": "ScalarFieldAdd", "a": {"type": "ScalarGeoPropertyTriggered", "property": "mass"},
                                   "b": {"type": "ScalarFieldXPosition"}})
        rows = np.column_stack([np.arange(150000) % 97, *np.zeros((2, 150000)), np.arange(150000)])
        np.savetxt("mass.csv", rows, fmt="%d", delimiter=",", header="x,y,z,mass", comments="")
        run("eval", mass, "mass.csv", "-o", "out.npy")
        np.testing.assert_array_equal(np.load("out.npy"), rows[:, 0] + rows[:, 3])
        np.save("points.npy", rows[:, :3].astype("f4"))
        self.refused('mass.json: unbound: no property "mass"', "eval", mass, "mass.csv", "points.npy", "-o", "new.npy")
        run("eval", mass, "points.npy", "-o", "out.npy", "--allow-unbound")
        np.testing.assert_array_equal(np.load("out.npy"), rows[:, 0])
        values = [[i, 0, 0] for i in range(1000)]
        turns = scene("turns.json", {"type": "VectorFieldConstantArray", "values": values})
        run("eval", turns, "points.npy", "mass.csv", "-o", "out.npy")
        np.testing.assert_array_equal(np.load("out.npy")[:, 0], np.arange(300000) % 1000)
        array = {"type": "VectorFieldConstantArray", "values": values}
        mixed = scene("mixed.json", {"type": "ScalarFieldAdd", "a": {"type": "XComponent", "field": array},
                                     "b": {"type": "ScalarGeoPropertyTriggered", "property": "mass"}})
        self.refused("mixed.json: reads columns .* at most 65536 points", "eval", mixed, "mass.csv", "-o", "new.npy")

    def test_pictures(self):
        run("slice", self.ball, "--plane", "y=0.25", "--size", "90x50", "--width", 3, "--center", "0.5,-0.25",
            "--gray", 16, "--range", "-1,1", "-o", "slice.png")
        u = 0.5 + (np.arange(90) + 0.5 - 45) * 3 / 90
        v = -0.25 - (np.arange(50) + 0.5 - 25) * 3 / 90
        p = np.stack(np.broadcast_arrays(u[None], 0.25, v[:, None]), -1)
        wanted = np.clip((self.distance(p) + 1) / 2, 0, 1) * 65535
        np.testing.assert_allclose(png("slice.png"), wanted, atol=0.7)
        run("slice", self.twist, "--plane", "x=2", "--size", 20, "--component", "y", "--gray", 8, "--range", "0,4",
            "-o", "slice.png")
        self.assertTrue((png("slice.png") == 128).all())  # the y of (-y, x, 0)
        run("slice", self.ball, "--size", 200, "--isolines", "-o", "lines.png")
        run("slice", self.ball, "--size", 200, "-o", "plain.png")
        lines, plain = png("lines.png"), png("plain.png")
        u = (np.arange(200) + 0.5 - 100) / 50
        d = self.distance(np.stack(np.broadcast_arrays(u[None], -u[:, None], 0), -1))
        self.assertTrue((plain[d < -0.1][:, 0] > plain[d < -0.1][:, 2]).all())  # orange
        self.assertTrue((plain[d > 0.1][:, 0] < plain[d > 0.1][:, 2]).all())  # blue
        self.assertTrue((lines[np.abs(d) < 0.005] < 60).all() and (plain[np.abs(d) < 0.005] > 150).all())

        # The outline of a ball at the distance 5 sqrt(2) is that of a cone of the angle asin(1 / (5 sqrt(2))).
        for size, center in ((1, 0), (1000, 300)):
            far = scene("far.json", {"type": "ScalarFieldSphere", "center": [center] * 3, "radius": size})
            run("render", far, "--eye", f"{center},{center},{center + size * 50 ** 0.5}",
                "--target", ",".join([str(center)] * 3), "--angle", 30, "--size", "200x150", "-o", "ball.png")
            x = np.tan(np.radians(15)) * ((np.arange(200) + 0.5) / 100 - 1)
            y = np.tan(np.radians(15)) * ((np.arange(150) + 0.5) / 100 - 0.75)
            r = np.hypot(x[None], y[:, None]) / np.tan(np.arcsin(50 ** -0.5))
            image = png("ball.png")
            is_sky = (image == image[0, 0]).all(-1)
            self.assertTrue(is_sky[r > 1.03].all() and not is_sky[r < 0.97].any())
            self.assertGreater(image[40:70, 70:100].mean(), 1.5 * image[80:110, 100:130].mean())  # the sun

    def test_volumes_and_meshes(self):
        box = ["--box", "-1,-1.5,-1.25,2,1.5,1.25"]
        run("volume", self.ball, *box, "--voxel", 0.25, "-o", "dense.npy")
        p = np.stack(np.meshgrid(*(np.arange(n) * 0.25 + low for n, low in ((13, -1), (13, -1.5), (11, -1.25))),
                                 indexing="ij"), -1)
        np.testing.assert_allclose(np.load("dense.npy"), self.distance(p), atol=1e-6)
        run("volume", self.ball, "--box", "-1,0,0,3,0,0", "--voxel", 0.001, "-o", "line.npy")
        self.assertEqual(np.load("line.npy").shape, (4001, 1, 1))
        run("volume", self.twist, *box, "--voxel", 0.25, "-o", "vectors.npy")
        np.testing.assert_array_equal(np.load("vectors.npy")[..., 0], -p[..., 1])

        run("volume", self.ball, *box, "--voxel", 0.05, "--band", 3, "-o", "ball.vdb")
        self.assertRegex(run("info", "ball.vdb").stdout, r"(?s)\Asurface: float\n.*  class: level set\n")
        surface = {"type": "ScalarOrvaneTriggered", "channel": "surface"}
        leaf = scene("leaf.json", {"type": "ScalarFieldAdd", "a": surface, "b": 1})
        direction = generator.normal(size=(5000, 3))
        direction /= np.linalg.norm(direction, axis=1)[:, None]
        depth = generator.uniform(-0.1, 0.1, 5000)
        points = ((1 + depth)[:, None] * direction + (0.5, 0, 0)).astype("f4")
        np.save("points.npy", points)
        run("eval", leaf, "points.npy", "-o", "out.npy", "--bind", "volume=ball.vdb")
        np.testing.assert_allclose(np.load("out.npy"), depth + 1, atol=2e-3)
        other = scene("other.json", {"type": "ScalarOrvane", "channel": "shape"})
        run("eval", other, "points.npy", "-o", "out.npy", "--bind", "shape=ball.vdb:surface")
        np.testing.assert_allclose(np.load("out.npy"), depth, atol=2e-3)
        run("volume", self.twist, *box, "--voxel", 0.05, "--half", "--name", "wind", "-o", "wind.vdb")
        both = scene("both.json", {"type": "ScalarFieldAdd", "a": surface, "b":
                                   {"type": "YComponent", "field": {"type": "VectorOrvaneTriggered", "channel": "wind"}}})
        run("eval", both, "points.npy", "-o", "out.npy", "--bind", "surface=ball.vdb", "--bind", "volume=wind.vdb")
        np.testing.assert_allclose(np.load("out.npy"), depth + points[:, 0], atol=4e-3)
        self.refused('unbound: no .*channel "surface"', "eval", leaf, "points.npy")
        self.refused('ball.vdb: grid "dense": there is none; the file has the grids "surface"', "eval", both, "points.npy",
                     "--bind", "wind=ball.vdb:dense")
        self.refused("looks for no channel dust; open channels: surface", "eval", leaf, "points.npy",
                     "--bind", "dust=ball.vdb")
        self.refused("wind.vdb: has no grid for the channels surface; its grids: .wind.", "eval", leaf,
                     "points.npy", "--bind", "volume=wind.vdb")
        self.refused("volume=wind.vdb: the scene looks for no channel that is not bound", "eval",
                     "--bind", "volume=ball.vdb", "--bind", "volume=wind.vdb", leaf, "points.npy", "points.npy")

        red = scene("red.json", {"type": "VectorFieldConstant", "value": [1, 0, 0.2]})
        run("mesh", self.ball, *box, "--voxel", 0.05, "--color", red, "-o", "ball.ply")
        run("eval", self.ball, "ball.ply", "-o", "out.npy")
        values = np.load("out.npy")
        self.assertTrue(len(values) > 3000 and np.abs(values).max() < 0.005)
        color = scene("color.json", {"type": "VectorGeoPropertyTriggered", "property": "color"})
        run("eval", color, "ball.ply", "-o", "out.npy")
        self.assertTrue((np.load("out.npy") == (255, 0, 51)).all())
        run("mesh", self.ball, *box, "--voxel", 0.05, "--bind", "volume=ball.vdb", "--color", leaf, "--color", leaf, "-o", "ball.ply")
        run("eval", color, "ball.ply", "-o", "out.npy")
        np.testing.assert_allclose(np.load("out.npy"), np.tile((255, 255, 0), (len(values), 1)), atol=2)
        empty = run("mesh", self.ball, "--box", "5,5,5,6,6,6", "--voxel", 1, "-o", "empty.ply").stderr
        self.assertEqual(empty, "zel: empty.ply: has no faces, since the scene has no surface in the --box\n")
        for arguments in (["mesh", "--voxel", 1], ["volume", "--voxel", 1, "--band", 3], ["render"]):
            suffix = {"mesh": "ply", "volume": "vdb", "render": "png"}[arguments[0]]
            extra = box if arguments[0] != "render" else []
            self.refused("twist.json: is a vector field", arguments[0], self.twist, *arguments[1:], *extra,
                         "-o", "new." + suffix)

    @unittest.skipUnless(openvdb, "needs python3-openvdb")
    def test_volumes_that_are_turned(self):
        i = np.indices((20, 20, 20))
        grid = openvdb.FloatGrid()
        grid.copyFromArray((i[0] + 2 * i[1] + 3 * i[2]).astype("f4"))
        grid.name = "ramp"
        map = np.array([[0.1, 0.02, 0, 0], [-0.03, 0.2, 0, 0], [0, 0.01, 0.1, 0], [1, 2, 3, 1]])
        grid.transform = openvdb.createLinearTransform(map.tolist())
        openvdb.write("ramp.vdb", grids=[grid])
        points = (np.c_[generator.uniform(3, 15, (1000, 3)), np.ones(1000)] @ map)[:, :3].astype("f4")
        np.save("points.npy", points)
        wanted = (np.c_[points, np.ones(1000)] @ np.linalg.inv(map))[:, :3] @ [1, 2, 3]
        leaf = {"type": "ScalarOrvaneTriggered", "channel": "height"}
        for root in (leaf, {"type": "ScalarOrvane", "channel": "height"},
                     {"type": "ScalarFieldLerp", "a": leaf, "b": leaf, "t": 0.5}):
            run("eval", scene("leaf.json", root), "points.npy", "-o", "out.npy", "--bind", "height=ramp.vdb:ramp")
            np.testing.assert_allclose(np.load("out.npy"), wanted, atol=1e-4)

    def test_show_and_bench(self):
        self.assertEqual(run("show", self.ball).stdout, "zel::ScalarFieldSphere center=(0.5, 0, 0) radius=1\n")
        self.assertIn("digraph", run("show", self.twist, "--dot").stdout)
        lines = run("bench", self.twist, "--seconds", 0, "--points", 1000).stdout.splitlines()
        self.assertEqual(len([line for line in lines if re.fullmatch(r"values.* \d+ threads? +[\d.]+ ns a point, .+ points/s", line)]), 4)

    def test_errors(self):
        with open("points.csv", "w") as file:
            file.write("x,y,z\n" + "1,2,3\n" * 10 + "1,2,abc\n")
        self.refused('points.csv: line 12, column "z": wanted a number, found "abc"', "eval", self.ball, "points.csv")
        self.refused("points.csv: line 12", "eval", self.ball, "points.csv", "-o", "new.ply")
        self.refused("ball.json: is a scalar field", "slice", self.ball, "--component", "x", "-o", "new.png")
        scene("bad.json", {"type": "ScalarFieldSpere"})
        self.refused('bad.json: /root/type: .*ScalarFieldSphere', "show", "bad.json")
        self.refused("no.json: cannot be opened", "show", "no.json")
        self.refused("standard input can be read only once", "eval", "-", "-", stdin=subprocess.DEVNULL)
        self.refused("--size 0x5: wanted", "slice", self.ball, "--size", "0x5", "-o", "new.png")
        self.refused("--plane w=1: wanted", "slice", self.ball, "--plane", "w=1", "-o", "new.png")
        self.refused("--scale: wanted a number above 0, found nan", "slice", self.ball, "--scale", "nan", "-o", "new.png")
        self.refused("--plane z=1e99: wanted", "slice", self.ball, "--plane", "z=1e99", "-o", "new.png")
        self.refused("--color 12345g: wanted", "render", self.ball, "--color", "12345g", "-o", "new.png")
        for eye in ("0,5,0", "1e-42,0,0"):
            self.refused("--eye (0,5,0|1.*e-42,0,0) must be .* --target 0,0,0", "render", self.ball, "--eye", eye, "-o", "new.png")
        for message, *arguments in (
            ("shwo is no subcommand; there are show, eval", "shwo", "gear.json"),
            ("--bogus: there is no such option", "--bogus"),
            ("--gray: wanted 8 or 16, found x", "slice", self.ball, "--gray", "x", "--range", "0,1", "-o", "a.png"),
            ("--range: black and white have the same value, 1", "slice", self.ball, "--gray", 8, "--range", "1,1", "-o", "a.png"),
            ("--center: wanted RIGHT,UP, found 1,2,3", "slice", self.ball, "--center", "1,2,3", "-o", "a.png"),
            ("--isolines: wanted a spacing above 0, .*, found ball.json", "slice", "--isolines", self.ball, "-o", "a.png"),
            ("a.jpg: a picture is written as .png", "slice", self.ball, "-o", "a.jpg"),
            ("a: a picture is written as .png", "render", self.ball, "-o", "a"),
            ("--angle: wanted a number between 0 and 170, found 180", "render", self.ball, "--angle", 180, "-o", "a.png"),
            ("--step: wanted a number above 0, 1 at most, found 0", "render", self.ball, "--step", 0, "-o", "a.png"),
            ("--points: wanted a whole number from 1 to 1073741824, found -5", "bench", self.ball, "--points", "-5"),
            ("--threads: wanted a whole number from 0 to 4096, found -1", "show", self.ball, "--threads", "-1"),
            *((f"--seconds: wanted a number from 0, found {s}", "bench", self.ball, "--seconds", s) for s in ("nan", "-1", "inf")),
            ("--box from 1 to 0 along y: the low corner", "bench", self.ball, "--box", "0,1,0,1,0,1"),
            ("--adaptivity: wanted a number from 0 to 1, found nan", "mesh", "no.json", "--adaptivity", "nan"),
            ("--color is given 4 times", "mesh", self.ball, "--box", "0,0,0,1,1,1", "--voxel", 1, "-o", "a.ply", *["--color", self.ball] * 4),
            ("standard input can be read only once", "mesh", "-", "--color", "-", "--box", "0,0,0,1,1,1", "--voxel", 1, "-o", "a.ply"),
        ):
            self.refused(message, *arguments)
        for name in ("volume", "mesh"):
            self.refused("a.txt: a .* is written as", name, "no.json", "--box", "0,0,0,1,1,1", "--voxel", 1, "-o", "a.txt")
        self.refused("--box: wanted a finite number, found nan", "volume", self.ball, "--box", "0,0,0,nan,1,1", "--voxel", 1, "-o", "a.npy")
        os.mkfifo("pipe.vdb")
        for message, name, box, *more in (
            ("--box from 0 to 1 along x: has more than 2.30 samples with --voxel 1e-30", "a.npy", "0,0,0,1,1,1", "--voxel", "1e-30"),
            (r"--box and --voxel 1e-06 give 1e\+18 samples, more", "a.npy", "0,0,0,.999999,.999999,.999999", "--voxel", "1e-6"),
            ("--box from 1 to 0 along y: the low corner", "a.npy", "0,1,0,1,0,1", "--voxel", "1"),
            ("--box from 1 to 0 along y: the low corner", "a.vdb", "0,1,0,1,0,1", "--voxel", "1"),
            ("--box from 1 to 1 along z: is empty", "a.vdb", "0,0,1,1,1,1", "--voxel", "1"),
            ("--box from 7.1 to 7.9 along x: has no sample at a multiple of --voxel 1", "a.vdb", "7.1,0,0,7.9,9,9", "--voxel", "1"),
            ("--box from 0 to 1 along x: reaches farther", "a.vdb", "0,0,0,1,1,1", "--voxel", "1e-30"),
            ("--voxel 1e-10 is too small for OpenVDB", "a.vdb", *["0,0,0,1e-9,1e-9,1e-9", "--voxel", "1e-10"]),
            ("--box: wanted X,Y,Z,X,Y,Z, found 0,0,0,1,1", "a.npy", "0,0,0,1,1", "--voxel", "0.1"),
            ("--band: wanted .*, found 1e30", "a.vdb", "0,0,0,1,1,1", "--voxel", "1", "--band", "1e30"),
            ("cannot be written: it takes 4000120001200132 bytes, of which the disk has ", "a.npy", "0,0,0,1e5,1e5,1e5", "--voxel", "1"),
            ("take 4.000012e.18 bytes, and this machine has", "a.vdb", "0,0,0,1e6,1e6,1e6", "--voxel", "1"),
            ("pipe.vdb: is no regular file", "pipe.vdb", "0,0,0,1,1,1", "--voxel", "1"),
            ("--fog needs --band", "a.vdb", "0,0,0,1,1,1", "--voxel", "1", "--fog"),
        ):
            self.refused(message, "volume", self.ball, "--box", box, *more, "-o", name)
        self.refused("along y: has no sample", "mesh", self.ball, "--box", "0,.1,0,9,.9,9", "--voxel", 1, "-o", "a.ply")
        self.refused("--isolines and --scale", "slice", self.ball, "--gray", 8, "--range", "0,1", "--scale", 1, "-o", "a.png")
        self.refused("--exact needs --gradient", "eval", self.ball, "-", "--exact")
        self.refused("no/a.png: cannot be written", "render", self.ball, "--size", 9, "-o", "no/a.png")
        self.refused("^zel: no  .31m x .json: cannot", "show", "no\u009b\x1b[31m\x7fx\n.json")
        # Links, of which the last leads to no file, and links in a circle.
        os.makedirs("folder/deep")
        os.symlink("folder/deep/second", "first.npy")
        os.symlink("../file.npy", "folder/deep/second")
        run("volume", self.ball, "--box", "0,0,0,1,1,1", "--voxel", 1, "-o", "first.npy")
        self.assertTrue(os.path.islink("first.npy") and os.path.islink("folder/deep/second"))
        self.assertEqual(np.load("folder/file.npy").shape, (2, 2, 2))
        os.symlink("circle.npy", "other.npy")
        os.symlink("other.npy", "circle.npy")
        self.refused("circle.npy: cannot be written: Too many levels", "volume", self.ball, "--box", "0,0,0,1,1,1",
                     "--voxel", 1, "-o", "circle.npy")
        self.assertTrue(os.path.islink("circle.npy") and os.path.islink("other.npy"))
        for name in ("a" * 251 + ".npy", "\u00e9" * 125 + "a.npy"):
            run("volume", self.ball, "--box", "0,0,0,1,1,1", "--voxel", 1, "-o", name)
            os.remove(name)
        limited = subprocess.run(["bash", "-c", 'ulimit -f 20; exec "$0" volume ball.json --box 0,0,0,2,2,2 --voxel .05 -o a.vdb',
                                  zel], capture_output=True, text=True)
        self.assertIn("a.vdb: cannot be written: File too large", limited.stderr)
        self.refused("points.csv: ", "info", "points.csv")
        self.refused("(?i)subcommand")
        self.refused("--nothing", "show", self.ball, "--nothing")
        np.save("points.npy", np.zeros((100000, 3), "f4"))
        with open("/dev/full", "w") as full:
            for arguments in (["show", self.ball], ["eval", self.ball, "points.npy"], ["--help"], ["--version"]):
                self.refused("standard output: cannot be written: No space", *arguments, stdout=full,
                             stderr=subprocess.PIPE, capture_output=False)
        for words in ("show ball.json >&-", "eval ball.json - <&-", "show no.json 2>&-"):
            shell = subprocess.run(["bash", "-c", f'"$0" {words}', zel], capture_output=True, text=True)
            self.assertEqual((shell.returncode, shell.stdout), (2, ""), words)
            self.assertEqual(shell.stderr.count("\n"), 0 if "2>" in words else 1)
        end, pipe = os.pipe()
        os.close(end)
        self.refused("standard output: cannot be written: Broken pipe", "eval", self.ball, "points.npy", stdout=pipe,
                     stderr=subprocess.PIPE, capture_output=False)
        os.close(pipe)

    def test_streams_in_constant_memory(self):
        def peak(count):
            np.save("points.npy", np.ones((count, 3), "f4"))
            script = ("import resource, subprocess, sys\n"
                      "subprocess.run(sys.argv[1:], check=True)\n"
                      "print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)")
            out = subprocess.run([sys.executable, "-c", script, zel, "eval", self.ball, "points.npy", "-o", "out.npy"],
                                 capture_output=True, text=True, check=True).stdout
            self.assertEqual(np.load("out.npy", mmap_mode="r").shape, (count,))
            return int(out)

        small, large = peak(200_000), peak(4_000_000)
        self.assertLess(large - small, 8_000)  # KB, of 64 MB in and out

    def test_interrupts(self):
        stone = scene("stone.json", {"type": "FractalNoise", "octaves": 200})
        np.save("points.npy", generator.normal(size=(3_000_000, 3)).astype("f4"))
        with open("out.npy", "w") as file:
            file.write("earlier")
        before = sorted(os.listdir())
        read, write = os.pipe()
        cases = [
            ["eval", stone, "points.npy", "-o", "out.npy"],
            ["eval", stone, "-", "-o", "out.npy"],  # waits for its input
            ["volume", stone, "--box", "0,0,0,9,9,9", "--voxel", "0.01", "-o", "out.npy"],
            ["volume", stone, "--box", "-9,-9,-9,9,9,9", "--voxel", "0.01", "--band", "3", "-o", "out.vdb"],
            ["slice", stone, "--size", "4000", "-o", "out.png"],
            ["render", stone, "--size", "2000", "-o", "out.png"],
            ["mesh", stone, "--box", "-9,-9,-9,9,9,9", "--voxel", "0.01", "-o", "out.ply"],
        ]

        def interrupt(case):
            arguments, number = case
            child = subprocess.Popen([zel, *arguments], stdin=read, stderr=subprocess.PIPE, text=True)
            while True:  # until signals are received
                with open(f"/proc/{child.pid}/status") as file:
                    if int(re.search(r"SigBlk:\s*(\w+)", file.read())[1], 16) & 2:
                        break
                time.sleep(0.01)
            time.sleep(0.5)
            child.send_signal(number)
            _, errors = child.communicate(timeout=60)
            self.assertEqual((child.returncode, errors), (130, ""), arguments)

        at_once(interrupt, [(arguments, number) for arguments in cases for number in (signal.SIGINT, signal.SIGTERM)])
        self.assertEqual(sorted(os.listdir()), before)
        os.close(write)
        with open("out.npy") as file:
            self.assertEqual(file.read(), "earlier")

    @unittest.skipUnless(joins_ranks(), "needs mpirun, and a program with MPI")
    def test_ranks_give_equal_bytes(self):
        points = generator.normal(size=(200_001, 3)).astype("f4")
        np.save("points.npy", points)
        rows = np.column_stack([points[:70000], np.arange(70000)])
        np.savetxt("points.csv", rows, fmt="%.9g", delimiter=",", header="x,y,z,mass", comments="")
        stone = {"type": "ScalarFieldMultiply", "a": {"type": "FractalNoise", "octaves": 2}, "b": 0.2}
        rough = scene("rough.json", {"type": "ScalarFieldAdd", "b": stone, "a": {"type": "ScalarFieldSphere", "radius": 1}})
        turns = scene("turns.json", {"type": "VectorFieldConstantArray", "values": [[i, 0, 0] for i in range(1000)]})
        mass = scene("mass.json", {"type": "ScalarGeoPropertyTriggered", "property": "mass"})
        box = ["--box", "-1.31,-1.2,-1.2,1.3,1.2,1.2"]
        cases = [
            (["volume", rough, *box, "--voxel", 0.03], "npy", (1, 2, 3, 4, 7)),
            (["volume", turns, "--box", "0,0,0,9,1,1", "--voxel", 1], "npy", (7,)),  # ranks without work
            (["volume", rough, *box, "--voxel", 0.03, "--band", 3], "vdb", (1, 2, 3, 4, 7)),
            (["volume", rough, *box, "--voxel", 0.04, "--band", 3, "--fog"], "vdb", (3,)),
            (["volume", self.twist, *box, "--voxel", 0.06, "--half"], "vdb", (2,)),
            (["volume", turns, "--box", "0,0,0,9,9,9", "--voxel", 1], "vdb", (2,)),
            (["volume", self.ball, "--box", "0,0,0,9,1,1", "--voxel", 0.1, "--band", 3], "vdb", (7,)),
            (["eval", self.twist, "points.npy", "points.csv", "--gradient"], "npy", (1, 2, 3, 4, 7)),
            (["eval", turns, "points.csv", "points.npy"], "npy", (2,)),
            (["eval", mass, "points.csv", "points.csv"], "npy", (2,)),
            (["eval", rough, "points.csv", "points.npy", "--gradient"], "csv", (3,)),
        ]

        def compare(case):
            number, ranks = case
            arguments, suffix, _ = cases[number]
            output = f"{number}-{ranks}.{suffix}"
            program = [*mpirun(ranks), zel, "--threads", "1"] if ranks else [zel]
            together = [*program, *map(str, arguments), "-o", output]
            result = subprocess.run(together, capture_output=True, text=True, timeout=120)
            self.assertEqual((result.returncode, result.stderr), (0, ""), together)
            with open(output, "rb") as file, open(f"{number}-0.{suffix}", "rb") as alone:
                self.assertTrue(file.read() == alone.read(), together)

        at_once(compare, [(number, 0) for number in range(len(cases))])
        at_once(compare, [(number, ranks) for number, (_, _, counts) in enumerate(cases) for ranks in counts])

    @unittest.skipIf(joins_ranks(), "needs a program without MPI")
    def test_refuses_ranks_without_mpi(self):
        environment = {name: value for name, value in os.environ.items() if not name.startswith(("OMPI", "PMI"))}
        for name in "OMPI_COMM_WORLD_SIZE", "PMI_SIZE":
            self.refused("several processes, and this program was built without MPI", "volume", self.ball, "--box",
                         "0,0,0,1,1,1", "--voxel", 1, "-o", "new.npy", env={**environment, name: "2"})
            run("show", self.ball, env={**environment, name: "1"})

    @unittest.skipUnless(joins_ranks(), "needs mpirun, and a program with MPI")
    def test_ranks_that_fail(self):
        with open("points.csv", "w") as file:
            file.write("x,y,z\n" + "1,2,3\n" * 150_000 + "1,2,abc\n")  # in a block that is not the root's
        stone = scene("stone.json", {"type": "FractalNoise", "octaves": 200})
        cases = (
            ("no.json: cannot be opened", ["eval", "no.json", "points.csv", "-o", "out.npy"]),
            ("points.csv: line 150002", ["eval", self.ball, "points.csv", "-o", "out.npy"]),
            ("points.csv: line 150002", ["eval", self.ball, "points.csv", "-o", "out.csv"]),
            ("show runs in one process", ["show", self.ball]),
            ("standard input is read in one", ["eval", self.ball, "-"]),
        )

        def refuse(case):
            message, arguments = case
            result = subprocess.run([*mpirun(3), zel, *arguments], capture_output=True, text=True, timeout=60)
            self.assertEqual((result.returncode, result.stdout), (2, ""), arguments)
            self.assertEqual(len(re.findall("^zel: " + message, result.stderr, re.M)), 1, result.stderr)
            self.assertEqual(result.stderr.count("zel: "), 1, result.stderr)

        before = sorted(os.listdir())
        at_once(refuse, cases)
        self.assertEqual(sorted(os.listdir()), before)

        # One rank may not write so much, or does not find the folder of the output.
        os.mkdir("other")
        np.save("points.npy", np.zeros((200_000, 3), "f4"))
        before = sorted(os.listdir())
        program = ["eval", os.path.abspath(self.ball), os.path.abspath("points.npy"), "-o", "out.npy"]
        limited = ["bash", "-c", 'ulimit -f 200; exec "$0" "$@"', zel]
        for second, message in (
            (limited, "out.npy: cannot be written: File too large"),
            (["-wdir", os.path.abspath("other"), zel], "out.npy: cannot be written: rank 1 cannot open .*: No such file"),
        ):
            command = [*mpirun(1), zel, *program, ":", "-n", "1", *second, *program]
            result = subprocess.run(command, capture_output=True, text=True, timeout=30)
            self.assertEqual(result.returncode, 2, result.stderr)
            self.assertEqual(len(re.findall("^zel: " + message, result.stderr, re.M)), 1, result.stderr)
            self.assertEqual(sorted(os.listdir()), before)

        # The disk is full, which is found out while the file grows.
        with open("points.csv", "w") as file:
            file.write("x,y,z\n" + "1,2,3\n" * 400_000)
        if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m", "none", "other"], capture_output=True).returncode == 0:
            try:
                command = [*mpirun(3), zel, "eval", self.ball, "points.csv", "-o", "other/out.npy"]
                result = subprocess.run(command, capture_output=True, text=True, timeout=30)
                self.assertEqual(result.returncode, 2, result.stderr)
                self.assertIn("zel: other/out.npy: cannot be written: No space left", result.stderr)
                self.assertEqual(os.listdir("other"), [])
            finally:
                subprocess.run(["umount", "other"], check=True)

        # A rank is killed, or mpirun is interrupted or killed, while a file is written.
        box = ["--box", "-9,-9,-9,9,9,9", "--voxel", "0.01"]
        for extra, rank in ((["-o", "out.npy"], 0), (["--band", "3", "-o", "out.vdb"], 1), (["-o", "out.npy"], signal.SIGINT),
                            (["-o", "out.npy"], signal.SIGKILL)):
            child = subprocess.Popen([*mpirun(2), zel, "volume", stone, *box, *extra], stderr=subprocess.DEVNULL)
            while sorted(os.listdir()) == before:
                self.assertIsNone(child.poll())
                time.sleep(0.05)
            time.sleep(0.3)  # the other rank hears of the file
            if isinstance(rank, signal.Signals):
                child.send_signal(rank)
            else:
                with open(f"/proc/{child.pid}/task/{child.pid}/children") as file:
                    for pid in map(int, file.read().split()):
                        with open(f"/proc/{pid}/environ") as environment:
                            if f"OMPI_COMM_WORLD_RANK={rank}\0" in environment.read():
                                os.kill(pid, signal.SIGKILL)
            self.assertNotEqual(child.wait(timeout=30), 0)
            for _ in range(100):  # the ranks may outlive mpirun for a moment
                if sorted(os.listdir()) != before:
                    time.sleep(0.1)
            self.assertEqual(sorted(os.listdir()), before, (extra, rank))

    def test_bar_on_terminals_alone(self):
        stone = scene("stone.json", {"type": "FractalNoise", "octaves": 200})
        np.save("points.npy", generator.normal(size=(400_000, 3)).astype("f4"))
        command = ["eval", stone, "points.npy", "-o", "out.npy", "--threads", "1"]  # which takes a while
        self.assertEqual(run(*command).stderr, "")
        for before in [], mpirun(2) if joins_ranks() else []:
            master, slave = pty.openpty()
            subprocess.run([*before, zel, *command], stderr=slave, check=True, timeout=300)
            os.close(slave)
            shown = os.read(master, 1 << 16).decode()
            os.close(master)
            self.assertRegex(shown, r"\A(\r\[#*\.*\] +\d+ %, [\d.]+ ?[kM]? points/s, \d+:\d\d left\x1b\[K)+\r\x1b\[K\Z")

    def test_manual_and_completion(self):
        with open(os.path.join(source, "command/zel.1")) as file:
            pages = re.split(r"\n\.Ss zel ", re.split(r"\n\.Sh EXIT", file.read())[0])
        common, pages = pages[0], {page.split()[0]: page for page in pages[1:]}
        self.assertEqual(list(pages), subcommands)
        listed = re.findall(r"^  (\w+)  ", run("--help").stdout.split("Subcommands:")[1], re.M)
        self.assertEqual(listed, subcommands)
        script = os.path.join(source, "command/zel.bash")

        def complete(*words):
            code = f'source {script}; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _zel; printf "%s\\n" "${{COMPREPLY[@]}}"'
            result = subprocess.run(["bash", "-c", code, "bash", "zel", *words], capture_output=True, text=True)
            return set(result.stdout.split())

        self.assertEqual(complete(""), set(subcommands))
        options = lambda help: set(re.findall(r"^  (?:-\w,)?(--[a-z-]+)", help, re.M))
        of_all = options(run("--help").stdout)
        self.assertEqual(complete("--"), of_all)
        self.assertIn("Examples:\n  ", run("--help").stdout)
        self.assertEqual(of_all, {"--help", "--threads", "--version"})
        for name in subcommands:
            text = run(name, "--help").stdout
            self.assertIn("Examples:\n  ", text)
            here = options(text)
            self.assertEqual(complete(name, "-"), here | {"-h", *(["-o"] if "--output" in here else [])}, name)
            shared = {"--help", "--threads", "--bind", "--allow-unbound"}
            lines = [line for line in pages[name].splitlines() if line.startswith(".It Fl")]
            documented = {"-" + re.search(r" (-[a-z-]+)", line)[1] for line in lines}
            self.assertEqual(documented, here - shared, name)
        for flag in of_all | shared:
            self.assertRegex(common, rf"\.It Fl (\w , )?-{flag[2:]}\b")
        lint = subprocess.run(["mandoc", "-Tlint", os.path.join(source, "command/zel.1")], capture_output=True, text=True)
        self.assertEqual(lint.stdout + lint.stderr, "")


unittest.main(verbosity=1)
