"""Node classes, their parameters, functions and operators, against NumPy."""

import copy
import inspect
import pickle

import numpy as np
import pytest
from hypothesis import given
from hypothesis import strategies as st

import zel
from conftest import raises

CLASSES = [c for c in vars(zel).values()
           if isinstance(c, type) and issubclass(c, zel.Field)
           and c not in (zel.Field, zel.ScalarField, zel.VectorField)]
X, Y, Z = zel.x_position(), zel.y_position(), zel.z_position()
P = zel.position()
# A direction in float32, of a length that is 1 but for rounding.
UNIT = (0.0, 0.4472135901451111, 0.8944271802902222)


# Values of parameters that are not their defaults.
EXAMPLES = {"integer": 2, "float": 0.25, "double": 0.25, "vector": (1.0, 2.0, 3.0), "unitVector": UNIT,
            "quaternion": (0.0, 0.5, 0.0, 0.75), "string": "density", "sampler": "cubicC1",
            "curve": zel.curve([(0, 1), (2, 3)]), "scalarField": X + 2, "vectorField": P * 3,
            "vectors": np.arange(6, dtype=np.float32).reshape(2, 3)}
FAILING = type("Failing", (), {"__len__": lambda self: 2, "__getitem__": lambda self, i: 1 / 0})()
PARAMETERS = {one[0]: one[3] for one in zel._zel._node_classes()}


@pytest.mark.parametrize("cls", CLASSES, ids=lambda c: c.__name__)
def test_every_class_by_its_parameters(cls, xyz):
    given = {name: default != "True" if kind == "bool" else EXAMPLES[kind]
             for name, kind, default in PARAMETERS[cls.__name__]}
    names = list(given)
    assert [name for name in inspect.signature(cls).parameters if name != "volume"] == names
    made = cls(**given)
    assert type(made) is cls and made.class_name == cls.__name__
    assert list(made.parameters) == names
    for name, value in given.items():
        assert np.all(getattr(made, name) == value), name
    assert made.children == tuple(v for v in given.values() if isinstance(v, zel.Field))
    again = type(made)(*made.parameters.values())
    assert again.same_tree(made) and again != made and again.tree_hash() == made.tree_hash()
    read = zel.loads(made.dumps())
    assert read.same_tree(made) and type(read) is cls
    assert copy.deepcopy(made).same_tree(made)
    values, gradients = made.value_and_grad(xyz)
    extra = (3,) if isinstance(made, zel.VectorField) else ()
    assert values.shape == (300,) + extra and gradients.shape == (300, 3) + extra
    assert repr(made).startswith("zel::")


def test_all_classes_have_functions():
    assert sorted(c.__name__ for c in CLASSES) == list(PARAMETERS)
    assert str(inspect.signature(zel.sphere)) == "(center=(0.0, 0.0, 0.0), radius=1.0)"
    assert "signed distance to a sphere" in zel.sphere.__doc__ and "radius: float" in zel.sphere.__doc__
    assert str(inspect.signature(zel.scalar_orvane)).endswith(", *, volume=None)")
    assert str(inspect.signature(zel.min)) == "(a, b, *more, exactGradient=False)"
    exact = zel.min(P, P * 2, P, exactGradient=True)
    assert exact.exactGradient and exact.a.exactGradient
    for function in (zel.loads, zel.curve, zel.field, zel.Volume.from_field, zel.Volume.to_numpy):
        assert inspect.signature(function).parameters, function
    curve = zel.curve([(0, 1), (1, 2)])
    assert zel.curve([(0, 1, 2, 3, "cubic")]).keys == [(0, 1, 2, 3, "cubic")]
    assert hash(curve) == hash(zel.curve([(0, 1), (1, 2)])) and curve != zel.curve([(0, 1)]) and curve != 3
    assert zel.sphere.__module__ == "zel" and not hasattr(zel, "ScalarFieldFunction")


