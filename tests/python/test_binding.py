"""Binding to arrays, and what a pickle carries."""

import copy
import copyreg
import fractions
import gc
import pickle
import sys

import numpy as np
import pytest

import zel
from conftest import raises

ZEROS = np.zeros((5, 3))
A = zel.scalar_geo_property_triggered("a")


@pytest.mark.parametrize("dtype", ["f4", "f8", "f2", "?", "i1", "i2", "i4", "i8", "u1", "u2", "u4",
                                   "u8", ">i4", "g"])
def test_arrays_of_every_type(dtype):
    values = np.array([0, 1, 100, 3]).astype(dtype)
    bound = A.bind(properties={"a": zel.Property(values, default=values[3])}, strict=True)
    for tree in (bound, pickle.loads(pickle.dumps(bound))):
        assert np.array_equal(tree(ZEROS), values[[0, 1, 2, 3, 3]])
    assert np.array_equal(A.bind(properties={"a": values[::-2]})(ZEROS), [*values[::-2], 0, 0, 0])


def test_bools_of_any_byte():
    bools = np.array([0, 1, 2, 255], np.uint8).view(bool)
    assert np.array_equal(A.bind({"a": bools})(ZEROS), [0, 1, 1, 1, 0])


def test_vectors_and_rotations():
    vectors = np.arange(15.0).reshape(5, 3)
    bound = zel.VectorGeoPropertyTriggered("v").bind(properties={"v": vectors})
    assert np.array_equal(bound(ZEROS), vectors)
    half = np.sqrt(0.5)
    turned = zel.VectorGeoPropertyTriggered("q").bind(
        properties={"q": zel.Property([[0, 0, half, half]], default=(half, 0, 0, half))})
    np.testing.assert_allclose(turned(ZEROS)[:2], [[0, 0, np.pi / 2], [np.pi / 2, 0, 0]], rtol=1e-5)
    unturned = zel.VectorGeoPropertyTriggered("q").bind({"q": np.ones((0, 4))})
    assert np.array_equal(unturned(ZEROS), ZEROS)


def test_targets_indices_and_defaults():
    a = zel.Property(np.array([5.0, 6, 7], "f4"), default=-1, target="faces")
    bound = A.bind({"a": a}, {"faces": [2, 0, 1, 2]})
    assert np.array_equal(bound(ZEROS), [7, 5, 6, 7, -1])
    found = zel.ScalarGeoPropertyFound("a").bind({"a": a}, {"faces": [2, 0, 9]})
    assert np.array_equal(found(ZEROS), [1, 1, 0, 0, 0])
    for dtype in ("f4", "f8", "i8", "u1"):
        same = zel.Property(a.values.astype(dtype), default=9, target="faces")
        third = A.bind({"a": same}, {"faces": [2, 0, 1, 2]}, indices=[2, 4])
        assert np.array_equal(third(ZEROS), [6, 9, 9, 9, 9])
    assert np.array_equal(A.bind({"a": [False, True]}, indices=[1, 0])(ZEROS)[:2], [1, 0])
    mapped = A.bind({"a": a}, {"faces": [2, 0, 1, 2]}, indices=[3, 1])
    for tree in (mapped, pickle.loads(pickle.dumps(mapped)), copy.deepcopy(mapped)):
        assert np.array_equal(tree(ZEROS), [7, 5, -1, -1, -1])


def test_the_array_is_copied():
    values = np.arange(5, dtype=np.float32)
    count = sys.getrefcount(values)
    bound, property = A.bind(properties={"a": values}), zel.Property(values)
    assert sys.getrefcount(values) == count
    values[:] = 9
    property.values.shape = 5, 1
    assert np.array_equal(bound(ZEROS), range(5)) and not property.values.flags.writeable
    assert np.array_equal(A.bind({"a": property})(ZEROS), range(5))


