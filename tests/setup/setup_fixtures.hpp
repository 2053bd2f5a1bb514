// Shared pieces of the setup tests: model matrices (1-based CSR, diagonal
// first in every row), a matrix laid out as one level of the stacked arrays,
// the guard that restores parameters and threads, an independent checker of
// a C/F split and the dense product P^T A P used as the Galerkin reference.
#pragma once

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "entry/problems.hpp"
#include "log/log.hpp"
#include "log/test_support.hpp"
#include "params/params.hpp"
#include "placed_level.hpp"
#include "setup/setup.hpp"
#include "store/store.hpp"

namespace setup_test {

using korn_test::Csr;
using korn_test::MessageCapture;
using Off = std::vector<std::pair<int, double>>;  // (column, value) of one row's off-diagonals
using Row = std::map<int, double>;                // column -> value of one row

inline std::size_t at(int i) { return static_cast<std::size_t>(i); }

// ---------------------------------------------------------------------------
// Matrices
// ---------------------------------------------------------------------------
// Appends the next row: its diagonal first, then the off-diagonals as given.
inline void add_row(Csr& m, double diag, const Off& off) {
  const int i = static_cast<int>(m.ia.size());
  m.add(i, diag);
  for (auto [j, v] : off) m.add(j, v);
  m.end_row();
  m.nnu = i;
}
inline int row_begin(const Csr& m, int i) { return m.ia[at(i - 1)]; }  // the diagonal's position
inline int row_end(const Csr& m, int i) { return m.ia[at(i)]; }        // one past the row

// Five-point stencil on nx x ny, couplings stored south, west, east, north.
// diag < 0: the negative off-diagonal sum (zero row sums).
inline Csr grid2d(int nx, int ny, double west, double east, double south, double north, double diag) {
  Csr m;
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      const int i = 1 + x + nx * y;
      Off off;
      if (y > 0) off.push_back({i - nx, south});
      if (x > 0) off.push_back({i - 1, west});
      if (x < nx - 1) off.push_back({i + 1, east});
      if (y < ny - 1) off.push_back({i + nx, north});
      double d = diag;
      if (diag < 0.0) {
        d = 0.0;
        for (auto [j, v] : off) d -= v;
      }
      add_row(m, d, off);
    }
  return m;
}
inline Csr poisson2d(int nx, int ny) { return grid2d(nx, ny, -1.0, -1.0, -1.0, -1.0, 4.0); }
inline Csr neumann2d(int nx, int ny) { return grid2d(nx, ny, -1.0, -1.0, -1.0, -1.0, -1.0); }
// -u_xx - 0.01 u_yy: only the x couplings are strong.
inline Csr anisotropic2d(int nx, int ny) { return grid2d(nx, ny, -1.0, -1.0, -0.01, -0.01, 2.02); }
// Upwind convection-diffusion: non-symmetric values on a symmetric pattern.
inline Csr convection2d(int nx, int ny) { return grid2d(nx, ny, -1.7, -0.3, -1.0, -1.0, 4.0); }

// Seven-point stencil on m^3; neumann: the graph Laplacian (zero row sums).
inline Csr grid3d(int m, bool neumann = false) {
  Csr c;
  auto id = [m](int x, int y, int z) { return 1 + x + m * (y + m * z); };
  for (int z = 0; z < m; ++z)
    for (int y = 0; y < m; ++y)
      for (int x = 0; x < m; ++x) {
        Off off;
        if (z > 0) off.push_back({id(x, y, z - 1), -1.0});
        if (y > 0) off.push_back({id(x, y - 1, z), -1.0});
        if (x > 0) off.push_back({id(x - 1, y, z), -1.0});
        if (x < m - 1) off.push_back({id(x + 1, y, z), -1.0});
        if (y < m - 1) off.push_back({id(x, y + 1, z), -1.0});
        if (z < m - 1) off.push_back({id(x, y, z + 1), -1.0});
        add_row(c, neumann ? static_cast<double>(off.size()) : 6.0, off);
      }
  return c;
}

// Rows from (column -> value) maps; diagonal = shift + the absolute
// off-diagonal sum times `scale` (scale 1, shift 0: zero row sums when all
// couplings are negative).
inline Csr from_maps(const std::vector<std::map<int, double>>& rows, double scale, double shift) {
  Csr c;
  for (std::size_t i = 1; i < rows.size(); ++i) {
    double s = 0.0;
    Off off;
    for (auto [j, v] : rows[i]) {
      s += std::abs(v);
      off.push_back({j, v});
    }
    add_row(c, scale * s + shift, off);
  }
  return c;
}

