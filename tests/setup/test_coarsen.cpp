// Tests of the coarse-point selection: serial and block-parallel pcol against
// an independent checker of the C/F rules on Poisson, anisotropic and random
// graphs, hand-worked selections (tie-breaks, cleaning options, preset C),
// C-forcing, the reduced graph and aggressive coarsening, the split checks,
// the reduction test, messages and error exits, and thread independence.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "log/log.hpp"
#include "log/test_support.hpp"
#include "params/params.hpp"
#include "setup/setup.hpp"
#include "store/store.hpp"

namespace {

using kornlt::LevelView;
using kornlt::PcolSettings;
using kornlt::SelectionCounts;
using kornlt::Vec1;
using korn_test::MessageCapture;

constexpr int kOutside = -999999999;

// ---------------------------------------------------------------------------
// Matrices: diagonal plus off-diagonals per row, 0-based local columns.
// ---------------------------------------------------------------------------
struct Matrix {
  int n = 0;
  std::vector<double> diag;
  std::vector<std::vector<std::pair<int, double>>> offs;
  explicit Matrix(int nrows = 0) : n(nrows), diag(static_cast<std::size_t>(nrows), 0.0), offs(static_cast<std::size_t>(nrows)) {}
};

// Five-point stencil on nx x ny with couplings -ax (x) and -ay (y).
Matrix poisson2d(int nx, int ny, double ax = 1.0, double ay = 1.0) {
  Matrix M(nx * ny);
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      const int r = x + nx * y;
      M.diag[static_cast<std::size_t>(r)] = 2 * ax + 2 * ay;
      auto& o = M.offs[static_cast<std::size_t>(r)];
      if (x > 0) o.push_back({r - 1, -ax});
      if (x < nx - 1) o.push_back({r + 1, -ax});
      if (y > 0) o.push_back({r - nx, -ay});
      if (y < ny - 1) o.push_back({r + nx, -ay});
    }
  return M;
}

Matrix poisson3d(int nx, int ny, int nz) {
  Matrix M(nx * ny * nz);
  for (int z = 0; z < nz; ++z)
    for (int y = 0; y < ny; ++y)
      for (int x = 0; x < nx; ++x) {
        const int r = x + nx * (y + ny * z);
        M.diag[static_cast<std::size_t>(r)] = 6.0;
        auto& o = M.offs[static_cast<std::size_t>(r)];
        if (x > 0) o.push_back({r - 1, -1.0});
        if (x < nx - 1) o.push_back({r + 1, -1.0});
        if (y > 0) o.push_back({r - nx, -1.0});
        if (y < ny - 1) o.push_back({r + nx, -1.0});
        if (z > 0) o.push_back({r - nx * ny, -1.0});
        if (z < nz - 1) o.push_back({r + nx * ny, -1.0});
      }
  return M;
}

// ---------------------------------------------------------------------------
// A level in the layout of the stacked arrays, rows ilo..ihi, entries from
// alo on, with the reference strong sets kept apart for the checker.
// ---------------------------------------------------------------------------
enum RowClass { kNormal = 1, kNoStrong = 0, kCannotTreat = -1 };

struct Level {
  int ilo = 1, ihi = 0, alo = 1;
  std::vector<int> ia, ja, icg, iu;
  std::vector<double> a;
  std::vector<std::vector<int>> S;  // reference strong sets, global indices
  std::vector<int> cls;             // RowClass per row

  int n() const { return ihi - ilo + 1; }
  LevelView view() {
    LevelView L;
    L.k = 1;
    L.ilo = ilo;
    L.ihi = ihi;
    L.ia = Vec1<int>(ia.data(), ilo, ihi + 1);
    L.ja = Vec1<int>(ja.data(), alo, alo + static_cast<int>(ja.size()) - 1);
    L.a = Vec1<double>(a.data(), alo, alo + static_cast<int>(a.size()) - 1);
    icg.assign(static_cast<std::size_t>(n()), 12345);
    L.icg = Vec1<int>(icg.data(), ilo, ihi);
    return L;
  }
  int IA(int i) const { return ia[static_cast<std::size_t>(i - ilo)]; }
  int& JA(int p) { return ja[static_cast<std::size_t>(p - alo)]; }
  int ICG(int i) const { return icg[static_cast<std::size_t>(i - ilo)]; }
  const std::vector<int>& Sof(int i) const { return S[static_cast<std::size_t>(i - ilo)]; }
  int cls_of(int i) const { return cls[static_cast<std::size_t>(i - ilo)]; }
};

// Rows from (strong list, weak list, class); lists hold local 1-based columns.
Level build_level(int n, const std::vector<std::vector<int>>& strong, const std::vector<std::vector<int>>& weak,
                  const std::vector<int>& cls, const std::vector<std::vector<double>>& strong_val,
                  const std::vector<std::vector<double>>& weak_val, const std::vector<double>& diag, int row_base,
                  int entry_base) {
  Level lv;
  lv.ilo = row_base + 1;
  lv.ihi = row_base + n;
  lv.alo = entry_base + 1;
  int pos = lv.alo;
  for (int r = 0; r < n; ++r) {
    const auto sr = static_cast<std::size_t>(r);
    const int start = pos;
    lv.ia.push_back(start);
    lv.ja.push_back(0);  // strong end, below
    lv.a.push_back(diag[sr]);
    ++pos;
    std::vector<int> s;
    for (std::size_t k = 0; k < strong[sr].size(); ++k) {
      lv.ja.push_back(row_base + strong[sr][k]);
      lv.a.push_back(strong_val[sr][k]);
      s.push_back(row_base + strong[sr][k]);
      ++pos;
    }
    for (std::size_t k = 0; k < weak[sr].size(); ++k) {
      lv.ja.push_back(row_base + weak[sr][k]);
      lv.a.push_back(weak_val[sr][k]);
      ++pos;
    }
    int end = start;
    if (cls[sr] == kCannotTreat) end = 0;
    if (cls[sr] == kNormal) end = start + static_cast<int>(s.size());
    lv.ja[static_cast<std::size_t>(start - lv.alo)] = end;
    lv.S.push_back(cls[sr] == kNormal ? s : std::vector<int>{});
    lv.cls.push_back(cls[sr]);
  }
  lv.ia.push_back(pos);
  return lv;
}

// The reference strength: a_ij strong when a_ij <= ecg2 * min_j a_ij (< 0);
// strong entries moved to the front, the strong end behind the last one.
Level sorted_level(const Matrix& M, double ecg2 = 0.25, int row_base = 0, int entry_base = 0) {
  std::vector<std::vector<int>> st(static_cast<std::size_t>(M.n)), wk(static_cast<std::size_t>(M.n));
  std::vector<std::vector<double>> sv(static_cast<std::size_t>(M.n)), wv(static_cast<std::size_t>(M.n));
  std::vector<int> cls(static_cast<std::size_t>(M.n), kNormal);
  for (int r = 0; r < M.n; ++r) {
    const auto sr = static_cast<std::size_t>(r);
    double amin = 0.0;
    for (const auto& [c, v] : M.offs[sr]) amin = std::min(amin, v);
    for (const auto& [c, v] : M.offs[sr]) {
      if (amin < 0.0 && v <= ecg2 * amin) {
        st[sr].push_back(c + 1);
        sv[sr].push_back(v);
      } else {
        wk[sr].push_back(c + 1);
        wv[sr].push_back(v);
      }
    }
    if (st[sr].empty()) cls[sr] = kNoStrong;
  }
  return build_level(M.n, st, wk, cls, sv, wv, M.diag, row_base, entry_base);
}

