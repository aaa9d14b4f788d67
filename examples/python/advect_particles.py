#!/usr/bin/env python3
"""Moves a million particles through curl noise: advect_particles.py [--particles N]

The flow has no divergence, so that particles neither gather nor thin out. Positions, velocities and
the midpoints of the steps stay in the same three arrays throughout.
"""

import argparse
import pathlib
import time

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt
import numpy as np
from numpy.typing import NDArray

import zel

Floats = NDArray[np.float32]


def advect(velocity: zel.VectorField, xyz: Floats, dt: float, steps: int) -> None:
    """Moves positions along a velocity by the midpoint method, in place."""
    v, middle = np.empty_like(xyz), np.empty_like(xyz)
    for _ in range(steps):
        velocity(xyz, out=v)
        np.multiply(v, 0.5 * dt, out=middle)
        middle += xyz
        velocity(middle, out=v)
        v *= dt
        xyz += v


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--output", type=pathlib.Path, default=pathlib.Path("."))
    parser.add_argument("--particles", type=int, default=1_000_000)
    parser.add_argument("--steps", type=int, default=10)
    options = parser.parse_args()

    flow = zel.curl_noise(seed=3)
    rng = np.random.default_rng(1)
    xyz = rng.uniform((-1, -1, -0.1), (1, 1, 0.1), (options.particles, 3)).astype(np.float32)
    start = xyz.copy()

    some = start[:2000]
    _, slopes = zel.exact_gradients(flow).value_and_grad(some)
    divergence = np.trace(slopes, axis1=1, axis2=2)
    assert np.abs(divergence).max() < 1e-4 * np.abs(slopes).max()

    # Until the fastest of them has gone about one unit of length.
    dt = 1 / options.steps / float(np.linalg.norm(flow(some), axis=1).max())
    begin = time.perf_counter()
    advect(flow, xyz, dt, options.steps)
    seconds = time.perf_counter() - begin
    back = xyz[:2000].copy()
    advect(flow, back, -dt, options.steps)
    assert np.median(np.abs(back - some)) < 1e-2

    # Each particle has the stripe in which it began as its colour.
    x, y = xyz[:, 0], xyz[:, 1]
    is_dark = np.floor(start[:, 0] * 3) % 2 == 1
    figure, axes = plt.subplots(figsize=(4.2, 4), layout="constrained")
    box = [[-1.5, 1.5], [-1.5, 1.5]]
    total, *_ = np.histogram2d(y, x, bins=200, range=box)
    dark, *_ = np.histogram2d(y[is_dark], x[is_dark], bins=200, range=box)
    with np.errstate(invalid="ignore"):
        axes.imshow(np.round(8 * dark / total) / 8, origin="lower", cmap="cividis",
                    extent=(-1.5, 1.5, -1.5, 1.5))
    axes.set_axis_off()
    options.output.mkdir(parents=True, exist_ok=True)
    figure.savefig(options.output / "advect_particles.png", dpi=72)
    print(f"{len(xyz)} particles, {options.steps} steps in {seconds:.2f} s")


if __name__ == "__main__":
    main()
