// Allocation behaviour under a replaced global allocator: failed growth leaves the store as it
// was, and warm queries allocate nothing.
#include <gtest/gtest.h>

// The replaced allocator pairs malloc with free on purpose.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "delaunay/delaunay_mgr.h"
#include "delaunay/mesh_check.h"
#include "delaunay/mesh_walks.h"
#include "mesh_fixtures.h"
#include "voxfill/delaunay_th4.h"
#include "voxfill/kernel_task.h"
#include "voxfill/mesher_th4.h"
#include "voxfill/optim/edge_move.h"

namespace {
long allocations = 0;
long fail_countdown = -1;

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
    // Caught at the top of the run or in the recovery, or reported where the engine saw a null
    // allocation.
    const std::string title = d->msg_title, text = d->msg_text;
    if (title == "MEMORY ERROR")
      EXPECT_TRUE(text == "\nFile = voxfill/mesher_th4.cpp, line = 120.\n" ||
                  text == "\nFile = voxfill/boundary/delaunay_th4_bdry.cpp, line = 89.\n")
          << "allocation " << k << ": " << text;
    else
      EXPECT_TRUE(title == "SYSTEM MEMORY ERROR" &&
                  text.rfind("Insufficient memory.\nFile = ", 0) == 0)
          << "allocation " << k << ": " << title << " / " << text;
  }
  EXPECT_GT(failed_runs, 0u);
}

// The kernel's start with shell nodes and hard faces, the k-th allocation failing: a memory error
// (raised, or thrown for the run to catch), or every node of the list in the mesh: a clean cloud
// has no node that cannot go in, so a failure must not quietly leave one out.
TEST(StoreAllocation, KernelStartSurvivesEveryFailedAllocation) {
  std::mt19937 rng(9);
  std::uniform_real_distribution<double> U(0.0, 1.0);
  std::vector<std::array<double, 3>> pts(120);
  for (auto& p : pts) p = {U(rng), U(rng), U(rng)};
  auto run = [&](long fail, long& used) {
    mesher::settings_type settings;
    mesher::data_type data;
    kelvo::Ptr<progress_bar> root = new progress_bar(0.0, 1.0);
    root->add_phase_bars(phase_weights(0), 6);
    kelvo::Ptr<task_type> task = new task_type(&settings, root.get(), &data.error_code,
                                               &data.warning_code, data.msg_title, data.msg_text);
    mesh_store m;
    dense1D<unsigned> list;
    for (const auto& p : pts) list.push_back(m.new_node(p[0], p[1], p[2], 0.0));
    for (unsigned k = 0; k + 12 < 40; ++k) m.hard_set.add_face(k, k + 1, k + 12);
    const double lo[3] = {0, 0, 0}, hi[3] = {1, 1, 1};
    kernel_workspace ws;
    const long before = allocations;
    fail_countdown = fail;
    bool thrown = false;
    try {  // the run's catch turns a thrown failure into -199
      start_delaunay(m, ws, list, lo, hi, 3.0, 0.01, *task);
    } catch (const std::bad_alloc&) {
      thrown = true;
    }
    fail_countdown = -1;
    used = allocations - before;
    if (thrown) return -199;
    if (data.error_code != 0) return data.error_code;
    for (unsigned k = 0; k < list.size; ++k)
      if (m.ancestors[list[k]] == NONE) return 1;
    // A cavity whose lists could not grow must not be starred anyway: the tables stay sound and
    // every stored quality belongs to its tet.
    mesh_check_options options;
    options.stored_qualities = true;
    if (!check_mesh(m, options).ok) return 2;
    return 0;
  };
  long total = 0, used = 0;
  ASSERT_EQ(run(-1, total), 0);
  EXPECT_GT(total, 50);  // growth of every table, the octrees and the cavity lists
  for (long k = 0; k < total; ++k) {
    const int code = run(k, used);
    EXPECT_TRUE(code == 0 || code == -199) << "allocation " << k << ": " << code;
  }
}

namespace {

// Edges of the worst tets of a cloud mesh, with sizes, as a sweep would list them.
std::vector<std::pair<unsigned, unsigned>> worst_edges(th4_engine& e, unsigned count) {
  for (unsigned j = 0; j < e.nodes.cols(); ++j)
    e.node_sizes[j] = 0.25 + 0.2 * (e.nodes.row(j)[0] + 1);
  std::vector<unsigned> order;
  for (unsigned t = 0; t < e.tets.cols(); ++t) order.push_back(t);
  std::stable_sort(order.begin(), order.end(),
                   [&](unsigned x, unsigned y) { return e.tet_qualities[x] < e.tet_qualities[y]; });
  order.resize(std::min<std::size_t>(order.size(), count));
  std::vector<std::pair<unsigned, unsigned>> edges;
  for (const unsigned t : order)
    for (unsigned k = 0; k < 6; ++k) edges.push_back({t, k});
  return edges;
}

}  // namespace