def test_formulas_of_numpy(xyz):
    x, y, z = (xyz[:, i].astype(np.float64) for i in range(3))
    p = xyz.astype(np.float64)
    r = np.sqrt((p**2).sum(1))
    column = lambda v: np.asarray(v)[:, None]  # noqa: E731
    cases = [
        (X + Y, x + y), (X - 2, x - 2), (2 - X, 2 - x), (X * Y, x * y), (3 * X, 3 * x),
        (X / Y, x / y), (1 / X, 1 / x), (-X, -x), (abs(X), abs(x)), (abs(X) ** 1.5, abs(x) ** 1.5),
        (+X, x), (np.float64(2) * X, 2 * x), (np.int8(2) - X, 2 - x),
        (P + (1, 2, 3), p + [1, 2, 3]), ([1, 2, 3] - P, [1, 2, 3] - p), (P * P, p * p),
        (P * X, p * column(x)), (X * P, p * column(x)), (2 * P, 2 * p), (P / Y, p / column(y)),
        (P / (1, 2, 4), p / [1, 2, 4]), (-P, -p), (abs(P), abs(p)), (abs(P) ** 2, p**2),
        (abs(P) ** (1, 2, 3), abs(p) ** [1, 2, 3]), (np.array([1, 2, 3.0]) * P, p * [1, 2, 3]),
        (X * (1, 2, 3), column(x) * [1, 2, 3]),
        (zel.min(X, Y), np.minimum(x, y)), (zel.max(X, Y, Z, 0), np.maximum(p.max(1), 0)),
        (zel.min(P, 0.5 * P), np.minimum(p, 0.5 * p)), (zel.min(1, 2), np.ones(300)),
        (zel.add(X, Y, Z, 1), x + y + z + 1), (zel.lerp(X, Y, 0.25), 0.75 * x + 0.25 * y),
        (zel.lerp(P, (1, 1, 1), abs(X)), p + (1 - p) * column(abs(x))),
        (zel.clamp(X, -1, 0.5), np.clip(x, -1, 0.5)), (zel.arc_tangent_2d(X, Y), np.arctan2(x, y)),
        (zel.length(P), r), (zel.dot(P, (1, 2, 3)), p @ [1, 2, 3]),
        (zel.cross(P, (1, 2, 3)), np.cross(p, [1, 2, 3])), (zel.normalize(P), p / column(r)),
        (zel.vector(X, 1, Z), np.stack([x, np.ones(300), z], 1)),
        (zel.constant(4), np.full(300, 4)), (zel.constant((1, 2, 3)), np.tile([1, 2, 3], (300, 1))),
        (zel.sphere((1, 2, 3), 2), np.sqrt(((p - [1, 2, 3]) ** 2).sum(1)) - 2),
        (zel.plane(normal=(0, 0, 2), point=(0, 0, 1)), z - 1),
        (zel.translate(X, (1, 0, 0)), x - 1), (zel.translate(P, (1, 0, 0)), p - [1, 0, 0]),
        (zel.warp(X * Y, P * 2), 4 * x * y), (zel.advect(X, velocity=(1, 0, 0), dt=0.5), x - 0.5),
        (zel.f_curve(X, [(-1, 0), (1, 4)]), np.interp(x, [-1, 1], [0, 4])),
        (zel.f_curve(X, zel.curve([(0, 1), (1, 3)], "linear", "linear")), 1 + 2 * x),
        (zel.rotate(X, (0, 0, np.pi / 2)), -y),
    ]
    for number, (field, expected) in enumerate(cases):
        np.testing.assert_allclose(field(xyz), expected, rtol=3e-6, atol=3e-6,
                                   err_msg=f"case {number}: {field!r}")


@given(st.recursive(st.sampled_from(["X", "Y", "abs(Z)", "0.5", "2", "(X - 1)"]),
                    lambda t: st.tuples(t, st.sampled_from("+-*"), t).map("(%s %s %s)".__mod__)))
def test_random_formulas_have_the_bits_of_float32(text):
    xyz = np.random.default_rng(1).uniform(-2, 2, (50, 3)).astype(np.float32)
    names = {"X": xyz[:, 0], "Y": xyz[:, 1], "Z": xyz[:, 2]}
    # NumPy computes a node at a time in float32, as the library does.
    expected = eval(text, {"abs": np.abs}, names) + 0 * names["X"]
    field = eval(text, {"abs": abs}, {"X": X, "Y": Y, "Z": Z}) + 0 * X
    assert np.array_equal(field(xyz), np.asarray(expected, np.float32))


