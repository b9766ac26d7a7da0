// The recovery driver: passes over the absent faces and edges with growing budgets of Steiner
// nodes, clean-up of tangles, seeding of what stalls, and the last removal of Steiner nodes.
#include "voxfill/boundary/boundary_recoverer.h"

#include <algorithm>
#include <array>
#include <cfloat>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "delaunay/delaunay_mgr.h"
#include "delaunay/mesh_check.h"
#include "delaunay/mesh_walks.h"
#include "voxfill/boundary/domain_classification.h"
#include "voxfill/boundary/edge_recovery.h"
#include "voxfill/boundary/face_recovery.h"
#include "voxfill/boundary/hard_entities.h"
#include "voxfill/boundary/node_reinsertion.h"
#include "voxfill/delaunay_th4.h"
#include "voxfill/optim/regularize_mesh.h"
#include "voxfill/optim/regularizer.h"

namespace kelvo::voxfill {

boundary_recoverer::boundary_recoverer(th4_engine& e, Ptr<task_type> t, unsigned limit)
    : engine(e), store(e), task(t), steiner_limit(limit), steiner(e, t) {
  crossing_stack.reserve(64);
  sort_keys.reserve(64);
  sort_scratch.reserve(64);
  crossing.reserve(64);
  crossing_2.reserve(64);
}

boundary_recoverer::~boundary_recoverer() = default;

namespace {

// The lists of one recovery and where the passes stand.
struct recovery_state {
  std::vector<face_key> faces;
  std::vector<edge_key> edges;
  dense1D<unsigned> nodes;
  unsigned faces_given_up = 0, edges_given_up = 0;
  unsigned steiner_budget = 4;
  unsigned pass = 0, stalled_passes = 0, poor_passes = 0;
  bool poor = false, stalled = false;
  unsigned best_absent_nodes = 0, node_failures = 0;
  dense1D<unsigned> hard_node_order;  // empty when no hard node was absent at the start
};

void collect(boundary_recoverer& r, const dense2D<unsigned>& connectB,
             const dense2D<unsigned>& connectE, const dense1D<unsigned>& isolated,
             recovery_state& s, hard_face_tets* face_tets = nullptr) {
  std::vector<std::array<unsigned, 3>> faces;
  std::vector<std::array<unsigned, 2>> edges;
  collect_missing(r.store, connectB, connectE, isolated, true, faces, edges, s.nodes, face_tets);
  s.faces.clear();
  s.edges.clear();
  for (const auto& f : faces) s.faces.push_back(face_key{{f[0], f[1], f[2]}});
  for (const auto& e : edges) s.edges.push_back(edge_key{{e[0], e[1]}});
}

// The rule of the recovery's own shuffle: entry i swaps with entry u mod (i + 1).
template <class T>
void shuffle_range(boundary_recoverer& r, std::vector<T>& list, unsigned first) {
  for (unsigned i = 1; first + i < list.size(); ++i) {
    const unsigned j = unsigned(r.shuffle_source()) % (i + 1);
    if (j != i) std::swap(list[first + i], list[first + j]);
  }
}

void shuffle_list(boundary_recoverer& r, dense1D<unsigned>& list) {
  for (unsigned i = 1; i < list.size; ++i) {
    const unsigned j = unsigned(r.shuffle_source()) % (i + 1);
    if (j != i) std::swap(list[i], list[j]);
  }
}

// The edges and faces noted as unenforced are judged anew; the nodes stay.
void clear_unenforced_links(mesh_store& m) {
  m.unenforced_set.edges.clear_hard();
  m.unenforced_set.two_way_edges.clear_hard();
  m.unenforced_set.faces.clear_hard();
  m.unenforced_set.two_way_faces.clear_hard();
}

unsigned live_tets(const mesh_store& m) noexcept {
  return m.tets.cols() - m.tets.free_stack.size;
}

// Every node made for a seed stands on an absent entity; it is moved into its ball and becomes an
// ordinary Steiner node.
void seed_missing(boundary_recoverer& r, recovery_state& s, dense1D<unsigned>& steiner_list) {
  mesh_store& m = r.store;
  dense1D<unsigned>& made = r.edge_nodes;
  made.clear();
  auto seed = [&](const double* P) {
    const unsigned n = m.new_node(P[0], P[1], P[2], 0.0);
    if (n == NONE) return false;
    if (insert_node(m, r.engine.kernel, n, r.engine.kernel.seeds, 1e-12)) {
      push_checked(made, n);
    } else {
      m.release_node(n);
    }
    return true;
  };
  for (unsigned k = s.faces_given_up; k < s.faces.size(); ++k) {
    const face_key& f = s.faces[k];
    double G[3];
    for (unsigned i = 0; i < 3; ++i)
      G[i] = (m.nodes(i, f.n[0]) + m.nodes(i, f.n[1]) + m.nodes(i, f.n[2])) / 3.0;
    if (!seed(G)) break;
  }
  for (unsigned k = s.edges_given_up; k < s.edges.size(); ++k) {
    const edge_key& e = s.edges[k];
    double M[3];
    for (unsigned i = 0; i < 3; ++i) M[i] = 0.5 * (m.nodes(i, e.n[0]) + m.nodes(i, e.n[1]));
    if (!seed(M)) break;
  }
  smooth_steiner_nodes(r.steiner, made);
  r.counts.seeds += made.size;
  for (unsigned k = 0; k < made.size; ++k) push_checked(steiner_list, made[k]);
}

// Sweeps of the optimiser over a list of tets, with removal and smoothing of the soft nodes.
void clean_tangle(boundary_recoverer& r, recovery_state& s, dense1D<unsigned>& steiner_list) {
  mesh_store& m = r.store;
  regularizer& g = *r.optimiser;
  unsigned nodes_left = 0, moves = 0;
  dense1D<unsigned>& L = g.worst;
  const double tol = s.poor_passes * 1e-12;
  ++r.counts.tangle_cleanups;
  if (s.poor_passes % 5 == 4) {
    shuffle_list(r, steiner_list);
    for (unsigned k = 0; k < 4; ++k) {
      const unsigned removed = remove_steiner_nodes(r.steiner, steiner_list, false, true, false);
      L.clear();
      pick_worst_tets(g, 0.01, g.frozen_bits, live_tets(m) / 16, L);
      moves = 0;
      sweep_tets(g, L, 0.0, DBL_MAX, 5, false, false, 1.2, 1.2, g.edges, nodes_left, moves,
                 g.new_nodes);
      smooth_steiner_nodes(r.steiner, steiner_list);
      if (L.size >= 10 * (moves + removed)) break;
    }
    L.clear();
  }
  // The tets across what is absent.
  L.clear();
  r.crossing_seen.clear();
  dense1D<unsigned>& faces = r.coded_faces;
  auto add_edge_tets = [&](unsigned a, unsigned b) {
    faces.clear();
    const double d = std::sqrt(edge_length2(m.nodes.data, a, b)) * tol;
    crossing_tets_of_edge(r, a, b, d, faces, true);
    for (unsigned k = 0; k < faces.size; ++k) push_checked(L, faces[k] >> 2);
  };
  for (unsigned k = s.faces_given_up; k < s.faces.size(); ++k) {
    const face_key& f = s.faces[k];
    bool exists = false;
    const bool sides = face_state(r, f, exists);
    if (!sides) {
      for (unsigned i = 0; i < 3; ++i) {
        const unsigned a = f.n[(i + 1) % 3], b = f.n[(i + 2) % 3];
        if (!node_alive(m, a) || !node_alive(m, b)) continue;
        if (r.crossing_seen.insert(edge_key{{a, b}}) != 2) continue;
        add_edge_tets(a, b);
      }
    } else if (!exists) {
      double longest = 0.0;
      for (unsigned i = 0; i < 3; ++i)
        longest = std::max(longest, edge_length2(m.nodes.data, f.n[i], f.n[(i + 1) % 3]));
      std::vector<edge_key>& crossing = r.crossing_2;
      crossing_edges_of_face(r, f, std::sqrt(longest) * tol, crossing);
      for (const edge_key& e : crossing) {
        const unsigned t0 = edge_tet(m, e.n[0], e.n[1]);
        if (t0 == NONE) continue;
        shell_of_edge(m, e.n[0], e.n[1], t0, r.ball_tets);
        for (unsigned i = 0; i < r.ball_tets.size; ++i) push_checked(L, r.ball_tets[i]);
      }
    }
  }
  for (unsigned k = s.edges_given_up; k < s.edges.size(); ++k) {
    const edge_key& e = s.edges[k];
    if (node_alive(m, e.n[0]) && node_alive(m, e.n[1])) add_edge_tets(e.n[0], e.n[1]);
  }
  for (unsigned k = 0; k < s.nodes.size; ++k) {
    const unsigned v = s.nodes[k];
    if (node_alive(m, v)) continue;
    unsigned t = NONE;
    if (!locate_tet(m, m.nodes.row(v), t, LOCATE_TOL) || t == NONE) continue;
    for (unsigned i = 0; i < 4; ++i) {
      const unsigned w = m.tets(i, t);
      if (!node_alive(m, w)) continue;
      ball_of_node(m, w, NONE, r.ball_tets);
      for (unsigned j = 0; j < r.ball_tets.size; ++j) push_checked(L, r.ball_tets[j]);
    }
  }
  // Each tet once, first occurrences kept; then layers across soft faces for long tangles.
  m.bump_marks();
  unsigned kept = 0;
  for (unsigned k = 0; k < L.size; ++k)
    if (!m.marked(L[k]) && m.tet_live(L[k])) {
      m.mark(L[k]);
      L[kept++] = L[k];
    }
  L.size = kept;
  unsigned expanded = 0;
  for (unsigned k = 3; k <= s.poor_passes && k <= 18; k += 3) {
    const unsigned end = L.size;
    for (; expanded < end; ++expanded) {
      const unsigned t = L[expanded];
      for (unsigned f = 0; f < 4; ++f) {
        const unsigned n = m.neighbors(f, t);
        if (n == NONE || m.marked(n)) continue;
        const unsigned* fn = tet_face_nodes[f];
        const unsigned* row = m.tets.row(t);
        if (m.hard_set.has_face(row[fn[0]], row[fn[1]], row[fn[2]])) continue;
        m.mark(n);
        push_checked(L, n);
      }
    }
  }
  std::sort(L.begin(), L.end(), [&m](unsigned a, unsigned b) {
    const double qa = m.tet_qualities[a], qb = m.tet_qualities[b];
    return qa < qb || (qa == qb && a < b);
  });
  // The soft nodes of those tets.
  dense1D<unsigned>& S = r.ball_nodes;
  S.clear();
  m.bump_marks();
  for (unsigned k = 0; k < m.box_nodes.size; ++k) m.mark(m.box_nodes[k]);
  for (unsigned k = 0; k < L.size; ++k) {
    const unsigned* row = m.tets.row(L[k]);
    for (unsigned i = 0; i < 4; ++i)
      if (!m.marked(row[i])) {
        m.mark(row[i]);
        if (is_soft_node(m, row[i]) && node_alive(m, row[i])) push_checked(S, row[i]);
      }
  }
  for (unsigned k = 0; k < 6 && L.size; ++k) {
    moves = 0;
    sweep_tets(g, L, 0.0, DBL_MAX, 5, false, false, 1.1, 1.1, g.edges, nodes_left, moves,
               g.new_nodes);
    const unsigned removed = remove_steiner_nodes(r.steiner, S, false, true, false);
    unsigned left = 0;
    for (unsigned i = 0; i < L.size; ++i)
      if (m.tet_stamps[L[i]] != NONE && m.tet_live(L[i])) L[left++] = L[i];
    L.size = left;
    smooth_steiner_nodes(r.steiner, S);
    if (L.size >= 10 * (moves + removed)) break;
  }
}

// The passes; false when they end.
bool run_pass(boundary_recoverer& r, recovery_state& s, const dense2D<unsigned>& connectB,
              const dense2D<unsigned>& connectE, const dense1D<unsigned>& isolated,
              const Ptr<task_type>& progress, dense1D<unsigned>& steiner_list) {
  ++r.counts.passes;
  // Hard nodes first: their cavities may cut what is recovered, so all is looked up again after.
  if (s.nodes.size && s.hard_node_order.size && (s.pass % 13 == 0 || s.stalled) &&
      reinsert_hard_nodes(r, s.nodes, s.hard_node_order)) {
    collect(r, connectB, connectE, isolated, s);
    if (s.nodes.size < s.best_absent_nodes) {
      s.best_absent_nodes = s.nodes.size;
      s.node_failures = 0;
    } else if (s.stalled_passes && s.node_failures++ > 4) {
      s.stalled_passes = 12;
    }
    s.faces_given_up = s.edges_given_up = 0;
    clear_unenforced_links(r.engine);
  }
  const unsigned F = unsigned(s.faces.size()), E = unsigned(s.edges.size());
  // Without room for Steiner nodes (a mesh of given nodes) no attempt may make one.
  const unsigned budget = r.steiner_limit ? s.steiner_budget : 0;
  recover_face_list(r, s.faces, s.faces_given_up, budget, steiner_list);
  unsigned dF = F - unsigned(s.faces.size());
  progress->advance(dF);
  if (!s.edges.empty() && steiner_list.size >= r.steiner_limit) {
    r.task->raise_error(msg::nodes_limit_recovery);
    return false;
  }
  recover_edge_list(r, s.edges, s.edges_given_up, budget, steiner_list);
  unsigned dE = E - unsigned(s.edges.size());
  progress->advance(dE);
  if (s.edges.empty() && s.faces.empty()) return false;
  if (!s.edges.empty() && steiner_list.size >= r.steiner_limit) {
    r.task->raise_error(msg::nodes_limit_recovery_end);
    return false;
  }
  if (s.edges_given_up == s.edges.size() && s.faces_given_up == s.faces.size()) {
    if (!s.nodes.size) return false;
    s.edges_given_up = s.faces_given_up = 0;
    dF = dE = 0;
  }
  if (s.stalled_passes >= 12) return false;
  if (s.steiner_budget >= 10) {
    const unsigned T = dF + dE;
    const unsigned R = F - s.faces_given_up - s.edges_given_up + E;
    s.poor = 5 * T < R;
    if (s.poor) ++s.poor_passes;
    s.stalled = T == 0;
    s.stalled_passes = T == 0 ? s.stalled_passes + 1 : 0;
  }
  if (s.pass % 3 == 2) remove_steiner_nodes(r.steiner, steiner_list, false, true, false);
  if (s.poor) clean_tangle(r, s, steiner_list);
  if (s.stalled_passes % 5 == 1 && r.steiner_limit) seed_missing(r, s, steiner_list);
  for (unsigned k = s.faces_given_up; k < s.faces.size(); ++k) {
    face_key& f = s.faces[k];
    f = face_key{{f.n[1], f.n[2], f.n[0]}};
  }
  if (s.stalled_passes % 4 == 3) {
    shuffle_range(r, s.edges, s.edges_given_up);
    shuffle_range(r, s.faces, s.faces_given_up);
    for (unsigned k = s.faces_given_up; k < s.faces.size(); ++k)
      std::swap(s.faces[k].n[0], s.faces[k].n[2]);
  }
  if (s.steiner_budget != NONE) {
    s.steiner_budget += 2;
    if (s.steiner_budget > 32) s.steiner_budget = NONE;
  }
  ++s.pass;
  return !r.must_stop();
}

}  // namespace

void recover_boundary(boundary_recoverer& r, const dense2D<unsigned>& connectB,
                      const dense2D<unsigned>& connectE, const dense1D<unsigned>& isolated_nodes,
                      dense1D<unsigned>& steiner_list) {
  th4_engine& m = r.engine;
  const auto started = std::chrono::steady_clock::now();
  struct clock_guard {
    recovery_counts& counts;
    std::chrono::steady_clock::time_point started;
    ~clock_guard() {
      counts.seconds =
          std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    }
  } timing{r.counts, started};
  const kernel_mode_type saved_mode = m.kernel_mode;
  steiner_list.clear();
  // Absent nodes are noted again by their reinsertion, with the hard node in their way.
  clear_unenforced_links(m);
  m.unenforced_set.node_bits.clear();
  m.unenforced_set.node_count = 0;
  recovery_state s;
  collect(r, connectB, connectE, isolated_nodes, s, &r.face_tets);
  if (s.faces.empty() && s.edges.empty() && !s.nodes.size) return;
  r.face_tets.usable = false;  // the tets change from here on

  Ptr<task_type> progress = r.task->section(1.0, unsigned(s.faces.size() + s.edges.size()));
  Ptr<task_type> moves = r.task->section(0.0, 0);
  r.optimiser = std::make_unique<regularizer>(m, false, false, false);
  r.optimiser->task = moves;
  {
    // Hard and box nodes stay where they are; no tet is frozen while nothing is classified.
    bit_set& settled = r.optimiser->settled_nodes;
    settled.clear();
    if (!settled.grow(m.nodes.cols())) throw std::bad_alloc();
    for (unsigned n = 0; n < m.nodes.cols(); ++n)
      if (m.hard_set.has_node(n)) settled.set(n);
    for (unsigned k = 0; k < m.box_nodes.size; ++k) settled.set(m.box_nodes[k]);
  }
  r.shuffle_source.seed(1u);
  m.kernel_mode = kernel_mode_type::hard_edges;
  s.best_absent_nodes = s.nodes.size;
  if (s.nodes.size && build_hard_node_order(connectB, connectE, isolated_nodes, m.nodes.cols(),
                                            s.hard_node_order) != 0)
    r.task->raise_error(msg::memory_error_recovery);

  try {
    while (!r.must_stop() &&
           run_pass(r, s, connectB, connectE, isolated_nodes, progress, steiner_list)) {
    }
    std::sort(steiner_list.begin(), steiner_list.end());
    steiner_list.size =
        unsigned(std::unique(steiner_list.begin(), steiner_list.end()) - steiner_list.begin());
    // The last clean-up: worst tets, smoothing and removal while removal still pays.
    while (steiner_list.size && !r.must_stop()) {
      unsigned nodes_left = 0, count = 0;
      regularizer& g = *r.optimiser;
      improve_worst(g, 0.01, live_tets(m) / 16, 0.0, DBL_MAX, 5, false, false, 1.2, 1.2, g.worst,
                    g.edges, nodes_left, count, g.new_nodes);
      smooth_steiner_nodes(r.steiner, steiner_list);
      const unsigned removed = remove_steiner_nodes(r.steiner, steiner_list, false, true, true);
      if (!(steiner_list.size < 30 * removed)) break;
    }
  } catch (const std::bad_alloc&) {
    // Every change is made whole or not at all: the mesh is sound, only the work stops here.
    r.task->raise_error(msg::memory_error_recovery);
  }
  propagate_unenforced(m);
  dense1D<unsigned> map;
  m.compact_tets(map);
  if (steiner_list.size) {
    m.compact_nodes(map);
    unsigned kept = 0;
    for (unsigned k = 0; k < steiner_list.size; ++k) {
      const unsigned v = steiner_list[k] < map.size ? map[steiner_list[k]] : NONE;
      if (v != NONE) steiner_list[kept++] = v;
    }
    steiner_list.size = kept;
  }
  m.kernel_mode = saved_mode;
  r.task->drop_sections(2);
#ifdef VOXFILL_CHECKS
  // Every change above is applied whole or not at all: the mesh must be sound at every exit.
  mesh_check_options options;
  options.stored_qualities = true;
  const mesh_check_result check = check_mesh(m, options);
  if (!check.ok && check.fault != mesh_fault::no_memory) {
    std::fprintf(stderr, "%s:%d: mesh after the boundary recovery: %s\n", __FILE__, __LINE__,
                 check.text);
    std::abort();
  }
#endif
}

}  // namespace kelvo::voxfill
