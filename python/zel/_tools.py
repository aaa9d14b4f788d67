"""The parts of the module that are written in Python."""

from . import _zel


def _restore(*state):
    """Makes what was pickled. pickle cannot refer to functions of _zel."""
    return _zel._restore(*state)


def _curve(*state):
    return _zel.curve(*state)


def exact_gradients(field):
    """Returns field.exact_gradients()."""
    return field.exact_gradients()


def dumps(field):
    """Returns the field as the JSON of a scene."""
    return field.dumps()


def save(field, path):
    """Writes the field to a file, as the JSON of a scene."""
    text = field.dumps()
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def load(path, *, depth=1000):
    """Reads a field from a file with the JSON of a scene. Raises SceneError: see loads()."""
    with open(path, "rb") as file:
        return _zel.loads(file.read(), depth=depth)


def slice(field, plane="xy", size=512, *, low=(-1, -1), high=(1, 1), offset=0.0):
    """The values of a field on a plane, as an array of shape (height, width) for imshow().

    plane: two of the letters x, y and z, the axes to the right and upwards; the third coordinate is
        `offset`.
    size: the number of values along the right axis, or (width, height).
    low, high: the corners of the picture. Values are taken at the middles of its pixels.

    Draw it by imshow(image, origin="lower", extent=(low[0], high[0], low[1], high[1])). The image of
    a vector field has the shape (height, width, 3).
    """
    import numpy as np

    if not (isinstance(plane, str) and len(plane) == 2 and plane[0] != plane[1]
            and set(plane) <= set("xyz")):
        raise ValueError(f"zel.slice: plane: wanted two of the letters x, y, z, got {plane!r}")
    right, up = ("xyz".index(letter) for letter in plane)
    spans = [float(high[i]) - float(low[i]) for i in (0, 1)]
    if np.ndim(size) == 0:
        width = int(size)
        if spans[0] == 0:
            raise ValueError("zel.slice: low and high are at the same place")
        height = max(1, round(width * abs(spans[1] / spans[0])))
    else:
        width, height = (int(n) for n in size)
    if width < 1 or height < 1:
        raise ValueError(f"zel.slice: size: wanted 1 or more, got {size!r}")
    xyz = np.empty((height, width, 3), np.float32)
    xyz[..., 3 - right - up] = offset
    xyz[..., right] = low[0] + (np.arange(width) + 0.5) * (spans[0] / width)
    xyz[..., up] = (low[1] + (np.arange(height) + 0.5) * (spans[1] / height))[:, None]
    return field(xyz)


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


_zel.Field._repr_svg_ = _repr_svg_
_zel.Field.save = save
