"""Volumes against scipy."""

import pickle

import numpy as np
import pytest
from scipy import ndimage

import zel
from conftest import raises


def sample(volume, sampler="linear", channel="d"):
    node = zel.VectorOrvaneTriggered if channel == "v" else zel.ScalarOrvaneTriggered
    return node(channel, sampler).bind(volume=volume, strict=True)


@pytest.mark.parametrize("half", [0, 0.5])
def test_dense_arrays_against_scipy(half):
    rng = np.random.default_rng(3)
    array = rng.normal(size=(9, 12, 7)).astype(np.float32)
    size, corner = 0.25, np.array([-8, 3, 21])
    origin = (corner + half) * size
    volume = zel.Volume.from_numpy(array, size, origin, name="d", outside=2)
    volume = pickle.loads(pickle.dumps(volume))
    assert np.array_equal(volume.to_numpy(), array)
    assert volume.to_numpy(volume.depth - 1).shape == (5, 7, 4)  # voxels that the array has a part of
    np.testing.assert_allclose(volume.origin(), origin)

    # Where all samples around a position are inside, and across the border to the outside.
    for low, high in ((0, np.array(array.shape) - 1), (-1, np.array(array.shape))):
        voxels = rng.uniform(low, high, (2000, 3))
        xyz = (origin + voxels * size).astype(np.float32)
        at = (xyz.astype(np.float64) - origin) / size
        expected = ndimage.map_coordinates(array.astype(np.float64), at.T, order=1,
                                           mode="grid-constant", cval=2)
        np.testing.assert_allclose(sample(volume)(xyz), expected, atol=2e-5)
    far = (origin + np.array([[-40, 0, 0], [0, 90, 0], [1e6, 0, 0]])).astype(np.float32)
    np.testing.assert_allclose(sample(volume)(far), [2, 2, 2], rtol=1e-6)

    places = np.stack(np.meshgrid(*map(np.arange, array.shape), indexing="ij"), -1)
    on_samples = (origin + places * size).astype(np.float32)
    if half == 0:
        assert np.array_equal(sample(volume)(on_samples), array)
        inner = (slice(2, -2),) * 3
        np.testing.assert_allclose(sample(volume, "cubicC1")(on_samples)[inner], array[inner],
                                   atol=1e-5)


@pytest.mark.parametrize("voxel_size, places", [
    (0.01, (1000.13, 12345.67, 99999.99, -99999.985)), (np.float32(0.01), (1000.13, -12345.67))])
def test_origins_far_away(voxel_size, places):
    for x in places:
        volume = zel.Volume.from_numpy(OK, voxel_size, (x, 0, 0), name="d")
        assert volume.origin()[0] == pytest.approx(x, 1e-6)
    with pytest.raises(ValueError, match="multiples"):
        zel.Volume.from_numpy(OK, voxel_size, (1000.132, 0, 0), name="d")


def test_vectors_and_strides():
    array = np.random.default_rng(4).normal(size=(3, 6, 5, 4)).transpose(3, 1, 2, 0)[::-1]
    volume = zel.Volume.from_numpy(array, 1, (0, 0, 0), name="v")
    assert np.array_equal(volume.to_numpy(), array.astype(np.float32))
    assert np.array_equal(sample(volume, channel="v")((2, 3, 4)), array[2, 3, 4].astype("f4"))
    # Converted by parts; read in place.
    long = np.arange(2.2e6).reshape(2, 1100, 1000)
    floats = array.astype("f4").transpose(1, 0, 2, 3)
    for given in (long, floats, floats[..., 1]):
        assert np.array_equal(zel.Volume.from_numpy(given, 1, (0, 0, 0), name="v").to_numpy(), given)


