"""The parts of the module that are written in Python."""

import operator

from . import _zel


def _restore(*state):
    """Makes what was pickled. pickle cannot refer to functions of _zel."""
    return _zel._restore(*state)


def _curve(*state):
    return _zel.curve(*state)


def _binding(*state):
    return _zel._binding(*state)


def _volume(*state):
    return _zel._volume(state)


def _check(field, where):
    if not isinstance(field, _zel.Field):
        raise TypeError(f"{where}: field: wanted a field, got {type(field).__name__}")


def exact_gradients(field):
    """Returns a copy of the field in which each class that knows the derivative of its value answers
    gradients by that instead of differences. Values are the same.
    """
    _check(field, "zel.exact_gradients")
    return field.exact_gradients()


def dumps(field):
    """Returns the field as the JSON of a scene. Raises ValueError for a Python function in it."""
    _check(field, "zel.dumps")
    return field.dumps()


def save(field, path):
    """Writes the field to a file, as the JSON of a scene. Raises OSError, or errors of dumps()."""
    _check(field, "zel.save")
    text = field.dumps()
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def load(path, *, depth=1000):
    """Reads a field from a file with the JSON of a scene. Raises OSError, or SceneError: see loads().
    """
    with open(path, "rb") as file:
        return _zel.loads(file.read(), depth=depth)


def slice(field, plane="xy", size=512, *, low=(-1, -1), high=(1, 1), offset=0.0):
    """The values of a field on a plane, as an array of shape (height, width) for imshow().

    plane: two of the letters x, y and z, the axes to the right and upwards; the third coordinate is
        `offset`.
    size: the number of values along the right axis, or (width, height).
    low, high: the corners of the picture. Values are taken at the middles of its pixels.

    Draw it by imshow(image, origin="lower", extent=(low[0], high[0], low[1], high[1])). The image is
    of float32, and that of a vector field has the shape (height, width, 3). Raises TypeError or
    ValueError, which name the argument.
    """
    import numpy as np

    def pair(given, name):
        try:
            if isinstance(given, (str, bytes)):
                raise TypeError
            a, b = (float(number) for number in given)
        except (TypeError, ValueError):
            raise TypeError(f"zel.slice: {name}: wanted two numbers, got {given!r}") from None
        if not all(abs(number) <= np.finfo(np.float32).max for number in (a, b)):
            raise ValueError(f"zel.slice: {name}: wanted finite numbers of float32, got {given!r}")
        return a, b

    def count(given):
        try:
            return operator.index(given)
        except TypeError:
            raise TypeError("zel.slice: size: wanted an integer or (width, height), "
                            f"got {size!r}") from None

    _check(field, "zel.slice")
    if not (isinstance(plane, str) and len(plane) == 2 and plane[0] != plane[1]
            and set(plane) <= set("xyz")):
        raise ValueError(f"zel.slice: plane: wanted two of the letters x, y, z, got {plane!r}")
    right, up = ("xyz".index(letter) for letter in plane)
    low, high = pair(low, "low"), pair(high, "high")
    try:
        offset = float(offset)
    except (TypeError, ValueError):
        raise TypeError(f"zel.slice: offset: wanted a number, got {offset!r}") from None
    if not abs(offset) <= np.finfo(np.float32).max:
        raise ValueError(f"zel.slice: offset: wanted a finite number of float32, got {offset!r}")
    spans = [high[i] - low[i] for i in (0, 1)]
    if isinstance(size, (tuple, list, np.ndarray)) and np.shape(size) == (2,):
        width, height = (count(n) for n in size)
    else:
        width = count(size)
        if spans[0] == 0:
            raise ValueError("zel.slice: low and high are at the same place")
        height = max(1, round(width * min(abs(spans[1] / spans[0]), 1e9)))
    if width < 1 or height < 1:
        raise ValueError(f"zel.slice: size: wanted 1 or more, got {size!r}")
    try:
        xyz = np.empty((height, width, 3), np.float32)
    except (MemoryError, OverflowError, ValueError):
        raise ValueError(f"zel.slice: size: there is no memory for {width} x {height} positions"
                         ) from None
    xyz[..., 3 - right - up] = offset
    xyz[..., right] = low[0] + (np.arange(width) + 0.5) * (spans[0] / width)
    xyz[..., up] = (low[1] + (np.arange(height) + 0.5) * (spans[1] / height))[:, None]
    return field(xyz)


def _save(self, path):
    """Writes the tree to a file, as the JSON of a scene. Raises OSError, or errors of dumps()."""
    save(self, path)


def _repr_svg_(self):
    """The tree as a picture, if graphviz is there and the tree is small enough for it."""
    import subprocess

    text = self.to_dot()
    if text.count("\n") > 1000:
        return None
    try:
        done = subprocess.run(["dot", "-Tsvg"], input=text.encode(), capture_output=True,
                              timeout=20, check=True)
    except (OSError, subprocess.SubprocessError):
        return None
    return done.stdout.decode()


_zel._complete_bases(_repr_svg_=_repr_svg_, save=_save)