// A sequence of edge moves, each tried with its k-th allocation failing for every k it makes on
// cold scratch: a refused move leaves every table as it was, a move done leaves a sound mesh.
TEST(StoreAllocation, MovesSurviveEveryFailedAllocation) {
  th4_engine e;
  ASSERT_TRUE(fixtures::delaunay_cloud(e, 120, 4));
  mesh_check_options options;
  options.positive_quality = options.stored_qualities = true;
  unsigned failures = 0, refusals = 0;
  for (const auto& [t, k] : worst_edges(e, 25)) {
    for (long fail = 0; fail < 400; ++fail) {
      if (e.tet_deleted(t)) break;
      const fixtures::table_snapshot before(e);
      regularizer g(e, true, false, true);  // cold: every list grows on this move
      g.merit.shape_weight = 0.6;
      g.merit.start_topology_terms();
      g.merit.fill_valence_records();
      dense1D<unsigned> new_nodes;
      unsigned left = 100;
      double gain;
      fail_countdown = fail;
      const bool done =
          edge_move(g, t, k, 0.6, 1.4, 6, false, true, 0.25, 1e-12, left, new_nodes, gain);
      const bool failed = fail_countdown < 0;
      fail_countdown = -1;
      if (!failed) break;  // the move ran clean: the sweep goes on from its result
      ++failures;
      if (!done) {
        ++refusals;
        ASSERT_TRUE(before.same_as(e)) << "edge " << t << "/" << k << ", allocation " << fail;
      } else {
        const mesh_check_result c = check_mesh(e, options);
        ASSERT_TRUE(c.ok) << c.text;
      }
    }
  }
  EXPECT_GT(failures, 50u);
  EXPECT_GT(refusals, 25u);
}

// Once its lists are warm, a sweep of moves allocates nothing.
TEST(StoreAllocation, WarmMovesAllocateNothing) {
  th4_engine e;
  ASSERT_TRUE(fixtures::delaunay_cloud(e, 300, 6));
  const auto edges = worst_edges(e, 200);
  // The tables and their free lists have room: what is left to allocate is the moves' own.
  ASSERT_TRUE(e.reserve(4 * e.nodes.cols(), 4 * e.tets.cols()));
  for (auto* stack : {&e.tets.free_stack, &e.neighbors.free_stack, &e.nodes.free_stack})
    ASSERT_TRUE(stack->reserve(4 * e.tets.cols()));
  regularizer g(e, true, false, true);
  g.merit.shape_weight = 0.6;
  g.merit.start_topology_terms();
  ASSERT_TRUE(g.merit.fill_valence_records());
  ASSERT_TRUE(g.merit.valence_records.reserve(4 * e.nodes.cols()));
  dense1D<unsigned> new_nodes;
  new_nodes.reserve(1000);
  unsigned left = NONE, done = 0;
  auto sweep = [&] {
    for (const auto& [t, k] : edges) {
      if (e.tet_deleted(t)) continue;
      double gain;
      done += edge_move(g, t, k, 0.6, 1.4, 6, false, true, 0.25, 1.001, left, new_nodes, gain);
    }
  };
  sweep();  // warms the lists
  const unsigned first = done;
  const long before = allocations;
  sweep();
  EXPECT_EQ(allocations - before, 0);
  EXPECT_GT(done - first, 0u);  // the second sweep did move
}

