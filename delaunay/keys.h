// Keys of edges and faces by node indices: an order-free hash and a rotation-aware comparison.
#pragma once

#include <cstdint>

namespace kelvo::voxfill {

struct edge_key {
  unsigned n[2];
};
struct face_key {
  unsigned n[3];
};
// A single index (a tet, a node) for sets of plain indices.
struct index_key {
  unsigned n[1];
};

// Sum of per-word terms: the same for every order of the nodes, so a face finds its mirror image.
inline unsigned key_hash(const unsigned* v, unsigned count) noexcept {
  unsigned h = 0;
  for (unsigned k = 0; k < count; ++k) h += (v[k] ^ 0x811C9DC5u) * 16777619u;
  return h;
}
inline unsigned key_hash(const edge_key& e) noexcept {
  return key_hash(e.n, 2);
}
inline unsigned key_hash(const face_key& f) noexcept {
  return key_hash(f.n, 3);
}
inline unsigned key_hash(const index_key& k) noexcept {
  return key_hash(k.n, 1);
}
// An order-free hash of a face with each node well mixed first, so that faces of nearby node
// numbers (whose plain sums coincide often) spread over all bits. For filters, not for buckets.
inline unsigned mixed_node_term(unsigned x) noexcept {
  x *= 0x9E3779B1u;
  x ^= x >> 16;
  x *= 0x85EBCA6Bu;
  return x ^ (x >> 13);
}
inline unsigned face_filter_hash(const face_key& f) noexcept {
  return mixed_node_term(f.n[0]) + mixed_node_term(f.n[1]) + mixed_node_term(f.n[2]);
}
inline int compare_keys(const index_key& a, const index_key& b) noexcept {
  return a.n[0] == b.n[0];
}

// +1: the same edge in the same direction, -1: reversed, 0: another edge.
inline int compare_keys(const edge_key& a, const edge_key& b) noexcept {
  if (a.n[0] == b.n[0] && a.n[1] == b.n[1]) return 1;
  if (a.n[0] == b.n[1] && a.n[1] == b.n[0]) return -1;
  return 0;
}

// Both triples are rotated so that their smallest index comes first; +1 when the cyclic orders
// agree, -1 when they are reversed, 0 when the nodes differ.
inline int compare_keys(const face_key& a, const face_key& b) noexcept {
  auto rotate = [](const face_key& f, unsigned r[3]) {
    const unsigned k = f.n[0] < f.n[1] ? (f.n[0] < f.n[2] ? 0 : 2) : (f.n[1] < f.n[2] ? 1 : 2);
    r[0] = f.n[k];
    r[1] = f.n[(k + 1) % 3];
    r[2] = f.n[(k + 2) % 3];
  };
  unsigned ra[3], rb[3];
  rotate(a, ra);
  rotate(b, rb);
  if (ra[0] != rb[0]) return 0;
  if (ra[1] == rb[1] && ra[2] == rb[2]) return 1;
  if (ra[1] == rb[2] && ra[2] == rb[1]) return -1;
  return 0;
}

}  // namespace kelvo::voxfill
