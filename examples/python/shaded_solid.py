#!/usr/bin/env python3
"""Draws a solid by rays, and shades it by the gradients of its field: shaded_solid.py"""

import argparse
import pathlib

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt
import numpy as np
from numpy.typing import NDArray

import zel


def make_solid() -> zel.ScalarField:
    """A ball with three holes, a part of whose surface is rough."""
    x, y, z = zel.x_position(), zel.y_position(), zel.z_position()
    ball = zel.sphere((0, 0, 0), 1)
    holes = [zel.sqrt(a * a + b * b) - 0.45 for a, b in ((x, y), (y, z), (z, x))]
    solid = zel.max(ball, *[-hole for hole in holes])
    rough = 0.04 * zel.fractal_noise(octaves=3, frequency=5, seed=2)
    return solid + zel.switch(z, rough, 0)


def differences(field: zel.ScalarField, xyz: NDArray[np.float32]) -> NDArray[np.float64]:
    """Gradients by the differences of values, as a check."""
    h = 1e-3
    steps = h * np.eye(3)
    return np.stack([(field(xyz + s).astype(np.float64) - field(xyz - s)) / (2 * h)
                     for s in steps], -1)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--output", type=pathlib.Path, default=pathlib.Path("."))
    parser.add_argument("--size", type=int, default=256, help="pixels along a side")
    options = parser.parse_args()
    solid = zel.exact_gradients(make_solid())

    # A ray for each pixel, all in the same direction, from a plane before the solid.
    n = options.size
    view = np.array([-0.55, -0.65, -0.52]) / np.linalg.norm([-0.55, -0.65, -0.52])
    right = np.cross(view, (0, 0, 1)) / np.linalg.norm(np.cross(view, (0, 0, 1)))
    up = np.cross(right, view)
    s = (np.arange(n) + 0.5) / n * 2.4 - 1.2
    start = -2 * view + s[None, :, None] * right - s[:, None, None] * up
    xyz = start.reshape(-1, 3).astype(np.float32)

    # A step may be as long as the distance to the surface, which the value does not exceed by much.
    values = np.empty(len(xyz), np.float32)
    travelled = np.zeros(len(xyz), np.float32)
    for _ in range(80):
        solid(xyz, out=values)
        step = np.where(travelled < 4, 0.7 * values, 0).astype(np.float32)
        travelled += step
        xyz += step[:, None] * view.astype(np.float32)
    hit = (np.abs(values) < 1e-3) & (travelled < 4)

    value, gradient = solid.value_and_grad(xyz[hit])
    assert np.array_equal(value, solid(xyz[hit]))
    error = np.linalg.norm(gradient - differences(solid, xyz[hit]), axis=1)
    assert np.median(error) < 1e-2

    normal = gradient / np.linalg.norm(gradient, axis=1, keepdims=True)
    light = np.clip(normal @ np.array([0.3, 0.5, 0.81], np.float32), 0, 1)
    image = np.ones((n * n, 3))
    image[hit] = (0.15 + 0.85 * light[:, None]) * (0.55 + 0.45 * np.abs(normal))
    options.output.mkdir(parents=True, exist_ok=True)
    plt.imsave(options.output / "shaded_solid.png", image.reshape(n, n, 3).clip(0, 1))
    print(f"{np.count_nonzero(hit)} of {n * n} rays hit the solid")


if __name__ == "__main__":
    main()
