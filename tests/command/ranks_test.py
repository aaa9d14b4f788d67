"""ranks_test.py ZEL SOURCE: the program in several processes, by mpirun."""

import os
import re
import signal
import subprocess
import time
import unittest

import numpy as np

from program import ProgramTest, at_once, generator, joins_ranks, mpirun, run, scene, zel


class RanksTest(ProgramTest):
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
        self.refused("the launcher started 4 processes, of which this MPI joins 1", "show", self.ball,
                     env={**os.environ, "PMI_SIZE": "4"})
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


unittest.main(verbosity=1)
