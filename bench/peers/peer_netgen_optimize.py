#!/usr/bin/python3
# Netgen's volume mesh optimiser (Mesh.OptimizeVolumeMesh of Debian's python3-netgen) on a tet
# mesh of bench/compare: the skin as surface elements of one face descriptor, the tets as one
# domain. Netgen moves no node of a surface element. The result is written as Medit for the
# checker, coordinates in their shortest exact form.
# Usage: peer_netgen_optimize.py IN.mesh [-o OUT.mesh]
import sys

import netgen.meshing as ng


def read_medit(path):
    words = open(path).read().split()
    nodes, tris, tets = [], [], []
    i = 0
    while i < len(words) and words[i] != "End":
        key = words[i]
        i += 1
        if key in ("MeshVersionFormatted", "Dimension"):
            i += 1
        elif key == "Vertices":
            n = int(words[i])
            i += 1
            for _ in range(n):
                nodes.append(tuple(float(w) for w in words[i:i + 3]))
                i += 4
        elif key in ("Triangles", "Tetrahedra"):
            width = 3 if key == "Triangles" else 4
            n = int(words[i])
            i += 1
            rows = tris if key == "Triangles" else tets
            for _ in range(n):
                rows.append(tuple(int(w) for w in words[i:i + width]))
                i += width + 1
        else:
            sys.exit("peer_netgen_optimize: unknown section " + key)
    return nodes, tris, tets


def main():
    if len(sys.argv) not in (2, 4) or (len(sys.argv) == 4 and sys.argv[2] != "-o"):
        sys.exit("usage: peer_netgen_optimize.py IN.mesh [-o OUT.mesh]")
    nodes, tris, tets = read_medit(sys.argv[1])
    mesh = ng.Mesh(dim=3)
    ids = [mesh.Add(ng.MeshPoint(ng.Pnt(*p))) for p in nodes]
    mesh.Add(ng.FaceDescriptor(surfnr=1, domin=1, domout=0, bc=1))
    # Netgen turns its elements the other way from the files (right-hand rule) on both counts.
    for a, b, c in tris:
        mesh.Add(ng.Element2D(1, [ids[a - 1], ids[c - 1], ids[b - 1]]))
    for a, b, c, d in tets:
        mesh.Add(ng.Element3D(1, [ids[a - 1], ids[c - 1], ids[b - 1], ids[d - 1]]))
    mesh.OptimizeVolumeMesh()
    points = mesh.Points()
    out = [tuple(el.vertices) for el in mesh.Elements3D()]
    print("tets %d" % len(out))
    if len(sys.argv) == 2:
        return
    with open(sys.argv[3], "w") as f:
        f.write("MeshVersionFormatted 2\nDimension 3\nVertices\n%d\n" % len(points))
        for p in points:
            x, y, z = p.p
            f.write("%r %r %r 0\n" % (x, y, z))
        f.write("Tetrahedra\n%d\n" % len(out))
        for v in out:
            f.write("%d %d %d %d 1\n" % tuple(p.nr for p in v))
        f.write("End\n")


main()
