// Sorting tets into subdomains and outside by floods that stop at hard faces, and the report of
// the hard entities the mesh could not hold.
#pragma once

#include "delaunay/mesh_store.h"
#include "voxfill/boundary/hard_entities.h"
#include "voxfill/task_mgr.h"

namespace kelvo::voxfill {

// Colours each region bounded by hard faces: NONE for the region of the enclosing box's first
// corner, then 0, 1, ... in the index order of each region's first tet. Returns the number of
// regions besides the outer one; 0 for a mesh without tets. `face_tets`, when given, holds the
// tets on the hard faces (usable, and made from the tets as they are).
unsigned flood_colors(mesh_store& m, const hard_face_tets* face_tets = nullptr);

// Walks from outside across one hard face at a time and turns region numbers into subdomain
// numbers (NONE outside, DELETED for regions never reached). `count` goes in as the number of
// regions and comes out as the number of subdomains. `boundary_sign` gets the orientation of the
// hard faces seen from outside, or 0 when they are not consistent.
void order_subdomains(mesh_store& m, unsigned& count, unsigned subdomain_rule, int& boundary_sign);

// One domain of colour 0 made of all live tets, less those touching a corner of the enclosing box.
void single_domain_colors(mesh_store& m);

// Spreads conflicts: hard edges on an unenforced node, then hard faces on an unenforced edge,
// become unenforced too.
void propagate_unenforced(mesh_store& m);

// Fills the lists of missing and conflicting entities of `data` and raises the errors (strict)
// or warnings of hard entities. Does nothing while -101, -102 or -199 stands. `face_tets`, when
// given, holds the tets on the hard faces (usable, and made from the tets as they are).
void report_hard_entities(mesh_store& m, mesher::data_type& data, bool strict_constraints,
                          const task_type& task, const hard_face_tets* face_tets = nullptr);

}  // namespace kelvo::voxfill
