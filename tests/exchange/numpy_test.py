"""numpy_test.py TOOL: files that NumPy writes, read and written anew by the tool, as NumPy reads them."""

import itertools
import os
import random
import subprocess
import sys
import tempfile

import numpy as np

tool = sys.argv[1]
# Doubles above the largest float: below, at and above the middle to the next.
AT_THE_LARGEST = [3.4028235e38, -3.4028235677973362e38, 3.4028235677973366e38, -3.402823568e38]
generator = np.random.default_rng(5)
random.seed(5)


def run(mode, source, target, stdin=None):
    result = subprocess.run([tool, mode, source, target], stdin=stdin, capture_output=True, text=True)
    assert result.returncode == 0, result.stderr


def same(a, b):
    return a.shape == b.shape and np.array_equal(a.view(np.uint32), b.view(np.uint32))


def numbers(shape, dtype):
    """Numbers of any size, NaN and infinities among them."""
    a = generator.standard_normal(shape) * 10.0 ** generator.integers(-50, 50, shape)
    a = np.where(generator.random(shape) < 0.05, generator.choice([np.nan, np.inf, -np.inf, -0.0, 1e300, *AT_THE_LARGEST], shape), a)
    with np.errstate(over="ignore"):
        return np.asarray(a, dtype)


def to_float(a):
    with np.errstate(over="ignore"):
        return a.astype("<f4")


with tempfile.TemporaryDirectory() as folder:
    source, target = os.path.join(folder, "in.npy"), os.path.join(folder, "out.npy")
    shapes = [(), (0,), (5,), (7, 3), (4, 0, 2), (3, 4, 5), (2, 3, 4, 3)]
    versions = [(1, 0), (2, 0), (3, 0)]
    for shape, dtype, order in itertools.product(shapes, ["<f4", ">f4", "<f8", ">f8"], "CF"):
        a = np.asarray(numbers(shape, dtype), order=order)
        with open(source, "wb") as file:
            np.lib.format.write_array(file, a, random.choice(versions))
        modes = ["array", "map"] if dtype == "<f4" else ["array"]
        for mode in modes:
            run(mode, source, target)
            b = np.load(target)
            assert b.dtype == np.dtype("<f4") and same(b, np.asarray(to_float(a), order=order)), (shape, dtype, order)
            assert np.isfortran(b) == np.isfortran(a)

    for dtype, order in itertools.product(["<f4", ">f4", "<f8", ">f8"], "CF"):
        p = np.asarray(numbers((2345, 3), dtype), order=order)
        np.save(source, p)
        wanted = np.ascontiguousarray(to_float(p))
        run("points", source, target)
        assert same(np.load(target), wanted)
        table = os.path.join(folder, "out.csv")
        run("points", source, table)
        rows = np.genfromtxt(table, delimiter=",", names=True, dtype=np.float64)
        assert rows.dtype.names == ("x", "y", "z", "p_x", "p_y", "p_z")
        read = np.stack([to_float(rows[name]) for name in ("x", "y", "z")], 1)
        assert np.array_equal(read, wanted, equal_nan=True)

    # Tables in the ways in which NumPy writes them.
    for delimiter in [",", ";", "\t", " ", ", "]:
        p = numbers((100, 3), "<f4")
        table = os.path.join(folder, "in.txt")
        np.savetxt(table, p, delimiter=delimiter, fmt="%.9g", header="from NumPy")
        run("points", table, target)
        assert np.array_equal(np.load(target), p, equal_nan=True), delimiter

    # The same from the standard input, and by way of .ply.
    run("points", table, os.path.join(folder, "out.ply"))
    for piped in [table, os.path.join(folder, "out.ply")]:
        with open(piped, "rb") as file:
            run("points", "-", target, file)
        assert np.array_equal(np.load(target), p, equal_nan=True), piped

    # Arrays are read by offset.
    with open(source, "rb") as file:
        result = subprocess.run([tool, "points", "-", target], stdin=file, capture_output=True, text=True)
    assert result.returncode == 2 and "standard input: a .npy file must be a regular file" in result.stderr
