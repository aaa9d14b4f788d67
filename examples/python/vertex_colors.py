#!/usr/bin/env python3
"""Weathers the vertex colours of a mesh: vertex_colors.py [--output FOLDER]

A leaf of the tree waits for a property named "color", whose elements are those of the mesh's
vertices. The tree can be saved and shared without a mesh, and is then bound to any number of them.
"""

import argparse
import pathlib

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt
import numpy as np
from mpl_toolkits.mplot3d.art3d import Poly3DCollection

import zel


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--output", type=pathlib.Path, default=pathlib.Path("."))
    parser.add_argument("--segments", type=int, default=96, help="around the ring")
    options = parser.parse_args()

    # A ring: its vertices, the four corners of each face, and a colour at each vertex.
    n, m = options.segments, options.segments // 2
    u, v = np.meshgrid(np.arange(n) * 2 * np.pi / n, np.arange(m) * 2 * np.pi / m, indexing="ij")
    radius = 1 + 0.4 * np.cos(v)
    vertices = np.stack([radius * np.cos(u), radius * np.sin(u), 0.4 * np.sin(v)], -1)
    vertices = vertices.reshape(-1, 3).astype(np.float32)
    index = np.arange(n * m).reshape(n, m)
    faces = np.stack([index, np.roll(index, -1, 0), np.roll(index, (-1, -1), (0, 1)),
                      np.roll(index, -1, 1)], -1).reshape(-1, 4)
    colors = plt.get_cmap("hsv")(u.ravel() / (2 * np.pi))[:, :3].astype(np.float32)

    color = zel.vector_geo_property_triggered("color")
    wear = zel.clamp(zel.fractal_noise(octaves=4, frequency=1.5, seed=5), 0, 1)
    worn = zel.lerp(color, (0.35, 0.3, 0.28), wear)
    try:
        worn.bind(properties={"colour": colors}, strict=True)
    except KeyError as error:
        print(error.args[0])
    bound = worn.bind(properties={"color": colors}, strict=True)
    painted = bound(vertices)

    # The same formula in NumPy.
    t = wear(vertices)[:, None]
    expected = colors * (1 - t) + np.array([0.35, 0.3, 0.28], np.float32) * t
    assert np.allclose(painted, expected, atol=1e-6)
    assert not worn(vertices)[t[:, 0] == 0].any()  # `worn` itself is unbound, and reads zeros

    figure = plt.figure(figsize=(4.4, 3.4))
    axes = figure.add_axes((0, 0, 1, 1), projection="3d")
    axes.add_collection3d(Poly3DCollection(
        vertices[faces], facecolors=painted[faces].mean(1).clip(0, 1), linewidth=0, antialiased=False))
    axes.set(xlim=(-1.4, 1.4), ylim=(-1.4, 1.4), zlim=(-0.7, 0.7))
    axes.set_box_aspect((2, 2, 1), zoom=1.3)
    axes.set_axis_off()
    options.output.mkdir(parents=True, exist_ok=True)
    figure.savefig(options.output / "vertex_colors.png", dpi=100)
    print(f"{len(vertices)} vertices painted, {np.count_nonzero(t)} of them worn")


if __name__ == "__main__":
    main()
