// A numbering of the input nodes for locality: a Cuthill-McKee walk over the boundary's
// adjacency from a far node of each piece, then the hard edges and nodes, the free nodes in front.
#include "voxfill/node_ordering.h"

#include <algorithm>
#include <cstdint>
#include <new>
#include <vector>

#include "gridkit/connectivity.h"

namespace kelvo::voxfill {
namespace {

constexpr unsigned kNone = 0xFFFFFFFFu;

// Adjacency of the nodes over the triangles of a table: the neighbours of v are
// adjacent[first[v] .. first[v + 1]), in increasing order, each once. May throw std::bad_alloc.
struct node_graph {
  std::vector<unsigned> first;
  std::vector<unsigned> adjacent;

  node_graph(const dense2D<unsigned>& triangles, unsigned n) : first(std::size_t(n) + 1, 0u) {
    // The links bucketed by their first node (a counting pass, then a filling pass), each bucket
    // sorted and cut to distinct nodes: the lists that a sort of all the pairs would give, without
    // sorting them all.
    const unsigned cols = triangles.empty() ? 0 : triangles.cols;
    const auto valid = [n](unsigned a, unsigned b) { return a != b && a < n && b < n; };
    std::vector<std::size_t> start(std::size_t(n) + 1, 0);
    for (unsigned j = 0; j < cols; ++j) {
      const unsigned* c = triangles.col(j);
      for (unsigned i = 0; i < 3; ++i) {
        const unsigned a = c[i], b = c[(i + 1) % 3];
        if (!valid(a, b)) continue;
        ++start[a + 1];
        ++start[b + 1];
      }
    }
    for (unsigned v = 0; v < n; ++v) start[v + 1] += start[v];
    std::vector<unsigned> links(start[n]);
    std::vector<std::size_t> fill(start.begin(), start.end() - 1);
    for (unsigned j = 0; j < cols; ++j) {
      const unsigned* c = triangles.col(j);
      for (unsigned i = 0; i < 3; ++i) {
        const unsigned a = c[i], b = c[(i + 1) % 3];
        if (!valid(a, b)) continue;
        links[fill[a]++] = b;
        links[fill[b]++] = a;
      }
    }
    adjacent.reserve(links.size());
    // On a closed surface each link comes twice, once from each triangle of the side: a stamp
    // per node drops the repeats before they are sorted in.
    std::vector<unsigned> stamp(n, kNone);
    for (unsigned v = 0; v < n; ++v) {
      unsigned* lo = links.data() + start[v];
      unsigned* hi = links.data() + start[v + 1];
      const std::size_t from = adjacent.size();
      if (hi - lo > 64) {
        // A node of many triangles: one sort.
        std::sort(lo, hi);
        for (unsigned* p = lo; p < hi; ++p)
          if (p == lo || *p != p[-1]) adjacent.push_back(*p);
      } else {
        // Buckets hold a dozen links or so: an insertion sort of the distinct ones.
        for (unsigned* p = lo; p < hi; ++p) {
          const unsigned x = *p;
          if (stamp[x] == v) continue;
          stamp[x] = v;
          adjacent.push_back(x);
          unsigned* q = adjacent.data() + adjacent.size() - 1;
          for (unsigned* b = adjacent.data() + from; q > b && q[-1] > x; --q) *q = q[-1];
          *q = x;
        }
      }
      first[v + 1] = unsigned(adjacent.size());
    }
  }

  unsigned degree(unsigned v) const { return first[v + 1] - first[v]; }
  const unsigned* begin(unsigned v) const { return adjacent.data() + first[v]; }
  const unsigned* end(unsigned v) const { return adjacent.data() + first[v + 1]; }
};

// The walk over the graph. `degree` is kNone once a node is numbered; `done` counts a node's
// numbered neighbours.
class cuthill_mckee {
 public:
  cuthill_mckee(const node_graph& g, unsigned n)
      : g_(g), degree_(n), done_(n, 0u), seen_(n, 0u), searched_(n, 0u) {
    for (unsigned v = 0; v < n; ++v) degree_[v] = g.degree(v);
  }

  // Appends the nodes of degree above 0 to `order`, piece by piece.
  void run(std::vector<unsigned>& order) {
    const unsigned n = unsigned(degree_.size());
    // Degrees of unnumbered nodes never change: one sorted list gives every start.
    std::vector<unsigned> starts;
    for (unsigned v = 0; v < n; ++v)
      if (degree_[v] != 0) starts.push_back(v);
    std::stable_sort(starts.begin(), starts.end(),
                     [&](unsigned a, unsigned b) { return degree_[a] < degree_[b]; });
    for (unsigned s : starts) {
      if (degree_[s] == kNone) continue;
      std::size_t head = order.size();
      number(far_node(s), order);
      while (head < order.size()) {
        const unsigned v = order[head++];
        for (;;) {
          unsigned best = kNone;
          for (const unsigned* u = g_.begin(v); u != g_.end(v); ++u) {
            if (degree_[*u] == kNone) continue;
            if (best == kNone || better(*u, best)) best = *u;
          }
          if (best == kNone) break;
          number(best, order);
        }
      }
    }
  }

