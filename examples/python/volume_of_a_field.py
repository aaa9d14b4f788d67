#!/usr/bin/env python3
"""Samples a field into a volume that is fine near the surface: volume_of_a_field.py"""

import argparse
import pathlib
import pickle

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt
import numpy as np

import zel


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--output", type=pathlib.Path, default=pathlib.Path("."))
    parser.add_argument("--voxels", type=int, default=128, help="finest voxels along a side")
    options = parser.parse_args()

    bumpy = zel.sphere((0, 0, 0), 1) - 0.3 * zel.simplex_noise(seed=7)
    size = 3 / options.voxels
    volume = zel.Volume.from_field(bumpy, ((-1.5,) * 3, (1.5,) * 3), size, band=3, name="distance",
                                   outside=1)
    print(volume)
    leaf = zel.scalar_orvane_triggered("distance", "cubicC1")
    sampled = leaf.bind(volume=volume, strict=True)

    # Near the surface the samples are close together, and the error is small.
    rng = np.random.default_rng(2)
    xyz = rng.uniform(-1.4, 1.4, (100_000, 3)).astype(np.float32)
    exact = bumpy(xyz)
    near = np.abs(exact) < size
    error = np.abs(sampled(xyz) - exact)
    assert near.any() and error[near].max() < 4 * size ** 2
    # A pickle of the tree has the samples of the volume.
    assert np.array_equal(pickle.loads(pickle.dumps(sampled))(xyz), sampled(xyz))

    figure, axes = plt.subplots(1, 3, figsize=(7.5, 2.6), layout="constrained", sharey=True)
    for axis, depth in zip(axes, range(volume.depth - 2, volume.depth + 1)):
        samples, width = volume.to_numpy(depth), size * 2 ** (volume.depth - depth)
        low = np.array(volume.origin(depth)) - width / 2
        high = low + width * np.array(samples.shape)
        middle = int((0 - low[2]) / width)
        axis.imshow(samples[:, :, middle].T, origin="lower", cmap="RdBu", vmin=-1, vmax=1,
                    extent=(low[0], high[0], low[1], high[1]), interpolation="nearest")
        axis.set(title=f"depth {depth}: {volume.tile_count(depth)} tiles", xlim=(-1.5, 1.5),
                 ylim=(-1.5, 1.5))
    options.output.mkdir(parents=True, exist_ok=True)
    figure.savefig(options.output / "volume_of_a_field.png", dpi=80)
    print(f"largest error near the surface: {error[near].max() / size:.4f} voxels")


if __name__ == "__main__":
    main()