// A whole regularisation with the k-th allocation failing: the memory error with its words, or a
// sound mesh of the input's volume.
TEST(StoreAllocation, RegularizationSurvivesEveryFailedAllocation) {
  mesh_store cloud;
  ASSERT_TRUE(fixtures::delaunay_cloud(cloud, 70, 3));
  kelvo::dense2D<double> pos(3, cloud.nodes.cols());
  for (unsigned j = 0; j < cloud.nodes.cols(); ++j) std::copy_n(cloud.nodes.row(j), 3, pos.col(j));
  kelvo::dense2D<unsigned> tets(4, cloud.tets.cols());
  for (unsigned t = 0; t < cloud.tets.cols(); ++t) std::copy_n(cloud.tets.row(t), 4, tets.col(t));
  auto run = [&](long fail) {
    // The run writes the regularised nodes back into the record's coordinates: a fresh copy each.
    kelvo::dense2D<double> nodes;
    nodes.copy(pos);
    auto data = std::make_unique<mesher::data_type>(nodes, kelvo::dense2D<unsigned>());
    data->connectM = tets;
    auto job = std::make_unique<mesher>();
    job->settings.mode = 1;
    const long before = allocations;
    fail_countdown = fail;
    job->run(*data);
    fail_countdown = -1;
    return std::make_pair(std::move(data), allocations - before);
  };
  const auto [clean, total] = run(-1);
  ASSERT_EQ(clean->error_code, 0);
  mesh_check_options options;
  options.positive_quality = options.stored_qualities = true;
  for (long k = 0; k<total; k += total> 600 ? total / 600 : 1) {
    const auto [d, count] = run(k);
    (void)count;
    if (d->error_code != 0) {
      ASSERT_EQ(d->error_code, -199) << "allocation " << k << ": " << d->msg_title;
      continue;
    }
    mesh_store s;
    ASSERT_TRUE(fixtures::load_output(s, *d));
    const mesh_check_result c = check_mesh(s, options);
    ASSERT_TRUE(c.ok) << "allocation " << k << ": " << c.text;
    EXPECT_NEAR(d->volume, clean->volume, 1e-12 * clean->volume) << "allocation " << k;
  }
}

// A volume mesh whose recovery needs swaps, thinning and Steiner nodes: a box with hard edges
// between hard nodes inside. Every failing allocation ends in -199 or a sound, whole mesh.
TEST(StoreAllocation, RecoverySurvivesEveryFailedAllocation) {
  std::vector<std::array<double, 3>> pts;
  for (unsigned c = 0; c < 8; ++c)
    pts.push_back({double(c & 1), double(c >> 1 & 1), double(c >> 2)});
  const unsigned box[12][3] = {{0, 2, 1}, {1, 2, 3}, {4, 5, 6}, {5, 7, 6}, {0, 1, 4}, {1, 5, 4},
                               {2, 6, 3}, {3, 6, 7}, {0, 4, 2}, {2, 4, 6}, {1, 3, 5}, {3, 7, 5}};
  std::mt19937 gen(5);
  std::uniform_real_distribution<double> u(0.15, 0.85);
  for (unsigned k = 0; k < 16; ++k) pts.push_back({u(gen), u(gen), u(gen)});
  kelvo::dense2D<double> pos(3, unsigned(pts.size()));
  for (unsigned j = 0; j < pts.size(); ++j)
    for (unsigned i = 0; i < 3; ++i) pos(i, j) = pts[j][i];
  kelvo::dense2D<unsigned> B(3, 12);
  for (unsigned j = 0; j < 12; ++j)
    for (unsigned i = 0; i < 3; ++i) B(i, j) = box[j][i];
  auto run = [&](long fail) {
    auto data = std::make_unique<mesher::data_type>(pos, B);
    data->connectE.resize(2, 8);
    for (unsigned k = 0; k < 8; ++k) {
      data->connectE(0, k) = 8 + 2 * k;
      data->connectE(1, k) = 9 + 2 * k;
    }
    auto job = std::make_unique<mesher>();
    job->settings.refine = false;
    job->settings.optim_level = 0;
    const long before = allocations;
    fail_countdown = fail;
    job->run(*data);
    fail_countdown = -1;
    return std::make_pair(std::move(data), allocations - before);
  };
  const auto [clean, total] = run(-1);
  ASSERT_EQ(clean->error_code, 0) << clean->msg_title;
  ASSERT_EQ(clean->missing_edges.size, 0u);
  mesh_check_options options;
  options.positive_quality = options.stored_qualities = true;
  for (long k = 0; k<total; k += total> 800 ? total / 800 : 1) {
    const auto [d, count] = run(k);
    (void)count;
    if (d->error_code != 0) {
      ASSERT_EQ(d->error_code, -199) << "allocation " << k << ": " << d->msg_title;
      continue;
    }
    mesh_store s;
    ASSERT_TRUE(fixtures::load_output(s, *d)) << "allocation " << k;
    const mesh_check_result c = check_mesh(s, options);
    ASSERT_TRUE(c.ok) << "allocation " << k << ": " << c.text;
    EXPECT_NEAR(d->volume, 1.0, 1e-12) << "allocation " << k << ": " << d->msg_title;
  }
}
