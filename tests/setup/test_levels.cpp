// Tests of the level driver on whole hierarchies: every coarse operator
// against P^T A P computed here from the stored interpolation and the fine
// level, constants reproduced by the interpolation of zero-row-sum matrices,
// bitwise independence of the thread count and of repetition, growth of
// deliberately small arrays against generous dimensions (and error 10 with
// growth off), the stop rules and their messages, the checks of the encoded
// parameters, and the complexities of a 3D problem.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "control/control.hpp"
#include "entry/problems.hpp"
#include "log/log.hpp"
#include "params/params.hpp"
#include "setup/setup.hpp"
#include "store/store.hpp"

namespace {

using korn_test::CoreArgs;
using korn_test::Csr;
using korn_test::LogCapture;
using kornlt::LevelView;
using kornlt::level_view;
using kornlt::prm;
using kornlt::store;

std::size_t at(int i) { return static_cast<std::size_t>(i); }

// Run-mode switches of a kept setup: run mode 4, growth in memory (iextent
// 2), coarsening by n_default 40 (standard) or 17 (aggressive on level 1).
constexpr int kStandard = 42000000;
constexpr int kAggressive = 42170000;
// A cycle code with zero cycles: the setup runs, the solve does not.
constexpr int kNoCycles = 11000;

// ---------------------------------------------------------------------------
// Matrices (CSR, 1-based content, diagonal first).
// ---------------------------------------------------------------------------
// A five-point stencil on nx x ny with the couplings of the four neighbours
// stored in the order south, west, east, north. diag < 0: the row's negative
// off-diagonal sum (zero row sums).
Csr grid2d(int nx, int ny, double west, double east, double south, double north, double diag) {
  Csr m;
  m.nnu = nx * ny;
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      const int i = 1 + x + nx * y;
      std::vector<std::pair<int, double>> off;
      if (y > 0) off.push_back({i - nx, south});
      if (x > 0) off.push_back({i - 1, west});
      if (x < nx - 1) off.push_back({i + 1, east});
      if (y < ny - 1) off.push_back({i + nx, north});
      double d = diag;
      if (diag < 0.0) {
        d = 0.0;
        for (auto [j, v] : off) d -= v;
      }
      m.add(i, d);
      for (auto [j, v] : off) m.add(j, v);
      m.end_row();
    }
  return m;
}

Csr poisson2d(int n) { return grid2d(n, n, -1.0, -1.0, -1.0, -1.0, 4.0); }
// Strong couplings in x only.
Csr anisotropic2d(int n) { return grid2d(n, n, -1.0, -1.0, -0.01, -0.01, 2.02); }
// Upwind convection-diffusion: non-symmetric values, symmetric pattern.
Csr convection2d(int n) { return grid2d(n, n, -1.7, -0.3, -1.0, -1.0, 4.0); }
// Graph Laplacian of the grid (pure Neumann): every row sum zero.
Csr neumann2d(int n) { return grid2d(n, n, -1.0, -1.0, -1.0, -1.0, -1.0); }
// Diagonal 10 against four couplings of -1: off-diagonal sums at most 0.4 a_ii.
Csr dominant2d(int n) { return grid2d(n, n, -1.0, -1.0, -1.0, -1.0, 10.0); }

// Seven-point stencil on m^3; neumann: graph Laplacian.
Csr grid3d(int m, bool neumann) {
  Csr c;
  c.nnu = m * m * m;
  auto id = [&](int x, int y, int z) { return 1 + x + m * (y + m * z); };
  for (int z = 0; z < m; ++z)
    for (int y = 0; y < m; ++y)
      for (int x = 0; x < m; ++x) {
        std::vector<int> nb;
        if (z > 0) nb.push_back(id(x, y, z - 1));
        if (y > 0) nb.push_back(id(x, y - 1, z));
        if (x > 0) nb.push_back(id(x - 1, y, z));
        if (x < m - 1) nb.push_back(id(x + 1, y, z));
        if (y < m - 1) nb.push_back(id(x, y + 1, z));
        if (z < m - 1) nb.push_back(id(x, y, z + 1));
        c.add(id(x, y, z), neumann ? static_cast<double>(nb.size()) : 6.0);
        for (int j : nb) c.add(j, -1.0);
        c.end_row();
      }
  return c;
}
Csr poisson3d(int m) { return grid3d(m, false); }

// Weighted graph Laplacian of an irregular planar graph: the n x n grid with
// random weights in [0.1, 1] and a random third of the cells cut by a
// diagonal. A zero-row-sum M-matrix without the grid's regularity.
Csr random_laplacian(int n, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<double> val(0.1, 1.0), coin(0.0, 1.0);
  std::vector<std::map<int, double>> rows(at(n * n + 1));
  auto link = [&](int i, int j) {
    const double v = -val(gen);
    rows[at(i)][j] = v;
    rows[at(j)][i] = v;
  };
  auto id = [&](int x, int y) { return 1 + x + n * y; };
  for (int y = 0; y < n; ++y)
    for (int x = 0; x < n; ++x) {
      if (x + 1 < n) link(id(x, y), id(x + 1, y));
      if (y + 1 < n) link(id(x, y), id(x, y + 1));
      if (x + 1 < n && y + 1 < n && coin(gen) < 0.33) link(id(x, y), id(x + 1, y + 1));
    }
  Csr c;
  c.nnu = n * n;
  for (int i = 1; i <= c.nnu; ++i) {
    double s = 0.0;
    for (auto [j, v] : rows[at(i)]) s -= v;
    c.add(i, s);
    for (auto [j, v] : rows[at(i)]) c.add(j, v);
    c.end_row();
  }
  return c;
}

