// The groundwater model problem: fixed-head cells counted by hand, and the
// operator and right-hand side rebuilt cell by cell from the conductivity
// field by an independent loop; symmetric, weakly diagonally dominant with
// some strictly dominant rows (so positive definite).
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "io/io.hpp"

namespace {

double entry(const kornlt::CsrMatrix& m, int i, int j) {
  for (int p = m.ia[i - 1]; p < m.ia[i]; ++p)
    if (m.ja[p - 1] == j) return m.a[p - 1];
  return 0.0;
}

TEST(Groundwater, OperatorMatchesTheConductancesCellByCell) {
  struct Size {
    int nx, ny, nz;
    int nfixed;  // on both x faces: (middle third of y) x (upper half of z)
  };
  for (const Size& s : {Size{2, 2, 2, 2}, {3, 4, 5, 2 * 1 * 2}, {10, 9, 8, 2 * 3 * 4}}) {
    SCOPED_TRACE(std::to_string(s.nx) + "x" + std::to_string(s.ny) + "x" + std::to_string(s.nz));
    kornlt::GroundwaterModel g;
    kornlt::groundwater_problem(s.nx, s.ny, s.nz, 11, g);
    const kornlt::CsrMatrix& m = g.m;
    ASSERT_EQ(g.nfixed, s.nfixed);
    ASSERT_EQ(m.nnu, s.nx * s.ny * s.nz - s.nfixed);
    ASSERT_EQ(m.ia[m.nnu], m.nna + 1);
    // Conductance across a face: harmonic mean of K times face area over centre
    // distance; fixed heads (100 on x = 0, 95 on the other face) go to the right-hand side.
    const int n[3] = {s.nx, s.ny, s.nz};
    const double h[3] = {50.0, 50.0, 5.0};
    double wells = 0.0;
    int next = 1, strictly_dominant = 0;
    for (int c = 0; c < s.nx * s.ny * s.nz; ++c) {
      const int row = g.unknown[c], x[3] = {c % s.nx, c / s.nx % s.ny, c / (s.nx * s.ny)};
      if (row == 0) continue;
      EXPECT_EQ(row, next++);
      double diag = 0.0, to_fixed = 0.0, f = x[2] == 0 ? 1.0e-3 * h[0] * h[1] : 0.0;  // recharge on top
      int nnb = 0;
      for (int d = 0; d < 3; ++d)
        for (int step : {-1, 1}) {
          if (x[d] + step < 0 || x[d] + step >= n[d]) continue;
          const int c2 = c + step * (d == 0 ? 1 : d == 1 ? s.nx : s.nx * s.ny);
          const double t = 2.0 * g.kcell[c] * g.kcell[c2] / (g.kcell[c] + g.kcell[c2]) *
                           (h[0] * h[1] * h[2] / h[d]) / h[d];
          diag += t;
          if (g.unknown[c2] == 0) {
            EXPECT_EQ(g.hfixed[c2], x[0] + (d == 0 ? step : 0) == 0 ? 100.0 : 95.0);
            f += t * g.hfixed[c2], to_fixed += t;
            continue;
          }
          ++nnb;
          EXPECT_NEAR(entry(m, row, g.unknown[c2]), -t, 1e-14 * t);
          EXPECT_EQ(entry(m, g.unknown[c2], row), entry(m, row, g.unknown[c2]));  // symmetric to the bit
        }
      EXPECT_EQ(m.ja[m.ia[row - 1] - 1], row) << "diagonal first";
      EXPECT_NEAR(m.a[m.ia[row - 1] - 1], diag, 1e-13 * diag);
      EXPECT_EQ(m.ia[row] - m.ia[row - 1], nnb + 1);
      double rowsum = 0.0;
      for (int p = m.ia[row - 1]; p < m.ia[row]; ++p) rowsum += m.a[p - 1];
      EXPECT_NEAR(rowsum, to_fixed, 1e-12 * diag);
      strictly_dominant += to_fixed > 0.0;
      wells += g.f[row - 1] - f;
    }
    EXPECT_GT(strictly_dominant, 0);
    EXPECT_NEAR(wells, -400.0 - 400.0 + 200.0 - 200.0, 1e-6);  // what is left are the four wells
  }
}

}  // namespace