// Weighted graph Laplacian of the n x n grid, weights in [0.1, 1], a random
// third of the cells cut by a diagonal: a zero-row-sum M-matrix without the
// grid's regularity.
inline Csr random_laplacian(int n, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<double> val(0.1, 1.0), coin(0.0, 1.0);
  std::vector<std::map<int, double>> rows(at(n * n + 1));
  auto link = [&](int i, int j) { rows[at(i)][j] = rows[at(j)][i] = -val(gen); };
  auto id = [n](int x, int y) { return 1 + x + n * y; };
  for (int y = 0; y < n; ++y)
    for (int x = 0; x < n; ++x) {
      if (x + 1 < n) link(id(x, y), id(x + 1, y));
      if (y + 1 < n) link(id(x, y), id(x, y + 1));
      if (x + 1 < n && y + 1 < n && coin(gen) < 0.33) link(id(x, y), id(x + 1, y + 1));
    }
  return from_maps(rows, 1.0, 0.0);
}

// Random symmetric pattern: a chain plus about degree/2 random links per row,
// couplings in [-1, -0.05], a share `positive` of them positive instead;
// diagonal 1.1 times the absolute off-diagonal sum.
inline Csr random_sym(int n, unsigned seed, int degree, double positive) {
  std::mt19937 gen(seed);
  std::uniform_int_distribution<int> pick(1, n);
  std::uniform_real_distribution<double> mag(0.05, 1.0), coin(0.0, 1.0);
  std::vector<std::map<int, double>> rows(at(n + 1));
  for (int i = 1; i <= n; ++i) {
    if (i < n) rows[at(i)][i + 1] = rows[at(i + 1)][i] = -mag(gen);
    for (int e = 0; e < degree / 2; ++e) {
      const int j = pick(gen);
      if (j == i || rows[at(i)].count(j)) continue;
      const double v = coin(gen) < positive ? 0.5 * mag(gen) : -mag(gen);
      rows[at(i)][j] = rows[at(j)][i] = v;
    }
  }
  return from_maps(rows, 1.1, 0.0);
}

// ---------------------------------------------------------------------------
// A matrix as one level of the stacked arrays: rows ilo..ihi with global
// columns, entries from position alo on, icg over the rows.
// ---------------------------------------------------------------------------
struct Level {
  int ilo = 1, ihi = 0, alo = 1;
  std::vector<int> ia, ja, icg;
  std::vector<double> a;

  int n() const { return ihi - ilo + 1; }
  int IA(int i) const { return ia[at(i - ilo)]; }
  int JA(int p) const { return ja[at(p - alo)]; }
  double A(int p) const { return a[at(p - alo)]; }
  int ICG(int i) const { return icg[at(i - ilo)]; }
  int end(int i) const { return JA(IA(i)); }  // the strong end the row sort leaves
  void set_end(int i, int e) { ja[at(IA(i) - alo)] = e; }
  kornlt::LevelView view(int k = 1) {
    if (icg.empty()) icg.assign(at(n()), kornlt::kIcgUndecided);
    kornlt::LevelView L = test_support::placed_view(k, ilo, ihi, alo, ia, ja, a);
    L.icg = kornlt::Vec1<int>(icg.data(), ilo, ihi);
    return L;
  }
};

inline Level make_level(const Csr& m, int row_base = 0, int entry_base = 0) {
  Level lv;
  lv.ilo = row_base + 1;
  lv.ihi = row_base + m.nnu;
  lv.alo = entry_base + 1;
  for (int p : m.ia) lv.ia.push_back(p + entry_base);
  for (int j : m.ja) lv.ja.push_back(j + row_base);
  lv.a = m.a;
  return lv;
}

// ---------------------------------------------------------------------------
// Independent checker of a C/F split against the strong sets S_i read from
// the row sort's result before the selection (ends[i - ilo]: the strong end;
// 0 marks a row that cannot be treated, ia(i) one without strong couplings):
// - FF exactly for rows without strong couplings, preset C (iset_vio_dd 1) or
//   FF (0) for rows that cannot be treated;
// - every F-variable has a C-variable in S_i;
// - no two C-variables are strongly coupled both ways (symmetric S: not at all);
// - cleaning 2 leaves nothing undecided, cleaning 1 only variables with an
//   F-variable in S_i;
// - the counters are the counts of the states.
// ---------------------------------------------------------------------------
inline std::vector<int> strong_ends(const Level& lv) {
  std::vector<int> e;
  for (int i = lv.ilo; i <= lv.ihi; ++i) e.push_back(lv.end(i));
  return e;
}

