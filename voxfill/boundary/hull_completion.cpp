// Completion of the convex hull: the tets at the box and the tets that only the box made Delaunay
// go, and the room they leave inside the hull is filled face by face with Delaunay apexes.
#include "voxfill/boundary/hull_completion.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <new>
#include <vector>

#include "delaunay/cavity.h"
#include "delaunay/geometry.h"
#include "delaunay/key_set.h"
#include "delaunay/mesh_walks.h"
#include "delaunay/tet_tables.h"

namespace kelvo::voxfill {
namespace {

// A node of a neighbour counts as inside a tet's sphere only below this ratio: the kernel's own
// tets hold their neighbours up to its tolerance, and cospherical nodes must not tear the mesh up.
constexpr double INSIDE_LIMIT = 1.0 - 1e-9;
// A box node up to this ratio takes a tet out: the box may have decided for it. Taking out a tet
// too many costs only its rebuilding.
constexpr double BOX_LIMIT = 1.0 + 1e-9;
// Two apexes whose spheres' centres differ by less than this, relative to the radius, tie.
constexpr double TIE_TOL = 1e-10;
// Rebuilds with a grown region before the completion gives up.
constexpr unsigned MAX_ATTEMPTS = 24;
// Points per leaf of the candidate tree.
constexpr unsigned LEAF_SIZE = 8;

inline double dot(const double* u, const double* v) noexcept {
  return u[0] * v[0] + u[1] * v[1] + u[2] * v[2];
}

struct kd_node {
  double lo[3], hi[3];
  unsigned begin, end;   // range of kd_tree::points
  unsigned left, right;  // children, NONE at a leaf
};

// The candidate apexes in a kd-tree split at the median of the widest side; equal coordinates are
// ordered by node, so that the tree is the same on every run.
struct kd_tree {
  const dense2D<double>* xyz = nullptr;
  std::vector<unsigned> points;
  std::vector<kd_node> tree;

  unsigned build(unsigned begin, unsigned end) {
    const unsigned id = unsigned(tree.size());
    tree.push_back(kd_node{});
    kd_node node{};
    node.begin = begin;
    node.end = end;
    node.left = node.right = NONE;
    for (unsigned k = 0; k < 3; ++k) {
      node.lo[k] = NO_VALUE;
      node.hi[k] = -NO_VALUE;
    }
    for (unsigned i = begin; i < end; ++i) {
      const double* p = xyz->col(points[i]);
      for (unsigned k = 0; k < 3; ++k) {
        node.lo[k] = std::min(node.lo[k], p[k]);
        node.hi[k] = std::max(node.hi[k], p[k]);
      }
    }
    if (end - begin > LEAF_SIZE) {
      unsigned axis = 0;
      for (unsigned k = 1; k < 3; ++k)
        if (node.hi[k] - node.lo[k] > node.hi[axis] - node.lo[axis]) axis = k;
      const unsigned mid = begin + (end - begin) / 2;
      const dense2D<double>& c = *xyz;
      std::nth_element(points.begin() + begin, points.begin() + mid, points.begin() + end,
                       [&c, axis](unsigned x, unsigned y) {
                         const double a = c(axis, x), b = c(axis, y);
                         return a < b || (a == b && x < y);
                       });
      node.left = build(begin, mid);
      node.right = build(mid, end);
    }
    tree[id] = node;
    return id;
  }

