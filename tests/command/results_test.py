"""results_test.py ZEL SOURCE: the program's results against formulas in NumPy, its streams, and its manual."""

import itertools
import os
import pty
import re
import struct
import subprocess
import sys
import unittest

import numpy as np

from program import ProgramTest, generator, joins_ranks, mpirun, openvdb, png, run, scene, source, subcommands, zel


class ResultsTest(ProgramTest):
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

        # Arrays of every type, order and version that NumPy writes, with doubles about the largest float: below, at
        # and above the middle to the next.
        place = scene("place.json", {"type": "Position"})
        odd = [np.nan, np.inf, -np.inf, -0.0, 1e300, 3.4028235e38, -3.4028235677973362e38, 3.4028235677973366e38, -3.402823568e38]
        for dtype, order, version in itertools.product(["<f4", ">f4", "<f8", ">f8"], "CF", [(1, 0), (2, 0), (3, 0)]):
            points = generator.normal(size=(700, 3)) * 10.0 ** generator.integers(-50, 50, (700, 3))
            points.flat[: 10 * len(odd)] = odd * 10
            with np.errstate(over="ignore"), open("in.npy", "wb") as file:
                points = np.asarray(points, dtype, order)
                np.lib.format.write_array(file, points, version)
                wanted = points.astype("<f4", "C")
            run("eval", place, "in.npy", "-o", "out.npy")
            np.testing.assert_array_equal(np.load("out.npy").view("u4"), wanted.view("u4"), f"{dtype} {order} {version}")

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
        self.assertRegex(run("info", "ball.vdb").stdout,
                         r"\Asurface: float\n  voxel: 0.05, 0.05, 0.05\n  origin: 0, 0, 0\n  class: level set\n")
        surface = {"type": "ScalarOrvaneTriggered", "channel": "surface"}
        leaf = scene("leaf.json", {"type": "ScalarFieldAdd", "a": surface, "b": 1})
        direction = generator.normal(size=(5000, 3))
        direction /= np.linalg.norm(direction, axis=1)[:, None]
        depth = generator.uniform(-0.1, 0.1, 5000)
        points = ((1 + depth)[:, None] * direction + (0.5, 0, 0)).astype("f4")
        np.save("points.npy", points)
        with open("ball.vdb", "rb") as file:
            data = file.read()
        scale = data.index(b"UniformScaleMap") + len("UniformScaleMap")
        for number, place in ((-3.0, "3, 0.05, 0.05\n  origin: 0, 0, 0\n  axis x: -1, 0, 0\n  axis y: 0, 1, 0\n"),
                              (0.0, "0, 0.05, 0.05\n")):
            with open("odd.vdb", "wb") as file:
                file.write(data[:scale] + struct.pack("d", number) + data[scale + 8:])
            self.assertIn("  voxel: " + place, run("info", "odd.vdb").stdout)
        self.refused("\"surface\": a transform that cannot be inverted, with the rows 0 0 0 0 0 0.05 0 0 0 0 0.05 0",
                     "eval", leaf, "points.npy",
                     "-o", "out.npy", "--bind", "volume=odd.vdb")
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
        low = grid.deepCopy()
        low.name, low.transform = "low", openvdb.createLinearTransform(0.5)
        openvdb.write("ramp.VDB", grids=[grid, low])
        points = (np.c_[generator.uniform(3, 15, (1000, 3)), np.ones(1000)] @ map)[:, :3].astype("f4")
        np.save("points.npy", points)
        wanted = (np.c_[points, np.ones(1000)] @ np.linalg.inv(map))[:, :3] @ [1, 2, 3]
        leaf = {"type": "ScalarOrvaneTriggered", "channel": "height"}
        for root in (leaf, {"type": "ScalarOrvane", "channel": "height"},
                     {"type": "ScalarFieldLerp", "a": leaf, "b": leaf, "t": 0.5}):
            run("eval", scene("leaf.json", root), "points.npy", "-o", "out.npy", "--bind", "height=ramp.VDB:ramp")
            np.testing.assert_allclose(np.load("out.npy"), wanted, atol=1e-4)
        # Grids that do not fit together are bound one by one.
        both = {"type": "ScalarFieldAdd", "a": leaf | {"channel": "ramp"}, "b": leaf | {"channel": "low"}}
        run("eval", scene("both.json", both), "points.npy", "-o", "out.npy", "--bind", "volume=ramp.VDB")
        np.testing.assert_allclose(np.load("out.npy"), wanted + 2 * points @ [1, 2, 3], atol=1e-3)

    def test_show_and_bench(self):
        self.assertEqual(run("show", self.ball).stdout, "zel::ScalarFieldSphere center=(0.5, 0, 0) radius=1\n")
        self.assertIn("digraph", run("show", self.twist, "--dot").stdout)
        lines = run("bench", self.twist, "--seconds", 0, "--points", 1000).stdout.splitlines()
        self.assertEqual(len([line for line in lines if re.fullmatch(r"values.* \d+ threads? +[\d.]+ ns a point, .+ points/s", line)]), 4)

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