// A level straight from strong lists (local 1-based), values -1 / diagonal 4.
Level graph_level(const std::vector<std::vector<int>>& strong, std::vector<int> cls = {}, int row_base = 0,
                  int entry_base = 0) {
  const int n = static_cast<int>(strong.size());
  if (cls.empty()) {
    cls.assign(static_cast<std::size_t>(n), kNormal);
    for (int r = 0; r < n; ++r)
      if (strong[static_cast<std::size_t>(r)].empty()) cls[static_cast<std::size_t>(r)] = kNoStrong;
  }
  std::vector<std::vector<int>> wk(static_cast<std::size_t>(n));
  std::vector<std::vector<double>> sv(static_cast<std::size_t>(n)), wv(static_cast<std::size_t>(n));
  for (int r = 0; r < n; ++r)
    sv[static_cast<std::size_t>(r)].assign(strong[static_cast<std::size_t>(r)].size(), -1.0);
  return build_level(n, strong, wk, cls, sv, wv, std::vector<double>(static_cast<std::size_t>(n), 4.0), row_base,
                     entry_base);
}

// Symmetric graph from undirected edges (1-based).
std::vector<std::vector<int>> undirected(int n, const std::vector<std::pair<int, int>>& edges) {
  std::vector<std::vector<int>> s(static_cast<std::size_t>(n));
  for (auto [u, v] : edges) {
    s[static_cast<std::size_t>(u - 1)].push_back(v);
    s[static_cast<std::size_t>(v - 1)].push_back(u);
  }
  return s;
}

std::set<int> c_set(const Level& lv) {
  std::set<int> c;
  for (int i = lv.ilo; i <= lv.ihi; ++i)
    if (lv.ICG(i) > 0) c.insert(i - lv.ilo + 1);
  return c;
}

bool in(const std::vector<int>& v, int x) { return std::find(v.begin(), v.end(), x) != v.end(); }

// ---------------------------------------------------------------------------
// The independent checker of a pcol result. Guarantees of the selection:
// - states are 1, -1, -2, 0 or outside; FF exactly for rows without strong
//   couplings (and for rows that cannot be treated with iset_vio_dd 0);
// - every F-variable (-1) has a C-variable in S_i;
// - a C-variable that turned C has no undecided variable left in its S^T, so
//   two C-variables are never strongly coupled both ways (for a symmetric
//   S: never coupled at all);
// - cleaning 2 leaves nothing undecided, cleaning 1 only variables with an
//   F-variable in S_i;
// - the counters are the counts of the states.
// ---------------------------------------------------------------------------
void expect_valid_split(const Level& lv, const SelectionCounts& c, int nxf_clean, bool symmetric,
                        int iset_vio_dd = 1) {
  int nc = 0, nf = 0, nxf = 0, nff = 0, nfc = 0;
  for (int i = lv.ilo; i <= lv.ihi; ++i) {
    const int s = lv.ICG(i);
    ASSERT_TRUE(s == 1 || s == -1 || s == -2 || s == 0) << "row " << i << " state " << s;
    nc += s == 1;
    nf += s == -1 || s == -2;
    nxf += s == -2;
    nff += s == 0;
    const int cl = lv.cls_of(i);
    if (cl == kNoStrong) { EXPECT_EQ(s, 0) << "row " << i; }
    if (cl == kCannotTreat) {
      EXPECT_EQ(s, iset_vio_dd >= 1 ? 1 : 0) << "row " << i;
      nfc += iset_vio_dd >= 1;
    }
    if (cl == kNormal) { EXPECT_NE(s, 0) << "row " << i; }
    const auto& S = lv.Sof(i);
    if (s == -1) {
      bool has_c = false;
      for (int j : S) has_c = has_c || lv.ICG(j) > 0;
      EXPECT_TRUE(has_c) << "F-variable " << i << " without strong C neighbour";
    }
    if (s == -2) {
      EXPECT_EQ(nxf_clean, 1) << "undecided " << i << " left under cleaning 2";
      bool has_f = false;
      for (int j : S) has_f = has_f || lv.ICG(j) == -1;
      EXPECT_TRUE(has_f) << "XF " << i << " without strong F neighbour";
    }
    if (s == 1)
      for (int j : S)
        if (lv.ICG(j) > 0) {
          EXPECT_FALSE(symmetric) << "C-C coupling " << i << " -> " << j;
          EXPECT_FALSE(in(lv.Sof(j), i)) << "C-variables " << i << ", " << j << " coupled both ways";
        }
  }
  EXPECT_EQ(c.nvars, lv.n());
  EXPECT_EQ(c.nc, nc);
  EXPECT_EQ(c.nf, nf);
  EXPECT_EQ(c.nxf, nxf);
  EXPECT_EQ(c.nff, nff);
  EXPECT_EQ(c.nfc, nfc);
}

// The strong ends as the row sort left them.
std::vector<int> strong_ends(Level& lv) {
  std::vector<int> e;
  for (int i = lv.ilo; i <= lv.ihi; ++i) e.push_back(lv.JA(lv.IA(i)));
  return e;
}

// Parameters, error state and threads restored around every test.
class Coarsen : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_ = kornlt::prm();
    kornlt::ierr() = 0;
    threads_ = omp_get_max_threads();
  }
  void TearDown() override {
    kornlt::prm() = saved_;
    kornlt::ierr() = 0;
    omp_set_num_threads(threads_);
  }
  static PcolSettings settings(int nxf_clean = 1) {
    PcolSettings s;
    s.nxf_clean = nxf_clean;
    s.msg_level = -1;
    return s;
  }
  kornlt::Params saved_;
  int threads_ = 1;
};

// ===========================================================================
// Serial pcol on model problems
// ===========================================================================

TEST_F(Coarsen, PoissonSplitsAreValidAndHalveTheGrid) {
  struct Case {
    const char* name;
    Matrix M;
    double lo, hi;
  };
  const std::vector<Case> cases = {
      {"2d 5pt 24x24", poisson2d(24, 24), 0.45, 0.55},
      {"2d 5pt 17x9", poisson2d(17, 9), 0.42, 0.58},
      {"3d 7pt 10^3", poisson3d(10, 10, 10), 0.40, 0.60},
  };
  for (const auto& cs : cases)
    for (int clean : {1, 2}) {
      SCOPED_TRACE(std::string(cs.name) + " clean " + std::to_string(clean));
      Level lv = sorted_level(cs.M);
      const auto ends = strong_ends(lv);
      LevelView L = lv.view();
      const SelectionCounts c = kornlt::pcol_serial(L, settings(clean));
      ASSERT_EQ(kornlt::ierr(), 0);
      expect_valid_split(lv, c, clean, true);
      const double ratio = double(c.nc) / lv.n();
      EXPECT_GE(ratio, cs.lo);
      EXPECT_LE(ratio, cs.hi);
      EXPECT_EQ(strong_ends(lv), ends) << "strong ends must be left as found";
    }
}

// The classical selection on the five-point stencil: a red-black pattern
// away from the boundary, every interior neighbour pair one C and one F.
TEST_F(Coarsen, FivePointInteriorIsRedBlack) {
  const int nx = 20, ny = 16;
  Level lv = sorted_level(poisson2d(nx, ny));
  LevelView L = lv.view();
  kornlt::pcol_serial(L, settings());
  auto C = [&](int x, int y) { return lv.ICG(1 + x + nx * y) > 0; };
  for (int y = 2; y < ny - 2; ++y)
    for (int x = 2; x < nx - 2; ++x) {
      if (x + 1 < nx - 2) { EXPECT_NE(C(x, y), C(x + 1, y)) << x << "," << y; }
      if (y + 1 < ny - 2) { EXPECT_NE(C(x, y), C(x, y + 1)) << x << "," << y; }
    }
}

// Strong couplings only along x: each line coarsens as a 1D chain, C and F
// alternate along x, the same columns on every line, every line kept.
TEST_F(Coarsen, AnisotropicCoarsensOnlyAlongTheStrongDirection) {
  const int nx = 15, ny = 7;
  Level lv = sorted_level(poisson2d(nx, ny, 1.0, 0.01));
  LevelView L = lv.view();
  const SelectionCounts c = kornlt::pcol_serial(L, settings());
  expect_valid_split(lv, c, 1, true);
  auto C = [&](int x, int y) { return lv.ICG(1 + x + nx * y) > 0; };
  for (int y = 0; y < ny; ++y) {
    int count = 0;
    for (int x = 0; x < nx; ++x) {
      count += C(x, y);
      if (x + 1 < nx) { EXPECT_NE(C(x, y), C(x + 1, y)) << "line " << y << " x " << x; }
      EXPECT_EQ(C(x, y), C(x, 0)) << "line " << y << " x " << x;
    }
    EXPECT_EQ(count, nx / 2) << "line " << y;
  }
}

