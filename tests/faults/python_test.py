"""Has each allocation of C++ fail in turn in calls of the module, until the call goes through: MemoryError or
the result has to arrive, no block may be lost, and the next try has to succeed. Needs the library `failing_new`
preloaded."""

import ctypes
import gc
import itertools
import os
import pickle
import threading
import time

import numpy as np
import pytest

os.sched_setaffinity(0, {min(os.sched_getaffinity(0))})  # no threads of oneTBB, which keep memory
import zel  # noqa: E402

new = ctypes.CDLL(None)
new.zel_fail_after.argtypes = [ctypes.c_longlong]
new.zel_end_failures.restype = ctypes.c_bool
new.zel_live_blocks.restype = ctypes.c_longlong

# So few that the calling thread evaluates them, however busy the machine is: a thread that helps keeps memory.
XYZ = np.random.default_rng(5).uniform(-1, 1, (256, 3)).astype("f4")
BOX = (-1, -1, -1), (1, 1, 1)
ARRAY = np.arange(60, dtype="f4").reshape(3, 4, 5)


def make():
    noise = zel.simplex_noise(zel.constant(0.5), 3)
    return zel.min(zel.sphere((0, 0, 0), 0.5) + noise * 0.1, zel.length(zel.position() * 2))


TREE, TEXT = make(), make().dumps()
LATE = zel.ScalarOrvaneTriggered("d", "linear") + zel.ScalarGeoPropertyTriggered("density")
VOLUME = zel.Volume.from_numpy(ARRAY, 0.5, (0, 0, 0), name="d")
CURVE = zel.curve([(0, 1), (1, 3, -2, "cubic"), (2, 0, 1, 4)], after="cycle")
WORKS = {
    "trees": lambda: make().dumps(),
    "values": lambda: TREE(XYZ),
    "values in place": lambda: TREE(XYZ, out=np.zeros(256, "f4")),
    "gradients": lambda: np.concatenate([part.ravel() for part in TREE.value_and_grad(XYZ)]),
    "exact gradients": lambda: zel.exact_gradients(TREE).grad(XYZ),
    "comparisons": lambda: str((TREE.same_tree(make()), TREE.same_tree(TREE + 1), TREE.tree_hash())),
    "curves": lambda: repr(zel.curve([(0, 1), (1, 3, -2)], before="linear")) + repr(CURVE.slope(2.25)),
    "pickled curves": lambda: repr(pickle.loads(pickle.dumps(CURVE))),
    "positions": lambda: TREE((0.1, 0.2, 0.3)),
    "functions": lambda: (zel.field(lambda xyz: xyz[:, 0]) + TREE)(XYZ),
    "scenes": lambda: zel.loads(TEXT).to_dot(),
    "pickles": lambda: pickle.loads(pickle.dumps(TREE)).dumps(),
    "parameters": lambda: str(TREE.parameters) + str(TREE.children) + repr(TREE),
    "volumes": lambda: zel.Volume.from_numpy(ARRAY, 0.5, (0, 0, 0), name="d").to_numpy(),
    "pickled volumes": lambda: pickle.loads(pickle.dumps(VOLUME)).to_numpy(),
    "volumes of fields": lambda: zel.Volume.from_field(TREE, box=BOX, voxel_size=0.2, band=1).tile_count(),
    "bound": lambda: LATE.bind(volume=VOLUME, properties={"density": ARRAY.ravel()})(XYZ[:60]),
    "errors": lambda: error_of(lambda: zel.loads('{"zel": 1, "root": "none"}')),
    "refusals": lambda: error_of(lambda: zel.Volume.from_field(TREE, box=BOX, voxel_size=-1234.5, band=1)),
}


def error_of(call):
    with pytest.raises(ValueError) as caught:
        call()
    return str(caught.value)


def on_thread(call):
    """Without what a thread keeps from earlier work."""
    results = []
    thread = threading.Thread(target=lambda: results.append(call()))
    thread.start()
    thread.join()
    return results[0]


def settled(before):
    """Whether blocks are released again, which an ended thread may do after it was joined."""
    end = time.monotonic() + 10
    while new.zel_live_blocks() > before and time.monotonic() < end:
        gc.collect()
        time.sleep(0.001)
    return new.zel_live_blocks() <= before


def attempt(name, count):
    """The result, or None without memory, and whether an allocation failed."""
    new.zel_fail_after(count)
    try:
        return WORKS[name](), new.zel_end_failures()
    except MemoryError:
        return None, new.zel_end_failures()
    except RuntimeError as error:  # a volume node that is bound leaves the text alone
        assert (name, str(error)) == ("bound", "std::bad_alloc")
        return None, new.zel_end_failures()
    finally:
        new.zel_end_failures()


@pytest.mark.parametrize("name", WORKS)
def test_each_allocation_fails_once(name):
    work = WORKS[name]
    expected = on_thread(work)
    for count in itertools.count():
        before = new.zel_live_blocks()
        result, failed = on_thread(lambda: attempt(name, count))
        assert (failed and result is None) or np.array_equal(result, expected), count
        assert np.array_equal(on_thread(work), expected), count
        result = None
        assert settled(before), count
        if not failed:
            assert count > 0
            return