  // Squared distance from p to the box of a tree node.
  double box_distance2(const kd_node& node, const double* p) const noexcept {
    double d2 = 0.0;
    for (unsigned k = 0; k < 3; ++k) {
      const double v =
          p[k] < node.lo[k] ? node.lo[k] - p[k] : (p[k] > node.hi[k] ? p[k] - node.hi[k] : 0.0);
      d2 += v * v;
    }
    return d2;
  }
};

// Whether q beats p as the apex beyond the face g when both lie on one sphere through it. The tie
// is broken as if every node were lifted off the paraboloid by an infinitesimal that shrinks with
// its index, lower indices going down the most: the lowest index of the five decides, so that all
// faces around a cospherical group choose alike. When it is a face node, q wins when it lies on
// the far side, from that node, of the plane through p and the other two face nodes.
bool wins_tie(const dense2D<double>& xyz, const unsigned g[3], unsigned p, unsigned q) noexcept {
  const unsigned low = std::min(std::min(g[0], g[1]), std::min(g[2], std::min(p, q)));
  if (low == q) return true;
  if (low == p) return false;
  unsigned r[4] = {p, g[0], g[1], g[2]};
  for (unsigned i = 1; i < 4; ++i)
    if (r[i] == low) r[i] = q;
  return orient_det(xyz, r[0], r[1], r[2], r[3]) < 0.0;
}

// The Delaunay apex beyond the face (g0, g1, g2), which turns positively seen from beyond: among
// the candidates p clearly beyond the plane of the face (a tet (p, g0, g1, g2) of positive
// quality), the one whose sphere through the face has its centre furthest back along the face's
// normal, so that its sphere holds no other such candidate. NONE when there is none: a hull face.
unsigned find_apex(const kd_tree& kd, const dense2D<double>& xyz, const unsigned g[3],
                   std::vector<unsigned>& stack) {
  const double* A = xyz.col(g[0]);
  const double* B = xyz.col(g[1]);
  const double* C = xyz.col(g[2]);
  double c0[3], n[3];
  const double R2 = circumcircle<3>(A, B, C, c0);
  if (R2 == NO_VALUE || kd.tree.empty()) return NONE;
  face_normal(A, B, C, n);  // towards the side of the apex
  const double nn = dot(n, n), nlen = std::sqrt(nn), radius = std::sqrt(R2);
  // Boxes behind the face by more than rounding hold no candidate.
  const double behind = -1e-9 * nlen * radius;
  unsigned best = NONE;
  double best_t = 0.0, centre[3] = {c0[0], c0[1], c0[2]}, r2 = 0.0;
  stack.clear();
  stack.push_back(0);
  while (!stack.empty()) {
    const kd_node& node = kd.tree[stack.back()];
    stack.pop_back();
    double support = 0.0;
    for (unsigned k = 0; k < 3; ++k)
      support += n[k] * ((n[k] > 0.0 ? node.hi[k] : node.lo[k]) - c0[k]);
    if (support < behind) continue;
    if (best != NONE && kd.box_distance2(node, centre) > r2 * (1.0 + 1e-6)) continue;
    if (node.left != NONE) {
      // The nearer child last, so that it is searched first and narrows the sphere early.
      const kd_node& l = kd.tree[node.left];
      const kd_node& r = kd.tree[node.right];
      if (kd.box_distance2(l, centre) <= kd.box_distance2(r, centre)) {
        stack.push_back(node.right);
        stack.push_back(node.left);
      } else {
        stack.push_back(node.left);
        stack.push_back(node.right);
      }
      continue;
    }
    for (unsigned i = node.begin; i < node.end; ++i) {
      const unsigned q = kd.points[i];
      if (q == g[0] || q == g[1] || q == g[2]) continue;
      const double* Q = xyz.col(q);
      const double w[3] = {Q[0] - c0[0], Q[1] - c0[1], Q[2] - c0[2]};
      const double d = dot(n, w);
      if (!(d > 0.0)) continue;
      // The centre c0 + t n is as far from Q as from the face's nodes.
      const double t = (dot(w, w) - R2) / (2.0 * d);
      const double tie = TIE_TOL * (radius / nlen + std::fabs(best_t));
      if (best != NONE && t > best_t + tie) continue;
      // Clearly off the plane, by angle rather than shape: a far apex makes a needle, not a flat
      // tet.
      if (!(d > SQUARE_TOL * nlen * std::sqrt(dot(w, w))) || !(tet_quality(Q, A, B, C) > 0.0))
        continue;
      if (best == NONE || t < best_t - tie || wins_tie(xyz, g, best, q)) {
        best = q;
        best_t = t;
        for (unsigned k = 0; k < 3; ++k) centre[k] = c0[k] + t * n[k];
        r2 = R2 + t * t * nn;
      }
    }
  }
  return best;
}

// Whether a candidate other than the tet's own nodes lies inside the sphere of the positive tet.
bool sphere_holds_candidate(const kd_tree& kd, const dense2D<double>& xyz, const unsigned* tet,
                            std::vector<unsigned>& stack) {
  const double *p0 = xyz.col(tet[0]), *p1 = xyz.col(tet[1]), *p2 = xyz.col(tet[2]),
               *p3 = xyz.col(tet[3]);
  double a[3], b[3], c[3];
  for (unsigned k = 0; k < 3; ++k) {
    a[k] = p0[k] - p3[k];
    b[k] = p1[k] - p3[k];
    c[k] = p2[k] - p3[k];
  }
  const double bc[3] = {b[1] * c[2] - b[2] * c[1], b[2] * c[0] - b[0] * c[2],
                        b[0] * c[1] - b[1] * c[0]};
  const double ca[3] = {c[1] * a[2] - c[2] * a[1], c[2] * a[0] - c[0] * a[2],
                        c[0] * a[1] - c[1] * a[0]};
  const double ab[3] = {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2],
                        a[0] * b[1] - a[1] * b[0]};
  const double O = dot(a, bc);
  if (!(O > 0.0) || kd.tree.empty()) return true;
  const double la = dot(a, a), lb = dot(b, b), lc = dot(c, c), s = 0.5 / O;
  double centre[3], x[3];
  for (unsigned k = 0; k < 3; ++k) {
    x[k] = (la * bc[k] + lb * ca[k] + lc * ab[k]) * s;
    centre[k] = p3[k] + x[k];
  }
  const double r2 = dot(x, x) * (1.0 + 1e-6);  // a wide search: the test itself decides
  stack.clear();
  stack.push_back(0);
  while (!stack.empty()) {
    const kd_node& node = kd.tree[stack.back()];
    stack.pop_back();
    if (kd.box_distance2(node, centre) > r2) continue;
    if (node.left != NONE) {
      stack.push_back(node.left);
      stack.push_back(node.right);
      continue;
    }
    for (unsigned i = node.begin; i < node.end; ++i) {
      const unsigned q = kd.points[i];
      if (q == tet[0] || q == tet[1] || q == tet[2] || q == tet[3]) continue;
      if (in_circumsphere(p0, p1, p2, p3, xyz.col(q), INSIDE_LIMIT)) return true;
    }
  }
  return false;
}

// Where a face of the filling stands: on a tet kept (code 4 t + f of the mesh), on a new tet
// (code 4 k + f of the new rows), closed, or on the hull.
struct face_entry {
  std::uint64_t code;  // 4 t + f; bit 63 set for a new tet
  unsigned partner;    // entry of the other side, NONE while open or on the hull
  bool hull;
};
constexpr std::uint64_t NEW_TET = std::uint64_t(1) << 63;

class completion {
 public:
  explicit completion(mesh_store& m) : m_(m), xyz_(m.nodes.data) { kd_.xyz = &xyz_; }