// Random non-symmetric strong graphs, with rows that have no strong
// couplings and rows that cannot be treated, on a level that does not start
// at row 1: the rules hold for both cleaning options and both settings of
// iset_vio_dd, serial and block-parallel with several block counts.
TEST_F(Coarsen, RandomGraphsFollowTheSelectionRules) {
  for (unsigned seed = 1; seed <= 12; ++seed) {
    std::mt19937 rng(seed);
    const int n = 40 + static_cast<int>(rng() % 80);
    std::vector<std::vector<int>> s(static_cast<std::size_t>(n));
    std::vector<int> cls(static_cast<std::size_t>(n), kNormal);
    for (int r = 0; r < n; ++r) {
      const unsigned kind = rng() % 10;
      if (kind == 0) {
        cls[static_cast<std::size_t>(r)] = kNoStrong;
        continue;
      }
      if (kind == 1) {
        cls[static_cast<std::size_t>(r)] = kCannotTreat;
        continue;
      }
      const int deg = 1 + static_cast<int>(rng() % 5);
      std::set<int> cols;
      while (static_cast<int>(cols.size()) < deg) {
        // mostly near the diagonal, sometimes far away
        int c = rng() % 4 == 0 ? static_cast<int>(rng() % n) : r + static_cast<int>(rng() % 7) - 3;
        if (c < 0 || c >= n || c == r) continue;
        cols.insert(c + 1);
      }
      s[static_cast<std::size_t>(r)].assign(cols.begin(), cols.end());
    }
    for (int iset : {1, 0})
      for (int clean : {1, 2})
        for (int nt : {0, 1, 2, 3, 5}) {  // 0: serial routine
          SCOPED_TRACE("seed " + std::to_string(seed) + " iset " + std::to_string(iset) + " clean " +
                       std::to_string(clean) + " blocks " + std::to_string(nt));
          kornlt::prm().iset_vio_dd = iset;
          Level lv = graph_level(s, cls, 7, 13);
          const auto ends = strong_ends(lv);
          LevelView L = lv.view();
          const SelectionCounts c =
              nt == 0 ? kornlt::pcol_serial(L, settings(clean)) : kornlt::pcol_parallel(L, settings(clean), nt);
          ASSERT_EQ(kornlt::ierr(), 0);
          expect_valid_split(lv, c, clean, false, iset);
          EXPECT_EQ(strong_ends(lv), ends);
        }
  }
}

// With the row sort of the library in front: the couplings stored weak
// first (y before x), the row sort moves the strong x couplings to the front,
// and the selection on its result passes the checker built from the
// reference strength; the diagonals come back with restore_diagonals.
TEST_F(Coarsen, SelectionAfterTheRowSort) {
  const int nx = 14, ny = 9;
  Matrix M = poisson2d(nx, ny, 1.0, 0.1);
  for (auto& o : M.offs) std::reverse(o.begin(), o.end());  // y couplings first
  const Level ref = sorted_level(M);
  std::vector<std::vector<int>> none(static_cast<std::size_t>(M.n)), cols(static_cast<std::size_t>(M.n));
  std::vector<std::vector<double>> nonev(static_cast<std::size_t>(M.n)), vals(static_cast<std::size_t>(M.n));
  for (int r = 0; r < M.n; ++r)
    for (const auto& [c, v] : M.offs[static_cast<std::size_t>(r)]) {
      cols[static_cast<std::size_t>(r)].push_back(c + 1);
      vals[static_cast<std::size_t>(r)].push_back(v);
    }
  Level lv = build_level(M.n, none, cols, std::vector<int>(static_cast<std::size_t>(M.n), kNoStrong), nonev, vals,
                         M.diag, 0, 0);
  lv.S = ref.S;
  lv.cls = ref.cls;
  LevelView L = lv.view();
  kornlt::restore_diagonals(L);
  const kornlt::RowSortResult rs = kornlt::rwsrt(L, 1, 0.01, 0.25, 0.0, 0.2, 0.9, -1);
  ASSERT_EQ(kornlt::ierr(), 0);
  EXPECT_EQ(rs.nstrong, 2 * (nx - 1) * ny);
  const SelectionCounts c = kornlt::pcol_serial(L, settings());
  ASSERT_EQ(kornlt::ierr(), 0);
  expect_valid_split(lv, c, 1, true);
  auto C = [&](int x, int y) { return lv.ICG(1 + x + nx * y) > 0; };
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x + 1 < nx; ++x) {
      EXPECT_NE(C(x, y), C(x + 1, y)) << x << "," << y;
    }
  kornlt::restore_diagonals(L);
  for (int i = lv.ilo; i <= lv.ihi; ++i) EXPECT_EQ(lv.JA(lv.IA(i)), i);
}

// ===========================================================================
// Hand cases of the serial selection
// ===========================================================================

TEST_F(Coarsen, HandCasesOfTheTieBreaks) {
  struct Case {
    const char* name;
    int n;
    std::vector<std::pair<int, int>> edges;
    std::set<int> expected_c;
  };
  const std::vector<Case> cases = {
      // All measures 1: the higher index first: 4 (3 F), then 2 (1 F).
      {"equal untouched measures", 4, {{1, 2}, {3, 4}}, {2, 4}},
      // Measures 2,2,2,1... chain 1-2-3-4: 3 before 2 (higher index); 1 then
      // rises to 2 and is taken.
      {"chain of four", 4, {{1, 2}, {2, 3}, {3, 4}}, {1, 3}},
      // 3 (measure 4) first; 2 turns F and lifts 1 to measure 3, equal to the
      // untouched 6: the moved variable 1 goes first, so 6 turns F and 7, 8
      // follow (measure 2 each after 6 turned F).
      {"moved before untouched",
       9,
       {{1, 2}, {2, 3}, {3, 4}, {3, 5}, {3, 9}, {1, 6}, {6, 7}, {6, 8}},
       {1, 3, 7, 8}},
  };
  for (const auto& cs : cases) {
    SCOPED_TRACE(cs.name);
    Level lv = graph_level(undirected(cs.n, cs.edges));
    LevelView L = lv.view();
    const SelectionCounts c = kornlt::pcol_serial(L, settings());
    EXPECT_EQ(c_set(lv), cs.expected_c);
    expect_valid_split(lv, c, 1, true);
  }
}

// A variable of measure 0 (nobody depends on it): C under both cleaning
// options when it has no F neighbour; with a strong F neighbour it stays XF
// under option 1 and turns C under option 2.
TEST_F(Coarsen, MeasureZeroVariablesAndTheCleaningOptions) {
  // 1 -> 2, 2 without strong couplings (FF).
  {
    for (int clean : {1, 2}) {
      Level lv = graph_level({{2}, {}});
      LevelView L = lv.view();
      const SelectionCounts c = kornlt::pcol_serial(L, settings(clean));
      EXPECT_EQ(lv.ICG(1), 1) << clean;
      EXPECT_EQ(lv.ICG(2), 0) << clean;
      EXPECT_EQ(c.nsw, 1);
      EXPECT_EQ(c.nxf, 0);
      EXPECT_EQ(c.nc, 1);
      EXPECT_EQ(c.nf, 0);
      EXPECT_EQ(c.nff, 1);
    }
  }
  // 1 -> 2 -> 3, row 3 cannot be treated (preset C): 2 turns F in the
  // preset pass, 1 keeps measure 0 with the F neighbour 2.
  for (int clean : {1, 2}) {
    Level lv = graph_level({{2}, {3}, {}}, {kNormal, kNormal, kCannotTreat});
    LevelView L = lv.view();
    const SelectionCounts c = kornlt::pcol_serial(L, settings(clean));
    EXPECT_EQ(lv.ICG(2), -1);
    EXPECT_EQ(lv.ICG(3), 1);
    EXPECT_EQ(lv.ICG(1), clean == 1 ? -2 : 1);
    EXPECT_EQ(c.nxf, clean == 1 ? 1 : 0);
    EXPECT_EQ(c.nsw, clean == 1 ? 0 : 1);
    EXPECT_EQ(c.nc, clean == 1 ? 1 : 2);
    EXPECT_EQ(c.nf, clean == 1 ? 2 : 1);
    EXPECT_EQ(c.nfc, 1);
    expect_valid_split(lv, c, clean, false);
  }
}

