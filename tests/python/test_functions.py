"""Fields of Python functions, threads, signals and the interpreter."""

import concurrent.futures
import gc
import os
import signal
import subprocess
import sys
import textwrap
import threading
import time
import weakref

import numpy as np
import pytest

import zel


def wave(xyz):
    return np.sin(3 * xyz[:, 0]) + xyz[:, 1]


def twist(xyz):
    return np.stack([xyz[:, 1], -xyz[:, 0], xyz[:, 2] ** 2], 1)


def test_values_gradients_and_blocks(xyz):
    calls = []

    def noted(points):
        calls.append(points)
        assert points.dtype == np.float32 and points.flags.owndata and len(points) <= 256
        return wave(points)

    field = 2 * zel.field(noted)
    big = np.tile(xyz, (40, 1))
    assert np.array_equal(field(big), 2 * wave(big))
    seen = np.concatenate(calls)
    assert len(seen) == len(big) and np.array_equal(np.unique(seen, axis=0), np.unique(xyz, axis=0))
    calls.clear()
    zel.field(lambda p: time.sleep(0.001) or noted(p))(big[:3000])
    assert len(calls) < 20  # few points are not shared out
    assert field(xyz[0]) == 2 * wave(xyz[:1])[0]
    expected = np.stack([6 * np.cos(3 * xyz[:, 0]), np.full(300, 2), np.zeros(300)], 1)
    np.testing.assert_allclose(field.grad(xyz), expected, atol=2e-2)

    turned = zel.field(twist, vector=True)
    assert np.array_equal(turned(xyz), twist(xyz))
    assert turned.grad(xyz).shape == (300, 3, 3)
    np.testing.assert_allclose(turned.grad(xyz)[:, 2, 2], 2 * xyz[:, 2], rtol=1e-3)
    warped = zel.warp(zel.field(wave), turned + zel.position())
    np.testing.assert_allclose(warped(xyz), wave(twist(xyz) + xyz), rtol=1e-6, atol=1e-6)
    assert 'zel::ScalarFieldFunction name="wave"' in repr(warped) and zel.field(np.vectorize(wave)).class_name
    with pytest.raises(ValueError, match="function"):
        warped.dumps()


class Odd(Exception):
    pass


def fail(points):
    raise Odd("from the function")


@pytest.mark.parametrize("count", [1, 300, 300_000])
@pytest.mark.parametrize("function, error, text", [
    (fail, Odd, "from the function"), (lambda p: p, ValueError, "wanted shape \\(\\d+,\\), got"),
    (lambda p: None, TypeError, "<lambda>.*None"), (lambda p: p[:, 0] * 1j, TypeError, "complex64"),
    (lambda p: 0.0, ValueError, "got \\(\\)"), (lambda: 0, TypeError, "positional argument"),
    (lambda p: sys.exit(3), SystemExit, "3")])
def test_exceptions_keep_their_type(function, error, text, count):
    with pytest.raises(error, match=text) as raised:
        (zel.field(function) + 1)(np.ones((count, 3)))
    if error is Odd:
        assert raised.traceback[-1].name == "fail"


def test_a_function_that_evaluates_its_tree():
    tree = zel.field(lambda points: tree(points))
    for _ in range(900):
        tree = tree * 1.5
    with pytest.raises(RecursionError, match="stack"):
        tree(np.ones((256, 3)))


def test_a_small_stack():
    tree = zel.add(*[zel.sphere()] * 990)
    threading.stack_size(1 << 18)
    with concurrent.futures.ThreadPoolExecutor(1) as pool:
        error = pool.submit(tree, np.ones((9, 3))).exception()
    threading.stack_size(0)
    assert isinstance(error, RecursionError) and f"{tree.levels} levels needs" in str(error)


def test_cycles_are_collected():
    class Function:
        def __call__(self, points):
            return self.field.radius + points[:, 0]

    function = Function()
    function.field = zel.sphere()
    tree = zel.field(function) + 1
    assert tree((1, 2, 3)) == 3
    function.field = tree
    child, gone = tree.children[0], weakref.ref(function)
    del function, tree
    gc.collect()
    assert gone() is not None  # of the child
    del child
    gc.collect()
    assert gone() is None


def test_threads_evaluate_at_once(xyz):
    tree = zel.fractal_noise(octaves=3, seed=1) + zel.field(wave)
    big = np.tile(xyz, (50, 1))
    expected = tree(big)
    with concurrent.futures.ThreadPoolExecutor(4) as pool:
        for values in pool.map(tree, [big] * 20):
            assert np.array_equal(values, expected)


@pytest.mark.parametrize("octaves, count", [(8, 300_000), (3000, 256)])
def test_other_threads_run_meanwhile(octaves, count):
    ticks, done = [], threading.Event()

    def tick():
        while not done.wait(0.001):
            ticks.append(1)

    thread = threading.Thread(target=tick)
    thread.start()
    zel.fractal_noise(octaves=octaves)(np.ones((count, 3)))
    done.set()
    thread.join()
    assert len(ticks) > 3