// Each row as its (column, value bits) pairs in column order: the content of
// the matrix whatever order the entries of a row are stored in.
using RowSet = std::vector<std::map<int, std::uint64_t>>;
RowSet row_sets(const std::vector<int>& ia, const std::vector<int>& ja, const std::vector<double>& a, int n) {
  RowSet rs(at(n));
  for (int i = 1; i <= n; ++i)
    for (int p = ia[at(i - 1)]; p < ia[at(i)]; ++p)
      rs[at(i - 1)][ja[at(p - 1)]] = std::bit_cast<std::uint64_t>(a[at(p - 1)]);
  return rs;
}

// ---------------------------------------------------------------------------
// The kept hierarchy in the store.
// ---------------------------------------------------------------------------
struct InterpRow {
  std::vector<int> cols;  // coarse global indices
  std::vector<double> weights;
};
InterpRow interp_row(int i) {
  const kornlt::StoreState& st = store();
  InterpRow r;
  for (int p = st.iw[at(i - 1)]; p < st.iw[at(i)]; ++p) {
    r.cols.push_back(st.jw[at(p - 1)]);
    r.weights.push_back(st.w[at(p - 1)]);
  }
  return r;
}

// Everything the setup leaves, as raw bits, for exact comparisons: level
// bounds, ia/ja/a of every level, iw/jw/w and icg of the levels that have a
// coarser one.
struct Snapshot {
  int levels = 0;
  std::vector<int> imin, imax, ia, ja, iw, jw, icg;
  std::vector<std::uint64_t> a, w;
  bool operator==(const Snapshot&) const = default;
};

Snapshot snapshot() {
  const kornlt::StoreState& st = store();
  Snapshot s;
  s.levels = st.levels;
  for (int k = 1; k <= st.levels; ++k) {
    const LevelView L = level_view(k);
    s.imin.push_back(L.ilo);
    s.imax.push_back(L.ihi);
    for (int i = L.ilo; i <= L.ihi + 1; ++i) s.ia.push_back(L.ia(i));
    for (int p = L.ia(L.ilo); p < L.ia(L.ihi + 1); ++p) {
      s.ja.push_back(L.ja(p));
      s.a.push_back(std::bit_cast<std::uint64_t>(L.a(p)));
    }
  }
  if (st.levels > 1) {
    const int last_fine = st.imax[at(st.levels - 1)];
    for (int i = 1; i <= last_fine + 1; ++i) s.iw.push_back(st.iw[at(i - 1)]);
    for (int p = 1; p < st.iw[at(last_fine)]; ++p) {
      s.jw.push_back(st.jw[at(p - 1)]);
      s.w.push_back(std::bit_cast<std::uint64_t>(st.w[at(p - 1)]));
    }
    for (int i = 1; i <= last_fine; ++i) s.icg.push_back(st.icg[at(i - 1)]);
  }
  return s;
}

// Where two snapshots first differ, for the failure message.
std::string first_difference(const Snapshot& x, const Snapshot& y) {
  if (x.levels != y.levels) return "levels " + std::to_string(x.levels) + " vs " + std::to_string(y.levels);
  if (x.imin != y.imin || x.imax != y.imax) return "level bounds";
  if (x.ia != y.ia) return "ia";
  if (x.ja != y.ja) return "ja";
  if (x.a != y.a) return "a";
  if (x.icg != y.icg) return "icg";
  if (x.iw != y.iw) return "iw";
  if (x.jw != y.jw) return "jw";
  if (x.w != y.w) return "w";
  return "none";
}

// The stacked arrays are consistent: every row starts with its diagonal
// (the strong ends are gone), columns stay inside the level, none repeats.
void expect_levels_well_formed(const std::string& what) {
  const kornlt::StoreState& st = store();
  for (int k = 1; k <= st.levels; ++k) {
    const LevelView L = level_view(k);
    if (k > 1) {
      EXPECT_EQ(L.ilo, st.imax[at(k - 1)] + 1) << what << ": level " << k;
    }
    EXPECT_GE(L.nrows(), 1) << what << ": level " << k;
    for (int i = L.ilo; i <= L.ihi; ++i) {
      ASSERT_EQ(L.ja(L.ia(i)), i) << what << ": diagonal slot of row " << i << " on level " << k;
      std::map<int, int> seen;
      for (int p = L.ia(i); p < L.ia(i + 1); ++p) {
        ASSERT_TRUE(L.ja(p) >= L.ilo && L.ja(p) <= L.ihi) << what << ": column of row " << i;
        ASSERT_EQ(++seen[L.ja(p)], 1) << what << ": repeated column in row " << i;
      }
    }
  }
}

