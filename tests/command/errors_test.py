"""errors_test.py ZEL SOURCE: what the program refuses, and that it leaves nothing behind if it is interrupted."""

import os
import re
import signal
import subprocess
import time
import unittest

import numpy as np

from program import ProgramTest, at_once, generator, run, scene, zel


class ErrorsTest(ProgramTest):
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
        log = scene("log.json", {"type": "ScalarFieldPow", "field": {"type": "XPosition"}, "exponent": 0.5})
        self.refused("log.json: .*the field is NaN at", "mesh", log, "--box", "-1,-1,-1,1,1,1", "--voxel", 0.5, "-o", "a.ply")
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


unittest.main(verbosity=1)
