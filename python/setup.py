"""Makes a wheel of the module zel: pip wheel --no-build-isolation --no-deps ./python

The libraries of ZEL are in the wheel; oneTBB is not. CMake builds them in build/wheel below the root of
the sources, or takes them from the build tree of the environment variable ZEL_BUILD_DIR, which must have
been configured with -DZEL_BUILD_PYTHON=ON.
"""

import os
import pathlib
import re
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = pathlib.Path(__file__).resolve().parent.parent
GIVEN = os.environ.get("ZEL_BUILD_DIR")
BUILD = pathlib.Path(GIVEN).resolve() if GIVEN else ROOT / "build" / "wheel"
# Keeps the files of setuptools out of the sources.
WORK = BUILD / "setuptools"
OPTIONS = ["-DZEL_BUILD_PYTHON=ON", "-DZEL_BUILD_SCENE=ON", "-DZEL_BUILD_EXCHANGE=OFF",
           "-DZEL_BUILD_TESTS=OFF", "-DZEL_BUILD_BENCHMARKS=OFF", "-DZEL_BUILD_EXAMPLES=OFF",
           f"-DPython3_EXECUTABLE={sys.executable}"]


class BuildByCMake(build_ext):
    def run(self):
        if not GIVEN:
            subprocess.run(["cmake", "--preset", "release", "-B", BUILD, *OPTIONS], cwd=ROOT, check=True)
        # A build tree that was given may be complete; then nothing is built.
        subprocess.run(["cmake", "--build", BUILD, "--parallel", str(os.cpu_count()), "--target",
                        "zel_python_stubs"], check=True)
        subprocess.run(["cmake", "--install", BUILD, "--component", "wheel", "--prefix",
                        pathlib.Path(self.build_lib).resolve()], check=True)
        # A wheel has no symbolic links: each library has the name by which it is loaded.
        for link in pathlib.Path(self.build_lib, "zel").iterdir():
            if link.is_symlink():
                link.resolve().replace(link)

    def get_outputs(self):
        return [str(file) for file in pathlib.Path(self.build_lib, "zel").iterdir()]


WORK.mkdir(parents=True, exist_ok=True)
setup(
    name="zel",
    version=".".join(re.findall(r"define ZEL_VERSION_(?:MAJOR|MINOR|PATCH) (\d+)",
                                (ROOT / "zel/version.h").read_text())),
    description="Procedural fields: functions over space whose values are numbers or vectors",
    python_requires=f"=={sys.version_info[0]}.{sys.version_info[1]}.*",
    install_requires=["numpy"],
    ext_modules=[Extension("zel._zel", [])],
    cmdclass={"build_ext": BuildByCMake},
    options={"build": {"build_base": str(WORK)}, "egg_info": {"egg_base": str(WORK)}},
)
