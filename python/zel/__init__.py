"""Procedural fields: functions over space whose values are numbers or vectors.

    import zel
    f = zel.sphere((0, 0, 0), 1) - 0.3 * zel.simplex_noise(time=0.5, seed=7)
    values, gradients = f.value_and_grad(xyz)  # xyz of shape (..., 3)

Every node class of the library is here by its name in C++, such as zel.ScalarFieldSphere, and as a
function, such as zel.sphere.
"""

from . import _zel
from ._zel import *  # noqa: F401,F403
from ._zel import __version__  # noqa: F401
from ._tools import _binding, _curve, _restore, _volume, dumps, exact_gradients, load, save, slice  # noqa: F401

# Objects and types of the library belong to one interpreter.
_zel._check_interpreter()

# The names that formulas use.
abs = _zel.absolute
sqrt = _zel.square_root
sin = _zel.sine
cos = _zel.cosine
tan = _zel.tangent
dot = _zel.dot_product
normalize = _zel.unit_vector
vector = _zel.from_components
