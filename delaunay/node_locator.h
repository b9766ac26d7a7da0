// Point location support: the tables that a walk reads and the octree over the nodes of the mesh.
#pragma once

#include "delaunay/node_octree.h"

namespace kelvo::voxfill {

// The tables are owned elsewhere (by the mesh store) and bound once; the octree indexes the nodes
// of the mesh and `count` says how many it holds. Nodes may stay in the tree after they left the
// mesh: the searches pass over nodes whose `ancestors` entry is NONE.
struct node_locator {
  const slot_table<double>* nodes = nullptr;
  const slot_table<unsigned>* tets = nullptr;
  const slot_table<unsigned>* neighbors = nullptr;
  const dense1D<unsigned>* ancestors = nullptr;
  node_octree octree;
  unsigned count = 0;

  node_locator() = default;
  node_locator(const slot_table<double>* n, const slot_table<unsigned>* t,
               const slot_table<unsigned>* nb, const dense1D<unsigned>* anc) noexcept {
    bind(n, t, nb, anc);
  }

  // Points the locator (and its octree) at the tables of a mesh.
  void bind(const slot_table<double>* n, const slot_table<unsigned>* t,
            const slot_table<unsigned>* nb, const dense1D<unsigned>* anc) noexcept {
    nodes = n;
    tets = t;
    neighbors = nb;
    ancestors = anc;
    octree.coords = n;
  }

  // Empties the octree on a new box; false when its root could not be had.
  bool set_box(const double lo[3], const double hi[3]) noexcept {
    count = 0;
    return octree.set_box(lo, hi);
  }
  // Adds node n to the octree and counts it; false (nothing counted) when the octree refused it.
  bool add(unsigned n) noexcept {
    if (!octree.add(n)) return false;
    ++count;
    return true;
  }
  // Takes node n out of the octree when it holds any node; false when n was not there.
  bool remove(unsigned n) noexcept {
    if (count == 0 || !octree.remove(n)) return false;
    --count;
    return true;
  }
  // `set_box`, then adds each node of the live rows of `tets` in order of first occurrence. The
  // number of nodes added, which becomes `count`.
  unsigned build(const double lo[3], const double hi[3]);
  // `set_box`, then adds the listed nodes in order. The number added, which becomes `count`.
  unsigned build(const double lo[3], const double hi[3], const unsigned* list,
                 unsigned size) noexcept;

  // A node of the mesh near p, not always the nearest; NONE when the octree holds none.
  unsigned near_node(const double p[3]) noexcept {
    return count ? octree.near_node(p, ancestors) : NONE;
  }
  // The node of the mesh nearest to p; NONE when the octree holds none.
  unsigned nearest_node(const double p[3]) noexcept {
    return count ? octree.nearest_node(p, ancestors) : NONE;
  }
  // The nearest node of the mesh for which `accept(n)` is true; NONE when there is none.
  template <class F>
  unsigned nearest_node_filtered(const double p[3], const F& accept) noexcept {
    return count ? octree.nearest_node_filtered(p, accept, ancestors) : NONE;
  }
  // Appends the nodes of the octree in the closed box lo..hi, alive or not; false when `out`
  // could not grow.
  bool nodes_in_box(const double lo[3], const double hi[3], dense1D<unsigned>& out) noexcept {
    unsigned ilo[3], ihi[3];
    octree.to_cell_coords(lo, ilo);
    octree.to_cell_coords(hi, ihi);
    return count == 0 || octree.nodes_in_box(ilo, ihi, lo, hi, out);
  }

  // Room for the octree cells of about `node_count` nodes; false when memory ran out.
  bool reserve(unsigned node_count) noexcept { return octree.reserve(node_count); }
  // Lets the octree's memory go; the bindings stay.
  void clear_hard() {
    octree.clear_hard();
    count = 0;
  }
};

}  // namespace kelvo::voxfill
