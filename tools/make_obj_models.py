#!/usr/bin/env python3
"""Writes the OBJ models of host/scenes/models/ (the lookdev scene uses them).

  vase.obj  a vase turned around the z axis: quads with smooth vertex
            normals and texture coordinates
  gem.obj   a cut gem: an octagonal table (one 8-cornered face), quads on
            the crown, triangles on the pavilion; no normals

Usage: python3 tools/make_obj_models.py [OUTDIR]   (default host/scenes/models)
"""
import math
import os
import sys


def vase(path):
    segments, rings = 24, 16
    height = 2.0

    def radius(t):  # t in [0, 1] from the foot to the lip
        return 0.35 + 0.35 * math.sin(math.pi * (0.15 + 1.1 * t)) ** 2 - 0.12 * t + 0.08 * t ** 6

    def slope(t, h=1e-4):
        return (radius(min(1.0, t + h)) - radius(max(0.0, t - h))) / ((min(1.0, t + h) - max(0.0, t - h)) * height)

    out = ["# vase: turned profile, %d segments x %d rings, quads" % (segments, rings)]
    for j in range(rings + 1):
        t = j / rings
        r, z, dr = radius(t), height * t, slope(t)
        for i in range(segments):
            a = 2 * math.pi * i / segments
            c, s = math.cos(a), math.sin(a)
            out.append("v %.5f %.5f %.5f" % (r * c, r * s, z))
            # outward normal of the surface of revolution: (c, s, -dr) normalised
            n = math.sqrt(1 + dr * dr)
            out.append("vn %.5f %.5f %.5f" % (c / n, s / n, -dr / n))
    for j in range(rings + 1):
        for i in range(segments + 1):
            out.append("vt %.5f %.5f" % (i / segments, j / rings))
    for j in range(rings):
        for i in range(segments):
            i1 = (i + 1) % segments
            v = [j * segments + i, j * segments + i1, (j + 1) * segments + i1, (j + 1) * segments + i]
            t = [j * (segments + 1) + i, j * (segments + 1) + i + 1, (j + 1) * (segments + 1) + i + 1,
                 (j + 1) * (segments + 1) + i]
            out.append("f " + " ".join("%d/%d/%d" % (v[k] + 1, t[k] + 1, v[k] + 1) for k in range(4)))
    with open(path, "w") as f:
        f.write("\n".join(out) + "\n")


def gem(path):
    n = 8
    table_r, girdle_r, crown_h, pavilion_d = 0.55, 1.0, 0.35, 0.85
    out = ["# gem: octagonal table, quad crown, triangle pavilion; no normals"]
    for i in range(n):  # table corners 1..8
        a = 2 * math.pi * (i + 0.5) / n
        out.append("v %.5f %.5f %.5f" % (table_r * math.cos(a), table_r * math.sin(a), crown_h))
    for i in range(n):  # girdle corners 9..16
        a = 2 * math.pi * (i + 0.5) / n
        out.append("v %.5f %.5f %.5f" % (girdle_r * math.cos(a), girdle_r * math.sin(a), 0.0))
    out.append("v 0 0 %.5f" % -pavilion_d)  # culet 17
    out.append("f " + " ".join(str(i + 1) for i in range(n)))
    for i in range(n):
        i1 = (i + 1) % n
        out.append("f %d %d %d %d" % (n + i + 1, n + i1 + 1, i1 + 1, i + 1))
    for i in range(n):
        i1 = (i + 1) % n
        out.append("f %d %d %d" % (n + i1 + 1, n + i + 1, 2 * n + 1))
    with open(path, "w") as f:
        f.write("\n".join(out) + "\n")


def main():
    outdir = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "..", "host", "scenes", "models")
    os.makedirs(outdir, exist_ok=True)
    vase(os.path.join(outdir, "vase.obj"))
    gem(os.path.join(outdir, "gem.obj"))


if __name__ == "__main__":
    main()
