"""The examples run, and each leaves a picture. They check their own results."""

import pathlib
import runpy
import subprocess
import sys

import pytest

EXAMPLES = pathlib.Path(__file__).resolve().parents[2] / "examples" / "python"
# Smaller than the defaults, for time.
OPTIONS = {
    "advect_particles": ["--particles", "20000", "--steps", "10"],
    "function_of_your_own": ["--size", "100"],
    "shaded_solid": ["--size", "64"],
    "sphere_and_noise": ["--size", "128"],
    "vertex_colors": ["--segments", "48"],
    "volume_of_a_field": ["--voxels", "64"],
}


def test_every_example_is_listed():
    assert {path.stem for path in EXAMPLES.glob("*.py")} == {*OPTIONS, "dask_points"}


@pytest.mark.parametrize("name", sorted(OPTIONS))
def test_examples(name, tmp_path, monkeypatch, capsys):
    # In this process, which imports matplotlib once.
    monkeypatch.setattr(sys, "argv", [name, "--output", str(tmp_path / "new"), *OPTIONS[name]])
    runpy.run_path(str(EXAMPLES / f"{name}.py"), run_name="__main__")
    assert capsys.readouterr().out
    picture = tmp_path / "new" / f"{name}.png"
    assert picture.read_bytes().startswith(b"\x89PNG") and picture.stat().st_size > 2000


def test_dask(tmp_path, pytestconfig):
    # With more points, such as --points 100_000_000, the values take 400 MB and the points 1.2 GB.
    done = subprocess.run([sys.executable, EXAMPLES / "dask_points.py", "--output", tmp_path,
                           "--points", "200_000", "--chunk", "60_000"],
                          capture_output=True, text=True, timeout=300)
    assert done.returncode == 0, done.stderr
    assert done.stdout.startswith("200000 points in 4 chunks"), done.stdout
    assert not list(tmp_path.iterdir())