// The coarse operator of level k+1 against P^T A P formed here from the
// stored interpolation rows of level k and the matrix of level k; the coarse
// numbering (C-variables in rising order) and the unit rows of the
// C-variables are checked on the way.
void expect_galerkin(int k, const std::string& what) {
  const kornlt::StoreState& st = store();
  const LevelView F = level_view(k), C = level_view(k + 1);
  const std::string tag = what + ", level " + std::to_string(k) + "->" + std::to_string(k + 1);

  int next = C.ilo;
  for (int i = F.ilo; i <= F.ihi; ++i) {
    const int g = st.icg[at(i - 1)];
    const InterpRow r = interp_row(i);
    if (g > 0) {
      ASSERT_EQ(g, next) << tag << ": coarse index of C-variable " << i;
      ++next;
      ASSERT_EQ(r.cols.size(), 1u) << tag << ": C-row " << i;
      EXPECT_EQ(r.cols[0], g) << tag << ": C-row " << i;
      EXPECT_EQ(r.weights[0], 1.0) << tag << ": C-row " << i;
    }
    for (int c : r.cols) ASSERT_TRUE(c >= C.ilo && c <= C.ihi) << tag << ": column " << c << " of row " << i;
  }
  ASSERT_EQ(next, C.ihi + 1) << tag << ": C-variables vs coarse rows";

  std::vector<std::map<int, double>> ref(at(C.nrows()));
  std::vector<InterpRow> P(at(F.nrows()));
  for (int i = F.ilo; i <= F.ihi; ++i) P[at(i - F.ilo)] = interp_row(i);
  for (int i = F.ilo; i <= F.ihi; ++i) {
    const InterpRow& pi = P[at(i - F.ilo)];
    for (int q = F.ia(i); q < F.ia(i + 1); ++q) {
      const InterpRow& pj = P[at(F.ja(q) - F.ilo)];
      for (std::size_t s = 0; s < pi.cols.size(); ++s)
        for (std::size_t t = 0; t < pj.cols.size(); ++t)
          ref[at(pi.cols[s] - C.ilo)][pj.cols[t]] += pi.weights[s] * F.a(q) * pj.weights[t];
    }
  }
  double scale = 0.0;
  for (const auto& row : ref)
    for (auto [c, v] : row) scale = std::max(scale, std::abs(v));
  ASSERT_GT(scale, 0.0) << tag;
  const double tol = 1e-12 * scale;
  for (int c = C.ilo; c <= C.ihi; ++c) {
    std::map<int, double> got;
    for (int p = C.ia(c); p < C.ia(c + 1); ++p) got[C.ja(p)] = C.a(p);
    const auto& want = ref[at(c - C.ilo)];
    for (auto [l, v] : got) {
      const auto it = want.find(l);
      EXPECT_NEAR(v, it == want.end() ? 0.0 : it->second, tol) << tag << ": entry (" << c << "," << l << ")";
    }
    for (auto [l, v] : want)
      if (got.find(l) == got.end()) {
        EXPECT_NEAR(v, 0.0, tol) << tag << ": missing entry (" << c << "," << l << ")";
      }
  }
}

// ---------------------------------------------------------------------------
// Fixture: quiet defaults, one thread unless a test says otherwise, and the
// kept setup released after each test.
// ---------------------------------------------------------------------------
class Levels : public testing::Test {
 protected:
  void SetUp() override {
    korn_reset_parameters();
    kornlt::ierr() = 0;
    prm().mode_mess = -3;
    omp_set_num_threads(1);
  }
  void TearDown() override {
    release();
    omp_set_num_threads(2);
  }

  // A kept setup (no cycles) of matrix m by the core call.
  static CoreArgs setup_args(Csr m, int iswit, int matrix = 12) {
    CoreArgs c(std::move(m));
    c.iswit = iswit;
    c.matrix = matrix;
    c.ncyc = kNoCycles;
    return c;
  }
  // iswit 0 releases the kept hierarchy.
  static void release() {
    CoreArgs c(korn_test::poisson2d(2));
    c.iswit = 0;
    c.call();
  }
  // Runs the call with the messages on and returns the log.
  static std::string call_logged(CoreArgs& c) {
    prm().mode_mess = 0;
    c.iout = 0;
    LogCapture log;
    c.call();
    return log.text();
  }
};

// ---------------------------------------------------------------------------
// 1. Coarse operators are P^T A P.
// ---------------------------------------------------------------------------
struct Problem {
  const char* name;
  Csr (*make)();
  int matrix;  // 12 symmetric, 22 non-symmetric, 11 zero row sums
};

const Problem kOperatorProblems[] = {
    {"2D Poisson 20x20", [] { return poisson2d(20); }, 12},
    {"3D Poisson 10^3", [] { return poisson3d(10); }, 12},
    {"2D anisotropic 20x20", [] { return anisotropic2d(20); }, 12},
    {"2D convection-diffusion 20x20", [] { return convection2d(20); }, 22},
};

TEST_F(Levels, CoarseOperatorsAreTheGalerkinProducts) {
  prm().nptmn = 5;  // deeper hierarchies: more products to check
  for (const Problem& pr : kOperatorProblems)
    for (const int iswit : {kStandard, kAggressive}) {
      const std::string what = std::string(pr.name) + (iswit == kAggressive ? ", aggressive" : ", standard");
      CoreArgs c = setup_args(pr.make(), iswit, pr.matrix);
      const Csr original = c.m;
      ASSERT_EQ(c.call(), 0) << what;
      const int levels = store().levels;
      ASSERT_GE(levels, 3) << what;
      expect_levels_well_formed(what);
      // Level 1 is the caller's matrix: same rows, entries possibly reordered.
      EXPECT_EQ(row_sets(c.m.ia, c.m.ja, c.m.a, c.m.nnu), row_sets(original.ia, original.ja, original.a, c.m.nnu))
          << what;
      for (int k = 1; k < levels; ++k) expect_galerkin(k, what);
      release();
    }
}

// The first level of n_default 17 is coarsened aggressively: on the same
// matrix its first coarse level is much smaller than the standard one.
TEST_F(Levels, AggressiveFirstLevelReducesMore) {
  prm().nptmn = 10;
  for (const Problem& pr : kOperatorProblems) {
    int rows2[2] = {0, 0};
    for (int v = 0; v < 2; ++v) {
      CoreArgs c = setup_args(pr.make(), v == 0 ? kStandard : kAggressive, pr.matrix);
      ASSERT_EQ(c.call(), 0) << pr.name;
      ASSERT_GE(store().levels, 2) << pr.name;
      rows2[v] = level_view(2).nrows();
      release();
    }
    EXPECT_LT(rows2[1], 0.75 * rows2[0]) << pr.name << ": standard " << rows2[0] << ", aggressive " << rows2[1];
  }
}