def test_gradients_are_derivatives(xyz):
    def components(p):
        x, y, z = p.T
        return np.stack([np.sin(x) * y + np.exp(-z * z) / (1 + x * x), x * y, z / x], 1)

    point, step = xyz.astype(np.float64), 1e-4 * np.eye(3)
    expected = np.stack([(components(point + step[c]) - components(point - step[c])) / 2e-4
                         for c in range(3)], -1)
    field = zel.sin(X) * Y + zel.exp(-Z * Z) / (1 + X * X)
    np.testing.assert_allclose(field.grad(xyz), expected[:, 0], atol=2e-5)
    vectors = zel.vector(field, X * Y, Z / X)
    for jacobians in (vectors.grad(xyz), vectors.value_and_grad(xyz)[1]):
        np.testing.assert_allclose(jacobians, expected, rtol=1e-4, atol=2e-5)

    noise = zel.simplex_noise(seed=3)
    assert noise.inexact_gradients == ["zel::ScalarFieldSimplexNoise"]
    exact = zel.exact_gradients(noise * 2)
    assert exact.inexact_gradients == [] and np.array_equal(exact(xyz), (noise * 2)(xyz))


test_errors_name_what_came = raises([
    (lambda: zel.curve([FAILING]), ZeroDivisionError, ""),
    (lambda: zel.ScalarFieldSphere(radius="one"), TypeError, "ScalarFieldSphere: radius.*str 'one'"),
    (lambda: zel.sphere(raduis=1), TypeError, "raduis.*center, radius"),
    (lambda: zel.sphere(radius=1e39), ValueError, "float32"),
    (lambda: zel.sphere(radius=np.timedelta64(3)), TypeError, "radius.*number"),
    (lambda: zel.sphere(radius=np.ma.masked), TypeError, "radius.*number"),
    (lambda: zel.slice(X, offset=1e300), ValueError, "offset.*1e\\+300"),
    (lambda: zel.slice(X, size=10**9), ValueError, "size"),
    (lambda: zel.slice(X, low="12"), TypeError, "low.*'12'"),
    (lambda: zel.plane(), TypeError, "normal is missing"),
    (lambda: zel.plane(normal=(0, 0, 0)), ValueError, "direction.*\\(0, 0, 0\\)"),
    (lambda: zel.plane(normal=(1e30, 0, 0)), ValueError, "direction.*1e\\+30"),
    (lambda: zel.sphere(radius=10**400), ValueError, "radius.*float64"),
    (lambda: zel.simplex_noise(seed=2**64), ValueError, "seed.*18446744073709551616"),
    (lambda: zel.simplex_noise(seed=1.5), TypeError, "seed.*float 1.5"),
    (lambda: zel.length(X), TypeError, "vector field"),
    (lambda: zel.add(X, P), TypeError, "VectorFieldAdd: a"),
    (lambda: zel.min(P, P, True), TypeError, "operand 3.*vector field.*bool True"),
    (lambda: np.ones(4) - P, TypeError, "unsupported.*array of shape \\(4,\\)"),
    (lambda: zel.loads("\ud800"), zel.SceneError, "line 1, column 1"),
    (lambda: X + P, TypeError, "unsupported"), (lambda: X / P, TypeError, "unsupported"),
    (lambda: X ** Y, TypeError, "unsupported"), (lambda: X + 1j, TypeError, "unsupported"),
    (lambda: P + (1, 2), TypeError, "unsupported"), (lambda: pow(X, 2, 3), TypeError, "unsupported"),
    (lambda: X < Y, TypeError, "'<'"), (lambda: zel.ScalarField(), TypeError, "abstract"),
    (lambda: setattr(zel.sphere(), "radius", 1), AttributeError, "radius"),
    (lambda: zel.curve([(1, 0, "cube")]), ValueError, "cubic.*'cube'"),
    (lambda: zel.curve([(1,)]), TypeError, "keys\\[0\\]"),
    (lambda: zel.curve(3), TypeError, "int 3"),
    (lambda: zel.field(len, True), TypeError, "2 arguments.*function, and by keyword vector"),
    (lambda: zel.curve([(0, 1)]).slope(y=1), TypeError, "zel.Curve.slope: no parameter y; .* x"),
    (lambda: zel.scalar_orvane_triggered("a", sampler="cubic"), ValueError, "cubicC0.*'cubic'"),
    (lambda: zel.exact_gradients(3), TypeError, "exact_gradients: field.*int"),
    (lambda: zel.loads("{}", depth="a"), TypeError, "depth.*'a'"),
    (lambda: zel.loads('{"version": 1, "root": {"type": "ScalarFieldFunction"}}'), ValueError, ""),
    (lambda: type(zel.field(len))("len"), TypeError, "zel.field\\(function\\)"),
    (lambda: X.same_tree(3), TypeError, "int 3"),
    (lambda: zel.loads(3), TypeError, "int 3"),
])