inline void expect_valid_split(const Level& lv, const std::vector<int>& ends, const kornlt::SelectionCounts& c,
                               int nxf_clean, bool symmetric, int iset_vio_dd = 1) {
  auto S = [&](int i) {
    std::vector<int> s;
    for (int p = lv.IA(i) + 1; p <= ends[at(i - lv.ilo)]; ++p) s.push_back(lv.JA(p));
    return s;
  };
  int nc = 0, nf = 0, nxf = 0, nff = 0, nfc = 0;
  for (int i = lv.ilo; i <= lv.ihi; ++i) {
    const int s = lv.ICG(i), e = ends[at(i - lv.ilo)];
    ASSERT_TRUE(s == 1 || s == -1 || s == -2 || s == 0) << "row " << i << " state " << s;
    nc += s == 1;
    nf += s == -1 || s == -2;
    nxf += s == -2;
    nff += s == 0;
    if (e == 0) {
      EXPECT_EQ(s, iset_vio_dd >= 1 ? 1 : 0) << "row " << i << " cannot be treated";
      nfc += iset_vio_dd >= 1;
    } else if (e == lv.IA(i)) {
      EXPECT_EQ(s, 0) << "row " << i << " without strong couplings";
    } else {
      EXPECT_NE(s, 0) << "row " << i;
    }
    bool has_c = false, has_f = false;
    for (int j : S(i)) {
      has_c = has_c || lv.ICG(j) > 0;
      has_f = has_f || lv.ICG(j) == -1;
      if (s == 1 && lv.ICG(j) > 0) {
        EXPECT_FALSE(symmetric) << "C-C coupling " << i << " -> " << j;
        const std::vector<int> sj = S(j);
        EXPECT_TRUE(std::find(sj.begin(), sj.end(), i) == sj.end()) << "C " << i << ", " << j << " coupled both ways";
      }
    }
    if (s == -1) {
      EXPECT_TRUE(has_c) << "F-variable " << i << " without strong C neighbour";
    }
    if (s == -2) {
      EXPECT_EQ(nxf_clean, 1) << "undecided " << i << " left under cleaning 2";
      EXPECT_TRUE(has_f) << "XF " << i << " without strong F neighbour";
    }
  }
  EXPECT_EQ(c.nvars, lv.n());
  EXPECT_EQ(c.nc, nc);
  EXPECT_EQ(c.nf, nf);
  EXPECT_EQ(c.nxf, nxf);
  EXPECT_EQ(c.nff, nff);
  EXPECT_EQ(c.nfc, nfc);
}

// ---------------------------------------------------------------------------
// Readers of the store
// ---------------------------------------------------------------------------
// Level k as rows of local (0-based) columns. Checks on the way that every row
// starts with its diagonal, stays inside the level and repeats no column.
inline std::vector<Row> level_rows(int k) {
  const kornlt::LevelView L = kornlt::level_view(k);
  std::vector<Row> rows(at(L.nrows()));
  for (int i = L.ilo; i <= L.ihi; ++i) {
    EXPECT_EQ(L.ja(L.ia(i)), i) << "diagonal not first in row " << i << " of level " << k;
    for (int p = L.ia(i); p < L.ia(i + 1); ++p) {
      EXPECT_TRUE(L.ja(p) >= L.ilo && L.ja(p) <= L.ihi) << "column out of level " << k << " in row " << i;
      EXPECT_TRUE(rows[at(i - L.ilo)].emplace(L.ja(p) - L.ilo, L.a(p)).second) << "repeated column in row " << i;
    }
  }
  return rows;
}

// Interpolation rows ilo..ihi of the store (entry i - ilo + 1; entry 0 unused).
inline std::vector<Row> interp_rows(int ilo, int ihi) {
  const kornlt::StoreState& st = kornlt::store();
  std::vector<Row> r(at(ihi - ilo + 2));
  for (int i = ilo; i <= ihi; ++i)
    for (int p = st.iw[at(i - 1)]; p < st.iw[at(i)]; ++p)
      EXPECT_TRUE(r[at(i - ilo + 1)].emplace(st.jw[at(p - 1)], st.w[at(p - 1)]).second) << "repeated column in row " << i;
  return r;
}

