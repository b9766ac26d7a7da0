// Kinds of elements that the connectivity tables hold.
#pragma once

namespace kelvo {

enum element_type : unsigned {
  EDGE2 = 3,   // two-node edge, 2 rows
  TRIA3 = 6,   // three-node triangle, 3 rows
  TETRA4 = 12  // four-node tetrahedron, 4 rows
};

// Rows of a connectivity table of that kind; 0 for an unknown kind.
inline unsigned nodes_per_element(element_type type) noexcept {
  switch (type) {
    case EDGE2: return 2;
    case TRIA3: return 3;
    case TETRA4: return 4;
  }
  return 0;
}

}  // namespace kelvo
