// Fuzz target: the Delaunay mesh (mode 2) of up to 200 points read from the bytes passes the
// invariant checker, stored shape qualities included, and empty spheres too unless two points
// nearly coincide; a second run of the same points gives the same tets.
//
// Byte 0 chooses how the points are read; the rest are the points:
//   mode 0: raw doubles, 24 bytes a point (non-finite and huge values included);
//   mode 1: one signed byte per coordinate: a small lattice, full of co-spherical sets,
//           coplanar sets and duplicates;
//   mode 2: the lattice of mode 1 moved by a fourth byte times 1e-11: near-duplicates and
//           almost co-spherical sets;
//   mode 3: the lattice of mode 1 flattened onto z = 0 but for a fourth byte times 1e-9 on some
//           points: flat and nearly flat clouds.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "delaunay/mesh_check.h"
#include "voxfill/mesher_th4.h"

using namespace kelvo::voxfill;
using data_type = mesher::data_type;

namespace {

constexpr unsigned MAX_POINTS = 200;

void fail(const char* what) {
  std::fprintf(stderr, "fuzz_kernel: %s\n", what);
  std::abort();
}

std::vector<double> read_points(unsigned mode, const std::uint8_t* b, std::size_t size) {
  std::vector<double> xyz;
  const std::size_t step = mode == 0 ? 24 : (mode == 1 ? 3 : 4);
  for (std::size_t at = 0; at + step <= size && xyz.size() < 3 * MAX_POINTS; at += step) {
    double p[3];
    if (mode == 0) {
      std::memcpy(p, b + at, 24);
    } else {
      for (unsigned k = 0; k < 3; ++k) p[k] = double(std::int8_t(b[at + k]));
      if (mode == 2) {
        const double e = 1e-11 * double(std::int8_t(b[at + 3]));
        p[0] += e, p[1] -= 0.5 * e, p[2] += 0.25 * e;
      } else if (mode == 3) {
        p[2] = (b[at + 3] & 0xF0) ? 0.0 : 1e-9 * double(b[at + 3]);
      }
    }
    xyz.insert(xyz.end(), p, p + 3);
  }
  return xyz;
}

// With `delaunay`, the kernel's mesh as it is: no swap pass and no reconnection at the hull, which
// both trade the empty spheres for better tets.
void run(const std::vector<double>& xyz, data_type& d, bool delaunay) {
  const unsigned n = unsigned(xyz.size() / 3);
  kelvo::dense2D<double> pos(3, n);
  for (unsigned j = 0; j < n; ++j)
    for (unsigned i = 0; i < 3; ++i) pos(i, j) = xyz[3 * j + i];
  d = data_type(pos, kelvo::dense2D<unsigned>());
  for (unsigned j = 0; j < n; ++j) d.isolated_nodes.push_back(j);
  mesher job;
  job.settings.mode = 2;
  if (delaunay) {
    job.settings.optim_level = 0;
    job.settings.strict_constraints = false;
  }
  job.run(d);
}

// True when two points of the cloud are closer than 1e-6 of its extent. The kernel then keeps
// every new tet of a star shaped, not only empty-sphered: a node a hair from another shrinks its
// cavity, and the mesh around them, valid as it is, need not be Delaunay.
bool near_duplicates(const std::vector<double>& xyz) {
  const std::size_t n = xyz.size() / 3;
  double lo[3], hi[3];
  for (unsigned k = 0; k < 3; ++k) lo[k] = hi[k] = n ? xyz[k] : 0.0;
  for (std::size_t j = 0; j < n; ++j)
    for (unsigned k = 0; k < 3; ++k) {
      lo[k] = std::min(lo[k], xyz[3 * j + k]);
      hi[k] = std::max(hi[k], xyz[3 * j + k]);
    }
  double extent2 = 0.0;
  for (unsigned k = 0; k < 3; ++k) extent2 += (hi[k] - lo[k]) * (hi[k] - lo[k]);
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t j = 0; j < i; ++j) {
      double d2 = 0.0;
      for (unsigned k = 0; k < 3; ++k)
        d2 += (xyz[3 * i + k] - xyz[3 * j + k]) * (xyz[3 * i + k] - xyz[3 * j + k]);
      if (d2 > 0.0 && d2 < 1e-12 * extent2) return true;
    }
  return false;
}

// The record's mesh as a store: what the checker reads.
void check(const data_type& d, bool empty_sphere) {
  const unsigned T = d.connectM.cols;
  if (d.neighbors.cols != T || d.shape_qualities.size != T || d.ancestors.size != d.pos.cols)
    fail("tables of the record disagree in size");
  mesh_store m;
  if (!m.load_nodes(d.pos, kelvo::dense1D<double>()) || !m.load_tets(d.connectM, 0)) return;
  for (unsigned t = 0; t < T; ++t) {
    for (unsigned f = 0; f < 4; ++f) m.neighbors(f, t) = d.neighbors(f, t);
    m.tet_qualities[t] = d.shape_qualities[t];
  }
  for (unsigned k = 0; k < d.ancestors.size; ++k) m.ancestors[k] = d.ancestors[k];
  mesh_check_options all;
  all.positive_quality = all.stored_qualities = true;
  all.empty_sphere = empty_sphere;
  const mesh_check_result r = check_mesh(m, all);
  if (!r.ok && r.fault != mesh_fault::no_memory) fail(r.text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  if (size < 1) return 0;
  const std::vector<double> xyz = read_points(bytes[0] & 3u, bytes + 1, size - 1);
  data_type a, b, c;
  run(xyz, a, false);
  run(xyz, b, false);
  if (a.error_code != b.error_code || a.warning_code != b.warning_code)
    fail("codes differ between equal runs");
  if (a.tet_count != b.tet_count ||
      (a.tet_count &&
       std::memcmp(a.connectM.col(0), b.connectM.col(0), 4 * sizeof(unsigned) * a.tet_count)))
    fail("tets differ between equal runs");
  // After an error the record holds no mesh.
  if (a.error_code != 0) {
    if (a.tet_count != 0) fail("a mesh after an error");
    return 0;
  }
  check(a, false);
  run(xyz, c, true);
  if (c.error_code == 0) check(c, !near_duplicates(xyz));
  return 0;
}