def test_reports():
    volume = zel.Volume.from_numpy(np.ones((2, 2, 2)), 1, (0, 0, 0), name="d")
    tree = A + zel.ScalarGeoPropertyTriggered("b") * zel.ScalarOrvaneTriggered("c")
    bound = tree.bind({"a": np.ones(5)}, volume=volume)
    report = {b.path: (b.name, b.is_bound, b.reason) for b in bound.bind_report}
    assert report == {"/root/a": ("a", True, "bound"),
                      "/root/b/a": ("b", False, 'no property "b"'),
                      "/root/b/b": ("c", False, 'no channel "c"')}
    assert tree.bind_report == [] and bound.same_tree(tree)
    lines = [(repr(b), b.name) for b in bound.bind_report]
    bound.bind_report.clear()
    for twin in (pickle.loads(pickle.dumps(bound)), copy.deepcopy(bound)):
        assert [(repr(b), b.name) for b in twin.bind_report] == lines
    with pytest.raises(KeyError, match='property "b".*channel "c"|channel "c".*property "b"') as e:
        tree.bind({"a": np.ones(5)}, volume=volume, strict=True)
    assert sorted(pickle.loads(pickle.dumps(e.value)).names) == ["b", "c"]
    # Bound bit by bit: a leaf keeps an earlier binding, which the report leaves out.
    both = bound.bind({"b": np.ones(5)}).bind(volume=zel.Volume.from_numpy(
        np.ones((2, 2, 2)), 1, (0, 0, 0), name="c"))
    assert [(b.is_bound, b.reason) for b in both.bind_report] == [
        (False, 'no property "a"'), (False, 'no property "b"'), (True, "bound")]
    assert np.array_equal(pickle.loads(pickle.dumps(both))(ZEROS), [2] * 5)
    with pytest.raises(KeyError) as e:
        both.bind({"a": np.ones(5)}, strict=True)
    assert sorted(e.value.names) == ["b", "c"]


def test_objects_of_the_module():
    property = zel.Property(np.array([5.0, 6], "f4"), default=-1, target="faces")
    assert repr(property) == "<zel.Property float32 (2,), default=-1, target='faces'>"
    for twin in (pickle.loads(pickle.dumps(property)), copy.deepcopy(property)):
        assert np.array_equal(twin.values, property.values) and twin.values is not property.values
        assert repr(twin) == repr(property)
    volume = zel.Volume.from_numpy(np.ones((2, 2, 2)), 1, (0, 0, 0), name="d")
    curve, binding = zel.curve([(0, 1)]), A.bind().bind_report[0]
    for one in (property, volume, curve, binding):
        cls = type(one)
        assert cls is getattr(zel, cls.__name__) and cls.__module__ == "zel"
        # No object without a value, by whatever way.
        assert type(cls) is type and cls.__base__ is object
        for make in (cls, cls.__new__, object.__new__, copyreg.__newobj__):
            pytest.raises(TypeError, make, *[cls] * (make is not cls))
        pytest.raises(TypeError, type, "Derived", (cls,), {})
        pytest.raises(TypeError, setattr, one, "__class__", zel.Volume if cls is zel.Curve else zel.Curve)
    pytest.raises(TypeError, setattr, zel.sphere(), "__class__", zel.ScalarFieldImplicitBox)
    (holder,) = gc.get_referents(gc.get_referents(zel.field(len))[-1])
    for cls in (zel.Field, zel.ScalarField, zel.VectorField, zel.ScalarFieldSphere, type(holder)):
        pytest.raises(TypeError, setattr, cls, "__new__", object.__new__)
        pytest.raises(TypeError, object.__new__, cls)


def test_parts_that_were_bound_apart(xyz):
    grid = np.random.default_rng(2).normal(size=(8, 8, 8)).astype(np.float32)
    volume = zel.Volume.from_numpy(grid, 0.5, (-2, -2, -2), name="d")
    one, two = A.bind({"a": np.arange(300.0)}), A.bind({"a": np.arange(300.0)[::-1]})
    third = zel.ScalarOrvaneTriggered("d").bind(volume=volume, metres_per_unit=0.5)
    noise = zel.simplex_noise(time=two, seed=3)
    function = zel.field(len_of_rows)
    tree = zel.add(one * two, third, noise, function, A, one)
    expected = tree(xyz)
    assert len(set(expected)) > 250
    for twin in (copy.deepcopy(tree), tree.exact_gradients()):
        assert np.array_equal(twin(xyz), expected) and twin.levels == tree.levels
        assert np.array_equal(pickle.loads(pickle.dumps(twin))(xyz), expected)
    # Another object replaces the properties it has, of a copy, and leaves the others bound.
    again = tree.bind({"a": np.ones(300)})
    expected_again = zel.add(zel.constant(1) * 1, third, zel.simplex_noise(time=1, seed=3), function,
                             1, 1)(xyz)
    assert np.array_equal(pickle.loads(pickle.dumps(again))(xyz), again(xyz))
    np.testing.assert_allclose(again(xyz), expected_again, rtol=1e-6)
    assert np.array_equal(tree(xyz), expected)
    # A part of a pickled tree carries its own arrays alone.
    unbound = tree.children[0].children[1]
    assert unbound == A and len(pickle.dumps(unbound)) == len(pickle.dumps(A))


