#!/usr/bin/env python3
"""Writes the small clouds of this folder with another program's writers (Open3D, Debian's
python3-open3d), so that the readers are tested on files they did not write themselves.

Run once by hand; the tests only read the files it wrote (points.json gives their contents).
Its ASCII PLY writer keeps 6 significant digits, too few for survey coordinates: no such file.

    python3 make_peer_files.py
"""
import json

import numpy as np
import open3d as o3d

# Twelve points in national-grid coordinates (a global shift is needed), on steps that a 32-bit
# float holds exactly at that size (the PCD files store floats), their colours chosen so that
# each channel differs.
points = np.array([[652345.125 + i * 0.5, 6862345.5 + (i % 4) * 0.5, 123.5 + i * 0.125]
                   for i in range(12)], dtype=np.float64)
colors_255 = np.array([[(20 * i + 5) % 256, (35 * i + 60) % 256, (50 * i + 120) % 256]
                       for i in range(12)], dtype=np.float64)

cloud = o3d.geometry.PointCloud()
cloud.points = o3d.utility.Vector3dVector(points)
cloud.colors = o3d.utility.Vector3dVector(colors_255 / 255.0)

for name, ascii_ in [("cloud.pts", True), ("cloud.xyzrgb", True), ("cloud.xyz", True),
                     ("cloud_ascii.pcd", True), ("cloud_binary.pcd", False),
                     ("cloud_binary.ply", False)]:
    ok = o3d.io.write_point_cloud(name, cloud, write_ascii=ascii_)
    assert ok, name

with open("points.json", "w") as f:
    json.dump({"points": points.tolist(), "colors": colors_255.astype(int).tolist()}, f,
              indent=1)
