#!/usr/bin/env python3
"""A function written in NumPy as a leaf of a tree: function_of_your_own.py [--output FOLDER]"""

import argparse
import copy
import pathlib

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt
import numpy as np
from numpy.typing import NDArray

import zel


def gyroid(xyz: NDArray[np.float32]) -> NDArray[np.float32]:
    """The value for each row of an array of shape (n, 3)."""
    x, y, z = 8 * xyz.T
    value: NDArray[np.float32] = (np.sin(x) * np.cos(y) + np.sin(y) * np.cos(z)
                                  + np.sin(z) * np.cos(x))
    return value


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--output", type=pathlib.Path, default=pathlib.Path("."))
    parser.add_argument("--size", type=int, default=400, help="pixels along a side")
    options = parser.parse_args()

    sheets = zel.abs(zel.field(gyroid)) - 0.3
    ball = zel.sphere((0, 0, 0), 1)
    tree = zel.max(ball, 0.1 * sheets)

    # The same with nodes of the library, which take the place of NumPy's functions.
    x, y, z = 8 * zel.x_position(), 8 * zel.y_position(), 8 * zel.z_position()
    nodes = zel.add(zel.sin(x) * zel.cos(y), zel.sin(y) * zel.cos(z), zel.sin(z) * zel.cos(x))
    twin = zel.max(ball, 0.1 * (zel.abs(nodes) - 0.3))

    image = zel.slice(tree, "xz", options.size, low=(-1.1, -1.1), high=(1.1, 1.1), offset=0.2)
    other = zel.slice(twin, "xz", options.size, low=(-1.1, -1.1), high=(1.1, 1.1), offset=0.2)
    assert np.allclose(image, other, atol=1e-5)
    # A copy calls the same function. A pickle carries it by its name.
    assert copy.deepcopy(tree)((0.1, 0.2, 0.3)) == tree((0.1, 0.2, 0.3))

    def broken(xyz: NDArray[np.float32]) -> NDArray[np.float32]:
        raise LookupError("no value here")

    try:
        (ball + zel.field(broken))((0, 0, 0))
    except LookupError as error:
        print("the exception of the function:", error)

    figure, axes = plt.subplots(figsize=(4, 4), layout="constrained")
    axes.imshow(image < 0, origin="lower", cmap="Purples", extent=(-1.1, 1.1, -1.1, 1.1))
    axes.set(xlabel="x", ylabel="z")
    options.output.mkdir(parents=True, exist_ok=True)
    figure.savefig(options.output / "function_of_your_own.png", dpi=80)
    print(f"{np.count_nonzero(image < 0)} of {image.size} pixels are inside")


if __name__ == "__main__":
    main()