// ---------------------------------------------------------------------------
// 2. Zero row sums: every F-row interpolates constants exactly.
// ---------------------------------------------------------------------------
TEST_F(Levels, ZeroRowSumInterpolationReproducesConstants) {
  const Problem problems[] = {
      {"2D Neumann 24x24", [] { return neumann2d(24); }, 11},
      {"3D Neumann 12^3", [] { return grid3d(12, true); }, 11},
      {"random graph Laplacian 26x26", [] { return random_laplacian(26, 11u); }, 11},
  };
  prm().nptmn = 5;
  for (const Problem& pr : problems)
    for (const int iswit : {kStandard, kAggressive}) {
      const std::string what = std::string(pr.name) + (iswit == kAggressive ? ", aggressive" : ", standard");
      CoreArgs c = setup_args(pr.make(), iswit, pr.matrix);
      ASSERT_EQ(c.call(), 0) << what;
      const int levels = store().levels;
      ASSERT_GE(levels, 3) << what;
      int nf_rows = 0;
      for (int k = 1; k < levels; ++k) {
        const LevelView L = level_view(k);
        // The level's matrix has zero row sums as well (P 1 = 1 keeps them).
        double amax = 0.0;
        for (int p = L.ia(L.ilo); p < L.ia(L.ihi + 1); ++p) amax = std::max(amax, std::abs(L.a(p)));
        for (int i = L.ilo; i <= L.ihi; ++i) {
          double rs = 0.0;
          for (int p = L.ia(i); p < L.ia(i + 1); ++p) rs += L.a(p);
          EXPECT_NEAR(rs, 0.0, 1e-11 * amax) << what << ": row sum of row " << i << ", level " << k;
          if (store().icg[at(i - 1)] >= 0) continue;  // C (unit row) or forced fine (no row)
          const InterpRow r = interp_row(i);
          ASSERT_FALSE(r.cols.empty()) << what << ": F-row " << i << " of level " << k << " is empty";
          double s = 0.0;
          for (double w : r.weights) {
            s += w;
            EXPECT_GE(w, 0.0) << what << ": weight of F-row " << i << ", level " << k;
          }
          EXPECT_NEAR(s, 1.0, 1e-12) << what << ": F-row " << i << ", level " << k;
          ++nf_rows;
        }
      }
      EXPECT_GT(nf_rows, c.m.nnu / 2) << what;
      release();
    }
}

// ---------------------------------------------------------------------------
// 3. Thread count and repetition.
// ---------------------------------------------------------------------------
Snapshot kept_setup(const Problem& pr, int iswit, int threads) {
  omp_set_num_threads(threads);
  CoreArgs c(pr.make());
  c.iswit = iswit;
  c.matrix = pr.matrix;
  c.ncyc = kNoCycles;
  EXPECT_EQ(c.call(), 0) << pr.name;
  // level 1 is read from the caller's matrix, as the setup leaves it
  Snapshot s = snapshot();
  CoreArgs r(korn_test::poisson2d(2));
  r.iswit = 0;
  r.call();
  return s;
}

const Problem kThreadProblems[] = {
    {"2D Poisson 32x32", [] { return poisson2d(32); }, 12},
    {"3D Poisson 11^3", [] { return poisson3d(11); }, 12},
    {"2D convection-diffusion 30x30", [] { return convection2d(30); }, 22},
};

// The block-parallel coarse-point selection (the default icolor_omp 2) gives a
// split that depends on the number of blocks, so the comparison of thread
// counts takes the serial selection (icolor_omp 0). Every other phase runs
// threaded on two threads: row sort, interpolation with its serial replay,
// and the Galerkin product (the threaded variant instead of the serial one).
// The hierarchy must not depend on the number of threads.
TEST_F(Levels, OneAndTwoThreadsGiveTheSameHierarchy) {
  prm().nptmn = 5;
  prm().icolor_omp = 0;
  for (const Problem& pr : kThreadProblems)
    for (const int iswit : {kStandard, kAggressive}) {
      const Snapshot one = kept_setup(pr, iswit, 1);
      const Snapshot two = kept_setup(pr, iswit, 2);
      ASSERT_GE(one.levels, 3) << pr.name;
      EXPECT_TRUE(one == two) << pr.name << " iswit " << iswit << ": first difference " << first_difference(one, two);
    }
}

// With the default, block-parallel selection the split depends on the number
// of blocks but never on timing: repeated setups on two threads are identical.
TEST_F(Levels, RepeatedSetupsOnTwoThreadsAreIdentical) {
  prm().nptmn = 20;
  for (const Problem& pr : {kThreadProblems[0], kThreadProblems[2]})
    for (const int iswit : {kStandard, kAggressive}) {
      const Snapshot first = kept_setup(pr, iswit, 2);
      ASSERT_GE(first.levels, 3) << pr.name;
      for (int rep = 1; rep < 10; ++rep) {
        const Snapshot again = kept_setup(pr, iswit, 2);
        ASSERT_TRUE(first == again) << pr.name << " iswit " << iswit << ", repeat " << rep
                                    << ": first difference " << first_difference(first, again);
      }
    }
}

// ---------------------------------------------------------------------------
// 4. Dimensions far too small.
// ---------------------------------------------------------------------------
// Complexity arguments that leave one family of arrays (or all) far too
// small: the interpolation weights (ndw), the variable arrays (ndu), the
// coarse matrix entries (nda).
struct Dims {
  const char* what;
  double a_cmplx, g_cmplx, w_avrge;
  const char* short_array;  // the first one found too small without growth
};
const Dims kTinyDims[] = {
    {"all tiny", 1.01, 1.01, 1.0, "ndw"},
    {"a tiny", 1.01, 4.0, 8.0, "nda"},
    {"u tiny", 4.0, 1.01, 8.0, "ndu"},
};