@given(st.lists(st.one_of(st.none(), st.booleans(), st.integers(), st.floats(), st.text(max_size=3),
                          st.binary(max_size=3), st.complex_numbers(), st.just(X), st.just(P),
                          st.just(zel.curve([])), st.lists(st.floats(), max_size=4),
                          st.just(np.zeros((2, 3))), st.just(zel), st.just({})), max_size=4),
       st.sampled_from(CLASSES), st.sampled_from(["radius", "field", "volume", "", "seed"]))
def test_no_arguments_crash(args, cls, keyword):
    function = getattr(zel, cls.__name__)
    for keywords in ({}, {keyword: args[0]} if args else {}):
        try:
            made = function(*args, **keywords)
        except (TypeError, ValueError, KeyError):
            continue
        assert isinstance(made, cls)
        made.value_and_grad(np.ones((3, 3)))


def test_deep_trees(xyz):
    deep = X
    for _ in range(40_000):
        deep = deep + 1
    assert deep.levels == 40_001
    with pytest.raises(RecursionError, match="40001 levels"):
        deep(xyz)
    assert repr(deep).count("\n") == 80_000
    assert pickle.loads(pickle.dumps(deep)).same_tree(deep)
    with pytest.raises(RecursionError):
        deep.exact_gradients()
    assert deep.bind().same_tree(deep)
    assert deep.children[0].children[0].levels == 39_999
    with pytest.raises(zel.SceneError):
        zel.loads(deep.dumps())
    del deep
    for few in (zel.simplex_noise(), zel.warp(X, (1, 2, 3)), zel.ScalarFieldSphere()):
        assert few.levels == pickle.loads(pickle.dumps(few)).levels, few
    assert zel.add(*[X] * 1000).value_and_grad(xyz)[0][0] == pytest.approx(1000 * xyz[0, 0], 1e-4)
    least = zel.min(*[X - i for i in range(5000)])
    assert least.levels < 20 and np.array_equal(least(xyz), (X - 4999)(xyz))


def test_scenes_in_files(tmp_path, xyz):
    tree = zel.sphere((0, 0, 0), 1) - 0.3 * zel.simplex_noise(time=0.5, seed=7)
    tree.save(tmp_path / "scene.json")
    read = zel.load(tmp_path / "scene.json")
    assert read.same_tree(tree) and np.array_equal(read(xyz), tree(xyz))
    with pytest.raises(zel.SceneError, match="radius") as error:
        zel.loads('{"version": 1, "root": {"type": "Sphere", "raduis": 2}}')
    assert (error.value.path, error.value.line) == ("/root/raduis", 0)
    with pytest.raises(zel.SceneError) as error:
        zel.loads("{\n3")
    assert (error.value.path, error.value.line, error.value.column) == ("", 2, 1)
    svg = tree._repr_svg_()
    assert svg is None or "SimplexNoise" in svg
    image = zel.slice(tree, "zx", (40, 20), low=(-1, 0), high=(1, 1), offset=0.25)
    assert image.shape == (20, 40) and image[3, 7] == tree((3.5 / 20, 0.25, -1 + 7.5 / 20))