def test_arrays_that_change_what_they_are_in():
    class Odd:
        def __array__(self, dtype=None):
            given.clear()
            return np.ones(5)

    given = {name: Odd() for name in "abcdefgh"}
    assert np.array_equal(A.bind(given)(ZEROS), [1] * 5)
    state = dict(targets={}, volume=None, indices=None, metres_per_unit=None)
    given = [(dict(state, properties={"a": (Odd(), None, "")}), [0]) for _ in range(8)]
    assert np.array_equal(zel._zel._restore(A.dumps(), [], given)(ZEROS), [1] * 5)


def len_of_rows(xyz):
    return np.sqrt((xyz * xyz).sum(1))


def test_a_pickle_has_what_leaves_read():
    unused = {"b": np.zeros(100_000), "c": zel.Property(np.zeros(9), target="t")}
    bound = A.bind({"a": [1, 2, 3], **unused}, {"t": np.arange(100_000)})
    assert len(pickle.dumps(bound)) < 10_000
    assert np.array_equal(pickle.loads(pickle.dumps(bound))(np.zeros((3, 3))), [1, 2, 3])


test_errors_name_what_came = raises([
    (lambda: zel.Property([1], target=3), TypeError, "target.*int 3"),
    (lambda: zel._zel._binding("a", "b", 8, "c"), ValueError, "state.*8"),
    (lambda: zel._zel._restore(A.dumps(), [], [], [3]), TypeError, "int 3"),
    (lambda: A.bind(propertys={}), TypeError, "propertys;.*targets, volume, and by keyword indices"),
    (lambda: A.bind(3), TypeError, "properties.*int 3"),
    (lambda: A.bind({3: [1]}), TypeError, "names.*int 3"),
    (lambda: A.bind({"a": "text"}), TypeError, "properties\\['a'\\].*'text'"),
    (lambda: A.bind({"a": [[1, 2]]}), ValueError, "\\(n, 4\\).*\\(1, 2\\)"),
    (lambda: A.bind({"a": zel.Property([1], default="x")}), TypeError, "default.*'x'"),
    (lambda: A.bind({"a": zel.Property(np.array([1], "i1"), default=300)}), ValueError, "300"),
    (lambda: A.bind({"a": zel.Property([1], default=np.array(0.5))}), ValueError, "default.*0.5"),
    (lambda: A.bind({"a": zel.Property([1], default=fractions.Fraction(1, 2))}), ValueError, "1, 2"),
    (lambda: A.bind({"a": np.ma.masked_less([1, 2], 2)}), TypeError, "masked"),
    (lambda: A.bind(metres_per_unit=float("nan")), ValueError, "metres_per_unit.*above 0.*nan"),
    (lambda: A.bind(strict="no"), TypeError, "strict.*'no'"),
    (lambda: A.bind({"a": [1]}).bind(strict=True), KeyError, "earlier calls"),
    (lambda: A.bind(targets={"t": [-1]}), ValueError, "-1"),
    (lambda: A.bind(targets={"t": [2**32]}), ValueError, "4294967296"),
    (lambda: A.bind(targets={"t": [0.5]}), TypeError, "integers"),
    (lambda: A.bind(indices=[[1]]), ValueError, "\\(1, 1\\)"),
    (lambda: A.bind({"Orvane::volume": [1]}), ValueError, "Orvane::volume"),
])