  hull_completion run() {
    if (!collect_region()) return hull_completion::done;
    // A clash means that kept tets near it were not Delaunay for the given nodes alone, or were
    // cut from a cospherical group another way than the filling cuts it: they are rebuilt too.
    for (unsigned attempt = 0; attempt < MAX_ATTEMPTS; ++attempt) {
      collect_candidates();
      clash_ = NONE;
      if (open_front() && wrap())
        return apply() ? hull_completion::done : hull_completion::no_memory;
      if (!grow_at_clash()) break;
    }
    return hull_completion::failed;
  }

 private:
  mesh_store& m_;
  const dense2D<double>& xyz_;
  std::vector<unsigned> region_;  // tets to take out, marked in m.marks
  std::vector<unsigned> stack_;
  kd_tree kd_;
  key_set<face_key> faces_;          // open and settled faces by their nodes
  std::vector<face_entry> entries_;  // faces of the filling, the two sides of a face apart
  std::vector<unsigned> keyed_;      // entry of faces_ -> the entry of the face's first side
  std::vector<unsigned> queue_;      // entries to find an apex for, in order
  std::vector<unsigned> rows_;       // new tets, four nodes each
  std::vector<unsigned> links_;      // new tets, four face entries each

  unsigned clash_ = NONE;  // the entry a clash was found on, NONE when none
  face_key clash_face_{};