 private:
  const node_graph& g_;
  std::vector<unsigned> degree_, done_;
  std::vector<unsigned> seen_, searched_;  // generation stamps of the searches and their starts
  unsigned generation_ = 0, chain_ = 0;
  std::vector<unsigned> level_, next_;

  // Fewer unnumbered neighbours first; then more numbered ones; the earlier one on a tie.
  bool better(unsigned u, unsigned best) const {
    const unsigned a = degree_[u] - done_[u], b = degree_[best] - done_[best];
    return a < b || (a == b && done_[u] > done_[best]);
  }

  void number(unsigned v, std::vector<unsigned>& order) {
    order.push_back(v);
    degree_[v] = kNone;
    for (const unsigned* u = g_.begin(v); u != g_.end(v); ++u) ++done_[*u];
  }

  // From s, the node of smallest degree on the deepest level of a breadth-first search, then
  // the same from that node, until a search ends on a node that has been searched from.
  unsigned far_node(unsigned s) {
    ++chain_;
    searched_[s] = chain_;
    for (;;) {
      const unsigned f = deepest(s);
      if (searched_[f] == chain_) return f;
      searched_[f] = chain_;
      s = f;
    }
  }

  unsigned deepest(unsigned s) {
    ++generation_;
    level_.assign(1, s);
    seen_[s] = generation_;
    for (;;) {
      next_.clear();
      for (unsigned v : level_)
        for (const unsigned* u = g_.begin(v); u != g_.end(v); ++u)
          if (degree_[*u] != kNone && seen_[*u] != generation_) {
            seen_[*u] = generation_;
            next_.push_back(*u);
          }
      if (next_.empty()) break;
      level_.swap(next_);
    }
    unsigned best = level_[0];
    for (unsigned v : level_)
      if (degree_[v] < degree_[best]) best = v;
    return best;
  }
};

}  // namespace

bool order_nodes(const mesher::data_type& data, unsigned n, dense1D<unsigned>& order,
                 dense1D<unsigned>& rank, msg& failure) noexcept {
  order.clear();
  rank.clear();
  if (!order.reserve(n) || !rank.reserve(n)) {
    failure = msg::memory_reordering;
    return false;
  }
  try {
    const node_graph g(data.connectB, n);
    std::vector<unsigned> walk;
    walk.reserve(n);
    cuthill_mckee(g, n).run(walk);
    order.resize(n, kNone);
    rank.resize(n, kNone);
    std::copy(walk.begin(), walk.end(), order.begin());
  } catch (const std::bad_alloc&) {
    order.clear();
    rank.clear();
    failure = msg::memory_reordering_second;
    return false;
  }
  unsigned next = 0;
  while (next < n && order[next] != kNone) {
    rank[order[next]] = next;
    ++next;
  }
  const auto take = [&](unsigned v) {
    if (v < n && rank[v] == kNone) {
      rank[v] = next;
      order[next++] = v;
    }
  };
  if (next < n && !data.connectE.empty())
    for (unsigned j = 0; j < data.connectE.cols; ++j)
      take(data.connectE(0, j)), take(data.connectE(1, j));
  if (next < n)
    for (unsigned v : data.isolated_nodes) take(v);
  if (next < n) {
    // The nodes of no hard entity go in front, in index order; the rest move back by their count.
    const unsigned k = n - next;
    std::copy_backward(order.begin(), order.begin() + next, order.end());
    unsigned free = 0;
    for (unsigned v = 0; v < n; ++v) {
      if (rank[v] == kNone) {
        rank[v] = free;
        order[free++] = v;
      } else {
        rank[v] += k;
      }
    }
  }
  return true;
}

namespace {

// gridkit::change_indices of a table, through plain pointers: the table and the map are both
// words, and through their handles every entry would read the map's handle again.
void change_table_indices(dense2D<unsigned>& table, const dense1D<unsigned>& map) noexcept {
  if (table.empty() || map.empty()) return;
  const unsigned m = map.size, rows = table.rows;
  const unsigned* M = map.begin();
  for (unsigned j = 0; j < table.cols; ++j) {
    unsigned* c = table.col(j);
    for (unsigned i = 0; i < rows; ++i) {
      const unsigned e = c[i];
      c[i] = e < m ? M[e] : e;
    }
  }
}

}  // namespace

int renumber_record(mesher::data_type& data, const dense1D<unsigned>& map) noexcept {
  change_table_indices(data.connectM, map);
  change_table_indices(data.connectB, map);
  change_table_indices(data.connectE, map);
  gridkit::change_indices(data.isolated_nodes, map);
  change_table_indices(data.background_mesh, map);
  gridkit::change_indices(data.missing_nodes, map);
  return gridkit::permutation(data.ancestors, map);
}

}  // namespace kelvo::voxfill
