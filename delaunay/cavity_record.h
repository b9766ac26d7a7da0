// The cavity of a node insertion under construction.
#pragma once

#include "delaunay/slot_table.h"

namespace kelvo::voxfill {

struct cavity_record {
  unsigned node = NONE;          // the node being inserted; NONE when there is no cavity
  dense1D<unsigned> tets;        // tets of the cavity
  dense1D<unsigned> faces;       // boundary faces, coded 4 t + i with t in `tets`, seen from inside
  dense1D<unsigned> hard_faces;  // those of `faces` on a hard face with cavity tets on both sides
  dense1D<double> face_qualities;  // quality of the new tet on each face
  // Per tet of `tets` as collected: bits 0-3 its boundary faces, bits 4-7 its inner faces towards
  // a tet of lower index. Read by the correction, which starts from them.
  dense1D<unsigned> face_bits;
  bool out_of_memory = false;  // a list could not grow: the cavity was abandoned for that

  void clear() noexcept {
    node = NONE;
    out_of_memory = false;
    tets.clear();
    faces.clear();
    hard_faces.clear();
    face_qualities.clear();
    face_bits.clear();
  }
  void clear_hard() {
    node = NONE;
    out_of_memory = false;
    tets.clear_hard();
    faces.clear_hard();
    hard_faces.clear_hard();
    face_qualities.clear_hard();
    face_bits.clear_hard();
  }
};

}  // namespace kelvo::voxfill
