#!/usr/bin/python3
"""vdb_python_test.py VDB_TEST: reads a file of that program by OpenVDB's own module."""
import math
import os
import subprocess
import sys
import tempfile

import pyopenvdb

VOXEL, BAND = 1 / 16, 3

with tempfile.TemporaryDirectory() as folder:
    path = os.path.join(folder, "a.vdb")
    subprocess.run([sys.argv[1], "--gtest_filter=WriteVdb.WritesAFileForPython"], check=True,
                   env=dict(os.environ, ZEL_VDB_FILE=path), stdout=subprocess.DEVNULL)
    surface, place = pyopenvdb.read(path, "surface"), pyopenvdb.read(path, "place")

assert surface.gridClass == "level set" and surface.creator == "vdb_test", surface.info()
assert surface.background == BAND * VOXEL
assert surface.transform.voxelSize() == (VOXEL, VOXEL, VOXEL)
distances, places = surface.getConstAccessor(), place.getConstAccessor()
active = 0
for i in range(-22, 23):
    for j in range(-22, 23):
        for k in range(-22, 23):
            distance = math.sqrt(i * i + j * j + k * k) * VOXEL - 1
            value, on = distances.probeValue((i, j, k))
            inside = max(-BAND * VOXEL, min(BAND * VOXEL, distance))
            assert abs(value - inside) < 1e-6, (i, j, k, value, inside)
            if abs(abs(distance) - BAND * VOXEL) > 1e-6:
                assert on == (abs(distance) < BAND * VOXEL), (i, j, k)
            assert on == places.isValueOn((i, j, k))
            if on:
                active += 1
                assert places.getValue((i, j, k)) == (i * VOXEL, j * VOXEL, k * VOXEL)
assert active == surface.activeVoxelCount() > 10000
