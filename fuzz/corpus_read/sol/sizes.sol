MeshVersionFormatted 2

Dimension 3

SolAtVertices
3
1 1
0.5
1e-3
2

End
