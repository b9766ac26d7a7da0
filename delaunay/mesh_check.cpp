// Invariant checker of a mesh store: tables, nodes, orientation, neighbour links, conformity by
// sorted face keys, ancestors, stored qualities and local empty spheres.
#include "delaunay/mesh_check.h"

#include <algorithm>
#include <bit>
#include <cfloat>
#include <cstdint>
#include <cstdio>
#include <new>
#include <vector>

#include "delaunay/geometry.h"
#include "delaunay/tet_tables.h"

namespace kelvo::voxfill {
namespace {

// One face of one live tet: its nodes in increasing order and the code 4 t + i.
struct face_entry {
  unsigned key[3];
  unsigned code;
};

bool entry_less(const face_entry& a, const face_entry& b) noexcept {
  if (a.key[0] != b.key[0]) return a.key[0] < b.key[0];
  if (a.key[1] != b.key[1]) return a.key[1] < b.key[1];
  if (a.key[2] != b.key[2]) return a.key[2] < b.key[2];
  return a.code < b.code;
}
bool same_key(const face_entry& a, const face_entry& b) noexcept {
  return a.key[0] == b.key[0] && a.key[1] == b.key[1] && a.key[2] == b.key[2];
}

bool holds(const unsigned* r, unsigned n) noexcept {
  return r[0] == n || r[1] == n || r[2] == n || r[3] == n;
}

mesh_check_result fault_at(mesh_fault fault, unsigned t, unsigned face, unsigned node,
                           const char* what) noexcept {
  mesh_check_result r;
  r.ok = false;
  r.fault = fault;
  r.tet = t;
  r.face = face;
  r.node = node;
  int w = std::snprintf(r.text, sizeof r.text, "%s:", mesh_fault_name(fault));
  if (t != NONE && w > 0 && unsigned(w) < sizeof r.text)
    w += std::snprintf(r.text + w, sizeof r.text - w, " tet %u", t);
  if (face != NONE && w > 0 && unsigned(w) < sizeof r.text)
    w += std::snprintf(r.text + w, sizeof r.text - w, " face %u", face);
  if (node != NONE && w > 0 && unsigned(w) < sizeof r.text)
    w += std::snprintf(r.text + w, sizeof r.text - w, " node %u", node);
  if (w > 0 && unsigned(w) < sizeof r.text)
    std::snprintf(r.text + w, sizeof r.text - w, "%s%s", t != NONE ? ": " : " ", what);
  return r;
}

// 3x3 determinant of the rows x, y, z, and in `perm` the same sum of products taken in
// magnitude: a bound of the determinant's rounding, up to a factor of the unit round-off.
long double det3(const long double* x, const long double* y, const long double* z,
                 long double& perm) noexcept {
  const long double a = y[1] * z[2], b = y[2] * z[1];
  const long double c = y[2] * z[0], d = y[0] * z[2];
  const long double e = y[0] * z[1], f = y[1] * z[0];
  perm = (x[0] < 0 ? -x[0] : x[0]) * ((a < 0 ? -a : a) + (b < 0 ? -b : b)) +
         (x[1] < 0 ? -x[1] : x[1]) * ((c < 0 ? -c : c) + (d < 0 ? -d : d)) +
         (x[2] < 0 ? -x[2] : x[2]) * ((e < 0 ? -e : e) + (f < 0 ? -f : f));
  return x[0] * (a - b) + x[1] * (c - d) + x[2] * (e - f);
}

// True when q lies inside the circumsphere of the positive tet (p0, p1, p2, p3) by more than
// `tol` of its squared radius, in power: R^2 - |q - c|^2 > tol R^2. The lifted determinant
// relative to q equals 6 V (R^2 - |q - c|^2), so the test needs no centre to decide the sign,
// only to set the threshold; a second threshold keeps it above the determinant's own rounding
// (long doubles leave that far below any useful tolerance). Relative to the sphere, a node a hair
// from a node of the tet is judged by how far it is inside, not by how near it is.
bool inside_sphere(const double* const p[4], const double* q, double tol) noexcept {
  long double a[4][3], w[4];
  for (unsigned i = 0; i < 4; ++i) {
    w[i] = 0.0L;
    for (unsigned k = 0; k < 3; ++k) {
      a[i][k] = (long double)p[i][k] - (long double)q[k];
      w[i] += a[i][k] * a[i][k];
    }
  }
  // Cofactor expansion along the lifted column: minor i leaves row i out.
  long double m[4], s[4];
  m[0] = det3(a[1], a[2], a[3], s[0]);
  m[1] = det3(a[0], a[2], a[3], s[1]);
  m[2] = det3(a[0], a[1], a[3], s[2]);
  m[3] = det3(a[0], a[1], a[2], s[3]);
  const long double D = -w[0] * m[0] + w[1] * m[1] - w[2] * m[2] + w[3] * m[3];
  if (!(D > 0.0L)) return false;
  const long double rounding = w[0] * s[0] + w[1] * s[1] + w[2] * s[2] + w[3] * s[3];
  if (!(D > 64.0L * LDBL_EPSILON * rounding)) return false;

  // Six times the volume and the circumcentre offset from p3, from the edge vectors at p3:
  // o = (|e0|^2 e1 x e2 + |e1|^2 e2 x e0 + |e2|^2 e0 x e1) / (2 e0 . (e1 x e2)).
  long double e[3][3], L[3];
  for (unsigned i = 0; i < 3; ++i) {
    L[i] = 0.0L;
    for (unsigned k = 0; k < 3; ++k) {
      e[i][k] = (long double)p[i][k] - (long double)p[3][k];
      L[i] += e[i][k] * e[i][k];
    }
  }
  long double c12[3], c20[3], c01[3];
  for (unsigned k = 0; k < 3; ++k) {
    const unsigned k1 = (k + 1) % 3, k2 = (k + 2) % 3;
    c12[k] = e[1][k1] * e[2][k2] - e[1][k2] * e[2][k1];
    c20[k] = e[2][k1] * e[0][k2] - e[2][k2] * e[0][k1];
    c01[k] = e[0][k1] * e[1][k2] - e[0][k2] * e[1][k1];
  }
  const long double six_v = e[0][0] * c12[0] + e[0][1] * c12[1] + e[0][2] * c12[2];
  if (!(six_v > 0.0L)) return false;
  long double R2 = 0.0L;
  for (unsigned k = 0; k < 3; ++k) {
    const long double o = (L[0] * c12[k] + L[1] * c20[k] + L[2] * c01[k]) / (2.0L * six_v);
    R2 += o * o;
  }
  return D > (long double)tol * six_v * R2;
}

// Face i of t turned the other way is face g of u, in some rotation.
bool faces_match(const unsigned* t, unsigned i, const unsigned* u, unsigned g) noexcept {
  const unsigned a0 = t[tet_face_nodes[i][0]], a1 = t[tet_face_nodes[i][1]],
                 a2 = t[tet_face_nodes[i][2]];
  const unsigned b[3] = {u[tet_face_nodes[g][0]], u[tet_face_nodes[g][1]], u[tet_face_nodes[g][2]]};
  for (unsigned j = 0; j < 3; ++j)
    if (b[j] == a0) return b[(j + 1) % 3] == a2 && b[(j + 2) % 3] == a1;
  return false;
}

}  // namespace

const char* mesh_fault_name(mesh_fault fault) noexcept {
  switch (fault) {
    case mesh_fault::none:
      return "none";
    case mesh_fault::bad_tables:
      return "bad_tables";
    case mesh_fault::bad_node:
      return "bad_node";
    case mesh_fault::not_positive:
      return "not_positive";
    case mesh_fault::stale_quality:
      return "stale_quality";
    case mesh_fault::bad_neighbor:
      return "bad_neighbor";
    case mesh_fault::one_sided_link:
      return "one_sided_link";
    case mesh_fault::face_mismatch:
      return "face_mismatch";
    case mesh_fault::face_overused:
      return "face_overused";
    case mesh_fault::unlinked_face:
      return "unlinked_face";
    case mesh_fault::bad_ancestor:
      return "bad_ancestor";
    case mesh_fault::not_delaunay:
      return "not_delaunay";
    case mesh_fault::no_memory:
      return "no_memory";
  }
  return "unknown";
}

mesh_check_result check_mesh(const mesh_store& m, const mesh_check_options& options) noexcept {
  const unsigned T = m.tets.cols(), N = m.nodes.cols();
  const dense2D<double>& xyz = m.nodes.data;

  // The later passes index the parallel arrays by row without bounds.
  if (m.tets.height != 4 || m.neighbors.height != 4 || m.nodes.height != 3 ||
      m.neighbors.cols() != T)
    return fault_at(mesh_fault::bad_tables, NONE, NONE, NONE,
                    "tet, neighbour or node table of the wrong shape");
  if (m.colors.size < T) return fault_at(mesh_fault::bad_tables, NONE, NONE, NONE, "colours short");
  if (m.ancestors.size < N)
    return fault_at(mesh_fault::bad_tables, NONE, NONE, NONE, "ancestors short");
  if (options.stored_qualities && m.tet_qualities.size < T)
    return fault_at(mesh_fault::bad_tables, NONE, NONE, NONE, "qualities short");

  // Nodes, orientation, qualities: one tet at a time.
  unsigned live = 0;
  for (unsigned t = 0; t < T; ++t) {
    if (!m.tet_live(t)) continue;
    ++live;
    if (m.tets.is_free(t))
      return fault_at(mesh_fault::bad_tables, t, NONE, NONE, "live colour on a free row");
    const unsigned* n = m.tets.row(t);
    for (unsigned k = 0; k < 4; ++k) {
      if (n[k] >= N || m.nodes.is_free(n[k]))
        return fault_at(mesh_fault::bad_node, t, NONE, n[k], "not a live node");
      for (unsigned j = 0; j < k; ++j)
        if (n[j] == n[k]) return fault_at(mesh_fault::bad_node, t, NONE, n[k], "node repeated");
    }
    if (!(orient_det(xyz, n[0], n[1], n[2], n[3]) > 0.0))
      return fault_at(mesh_fault::not_positive, t, NONE, NONE, "orient_det not positive");
    if (options.positive_quality || options.stored_qualities) {
      const double q = tet_quality(xyz, n[0], n[1], n[2], n[3]);
      if (options.positive_quality && !(q > 0.0))
        return fault_at(mesh_fault::not_positive, t, NONE, NONE, "tet_quality not positive");
      if (options.stored_qualities &&
          std::bit_cast<std::uint64_t>(q) != std::bit_cast<std::uint64_t>(m.tet_qualities[t]))
        return fault_at(mesh_fault::stale_quality, t, NONE, NONE, "stored quality differs");
    }
  }

  // Neighbour links: each one answered once, across the same face turned the other way.
  for (unsigned t = 0; t < T; ++t) {
    if (!m.tet_live(t)) continue;
    const unsigned* nb = m.neighbors.row(t);
    for (unsigned i = 0; i < 4; ++i) {
      const unsigned u = nb[i];
      if (u == NONE) continue;
      if (u >= T || u == t || !m.tet_live(u))
        return fault_at(mesh_fault::bad_neighbor, t, i, NONE, "neighbour not a live other tet");
      const unsigned* back = m.neighbors.row(u);
      unsigned links = 0, g = 4;
      for (unsigned k = 0; k < 4; ++k)
        if (back[k] == t) ++links, g = k;
      if (links != 1)
        return fault_at(mesh_fault::one_sided_link, t, i, NONE,
                        links ? "neighbour links back more than once" : "neighbour links not back");
      if (!faces_match(m.tets.row(t), i, m.tets.row(u), g))
        return fault_at(mesh_fault::face_mismatch, t, i, NONE, "neighbour's face differs");
    }
  }

  // Conformity: equal face keys come together after a sort, so a face held by a third tet, or
  // by two tets that do not know each other, shows as a run of its entries.
  std::vector<face_entry> faces;
  try {
    faces.reserve(4 * std::size_t(live));
  } catch (const std::bad_alloc&) {
    return fault_at(mesh_fault::no_memory, NONE, NONE, NONE, "face list not allocated");
  }
  for (unsigned t = 0; t < T; ++t) {
    if (!m.tet_live(t)) continue;
    const unsigned* n = m.tets.row(t);
    for (unsigned i = 0; i < 4; ++i) {
      face_entry e{{n[tet_face_nodes[i][0]], n[tet_face_nodes[i][1]], n[tet_face_nodes[i][2]]},
                   4 * t + i};
      std::sort(e.key, e.key + 3);
      faces.push_back(e);
    }
  }
  std::sort(faces.begin(), faces.end(), entry_less);
  for (std::size_t k = 0; k < faces.size();) {
    std::size_t e = k + 1;
    while (e < faces.size() && same_key(faces[k], faces[e])) ++e;
    const unsigned t = faces[k].code / 4, i = faces[k].code % 4;
    if (e - k > 2)
      return fault_at(mesh_fault::face_overused, t, i, NONE, "face held by three tets or more");
    if (e - k == 2) {
      const unsigned u = faces[k + 1].code / 4, g = faces[k + 1].code % 4;
      if (m.neighbors(i, t) != u || m.neighbors(g, u) != t)
        return fault_at(mesh_fault::unlinked_face, t, i, NONE, "face shared without a link");
    }
    k = e;
  }

  // Ancestors of the nodes that the live tets hold.
  for (unsigned t = 0; t < T; ++t) {
    if (!m.tet_live(t)) continue;
    const unsigned* n = m.tets.row(t);
    for (unsigned k = 0; k < 4; ++k) {
      const unsigned a = m.ancestors[n[k]];
      if (a == t) continue;
      if (a >= T || !m.tet_live(a) || !holds(m.tets.row(a), n[k]))
        return fault_at(mesh_fault::bad_ancestor, t, NONE, n[k], "ancestor not a tet holding it");
    }
  }

  // Local empty spheres, once per interior face: the far node of the neighbour against the
  // circumsphere of the tet. Locally Delaunay everywhere means Delaunay.
  if (options.empty_sphere) {
    for (unsigned t = 0; t < T; ++t) {
      if (!m.tet_live(t)) continue;
      const unsigned* n = m.tets.row(t);
      const double* const p[4] = {xyz.col(n[0]), xyz.col(n[1]), xyz.col(n[2]), xyz.col(n[3])};
      for (unsigned i = 0; i < 4; ++i) {
        const unsigned u = m.neighbors(i, t);
        if (u == NONE || u < t) continue;
        const unsigned q = m.tets(m.neighbor_index(u, t), u);
        if (inside_sphere(p, xyz.col(q), options.sphere_tol))
          return fault_at(mesh_fault::not_delaunay, t, i, q, "neighbour's node inside sphere");
      }
    }
  }
  return mesh_check_result{};
}

}  // namespace kelvo::voxfill
