// Index maps on connectivity tables: renumbering and its undoing, as the pipelines use them.
#include <gtest/gtest.h>

#include <numeric>
#include <random>
#include <vector>

#include "gridkit/connectivity.h"

using kelvo::dense1D;
using kelvo::dense2D;
namespace gridkit = kelvo::gridkit;

// A random permutation and its inverse take a table there and back; entries beyond the map (nodes
// made during a run) keep their numbers; a permutation moves each value to map[i], in place along
// cycles or through a copy when the map is not a permutation. A map applied the wrong way round,
// a lost cycle or an entry beyond the map that changed would show here.
TEST(Connectivity, ChangeIndicesAndPermutation) {
  const unsigned n = 1000;
  std::vector<unsigned> p(n);
  std::iota(p.begin(), p.end(), 0u);
  std::shuffle(p.begin(), p.end(), std::mt19937(3));
  dense1D<unsigned> order, rank;
  for (unsigned i = 0; i < n; ++i) order.push_back(p[i]);
  rank.resize(n);
  for (unsigned i = 0; i < n; ++i) rank[order[i]] = i;

  dense2D<unsigned> t(4, 300);
  std::mt19937 g(5);
  for (unsigned j = 0; j < t.cols; ++j)
    for (unsigned i = 0; i < 4; ++i) t(i, j) = g() % (n + 10);  // some beyond the map
  dense2D<unsigned> before;
  before.copy(t);
  gridkit::change_indices(t, rank);
  for (unsigned j = 0; j < t.cols; ++j)
    for (unsigned i = 0; i < 4; ++i) {
      const unsigned e = before(i, j);
      EXPECT_EQ(t(i, j), e < n ? rank[e] : e);
    }
  gridkit::change_indices(t, order);
  for (unsigned j = 0; j < t.cols; ++j)
    for (unsigned i = 0; i < 4; ++i) EXPECT_EQ(t(i, j), before(i, j));

  dense1D<double> values;
  for (unsigned i = 0; i < n + 5; ++i) values.push_back(0.5 * i);
  ASSERT_EQ(gridkit::permutation(values, order), 0);
  for (unsigned i = 0; i < n; ++i) EXPECT_EQ(values[order[i]], 0.5 * i);
  for (unsigned i = n; i < n + 5; ++i) EXPECT_EQ(values[i], 0.5 * i);
  ASSERT_EQ(gridkit::permutation(values, rank), 0);
  for (unsigned i = 0; i < n + 5; ++i) EXPECT_EQ(values[i], 0.5 * i);

  dense1D<unsigned> v, squeeze;  // not a permutation: two indices land on 0
  for (unsigned i = 0; i < 4; ++i) v.push_back(10 + i);
  for (unsigned m : {0u, 0u, 3u, 2u}) squeeze.push_back(m);
  ASSERT_EQ(gridkit::permutation(v, squeeze), 0);
  EXPECT_EQ(v[0], 11u);  // the later value wins
  EXPECT_EQ(v[1], 11u);  // no index maps here: its old value stays
  EXPECT_EQ(v[2], 13u);
  EXPECT_EQ(v[3], 12u);
  dense1D<unsigned> none;
  EXPECT_EQ(gridkit::permutation(none, order), 0);
  EXPECT_TRUE(none.empty());
}
