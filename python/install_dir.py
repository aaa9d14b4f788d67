"""Prints where the interpreter looks for packages below an installation prefix."""

import os
import site
import sys

prefix = sys.argv[1]
found = [os.path.relpath(path, prefix) for path in site.getsitepackages()]
# For other prefixes, the place that virtual environments have.
usual = "lib/python{}.{}/site-packages".format(*sys.version_info)
print(next((path for path in found if path.startswith("lib/")), usual))