TEST_F(Levels, GrowthFromTinyDimensionsGivesTheSameHierarchy) {
  prm().nptmn = 5;
  const Problem problems[] = {kOperatorProblems[0], kOperatorProblems[1], kOperatorProblems[3]};
  for (const Problem& pr : problems)
    for (const int n_default : {0, 17}) {
      auto run = [&](int iextent, const Dims& d) {
        CoreArgs c(pr.make());
        c.iswit = 40000000 + iextent * 1000000 + n_default * 10000;
        c.matrix = pr.matrix;
        c.ncyc = kNoCycles;
        c.a_cmplx = d.a_cmplx;
        c.g_cmplx = d.g_cmplx;
        c.w_avrge = d.w_avrge;
        EXPECT_EQ(c.call(), 0) << pr.name << " iextent " << iextent << ", " << d.what;
        Snapshot s = snapshot();
        release();
        return s;
      };
      const Snapshot generous = run(2, Dims{"generous", 4.0, 4.0, 8.0, ""});
      ASSERT_GE(generous.levels, 3) << pr.name;
      for (const Dims& d : kTinyDims)
        for (const int iextent : {1, 2}) {
          const Snapshot tight = run(iextent, d);
          EXPECT_TRUE(generous == tight) << pr.name << " n_default " << n_default << " iextent " << iextent << ", "
                                         << d.what << ": first difference " << first_difference(generous, tight);
        }
    }
}

TEST_F(Levels, TinyDimensionsWithoutGrowthGiveError10AndKeepTheMatrix) {
  prm().nptmn = 5;
  const Problem problems[] = {kOperatorProblems[0], kOperatorProblems[3]};
  for (const Problem& pr : problems)
    for (const int n_default : {0, 17})
      for (const Dims& d : kTinyDims) {
        const std::string what = std::string(pr.name) + ", n_default " + std::to_string(n_default) + ", " + d.what;
        CoreArgs c(pr.make());
        c.iswit = 40000000 + n_default * 10000;  // iextent 0
        c.matrix = pr.matrix;
        c.ncyc = kNoCycles;
        c.a_cmplx = d.a_cmplx;
        c.g_cmplx = d.g_cmplx;
        c.w_avrge = d.w_avrge;
        const Csr original = c.m;
        const std::string log = call_logged(c);
        EXPECT_EQ(c.ierr, 10) << what << "\n" << log;
        EXPECT_NE(log.find(std::string("*** ERROR: Insufficient dimensioning: <") + d.short_array + ">"),
                  std::string::npos)
            << what << "\n" << log;
        EXPECT_NE(log.find("*** ERROR: Either adjust dimensions or activate memory extension switch"),
                  std::string::npos)
            << what << "\n" << log;
        ASSERT_EQ(c.m.ia, original.ia) << what;
        for (int i = 1; i <= c.m.nnu; ++i) ASSERT_EQ(c.m.ja[at(c.m.ia[at(i - 1)] - 1)], i) << what << " row " << i;
        EXPECT_EQ(row_sets(c.m.ia, c.m.ja, c.m.a, c.m.nnu), row_sets(original.ia, original.ja, original.a, c.m.nnu))
            << what;
        // Nothing is left to restart on.
        CoreArgs again(pr.make());
        again.iswit = 1;
        again.matrix = pr.matrix;
        again.ncyc = 11001;  // one cycle: the call reaches the restart test
        prm().mode_mess = -3;
        again.iout = -1;
        EXPECT_EQ(again.call(), kornlt::kErrRestartNoSetup) << what;
      }
}

// ---------------------------------------------------------------------------
// 5. Stop rules.
// ---------------------------------------------------------------------------
// The preparation of korn_main before the level loop, then the loop itself:
// the matrix bound as level 1 and the store dimensioned.
void direct_setup(CoreArgs& c) {
  using namespace kornlt;
  const int nna = c.m.nna();
  korn_cleanup("test", false);
  korn_input(InputArgs{c.m.nnu, nna, 1, 0, &c.iscale, 0, 1, 1, c.iswit, c.matrix, c.ncyc, c.idump, c.iout,
                       c.a_cmplx, c.g_cmplx, c.p_cmplx, c.w_avrge});
  ASSERT_FALSE(failed());
  bind_level1(c.m.nnu, c.m.ia.data(), c.m.ja.data(), c.m.a.data(), c.u.data(), c.f.data());
  const Input& in = input();
  korn_dimensions(DimensionArgs{nna, c.m.nnu, 1, 0, in.a_cmplx, in.g_cmplx, in.w_avrge, in.p_cmplx, in.run_mode,
                                false});
  ASSERT_FALSE(failed());
  StoreState& st = store();
  st.imin[1] = 1;
  st.imax[1] = c.m.nnu;
  st.nnu_all = c.m.nnu;
  st.nna_all = nna;
  crsng_data();
  ASSERT_FALSE(failed());
  create_levels(in.levelx, input().nrc);
}