// A row that cannot be treated: C with iset_vio_dd 1 (its dependants turn F
// at once), FF with 0.
TEST_F(Coarsen, RowsThatCannotBeTreatedFollowIsetVioDd) {
  for (int iset : {1, 0}) {
    kornlt::prm().iset_vio_dd = iset;
    // 2 cannot be treated; 1 and 3 depend on it, 4 on 3.
    Level lv = graph_level({{2}, {}, {2, 4}, {3}}, {kNormal, kCannotTreat, kNormal, kNormal});
    LevelView L = lv.view();
    const SelectionCounts c = kornlt::pcol_serial(L, settings());
    if (iset == 1) {
      EXPECT_EQ(lv.ICG(2), 1);
      EXPECT_EQ(lv.ICG(1), -1);
      EXPECT_EQ(lv.ICG(3), -1);
      EXPECT_EQ(lv.ICG(4), 1);  // measure 2 after 3 turned F
      EXPECT_EQ(c.nfc, 1);
      EXPECT_EQ(c.nff, 0);
    } else {
      EXPECT_EQ(lv.ICG(2), 0);
      EXPECT_EQ(c.nfc, 0);
      EXPECT_EQ(c.nff, 1);
    }
    expect_valid_split(lv, c, 1, false, iset);
  }
}

// Only the variables of unknown nprim take part; the others are outside and
// their strong ends come back as they were.
TEST_F(Coarsen, OnlyThePrimaryUnknownTakesPart) {
  const int nx = 12;
  Level lv = sorted_level(poisson2d(nx, 1));  // a chain
  lv.iu.resize(static_cast<std::size_t>(lv.n()));
  for (int r = 0; r < lv.n(); ++r) lv.iu[static_cast<std::size_t>(r)] = 1 + r % 2;
  const auto ends = strong_ends(lv);
  LevelView L = lv.view();
  PcolSettings s = settings(2);
  s.nprim = 1;
  s.iu = Vec1<int>(lv.iu.data(), lv.ilo, lv.ihi);
  const SelectionCounts c = kornlt::pcol_serial(L, s);
  ASSERT_EQ(kornlt::ierr(), 0);
  EXPECT_EQ(c.nvars, nx / 2);
  for (int i = lv.ilo; i <= lv.ihi; ++i) {
    if (lv.iu[static_cast<std::size_t>(i - 1)] == 2) {
      EXPECT_EQ(lv.ICG(i), kOutside) << i;
    } else {
      // neighbours on the chain are of the other unknown: nothing is coupled
      // to anything that takes part, so all become C in the cleaning
      EXPECT_EQ(lv.ICG(i), 1) << i;
    }
  }
  EXPECT_EQ(c.nc, nx / 2);
  EXPECT_EQ(strong_ends(lv), ends);
}

// ===========================================================================
// Block-parallel selection
// ===========================================================================

TEST_F(Coarsen, ParallelWithOneBlockIsTheSerialSelection) {
  const std::vector<Matrix> ms = {poisson2d(21, 13), poisson3d(7, 6, 5), poisson2d(15, 7, 1.0, 0.01)};
  for (const auto& M : ms)
    for (int clean : {1, 2}) {
      Level a = sorted_level(M), b = sorted_level(M);
      LevelView La = a.view(), Lb = b.view();
      const SelectionCounts ca = kornlt::pcol_serial(La, settings(clean));
      const SelectionCounts cb = kornlt::pcol_parallel(Lb, settings(clean), 1);
      EXPECT_EQ(a.icg, b.icg);
      EXPECT_EQ(ca.nc, cb.nc);
      EXPECT_EQ(ca.nf, cb.nf);
    }
}

// icolor_omp 2 on two threads: a valid split, identical over repeated runs.
TEST_F(Coarsen, ParallelSelectionIsValidAndRepeatable) {
  omp_set_num_threads(2);
  kornlt::prm().icolor_omp = 2;
  const std::vector<Matrix> ms = {poisson2d(48, 40), poisson3d(12, 11, 10)};
  for (const auto& M : ms) {
    std::vector<int> first;
    for (int run = 0; run < 20; ++run) {
      Level lv = sorted_level(M);
      LevelView L = lv.view();
      const SelectionCounts c = kornlt::pcol(L, settings());
      ASSERT_EQ(kornlt::ierr(), 0);
      if (run == 0) {
        expect_valid_split(lv, c, 1, true);
        const double ratio = double(c.nc) / lv.n();
        EXPECT_GE(ratio, 0.35);
        EXPECT_LE(ratio, 0.65);
        first = lv.icg;
      } else {
        ASSERT_EQ(lv.icg, first) << "run " << run;
      }
    }
  }
}

// Many small blocks leave most of the work to the boundary rounds.
TEST_F(Coarsen, ParallelBoundaryRoundsOnManyBlocks) {
  omp_set_num_threads(2);
  for (int nt : {2, 4, 8, 16}) {
    Level a = sorted_level(poisson2d(16, 16)), b = sorted_level(poisson2d(16, 16));
    LevelView La = a.view(), Lb = b.view();
    const SelectionCounts c = kornlt::pcol_parallel(La, settings(), nt);
    expect_valid_split(a, c, 1, true);
    EXPECT_GE(double(c.nc) / a.n(), 0.35) << nt;
    EXPECT_LE(double(c.nc) / a.n(), 0.65) << nt;
    kornlt::pcol_parallel(Lb, settings(), nt);
    EXPECT_EQ(a.icg, b.icg) << nt;
  }
}

// The variant chosen by icolor_omp, threads and level.
TEST_F(Coarsen, VariantSelection) {
  // A level where the block variant and the serial routine differ: the
  // chain 1-2-3 and an FF row 4. Serial: 2 (measure 2) is C. Two blocks
  // {1,2} {3,4}: only 1 lies inside its block with all its couplings, so the
  // interior phase takes it; 3 follows in the boundary rounds.
  auto make = [] { return graph_level(undirected(4, {{1, 2}, {2, 3}})); };
  Level ref_serial = make(), ref_par = make();
  {
    LevelView L = ref_serial.view();
    kornlt::pcol_serial(L, settings());
    LevelView P = ref_par.view();
    kornlt::pcol_parallel(P, settings(), 2);
  }
  EXPECT_EQ(c_set(ref_serial), (std::set<int>{2}));
  EXPECT_EQ(c_set(ref_par), (std::set<int>{1, 3}));
  ASSERT_NE(ref_serial.icg, ref_par.icg) << "the case must tell the variants apart";
  struct Case {
    int icolor, threads, level;
    bool parallel;
  };
  const std::vector<Case> cases = {
      {2, 2, 1, true}, {1, 2, 3, true}, {3, 2, 1, true}, {4, 2, 2, true}, {2, 2, 4, false},
      {2, 1, 1, false}, {0, 2, 1, false}, {6, 2, 1, false}, {5, 2, 1, true}, {5, 2, 4, false},
  };
  for (const auto& cs : cases) {
    SCOPED_TRACE("icolor " + std::to_string(cs.icolor) + " threads " + std::to_string(cs.threads) + " level " +
                 std::to_string(cs.level));
    omp_set_num_threads(cs.threads);
    kornlt::prm().icolor_omp = cs.icolor;
    Level lv = make();
    LevelView L = lv.view();
    L.k = cs.level;
    kornlt::pcol(L, settings());
    EXPECT_EQ(lv.icg, cs.parallel ? ref_par.icg : ref_serial.icg);
  }
}

// ===========================================================================
// Reports and errors of pcol
// ===========================================================================

