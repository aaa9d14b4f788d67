#!/usr/bin/env python3
"""Evaluates the points of a file in chunks, by two processes: dask_points.py [--points N]

The points need not fit into memory: a worker maps a chunk of their file at a time. The values have
the same bits as those of one call. --points 100_000_000 takes files of 2 GB below --output.
"""

import argparse
import logging
import pathlib
import tempfile
import time
from typing import Any

import dask.array as da
import numpy as np
from dask.distributed import Client, LocalCluster
from numpy.typing import NDArray

import zel

Floats = NDArray[np.float32]


def read(path: str, block_info: Any = None) -> Floats:
    """The points of a chunk."""
    begin, end = block_info[None]["array-location"][0]
    return np.memmap(path, np.float32, "r", offset=12 * begin, shape=(end - begin, 3))


def evaluate(xyz: Floats, tree: zel.ScalarField, block_info: Any = None) -> Floats:
    """The values of a chunk. `index0` matters to trees with properties alone."""
    return tree(xyz, index0=block_info[0]["array-location"][0][0])


def write_points(path: pathlib.Path, count: int, chunk: int) -> None:
    points = np.memmap(path, np.float32, "w+", shape=(count, 3))
    rng = np.random.default_rng(1)
    for begin in range(0, count, chunk):
        part = points[begin:begin + chunk]
        part[...] = rng.random(part.shape, np.float32) * 4 - 2


def peak_memory() -> int:
    """The most memory that this process has had, in MB."""
    status = pathlib.Path("/proc/self/status").read_text()
    return int(status.partition("VmHWM:")[2].split()[0]) // 1024


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--output", type=pathlib.Path, default=pathlib.Path("."))
    parser.add_argument("--points", type=int, default=1_000_000)
    parser.add_argument("--chunk", type=int, default=250_000)
    options = parser.parse_args()
    count, chunk = options.points, options.chunk
    options.output.mkdir(parents=True, exist_ok=True)

    tree = zel.sphere((0, 0, 0), 1) - 0.3 * zel.fractal_noise(octaves=2, seed=7)
    with tempfile.TemporaryDirectory(dir=options.output) as name:
        folder = pathlib.Path(name)
        write_points(folder / "points", count, chunk)

        # A tree travels to the workers as a pickle.
        chunks = da.core.normalize_chunks((chunk, 3), (count, 3))
        points = da.map_blocks(read, str(folder / "points"), chunks=chunks, dtype=np.float32,
                               meta=np.empty((0, 3), np.float32))
        values = points.map_blocks(evaluate, tree, dtype=np.float32, drop_axis=1,
                                   meta=np.empty(0, np.float32))
        begin = time.perf_counter()
        with LocalCluster(n_workers=2, threads_per_worker=1, memory_limit="1GB",
                          dashboard_address=None, local_directory=str(folder),
                          silence_logs=logging.ERROR) as cluster, Client(cluster) as client:
            started = time.perf_counter()
            da.to_npy_stack(str(folder / "values"), values)
            ended = time.perf_counter()
            peak = max(client.run(peak_memory).values())

        # One call, over the whole file.
        whole = np.memmap(folder / "whole", np.float32, "w+", shape=(count,))
        tree(np.memmap(folder / "points", np.float32, "r", shape=(count, 3)), out=whole)
        by_dask = da.from_npy_stack(str(folder / "values"))
        inside = 0
        for i, first in enumerate(range(0, count, chunk)):
            part = by_dask.blocks[i].compute(scheduler="synchronous")
            assert np.array_equal(part.view(np.int32), whole[first:first + chunk].view(np.int32))
            inside += int(np.count_nonzero(part < 0))

    print(f"{count} points in {len(points.blocks.ravel())} chunks, {inside} of them inside: "
          f"{ended - started:.1f} s after {started - begin:.1f} s of start, "
          f"a worker took {peak} MB at most")


if __name__ == "__main__":
    main()
