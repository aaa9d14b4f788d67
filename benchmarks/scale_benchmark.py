#!/usr/bin/env python3
"""How zel scales over the processes of mpirun: scale_benchmark.py [ZEL [ROUNDS]]

ZEL is build/release/command/zel by default, and must be built with MPI. Each case runs in one process
without mpirun and in two ranks by turns, each of one thread; the least times count, so that other work on
the machine matters little. The efficiency by processor time divides the time of one process by twice
that of the rank that used most, start and waiting included: it holds on a machine that others use, too.
By the same turns, two processes that know nothing of each other do half of the work each: processors that
share caches and memory are slower together, which is no fault of the ranks. Then the memory of the ranks
is measured.
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
    with open("used." + os.environ.get("OMPI_COMM_WORLD_RANK", os.environ.get("HALF", "0")), "w") as file:
        print(used.ru_utime + used.ru_stime, used.ru_maxrss, file=file)
    sys.exit()

import numpy as np  # noqa: E402

zel = str(pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else "build/release/command/zel").resolve())
rounds = int(sys.argv[2]) if len(sys.argv) > 2 else 5
script = str(pathlib.Path(__file__).resolve())
one_thread = [sys.executable, script, "--rank", zel, "--threads", "1"]


def read_used(count):
    """The processor time and the peak of memory in MB of each process."""
    used = [tuple(map(float, pathlib.Path(f"used.{number}").read_text().split())) for number in range(count)]
    return [cpu for cpu, _ in used], [memory / 1024 for _, memory in used]


def run_halves(arguments, halves):
    """As run(): of two processes, which each take another half in place of the whole, and a file of their own."""
    whole = halves[0]
    start = time.perf_counter()
    children = []
    for number, half in enumerate(halves[1:]):
        own = [half if argument == whole else argument for argument in arguments]
        own[-1] = str(number) + own[-1]
        children.append(subprocess.Popen([*one_thread, *map(str, own)], env={**os.environ, "HALF": str(number)}))
    for child in children:
        if child.wait() != 0:
            sys.exit(child.returncode)
    return time.perf_counter() - start, *read_used(2)


def run(ranks, *arguments):
    """The time, and by rank the processor time and the peak of memory in MB."""
    mpirun = ["mpirun", "--oversubscribe", "-n", str(ranks)] if ranks else []
    if mpirun and os.getuid() == 0:
        mpirun.append("--allow-run-as-root")
    command = [*mpirun, *one_thread, *map(str, arguments)]
    start = time.perf_counter()
    subprocess.run(command, check=True)
    return time.perf_counter() - start, *read_used(ranks or 1)


def main():
    noise = {"type": "FractalNoise", "octaves": 8}
    for name, root in (
        ("noise", noise),
        ("stone", {"type": "ScalarFieldAdd", "a": {"type": "ScalarFieldSphere", "center": [0.4, 0.2, 0], "radius": 1},
                   "b": {"type": "ScalarFieldMultiply", "a": 0.1, "b": noise}}),
    ):
        with open(name + ".json", "w") as file:
            json.dump({"version": 1, "root": root}, file)
    points = np.random.default_rng(1).random((120_000_000, 3), "f4")
    np.save("points.npy", points)
    for name, half in zip(("low.npy", "high.npy"), np.split(points, 2)):
        np.save(name, half)
    box = "-1.5,-1.5,-1.5,1.6,1.5,1.5"
    # The ball is cut where the rough surface has half of its area on either side.
    cases = {
        "dense .npy": (["volume", "noise.json", "--box", box, "--voxel", 0.0045, "-o", "out.npy"],
                       (box, "-1.5,-1.5,-1.5,0.045,1.5,1.5", "0.0495,-1.5,-1.5,1.6,1.5,1.5")),
        "band .vdb": (["volume", "stone.json", "--box", box, "--voxel", 0.0012, "--band", 3, "-o", "out.vdb"],
                      (box, "-1.5,-1.5,-1.5,0.366,1.5,1.5", "0.366,-1.5,-1.5,1.6,1.5,1.5")),
        "eval .npy": (["eval", "noise.json", "points.npy", "-o", "out.npy"], ("points.npy", "low.npy", "high.npy")),
    }
    print("load average before:", *map("{:.1f}".format, os.getloadavg()))
    for name, (arguments, halves) in cases.items():
        one, two, apart = [], [], []
        for _ in range(rounds):
            one.append(run(0, *arguments))
            two.append(run(2, *arguments))
            apart.append(run_halves(arguments, halves))
        wall = [min(r[0] for r in runs) for runs in (one, two, apart)]
        cpu = [min(max(r[1]) for r in runs) for runs in (one, two, apart)]
        for what, (alone, ranks, halves) in ("time", wall), ("processor time", cpu):
            print(f"{name:11} {what:14} one process {alone:6.2f} s, two ranks {ranks:6.2f} s: efficiency "
                  f"{alone / ranks / 2:.3f}; two halves apart {halves:6.2f} s: {halves / ranks:.3f}", flush=True)
    print("load average after:", *map("{:.1f}".format, os.getloadavg()))
    for name, (arguments, _) in cases.items():
        for ranks in 0, 2, 4, 8:
            print(f"{name:11} {ranks or 'no'} ranks: MB of each", *(f"{memory:.0f}" for memory in run(ranks, *arguments)[2]), flush=True)


with tempfile.TemporaryDirectory() as folder:
    os.chdir(folder)
    main()
    os.chdir("/")
