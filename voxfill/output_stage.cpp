// The output stage: outside tets and unused nodes go, the tables close up, and the record comes
// to share them, with counts, histogram and the final lists of missing entities.
#include <algorithm>
#include <cfloat>
#include <cstddef>
#include <cstdint>
#include <new>
#include <vector>

#include "delaunay/geometry.h"
#include "delaunay/mesh_walks.h"
#include "voxfill/delaunay_th4.h"
#include "voxfill/optim/move_merit.h"

namespace kelvo::voxfill {
namespace {

// set_ancestors(t, t + 1) for each live tet (of the domain only, when asked) in row order, the
// last write winning as there, through plain pointers.
void set_live_ancestors(mesh_store& m, bool domain_only) noexcept {
  const unsigned T = m.tets.cols();
  if (T == 0 || m.ancestors.empty()) return;
  const unsigned ld = m.tets.data.ld;
  const unsigned* rows = m.tets.data.col(0);
  const unsigned* colors = m.colors.begin();
  unsigned* anc = m.ancestors.begin();
  for (unsigned t = 0; t < T; ++t) {
    const unsigned c = colors[t];
    if (domain_only ? !color_in_domain(c) : c == DELETED) continue;
    const unsigned* n = rows + std::size_t(ld) * t;
    anc[n[0]] = t, anc[n[1]] = t, anc[n[2]] = t, anc[n[3]] = t;
  }
}

}  // namespace

void th4_engine::drop_outside(unsigned first_node) {
  // The visit marks (a word per tet row) are scratch that nothing after this reads: they go
  // before the compaction's map comes, which lowers the run's peak.
  marks.clear_hard();
  bool released = false;
  const unsigned count = tets.cols();
  for (unsigned t = 0; t < count; ++t) {
    if (!tet_unclassified(t)) continue;
    for (unsigned i = 0; i < 4; ++i) {
      const unsigned u = neighbors(i, t);
      if (u == NONE || !tet_in_domain(u)) continue;
      const unsigned j = neighbor_index(u, t);
      if (j < 4) neighbors(j, u) = NONE;  // the face is on the hull from now on
    }
    release_tet(t);
    released = true;
  }
  if (lost_rows) {
    // A row that could not be freed would come out as a tet: the run ends with a memory error.
    raise_error(msg::memory_error_run);
    empty_mesh();
    lost_rows = false;
    released = true;
  }
  if (released) {
    ancestors.clear();
    ancestors.resize(nodes.cols(), NONE);
    set_live_ancestors(*this, false);
  }
  for (unsigned n = first_node; n < nodes.cols(); ++n) {
    if (ancestors[n] != NONE || nodes.is_free(n)) continue;
    release_node(n);  // also takes it out of the locator's octree
  }
  box_nodes.clear();
  dense1D<unsigned> map;
  compact_tets(map);
  compact_nodes(map);
}

unsigned th4_engine::compact_tets(dense1D<unsigned>& map) {
  const unsigned old = tets.cols();
  // The two tables are released together, so their free lists are the same as a rule: then one
  // pass moves both rows and the row's other entries, with the free rows found by marks in the
  // map rather than by sorting the free list. The rows end where the table's own compaction
  // puts them.
  const dense1D<unsigned>& fs = tets.free_stack;
  const bool twin = neighbors.cols() == old && neighbors.free_stack.size == fs.size &&
                    std::equal(fs.begin(), fs.end(), neighbors.free_stack.begin()) &&
                    tets.data.rows == 4 && tets.data.ld == 4 && neighbors.data.rows == 4 &&
                    neighbors.data.ld == 4 && colors.size >= old && tet_stamps.size >= old &&
                    tet_qualities.size >= old;
  unsigned count;
  if (!twin) {
    count = tets.compact(map);
    if (count == old) return count;
    dense1D<unsigned> same;
    neighbors.compact(same);
  } else {
    unsigned dead = 0;
    for (unsigned k = 0; k < fs.size; ++k) dead += fs[k] < old;
    map.clear();
    if (!map.resize(old, dead == 0 || dead == old ? NONE : 0u)) throw std::bad_alloc();
    if (dead == 0) {
      for (unsigned i = 0; i < old; ++i) map[i] = i;
      return old;
    }
    count = 0;
    if (dead != old) {
      for (unsigned k = 0; k < fs.size; ++k)
        if (fs[k] < old) map[fs[k]] = NONE;
      unsigned* T4 = tets.data.col(0);
      unsigned* N4 = neighbors.data.col(0);
      unsigned* M = map.begin();
      for (unsigned row = 0; row < old; ++row) {
        if (M[row] == NONE) continue;
        if (count < row) {
          std::copy_n(T4 + 4 * std::size_t(row), 4, T4 + 4 * std::size_t(count));
          std::copy_n(N4 + 4 * std::size_t(row), 4, N4 + 4 * std::size_t(count));
          colors[count] = colors[row];
          tet_stamps[count] = tet_stamps[row];
          tet_qualities[count] = tet_qualities[row];
        }
        M[row] = count++;
      }
    }
    tets.set_columns(count);
    neighbors.set_columns(count);
  }
  const unsigned m = map.size;
  auto remap = [&](unsigned& e) {
    if (e < m) e = map[e];
  };
  if (neighbors.data.ld == 4) {
    // Through plain pointers: the map and the table are both words, which keeps the compiler from
    // reloading either per entry.
    unsigned* N = count ? neighbors.data.col(0) : nullptr;
    const unsigned* M = map.begin();
    for (std::size_t k = 0, end = 4 * std::size_t(count); k < end; ++k) {
      const unsigned e = N[k];
      N[k] = e < m ? M[e] : e;
    }
  } else {
    for (unsigned t = 0; t < count; ++t)
      for (unsigned i = 0; i < 4; ++i) remap(neighbors(i, t));
  }
  for (unsigned& a : ancestors) remap(a);
  if (!twin)
    for (unsigned i = 0; i < old; ++i) {
      const unsigned k = map[i];
      if (k == NONE) continue;
      colors[k] = colors[i];
      tet_stamps[k] = tet_stamps[i];
      tet_qualities[k] = tet_qualities[i];
    }
  colors.resize(count);
  tet_stamps.resize(count);
  tet_qualities.resize(count);
  return count;
}

unsigned th4_engine::compact_nodes(dense1D<unsigned>& map) {
  const unsigned old = nodes.cols();
  const unsigned count = nodes.compact(map);
  if (count == old) return count;
  const unsigned m = map.size;
  if (tets.data.ld == 4) {
    unsigned* R = tets.cols() ? tets.data.col(0) : nullptr;
    const unsigned* M = map.begin();
    for (std::size_t k = 0, end = 4 * std::size_t(tets.cols()); k < end; ++k) {
      const unsigned e = R[k];
      R[k] = e < m ? M[e] : e;
    }
  } else {
    for (unsigned t = 0; t < tets.cols(); ++t)
      for (unsigned i = 0; i < 4; ++i) {
        unsigned& e = tets(i, t);
        if (e < m) e = map[e];
      }
  }
  for (unsigned i = 0; i < old; ++i) {
    const unsigned k = map[i];
    if (k == NONE) continue;
    ancestors[k] = ancestors[i];
    if (!node_sizes.empty()) node_sizes[k] = node_sizes[i];
  }
  ancestors.resize(count);
  if (!node_sizes.empty()) node_sizes.resize(count);
  return count;
}

void th4_engine::empty_mesh() {
  tets.clear_hard();
  neighbors.clear_hard();
  tet_qualities.clear_hard();
  colors.clear_hard();
  tet_stamps.clear_hard();
  ancestors = NONE;
}

void th4_engine::turn_all_tets() {
  for (unsigned t = 0; t < tets.cols(); ++t) {
    std::swap(tets(1, t), tets(2, t));
    std::swap(neighbors(1, t), neighbors(2, t));
  }
}

bool th4_engine::write_output(mesher::data_type& data, unsigned first_node) {
  bool ok = data.pos.resize(3, first_node);
  if (ok && nodes.cols() > first_node)
    ok = append(data.pos, nodes.data.sub_matrix(0, first_node, 3, nodes.cols() - first_node));
  data.metrics = node_sizes;
  data.connectM = tets.data;
  data.neighbors = neighbors.data;
  data.shape_qualities = tet_qualities;
  data.ancestors = ancestors;
  data.colors = colors;
  data.hard_nodes_out = hard_set.node_count;
  data.hard_edges_out = hard_set.edges.size();
  data.hard_faces_out = hard_set.faces.size();
  unsigned unused = 0;
  for (unsigned a : data.ancestors) unused += a == NONE;
  data.total_node_count = data.pos.cols;
  data.used_node_count = data.pos.cols > unused ? data.pos.cols - unused : 0;
  data.tet_count = data.connectM.cols;
  if (!data.colors.empty()) {
    unsigned top = 0;
    for (unsigned c : data.colors) top = std::max(top, c);
    data.subdomains = top + 1;
  }
  data.histo_Qs.clear_hits();
  data.histo_Qs.process(data.shape_qualities);
  return ok;
}

void th4_engine::fill_histo_Qh(histogram& h) const {
  h.clear_hits();
  dense1D<std::uint64_t> edges;
  if (!edges_of_live_tets(*this, edges)) return;  // a histogram is not worth failing the run for
  for (const std::uint64_t e : edges)
    h.process(metric_length(*this, unsigned(e >> 32), unsigned(e & 0xFFFFFFFFu)));
}

void th4_engine::update_missing_lists(mesher::data_type& data) {
  data.hard_nodes_out = data.hard_edges_out = data.hard_faces_out = 0;
  if (data.connectM.empty()) return;
  // Tets per node, only for the nodes that the lists name: two sorted lists meet in a merge.
  auto tets_per_node = [&](const dense2D<unsigned>& table, const dense1D<unsigned>& columns,
                           std::vector<std::vector<unsigned>>& per_node,
                           std::vector<unsigned>& slot) {
    slot.assign(nodes.cols(), NONE);
    per_node.clear();
    for (unsigned e : columns)
      for (unsigned k = 0; k < table.rows; ++k) {
        const unsigned n = table(k, e);
        if (n < slot.size() && slot[n] == NONE) {
          slot[n] = unsigned(per_node.size());
          per_node.emplace_back();
        }
      }
    for (unsigned t = 0; t < tets.cols(); ++t) {
      if (tet_deleted(t)) continue;
      for (unsigned k = 0; k < 4; ++k) {
        const unsigned n = tets(k, t);
        if (n < slot.size() && slot[n] != NONE) per_node[slot[n]].push_back(t);
      }
    }
  };
  auto common = [](const std::vector<unsigned>& a, const std::vector<unsigned>& b) {
    for (size_t i = 0, j = 0; i < a.size() && j < b.size();) {
      if (a[i] == b[j]) return true;
      a[i] < b[j] ? ++i : ++j;
    }
    return false;
  };
  std::vector<std::vector<unsigned>> per_node;
  std::vector<unsigned> slot;
  auto edge_in_mesh = [&](unsigned a, unsigned b) {
    if (a >= ancestors.size || b >= ancestors.size || ancestors[a] == NONE || ancestors[b] == NONE)
      return false;
    if (a >= slot.size() || b >= slot.size() || slot[a] == NONE || slot[b] == NONE) return false;
    return common(per_node[slot[a]], per_node[slot[b]]);
  };
  if (!data.missing_edges.empty()) {
    tets_per_node(data.connectE, data.missing_edges, per_node, slot);
    unsigned kept = 0;
    for (unsigned e : data.missing_edges) {
      const unsigned a = data.connectE(0, e), b = data.connectE(1, e);
      if (edge_in_mesh(a, b)) continue;
      hard_set.edges.erase(edge_key{{a, b}});
      hard_set.two_way_edges.erase(edge_key{{a, b}});
      data.missing_edges[kept++] = e;
    }
    data.missing_edges.size = kept;
  }
  if (!data.missing_faces.empty()) {
    tets_per_node(data.connectB, data.missing_faces, per_node, slot);
    unsigned kept = 0;
    for (unsigned e : data.missing_faces) {
      const unsigned a = data.connectB(0, e), b = data.connectB(1, e), c = data.connectB(2, e);
      bool present = false;
      if (a < slot.size() && b < slot.size() && c < slot.size() && slot[a] != NONE &&
          slot[b] != NONE && slot[c] != NONE) {
        // A tet in all three sorted lists.
        const auto &la = per_node[slot[a]], &lb = per_node[slot[b]], &lc = per_node[slot[c]];
        for (unsigned t : la)
          if (std::binary_search(lb.begin(), lb.end(), t) &&
              std::binary_search(lc.begin(), lc.end(), t)) {
            present = true;
            break;
          }
      }
      if (present) continue;
      hard_set.faces.erase(face_key{{a, b, c}});
      hard_set.two_way_faces.erase(face_key{{a, b, c}});
      const unsigned side[3][2] = {{b, c}, {c, a}, {a, b}};
      for (const auto& s : side)
        if (!edge_in_mesh(s[0], s[1])) {
          hard_set.edges.erase(edge_key{{s[0], s[1]}});
          hard_set.two_way_edges.erase(edge_key{{s[0], s[1]}});
        }
      data.missing_faces[kept++] = e;
    }
    data.missing_faces.size = kept;
  }
  data.hard_nodes_out = hard_set.node_count > data.missing_nodes.size
                            ? hard_set.node_count - data.missing_nodes.size
                            : 0;
  data.hard_edges_out = hard_set.edges.size() + hard_set.two_way_edges.size();
  data.hard_faces_out = hard_set.faces.size() + hard_set.two_way_faces.size();
}

double th4_engine::min_quality() const {
  double q = DBL_MAX;
  bool any = false;
  for (unsigned t = 0; t < tets.cols(); ++t) {
    if (!tet_in_domain(t) || tet_qualities[t] == -DBL_MAX) continue;
    q = std::min(q, tet_qualities[t]);
    any = true;
  }
  return any ? q : 0.0;
}

double th4_engine::domain_volume() const {
  double v = 0.0;
  for (unsigned t = 0; t < tets.cols(); ++t) {
    if (!tet_in_domain(t)) continue;
    const unsigned* n = tets.row(t);
    v += orient_det(nodes.data, n[0], n[1], n[2], n[3]);
  }
  return v / 6.0;
}

void th4_engine::set_domain_ancestors() {
  set_live_ancestors(*this, true);
}

}  // namespace kelvo::voxfill