inline double sum(const Row& r) {
  double s = 0.0;
  for (auto [k, v] : r) s += v;
  return s;
}

// The exact content of levels first..last of the store and of interpolation
// rows 1..nrows_w with their icg, for comparisons that must hold bit for bit.
struct Snapshot {
  std::vector<int> ints;
  std::vector<std::uint64_t> bits;
  bool operator==(const Snapshot&) const = default;
};
inline Snapshot snapshot(int first, int last, int nrows_w) {
  Snapshot s;
  for (int k = first; k <= last; ++k) {
    const kornlt::LevelView L = kornlt::level_view(k);
    s.ints.push_back(L.ilo);
    for (int i = L.ilo; i <= L.ihi + 1; ++i) s.ints.push_back(L.ia(i));
    for (int p = L.ia(L.ilo); p < L.ia(L.ihi + 1); ++p) {
      s.ints.push_back(L.ja(p));
      s.bits.push_back(std::bit_cast<std::uint64_t>(L.a(p)));
    }
  }
  const kornlt::StoreState& st = kornlt::store();
  for (int i = 1; i <= nrows_w; ++i) {
    s.ints.push_back(st.icg[at(i - 1)]);
    s.ints.push_back(st.iw[at(i)]);
    for (int p = st.iw[at(i - 1)]; p < st.iw[at(i)]; ++p) {
      s.ints.push_back(st.jw[at(p - 1)]);
      s.bits.push_back(std::bit_cast<std::uint64_t>(st.w[at(p - 1)]));
    }
  }
  return s;
}

// ---------------------------------------------------------------------------
// The Galerkin reference: P^T A P with dense matrices.
// ---------------------------------------------------------------------------
using Dense = std::vector<std::vector<double>>;

inline Dense dense_ptap(const Dense& A, const Dense& P) {
  const std::size_t n = A.size(), nc = n == 0 ? 0 : P[0].size();
  Dense AP(n, std::vector<double>(nc, 0.0)), Ac(nc, std::vector<double>(nc, 0.0));
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t j = 0; j < n; ++j)
      if (A[i][j] != 0.0)
        for (std::size_t c = 0; c < nc; ++c) AP[i][c] += A[i][j] * P[j][c];
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t c = 0; c < nc; ++c)
      if (P[i][c] != 0.0)
        for (std::size_t l = 0; l < nc; ++l) Ac[c][l] += P[i][c] * AP[i][l];
  return Ac;
}

// Coarse rows (0-based column -> value) against the dense reference, to
// 1e-12 of its largest entry: every stored entry and every non-zero.
inline void expect_rows_match(const std::vector<Row>& got, const Dense& want,
                              const std::string& what) {
  ASSERT_EQ(got.size(), want.size()) << what;
  double scale = 0.0;
  for (const auto& r : want)
    for (double v : r) scale = std::max(scale, std::abs(v));
  const double tol = 1e-12 * std::max(1.0, scale);
  for (std::size_t c = 0; c < got.size(); ++c)
    for (std::size_t l = 0; l < want[c].size(); ++l) {
      const auto it = got[c].find(static_cast<int>(l));
      if (it == got[c].end() && want[c][l] == 0.0) continue;
      EXPECT_NEAR(it == got[c].end() ? 0.0 : it->second, want[c][l], tol) << what << ": entry " << c << "," << l;
    }
}

// ---------------------------------------------------------------------------
// Parameters, working input, threads and ierr restored after every test;
// growth in memory on, no growth reports.
// ---------------------------------------------------------------------------
class SetupTest : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_prm_ = kornlt::prm();
    saved_input_ = kornlt::input();
    threads_ = omp_get_max_threads();
    kornlt::input().dump_level = -1;
    kornlt::input().iextent = 2;
    kornlt::ierr() = 0;
    omp_set_num_threads(1);
  }
  void TearDown() override {
    kornlt::prm() = saved_prm_;
    kornlt::input() = saved_input_;
    kornlt::ierr() = 0;
    omp_set_num_threads(threads_);
  }
  kornlt::Params saved_prm_;
  kornlt::Input saved_input_;
  int threads_ = 1;
};

}  // namespace setup_test
