// Sharing, growth and copying of the array views.
#include <gtest/gtest.h>

#include "numcore/append.h"
#include "numcore/dense2D.h"

using kelvo::dense1D;
using kelvo::dense2D;

// Growth keeps what was written: a reallocation that copied too little, or from the wrong
// offset, loses values; a value taken from the list itself must survive the growth it triggers.
TEST(Containers, GrowthKeepsValues) {
  dense1D<unsigned> v;
  ASSERT_NE(v.vec.get(), nullptr);
  for (unsigned i = 0; i < 1000; ++i) v.push_back(3 * i + 1);
  ASSERT_EQ(v.size, 1000u);
  for (unsigned i = 0; i < 1000; ++i) ASSERT_EQ(v[i], 3 * i + 1) << i;

  // A view that starts inside its buffer grows from its own offset.
  dense1D<double> whole(4, 0.5);
  dense1D<double> tail = whole.sub_vector(2, 2);
  for (unsigned i = 0; i < 50; ++i) tail.push_back(i);
  EXPECT_EQ(tail.size, 52u);
  EXPECT_EQ(tail[0], 0.5);
  EXPECT_EQ(tail[51], 49.0);
  EXPECT_EQ(whole.size, 4u);

  dense1D<unsigned> s;
  s.push_back(7);
  s.push_back(8);
  s.push_back(s[0]);
  EXPECT_EQ(s[2], 7u);
}

// Views share writes and survive each other's growth; copy and clear_hard make them independent.
TEST(Containers, SharingSurvivesGrowthAndCopySeparates) {
  dense1D<unsigned> parent;
  for (unsigned i = 0; i < 6; ++i) parent.push_back(i);
  dense1D<unsigned> sub = parent.sub_vector(2, 3);
  parent[2] = 42;
  EXPECT_EQ(sub[0], 42u);
  for (unsigned i = 0; i < 100; ++i) parent.push_back(i);  // several reallocations
  sub[1] = 77;
  EXPECT_EQ(parent[3], 77u);
  EXPECT_EQ(sub[0], 42u);

  dense1D<unsigned> a(4, 1u), b = a;
  b[0] = 9;
  EXPECT_EQ(a[0], 9u);
  ASSERT_TRUE(b.copy(b));  // self-copy still leaves an own buffer
  b[1] = 5;
  EXPECT_EQ(a[1], 1u);
  EXPECT_EQ(b[0], 9u);

  dense1D<unsigned> c = a;
  c.clear();
  EXPECT_EQ(a.size, 4u);
  EXPECT_EQ(c.vec.get(), a.vec.get());
  c.clear_hard();
  EXPECT_NE(c.vec.get(), a.vec.get());
  EXPECT_EQ(a[1], 1u);
  EXPECT_TRUE(a.reserved_overlaps(a.sub_vector(3, 1)));
  EXPECT_FALSE(a.reserved_overlaps(c));
}

// resize(n, value) must touch only the new elements; fill-by-assignment fills the view only.
TEST(Containers, ResizeWithValueAndFill) {
  dense1D<unsigned> v(3, 7u);
  ASSERT_TRUE(v.resize(2, 0u));
  EXPECT_EQ(v[0], 7u);
  EXPECT_EQ(v[1], 7u);
  ASSERT_TRUE(v.resize(5, 3u));
  EXPECT_EQ(v[1], 7u);
  EXPECT_EQ(v[2], 3u);
  EXPECT_EQ(v[4], 3u);
  v = 9u;
  for (unsigned x : v) EXPECT_EQ(x, 9u);
  ASSERT_TRUE(v.push_back_n(4u, 3));
  EXPECT_EQ(v.size, 8u);
  EXPECT_EQ(v[7], 4u);
  // An impossible size fails and leaves the view as it was.
  EXPECT_FALSE(v.resize(0xFFFFFFF0u));
  EXPECT_EQ(v.size, 8u);
}

// Column-major layout, emptiness by rows * cols, sub-matrices and column-keeping resize.
TEST(Containers, MatrixLayoutAndViews) {
  dense2D<unsigned> e1(3, 0), e2(0, 5);
  EXPECT_TRUE(e1.empty());
  EXPECT_TRUE(e2.empty());

  dense2D<double> m(3, 4);
  for (unsigned j = 0; j < 4; ++j)
    for (unsigned i = 0; i < 3; ++i) m(i, j) = 10.0 * j + i;
  EXPECT_EQ(m.vec->data[m.offset + 3 * 2 + 1], 21.0);
  dense2D<double> s = m.sub_matrix(0, 2, 3, 2);
  EXPECT_EQ(s.ld, 3u);
  EXPECT_EQ(s(0, 0), 20.0);
  EXPECT_EQ(s.col(1)[2], 32.0);
  ASSERT_TRUE(m.resize(3, 50));
  EXPECT_EQ(m(2, 3), 32.0);
  EXPECT_EQ(m.as_vector().size, 150u);

  dense2D<unsigned> u(2, 2, 1u);
  ASSERT_TRUE(u.resize(3, 3, 5u));  // new row count: common part kept, the rest set
  EXPECT_EQ(u(0, 0), 1u);
  EXPECT_EQ(u(2, 0), 5u);
  EXPECT_EQ(u(1, 1), 1u);
  EXPECT_EQ(u(0, 2), 5u);

  dense2D<unsigned> w = u;
  ASSERT_TRUE(w.copy(u));
  w(0, 0) = 8;
  EXPECT_EQ(u(0, 0), 1u);
  dense2D<unsigned> sm = u.sub_matrix(0, 1, 3, 1);
  sm(0, 0) = 99;  // a non-const sub-matrix writes the parent
  EXPECT_EQ(u(0, 1), 99u);
}

// Appending copies column blocks or single columns to the right place and keeps what was there.
TEST(Containers, Append) {
  dense1D<unsigned> a(3, 1u), b(2, 2u);
  ASSERT_TRUE(kelvo::append(a, b));
  EXPECT_EQ(a.size, 5u);
  EXPECT_EQ(a[2], 1u);
  EXPECT_EQ(a[3], 2u);
  EXPECT_EQ(a[4], 2u);
  EXPECT_EQ(b.size, 2u);

  dense2D<unsigned> m(2, 2, 1u), n(3, 2, 2u), empty;
  ASSERT_TRUE(kelvo::append(empty, n));
  EXPECT_EQ(empty.rows, 3u);
  EXPECT_EQ(empty.cols, 2u);
  ASSERT_TRUE(kelvo::append(m, n));  // row count becomes the larger one
  EXPECT_EQ(m.rows, 3u);
  EXPECT_EQ(m.cols, 4u);
  EXPECT_EQ(m(0, 1), 1u);
  EXPECT_EQ(m(2, 3), 2u);
}