TEST_F(Coarsen, PcolReportLines) {
  MessageCapture cap;
  // Two pairs: C = {2, 4}, ratio 0.5, nothing left.
  {
    Level lv = graph_level(undirected(4, {{1, 2}, {3, 4}}));
    LevelView L = lv.view();
    PcolSettings s = settings(1);
    s.msg_level = 0;
    kornlt::pcol_serial(L, s);
  }
  // The measure-0 case of option 1 with one switch, under option 2.
  {
    Level lv = graph_level({{2}, {}, {2}});
    LevelView L = lv.view();
    PcolSettings s = settings(2);
    s.msg_level = 0;
    kornlt::pcol_serial(L, s);
  }
  // Message level below 0: silent.
  {
    Level lv = graph_level(undirected(4, {{1, 2}, {3, 4}}));
    LevelView L = lv.view();
    kornlt::pcol_serial(L, settings(1));
  }
  const std::string t = cap.text();
  EXPECT_NE(t.find(">>> MESSG: pcol(1):       gratio= 0.5000 FF/XF/FC= 0 0 0"), std::string::npos) << t;
  EXPECT_NE(t.find(">>> MESSG: pcol(2):       # status switches XF->C=2"), std::string::npos) << t;
  EXPECT_NE(t.find(">>> MESSG: pcol(2):       gratio= 0.6667 FF/XF/FC= 1 0 0"), std::string::npos) << t;
  EXPECT_EQ(t.find("pcol(1):       # status"), std::string::npos) << t;
  // exactly two gratio lines: the silent call wrote nothing
  std::size_t count = 0;
  for (std::size_t p = t.find("gratio="); p != std::string::npos; p = t.find("gratio=", p + 1)) ++count;
  EXPECT_EQ(count, 2u);
}

TEST_F(Coarsen, PcolTraceOfStates) {
  kornlt::prm().itrace_split = 1;
  MessageCapture cap;
  Level lv = graph_level(undirected(4, {{1, 2}, {3, 4}}));
  LevelView L = lv.view();
  kornlt::pcol_serial(L, settings());
  const std::string t = cap.text();
  EXPECT_NE(t.find("pcol:after initialization: C=0 F=0 U=4 FF=0"), std::string::npos) << t;
  EXPECT_NE(t.find("pcol:after main coarsening phase: C=2 F=2 U=0 FF=0"), std::string::npos) << t;
}

TEST_F(Coarsen, PcolErrorsRestoreTheDiagonals) {
  struct Case {
    const char* name;
    bool parallel;
    bool alloc_fails;
    int clean;
    int code;
    std::string text;
  };
  const std::vector<Case> cases = {
      {"illegal cleaning, serial", false, false, 3, 120, "*** ERROR: Illegal option in cleaning up phase (pcol)"},
      {"illegal cleaning, parallel", true, false, 0, 120, "*** ERROR: Illegal option in cleaning up phase (pcol)"},
      {"allocation, serial", false, true, 1, 70, "*** ERROR: Allocation #1 failed in (pcol)"},
      {"allocation, parallel", true, true, 1, 70, "*** ERROR: Allocation #1 failed in (pcol)"},
  };
  for (const auto& cs : cases) {
    SCOPED_TRACE(cs.name);
    kornlt::ierr() = 0;
    MessageCapture cap;
    // 1 -> 2 (FF): 1 is left at measure 0, so the cleaning option is read.
    Level lv = graph_level({{2}, {}, {4}, {3}}, {}, 3, 5);
    LevelView L = lv.view();
    if (cs.alloc_fails) kornlt::coarsen_fail_next_allocation();
    if (cs.parallel)
      kornlt::pcol_parallel(L, settings(cs.clean), 2);
    else
      kornlt::pcol_serial(L, settings(cs.clean));
    EXPECT_EQ(kornlt::ierr(), cs.code);
    EXPECT_NE(cap.text().find(cs.text), std::string::npos) << cap.text();
    for (int i = lv.ilo; i <= lv.ihi; ++i) EXPECT_EQ(lv.JA(lv.IA(i)), i);
  }
  // An illegal option that is never needed does no harm.
  kornlt::ierr() = 0;
  Level lv = graph_level(undirected(4, {{1, 2}, {3, 4}}));
  LevelView L = lv.view();
  kornlt::pcol_serial(L, settings(7));
  EXPECT_EQ(kornlt::ierr(), 0);
}

// ===========================================================================
// C-forcing
// ===========================================================================

// Rows (diagonal 1): 1 F with couplings to 2 (F, 0.8) and 3 (outside, 0.5);
// 2 F with 1 (1.2) and 4 (C); 3 outside; 4 C; 5 FF with 2 (5.0); 6 (-3) with
// 2 (0.9) and 5 (FF, 0.6); 7 XF with 6 (1.1).
// Factor 1: 1 turns C (1.3, the outside coupling counts); 2 then sees no
// negative neighbour; 6 sees 0.9 only (FF does not count); 7 sees 1.1 -> C.
// Factor 0.75: 1 and 6 turn C; 7 then sees nothing.
TEST_F(Coarsen, CforceHandCase) {
  struct Case {
    int npcol;
    std::set<int> to_c;
  };
  for (const Case& cs : std::vector<Case>{{1, {1, 7}}, {2, {1, 6}}, {0, {}}}) {
    SCOPED_TRACE(cs.npcol);
    std::vector<std::vector<int>> cols = {{2, 3}, {1, 4}, {}, {}, {2}, {2, 5}, {6}};
    std::vector<std::vector<double>> vals = {{-0.8, -0.5}, {-1.2, -0.1}, {}, {}, {-5.0}, {-0.9, -0.6}, {-1.1}};
    std::vector<std::vector<int>> none(7);
    std::vector<std::vector<double>> nonev(7);
    Level lv = build_level(7, none, cols, std::vector<int>(7, kNoStrong), nonev, vals, std::vector<double>(7, 1.0), 0, 0);
    LevelView L = lv.view();
    lv.icg = {-1, -1, kOutside, 1, 0, -3, -2};
    int nc = 1, nf = 4;
    MessageCapture cap;
    const int count = kornlt::cforce(L, cs.npcol, nc, nf, 0);
    EXPECT_EQ(count, static_cast<int>(cs.to_c.size()));
    EXPECT_EQ(nc, 1 + count);
    EXPECT_EQ(nf, 4 - count);
    const std::vector<int> before = {-1, -1, kOutside, 1, 0, -3, -2};
    for (int i = 1; i <= 7; ++i)
      EXPECT_EQ(lv.ICG(i), cs.to_c.count(i) ? 1 : before[static_cast<std::size_t>(i - 1)]) << i;
    if (cs.npcol > 0)
      EXPECT_NE(cap.text().find(">>> MESSG: cforce(" + std::to_string(cs.npcol) + "):     # vars -> C: 2"),
                std::string::npos)
          << cap.text();
    else
      EXPECT_EQ(cap.text(), "");
  }
}

TEST_F(Coarsen, CforceIllegalValue) {
  Level lv = graph_level({{2}, {1}});
  LevelView L = lv.view();
  lv.icg = {-1, 1};
  int nc = 1, nf = 1;
  MessageCapture cap;
  kornlt::cforce(L, 3, nc, nf, 0);
  EXPECT_EQ(kornlt::ierr(), 20);
  EXPECT_NE(cap.text().find("*** ERROR: Illegal value of parameter <npcol>"), std::string::npos) << cap.text();
  EXPECT_EQ(lv.icg, (std::vector<int>{-1, 1}));
}

// ===========================================================================
// Reduced graph and aggressive coarsening
// ===========================================================================