  // Adds to the region every kept tet at a node of the face of the last clash, or at a node of
  // the region's front when the clash was at the start. False when nothing could be added.
  bool grow_at_clash() {
    std::vector<unsigned> nodes;
    if (clash_ != NONE) {
      nodes.assign(clash_face_.n, clash_face_.n + 3);
    } else {
      for (unsigned t : region_)
        for (unsigned k = 0; k < 4; ++k)
          if (!is_box(m_.tets(k, t))) nodes.push_back(m_.tets(k, t));
    }
    const std::size_t before = region_.size();
    dense1D<unsigned> ball, walk;
    index_set seen;
    for (unsigned q : nodes) {
      // The ball is walked from a tet of the region that holds the node.
      unsigned start = NONE;
      for (unsigned t : region_) {
        const unsigned* r = m_.tets.row(t);
        if (r[0] == q || r[1] == q || r[2] == q || r[3] == q) {
          start = t;
          break;
        }
      }
      if (start == NONE) continue;
      ball_of_node_unmarked(m_, q, start, ball, walk, seen);
      for (unsigned t : ball)
        if (!in_region(t)) {
          m_.mark(t);
          region_.push_back(t);
        }
    }
    faces_ = key_set<face_key>();
    entries_.clear();
    keyed_.clear();
    queue_.clear();
    rows_.clear();
    links_.clear();
    kd_.points.clear();
    kd_.tree.clear();
    return region_.size() > before;
  }

  bool is_box(unsigned n) const noexcept {
    for (unsigned k = 0; k < m_.box_nodes.size; ++k)
      if (m_.box_nodes[k] == n) return true;
    return false;
  }
  bool has_box_node(unsigned t) const noexcept {
    const unsigned* r = m_.tets.row(t);
    return is_box(r[0]) || is_box(r[1]) || is_box(r[2]) || is_box(r[3]);
  }
  bool in_region(unsigned t) const noexcept { return m_.marked(t); }

  // A tet of given nodes that the box, or a tet made beside it, may have put in place.
  bool suspect(unsigned t) const noexcept {
    const unsigned* r = m_.tets.row(t);
    const double *p0 = xyz_.col(r[0]), *p1 = xyz_.col(r[1]), *p2 = xyz_.col(r[2]),
                 *p3 = xyz_.col(r[3]);
    for (unsigned k = 0; k < m_.box_nodes.size; ++k) {
      const unsigned b = m_.box_nodes[k];
      if (b < m_.ancestors.size && m_.ancestors[b] != NONE &&
          in_circumsphere(p0, p1, p2, p3, xyz_.col(b), BOX_LIMIT))
        return true;
    }
    for (unsigned f = 0; f < 4; ++f) {
      const unsigned u = m_.neighbors(f, t);
      if (u == NONE) continue;
      const unsigned j = m_.neighbor_index(u, t);
      if (j > 3) continue;
      const unsigned q = m_.tets(j, u);
      if (!is_box(q) && in_circumsphere(p0, p1, p2, p3, xyz_.col(q), INSIDE_LIMIT)) return true;
    }
    return false;
  }