TEST_F(Levels, FewVariablesGiveOneLevelWithoutTouchingTheMatrix) {
  // The strongest coupling of a row (west) is not stored first: a row sort
  // would move it.
  for (const int nptmn : {400, 900}) {
    CoreArgs c(convection2d(20));
    c.iswit = kStandard;
    c.matrix = 22;
    c.ncyc = kNoCycles;
    c.iout = 0;
    prm().mode_mess = 0;
    prm().nptmn = nptmn;
    const Csr original = c.m;
    std::string log;
    {
      LogCapture capture;
      direct_setup(c);
      log = capture.text();
    }
    EXPECT_EQ(kornlt::ierr(), 0) << log;
    EXPECT_EQ(store().levels, 1) << nptmn;
    EXPECT_NE(log.find(">>> Coarsening stopped: low # variables"), std::string::npos) << log;
    EXPECT_EQ(c.m.ja, original.ja) << "no row may be sorted";
    EXPECT_EQ(c.m.a, original.a) << "no row may be sorted";
    kornlt::korn_cleanup("test", false);
  }
  // One variable more than nptmn: the row sort runs; the split then finds
  // too few C-variables for another level.
  CoreArgs c(convection2d(20));
  c.iswit = kStandard;
  c.matrix = 22;
  c.ncyc = kNoCycles;
  c.iout = 0;
  prm().mode_mess = 0;
  prm().nptmn = 399;
  std::string log;
  {
    LogCapture capture;
    direct_setup(c);
    log = capture.text();
  }
  EXPECT_EQ(kornlt::ierr(), 0) << log;
  EXPECT_EQ(store().levels, 1);
  EXPECT_EQ(log.find(">>> Coarsening stopped: low # variables"), std::string::npos) << log;
  EXPECT_NE(log.find(">>> Coarsening stopped: low # C-variables"), std::string::npos) << log;
  expect_levels_well_formed("nptmn 399");
  kornlt::korn_cleanup("test", false);
}

// Through the core call: the split ends the hierarchy before a level of at
// most nptmn C-variables is made (for levels up to nptmax rows), so every
// level has more than nptmn rows. Above nptmax rows that check is off, and
// the level of few variables is made; the row-count test then ends the loop.
TEST_F(Levels, HierarchyEndsWhereFewVariablesRemain) {
  struct Case {
    int nptmn, nptmax;
    const char* stop;
  };
  const Case cases[] = {
      {30, 1500, ">>> Coarsening stopped: low # C-variables"},
      {100, 1500, ">>> Coarsening stopped: low # C-variables"},
      {30, 20, ">>> Coarsening stopped: low # variables"},
      {100, 60, ">>> Coarsening stopped: low # variables"},
  };
  for (const Case& k : cases) {
    korn_reset_parameters();
    prm().nptmn = k.nptmn;
    prm().nptmax = k.nptmax;
    CoreArgs c = setup_args(poisson2d(24), kStandard);
    const std::string log = call_logged(c);
    ASSERT_EQ(c.ierr, 0) << log;
    const int levels = store().levels;
    ASSERT_GE(levels, 2);
    const bool past = k.nptmax < k.nptmn;
    for (int k2 = 1; k2 < levels; ++k2) EXPECT_GT(level_view(k2).nrows(), k.nptmn) << "level " << k2;
    if (past) {
      EXPECT_LE(level_view(levels).nrows(), k.nptmn);
    } else {
      EXPECT_GT(level_view(levels).nrows(), k.nptmn);
    }
    const auto stop = log.find(">>> Coarsening stopped:");
    ASSERT_NE(stop, std::string::npos) << log;
    EXPECT_EQ(log.substr(stop, log.find('\n', stop) - stop), k.stop) << log;
    // The last pass of the loop is the one that would have made one more level.
    const std::string last = "creating level #" + std::to_string(levels + 1) + " using STANDARD COARSENING";
    EXPECT_NE(log.find(last), std::string::npos) << log;
    EXPECT_LT(log.find(last), stop) << log;
    EXPECT_EQ(log.find("creating level #" + std::to_string(levels + 2) + " "), std::string::npos) << log;
    release();
  }
}

// The reduction test of each level's split: a coarse/fine ratio at or above
// term_coarsening ends the hierarchy with warning -130, one at or above
// slow_coarsening is reported once per level, and lev_coarsening_too_slow
// ends it at the level named.
TEST_F(Levels, ReductionRulesEndTheHierarchy) {
  struct Case {
    const char* what;
    double slow, term;
    int too_slow;
    int levels;  // 0: as without the rule
    int ierr;
    const char* text;
  };
  // Standard coarsening of the five-point matrix keeps half the variables on
  // level 1 and a quarter or less below.
  const Case cases[] = {
      {"term 0.45", 0.4, 0.45, -1, 1, -130, "+++ WARNG: Coarsening terminated: inefficient grid reduction! (split_3)"},
      {"slow 0.45", 0.45, 0.9, -1, 0, 0, "+++ WARNG: Inefficient coarsening! (split_3)"},
      {"too slow at 2", 0.75, 0.9, 2, 2, 0, ">>> MESSG: coarsening too slow enforced! (split_3)"},
      {"too slow at 3", 0.75, 0.9, 3, 3, 0, ">>> MESSG: coarsening too slow enforced! (split_3)"},
  };
  prm().nptmn = 5;
  const Snapshot plain = kept_setup(kOperatorProblems[0], kStandard, 1);
  ASSERT_GE(plain.levels, 4);
  for (const Case& k : cases) {
    korn_reset_parameters();
    prm().nptmn = 5;
    prm().slow_coarsening = k.slow;
    prm().term_coarsening = k.term;
    prm().lev_coarsening_too_slow = k.too_slow;
    CoreArgs c = setup_args(kOperatorProblems[0].make(), kStandard);
    const std::string log = call_logged(c);
    EXPECT_EQ(c.ierr, k.ierr) << k.what << "\n" << log;
    const int levels = store().levels;
    EXPECT_EQ(levels, k.levels == 0 ? plain.levels : k.levels) << k.what;
    for (int l = 1; l <= std::min(levels, plain.levels); ++l)
      EXPECT_EQ(store().imax[at(l)], plain.imax[at(l - 1)]) << k.what << ": level " << l;
    const auto pos = log.find(k.text);
    ASSERT_NE(pos, std::string::npos) << k.what << "\n" << log;
    // Said in the pass of the loop that tries to make level `levels + 1`
    // (for the warning of slow coarsening: in the first pass, and once).
    const int pass = k.levels == 0 ? 2 : levels + 1;
    const auto here = log.rfind("creating level #", pos);
    ASSERT_NE(here, std::string::npos) << log;
    EXPECT_EQ(log.substr(here, log.find(' ', here + 16) - here), "creating level #" + std::to_string(pass))
        << k.what << "\n" << log;
    if (k.levels == 0) {
      const auto next = log.find("creating level #3");
      EXPECT_TRUE(log.find(k.text, pos + 1) > next) << k.what << ": once per level\n" << log;
    }
    release();
  }
}