def test_volumes_of_fields():
    ball = zel.sphere((0, 0, 0), 1)
    volume = zel.Volume.from_field(ball, ((-2, -2, -2), (2, 2, 2)), 1 / 16, 3, name="d", outside=9)
    volume = volume.with_field("v", zel.position(), outside=(7, 8, 9))
    assert volume.names == ["d", "v"]
    rng = np.random.default_rng(5)
    surface = rng.normal(size=(500, 3))
    surface = (surface / np.linalg.norm(surface, axis=1)[:, None]).astype(np.float32)
    assert np.abs(sample(volume)(surface)).max() < 2e-3
    np.testing.assert_allclose(sample(volume, channel="v")(surface), surface, atol=1e-5)
    for depth in range(volume.depth, volume.depth - 3, -1):
        dense, origin = volume.to_numpy(depth, "v"), np.array(volume.origin(depth))
        width = volume.voxel_size * 2 ** (volume.depth - depth)
        places = origin + width * np.stack(np.meshgrid(*map(np.arange, dense.shape[:3]),
                                                       indexing="ij"), -1)
        there = (dense != (7, 8, 9)).all(-1)
        assert there.any()
        np.testing.assert_allclose(dense[there], places[there], atol=1e-5)
    finer = zel.Volume.from_field(ball, ((-2, -2, -2), (2, 2, 2)), 1 / 16, 3, min_depth=volume.depth)
    assert finer.tile_count(volume.depth) > volume.tile_count(volume.depth)

    twin, dense = pickle.loads(pickle.dumps(volume)), volume.to_numpy(name="d")
    assert np.array_equal(sample(twin)(surface), sample(volume)(surface))
    assert np.array_equal(twin.to_numpy(name="d"), dense) and dense[0, 0, 0] == 9
    assert twin.tile_count() == volume.tile_count() and twin.names == volume.names
    constructed = zel.ScalarOrvane("d", "cubicC1", volume=volume) + 1
    read = pickle.loads(pickle.dumps(constructed))
    assert np.array_equal(read(surface), constructed(surface))


OK = np.zeros((2, 2, 2))
test_errors_name_what_came = raises([
    (lambda: zel.Volume.from_numpy(OK, 0, (0, 0, 0), name="d"), ValueError, "voxel_size.*0"),
    (lambda: zel.Volume.from_numpy(OK, 1e-300, (0, 0, 0), name="d"), ValueError, "range.*1e-300"),
    (lambda: zel.Volume.from_numpy(OK, 1, (0.2, 0, 0), name="d"), ValueError, "multiples"),
    (lambda: zel.Volume.from_numpy(OK, 1, (1e30, 0, 0), name="d"), ValueError, "beyond"),
    (lambda: zel.Volume.from_numpy(OK, 1, (float("nan"), 0, 0), name="d"), ValueError, "beyond"),
    (lambda: zel.Volume.from_numpy(OK[0], 1, (0, 0, 0), name="d"), ValueError, "\\(2, 2\\)"),
    (lambda: zel.Volume.from_numpy(OK[:0], 1, (0, 0, 0), name="d"), ValueError, "empty"),
    (lambda: zel.Volume.from_numpy(OK, 1, (0, 0, 0), name=""), ValueError, "name"),
    (lambda: zel.Volume.from_field(zel.sphere(), ((0,) * 3, (1,) * 3), 1, 1, min_depth=2**40),
     ValueError, "min_depth.*1099511627776"),
    (lambda: VOLUME.with_field("e", 3), TypeError, "field.*int 3"),
    (lambda: zel.Volume.from_field(zel.position(), (0, 1), 1, 1), TypeError, "scalar field"),
    (lambda: zel.Volume.from_field(zel.sphere(), 3, 1, 1), TypeError, "box"),
    (lambda: zel.Volume.from_numpy(OK, 1, (0, 0, 0)), TypeError, "from_numpy: name is missing"),
    (lambda: zel.Volume.to_numpy(), TypeError, "to_numpy: self is missing"),
    (lambda: VOLUME.to_numpy(29), ValueError, "depth.*28"),
    (lambda: VOLUME.to_numpy(name="x"), KeyError, "'x'.*d"),
    (lambda: VOLUME.with_field("d", zel.sphere()), ValueError, "'d'"),
    (lambda: zel.ScalarOrvane("x", volume=VOLUME), KeyError, "channel"),
    (lambda: zel.ScalarOrvaneTriggered("d", volume=VOLUME), TypeError, "bind"),
    (lambda: zel.sphere().bind(volume=3), TypeError, "zel.Volume.*int 3"),
])
VOLUME = zel.Volume.from_numpy(OK, 1, (0, 0, 0), name="d")