@pytest.mark.parametrize("slow", [lambda: zel.fractal_noise(octaves=500),
                                  lambda: zel.field(lambda p: time.sleep(0.02) or p[:, 0])])
def test_an_interrupt_stops_a_batch(slow):
    field, xyz = slow(), np.broadcast_to(np.float32(1), (2_000_000, 3))
    out = np.full(len(xyz), -7, np.float32)
    timer = threading.Timer(0.3, signal.raise_signal, [signal.SIGINT])
    timer.start()
    with pytest.raises(KeyboardInterrupt):
        field(xyz, out=out)
    assert out[-1] == -7
    with pytest.raises(KeyboardInterrupt):
        threading.Timer(0.3, signal.raise_signal, [signal.SIGINT]).start()
        zel.Volume.from_field(field, ((-1,) * 3, (1,) * 3), 1 / 512, 3)
    assert zel.sphere()((0, 0, 0)) == -1


@pytest.mark.parametrize("xyz", [np.broadcast_to(1.0, (10**7, 3)),
                                 np.zeros((2000, 10**4, 3), "f4")[::2, ::2]])
def test_signals_are_handled_while_positions_are_copied(xyz):
    ticks = []
    before = signal.signal(signal.SIGALRM, lambda *_: ticks.append(1))
    signal.setitimer(signal.ITIMER_REAL, 0.001, 0.001)
    try:
        zel.sphere()(xyz, index0=2**63 - 1)  # refused as soon as the positions are there
    except ValueError:
        count = len(ticks)
    signal.setitimer(signal.ITIMER_REAL, 0)
    signal.signal(signal.SIGALRM, before)
    assert count > 5


def test_an_interrupt_stops_a_block_of_many_paths():
    field = zel.simplex_noise()
    for _ in range(20):
        field = zel.translate(field, (1, 0, 0)) + zel.translate(field, (0, 1, 0))
    out = np.full(256, -7, np.float32)
    threading.Timer(0.3, signal.raise_signal, [signal.SIGINT]).start()
    with pytest.raises(KeyboardInterrupt):
        field(np.ones((256, 3)), out=out)
    assert out[-1] == -7


def run(program, *args):
    environment = dict(os.environ, PYTHONPATH=os.pathsep.join(sys.path))
    return subprocess.run([sys.executable, *args, "-c", textwrap.dedent(program)], text=True,
                          capture_output=True, timeout=60, env=environment)


@pytest.mark.parametrize("program, output", [
    ("import sys, zel; print('numpy' in sys.modules)", "False\n"),
    # A thread evaluates while the interpreter ends.
    ("""
     import threading, time, numpy as np, zel
     f = zel.field(lambda p: time.sleep(0.001) or p[:, 0]) + zel.simplex_noise()
     for i in range(3):
         threading.Thread(target=f, args=(np.ones((10**6, 3), 'f4'),), daemon=True).start()
     time.sleep(0.2); print('end')
     """, "end\n"),
    # A second import, also after the first is gone.
    ("""
     import sys, importlib, zel
     f = zel.sphere()
     importlib.reload(zel)
     for name in [n for n in sys.modules if n.startswith('zel')]: del sys.modules[name]
     import zel
     print((f + zel.sphere())((1, 0, 0)), type(f) is zel.ScalarFieldSphere)
     """, "0.0 True\n"),
    # An import as another package.
    ("""
     import importlib.util, sys, zel
     spec = importlib.util.spec_from_file_location('other._zel', sys.modules['zel._zel'].__file__)
     try: importlib.util.module_from_spec(spec)
     except ImportError as error: print(error)
     curve = zel.curve([(0, 1), (1, 2)])
     print(zel.f_curve(zel.x_position(), curve)((1, 0, 0)))
     """, "zel: imported before, as another package\n2.0\n"),
    # An import by another interpreter in the process, after and before that of the first.
    *((f"""
       import _xxsubinterpreters as sub{first}
       one = sub.create()
       try: sub.run_string(one, 'import zel')
       except sub.RunFailedError as error: print('ImportError' in str(error))
       sub.destroy(one)
       import zel; print(zel.sphere()((2, 0, 0)))
       """, "True\n1.0\n") for first in (", zel", "")),
    # A child process after a fork.
    ("""
     import os, numpy as np, zel
     f = zel.fractal_noise(octaves=4); x = np.ones((200_000, 3), 'f4')
     a = f(x)
     if os.fork() == 0:
         print(np.array_equal(f(x), a), flush=True); os._exit(0)
     os.wait()
     """, "True\n"),
    # The same while another thread evaluates, which the child does not wait for.
    ("""
     import os, sys, threading, time, zel
     begun, end = threading.Event(), threading.Event()
     f = zel.field(lambda p: begun.set() or end.wait() and p[:, 0])
     threading.Thread(target=f, args=((0, 0, 0),)).start(); begun.wait(); start = time.time()
     if os.fork() == 0: sys.exit()
     os.wait(); end.set(); print(time.time() - start < 3)
     """, "True\n"),
])
def test_the_interpreter(program, output):
    done = run(program)
    assert (done.stdout, done.returncode) == (output, 0), done.stderr