TEST_F(Levels, LevelLimits) {
  struct Case {
    const char* what;
    int levelx, max_level;
    int expect;  // levels; 0: same as without a limit
  };
  const Case cases[] = {
      {"levelx 2", 2, 25, 2},
      {"levelx 3", 3, 25, 3},
      {"max_level 3", 25, 3, 3},
      {"max_level 2 under levelx 4", 4, 2, 2},
      {"max_level 30", kornlt::kUnsetInt, 30, 0},
      {"max_level 30, levelx 40", 40, 30, 0},
  };
  prm().nptmn = 5;
  const Snapshot unlimited = kept_setup(kOperatorProblems[0], kStandard, 1);
  ASSERT_GE(unlimited.levels, 4);
  for (const Case& k : cases) {
    korn_reset_parameters();
    prm().mode_mess = -3;
    prm().nptmn = 5;
    prm().levelx = k.levelx;
    prm().max_level = k.max_level;
    const Snapshot s = kept_setup(kOperatorProblems[0], kStandard, 1);
    if (k.expect == 0) {
      EXPECT_LE(s.levels, 25) << k.what;
      EXPECT_TRUE(s == unlimited) << k.what << ": " << first_difference(s, unlimited);
    } else {
      EXPECT_EQ(s.levels, k.expect) << k.what;
      // The levels kept are those of the unlimited hierarchy.
      EXPECT_TRUE(std::equal(s.imax.begin(), s.imax.end(), unlimited.imax.begin())) << k.what;
    }
  }
}

TEST_F(Levels, DiagonalDominanceStopsAtLevelOne) {
  struct Case {
    double eps_dd;
    bool stops;
  };
  // Off-diagonal sums reach 0.4 a_ii.
  const Case cases[] = {{0.9, true}, {0.5, true}, {0.3, false}};
  for (const Case& k : cases) {
    korn_reset_parameters();
    prm().eps_dd = k.eps_dd;
    CoreArgs c = setup_args(dominant2d(20), kStandard);
    const Csr original = c.m;
    const std::string log = call_logged(c);
    ASSERT_EQ(c.ierr, 0) << log;
    const std::string key = ">>> Coarsening stopped: diagonal dominance, eps=";
    const auto pos = log.find(key);
    if (k.stops) {
      EXPECT_EQ(store().levels, 1) << k.eps_dd;
      ASSERT_NE(pos, std::string::npos) << log;
      EXPECT_DOUBLE_EQ(std::strtod(log.c_str() + pos + key.size(), nullptr), k.eps_dd) << log;
      for (int i = 1; i <= c.m.nnu; ++i) ASSERT_EQ(c.m.ja[at(c.m.ia[at(i - 1)] - 1)], i) << "row " << i;
      EXPECT_EQ(row_sets(c.m.ia, c.m.ja, c.m.a, c.m.nnu), row_sets(original.ia, original.ja, original.a, c.m.nnu));
    } else {
      // level 1 is coarsened (a coarser level may still stop by the rule)
      EXPECT_GE(store().levels, 2) << k.eps_dd << "\n" << log;
      EXPECT_GT(pos, log.find("creating level #3")) << log;
    }
    release();
  }
}

TEST_F(Levels, IllegalEncodedParametersGive20) {
  struct Case {
    const char* what;
    void (*set)();
    const char* name;  // as the message pads it
  };
  const Case cases[] = {
      {"ecg 1.25", [] { prm().ecg = 1.25; }, "ecg1      "},
      {"ecg 3.5", [] { prm().ecg = 3.5; }, "ecg1      "},
      {"ewt 1.2", [] { prm().ewt = 1.2; }, "ewt1      "},
      {"ncg 6", [] { prm().ncg = 6; }, "ncgtyp    "},
      {"ncg 19", [] { prm().ncg = 19; }, "nred      "},
      {"ncg 1003", [] { prm().ncg = 1003; }, "nxf_clean "},
      {"ncg 10003", [] { prm().ncg = 10003; }, "npcol     "},
      {"nwt 5", [] { prm().nwt = 5; }, "nwtint    "},
      {"nwt 2002", [] { prm().nwt = 2002; }, "iall      "},
      // the checks run in order: the first illegal value is the one named
      {"ecg and ncg", [] { prm().ecg = 2.25; prm().ncg = 7; }, "ecg1      "},
      {"ncg and nwt", [] { prm().ncg = 9; prm().nwt = 6; }, "ncgtyp    "},
  };
  for (const Case& k : cases) {
    korn_reset_parameters();
    kornlt::ierr() = 0;
    k.set();
    CoreArgs c = setup_args(poisson2d(16), kStandard);
    const Csr original = c.m;
    const std::string log = call_logged(c);
    EXPECT_EQ(c.ierr, 20) << k.what << "\n" << log;
    const std::string want =
        std::string("*** ERROR: Illegal value of parameter <") + k.name + "> in (crsng_data)!";
    EXPECT_NE(log.find(want), std::string::npos) << k.what << "\n" << log;
    EXPECT_EQ(log.find("Illegal value of parameter <", log.find(want) + want.size()), std::string::npos)
        << k.what << ": one message only\n" << log;
    EXPECT_EQ(c.m.ia, original.ia) << k.what;
    EXPECT_EQ(c.m.ja, original.ja) << k.what;
    EXPECT_EQ(c.m.a, original.a) << k.what;
  }
  // The legal neighbours of those values pass.
  const std::pair<const char*, void (*)()> legal[] = {
      {"ecg 0.25", [] { prm().ecg = 0.25; }},   {"ewt 2.2", [] { prm().ewt = 2.2; }},
      {"ncg 5", [] { prm().ncg = 5; }},         {"ncg 14", [] { prm().ncg = 14; }},
      {"ncg 1002", [] { prm().ncg = 1002; }},   {"ncg 10002", [] { prm().ncg = 10002; }},
      {"nwt 4", [] { prm().nwt = 4; }},         {"nwt 2001", [] { prm().nwt = 2001; }},
  };
  for (const auto& [what, set] : legal) {
    korn_reset_parameters();
    prm().mode_mess = -3;
    kornlt::ierr() = 0;
    set();
    CoreArgs c = setup_args(poisson2d(16), kStandard);
    EXPECT_EQ(c.call(), 0) << what;
    EXPECT_GE(store().levels, 2) << what;
    release();
  }
}