// Links of the reduced graph by hand. C-variables 1, 5, 6 (indices 1, 2, 3),
// F-variables 2, 3, 4 with S_2 = S_3 = S_4 = {5}; 6 -> 1 directly.
TEST_F(Coarsen, ReducedGraphLinksByPathCount) {
  struct Case {
    const char* name;
    std::vector<int> s1;  // S_1
    int nred;
    std::set<int> row1;   // links of C-variable 1 (C indices)
    std::set<int> row3 = {1};  // links of C-variable 3 (row 6): 6 -> 1 directly,
                               // paths 6 -> 1 -> l for C-variables l in S_1
  };
  const std::vector<Case> cases = {
      {"two paths, nred 3", {2, 3, 6}, 3, {3}},
      {"three paths, nred 3", {2, 3, 4, 6}, 3, {2, 3}},
      {"two paths, nred 2", {2, 3, 6}, 2, {2, 3}},
      {"one path, nred 1", {2, 6}, 1, {2, 3}},
      {"one path, nred 2", {2, 6}, 2, {3}},
      {"direct and paths, nred 1", {2, 3, 5}, 1, {2}, {1, 2}},
  };
  for (const auto& cs : cases)
    for (int nt : {1, 2}) {
      SCOPED_TRACE(std::string(cs.name) + " threads " + std::to_string(nt));
      Level lv = graph_level({cs.s1, {5}, {5}, {5}, {}, {1}}, {}, 2, 4);
      LevelView L = lv.view();
      lv.icg = {1, -1, -1, -1, 2, 3};
      kornlt::ReducedGraph g;
      ASSERT_TRUE(kornlt::build_reduced_graph(L, 3, cs.nred, nt, g));
      ASSERT_EQ(g.iaa.size(), 4u);
      EXPECT_EQ(g.cvar, (std::vector<int>{3, 7, 8}));
      auto row = [&](int c) {
        const int start = g.iaa[static_cast<std::size_t>(c - 1)];
        const int end = g.jaa[static_cast<std::size_t>(start - 1)];
        std::multiset<int> links;
        if (end != 0) {
          EXPECT_EQ(end, g.iaa[static_cast<std::size_t>(c)] - 1);
          for (int p = start + 1; p <= end; ++p) links.insert(g.jaa[static_cast<std::size_t>(p - 1)]);
        } else {
          EXPECT_EQ(g.iaa[static_cast<std::size_t>(c)], start + 1);
        }
        return links;
      };
      EXPECT_EQ(row(1), std::multiset<int>(cs.row1.begin(), cs.row1.end()));
      EXPECT_EQ(row(2), std::multiset<int>{});  // 5 has no strong couplings
      EXPECT_EQ(row(3), std::multiset<int>(cs.row3.begin(), cs.row3.end()));
      EXPECT_EQ(g.nlinks, static_cast<int>(cs.row1.size() + cs.row3.size()));
    }
}

// An independent check of aggressive coarsening: each -3 variable (a C of
// the first pass turned F) reaches a C-variable along at most two strong
// couplings; no other states change.
void expect_distance_two(const Level& lv) {
  for (int i = lv.ilo; i <= lv.ihi; ++i) {
    if (lv.ICG(i) != -3) continue;
    bool reach = false;
    for (int j : lv.Sof(i)) {
      reach = reach || lv.ICG(j) > 0;
      for (int l : lv.Sof(j)) reach = reach || (l != i && lv.ICG(l) > 0);
    }
    EXPECT_TRUE(reach) << "-3 variable " << i << " without a C-variable within distance two";
  }
}

TEST_F(Coarsen, AggressiveCoarseningReducesTheGrid) {
  struct Case {
    const char* name;
    Matrix M;
    int nred;
    double max_ratio;
  };
  const std::vector<Case> cases = {
      {"2d nred 1", poisson2d(24, 24), 1, 0.3},
      {"2d nred 2", poisson2d(24, 24), 2, 0.3},
      {"3d nred 1", poisson3d(10, 10, 10), 1, 0.3},
      {"3d nred 2", poisson3d(10, 10, 10), 2, 0.3},
  };
  for (const auto& cs : cases)
    for (int variant : {0, 1, 2}) {  // serial; icolor 1 (parallel rcol); icolor 2 (threaded graph)
      SCOPED_TRACE(std::string(cs.name) + " variant " + std::to_string(variant));
      omp_set_num_threads(variant == 0 ? 1 : 2);
      kornlt::prm().icolor_omp = variant == 0 ? 0 : variant;
      Level lv = sorted_level(cs.M);
      LevelView L = lv.view();
      const SelectionCounts c = kornlt::pcol(L, settings());
      const std::vector<int> first = lv.icg;
      int nc = c.nc, nf = c.nf;
      bool aggressive = true;
      kornlt::ReduceSettings rs;
      rs.nred = cs.nred;
      rs.nvars = c.nvars;
      rs.msg_level = -1;
      kornlt::reduce(L, rs, nc, nf, aggressive);
      ASSERT_EQ(kornlt::ierr(), 0);
      EXPECT_TRUE(aggressive);
      int n1 = 0, nm3 = 0;
      for (int i = lv.ilo; i <= lv.ihi; ++i) {
        const int s = lv.ICG(i);
        const int s0 = first[static_cast<std::size_t>(i - 1)];
        if (s0 == 1) {
          EXPECT_TRUE(s == 1 || s == -3) << i;
        } else {
          EXPECT_EQ(s, s0) << i;
        }
        n1 += s == 1;
        nm3 += s == -3;
      }
      EXPECT_EQ(nc, n1);
      EXPECT_EQ(nf, c.nf + nm3);
      EXPECT_GT(nm3, 0);
      EXPECT_LE(double(nc) / lv.n(), cs.max_ratio);
      expect_distance_two(lv);
      // The survivors are independent in the reduced graph, computed here
      // from its definition (S symmetric, so the reduced graph is too): no
      // direct coupling and fewer than nred paths of length two between them.
      for (int i = lv.ilo; i <= lv.ihi; ++i) {
        if (lv.ICG(i) != 1) continue;
        std::map<int, int> paths;
        for (int j : lv.Sof(i)) {
          EXPECT_NE(lv.ICG(j), 1) << i << " - " << j;
          for (int l : lv.Sof(j))
            if (l != i) ++paths[l];
        }
        for (auto [l, cnt] : paths)
          if (lv.ICG(l) == 1) { EXPECT_LT(cnt, cs.nred) << i << " - " << l; }
      }
    }
}

TEST_F(Coarsen, ReduceRepeatableOnTwoThreads) {
  omp_set_num_threads(2);
  for (int ic : {1, 2}) {
    kornlt::prm().icolor_omp = ic;
    std::vector<int> first;
    for (int run = 0; run < 20; ++run) {
      Level lv = sorted_level(poisson2d(40, 30));
      LevelView L = lv.view();
      const SelectionCounts c = kornlt::pcol(L, settings());
      int nc = c.nc, nf = c.nf;
      bool aggressive = true;
      kornlt::ReduceSettings rs;
      rs.nred = 2;
      rs.nvars = c.nvars;
      rs.msg_level = -1;
      kornlt::reduce(L, rs, nc, nf, aggressive);
      if (run == 0)
        first = lv.icg;
      else
        ASSERT_EQ(lv.icg, first) << "icolor " << ic << " run " << run;
    }
  }
}

