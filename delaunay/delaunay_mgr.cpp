// The Delaunay kernel: enclosing cube, shell nodes, random insertion with retries, and the
// insertion of one node by cavity replacement.
#include "delaunay/delaunay_mgr.h"

#include <cmath>

#include "delaunay/insertion_order.h"
#include "delaunay/mesh_walks.h"
#include "numcore/prefetch.h"

namespace kelvo::voxfill {
namespace {

using numcore::prefetch;

// Counts from a double, saturated to the unsigned range.
unsigned truncate_count(double x) noexcept {
  if (!(x > 0.0)) return 0;
  return x >= 4294967295.0 ? 0xFFFFFFFFu : unsigned(x);
}

// The cube box_min..box_max as five tets: a regular one in the middle (c1, c4, c3, c6) and a
// corner tet on each of its faces. False when memory ran out.
bool make_cube(mesh_store& m) noexcept {
  const double* lo = m.box_min;
  const double* hi = m.box_max;
  // Corners c0..c3 at z = lo counter-clockwise from (lo, lo), c4..c7 the same at z = hi.
  static constexpr bool x_hi[8] = {false, true, true, false, false, true, true, false};
  static constexpr bool y_hi[8] = {false, false, true, true, false, false, true, true};
  unsigned c[8];
  m.box_nodes.clear();
  for (unsigned k = 0; k < 8; ++k) {
    c[k] =
        m.new_node(x_hi[k] ? hi[0] : lo[0], y_hi[k] ? hi[1] : lo[1], k >= 4 ? hi[2] : lo[2], 0.0);
    if (c[k] == NONE) return false;
    m.box_nodes.push_back(c[k]);
  }
  if (m.box_nodes.size != 8) return false;
  const unsigned rows[5][4] = {{c[1], c[4], c[3], c[6]},
                               {c[1], c[3], c[4], c[0]},
                               {c[1], c[4], c[6], c[5]},
                               {c[1], c[6], c[3], c[2]},
                               {c[4], c[3], c[6], c[7]}};
  unsigned t[5];
  for (unsigned k = 0; k < 5; ++k) {
    t[k] = m.new_tet(rows[k][0], rows[k][1], rows[k][2], rows[k][3], NONE, 0.0);
    if (t[k] == NONE) return false;
  }
  // The middle tet meets each corner tet across the corner tet's face 3.
  unsigned* nb = m.neighbors.row(t[0]);
  nb[0] = t[4], nb[1] = t[3], nb[2] = t[2], nb[3] = t[1];
  for (unsigned k = 1; k < 5; ++k) m.neighbors(3, t[k]) = t[0];
  m.ancestors[c[0]] = t[1], m.ancestors[c[4]] = t[1];
  m.ancestors[c[1]] = t[0], m.ancestors[c[3]] = t[0];
  m.ancestors[c[2]] = t[3];
  m.ancestors[c[5]] = t[2];
  m.ancestors[c[6]] = t[4], m.ancestors[c[7]] = t[4];
  return true;
}

// `count` random points on the faces of a lattice cube midway between the nodes' box and the
// enclosing cube, made as new nodes and listed in `out`. False when memory ran out.
bool make_shell_nodes(mesh_store& m, unsigned count, const double centre[3], double smax,
                      double box_factor, dense1D<unsigned>& out) noexcept {
  const double half = std::floor(std::sqrt(double(count) / 6.0) + 0.5);
  const unsigned steps = half > 1.0 ? unsigned(half) : 1u;
  const unsigned N = 2 * steps;
  const double h = (box_factor + 1.0) * 0.25 * smax / N;
  const unsigned range = 2 * N + 1;
  out.clear();
  if (!out.reserve(count)) return false;
  for (unsigned s = 0; s < count; ++s) {
    double offset[3];
    for (unsigned i = 0; i < 3; ++i) {
      const int k = int(unsigned(m.random_source() % range)) - int(N);
      offset[i] = k * h;
    }
    const unsigned axis = unsigned(m.random_source() % 3);
    offset[axis] = offset[axis] < 0.0 ? -(N * h) : N * h;
    const unsigned n =
        m.new_node(centre[0] + offset[0], centre[1] + offset[1], centre[2] + offset[2], 0.0);
    if (n == NONE) return false;
    out.push_back(n);
  }
  return true;
}

// The largest extent of the box lo..hi, checked: finite and not flat along an axis.
kernel_status check_box(const double lo[3], const double hi[3], double& smax) noexcept {
  double smin = 0.0;
  bool finite = true;
  for (unsigned k = 0; k < 3; ++k) {
    const double span = hi[k] - lo[k];
    finite = finite && std::isfinite(span);
    if (k == 0 || span < smin) smin = span;
    if (k == 0 || span > smax) smax = span;
  }
  if (!finite || smax == NO_VALUE) return kernel_status::illegal_coordinates;
  if (smin == 0.0) return kernel_status::aligned_nodes;
  return kernel_status::ok;
}

// The enclosing cube of half side `half` around `centre`, as five tets, with its qualities; the
// locator's octree on it, and the exclusion octree's box. The octree's build may throw
// std::bad_alloc, as may the scratch lists of the steps below: the run's catch reports it.
kernel_status make_enclosing_box(mesh_store& m, const double centre[3], double half) {
  for (unsigned k = 0; k < 3; ++k) {
    m.box_min[k] = centre[k] - half;
    m.box_max[k] = centre[k] + half;
  }
  if (!make_cube(m)) return kernel_status::out_of_memory;
  if (m.recompute_qualities(false) < BOX_TOL) return kernel_status::degenerate_box;
  // Without the octree every location would fail and the nodes would all end unenforced.
  if (m.locator.build(m.box_min, m.box_max) != m.box_nodes.size)
    return kernel_status::out_of_memory;
  m.exclusion_count = 0;
  if (!m.exclusion_octree.set_box(m.box_min, m.box_max)) return kernel_status::out_of_memory;
  return kernel_status::ok;
}

// Shell nodes on a lattice cube around the list's box, inserted plainly; those that fail are
// released. They keep the outer tets of the mesh away from the list's nodes.
kernel_status insert_shell_nodes(mesh_store& m, kernel_workspace& ws, unsigned count,
                                 const double centre[3], double smax, double box_factor,
                                 kernel_progress& progress) {
  dense1D<unsigned> shell, failed;
  if (!make_shell_nodes(m, count, centre, smax, box_factor, shell))
    return kernel_status::out_of_memory;
  m.kernel_mode = kernel_mode_type::plain;
  const kernel_status status =
      insert_node_list(m, ws, shell.data(), shell.size, false, failed, progress);
  for (unsigned k = 0; k < failed.size; ++k) m.release_node(failed[k]);
  return status;
}

// The list in insertion order, kept out of hard faces; then the failures again with plain
// cavities, in the order they failed, as long as a pass lowers their number. What never went in
// is put into `unenforced_set`.
kernel_status insert_list(mesh_store& m, kernel_workspace& ws, dense1D<unsigned>& list,
                          kernel_progress& progress) {
  dense1D<unsigned> failed, again;
  dense1D<unsigned>& order = list;  // reordered in place: no second list of every node
  if (!order_for_insertion(m.nodes.row(0), order.data(), order.size, m.random_source))
    return kernel_status::out_of_memory;
  m.kernel_mode = kernel_mode_type::hard_faces;
  kernel_status status = insert_node_list(m, ws, order.data(), order.size, true, failed, progress);

  m.kernel_mode = kernel_mode_type::plain;
  while (status == kernel_status::ok && failed.size && !progress.stopped) {
    const unsigned before = failed.size;
    again.clear();
    status = insert_node_list(m, ws, failed.data(), failed.size, true, again, progress);
    const dense1D<unsigned> swap = failed;
    failed = again;
    again = swap;
    if (failed.size >= before) break;
  }
  for (unsigned k = 0; k < failed.size; ++k) m.unenforced_set.add_node(failed[k]);
  return status;
}

}  // namespace

kernel_status start_delaunay(mesh_store& m, kernel_workspace& ws, dense1D<unsigned>& list,
                             const double lo[3], const double hi[3], double box_factor,
                             double shell_ratio, kernel_progress& progress) {
  const unsigned n = list.size;
  if (n == 0) return kernel_status::ok;
  double smax = 0.0, centre[3];
  kernel_status status = check_box(lo, hi, smax);
  if (status != kernel_status::ok) return status;
  for (unsigned k = 0; k < 3; ++k) centre[k] = 0.5 * (lo[k] + hi[k]);

  const kernel_mode_type old_mode = m.kernel_mode;
  status = make_enclosing_box(m, centre, smax * box_factor * 0.5);
  if (status == kernel_status::ok) {
    const unsigned node_room = truncate_count((shell_ratio + 1.0) * n);
    if (!m.reserve(node_room, truncate_count(5.0 * node_room)))
      status = kernel_status::out_of_memory;
  }
  const unsigned shell_count = shell_ratio > 0.0 ? truncate_count(n * shell_ratio) : 0;
  if (status == kernel_status::ok && shell_count)
    status = insert_shell_nodes(m, ws, shell_count, centre, smax, box_factor, progress);
  if (status == kernel_status::ok) status = insert_list(m, ws, list, progress);

  ws.cavity.clear();
  m.kernel_mode = old_mode;
  return status;
}

kernel_status insert_node_list(mesh_store& m, kernel_workspace& ws, const unsigned* first,
                               unsigned count, bool add_to_octree, dense1D<unsigned>& failed,
                               kernel_progress& progress) {
  // Insertions leave the hard set as it is, so a list that is long next to it sums up its faces
  // once, in bits that spare the cavities most of their lookups.
  struct held_bits {
    kernel_workspace& ws;
    ~held_bits() { forget_hard_face_bits(ws); }
  } held{ws};
  if (m.kernel_mode != kernel_mode_type::plain && m.hard_set.faces.size() > 0 &&
      4 * std::size_t(count) >= m.hard_set.faces.size())
    make_hard_face_bits(ws, m.hard_set);
  for (unsigned s = 0; s < count; ++s) {
    if (s % 10000 == 9999 && progress.poll()) break;
    const unsigned p = first[s];
    if (insert_node(m, ws, p, ws.seeds, CAVITY_TOL)) {
      if (add_to_octree) m.locator.add(p);
    } else {
      // A node refused for want of memory is not a node that cannot go in.
      if (ws.cavity.out_of_memory) return kernel_status::out_of_memory;
      const unsigned before = failed.size;
      failed.push_back(p);
      if (failed.size == before) return kernel_status::out_of_memory;
    }
    progress.step();
  }
  return kernel_status::ok;
}

bool insert_node(mesh_store& m, kernel_workspace& ws, unsigned p, dense1D<unsigned>& seeds,
                 double tol) noexcept {
  seeds.clear();
  ws.cavity.out_of_memory = false;
  const double* P = m.nodes.row(p);
  unsigned t = NONE;
  if (!locate_tet(m, P, t, LOCATE_TOL)) {
    t = NONE;
    if (!locate_tet(m, P, t, LOCATE_TOL_WIDE)) return false;
  }
  auto seed = [&](unsigned s) {
    const unsigned before = seeds.size;
    seeds.push_back(s);
    ws.cavity.out_of_memory = seeds.size == before;
    return !ws.cavity.out_of_memory;
  };
  // A node on a face or an edge touches the tets beyond it too: they are taken without a test.
  const unsigned* nbs = m.neighbors.row(t);
  for (unsigned i = 0; i < 4; ++i)
    if (nbs[i] != NONE) prefetch(m.tets.row(nbs[i]));
  for (unsigned i = 0; i < 4; ++i) {
    const unsigned nb = nbs[i];
    if (nb != NONE && locate_side(m.nodes.data, P, m.tets.row(nb), LOCATE_TOL, 0) == -1 &&
        !seed(nb))
      return false;
  }
  if (!seed(t)) return false;
  collect_cavity(m, p, seeds, ws.cavity, tol);
  correct_cavity(m, ws, ws.cavity, m.kernel_mode, m.hard_set);
  if (ws.cavity.tets.size == 0) return false;
  return fill_star(m, ws, ws.cavity, seeds);
}

}  // namespace kelvo::voxfill
