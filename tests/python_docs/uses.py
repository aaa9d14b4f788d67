"""What mypy is to make of the module: a line with `# error` is one that it must refuse."""

import numpy as np
from numpy.typing import NDArray
from typing_extensions import assert_type

import zel

Floats = NDArray[np.float32]
xyz = np.zeros((5, 3))
ball = zel.sphere((0, 0, 0), radius=np.float32(2))
swirl = zel.vector(ball, 1, zel.z_position())

assert_type(ball, zel.ScalarFieldSphere)
assert_type(ball(xyz), Floats)
assert_type(ball((1, 2, 3)), np.float32)
assert_type(swirl(xyz), Floats)
assert_type(ball.value_and_grad(xyz), tuple[Floats, Floats])
assert_type(1 - ball, zel.ScalarFieldSubtract)
assert_type(ball * (1, 2, 3), zel.VectorFieldVSMultiply)
assert_type(swirl * ball, zel.VectorFieldVSMultiply)
assert_type(swirl / swirl, zel.VectorFieldDivide)
assert_type(zel.min(ball, 1, ball), zel.ScalarFieldMin)
assert_type(zel.max(swirl, (0, 0, 0)), zel.VectorFieldMax)
assert_type(zel.min(swirl, swirl, (1, 2, 3), exactGradient=True), zel.VectorFieldMin)
assert_type(zel.lerp(swirl, (0, 0, 1), ball), zel.VectorFieldLerp)
assert_type(ball.bind(properties={"a": [1, 2]}), zel.ScalarFieldSphere)
assert_type(zel.exact_gradients(swirl), zel.VectorField)
assert_type(ball.radius, float)
assert_type(zel.warp(ball, swirl).warp, zel.VectorField)
assert_type(zel.plane(normal=(0, 0, 1)), zel.ScalarFieldPlane)
assert_type(zel.field(lambda p: p[:, 0]), zel.ScalarField)
assert_type(zel.field(lambda p: p, vector=True), zel.VectorField)
zel.scalar_orvane("a", "cubicC1", volume=zel.Volume.from_field(ball, ((0,) * 3, (1,) * 3), 0.1, 2))
zel.f_curve(ball, [(0, 1), (1, 2, "cubic")])
zel.f_curve(ball, xyz[:, :2])
zel.curve(xyz)
zel.Volume.from_field(ball, np.array([(0, 0, 0), (1, 1, 1)]), 0.1, 2)
loaded = zel.load("scene.json")
zel.exact_gradients(1 - abs(-loaded * 2) ** 2 / (loaded + ball))(xyz)
try:
    loaded.bind(strict=True)
except zel.BindError as error:
    assert_type(error.names, tuple[str, ...])

zel.sphere(radius="big")  # error
zel.sphere(size=1)  # error
zel.exp()  # error
zel.curl(ball)  # error
zel.min(swirl, swirl, True)  # error
ball + swirl  # error
ball.radius = 3  # error
ball(xyz, out=xyz)  # error
zel.Volume.from_field(swirl, ((0,) * 3, (1,) * 3), 0.1, 2)  # error
