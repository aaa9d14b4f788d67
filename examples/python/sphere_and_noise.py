#!/usr/bin/env python3
"""A ball whose surface is displaced by noise, as a picture: sphere_and_noise.py [--output FOLDER]"""

import argparse
import pathlib

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt
import numpy as np

import zel


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--output", type=pathlib.Path, default=pathlib.Path("."))
    parser.add_argument("--size", type=int, default=512, help="pixels along a side")
    options = parser.parse_args()

    ball = zel.sphere((0, 0, 0), 1)
    bumpy = ball - 0.3 * zel.simplex_noise(time=0.5, seed=7)

    low, high = (-1.5, -1.5), (1.5, 1.5)
    image = zel.slice(bumpy, "xy", options.size, low=low, high=high)
    plain = zel.slice(ball, "xy", options.size, low=low, high=high)
    # The noise is between -1 and 1.
    assert np.abs(image - plain).max() <= 0.3 and np.abs(image - plain).max() > 0.1

    figure, axes = plt.subplots(figsize=(4.6, 4), layout="constrained")
    edges = np.linspace(-1, 1, 17)
    extent = (low[0], high[0], low[1], high[1])
    filled = axes.contourf(image, edges, cmap="RdBu", extent=extent, extend="both")
    axes.contour(image, [0], colors="black", linewidths=2, extent=extent)
    axes.contour(plain, [0], colors="black", linewidths=0.7, linestyles="dashed", extent=extent)
    axes.set_aspect("equal")
    figure.colorbar(filled, label="value of the field")
    options.output.mkdir(parents=True, exist_ok=True)
    figure.savefig(options.output / "sphere_and_noise.png", dpi=100)
    print(f"{image.size} values from {image.min():.2f} to {image.max():.2f}")


if __name__ == "__main__":
    main()