TEST_F(Coarsen, ReduceMessagesAndSkips) {
  // Fewer than 6 C-variables.
  {
    MessageCapture cap;
    Level lv = sorted_level(poisson2d(4, 2));
    LevelView L = lv.view();
    const SelectionCounts c = kornlt::pcol_serial(L, settings());
    ASSERT_LT(c.nc, 6);
    const std::vector<int> before = lv.icg;
    int nc = c.nc, nf = c.nf;
    bool aggressive = true;
    kornlt::ReduceSettings rs;
    rs.nred = 3;
    kornlt::reduce(L, rs, nc, nf, aggressive);
    EXPECT_FALSE(aggressive);
    EXPECT_EQ(lv.icg, before);
    EXPECT_NE(cap.text().find(">>> MESSG: reduc(3):      aggressive coarsening skipped (low # C-variables)"),
              std::string::npos)
        << cap.text();
  }
  // Six pairs: six C-variables with no path between them.
  {
    MessageCapture cap;
    Level lv = graph_level(undirected(12, {{1, 2}, {3, 4}, {5, 6}, {7, 8}, {9, 10}, {11, 12}}));
    LevelView L = lv.view();
    const SelectionCounts c = kornlt::pcol_serial(L, settings());
    ASSERT_EQ(c.nc, 6);
    const std::vector<int> before = lv.icg;
    int nc = c.nc, nf = c.nf;
    bool aggressive = true;
    kornlt::ReduceSettings rs;
    rs.nred = 1;
    kornlt::reduce(L, rs, nc, nf, aggressive);
    EXPECT_EQ(kornlt::ierr(), 0);
    EXPECT_FALSE(aggressive);
    EXPECT_EQ(lv.icg, before);
    EXPECT_EQ(nc, 6);
    EXPECT_NE(cap.text().find(">>> MESSG: reduc(1):      +++ no aggressive coarsening possible"), std::string::npos)
        << cap.text();
  }
  // The ratio line: a 2D grid.
  {
    MessageCapture cap;
    Level lv = sorted_level(poisson2d(12, 12));
    LevelView L = lv.view();
    const SelectionCounts c = kornlt::pcol_serial(L, settings());
    int nc = c.nc, nf = c.nf;
    bool aggressive = true;
    kornlt::ReduceSettings rs;
    rs.nred = 1;
    rs.nvars = c.nvars;
    kornlt::reduce(L, rs, nc, nf, aggressive);
    char line[80];
    std::snprintf(line, sizeof line, ">>> MESSG: reduc(1):      gratio= %6.4f", double(nc) / 144);
    EXPECT_NE(cap.text().find(line), std::string::npos) << cap.text();
  }
}

TEST_F(Coarsen, RcolWithoutLinks) {
  kornlt::ReducedGraph g;
  g.nc = 2;
  g.iaa = {1, 2, 3};
  g.jaa = {0, 0};
  g.cvar = {1, 2};
  std::vector<int> icgg;
  MessageCapture cap;
  kornlt::rcol(g, icgg, 1, 1);
  EXPECT_EQ(kornlt::ierr(), 120);
  EXPECT_NE(cap.text().find("*** ERROR: No strong connections found (rcol)"), std::string::npos) << cap.text();
}

// rcol by hand: a chain of reduced rows 1-2-3 and a row 4 without links.
TEST_F(Coarsen, RcolHandCase) {
  kornlt::ReducedGraph g;
  g.nc = 4;
  // row 1: {2}; row 2: {1, 3}; row 3: {2}; row 4: none
  g.iaa = {1, 3, 6, 8, 9};
  g.jaa = {2, 2, 5, 1, 3, 7, 2, 0};
  g.cvar = {1, 2, 3, 4};
  g.nlinks = 4;
  // Serial: 2 (measure 2) first, 1 and 3 turn F; 4 has no links: C.
  std::vector<int> icgg;
  SelectionCounts c = kornlt::rcol(g, icgg, 1, 1);
  EXPECT_EQ(kornlt::ierr(), 0);
  EXPECT_EQ(icgg, (std::vector<int>{-1, 1, -1, 1}));
  EXPECT_EQ(c.nc, 2);
  EXPECT_EQ(c.nf, 2);
  EXPECT_EQ(c.nfc, 1);
  // Two blocks: a valid split with consistent counters.
  c = kornlt::rcol(g, icgg, 1, 2);
  EXPECT_EQ(kornlt::ierr(), 0);
  const std::vector<std::vector<int>> links = {{2}, {1, 3}, {2}, {}};
  int nc = 0;
  for (int r = 1; r <= 4; ++r) {
    const int s = icgg[static_cast<std::size_t>(r - 1)];
    ASSERT_TRUE(s == 1 || s == -1) << r;
    nc += s == 1;
    bool has_c = false;
    for (int l : links[static_cast<std::size_t>(r - 1)]) {
      has_c = has_c || icgg[static_cast<std::size_t>(l - 1)] == 1;
      if (s == 1) { EXPECT_NE(icgg[static_cast<std::size_t>(l - 1)], 1) << r << " - " << l; }
    }
    if (s == -1) { EXPECT_TRUE(has_c) << r; }
  }
  EXPECT_EQ(icgg[3], 1);
  EXPECT_EQ(c.nc, nc);
  EXPECT_EQ(c.nf, 4 - nc);
}

// ===========================================================================
// Reduction test and split
// ===========================================================================

TEST_F(Coarsen, ReductionTest) {
  struct Case {
    double r;
    int too_slow;
    bool one_shot;
    bool stop;
    int code;
    std::string text;  // "" for no message
  };
  const std::vector<Case> cases = {
      {0.74, -1, false, false, 0, ""},
      {0.75, -1, false, false, 0, "+++ WARNG: Inefficient coarsening! (split_3)"},
      {0.8999, -1, false, false, 0, "+++ WARNG: Inefficient coarsening! (split_3)"},
      {0.9, -1, false, true, -130, "+++ WARNG: Coarsening terminated: inefficient grid reduction! (split_3)"},
      {0.3, 2, false, true, 0, ">>> MESSG: coarsening too slow enforced! (split_3)"},
      {0.3, 3, false, false, 0, ""},
      {0.95, -1, true, true, 0, ""},
  };
  for (const auto& cs : cases) {
    SCOPED_TRACE(cs.r);
    kornlt::ierr() = 0;
    kornlt::prm().lev_coarsening_too_slow = cs.too_slow;
    kornlt::ReductionFlags f;
    f.inefficient_armed = true;
    f.one_shot_stop = cs.one_shot;
    MessageCapture cap;
    EXPECT_EQ(kornlt::reduction_test(2, cs.r, "(split_3)", f), cs.stop);
    EXPECT_EQ(kornlt::ierr(), cs.code);
    EXPECT_FALSE(f.one_shot_stop);
    if (cs.text.empty())
      EXPECT_EQ(cap.text(), "");
    else
      EXPECT_NE(cap.text().find(cs.text), std::string::npos) << cap.text();
  }
  // "Inefficient coarsening!" once per level.
  kornlt::prm().lev_coarsening_too_slow = -1;
  kornlt::ReductionFlags f;
  f.inefficient_armed = true;
  MessageCapture cap;
  kornlt::reduction_test(1, 0.8, "(split_3)", f);
  kornlt::reduction_test(1, 0.8, "(driver_int_2)", f);
  EXPECT_NE(cap.text().find("Inefficient coarsening! (split_3)"), std::string::npos);
  EXPECT_EQ(cap.text().find("Inefficient coarsening! (driver_int_2)"), std::string::npos);
}

// A level of k preset C-variables (rows that cannot be treated) and p
// independent pairs (one C, one F each).
Level presets_and_pairs(int k, int p) {
  std::vector<std::vector<int>> s(static_cast<std::size_t>(k + 2 * p));
  std::vector<int> cls(static_cast<std::size_t>(k), kCannotTreat);
  for (int q = 0; q < p; ++q) {
    const int u = k + 2 * q + 1;
    s[static_cast<std::size_t>(u - 1)] = {u + 1};
    s[static_cast<std::size_t>(u)] = {u};
    cls.push_back(kNormal);
    cls.push_back(kNormal);
  }
  return graph_level(s, cls);
}