// ---------------------------------------------------------------------------
// 6. Complexities.
// ---------------------------------------------------------------------------
TEST_F(Levels, ComplexitiesOf3DPoisson) {
  omp_set_num_threads(2);
  double grid[2] = {0.0, 0.0};
  for (int v = 0; v < 2; ++v) {
    const bool aggressive = v == 1;
    CoreArgs c = setup_args(poisson3d(24), aggressive ? kAggressive : kStandard);
    ASSERT_EQ(c.call(), 0);
    const kornlt::HierarchyStats h = kornlt::hierarchy_stats();
    const int levels = store().levels;
    ASSERT_GE(levels, 3);
    ASSERT_EQ(h.levels, levels);
    // Counted here from the level views.
    double rows = 0.0, entries = 0.0;
    for (int k = 1; k <= levels; ++k) {
      const LevelView L = level_view(k);
      rows += L.nrows();
      entries += L.ia(L.ihi + 1) - L.ia(L.ilo);
    }
    const double oc = entries / c.m.nna(), gc = rows / c.m.nnu;
    EXPECT_DOUBLE_EQ(h.operator_complexity, oc);
    EXPECT_DOUBLE_EQ(h.grid_complexity, gc);
    std::cout << "3D Poisson 24^3, " << (aggressive ? "aggressive (n_default 17)" : "standard (n_default 40)")
              << ": levels " << levels << ", operator complexity " << oc << ", grid complexity " << gc << "\n";
    EXPECT_LT(oc, aggressive ? 2.0 : 3.0);
    EXPECT_GT(gc, 1.0);
    EXPECT_LT(gc, aggressive ? 1.5 : 2.0);
    grid[v] = gc;
    release();
  }
  EXPECT_LT(grid[1], grid[0]);
}

// The summary written after a setup with a report level above 0: one line
// per level with its rows and entries, then the complexities, all as counted
// here from the level views.
TEST_F(Levels, HierarchySummaryLines) {
  prm().nptmn = 5;
  CoreArgs c = setup_args(convection2d(24), kAggressive, 22);
  prm().mode_mess = 0;
  c.iout = 1;
  std::string log;
  {
    LogCapture capture;
    c.call();
    log = capture.text();
  }
  ASSERT_EQ(c.ierr, 0) << log;
  const int levels = store().levels;
  ASSERT_GE(levels, 3);
  const auto head = log.find("AMG hierarchy\n=============\n");
  ASSERT_NE(head, std::string::npos) << log;
  std::istringstream in(log.substr(log.find('\n', log.find(" level ", head)) + 1));
  double rows = 0.0, entries = 0.0;
  for (int k = 1; k <= levels; ++k) {
    const LevelView L = level_view(k);
    int level = 0, n = 0;
    long long nnz = 0;
    double avg = 0.0;
    ASSERT_TRUE(in >> level >> n >> nnz >> avg) << log;
    EXPECT_EQ(level, k);
    EXPECT_EQ(n, L.nrows()) << "level " << k;
    EXPECT_EQ(nnz, L.ia(L.ihi + 1) - L.ia(L.ilo)) << "level " << k;
    EXPECT_NEAR(avg, static_cast<double>(nnz) / n, 0.005) << "level " << k;
    rows += n;
    entries += static_cast<double>(nnz);
  }
  const std::string rest = log.substr(head);
  auto number_after = [&](const std::string& key) {
    const auto p = rest.find(key);
    EXPECT_NE(p, std::string::npos) << key << "\n" << rest;
    return p == std::string::npos ? -1.0 : std::strtod(rest.c_str() + p + key.size(), nullptr);
  };
  EXPECT_NEAR(number_after("operator complexity:"), entries / c.m.nna(), 0.0005);
  EXPECT_NEAR(number_after("grid complexity:"), rows / c.m.nnu, 0.0005);
  // Interpolation weights per row of the levels that have one.
  const int fine_rows = store().imax[at(levels - 1)];
  const double weights = store().iw[at(fine_rows)] - 1;
  EXPECT_NEAR(number_after("interpolation:"), weights / fine_rows, 0.005);
  EXPECT_EQ(kornlt::hierarchy_stats().interp_entries, static_cast<std::int64_t>(weights));
}

}  // namespace