  // The tets at the box nodes, grown through faces by the suspect tets. False when there is none.
  bool collect_region() {
    dense1D<unsigned> ball;
    for (unsigned k = 0; k < m_.box_nodes.size; ++k) {
      const unsigned b = m_.box_nodes[k];
      if (b >= m_.ancestors.size || m_.ancestors[b] == NONE) continue;
      ball_of_node(m_, b, NONE, ball);
      region_.insert(region_.end(), ball.begin(), ball.end());
    }
    if (region_.empty()) return false;
    m_.bump_marks();
    unsigned kept = 0;
    for (unsigned t : region_)
      if (!m_.marked(t)) {
        m_.mark(t);
        region_[kept++] = t;
      }
    region_.resize(kept);
    for (std::size_t i = 0; i < region_.size(); ++i) {
      const unsigned t = region_[i];
      for (unsigned f = 0; f < 4; ++f) {
        const unsigned u = m_.neighbors(f, t);
        if (u == NONE || in_region(u) || !suspect(u)) continue;
        m_.mark(u);
        region_.push_back(u);
      }
    }
    return true;
  }

  void collect_candidates() {
    std::vector<unsigned>& pts = kd_.points;
    for (unsigned t : region_) {
      const unsigned* r = m_.tets.row(t);
      for (unsigned k = 0; k < 4; ++k)
        if (!is_box(r[k])) pts.push_back(r[k]);
    }
    std::sort(pts.begin(), pts.end());
    pts.erase(std::unique(pts.begin(), pts.end()), pts.end());
    if (!pts.empty()) kd_.build(0, unsigned(pts.size()));
  }

  // Adds the face f of a tet, as its nodes turn seen from inside it; the entry, or NONE when the
  // face is settled already or stands twice on one side (no consistent filling).
  unsigned add_face(const unsigned* row, unsigned f, std::uint64_t code, bool& clash) {
    face_key key{{row[tet_face_nodes[f][0]], row[tet_face_nodes[f][1]], row[tet_face_nodes[f][2]]}};
    int dir = 0;
    const unsigned k = faces_.find(key, &dir);
    if (k != NONE) {
      const unsigned e = keyed_[k];
      face_entry& other = entries_[e];
      if (dir != -1 || other.hull || other.partner != NONE) {
        clash_face_ = key;
        clash_ = e;
        clash = true;
        return NONE;
      }
      const unsigned mine = unsigned(entries_.size());
      entries_.push_back({code, e, false});
      entries_[e].partner = mine;  // settled: a third tet on the face is a clash
      return mine;
    }
    if (faces_.insert(key) != 2) throw std::bad_alloc();
    const unsigned mine = unsigned(entries_.size());
    keyed_.push_back(mine);
    entries_.push_back({code, NONE, false});
    queue_.push_back(mine);
    return mine;
  }

  // The faces between the region and the tets kept; with no tet kept, one tet of the region that
  // is Delaunay for the candidates alone starts the filling.
  bool open_front() {
    bool clash = false;
    for (unsigned t : region_)
      for (unsigned f = 0; f < 4; ++f) {
        const unsigned u = m_.neighbors(f, t);
        if (u == NONE || in_region(u)) continue;
        const unsigned j = m_.neighbor_index(u, t);
        if (j > 3) return false;
        add_face(m_.tets.row(u), j, 4 * std::uint64_t(u) + j, clash);
        if (clash) return false;
      }
    if (!queue_.empty()) return true;
    for (unsigned t : region_) {
      if (has_box_node(t)) continue;
      const unsigned* r = m_.tets.row(t);
      if (sphere_holds_candidate(kd_, xyz_, r, stack_)) continue;
      return new_tet(r[0], r[1], r[2], r[3], NONE);
    }
    return kd_.points.empty();
  }

  // A new tet whose face 0 lies on the face entry `base` (NONE for the seed).
  bool new_tet(unsigned p, unsigned g0, unsigned g1, unsigned g2, unsigned base) {
    const unsigned k = unsigned(rows_.size() / 4);
    const unsigned row[4] = {p, g0, g1, g2};
    rows_.insert(rows_.end(), row, row + 4);
    links_.insert(links_.end(), 4, NONE);
    bool clash = false;
    for (unsigned f = 0; f < 4; ++f) {
      if (f == 0 && base != NONE) {
        const unsigned mine = unsigned(entries_.size());
        entries_.push_back({NEW_TET | (4 * std::uint64_t(k)), base, false});
        entries_[base].partner = mine;
        links_[4 * k] = mine;
        continue;
      }
      links_[4 * k + f] = add_face(row, f, NEW_TET | (4 * std::uint64_t(k) + f), clash);
      if (clash) return false;
    }
    return true;
  }

