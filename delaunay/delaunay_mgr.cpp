// The Delaunay kernel: enclosing cube, shell nodes, random insertion with retries, and the
// insertion of one node by cavity replacement.
#include "delaunay/delaunay_mgr.h"

#include <cmath>

#include "delaunay/insertion_lookahead.h"
#include "delaunay/mesh_walks.h"
#include "numcore/prefetch.h"

namespace kelvo::voxfill {
namespace {

using numcore::prefetch;

// An error or an interruption already stands; no poll of the caller.
bool stop_pending(const task_type& task) noexcept {
  return *task.error_code != 0 || *task.warning_code == -10;
}

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

}  // namespace

void start_delaunay(mesh_store& m, const dense1D<unsigned>& list, const double lo[3],
                    const double hi[3], double box_factor, double shell_ratio, task_type& task) {
  const unsigned n = list.size;
  if (n == 0) return;

  double span[3], smin = 0.0, smax = 0.0;
  bool finite = true;
  for (unsigned k = 0; k < 3; ++k) {
    span[k] = hi[k] - lo[k];
    finite = finite && std::isfinite(span[k]);
    if (k == 0 || span[k] < smin) smin = span[k];
    if (k == 0 || span[k] > smax) smax = span[k];
  }
  if (!finite || smax == NO_VALUE) {
    task.raise_error(msg::illegal_coordinates);
    return;
  }
  if (smin == 0.0) {
    task.raise_error(msg::aligned_nodes);
    return;
  }

  double centre[3];
  const double half = smax * box_factor * 0.5;
  for (unsigned k = 0; k < 3; ++k) {
    centre[k] = 0.5 * (lo[k] + hi[k]);
    m.box_min[k] = centre[k] - half;
    m.box_max[k] = centre[k] + half;
  }
  if (!make_cube(m)) {
    task.raise_error(msg::memory_error_run);
    return;
  }
  if (m.recompute_qualities(false) < BOX_TOL) {
    task.raise_error(msg::aligned_nodes_second);
    return;
  }

  Ptr<task_type> section = task.section(1.0, n);
  const unsigned old_mode = m.kernel_mode;
  auto finish = [&]() {
    m.cavity.clear();
    m.kernel_mode = old_mode;
    task.drop_sections(1);
  };

  // Without the octree every location would fail and the nodes would all end unenforced.
  const bool located = m.locator.build(m.box_min, m.box_max) == m.box_nodes.size;
  m.exclusion_count = 0;
  if (!located || !m.exclusion_octree.set_box(m.box_min, m.box_max)) {
    task.raise_error(msg::memory_error_run);
    finish();
    return;
  }

  const unsigned node_room = truncate_count((shell_ratio + 1.0) * n);
  if (!m.reserve(node_room, truncate_count(5.0 * node_room))) {
    task.raise_error(msg::memory_error_run);
    finish();
    return;
  }

  dense1D<unsigned> order, failed;
  if (shell_ratio > 0.0) {
    const unsigned count = truncate_count(n * shell_ratio);
    if (count) {
      if (!make_shell_nodes(m, count, centre, smax, box_factor, order)) {
        task.raise_error(msg::memory_error_run);
        finish();
        return;
      }
      m.kernel_mode = 0;
      insert_node_list(m, order.data(), order.size, false, failed, *section);
      for (unsigned k = 0; k < failed.size; ++k) m.release_node(failed[k]);
      failed.clear();
    }
  }

  if (!order.copy(list)) {
    task.raise_error(msg::memory_error_run);
    finish();
    return;
  }
  if (n > 8) {
    for (unsigned i = 1; i < n; ++i) {
      const unsigned j = unsigned(m.random_source() % (std::uint64_t(i) + 1));
      if (j == i) continue;
      const unsigned x = order[i];
      order[i] = order[j];
      order[j] = x;
    }
  }
  m.kernel_mode = 1;
  insert_node_list(m, order.data(), n, true, failed, *section);

  // Plain Delaunay cavities for the nodes that a hard face kept out, as long as that helps.
  m.kernel_mode = 0;
  dense1D<unsigned> again;
  while (failed.size && !stop_pending(task)) {
    const unsigned before = failed.size;
    again.clear();
    insert_node_list(m, failed.data(), failed.size, true, again, *section);
    const dense1D<unsigned> swap = failed;
    failed = again;
    again = swap;
    if (failed.size >= before) break;
  }
  for (unsigned k = 0; k < failed.size; ++k) m.unenforced_set.add_node(failed[k]);
  finish();
}

void insert_node_list(mesh_store& m, const unsigned* first, unsigned count, bool add_to_octree,
                      dense1D<unsigned>& failed, const task_type& task) {
  insertion_lookahead ahead;
  ahead.start(m, first, count);
  for (unsigned s = 0; s < count; ++s) {
    if (s % 10000 == 9999 && task.must_stop()) break;
    ahead.advance(m, s);
    const unsigned p = first[s];
    if (!insert_node(m, p, m.work_stack, CAVITY_TOL))
      failed.push_back(p);
    else if (add_to_octree)
      m.locator.add(p);
    task.advance(1);
  }
}

bool insert_node(mesh_store& m, unsigned p, dense1D<unsigned>& seeds, double tol) noexcept {
  seeds.clear();
  const double* P = m.nodes.row(p);
  unsigned t = NONE;
  if (!locate_tet(m, P, t, LOCATE_TOL)) {
    t = NONE;
    if (!locate_tet(m, P, t, LOCATE_TOL_WIDE)) return false;
  }
  // A node on a face or an edge touches the tets beyond it too: they are taken without a test.
  const unsigned* nbs = m.neighbors.row(t);
  for (unsigned i = 0; i < 4; ++i)
    if (nbs[i] != NONE) prefetch(m.tets.row(nbs[i]));
  for (unsigned i = 0; i < 4; ++i) {
    const unsigned nb = nbs[i];
    if (nb != NONE && locate_side(m.nodes.data, P, m.tets.row(nb), LOCATE_TOL, 0) == -1)
      seeds.push_back(nb);
  }
  seeds.push_back(t);
  collect_cavity(m, p, seeds, m.cavity, tol);
  correct_cavity(m, m.cavity, m.kernel_mode, m.hard_set);
  if (m.cavity.tets.size == 0) return false;
  return fill_star(m, m.cavity, seeds);
}

}  // namespace kelvo::voxfill
