#!/usr/bin/env python3
"""The time of the Python module beside that of C++: python_benchmark.py [BUILD]

Needs the targets zel_python and python_baseline of the folder BUILD, build/release by default. The two
take turns, and the least of many times counts, so that other work on the machine matters little.

For 10^7 points, the median of several processes: in one alone, where the system places threads and
memory makes a difference of a few per cent.
"""

import ctypes
import pathlib
import statistics
import subprocess
import sys
import time

build = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else "build/release").resolve()
sys.path.insert(0, str(build / "python"))

import numpy as np  # noqa: E402

import zel  # noqa: E402


def seconds(function, calls):
    start = time.perf_counter()
    for _ in range(calls):
        function()
    return (time.perf_counter() - start) / calls


def compare(tree, xyz, calls, rounds):
    """The least times of a call in C++, in Python with `out`, and in Python without."""
    out = np.empty(len(xyz), np.float32)
    baseline.setScene(tree.dumps().encode())
    pointer = ctypes.POINTER(ctypes.c_float)
    arguments = (xyz.ctypes.data_as(pointer), len(xyz), out.ctypes.data_as(pointer), calls)
    times = []
    for _ in range(rounds):
        times.append((baseline.secondsOfCall(*arguments),
                      seconds(lambda: tree(xyz, out=out), calls), seconds(lambda: tree(xyz), calls)))
    return [min(column) for column in zip(*times)]


def import_seconds(program):
    """The least time that a program takes to import modules, after the start of the interpreter."""
    code = f"import time; t = time.perf_counter(); {program}; print(time.perf_counter() - t)"
    return min(float(subprocess.run([sys.executable, "-c", code], capture_output=True, text=True,
                                    check=True, env={"PYTHONPATH": str(build / "python")}).stdout)
               for _ in range(20))


def in_numpy(xyz, centers):
    result = np.full(len(xyz), np.inf, np.float32)
    for center in centers:
        delta = xyz - center
        np.minimum(result, np.sqrt((delta * delta).sum(1)) - np.float32(0.5), out=result)
    return result


baseline = ctypes.CDLL(str(next(build.glob("benchmarks/libpython_baseline.*"))))
baseline.secondsOfCall.restype = ctypes.c_double
baseline.secondsOfCall.argtypes = [ctypes.c_void_p, ctypes.c_size_t, ctypes.c_void_p, ctypes.c_int]

rng = np.random.default_rng(1)
centers = rng.uniform(-1, 1, (11, 3)).astype(np.float32)
spheres = zel.min(*[zel.sphere(center, 0.5) for center in centers])
xyz = rng.uniform(-1.5, 1.5, (10_000_000, 3)).astype(np.float32)

trees = {"11 spheres": spheres, "noise": spheres - 0.3 * zel.simplex_noise(seed=7)}
if sys.argv[2:] == ["--large"]:
    for tree in trees.values():
        print(*compare(tree, xyz, 1, 25))
    sys.exit()

large = []
for _ in range(9):
    lines = subprocess.run([sys.executable, __file__, str(build), "--large"], capture_output=True,
                           text=True, check=True).stdout.splitlines()
    large.append([[float(word) for word in line.split()] for line in lines])
for number, (name, tree) in enumerate(trees.items()):
    runs = [run[number] for run in large]
    cpp, out, new = (statistics.median(run[i] for run in runs) for i in range(3))
    ratios = sorted(run[1] / run[0] for run in runs)
    print(f"10^7 points, {name}: C++ {cpp * 1e3:.1f} ms; Python with out= {out * 1e3:.1f} ms, "
          f"{statistics.median(ratios):.3f} times ({ratios[0]:.3f} to {ratios[-1]:.3f}); "
          f"with a new array {new * 1e3:.1f} ms")
    cpp, out, new = compare(tree, xyz[:16], 10_000, 20)
    print(f"16 points, {name}: C++ {cpp * 1e6:.2f} us; Python with out= {out * 1e6:.2f} us, "
          f"{(out - cpp) * 1e6:.2f} more; with a new array {new * 1e6:.2f} us, "
          f"{(new - cpp) * 1e6:.2f} more")
taken = min(seconds(lambda: in_numpy(xyz[:1_000_000], centers), 1) for _ in range(3)) * 10
print(f"10^7 points, 11 spheres: NumPy {taken * 1e3:.0f} ms, from 10^6 of them")
print(f"import zel: {import_seconds('import zel') * 1e3:.1f} ms; with numpy before it "
      f"{import_seconds('import numpy, zel') * 1e3:.1f} ms; numpy alone "
      f"{import_seconds('import numpy') * 1e3:.1f} ms")