TEST_F(Coarsen, SplitChecks) {
  struct Case {
    const char* name;
    int presets, pairs;  // level of presets_and_pairs, or grid when pairs < 0
    int grid;
    int npcol, nptmn, nptmax, too_slow, nrc;
    bool stop;
    int code;
    int nrc_after;
    std::string text;
  };
  const std::vector<Case> cases = {
      {"two C", 0, 2, 0, 0, 2, 1500, -1, 7, true, 0, 7,
       ">>> Coarsening stopped: less than 3 C-variables (including FC)"},
      {"two F", 4, 2, 0, 0, 2, 1500, -1, 7, true, 0, 7,
       ">>> Coarsening stopped: less than 3 F-variables (not including FF)"},
      {"low # C", 0, -1, 10, 0, 100, 1500, -1, 7, true, 0, 7, ">>> Coarsening stopped: low # C-variables"},
      {"low # C but large level", 0, -1, 10, 0, 100, 50, -1, 7, false, 0, 7, ""},
      {"ratio 0.95", 54, 3, 0, 0, 2, 1500, -1, 7, true, -130, 7,
       "+++ WARNG: Coarsening terminated: inefficient grid reduction! (split_3)"},
      {"ratio 0.95, large level", 54, 3, 0, 0, 2, 20, -1, 8, true, -130, 3,
       "+++ WARNG: Coarsening terminated: inefficient grid reduction! (split_3)"},
      {"ratio 0.95, large level, nrc 12", 54, 3, 0, 0, 2, 20, -1, 12, true, -130, 12,
       "+++ WARNG: Coarsening terminated: inefficient grid reduction! (split_3)"},
      {"ratio 0.86", 27, 5, 0, 0, 2, 1500, -1, 7, false, 0, 7, "+++ WARNG: Inefficient coarsening! (split_3)"},
      {"enforced", 0, -1, 10, 0, 2, 50, 1, 6, true, 0, 3, ">>> MESSG: coarsening too slow enforced! (split_3)"},
      {"enforced, small level", 0, -1, 10, 0, 2, 1500, 1, 6, true, 0, 6, "coarsening too slow enforced!"},
      // each F of a pair is coupled to its C partner only: nothing to force
      {"cforce leaves F", 4, 3, 0, 1, 2, 1500, -1, 7, false, 0, 7, "cforce(1):     # vars -> C: 0"},
  };
  for (const auto& cs : cases) {
    SCOPED_TRACE(cs.name);
    kornlt::ierr() = 0;
    kornlt::prm().nptmax = cs.nptmax;
    kornlt::prm().lev_coarsening_too_slow = cs.too_slow;
    Level lv = cs.pairs >= 0 ? presets_and_pairs(cs.presets, cs.pairs) : sorted_level(poisson2d(cs.grid, cs.grid));
    LevelView L = lv.view();
    kornlt::SplitSettings s;
    s.npcol = cs.npcol;
    s.nptmn = cs.nptmn;
    s.nrc = cs.nrc;
    MessageCapture cap;
    const kornlt::SplitResult r = kornlt::split(L, s);
    EXPECT_EQ(r.stop, cs.stop);
    EXPECT_EQ(kornlt::ierr(), cs.code);
    EXPECT_EQ(r.nrc, cs.nrc_after);
    int nc = 0, nf = 0;
    for (int v : lv.icg) {
      nc += v > 0;
      nf += v < 0;
    }
    EXPECT_EQ(r.nc, nc);
    EXPECT_EQ(r.nf, nf);
    if (!cs.text.empty()) { EXPECT_NE(cap.text().find(cs.text), std::string::npos) << cap.text(); }
  }
}

// cforce turning F-variables C so that fewer than 3 F remain: the F check
// runs again. Four strongly coupled pairs (the higher index C); the F rows
// 1, 3, 5, 7 carry weak couplings -10 to the next F row (1->3->5->7->1)
// against diagonal 4. In rising order 1, 3, 5 turn C; 7 then sees only C.
TEST_F(Coarsen, SplitRechecksFAfterCforce) {
  std::vector<std::vector<int>> st(8), wk(8);
  std::vector<std::vector<double>> sv(8), wv(8);
  for (int q = 0; q < 4; ++q) {
    const int u = 2 * q + 1;
    const auto su = static_cast<std::size_t>(u);
    st[su - 1] = {u + 1};
    st[su] = {u};
    sv[su - 1] = {-1.0};
    sv[su] = {-1.0};
    wk[su - 1] = {u + 2 > 8 ? 1 : u + 2};
    wv[su - 1] = {-10.0};
  }
  for (int npcol : {0, 1}) {
    SCOPED_TRACE(npcol);
    Level lv = build_level(8, st, wk, std::vector<int>(8, kNormal), sv, wv, std::vector<double>(8, 4.0), 0, 0);
    LevelView L = lv.view();
    kornlt::SplitSettings s;
    s.nptmn = 1;
    s.npcol = npcol;
    MessageCapture cap;
    const kornlt::SplitResult r = kornlt::split(L, s);
    if (npcol == 0) {
      EXPECT_FALSE(r.stop);
      EXPECT_EQ(r.nc, 4);
      EXPECT_EQ(r.nf, 4);
      EXPECT_EQ(cap.text().find("Coarsening stopped"), std::string::npos);
    } else {
      EXPECT_TRUE(r.stop);
      EXPECT_EQ(r.nc, 7);
      EXPECT_EQ(r.nf, 1);
      EXPECT_EQ(lv.icg, (std::vector<int>{1, 1, 1, 1, 1, 1, -1, 1}));
      EXPECT_NE(cap.text().find("cforce(1):     # vars -> C: 3"), std::string::npos) << cap.text();
      EXPECT_NE(cap.text().find(">>> Coarsening stopped: less than 3 F-variables (not including FF)"),
                std::string::npos)
          << cap.text();
    }
  }
}

TEST_F(Coarsen, SplitAggressiveAndErrors) {
  // Aggressive level: -3 variables, ratio well below the standard one.
  {
    Level lv = sorted_level(poisson2d(20, 20));
    LevelView L = lv.view();
    kornlt::SplitSettings s;
    s.aggressive = true;
    s.nred = 1;
    s.nptmn = 5;
    s.msg_level = -1;
    const kornlt::SplitResult r = kornlt::split(L, s);
    EXPECT_FALSE(r.stop);
    EXPECT_TRUE(r.aggressive);
    EXPECT_LT(double(r.nc) / 400, 0.3);
    EXPECT_EQ(r.nc, static_cast<int>(c_set(lv).size()));
    EXPECT_GT(std::count(lv.icg.begin(), lv.icg.end(), -3), 0);
    expect_distance_two(lv);
  }
  // Aggressive level with too few C-variables: the flag drops.
  {
    Level lv = sorted_level(poisson2d(4, 2));
    LevelView L = lv.view();
    kornlt::SplitSettings s;
    s.aggressive = true;
    s.nred = 1;
    s.nptmn = 1;
    s.msg_level = -1;
    const kornlt::SplitResult r = kornlt::split(L, s);
    EXPECT_FALSE(r.aggressive);
  }
  struct Case {
    const char* name;
    bool cluster;
    int nstyp, internal;
    int code;
    std::string text;
  };
  for (const auto& cs : std::vector<Case>{
           {"cluster", true, 1, 0, 80, "*** ERROR: Cluster coarsening is not available in this build (split)"},
           {"nstyp 2", false, 2, 0, 20, "*** ERROR: Incorrect INTERNAL setting: (only internal=0 possible) !"},
           {"internal 1", false, 1, 1, 20, "*** ERROR: Incorrect INTERNAL setting: (only internal=0 possible) !"},
       }) {
    SCOPED_TRACE(cs.name);
    kornlt::ierr() = 0;
    Level lv = sorted_level(poisson2d(6, 6));
    LevelView L = lv.view();
    kornlt::SplitSettings s;
    s.cluster = cs.cluster;
    s.nstyp = cs.nstyp;
    s.internal = cs.internal;
    MessageCapture cap;
    kornlt::split(L, s);
    EXPECT_EQ(kornlt::ierr(), cs.code);
    EXPECT_NE(cap.text().find(cs.text), std::string::npos) << cap.text();
  }
}

// The level loop's flags: "Inefficient coarsening!" once per level.
TEST_F(Coarsen, SplitInefficientOncePerLevel) {
  kornlt::ReductionFlags flags;
  flags.inefficient_armed = true;
  MessageCapture cap;
  for (int rep = 0; rep < 2; ++rep) {
    Level lv = presets_and_pairs(27, 5);
    LevelView L = lv.view();
    kornlt::SplitSettings s;
    s.nptmn = 2;
    s.flags = &flags;
    kornlt::split(L, s);
  }
  const std::string t = cap.text();
  const auto first = t.find("Inefficient coarsening! (split_3)");
  ASSERT_NE(first, std::string::npos);
  EXPECT_EQ(t.find("Inefficient coarsening! (split_3)", first + 1), std::string::npos);
}

}  // namespace
