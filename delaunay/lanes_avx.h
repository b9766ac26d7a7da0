// Pieces of the four-lane (AVX) geometry that several files share: four points loaded into
// lanes, dot products, and the shape quality from the edge vectors of four tets. Every lane does
// the scalar operations in the same order with nothing fused, so it rounds as the scalar code.
// Callers run these only when lanes_avx() says so.
#pragma once

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define VOXFILL_LANES_AVX 1
#include <immintrin.h>

#include "delaunay/geometry.h"

#define VOXFILL_AVX __attribute__((target("avx")))

namespace kelvo::voxfill::avx_lanes {

// x, y and z of the points a, b, c, d in lanes 0 to 3, x and y unpacked from two halves loaded
// whole (fewer shuffles than a pair of unpacks per half).
VOXFILL_AVX inline void gather_points(const double* a, const double* b, const double* c,
                                      const double* d, __m256d& x, __m256d& y,
                                      __m256d& z) noexcept {
  const __m256d ac =
      _mm256_insertf128_pd(_mm256_castpd128_pd256(_mm_loadu_pd(a)), _mm_loadu_pd(c), 1);
  const __m256d bd =
      _mm256_insertf128_pd(_mm256_castpd128_pd256(_mm_loadu_pd(b)), _mm_loadu_pd(d), 1);
  x = _mm256_unpacklo_pd(ac, bd);
  y = _mm256_unpackhi_pd(ac, bd);
  z = _mm256_insertf128_pd(_mm256_castpd128_pd256(_mm_loadh_pd(_mm_load_sd(a + 2), b + 2)),
                           _mm_loadh_pd(_mm_load_sd(c + 2), d + 2), 1);
}

VOXFILL_AVX inline __m256d dot4(__m256d u0, __m256d u1, __m256d u2, __m256d v0, __m256d v1,
                                __m256d v2) noexcept {
  return _mm256_add_pd(_mm256_add_pd(_mm256_mul_pd(u0, v0), _mm256_mul_pd(u1, v1)),
                       _mm256_mul_pd(u2, v2));
}

// raw_shape_quality and the checks of tet_quality over four lanes; the lanes that need the
// permutation retries (or have no positive denominator) are done again by the scalar code.
// The clamped raw shape quality of the four tets with edge vectors a, b, c from their fourth
// point (x, y, z by lanes) into q; bit l of the result is set when lane l may be taken as it
// stands, clear where tet_quality would retry other orders or the value is too small to trust.
// The steps go in an order that keeps few values live, so that nothing spills: the triple
// product and the dot products first (then a, b and c are dead), then each pair's terms and
// tests, folded into the doubt mask and the sum of roots as they come.
VOXFILL_AVX inline int shape_quality(__m256d a0, __m256d a1, __m256d a2, __m256d b0, __m256d b1,
                                     __m256d b2, __m256d c0, __m256d c1, __m256d c2,
                                     double q[4]) noexcept {
  const __m256d bc0 = _mm256_sub_pd(_mm256_mul_pd(b1, c2), _mm256_mul_pd(b2, c1));
  const __m256d bc1 = _mm256_sub_pd(_mm256_mul_pd(b2, c0), _mm256_mul_pd(b0, c2));
  const __m256d bc2 = _mm256_sub_pd(_mm256_mul_pd(b0, c1), _mm256_mul_pd(b1, c0));
  __m256d det = dot4(a0, a1, a2, bc0, bc1, bc2);
  // Pinned here: GCC would sink it to its one use and keep a, b and c alive to the end.
  asm("" : "+x"(det));
  const __m256d L0 = dot4(a0, a1, a2, a0, a1, a2), dab = dot4(a0, a1, a2, b0, b1, b2),
                dac = dot4(a0, a1, a2, c0, c1, c2);
  const __m256d L1 = dot4(b0, b1, b2, b0, b1, b2), dbc = dot4(b0, b1, b2, c0, c1, c2),
                L2 = dot4(c0, c1, c2, c0, c1, c2);
  const __m256d two = _mm256_set1_pd(2.0), tol = _mm256_set1_pd(SQUARE_TOL);
  // One zero held for the four compares; GCC would make it afresh for each.
  __m256d zero = _mm256_setzero_pd();
  asm("" : "+x"(zero));
  const __m256d Gbc = _mm256_sub_pd(_mm256_mul_pd(L1, L2), _mm256_mul_pd(dbc, dbc));
  __m256d doubtful = _mm256_cmp_pd(Gbc, _mm256_mul_pd(_mm256_mul_pd(tol, L1), L2), _CMP_LT_OQ);
  __m256d roots = _mm256_sqrt_pd(Gbc);
  const __m256d Ebc = _mm256_sub_pd(_mm256_add_pd(L1, L2), _mm256_mul_pd(two, dbc));
  doubtful = _mm256_or_pd(doubtful, _mm256_cmp_pd(Ebc, zero, _CMP_NGT_UQ));
  __m256d H = _mm256_max_pd(L1, L0);
  H = _mm256_max_pd(L2, H);
  const __m256d Gac = _mm256_sub_pd(_mm256_mul_pd(L0, L2), _mm256_mul_pd(dac, dac));
  doubtful = _mm256_or_pd(
      doubtful, _mm256_cmp_pd(Gac, _mm256_mul_pd(_mm256_mul_pd(tol, L0), L2), _CMP_LT_OQ));
  roots = _mm256_add_pd(roots, _mm256_sqrt_pd(Gac));
  // Pinned too, or the roots are all summed at the end with their terms kept till then.
  asm("" : "+x"(roots));
  const __m256d Eac = _mm256_sub_pd(_mm256_add_pd(L0, L2), _mm256_mul_pd(two, dac));
  doubtful = _mm256_or_pd(doubtful, _mm256_cmp_pd(Eac, zero, _CMP_NGT_UQ));
  const __m256d Gab = _mm256_sub_pd(_mm256_mul_pd(L0, L1), _mm256_mul_pd(dab, dab));
  doubtful = _mm256_or_pd(
      doubtful, _mm256_cmp_pd(Gab, _mm256_mul_pd(_mm256_mul_pd(tol, L0), L1), _CMP_LT_OQ));
  roots = _mm256_add_pd(roots, _mm256_sqrt_pd(Gab));
  const __m256d Eab = _mm256_sub_pd(_mm256_add_pd(L0, L1), _mm256_mul_pd(two, dab));
  doubtful = _mm256_or_pd(doubtful, _mm256_cmp_pd(Eab, zero, _CMP_NGT_UQ));
  const __m256d dfar = _mm256_add_pd(_mm256_sub_pd(L0, dab), _mm256_sub_pd(dbc, dac));
  const __m256d Gfar = _mm256_sub_pd(_mm256_mul_pd(Eab, Eac), _mm256_mul_pd(dfar, dfar));
  doubtful = _mm256_or_pd(
      doubtful, _mm256_cmp_pd(Gfar, _mm256_mul_pd(_mm256_mul_pd(tol, Eab), Eac), _CMP_LT_OQ));
  roots = _mm256_add_pd(roots, _mm256_sqrt_pd(Gfar));
  H = _mm256_max_pd(Eab, H);
  H = _mm256_max_pd(Eac, H);
  H = _mm256_max_pd(Ebc, H);
  const __m256d D = _mm256_mul_pd(_mm256_sqrt_pd(H), roots);
  const __m256d raw = _mm256_div_pd(_mm256_mul_pd(_mm256_set1_pd(4.898979485566356), det), D);
  const __m256d value =
      _mm256_min_pd(_mm256_set1_pd(1.0), _mm256_max_pd(_mm256_set1_pd(-1.0), raw));
  // The magnitude by an and with a mask read from memory, which needs no register for -0.0.
  const __m256d magnitude =
      _mm256_and_pd(value, _mm256_castsi256_pd(_mm256_set1_epi64x(0x7fffffffffffffff)));
  const __m256d plain = _mm256_andnot_pd(
      doubtful, _mm256_and_pd(_mm256_cmp_pd(D, zero, _CMP_GT_OQ),
                              _mm256_cmp_pd(magnitude, _mm256_set1_pd(DOUBT_TOL), _CMP_GE_OQ)));
  _mm256_storeu_pd(q, value);
  return _mm256_movemask_pd(plain);
}

// shape_quality of four tets given by their points (x, y, z by lanes, point k of tet l in lane
// l of x[k]), with the edge vectors taken from the fourth point.
VOXFILL_AVX inline int points_shape_quality(const __m256d* x, const __m256d* y, const __m256d* z,
                                            double q[4]) noexcept {
  return shape_quality(
      _mm256_sub_pd(x[0], x[3]), _mm256_sub_pd(y[0], y[3]), _mm256_sub_pd(z[0], z[3]),
      _mm256_sub_pd(x[1], x[3]), _mm256_sub_pd(y[1], y[3]), _mm256_sub_pd(z[1], z[3]),
      _mm256_sub_pd(x[2], x[3]), _mm256_sub_pd(y[2], y[3]), _mm256_sub_pd(z[2], z[3]), q);
}

// The 3x3 lane solve, shared by the solver and the walks (AVX2). A point's x, y and z are in
// lanes 0 to 2; lane 3 is 0.0.
#define VOXFILL_AVX2 __attribute__((target("avx2")))

// x, y and z of p in lanes 0 to 2 (lane 3 is 0.0): reads no further than p[2]. One masked load,
// where two loads and an insert would do the same.
VOXFILL_AVX2 inline __m256d load3(const double* p) noexcept {
  return _mm256_maskload_pd(p, _mm256_set_epi64x(0, -1, -1, -1));
}

// Lane l of v in all four lanes.
template <int l>
VOXFILL_AVX2 inline __m256d spread(__m256d v) noexcept {
  return _mm256_permute4x64_pd(v, l * 0x55);
}

// (r0 . y, r1 . y, r2 . y) times inv, with the rows by lanes: r_i . y in lane i.
VOXFILL_AVX2 inline __m256d rows_times(__m256d Rx, __m256d Ry, __m256d Rz, __m256d y,
                                       __m256d inv) noexcept {
  return _mm256_mul_pd(
      _mm256_add_pd(_mm256_add_pd(_mm256_mul_pd(Rx, spread<0>(y)), _mm256_mul_pd(Ry, spread<1>(y))),
                    _mm256_mul_pd(Rz, spread<2>(y))),
      inv);
}

// Row i of the inverse times the determinant is column i+1 x column i+2: row i in lane i of
// Rx, Ry and Rz. The result is the determinant, the mean of the three column-row products
// summed in the scalar order.
VOXFILL_AVX2 inline double inverse_rows(__m256d C0, __m256d C1, __m256d C2, __m256d& Rx,
                                        __m256d& Ry, __m256d& Rz) noexcept {
  // c = (c0, c1, c2) by lanes, each as x, y and z, by a transpose of the columns (lane 3 repeats
  // lane 2, so that lane 3 of the rows comes out as a product less itself, as before); then
  // u = (c1, c2, c0) and v = (c2, c0, c1) by lanes.
  __m256d u[3], v[3], c[3];
  {
    const __m256d lo01 = _mm256_unpacklo_pd(C0, C1), hi01 = _mm256_unpackhi_pd(C0, C1);
    const __m256d lo22 = _mm256_unpacklo_pd(C2, C2), hi22 = _mm256_unpackhi_pd(C2, C2);
    // Lanes of lo01: c0x c1x c0z c1z; of hi01: c0y c1y _ _; of lo22: c2x c2x c2z c2z.
    c[0] = _mm256_permute2f128_pd(lo01, lo22, 0x20);
    c[1] = _mm256_permute2f128_pd(hi01, hi22, 0x20);
    c[2] = _mm256_permute2f128_pd(lo01, lo22, 0x31);
  }
  for (unsigned k = 0; k < 3; ++k) {
    u[k] = _mm256_permute4x64_pd(c[k], 1 | 2 << 2 | 0 << 4 | 3 << 6);
    v[k] = _mm256_permute4x64_pd(c[k], 2 | 0 << 2 | 1 << 4 | 3 << 6);
  }
  Rx = _mm256_sub_pd(_mm256_mul_pd(u[1], v[2]), _mm256_mul_pd(u[2], v[1]));
  Ry = _mm256_sub_pd(_mm256_mul_pd(u[2], v[0]), _mm256_mul_pd(u[0], v[2]));
  Rz = _mm256_sub_pd(_mm256_mul_pd(u[0], v[1]), _mm256_mul_pd(u[1], v[0]));
  const __m256d cr = _mm256_add_pd(_mm256_add_pd(_mm256_mul_pd(c[0], Rx), _mm256_mul_pd(c[1], Ry)),
                                   _mm256_mul_pd(c[2], Rz));
  // Summed in lane 0 of the halves, which spares the moves that GCC puts in for the scalars.
  const __m128d cr01 = _mm256_castpd256_pd128(cr);
  const __m128d sum =
      _mm_add_sd(_mm_add_sd(cr01, _mm_unpackhi_pd(cr01, cr01)), _mm256_extractf128_pd(cr, 1));
  return _mm_cvtsd_f64(sum) / 3.0;
}

// The solution of C x = B from the inverse's rows, with up to `refinements` steps on the
// residual; they stop once every step is within 1e-12 of its component.
VOXFILL_AVX2 inline void refined_solution(__m256d C0, __m256d C1, __m256d C2, __m256d Rx,
                                          __m256d Ry, __m256d Rz, __m256d inv, __m256d B,
                                          int refinements, double* out3) noexcept {
  __m256d x = rows_times(Rx, Ry, Rz, B, inv);
  // Magnitudes by a mask that can be read from memory, and the three lanes' test by one vtestpd.
  const __m256d magnitude = _mm256_castsi256_pd(_mm256_set1_epi64x(0x7fffffffffffffff));
  const __m256d small = _mm256_set1_pd(1e-12);
  const __m256d xyz = _mm256_castsi256_pd(_mm256_set_epi64x(0, -1, -1, -1));
  for (int k = 0; k < refinements; ++k) {
    const __m256d e = _mm256_sub_pd(B, _mm256_add_pd(_mm256_add_pd(_mm256_mul_pd(C0, spread<0>(x)),
                                                                   _mm256_mul_pd(C1, spread<1>(x))),
                                                     _mm256_mul_pd(C2, spread<2>(x))));
    const __m256d d = rows_times(Rx, Ry, Rz, e, inv);
    x = _mm256_add_pd(x, d);
    const __m256d ok = _mm256_cmp_pd(_mm256_and_pd(d, magnitude),
                                     _mm256_mul_pd(small, _mm256_and_pd(x, magnitude)), _CMP_LE_OQ);
    if (_mm256_testc_pd(ok, xyz)) break;
  }
  alignas(32) double out[4];
  _mm256_store_pd(out, x);
  out3[0] = out[0];
  out3[1] = out[1];
  out3[2] = out[2];
}

// The walks' face tests of P (broadcast in p) in a tet, face f in lane f, from the nodes by lanes;
// bit f of the result: P is beyond face f by more than `limit`. The lanes do the scalar operations
// one for one and in the same order (nothing fused), so the mask has the same bits. Face f is
// D_f = w . (u x v) with w, u, v the rows of the table below, the nodes seen from P permuted, and
// face 2 takes the sign turned.
VOXFILL_AVX2 inline int beyond_faces_lanes(__m256d x, __m256d y, __m256d z, const __m256d* p,
                                           __m256d limit, __m256d turn) noexcept {
  const __m256d d[3] = {_mm256_sub_pd(x, p[0]), _mm256_sub_pd(y, p[1]), _mm256_sub_pd(z, p[2])};
  // Lanes: w = (d1, d2, d1, d2), u = (d2, d0, d0, d1), v = (d3, d3, d3, d0).
  constexpr int W = 1 | 2 << 2 | 1 << 4 | 2 << 6;
  constexpr int U = 2 | 0 << 2 | 0 << 4 | 1 << 6;
  constexpr int V = 3 | 3 << 2 | 3 << 4 | 0 << 6;
  __m256d w[3], u[3], v[3];
  for (unsigned k = 0; k < 3; ++k) {
    w[k] = _mm256_permute4x64_pd(d[k], W);
    u[k] = _mm256_permute4x64_pd(d[k], U);
    v[k] = _mm256_permute4x64_pd(d[k], V);
  }
  const __m256d c0 = _mm256_sub_pd(_mm256_mul_pd(u[1], v[2]), _mm256_mul_pd(u[2], v[1]));
  const __m256d c1 = _mm256_sub_pd(_mm256_mul_pd(u[2], v[0]), _mm256_mul_pd(u[0], v[2]));
  const __m256d c2 = _mm256_sub_pd(_mm256_mul_pd(u[0], v[1]), _mm256_mul_pd(u[1], v[0]));
  const __m256d D =
      _mm256_xor_pd(_mm256_add_pd(_mm256_add_pd(_mm256_mul_pd(w[0], c0), _mm256_mul_pd(w[1], c1)),
                                  _mm256_mul_pd(w[2], c2)),
                    turn);
  return _mm256_movemask_pd(_mm256_cmp_pd(D, limit, _CMP_GT_OQ));
}

// tet_quality of the tet whose edge vectors a, b, c from its fourth point are lanes 0 to 2 of x,
// y and z (lane 3 is a again), given S1 = (L0, L1, L2, dab), their first dot products: its dot
// products, Gram determinants and square roots in lanes, the scalar operations one for one and in
// the same order (nothing fused). 2.0 for a tet that is doubtful or too flat to trust, which the
// scalar routine then decides.
VOXFILL_AVX2 inline double tet_quality_of_edges(__m256d x, __m256d y, __m256d z,
                                                __m256d S1) noexcept {
  using namespace geometry_detail;
  constexpr int ABAB = 0 | 1 << 2 | 0 << 4 | 1 << 6;
  constexpr int CCCC = 2 * 0x55;
  // S2 = (dac, dbc, dac, dbc).
  const __m256d S2 = dot4(_mm256_permute4x64_pd(x, ABAB), _mm256_permute4x64_pd(y, ABAB),
                          _mm256_permute4x64_pd(z, ABAB), _mm256_permute4x64_pd(x, CCCC),
                          _mm256_permute4x64_pd(y, CCCC), _mm256_permute4x64_pd(z, CCCC));
  // (dab, dac, dbc, dbc)
  const __m256d dots = _mm256_blend_pd(_mm256_permute4x64_pd(S2, 0 | 0 << 2 | 1 << 4 | 1 << 6),
                                       _mm256_permute4x64_pd(S1, 3 * 0x55), 1);
  // E = (Eab, Eac, Ebc, _) = (L0 + L1, L0 + L2, L1 + L2) - 2 (dab, dac, dbc)
  const __m256d E = _mm256_sub_pd(_mm256_add_pd(_mm256_permute4x64_pd(S1, 0 | 0 << 2 | 1 << 4),
                                                _mm256_permute4x64_pd(S1, 1 | 2 << 2 | 2 << 4)),
                                  _mm256_mul_pd(_mm256_set1_pd(2.0), dots));
  alignas(32) double s1[4], s2[4], e[4];
  _mm256_store_pd(s1, S1);
  _mm256_store_pd(s2, S2);
  _mm256_store_pd(e, E);
  const double L0 = s1[0], L1 = s1[1], L2 = s1[2], dab = s1[3], dac = s2[0], dbc = s2[1];
  const double Eab = e[0], Eac = e[1], Ebc = e[2];
  const double dfar = (L0 - dab) + (dbc - dac);
  // G = (Gbc, Gac, Gab, Gfar) = f s - d d with f = (L1, L0, L0, Eab), s = (L2, L2, L1, Eac) and
  // d = (dbc, dac, dab, dfar).
  const __m256d f = _mm256_set_pd(Eab, L0, L0, L1), g = _mm256_set_pd(Eac, L1, L2, L2);
  const __m256d d = _mm256_set_pd(dfar, dab, dac, dbc);
  const __m256d G = _mm256_sub_pd(_mm256_mul_pd(f, g), _mm256_mul_pd(d, d));
  const __m256d tol = _mm256_mul_pd(_mm256_mul_pd(_mm256_set1_pd(SQUARE_TOL), f), g);
  const bool sure = Eab > 0.0 && Eac > 0.0 && Ebc > 0.0 &&
                    _mm256_movemask_pd(_mm256_cmp_pd(G, tol, _CMP_NLT_UQ)) == 15;
  if (!sure) return 2.0;
  double H = L0;
  if (L1 > H) H = L1;
  if (L2 > H) H = L2;
  if (Eab > H) H = Eab;
  if (Eac > H) H = Eac;
  if (Ebc > H) H = Ebc;
  alignas(32) double r[4];
  _mm256_store_pd(r, _mm256_sqrt_pd(G));
  const double D = std::sqrt(H) * (r[0] + r[1] + r[2] + r[3]);
  if (!(D > 0.0)) return 2.0;
  // The edge vectors are lanes 0, 1 and 2, as sub3 gives them.
  alignas(32) double ex[4], ey[4], ez[4];
  _mm256_store_pd(ex, x);
  _mm256_store_pd(ey, y);
  _mm256_store_pd(ez, z);
  const double a[3] = {ex[0], ey[0], ez[0]}, b[3] = {ex[1], ey[1], ez[1]},
               c[3] = {ex[2], ey[2], ez[2]};
  double bc[3];
  cross3(b, c, bc);
  double q = 4.898979485566356 * dot3(a, bc) / D;
  q = q > 1.0 ? 1.0 : (q < -1.0 ? -1.0 : q);
  return std::fabs(q) >= DOUBT_TOL ? q : 2.0;
}

}  // namespace kelvo::voxfill::avx_lanes

#else
#define VOXFILL_LANES_AVX 0
#endif
