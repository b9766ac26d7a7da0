// Allocation behaviour under a replaced global allocator: failed growth leaves the store as it
// was, and warm queries allocate nothing.
#include <gtest/gtest.h>

// The replaced allocator pairs malloc with free on purpose.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

#include <cstdlib>
#include <memory>
#include <new>
#include <random>
#include <string>

#include "delaunay/mesh_walks.h"
#include "mesh_fixtures.h"
#include "voxfill/mesher_th4.h"

namespace {
long allocations = 0;
long fail_countdown = -1;  // the allocation at which this reaches 0 fails

bool should_fail() {
  ++allocations;
  if (fail_countdown < 0) return false;
  return fail_countdown-- == 0;
}
}  // namespace

void* operator new(std::size_t n) {
  if (should_fail()) throw std::bad_alloc();
  if (void* p = std::malloc(n ? n : 1)) return p;
  throw std::bad_alloc();
}
void* operator new(std::size_t n, const std::nothrow_t&) noexcept {
  return should_fail() ? nullptr : std::malloc(n ? n : 1);
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}
void operator delete(void* p, const std::nothrow_t&) noexcept {
  std::free(p);
}

using namespace kelvo::voxfill;
using kelvo::dense1D;

// Every possible failing allocation in new_tet / new_node must leave the tables as they were.
TEST(StoreAllocation, FailedGrowthLeavesStoreAsItWas) {
  for (long fail = 0; fail < 8; ++fail) {
    mesh_store m;
    fixtures::kuhn_cube(m);
    m.new_tet(0, 1, 2, 3, 0, 0.0);
    m.new_tet(0, 1, 2, 4, 0, 0.0);  // the tables are now full: the next tet grows them
    const unsigned cols = m.tets.cols(), cap = m.tets.data.capacity_cols();
    const unsigned ncols = m.nodes.cols();
    fail_countdown = fail;
    const unsigned t = m.new_tet(1, 2, 3, 4, 0, 0.0);
    fail_countdown = -1;
    if (t == NONE) {
      EXPECT_EQ(m.tets.cols(), cols);
      EXPECT_EQ(m.neighbors.cols(), cols);
      EXPECT_EQ(m.colors.size, cols);
      EXPECT_EQ(m.tet_qualities.size, cols);
      EXPECT_EQ(m.tet_stamps.size, cols);
      EXPECT_GE(m.tets.data.capacity_cols(), cap);
      // The next try succeeds at the index the failed one would have had.
      EXPECT_EQ(m.new_tet(1, 2, 3, 4, 0, 0.0), cols);
    } else {
      EXPECT_EQ(t, cols);
    }
    EXPECT_EQ(m.tets.cols(), m.neighbors.cols());

    for (unsigned k = m.nodes.cols(); k < 8; ++k) m.new_node(0, 0, 0, 0);
    fail_countdown = fail;
    const unsigned n = m.new_node(2, 2, 2, 1.0);
    fail_countdown = -1;
    if (n == NONE) {
      EXPECT_EQ(m.nodes.cols(), 8u);
      EXPECT_EQ(m.ancestors.size, 8u);
      EXPECT_EQ(m.node_sizes.size, 8u);
    }
    (void)ncols;
  }
}

// Once scratch lists are warm, balls, shells, walks and octree queries allocate nothing.
TEST(StoreAllocation, WarmQueriesAllocateNothing) {
  mesh_store m;
  fixtures::kuhn_lattice(m, 6);
  const double lo[3] = {0, 0, 0}, hi[3] = {6, 6, 6};
  m.locator.build(lo, hi);
  dense1D<unsigned> list, ring, box, ball, stack;
  index_set seen;
  std::mt19937 rng(3);
  std::uniform_real_distribution<double> U(0.0, 6.0);
  auto sweep = [&] {
    for (unsigned n = 0; n < m.nodes.cols(); n += 5) {
      ball_of_node(m, n, NONE, list);
      ball_of_node_unmarked(m, n, NONE, ball, stack, seen);
    }
    for (unsigned t = 0; t < m.tets.cols(); t += 7) {
      const unsigned* r = m.tets.row(t);
      shell_with_ring(m, r[0], r[3], NONE, list, ring);
      ring.clear();
      shell_of_edge(m, r[1], r[2], t, list);
      tets_of_face(m, r[0], r[1], r[2], list);
      find_face_tet(m, r[1], r[2], r[3], list);
      edge_tet(m, r[0], r[1]);
    }
    for (int q = 0; q < 300; ++q) {
      const double P[3] = {U(rng), U(rng), U(rng)};
      unsigned t = NONE;
      locate_tet(m, P, t, LOCATE_TOL);
      m.locator.nearest_node(P);
      const double a[3] = {P[0] - 0.7, P[1] - 0.7, P[2] - 0.7},
                   b[3] = {P[0] + 0.7, P[1] + 0.7, P[2] + 0.7};
      box.clear();
      m.locator.nodes_in_box(a, b, box);
    }
  };
  sweep();  // warms the lists
  const long before = allocations;
  sweep();
  EXPECT_EQ(allocations - before, 0);
}

// A whole run with the k-th allocation failing, for every k of a clean run: never a crash or a
// hang, and either a mesh or the memory error with its exact texts: no failure may be swallowed
// into a run that reports success without a mesh.
TEST(StoreAllocation, RunSurvivesEveryFailedAllocation) {
  const unsigned n = 150;
  kelvo::dense2D<double> pos(3, n);
  std::mt19937 rng(8);
  std::uniform_real_distribution<double> U(0.0, 1.0);
  for (unsigned j = 0; j < n; ++j)
    for (unsigned i = 0; i < 3; ++i) pos(i, j) = U(rng);
  auto run = [&](long fail) {
    auto data = std::make_unique<mesher::data_type>(pos, kelvo::dense2D<unsigned>());
    for (unsigned k = 0; k < n; ++k) data->isolated_nodes.push_back(k);
    auto job = std::make_unique<mesher>();
    job->settings.mode = 2;
    const long before = allocations;
    fail_countdown = fail;
    job->run(*data);
    fail_countdown = -1;
    return std::make_pair(std::move(data), allocations - before);
  };
  const auto [clean, total] = run(-1);
  ASSERT_EQ(clean->error_code, 0);
  ASSERT_GT(total, 0);
  unsigned failed_runs = 0;
  for (long k = 0; k < total; ++k) {
    const auto [d, count] = run(k);
    (void)count;
    if (d->error_code == 0) {
      EXPECT_GT(d->tet_count, 0u) << "allocation " << k;
      continue;
    }
    ++failed_runs;
    ASSERT_EQ(d->error_code, -199) << "allocation " << k;
    // Caught at the top of the run, or reported where the engine saw a null allocation.
    const std::string title = d->msg_title, text = d->msg_text;
    if (title == "MEMORY ERROR")
      EXPECT_EQ(text, "\nFile = voxfill/mesher_th4.cpp, line = 120.\n") << "allocation " << k;
    else
      EXPECT_TRUE(title == "SYSTEM MEMORY ERROR" &&
                  text.rfind("Insufficient memory.\nFile = ", 0) == 0)
          << "allocation " << k << ": " << title << " / " << text;
  }
  EXPECT_GT(failed_runs, 0u);
}