  // Nodes of an entry's face, turned to be seen from beyond it.
  void outer_face(unsigned e, unsigned g[3]) const noexcept {
    const std::uint64_t code = entries_[e].code;
    const unsigned f = unsigned(code & 3u);
    const std::uint64_t t = (code & ~NEW_TET) >> 2;
    const unsigned* row = (code & NEW_TET) ? &rows_[4 * t] : m_.tets.row(unsigned(t));
    for (unsigned i = 0; i < 3; ++i) g[i] = row[tet_turned_face_nodes[f][i]];
  }

  bool wrap() {
    for (std::size_t i = 0; i < queue_.size(); ++i) {
      const unsigned e = queue_[i];
      if (entries_[e].partner != NONE) continue;
      unsigned g[3];
      outer_face(e, g);
      const unsigned p = find_apex(kd_, xyz_, g, stack_);
      if (p == NONE) {
        entries_[e].hull = true;
        continue;
      }
      if (!new_tet(p, g[0], g[1], g[2], e)) return false;
    }
    return true;
  }

  // Takes the region out and puts the new tets in, reusing its rows.
  bool apply() {
    const unsigned count = unsigned(rows_.size() / 4);
    if (count > region_.size() &&
        !m_.reserve(m_.nodes.cols(), m_.tets.cols() + count - unsigned(region_.size())))
      return false;
    // Nodes whose ancestor goes with the region: a kept tet of their ball if there is one.
    dense1D<unsigned> ball, walk;
    index_set seen;
    for (unsigned q : kd_.points) {
      const unsigned a = q < m_.ancestors.size ? m_.ancestors[q] : NONE;
      if (a == NONE || !in_region(a)) continue;
      unsigned kept = NONE;
      ball_of_node_unmarked(m_, q, a, ball, walk, seen);
      for (unsigned t : ball)
        if (!in_region(t)) {
          kept = t;
          break;
        }
      m_.ancestors[q] = kept;
    }
    std::vector<unsigned> ids(count);
    const unsigned color = m_.colors[region_[0]];
    // Kept tets across the front lose their neighbour first; the new ones link back below.
    for (const face_entry& e : entries_)
      if (!(e.code & NEW_TET)) m_.neighbors(unsigned(e.code & 3u), unsigned(e.code >> 2)) = NONE;
    m_.release_tets(region_.data(), unsigned(region_.size()));
    for (unsigned k = 0; k < m_.box_nodes.size; ++k)
      if (m_.box_nodes[k] < m_.ancestors.size) m_.ancestors[m_.box_nodes[k]] = NONE;
    for (unsigned k = 0; k < count; ++k) {
      const unsigned* r = &rows_[4 * k];
      const double q = tet_quality(xyz_, r[0], r[1], r[2], r[3]);
      ids[k] = m_.new_tet(r[0], r[1], r[2], r[3], color, q);
      if (ids[k] == NONE) return false;  // not reached: the room was reserved
      m_.set_ancestors(ids[k], ids[k] + 1);
    }
    auto tet_of = [&](std::uint64_t code) {
      const std::uint64_t t = (code & ~NEW_TET) >> 2;
      return (code & NEW_TET) ? ids[t] : unsigned(t);
    };
    for (const face_entry& e : entries_) {
      if (e.partner == NONE) continue;
      m_.neighbors(unsigned(e.code & 3u), tet_of(e.code)) = tet_of(entries_[e.partner].code);
    }
    return true;
  }
};

}  // namespace

hull_completion complete_hull(mesh_store& m) {
  try {
    completion c(m);
    return c.run();
  } catch (const std::bad_alloc&) {
    return hull_completion::no_memory;
  }
}

}  // namespace kelvo::voxfill
