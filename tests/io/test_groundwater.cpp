// The groundwater model problem: sizes, fixed-head cells, the operator
// rebuilt cell by cell from the conductivity field, symmetry, M-matrix and
// definiteness (dense Cholesky on small grids), the right-hand side balance.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <vector>

#include "io/io.hpp"

namespace {

using kornlt::GroundwaterModel;

struct Size {
  int nx, ny, nz;
  int nfixed;  // hand-counted: 2 faces x (middle third of y) x (upper half of z)
};

// Fixed-head strips: j in [ny/3, max(ny/3+1, 2ny/3)), k < max(1, nz/2), i on both x faces.
const std::vector<Size> kSizes = {
    {2, 2, 2, 2},      // j 0..0, k 0..0: one cell per face
    {3, 4, 5, 2 * 1 * 2},
    {5, 3, 2, 2 * 1 * 1},
    {6, 6, 6, 2 * 2 * 3},
    {10, 9, 8, 2 * 3 * 4},
    {40, 40, 40, 2 * 13 * 20},
};

double entry(const kornlt::CsrMatrix& m, int i, int j) {
  for (int p = m.ia[i - 1]; p < m.ia[i]; ++p)
    if (m.ja[p - 1] == j) return m.a[p - 1];
  return 0.0;
}

TEST(Groundwater, SizesAndFixedCells) {
  for (const Size& s : kSizes) {
    SCOPED_TRACE(std::to_string(s.nx) + "x" + std::to_string(s.ny) + "x" + std::to_string(s.nz));
    GroundwaterModel g;
    kornlt::groundwater_problem(s.nx, s.ny, s.nz, 1, g);
    const int ncell = s.nx * s.ny * s.nz;
    EXPECT_EQ(g.nfixed, s.nfixed);
    EXPECT_EQ(g.m.nnu, ncell - s.nfixed);
    ASSERT_EQ(static_cast<int>(g.unknown.size()), ncell);
    ASSERT_EQ(static_cast<int>(g.f.size()), g.m.nnu);
    EXPECT_EQ(g.nwells, 4);
    // Unknown numbers run 1..nnu in cell order; fixed cells sit on x faces
    // and carry their face's head.
    int next = 1, nfix = 0;
    for (int k = 0; k < s.nz; ++k)
      for (int j = 0; j < s.ny; ++j)
        for (int i = 0; i < s.nx; ++i) {
          const int c = i + s.nx * (j + s.ny * k);
          if (g.unknown[c] == 0) {
            ++nfix;
            EXPECT_TRUE(i == 0 || i == s.nx - 1);
            EXPECT_EQ(g.hfixed[c], i == 0 ? 100.0 : 95.0);
            EXPECT_LT(k, std::max(1, s.nz / 2));
          } else {
            EXPECT_EQ(g.unknown[c], next++);
          }
        }
    EXPECT_EQ(nfix, s.nfixed);
  }
}

// The operator rebuilt from the conductivity field by an independent loop
// over cells and faces: entries, diagonals and right-hand side.
TEST(Groundwater, OperatorMatchesConductancesAndIsMMatrix) {
  for (const Size& s : kSizes) {
    SCOPED_TRACE(std::to_string(s.nx) + "x" + std::to_string(s.ny) + "x" + std::to_string(s.nz));
    GroundwaterModel g;
    kornlt::groundwater_problem(s.nx, s.ny, s.nz, 11, g);
    const kornlt::CsrMatrix& m = g.m;
    ASSERT_EQ(m.ia[0], 1);
    ASSERT_EQ(m.ia[m.nnu], m.nna + 1);

    // Structure: diagonal first and positive, the rest ascending and negative.
    int positive_rows = 0;
    for (int i = 1; i <= m.nnu; ++i) {
      const int lo = m.ia[i - 1], hi = m.ia[i];
      ASSERT_GT(hi, lo);
      EXPECT_EQ(m.ja[lo - 1], i);
      const double d = m.a[lo - 1];
      EXPECT_GT(d, 0.0);
      double rowsum = d;
      for (int p = lo + 1; p < hi; ++p) {
        EXPECT_LT(m.a[p - 1], 0.0);
        EXPECT_NE(m.ja[p - 1], i);
        EXPECT_GE(m.ja[p - 1], 1);
        EXPECT_LE(m.ja[p - 1], m.nnu);
        if (p > lo + 1) {
          EXPECT_LT(m.ja[p - 2], m.ja[p - 1]);
        }
        rowsum += m.a[p - 1];
        // Symmetric, to the last bit.
        EXPECT_EQ(entry(m, m.ja[p - 1], i), m.a[p - 1]);
      }
      EXPECT_GE(rowsum, -1e-12 * d) << "row " << i;
      if (rowsum > 1e-9 * d) ++positive_rows;
    }
    EXPECT_GT(positive_rows, 0);

    // Independent rebuild. Conductance across a face: harmonic mean of K times
    // face area over centre distance.
    const double dx = 50.0, dy = 50.0, dz = 5.0;
    auto cond = [&](int c1, int c2, double area, double dist) {
      const double k1 = g.kcell[c1], k2 = g.kcell[c2];
      return 2.0 * k1 * k2 / (k1 + k2) * area / dist;
    };
    std::vector<double> fbase(m.nnu, 0.0);
    int rows_with_fixed = 0;
    for (int k = 0; k < s.nz; ++k)
      for (int j = 0; j < s.ny; ++j)
        for (int i = 0; i < s.nx; ++i) {
          const int c = i + s.nx * (j + s.ny * k);
          const int row = g.unknown[c];
          if (row == 0) continue;
          double diag = 0.0, fixed_sum = 0.0;
          int nnb = 0;
          auto face = [&](int di, int dj, int dk, double area, double dist) {
            const int i2 = i + di, j2 = j + dj, k2 = k + dk;
            if (i2 < 0 || i2 >= s.nx || j2 < 0 || j2 >= s.ny || k2 < 0 || k2 >= s.nz) return;
            const int c2 = i2 + s.nx * (j2 + s.ny * k2);
            const double t = cond(c, c2, area, dist);
            diag += t;
            if (g.unknown[c2] == 0) {
              fbase[row - 1] += t * g.hfixed[c2];
              fixed_sum += t;
            } else {
              ++nnb;
              EXPECT_NEAR(entry(m, row, g.unknown[c2]), -t, 1e-14 * t);
            }
          };
          face(-1, 0, 0, dy * dz, dx);
          face(1, 0, 0, dy * dz, dx);
          face(0, -1, 0, dx * dz, dy);
          face(0, 1, 0, dx * dz, dy);
          face(0, 0, -1, dx * dy, dz);
          face(0, 0, 1, dx * dy, dz);
          EXPECT_NEAR(entry(m, row, row), diag, 1e-13 * diag);
          EXPECT_EQ(m.ia[row] - m.ia[row - 1], nnb + 1);
          if (k == 0) fbase[row - 1] += 1.0e-3 * dx * dy;  // recharge
          // Row sum = conductance to fixed neighbours.
          double rowsum = 0.0;
          for (int p = m.ia[row - 1]; p < m.ia[row]; ++p) rowsum += m.a[p - 1];
          EXPECT_NEAR(rowsum, fixed_sum, 1e-12 * diag);
          if (fixed_sum > 0.0) ++rows_with_fixed;
        }
    EXPECT_GT(rows_with_fixed, 0);

    // What is left of the right-hand side are the wells: four cells, total
    // rate -400 - 400 + 200 - 200.
    int nwell_cells = 0;
    double total = 0.0;
    for (int r = 0; r < m.nnu; ++r) {
      const double q = g.f[r] - fbase[r];
      if (std::abs(q) > 1e-9 * (1.0 + std::abs(fbase[r]))) {
        ++nwell_cells;
        total += q;
      }
    }
    EXPECT_EQ(nwell_cells, 4);
    EXPECT_NEAR(total, -800.0, 1e-6);
  }
}

// Positive definite: a dense Cholesky factorisation of small grids succeeds.
TEST(Groundwater, SmallGridsArePositiveDefinite) {
  for (const Size& s : kSizes) {
    if (s.nx * s.ny * s.nz > 800) continue;
    GroundwaterModel g;
    kornlt::groundwater_problem(s.nx, s.ny, s.nz, 5, g);
    const int n = g.m.nnu;
    std::vector<double> d(static_cast<std::size_t>(n) * n, 0.0);
    for (int i = 1; i <= n; ++i)
      for (int p = g.m.ia[i - 1]; p < g.m.ia[i]; ++p)
        d[(i - 1) * static_cast<std::size_t>(n) + (g.m.ja[p - 1] - 1)] = g.m.a[p - 1];
    for (int j = 0; j < n; ++j) {
      double piv = d[j * static_cast<std::size_t>(n) + j];
      for (int k = 0; k < j; ++k) piv -= d[j * static_cast<std::size_t>(n) + k] * d[j * static_cast<std::size_t>(n) + k];
      ASSERT_GT(piv, 0.0) << "pivot " << j << " of grid " << s.nx << "x" << s.ny << "x" << s.nz;
      const double l = std::sqrt(piv);
      d[j * static_cast<std::size_t>(n) + j] = l;
      for (int i = j + 1; i < n; ++i) {
        double v = d[i * static_cast<std::size_t>(n) + j];
        for (int k = 0; k < j; ++k) v -= d[i * static_cast<std::size_t>(n) + k] * d[j * static_cast<std::size_t>(n) + k];
        d[i * static_cast<std::size_t>(n) + j] = v / l;
      }
    }
  }
}

// The conductivity field: layered with a large contrast, varying inside the
// layers, and a function of sizes and seed only.
TEST(Groundwater, ConductivityIsLayeredHeterogeneousAndDeterministic) {
  const int nx = 20, ny = 20, nz = 20;
  const std::vector<double> kc = kornlt::groundwater_conductivity(nx, ny, nz, 3);
  ASSERT_EQ(kc.size(), static_cast<std::size_t>(nx * ny * nz));
  std::vector<double> layer_mean(nz, 0.0);
  double max_spread = 0.0;
  for (int k = 0; k < nz; ++k) {
    double s = 0.0, s2 = 0.0;
    for (int c = k * nx * ny; c < (k + 1) * nx * ny; ++c) {
      ASSERT_GT(kc[c], 0.0);
      const double l = std::log10(kc[c]);
      s += l;
      s2 += l * l;
    }
    const double cnt = nx * ny;
    layer_mean[k] = s / cnt;
    max_spread = std::max(max_spread, std::sqrt(std::max(0.0, s2 / cnt - layer_mean[k] * layer_mean[k])));
  }
  const auto [lo, hi] = std::minmax_element(layer_mean.begin(), layer_mean.end());
  // Between layers: at least 1e3.5 in the geometric means (units 1e5 apart).
  EXPECT_GT(*hi - *lo, 3.5);
  EXPECT_LT(*hi - *lo, 7.0);
  EXPECT_GT(max_spread, 0.1);
  // The top layer is an aquifer, the next unit an aquitard.
  EXPECT_GT(layer_mean[0], -2.0);
  EXPECT_LT(*lo, -4.0);

  EXPECT_EQ(kornlt::groundwater_conductivity(nx, ny, nz, 3), kc);
  EXPECT_NE(kornlt::groundwater_conductivity(nx, ny, nz, 4), kc);

  GroundwaterModel a, b;
  kornlt::groundwater_problem(7, 6, 5, 9, a);
  kornlt::groundwater_problem(7, 6, 5, 9, b);
  EXPECT_EQ(a.m.ia, b.m.ia);
  EXPECT_EQ(a.m.ja, b.m.ja);
  EXPECT_EQ(a.m.a, b.m.a);
  EXPECT_EQ(a.f, b.f);
}

}  // namespace
