"""Positions and results: shapes, types, strides and errors."""

import gc
import pathlib
import sys

import numpy as np
import pytest
from hypothesis import given
from hypothesis import strategies as st
from hypothesis.extra import numpy as hnp

import zel
from conftest import raises

F = zel.x_position() + 10 * zel.y_position() + 100 * zel.z_position()
V = zel.vector(F, zel.x_position() * 2, zel.z_position())
A = zel.scalar_geo_property_triggered("a")


def formula(xyz):
    xyz = np.asarray(xyz, np.float32)
    return (xyz[..., 0] + np.float32(10) * xyz[..., 1]) + np.float32(100) * xyz[..., 2]


@given(hnp.arrays(np.float32, hnp.array_shapes(min_dims=1, max_dims=4, min_side=0, max_side=5),
                  elements=st.floats(-8, 8, width=16)), st.data())
def test_every_layout_gives_the_values_of_a_plain_array(leading, data):
    # Positions as a view of a larger array, with steps of any sign, axes in any order.
    shape = leading.shape + (3,)
    base = np.resize(np.arange(1, 1 + 3 * max(leading.size, 1), dtype=np.float32) % 17, shape)
    axes = data.draw(st.permutations(range(len(shape))))
    stored = np.empty([2 * shape[a] for a in axes], np.float32)
    view = stored[tuple(slice(None, None, data.draw(st.sampled_from([2, -2]))) for _ in shape)]
    view = view.transpose(np.argsort(axes))
    view[...] = base
    assert np.array_equal(F(view), formula(base))
    values, gradients = V.value_and_grad(view)
    assert values.shape == shape and gradients.shape == shape + (3,)
    assert np.array_equal(values[..., 0], formula(base))
    assert np.array_equal(gradients, V.grad(base.copy()))
    out = np.full(shape[:-1] + (2,), 7, np.float32)[..., 1]
    result = F(view, out=out)
    assert result is out and np.array_equal(out, formula(base))


def test_odd_memory_and_types():
    xyz = np.arange(12, dtype=np.float32).reshape(4, 3)
    records = np.zeros(4, [("tag", "u1"), ("p", "f4", 3)])  # not aligned
    records["p"] = xyz
    long = np.arange(4000, dtype=np.float32).reshape(1000, 4)[:, 1:]  # of several parts
    for odd in (records["p"], xyz.tolist(), [[2**70, 1, 0.5]], memoryview(xyz), np.broadcast_to(xyz[0], (4, 3)), long,
                *(xyz.astype(dtype) for dtype in ("f2", "f8", ">f4", "i1", "u8", "?", "g"))):
        assert np.array_equal(F(odd), formula(np.asarray(odd, 'f4')))
    unaligned_out = np.zeros(17, np.uint8)[1:].view(np.float32)
    assert np.array_equal(F(xyz, out=unaligned_out), formula(xyz))


def test_one_position_gives_a_number():
    value, gradient = F.value_and_grad((1, 2, 3))
    assert isinstance(value, np.float32) and value == F([1, 2, 3]) == 321
    assert np.array_equal(gradient, (1, 10, 100)) and V((1, 2, 3)).shape == (3,)
    out = np.zeros((), np.float32)
    assert F((1, 2, 3), out=out) is out and out == 321


def test_results_over_the_positions():
    xyz = np.arange(30, dtype=np.float32).reshape(10, 3)
    expected = V(xyz.copy())
    assert V(xyz, out=xyz) is xyz and np.array_equal(xyz, expected)
    # The first results lie where later blocks have their positions.
    many = np.arange(6000, dtype=np.float32)
    expected = F(many.reshape(2000, 3).copy())
    F(many.reshape(2000, 3), out=many[4000:])
    assert np.array_equal(many[4000:], expected)
    # Between one another, two results may lie, as fields of records do.
    records = np.zeros(9, [("p", "f4", 3), ("v", "f4"), ("g", "f4", 3)])
    records["p"] = np.arange(27).reshape(9, 3)
    F.value_and_grad(records["p"], out=(records["v"], records["g"]))
    assert np.array_equal(records["v"], formula(records["p"]))
    assert np.array_equal(records["g"], F.grad(records["p"]))
    # The index is asked for first: it may change the shape.
    big = np.zeros((200_000, 3), np.float32)

    class Index:
        def __index__(self):
            big.shape = (-1, 1)
            return 0

    with pytest.raises(ValueError, match="600000, 1"):
        F(big, out=big.reshape(-1)[-200_000:], index0=Index())


