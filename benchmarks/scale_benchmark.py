#!/usr/bin/env python3
"""How zel scales over the processes of mpirun: scale_benchmark.py [ZEL [ROUNDS]]

ZEL is build/release/command/zel by default, and must be built with MPI. Each case runs in one process
without mpirun and in two ranks by turns, each of one thread; the least times count, so that other work on
the machine matters little. The efficiency by processor time divides the time of one process by twice
that of the rank that used most, start and waiting included: it holds on a machine that others use, too.
Then the memory of the ranks is measured.
"""

import json
import os
import pathlib
import resource
import subprocess
import sys
import tempfile
import time

if sys.argv[1:2] == ["--rank"]:  # runs a command, and tells what it used
    subprocess.run(sys.argv[2:], check=True)
    used = resource.getrusage(resource.RUSAGE_CHILDREN)
    with open("used." + os.environ.get("OMPI_COMM_WORLD_RANK", "0"), "w") as file:
        print(used.ru_utime + used.ru_stime, used.ru_maxrss, file=file)
    sys.exit()

import numpy as np  # noqa: E402

zel = str(pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else "build/release/command/zel").resolve())
rounds = int(sys.argv[2]) if len(sys.argv) > 2 else 5
script = str(pathlib.Path(__file__).resolve())


def run(ranks, *arguments):
    """The time, and by rank the processor time and the peak of memory in MB."""
    mpirun = ["mpirun", "--oversubscribe", "-n", str(ranks)] if ranks else []
    if mpirun and os.getuid() == 0:
        mpirun.append("--allow-run-as-root")
    command = [*mpirun, sys.executable, script, "--rank", zel, "--threads", "1", *map(str, arguments)]
    start = time.perf_counter()
    subprocess.run(command, check=True)
    seconds = time.perf_counter() - start
    used = [tuple(map(float, pathlib.Path(f"used.{rank}").read_text().split())) for rank in range(ranks or 1)]
    return seconds, [cpu for cpu, _ in used], [memory / 1024 for _, memory in used]


def main():
    noise = {"type": "FractalNoise", "octaves": 8}
    for name, root in (
        ("noise", noise),
        ("stone", {"type": "ScalarFieldAdd", "a": {"type": "ScalarFieldSphere", "center": [0.4, 0.2, 0], "radius": 1},
                   "b": {"type": "ScalarFieldMultiply", "a": 0.1, "b": noise}}),
    ):
        with open(name + ".json", "w") as file:
            json.dump({"version": 1, "root": root}, file)
    np.save("points.npy", np.random.default_rng(1).random((120_000_000, 3), "f4"))
    box = ["--box", "-1.5,-1.5,-1.5,1.6,1.5,1.5"]
    cases = {
        "dense .npy": ["volume", "noise.json", *box, "--voxel", 0.0045, "-o", "out.npy"],
        "band .vdb": ["volume", "stone.json", *box, "--voxel", 0.0012, "--band", 3, "-o", "out.vdb"],
        "eval .npy": ["eval", "noise.json", "points.npy", "-o", "out.npy"],
    }
    print("load average before:", *map("{:.1f}".format, os.getloadavg()))
    for name, arguments in cases.items():
        one, two = [], []
        for _ in range(rounds):
            one.append(run(0, *arguments))
            two.append(run(2, *arguments))
        wall = min(r[0] for r in one), min(r[0] for r in two)
        cpu = min(r[1][0] for r in one), min(max(r[1]) for r in two)
        print(f"{name:11} one process {wall[0]:6.2f} s, two ranks {wall[1]:6.2f} s: efficiency {wall[0] / wall[1] / 2:.3f}; "
              f"processor time {cpu[0]:6.2f} s and {cpu[1]:6.2f} s a rank: efficiency {cpu[0] / cpu[1] / 2:.3f}", flush=True)
    print("load average after:", *map("{:.1f}".format, os.getloadavg()))
    for name, arguments in cases.items():
        for ranks in 0, 2, 4, 8:
            print(f"{name:11} {ranks or 'no'} ranks: MB of each", *(f"{memory:.0f}" for memory in run(ranks, *arguments)[2]), flush=True)


with tempfile.TemporaryDirectory() as folder:
    os.chdir(folder)
    main()
    os.chdir("/")