test_errors_name_what_came = raises([
    (lambda: F(np.zeros((4, 2))), ValueError, "xyz.*\\(..., 3\\).*\\(4, 2\\)"),
    (lambda: F(np.zeros(())), ValueError, "\\(\\)"),
    (lambda: F(np.zeros((4, 3), complex)), TypeError, "complex128"),
    (lambda: F("abc"), TypeError, "str 'abc'"),
    (lambda: F([2**2000, 0, 0]), ValueError, "xyz.*range of float64"),
    (lambda: F([[1, 2, 3], [4, 5]]), ValueError, "xyz: .*inhomogeneous"),
    (lambda: F(None), TypeError, "xyz: wanted numbers, got NoneType None"),
    (lambda: F(), TypeError, "zel.Field: xyz is missing"),
    (lambda: F(1, 2, 3, 4), TypeError, "zel.Field: got 4 arguments by place.*xyz, out, index0"),
    (lambda: F.grad(xzy=1), TypeError, "Field.grad: no parameter xzy; .*xyz, out, index0"),
    (lambda: F.value_and_grad([0, 0, 0], None, xyz=1), TypeError, "value_and_grad: xyz is given twice"),
    (lambda: F(np.zeros((4, 3)), np.zeros(4)), TypeError, "out.*float32.*float64"),
    (lambda: F(np.zeros((4, 3)), np.zeros(5, "f4")), ValueError, "\\(4,\\).*\\(5,\\)"),
    (lambda: F(np.zeros((4, 3)), [0] * 4), TypeError, "out.*list"),
    (lambda: F(np.zeros((4, 3)), np.ma.zeros(4, "f4")), TypeError, "out.*masked"),
    (lambda: F(np.zeros((1, 3)), np.broadcast_to(np.float32(0), 1)), ValueError, "read-only"),
    (lambda: F(np.zeros((4, 3)), index0=-1), ValueError, "index0.*-1"),
    (lambda: F(np.zeros((4, 3)), index0=2**63 - 4), ValueError, "index0"),
    (lambda: F.value_and_grad(np.zeros((4, 3)), out=np.zeros(4)), TypeError, "tuple"),
    (lambda: F.value_and_grad(np.zeros((4, 3)), out=((m := np.zeros(12, "f4"))[8:],
                                                     m.reshape(4, 3))), ValueError, "overlap"),
])


def test_the_last_index_is_allowed():
    p = A.bind(properties={"a": np.arange(4)})
    assert np.array_equal(p(np.zeros((3, 3)), index0=2), [2, 3, 0])
    assert np.array_equal(p(np.zeros((4, 3)), index0=2**63 - 5), [0] * 4)


def resident():
    """The pages of the process now. Its peak would be that of earlier tests."""
    return int(pathlib.Path("/proc/self/statm").read_text().split()[1])


def test_nothing_is_kept_of_10000_calls():
    xyz = np.random.default_rng(5).normal(size=(64, 3)).astype(np.float32)
    other, out = xyz.astype(np.float64), np.zeros(64, np.float32)
    bad = np.zeros((4, 2))

    def calls(count):
        for _ in range(count):
            F(xyz), F(other), F(xyz, out=out), V.value_and_grad(xyz)
            (F + A).bind(properties={"a": out}).children
            try:
                F(bad)
            except ValueError:
                pass

    # NumPy resets the count of a type that falls to 0.
    objects = [xyz, other, out, bad, F, V, type(F), None] + [np.dtype("f4")] * 1_000_000
    calls(1000)
    gc.collect()
    counts = [sys.getrefcount(o) for o in objects[:9]]
    size = resident()
    calls(10000)
    gc.collect()
    after = [sys.getrefcount(o) for o in objects[:9]]
    assert max(abs(a - b) for a, b in zip(after, counts)) < 20
    assert resident() - size < 1000
