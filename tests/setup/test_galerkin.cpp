// Tests of the Galerkin coarse operators: the numbering of a coarse level,
// the product of every variant against a dense P^T A P computed here and
// against a pattern built from the structural definition, bitwise agreement
// of the threaded and row-length variants with the serial product, growth of
// the arrays, the repair of non-positive diagonals (correct_f, correct_w, the
// restart rules and their messages), the truncation, the recomputation with
// a kept interpolation and the re-anchoring behind a new level-1 matrix.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
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

using namespace kornlt;
using Row = std::map<int, double>;  // column -> value

std::size_t at(int i) { return static_cast<std::size_t>(i); }

// ---------------------------------------------------------------------------
// Test matrices: 1-based CSR content with local indices, diagonal first.
// ---------------------------------------------------------------------------
struct Csr {
  int n = 0;
  std::vector<int> ia{1}, ja;
  std::vector<double> a;
  void add_row(double diag, const std::vector<std::pair<int, double>>& off) {
    ++n;
    ja.push_back(n);
    a.push_back(diag);
    for (auto [j, v] : off) {
      ja.push_back(j);
      a.push_back(v);
    }
    ia.push_back(static_cast<int>(ja.size()) + 1);
  }
  int nna() const { return ia.back() - 1; }
};

Csr poisson2d(int nx, int ny) {
  Csr A;
  auto id = [&](int x, int y) { return 1 + x + nx * y; };
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      std::vector<std::pair<int, double>> off;
      if (y > 0) off.push_back({id(x, y - 1), -1.0});
      if (x > 0) off.push_back({id(x - 1, y), -1.0});
      if (x < nx - 1) off.push_back({id(x + 1, y), -1.0});
      if (y < ny - 1) off.push_back({id(x, y + 1), -1.0});
      A.add_row(4.0, off);
    }
  return A;
}

Csr poisson3d(int m) {
  Csr A;
  auto id = [&](int x, int y, int z) { return 1 + x + m * (y + m * z); };
  for (int z = 0; z < m; ++z)
    for (int y = 0; y < m; ++y)
      for (int x = 0; x < m; ++x) {
        std::vector<std::pair<int, double>> off;
        if (z > 0) off.push_back({id(x, y, z - 1), -1.0});
        if (y > 0) off.push_back({id(x, y - 1, z), -1.0});
        if (x > 0) off.push_back({id(x - 1, y, z), -1.0});
        if (x < m - 1) off.push_back({id(x + 1, y, z), -1.0});
        if (y < m - 1) off.push_back({id(x, y + 1, z), -1.0});
        if (z < m - 1) off.push_back({id(x, y, z + 1), -1.0});
        A.add_row(6.0, off);
      }
  return A;
}

// Upwind convection-diffusion on nx x ny: non-symmetric values.
Csr convection2d(int nx, int ny) {
  Csr A;
  auto id = [&](int x, int y) { return 1 + x + nx * y; };
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      std::vector<std::pair<int, double>> off;
      if (y > 0) off.push_back({id(x, y - 1), -1.0});
      if (x > 0) off.push_back({id(x - 1, y), -3.5});
      if (x < nx - 1) off.push_back({id(x + 1, y), -0.5});
      if (y < ny - 1) off.push_back({id(x, y + 1), -1.25});
      A.add_row(6.25, off);
    }
  return A;
}

// Random symmetric-pattern M-matrix (with_zeros: some couplings stored as
// explicit zeros, on one side only).
Csr random_mmatrix(int n, unsigned seed, int degree, bool with_zeros) {
  std::mt19937 gen(seed);
  std::uniform_int_distribution<int> pick(1, n);
  std::uniform_real_distribution<double> val(0.1, 1.0);
  std::vector<std::map<int, double>> rows(at(n + 1));
  for (int i = 1; i <= n; ++i)
    for (int d = 0; d < degree / 2; ++d) {
      const int j = pick(gen);
      if (j == i) continue;
      const double v = -val(gen);
      rows[at(i)][j] = v;
      rows[at(j)][i] = v;
    }
  std::uniform_int_distribution<int> coin(0, 6);
  if (with_zeros)
    for (int i = 1; i <= n; ++i)
      for (auto& [j, v] : rows[at(i)])
        if (j > i && coin(gen) == 0) v = 0.0;
  Csr A;
  for (int i = 1; i <= n; ++i) {
    double s = 0.0;
    std::vector<std::pair<int, double>> off;
    for (auto [j, v] : rows[at(i)]) {
      s -= v;
      off.push_back({j, v});
    }
    A.add_row(s + 0.5, off);
  }
  return A;
}

// ---------------------------------------------------------------------------
// Splittings and interpolations written here.
// ---------------------------------------------------------------------------
using PRows = std::vector<std::vector<std::pair<int, double>>>;  // [i] -> (fine column, weight), 1-based

// Greedy C/F split: a row becomes C unless a neighbour already is C (in the
// order given), so every F-row has a C-neighbour.
std::vector<int> greedy_split(const Csr& A) {
  std::vector<int> icg(at(A.n + 1), 0);
  for (int i = 1; i <= A.n; ++i) {
    bool has_c = false;
    for (int p = A.ia[at(i - 1)] + 1; p < A.ia[at(i)]; ++p) has_c = has_c || icg[at(A.ja[at(p - 1)])] == 1;
    icg[at(i)] = has_c ? -1 : 1;
  }
  return icg;
}

// Direct interpolation: w_ij = -alpha a_ij / a_ii over the C-neighbours j,
// alpha the ratio of all off-diagonals to the C ones. C rows are unit rows,
// FF rows (icg 0) empty.
PRows direct_interpolation(const Csr& A, const std::vector<int>& icg) {
  PRows P(at(A.n + 1));
  for (int i = 1; i <= A.n; ++i) {
    if (icg[at(i)] > 0) {
      P[at(i)].push_back({i, 1.0});
      continue;
    }
    if (icg[at(i)] == 0) continue;
    double all = 0.0, csum = 0.0;
    const int p0 = A.ia[at(i - 1)], p1 = A.ia[at(i)];
    for (int p = p0 + 1; p < p1; ++p) {
      all += A.a[at(p - 1)];
      if (icg[at(A.ja[at(p - 1)])] > 0) csum += A.a[at(p - 1)];
    }
    const double alpha = csum != 0.0 ? all / csum : 1.0;
    for (int p = p0 + 1; p < p1; ++p) {
      const int j = A.ja[at(p - 1)];
      if (icg[at(j)] > 0) P[at(i)].push_back({j, -alpha * A.a[at(p - 1)] / A.a[at(p0 - 1)]});
    }
  }
  return P;
}

// Random weights over the C-variables at distance one and two.
PRows random_interpolation(const Csr& A, const std::vector<int>& icg, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<double> val(0.05, 0.7);
  PRows P(at(A.n + 1));
  for (int i = 1; i <= A.n; ++i) {
    if (icg[at(i)] > 0) {
      P[at(i)].push_back({i, 1.0});
      continue;
    }
    if (icg[at(i)] == 0) continue;
    std::set<int> cs;
    for (int p = A.ia[at(i - 1)] + 1; p < A.ia[at(i)]; ++p) {
      const int j = A.ja[at(p - 1)];
      if (icg[at(j)] > 0) cs.insert(j);
      for (int q = A.ia[at(j - 1)] + 1; q < A.ia[at(j)]; ++q) {
        const int l = A.ja[at(q - 1)];
        if (icg[at(l)] > 0 && (i + l) % 3 == 0) cs.insert(l);
      }
    }
    for (int j : cs) P[at(i)].push_back({j, val(gen)});
  }
  return P;
}

// Coarse index (0-based) of each C-variable: rising fine index.
std::vector<int> coarse_numbers(const std::vector<int>& icg) {
  std::vector<int> cn(icg.size(), -1);
  int c = 0;
  for (std::size_t i = 1; i < icg.size(); ++i)
    if (icg[i] > 0) cn[i] = c++;
  return cn;
}

// ---------------------------------------------------------------------------
// References: dense P^T A P, and the pattern from the definition.
// ---------------------------------------------------------------------------
std::vector<std::vector<double>> dense_galerkin(const Csr& A, const std::vector<int>& icg, const PRows& P) {
  const std::vector<int> cn = coarse_numbers(icg);
  int nc = 0;
  for (int v : cn) nc = std::max(nc, v + 1);
  const int n = A.n;
  std::vector<std::vector<double>> Ad(at(n), std::vector<double>(at(n), 0.0));
  for (int i = 1; i <= n; ++i)
    for (int p = A.ia[at(i - 1)]; p < A.ia[at(i)]; ++p) Ad[at(i - 1)][at(A.ja[at(p - 1)] - 1)] += A.a[at(p - 1)];
  std::vector<std::vector<double>> Pd(at(n), std::vector<double>(at(nc), 0.0));
  for (int i = 1; i <= n; ++i)
    for (auto [j, w] : P[at(i)]) Pd[at(i - 1)][at(cn[at(j)])] += w;
  std::vector<std::vector<double>> AP(at(n), std::vector<double>(at(nc), 0.0));
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j)
      if (Ad[at(i)][at(j)] != 0.0)
        for (int c = 0; c < nc; ++c) AP[at(i)][at(c)] += Ad[at(i)][at(j)] * Pd[at(j)][at(c)];
  std::vector<std::vector<double>> Ac(at(nc), std::vector<double>(at(nc), 0.0));
  for (int i = 0; i < n; ++i)
    for (int c = 0; c < nc; ++c)
      if (Pd[at(i)][at(c)] != 0.0)
        for (int l = 0; l < nc; ++l) Ac[at(c)][at(l)] += Pd[at(i)][at(c)] * AP[at(i)][at(l)];
  return Ac;
}

// Coarse (0-based) columns of each coarse row: the diagonal, and l whenever
// P_ic, a_ij and P_jl are stored with P_ic * a_ij != 0 (or mult_zeros).
std::vector<std::set<int>> pattern_reference(const Csr& A, const std::vector<int>& icg, const PRows& P,
                                             bool mult_zeros) {
  const std::vector<int> cn = coarse_numbers(icg);
  int nc = 0;
  for (int v : cn) nc = std::max(nc, v + 1);
  std::vector<std::set<int>> pat(at(nc));
  for (int c = 0; c < nc; ++c) pat[at(c)].insert(c);
  for (int i = 1; i <= A.n; ++i)
    for (auto [ci, t] : P[at(i)])
      for (int p = A.ia[at(i - 1)]; p < A.ia[at(i)]; ++p) {
        if (!mult_zeros && t * A.a[at(p - 1)] == 0.0) continue;
        const int j = A.ja[at(p - 1)];
        for (auto [l, wl] : P[at(j)]) pat[at(cn[at(ci)])].insert(cn[at(l)]);
      }
  return pat;
}

// ---------------------------------------------------------------------------
// The store of a test: level 1 bound to a Csr, icg and P written in.
// ---------------------------------------------------------------------------
struct Hierarchy {
  Csr A;
  std::vector<double> u, f;
  // Fresh store with level 1 = A, split icg and interpolation P (fine
  // indices). nda_extra: room of a beyond level 1; ndu: dimension of the
  // variable arrays (0: twice nnu).
  void load(const std::vector<int>& icg, const PRows& P, int nda_extra, int ndu = 0) {
    u_dealloc();
    a_dealloc();
    w_dealloc();
    StoreState& st = store();
    st = StoreState{};
    u.assign(at(A.n), 0.0);
    f.assign(at(A.n), 0.0);
    bind_level1(A.n, A.ia.data(), A.ja.data(), A.a.data(), u.data(), f.data());
    st.imin[1] = 1;
    st.imax[1] = A.n;
    st.nda = A.nna() + nda_extra;
    st.ndu = ndu > 0 ? ndu : 2 * A.n;
    st.ndw = 20 * A.n + 100;
    u_alloc(1, A.n, st.ndu);
    u_alloc(2, A.n, st.ndu);
    w_alloc(st.ndw);
    ASSERT_FALSE(failed());
    for (int i = 1; i <= A.n; ++i) st.icg[at(i - 1)] = icg[at(i)];
    write_interpolation(1, A.n, P, 0);
  }
  // Rows ilo..ihi of P (local row r = i - ilo + 1, columns local + shift)
  // written behind what iw(ilo) says.
  static void write_interpolation(int ilo, int ihi, const PRows& P, int shift) {
    StoreState& st = store();
    if (ilo == 1) st.iw[0] = 1;
    int pos = st.iw[at(ilo - 1)];
    for (int i = ilo; i <= ihi; ++i) {
      for (auto [j, w] : P[at(i - ilo + 1)]) {
        st.jw[at(pos - 1)] = j + shift;
        st.w[at(pos - 1)] = w;
        ++pos;
      }
      st.iw[at(i)] = pos;
    }
  }
};

// Level k of the store as rows of local (0-based) coarse columns; checks the
// diagonal-first convention and that no column repeats.
std::vector<Row> level_rows(int k) {
  const LevelView L = level_view(k);
  std::vector<Row> rows(at(L.nrows()));
  for (int i = L.ilo; i <= L.ihi; ++i) {
    EXPECT_EQ(L.ja(L.ia(i)), i) << "diagonal not first in row " << i;
    Row& r = rows[at(i - L.ilo)];
    for (int p = L.ia(i); p < L.ia(i + 1); ++p) {
      const int j = L.ja(p);
      EXPECT_TRUE(j >= L.ilo && j <= L.ihi) << "column out of level in row " << i;
      EXPECT_EQ(r.count(j - L.ilo), 0u) << "repeated column in row " << i;
      r[j - L.ilo] = L.a(p);
    }
  }
  return rows;
}

// Level k as a local CSR (same entry order).
Csr level_csr(int k) {
  const LevelView L = level_view(k);
  Csr C;
  for (int i = L.ilo; i <= L.ihi; ++i) {
    std::vector<std::pair<int, double>> off;
    for (int p = L.ia(i) + 1; p < L.ia(i + 1); ++p) off.push_back({L.ja(p) - L.ilo + 1, L.a(p)});
    C.add_row(L.a(L.ia(i)), off);
  }
  return C;
}

// The raw arrays of level k, for bitwise comparisons.
struct Raw {
  std::vector<int> ia, ja;
  std::vector<double> a;
  bool operator==(const Raw&) const = default;
};
Raw raw_level(int k) {
  const LevelView L = level_view(k);
  Raw r;
  for (int i = L.ilo; i <= L.ihi + 1; ++i) r.ia.push_back(L.ia(i));
  for (int p = L.ia(L.ilo); p < L.ia(L.ihi + 1); ++p) {
    r.ja.push_back(L.ja(p));
    r.a.push_back(L.a(p));
  }
  return r;
}

void expect_matches(const std::vector<Row>& got, const std::vector<std::vector<double>>& dense,
                    const std::vector<std::set<int>>& pattern, const std::string& what) {
  ASSERT_EQ(got.size(), dense.size()) << what;
  ASSERT_EQ(got.size(), pattern.size()) << what;
  double scale = 0.0;
  for (const auto& r : dense)
    for (double v : r) scale = std::max(scale, std::abs(v));
  for (std::size_t c = 0; c < got.size(); ++c) {
    std::set<int> cols;
    for (auto [l, v] : got[c]) cols.insert(l);
    EXPECT_EQ(cols, pattern[c]) << what << ": pattern of coarse row " << c;
    for (std::size_t l = 0; l < dense[c].size(); ++l) {
      const auto it = got[c].find(static_cast<int>(l));
      const double v = it == got[c].end() ? 0.0 : it->second;
      EXPECT_NEAR(v, dense[c][l], 1e-12 * std::max(1.0, scale)) << what << ": entry " << c << "," << l;
    }
  }
}

GalerkinSettings settings(int nntyp, bool mult_zeros) {
  GalerkinSettings s;
  s.nntyp = nntyp;
  s.mult_zeros = mult_zeros;
  s.msg_level = -1;
  return s;
}

struct Case {
  std::string name;
  Csr A;
  std::vector<int> icg;
  PRows P;
};

std::vector<Case> cases() {
  std::vector<Case> cs;
  {
    Csr A = poisson2d(11, 10);
    std::vector<int> icg = greedy_split(A);
    cs.push_back({"poisson2d direct", A, icg, direct_interpolation(A, icg)});
  }
  {
    Csr A = poisson3d(5);
    std::vector<int> icg = greedy_split(A);
    cs.push_back({"poisson3d direct", A, icg, direct_interpolation(A, icg)});
  }
  {
    Csr A = random_mmatrix(160, 5u, 8, false);
    std::vector<int> icg = greedy_split(A);
    cs.push_back({"random M-matrix, distance-two weights", A, icg, random_interpolation(A, icg, 9u)});
  }
  {
    Csr A = random_mmatrix(140, 17u, 10, true);
    std::vector<int> icg = greedy_split(A);
    cs.push_back({"random M-matrix with explicit zeros", A, icg, random_interpolation(A, icg, 3u)});
  }
  {
    Csr A = convection2d(12, 9);
    std::vector<int> icg = greedy_split(A);
    cs.push_back({"convection-diffusion direct", A, icg, direct_interpolation(A, icg)});
  }
  {
    // forced-fine variables: empty rows of P, no coarse contribution
    Csr A = poisson2d(10, 9);
    std::vector<int> icg = greedy_split(A);
    for (int i = 4; i <= A.n; i += 7)
      if (icg[at(i)] < 0) icg[at(i)] = kIcgFF;
    cs.push_back({"poisson2d with FF", A, icg, direct_interpolation(A, icg)});
  }
  return cs;
}

class GalerkinTest : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_ = prm();
    saved_input_ = input();
    input().dump_level = -1;  // no growth reports
    input().iextent = 2;
    omp_set_num_threads(1);
    ierr() = 0;
  }
  void TearDown() override {
    prm() = saved_;
    input() = saved_input_;
    omp_set_num_threads(1);
    ierr() = 0;
  }
  Params saved_;
  Input saved_input_;
};

// ---------------------------------------------------------------------------
// Numbering
// ---------------------------------------------------------------------------
TEST_F(GalerkinTest, PrepareNumbersTheLevelAndRewritesInterpolation) {
  for (int ndu_small : {0, 1}) {
    Hierarchy h;
    h.A = poisson2d(7, 6);
    const std::vector<int> icg = greedy_split(h.A);
    const PRows P = direct_interpolation(h.A, icg);
    h.load(icg, P, 50, ndu_small ? h.A.n : 0);
    // strong ends in the diagonal slots, as the row sort leaves them
    for (int i = 1; i <= h.A.n; i += 3) h.A.ja[at(h.A.ia[at(i - 1)] - 1)] = h.A.ia[at(i - 1)] + 1;
    const std::int64_t memi0 = store().memi;
    prepare_opdfn(2);
    ASSERT_FALSE(failed());
    const StoreState& st = store();
    int nc = 0;
    for (int i = 1; i <= h.A.n; ++i) nc += icg[at(i)] > 0;
    EXPECT_EQ(st.imin[2], h.A.n + 1);
    EXPECT_EQ(st.imax[2], h.A.n + nc);
    EXPECT_GE(st.ndu, st.imax[2]);
    EXPECT_GT(st.memi, memi0);
    EXPECT_EQ(st.ia[0], h.A.nna() + 1) << "stacked ia(nnu+1)";
    for (int i = 1; i <= h.A.n; ++i) EXPECT_EQ(h.A.ja[at(h.A.ia[at(i - 1)] - 1)], i) << "diagonal slot " << i;
    const std::vector<int> cn = coarse_numbers(icg);
    for (int i = 1; i <= h.A.n; ++i) {
      const int want = icg[at(i)] > 0 ? h.A.n + 1 + cn[at(i)] : icg[at(i)];
      EXPECT_EQ(st.icg[at(i - 1)], want) << "icg of " << i;
      int pos = st.iw[at(i - 1)];
      for (auto [j, w] : P[at(i)]) {
        EXPECT_EQ(st.jw[at(pos - 1)], h.A.n + 1 + cn[at(j)]) << "row " << i;
        EXPECT_EQ(st.w[at(pos - 1)], w);
        ++pos;
      }
    }
  }
}

// ---------------------------------------------------------------------------
// The product of every variant against the references
// ---------------------------------------------------------------------------
TEST_F(GalerkinTest, EveryVariantEqualsDenseProductAndStructuralPattern) {
  for (const Case& cs : cases())
    for (int nntyp = 1; nntyp <= 6; ++nntyp)
      for (bool mult_zeros : {false, true})
        for (bool tiny : {false, true}) {
          const std::string what = cs.name + " nntyp " + std::to_string(nntyp) + (mult_zeros ? " zeros kept" : "") +
                                   (tiny ? " tiny nda" : "");
          Hierarchy h;
          h.A = cs.A;
          h.load(cs.icg, cs.P, tiny ? 3 : 40 * h.A.n, tiny ? h.A.n : 0);
          const int nda0 = store().nda;
          prepare_opdfn(2);
          ASSERT_FALSE(failed()) << what;
          const GalerkinResult r = galerkin(2, settings(nntyp, mult_zeros));
          ASSERT_FALSE(failed()) << what;
          EXPECT_EQ(r.nbad, 0) << what;
          EXPECT_EQ(r.restarts, 0) << what;
          if (tiny) {
            EXPECT_GT(store().nda, nda0) << what << ": a was not grown";
          }
          const LevelView L = level_view(2);
          EXPECT_EQ(L.ia(L.ilo), h.A.nna() + 1) << what;
          EXPECT_EQ(r.nentries, L.ia(L.ihi + 1) - L.ia(L.ilo)) << what;
          expect_matches(level_rows(2), dense_galerkin(cs.A, cs.icg, cs.P),
                         pattern_reference(cs.A, cs.icg, cs.P, mult_zeros), what);
        }
}

// Chain 1 C, 2 F, 3 C, 4 F, 5 C; a_12 is stored as an explicit zero and
// F-row 2 interpolates from 3 alone: only a kept zero product links the
// coarse variables of 1 and 3 in the row of 1.
TEST_F(GalerkinTest, ExplicitZerosChangeThePatternOnlyWhenKept) {
  Csr A;
  A.add_row(2.0, {{2, 0.0}});
  A.add_row(2.0, {{1, -1.0}, {3, -1.0}});
  A.add_row(2.0, {{2, -1.0}, {4, -1.0}});
  A.add_row(2.0, {{3, -1.0}, {5, -1.0}});
  A.add_row(2.0, {{4, -1.0}});
  const std::vector<int> icg = {0, 1, -1, 1, -1, 1};
  const PRows P = {{}, {{1, 1.0}}, {{3, 1.0}}, {{3, 1.0}}, {{3, 0.5}, {5, 0.5}}, {{5, 1.0}}};
  for (int nntyp : {1, 2, 6})
    for (bool mult_zeros : {false, true}) {
      Hierarchy h;
      h.A = A;
      h.load(icg, P, 40);
      prepare_opdfn(2);
      galerkin(2, settings(nntyp, mult_zeros));
      ASSERT_FALSE(failed());
      const std::vector<Row> rows = level_rows(2);
      EXPECT_EQ(rows[0], mult_zeros ? (Row{{0, 2.0}, {1, 0.0}}) : (Row{{0, 2.0}}));
      expect_matches(rows, dense_galerkin(A, icg, P), pattern_reference(A, icg, P, mult_zeros),
                     "nntyp " + std::to_string(nntyp));
    }
}

// Three levels: the fine level of the second product lies in the stacked
// arrays, which move when they grow.
TEST_F(GalerkinTest, ThirdLevelFromStackedFineLevelWithGrowth) {
  for (int nntyp : {1, 2, 6})
    for (bool tiny : {false, true}) {
      const std::string what = "nntyp " + std::to_string(nntyp) + (tiny ? " tiny" : "");
      const Case cs = cases()[0];
      Hierarchy h;
      h.A = cs.A;
      h.load(cs.icg, cs.P, tiny ? 2 : 40 * h.A.n, tiny ? h.A.n : 0);
      prepare_opdfn(2);
      galerkin(2, settings(nntyp, false));
      ASSERT_FALSE(failed()) << what;
      StoreState& st = store();
      if (tiny) st.nda = st.ia[at(st.imax[2] + 1 - (h.A.n + 1))] - 1;  // level 3 must grow the arrays
      const Csr A2 = level_csr(2);
      const std::vector<int> icg2 = greedy_split(A2);
      const PRows P2 = random_interpolation(A2, icg2, 21u);
      const int ilo2 = st.imin[2];
      for (int i = 1; i <= A2.n; ++i) st.icg[at(ilo2 + i - 2)] = icg2[at(i)];
      Hierarchy::write_interpolation(ilo2, st.imax[2], P2, ilo2 - 1);
      const int nda0 = st.nda;
      prepare_opdfn(3);
      ASSERT_FALSE(failed()) << what;
      const GalerkinResult r = galerkin(3, settings(nntyp, false));
      ASSERT_FALSE(failed()) << what;
      EXPECT_EQ(r.nbad, 0);
      if (tiny) {
        EXPECT_GT(store().nda, nda0) << what;
      }
      // level 2 is untouched by the growth
      const std::vector<Row> l2 = level_rows(2);
      expect_matches(l2, dense_galerkin(cs.A, cs.icg, cs.P), pattern_reference(cs.A, cs.icg, cs.P, false),
                     what + " level 2");
      expect_matches(level_rows(3), dense_galerkin(A2, icg2, P2), pattern_reference(A2, icg2, P2, false),
                     what + " level 3");
    }
}

// ---------------------------------------------------------------------------
// Threads: the same entries in the same order as the serial product
// ---------------------------------------------------------------------------
struct TwoLevels {
  Raw l2, l3;
  bool operator==(const TwoLevels&) const = default;
};

TwoLevels run_two_levels(const Case& cs, int nntyp, bool mult_zeros, bool tiny) {
  Hierarchy h;
  h.A = cs.A;
  h.load(cs.icg, cs.P, tiny ? 2 : 40 * h.A.n, tiny ? h.A.n : 0);
  prepare_opdfn(2);
  galerkin(2, settings(nntyp, mult_zeros));
  TwoLevels t;
  if (failed()) return t;
  t.l2 = raw_level(2);
  const Csr A2 = level_csr(2);
  const std::vector<int> icg2 = greedy_split(A2);
  const PRows P2 = direct_interpolation(A2, icg2);
  StoreState& st = store();
  const int ilo2 = st.imin[2];
  for (int i = 1; i <= A2.n; ++i) st.icg[at(ilo2 + i - 2)] = icg2[at(i)];
  Hierarchy::write_interpolation(ilo2, st.imax[2], P2, ilo2 - 1);
  prepare_opdfn(3);
  galerkin(3, settings(nntyp, mult_zeros));
  if (!failed()) t.l3 = raw_level(3);
  return t;
}

TEST_F(GalerkinTest, AllVariantsAreBitwiseEqualToSerialOnAnyThreadCount) {
  for (const Case& cs : cases())
    for (bool mult_zeros : {false, true}) {
      omp_set_num_threads(1);
      const TwoLevels serial = run_two_levels(cs, 1, mult_zeros, false);
      ASSERT_FALSE(failed()) << cs.name;
      ASSERT_FALSE(serial.l3.ia.empty());
      for (int threads : {1, 2})
        for (int nntyp = 2; nntyp <= 6; ++nntyp)
          for (bool tiny : {false, true}) {
            // all variants on one thread; the threaded ones on 2, repeated
            if (threads > 1 && nntyp < 4) continue;
            omp_set_num_threads(threads);
            for (int rep = 0; rep < (threads == 2 ? 2 : 1); ++rep) {
              const TwoLevels got = run_two_levels(cs, nntyp, mult_zeros, tiny);
              ASSERT_FALSE(failed());
              EXPECT_TRUE(got == serial) << cs.name << " nntyp " << nntyp << " threads " << threads
                                         << (tiny ? " tiny" : "") << " repeat " << rep;
            }
          }
    }
}

// ---------------------------------------------------------------------------
// Hand cases
// ---------------------------------------------------------------------------
// Rows with explicit couplings; P as given.
Csr hand_matrix(const std::vector<std::pair<double, std::vector<std::pair<int, double>>>>& rows) {
  Csr A;
  for (const auto& [d, off] : rows) A.add_row(d, off);
  return A;
}

TEST_F(GalerkinTest, CoarseVariableWithoutFineNeighboursKeepsItsRowOnCColumns) {
  // chain 1..7: C 1 2 3 5 7, F 4 6; variable 2 has only C neighbours and no
  // F-row interpolates from it
  Hierarchy h;
  h.A = hand_matrix({{2.0, {{2, -0.75}}},
                     {3.0, {{1, -1.25}, {3, -0.5}}},
                     {2.5, {{2, -0.25}, {4, -1.0}}},
                     {2.0, {{3, -1.0}, {5, -1.0}}},
                     {2.0, {{4, -1.0}, {6, -1.0}}},
                     {2.0, {{5, -1.0}, {7, -1.0}}},
                     {2.0, {{6, -1.0}}}});
  const std::vector<int> icg = {0, 1, 1, 1, -1, 1, -1, 1};
  const PRows P = {{}, {{1, 1.0}}, {{2, 1.0}}, {{3, 1.0}}, {{3, 0.5}, {5, 0.5}}, {{5, 1.0}}, {{5, 0.5}, {7, 0.5}}, {{7, 1.0}}};
  h.load(icg, P, 100);
  prepare_opdfn(2);
  galerkin(2, settings(1, false));
  ASSERT_FALSE(failed());
  const std::vector<Row> rows = level_rows(2);
  EXPECT_EQ(rows[1], (Row{{1, 3.0}, {0, -1.25}, {2, -0.5}}));
  // and in the stored order: diagonal, then A's order
  const LevelView L = level_view(2);
  EXPECT_EQ(L.ja(L.ia(L.ilo + 1) + 1), L.ilo);
  EXPECT_EQ(L.ja(L.ia(L.ilo + 1) + 2), L.ilo + 2);
}

// 1 C, 2 F, 3 C, 4 F, 5 C: the coarse diagonal of variable 1 is
// 1 - 2 * 0.5 * 2 + 0.25 * 2 = -0.5.
struct BadCase {
  Csr A;
  std::vector<int> icg;
  PRows P;
};
BadCase bad_case() {
  BadCase b;
  b.A = hand_matrix({{1.0, {{2, -2.0}}},
                     {2.0, {{1, -2.0}, {3, -0.5}}},
                     {2.0, {{2, -0.5}, {4, -0.5}}},
                     {2.0, {{3, -0.5}, {5, -0.5}}},
                     {2.0, {{4, -0.5}}}});
  b.icg = {0, 1, -1, 1, -1, 1};
  b.P = {{}, {{1, 1.0}}, {{1, 0.5}, {3, 0.5}}, {{3, 1.0}}, {{3, 0.5}, {5, 0.5}}, {{5, 1.0}}};
  return b;
}

PRows interpolation_in_store(int n, const std::vector<int>& icg_fine) {
  // jw holds coarse indices after prepare: map back to fine C-variables
  const StoreState& st = store();
  std::map<int, int> fine_of;
  for (int i = 1; i <= n; ++i)
    if (icg_fine[at(i)] > 0) fine_of[st.icg[at(i - 1)]] = i;
  PRows P(at(n + 1));
  for (int i = 1; i <= n; ++i)
    for (int p = st.iw[at(i - 1)]; p < st.iw[at(i)]; ++p)
      P[at(i)].push_back({fine_of.at(st.jw[at(p - 1)]), st.w[at(p - 1)]});
  return P;
}

double row_sum(const std::vector<std::pair<int, double>>& r) {
  double s = 0.0;
  for (auto [j, w] : r) s += w;
  return s;
}

TEST_F(GalerkinTest, CorrectFKeepsRowSumsAndMakesTheDiagonalPositive) {
  for (int nntyp : {1, 6}) {
    const BadCase b = bad_case();
    Hierarchy h;
    h.A = b.A;
    h.load(b.icg, b.P, 100);
    prepare_opdfn(2);
    korn_test::MessageCapture cap;
    GalerkinSettings s = settings(nntyp, false);
    s.msg_level = 0;
    const GalerkinResult r = galerkin(2, s);
    ASSERT_FALSE(failed());
    EXPECT_EQ(ierr(), 0);
    EXPECT_EQ(r.nbad_first, 1);
    EXPECT_EQ(r.nbad, 0);
    EXPECT_EQ(r.restarts, 1);
    EXPECT_EQ(r.ncorrect_f, 1);
    EXPECT_EQ(r.ncorrect_w, 0);
    const std::string text = cap.text();
    EXPECT_NE(text.find("1 non-positive diagonal(s) on level 2"), std::string::npos) << text;
    EXPECT_NE(text.find("correct_f:     starting"), std::string::npos) << text;
    // the restart starts from the same place and gives the same rows
    const LevelView L = level_view(2);
    EXPECT_EQ(L.ilo, 6);
    EXPECT_EQ(L.ihi, 8);
    EXPECT_EQ(L.ia(L.ilo), b.A.nna() + 1);
    const PRows Pn = interpolation_in_store(5, b.icg);
    EXPECT_EQ(Pn[2], (std::vector<std::pair<int, double>>{{1, 0.0}, {3, 1.0}}));
    for (int i = 1; i <= 5; ++i) EXPECT_DOUBLE_EQ(row_sum(Pn[at(i)]), row_sum(b.P[at(i)])) << "row " << i;
    for (int c = L.ilo; c <= L.ihi; ++c) EXPECT_GT(L.a(L.ia(c)), 0.0);
    EXPECT_DOUBLE_EQ(L.a(L.ia(L.ilo)), 1.0);
    expect_matches(level_rows(2), dense_galerkin(b.A, b.icg, Pn), pattern_reference(b.A, b.icg, Pn, false),
                   "corrected");
  }
}

TEST_F(GalerkinTest, NegDiagZeroWarnsWithoutCorrection) {
  const BadCase b = bad_case();
  Hierarchy h;
  h.A = b.A;
  h.load(b.icg, b.P, 100);
  prepare_opdfn(2);
  korn_test::MessageCapture cap;
  GalerkinSettings s = settings(1, false);
  s.neg_diag = 0;
  const GalerkinResult r = galerkin(2, s);
  EXPECT_EQ(ierr(), -154);
  EXPECT_EQ(r.nbad, 1);
  EXPECT_EQ(r.restarts, 0);
  EXPECT_NE(cap.text().find("no correction of negative diagonals on level 2."), std::string::npos) << cap.text();
  EXPECT_EQ(interpolation_in_store(5, b.icg), b.P);
  // the product alone lists no row with neg_diag 0
  ierr() = 0;
  const ProductResult pr = opdfn_product(2, 1, false, 0);
  EXPECT_EQ(pr.nbad, 1);
  EXPECT_TRUE(pr.bad.empty());
}

TEST_F(GalerkinTest, NegativeNegDiagSwitchesCorrectionOff) {
  const BadCase b = bad_case();
  Hierarchy h;
  h.A = b.A;
  h.load(b.icg, b.P, 100);
  prepare_opdfn(2);
  GalerkinSettings s = settings(1, false);
  s.neg_diag = -1;
  const GalerkinResult r = galerkin(2, s);
  EXPECT_EQ(ierr(), 0);
  EXPECT_EQ(r.nbad, 1);
  EXPECT_EQ(r.restarts, 0);
}

TEST_F(GalerkinTest, BruteLimitBelowBadRowsGoesToCorrectWDirectly) {
  const BadCase b = bad_case();
  Hierarchy h;
  h.A = b.A;
  h.load(b.icg, b.P, 100);
  prepare_opdfn(2);
  korn_test::MessageCapture cap;
  GalerkinSettings s = settings(1, false);
  s.neg_diag_brute = 0;
  s.maxop_restart = 0;
  s.msg_level = 0;
  s.trace = true;
  const GalerkinResult r = galerkin(2, s);
  ASSERT_FALSE(failed());
  EXPECT_EQ(r.ncorrect_w, 1);
  EXPECT_EQ(r.ncorrect_f, 0);
  EXPECT_EQ(r.nbad, 0);
  // closed form: d = 1, m = 0.5^2 * 2, s = -0.5 - m - d; the smaller root
  // scaled by 0.9 is nearer 1 than 1.1 times the larger one
  const double d = 1.0, m = 0.5, sv = -0.5 - m - d, q = sv / (2 * m);
  const double rr = std::sqrt(std::abs(q * q - d / m));
  const double t = 0.9 * (-(q + rr));
  ASSERT_LT(std::abs(t - 1.0), std::abs(1.1 * (rr - q) - 1.0));
  const PRows Pn = interpolation_in_store(5, b.icg);
  EXPECT_NEAR(Pn[2][0].second, 0.5 * t, 1e-15);
  EXPECT_NEAR(row_sum(Pn[2]), 1.0, 1e-15) << "row scaling keeps the sum on the first use";
  const LevelView L = level_view(2);
  EXPECT_NEAR(L.a(L.ia(L.ilo)), m * t * t + sv * t + d, 1e-14);
  EXPECT_GT(L.a(L.ia(L.ilo)), 0.0);
  const std::string text = cap.text();
  EXPECT_NE(text.find("correct_w:     re-start # 1"), std::string::npos) << text;
  EXPECT_NE(text.find("        scaling of column 6 necessary with factor "), std::string::npos) << text;
  EXPECT_NE(text.find("        number of found non-positive diagonals: 1"), std::string::npos) << text;
}

// A C-variable with a non-positive fine diagonal and no F-row: m = s = 0,
// no correction can help, the restart limit ends the loop.
TEST_F(GalerkinTest, HopelessRowEndsByTheRestartLimit) {
  Hierarchy h;
  h.A = hand_matrix({{2.0, {{2, -0.5}}}, {2.0, {{1, -0.5}, {3, -0.5}}}, {-1.0, {{2, -0.25}}}});
  const std::vector<int> icg = {0, 1, -1, 1};
  const PRows P = {{}, {{1, 1.0}}, {{1, 1.0}}, {{3, 1.0}}};
  h.load(icg, P, 100);
  prepare_opdfn(2);
  korn_test::MessageCapture cap;
  GalerkinSettings s = settings(1, false);
  s.msg_level = 0;
  const GalerkinResult r = galerkin(2, s);
  EXPECT_EQ(ierr(), -153);
  EXPECT_EQ(r.nbad, 1);
  EXPECT_EQ(r.ncorrect_f, 2);
  EXPECT_EQ(r.ncorrect_w, 1);
  EXPECT_EQ(r.restarts, 3);
  const std::string text = cap.text();
  for (const char* piece : {"correct_f:     starting", "correct_f:     re-start # 2",
                            "               Too many restarts with faster method",
                            "               --> switching to method korn_correct_w,",
                            "correct_w:     This time NO scaling of w-ROWS (remaining entries)!",
                            "abs(mval).le.zero.and.abs(sval).le.zero for variable: 5",
                            "Maximum number of allowed re-starts exceeded (2) :",
                            "Even (correct_w) without row-scaling did not work!"})
    EXPECT_NE(text.find(piece), std::string::npos) << piece << "\n" << text;
  EXPECT_EQ(interpolation_in_store(3, icg), P) << "nothing to correct";
  const LevelView L = level_view(2);
  EXPECT_EQ(L.ia(L.ilo), h.A.nna() + 1);
  // the F-row 2 interpolates from coarse variable 4 alone: correct_f leaves it
  ierr() = 0;
  correct_f(2, {4}, 0);
  EXPECT_NE(cap.text().find("#F-vars which interpolate ONLY from ic1 = 4 : 1"), std::string::npos) << cap.text();
  EXPECT_EQ(interpolation_in_store(3, icg), P);
}

// Two hopeless rows (no F-row at all) with neg_diag 1: the second attempt
// gives up.
TEST_F(GalerkinTest, SecondAttemptGivesUpAboveNegDiag) {
  for (int brute : {20, 0}) {
    Hierarchy h;
    h.A = hand_matrix({{-1.0, {{2, -0.5}}}, {2.0, {{1, -0.5}, {3, -0.5}}}, {-1.0, {{2, -0.25}}}});
    const std::vector<int> icg = {0, 1, kIcgFF, 1};
    const PRows P = {{}, {{1, 1.0}}, {}, {{3, 1.0}}};
    h.load(icg, P, 100);
    prepare_opdfn(2);
    korn_test::MessageCapture cap;
    GalerkinSettings s = settings(1, false);
    s.neg_diag = 1;
    s.neg_diag_brute = brute;
    s.msg_level = 0;
    const GalerkinResult r = galerkin(2, s);
    EXPECT_EQ(ierr(), -153);
    EXPECT_EQ(r.nbad_first, 2);
    EXPECT_EQ(r.restarts, 1);
    const std::string text = cap.text();
    EXPECT_NE(text.find("still 2 negative diagonals with second attempt (opdfn)"), std::string::npos) << text;
    EXPECT_NE(text.find("increasing current value of neg_diag=1 might help (opdfn)"), std::string::npos) << text;
    const char* path = brute == 0 ? "Maximum number of allowed exceptions exceeded (1) :" : "correct_f:     starting";
    EXPECT_NE(text.find(path), std::string::npos) << text;
  }
}

TEST_F(GalerkinTest, BadRowsGoToTheCrwFile) {
  const BadCase b = bad_case();
  Hierarchy h;
  h.A = b.A;
  h.load(b.icg, b.P, 100);
  prepare_opdfn(2);
  const std::filesystem::path file = "temp.crw";
  std::filesystem::remove(file);
  prm().iodump = 777;
  GalerkinSettings s = settings(1, false);
  s.dump_correctw = 1;
  s.msg_level = 1;
  {
    korn_test::MessageCapture cap;
    galerkin(2, s);
  }
  ASSERT_FALSE(failed());
  const std::string text = korn_test::read_file(file);
  std::filesystem::remove(file);
  EXPECT_NE(text.find("Log file : non-positive diagonals:"), std::string::npos) << text;
  EXPECT_NE(text.find("*** ialow=" + std::string(12 - std::to_string(b.A.nna() + 1).size(), ' ') +
                      std::to_string(b.A.nna() + 1) + " a(ialow)="),
            std::string::npos)
      << text;
}

TEST_F(GalerkinTest, AllocationFailureIsReported) {
  const Case cs = cases()[0];
  for (int nntyp : {1, 2, 6}) {
    Hierarchy h;
    h.A = cs.A;
    h.load(cs.icg, cs.P, 40 * h.A.n);
    prepare_opdfn(2);
    korn_test::MessageCapture cap;
    galerkin_fail_next_allocation();
    opdfn_product(2, nntyp, false, 20);
    EXPECT_EQ(ierr(), 70);
    const std::string want = nntyp == 1   ? "Allocation error (wt,jwt,iwt,ifg) in (opdfn)!"
                             : nntyp == 2 ? "Allocation error (wt,jwt,iwt,ifg,ialow) in (opdfn_detrlen)!"
                                          : "Allocation error (ifg,ja,a) in (opdfn)!";
    EXPECT_NE(cap.text().find(want), std::string::npos) << cap.text();
    ierr() = 0;
  }
}

// ---------------------------------------------------------------------------
// Truncation
// ---------------------------------------------------------------------------
TEST_F(GalerkinTest, TruncationRemovesExactlyTheSmallEntriesAndKeepsRowSums) {
  int npassing = 0, nfailing = 0;
  for (const Case& cs : {cases()[0], cases()[1], cases()[4]})
    for (double eps : {0.1, 0.2, 0.35})
      for (bool symmetric : {false, true}) {
        if (symmetric && cs.name.find("convection") != std::string::npos) continue;
        const std::string what = cs.name + " eps " + std::to_string(eps) + (symmetric ? " symmetric" : "");
        Hierarchy h;
        h.A = cs.A;
        h.load(cs.icg, cs.P, 40 * h.A.n);
        prepare_opdfn(2);
        galerkin(2, settings(1, false));
        ASSERT_FALSE(failed());
        const std::vector<Row> before = level_rows(2);
        // expected: (c,l) goes when small in row c, or (symmetric) when its
        // partner is small in row l
        std::vector<Row> want = before;
        int nremove = 0;
        for (std::size_t c = 0; c < before.size(); ++c)
          for (auto [l, v] : before[c]) {
            if (l == static_cast<int>(c)) continue;
            bool small = std::abs(v) <= before[c].at(static_cast<int>(c)) * eps;
            if (symmetric) {
              const Row& rl = before[at(l)];
              small = small || std::abs(rl.at(static_cast<int>(c))) <= rl.at(l) * eps;
            }
            if (small) {
              want[c].erase(l);
              want[c][static_cast<int>(c)] += v;
              ++nremove;
            }
          }
        ASSERT_GT(nremove, 0) << what << ": nothing to remove";
        int nonpos = 0;
        for (std::size_t c = 0; c < want.size(); ++c) nonpos += want[c].at(static_cast<int>(c)) <= 0.0 ? 1 : 0;
        korn_test::MessageCapture cap;
        const int removed = galerkin_truncation(2, eps, symmetric, 0);
        EXPECT_EQ(removed, nremove) << what;
        if (nonpos > 0) {
          // lumping left diagonals that are not positive
          EXPECT_EQ(ierr(), 152) << what;
          EXPECT_NE(cap.text().find("Truncation of Galerkin failed: " + std::to_string(nonpos) + " non-positive diagonals!"),
                    std::string::npos)
              << what;
          ++nfailing;
          ierr() = 0;
          continue;
        }
        ++npassing;
        ASSERT_FALSE(failed()) << what;
        EXPECT_EQ(removed, nremove) << what;
        EXPECT_NE(cap.text().find("Number of Galerkin entries removed: " + std::to_string(nremove)), std::string::npos);
        const std::vector<Row> after = level_rows(2);
        ASSERT_EQ(after.size(), want.size());
        for (std::size_t c = 0; c < after.size(); ++c) {
          ASSERT_EQ(after[c].size(), want[c].size()) << what << " row " << c;
          double s0 = 0.0, s1 = 0.0;
          for (auto [l, v] : before[c]) s0 += v;
          for (auto [l, v] : after[c]) {
            s1 += v;
            ASSERT_TRUE(want[c].count(l)) << what << " row " << c << " col " << l;
            EXPECT_NEAR(v, want[c].at(l), 1e-13 * std::max(1.0, std::abs(v))) << what;
          }
          EXPECT_NEAR(s0, s1, 1e-13 * std::max(1.0, std::abs(s0))) << what << ": row sum " << c;
          if (symmetric) {
            for (auto [l, v] : after[c]) EXPECT_TRUE(after[at(l)].count(static_cast<int>(c))) << what;
          }
        }
        const LevelView L = level_view(2);
        EXPECT_EQ(L.ia(L.ilo), h.A.nna() + 1);
      }
  EXPECT_GT(npassing, 4);
  EXPECT_GT(nfailing, 0) << "the large eps should spoil some diagonal";
}

TEST_F(GalerkinTest, TruncationThroughTheSettings) {
  const Case cs = cases()[0];
  Hierarchy h;
  h.A = cs.A;
  h.load(cs.icg, cs.P, 40 * h.A.n);
  prepare_opdfn(2);
  GalerkinSettings s = settings(6, false);
  s.trunc_eps = 0.1;
  const GalerkinResult r = galerkin(2, s);
  ASSERT_FALSE(failed());
  EXPECT_GT(r.nremoved, 0);
  std::size_t n = 0;
  for (const Row& row : level_rows(2)) n += row.size();
  EXPECT_EQ(static_cast<int>(n), r.nentries);
}

TEST_F(GalerkinTest, TruncationFailures) {
  // all variables C, P the identity: the coarse matrix is A itself
  {
    Hierarchy h;
    h.A = hand_matrix({{1.0, {{2, -0.001}}}, {1.0, {}}});
    h.load({0, 1, 1}, {{}, {{1, 1.0}}, {{2, 1.0}}}, 50);
    prepare_opdfn(2);
    galerkin(2, settings(1, false));
    const Raw before = raw_level(2);
    korn_test::MessageCapture cap;
    galerkin_truncation(2, 0.1, true, 0);
    EXPECT_EQ(ierr(), 152);
    EXPECT_NE(cap.text().find("Truncation of Galerkin failed: symmetric counterpart missing!"), std::string::npos);
    EXPECT_TRUE(raw_level(2) == before) << "marks are taken back";
    ierr() = 0;
  }
  {
    Hierarchy h;
    h.A = hand_matrix({{1.0, {{2, -0.6}, {3, -0.6}}}, {1.0, {{1, -0.1}}}, {1.0, {{1, -0.1}}}});
    h.load({0, 1, 1, 1}, {{}, {{1, 1.0}}, {{2, 1.0}}, {{3, 1.0}}}, 50);
    prepare_opdfn(2);
    galerkin(2, settings(1, false));
    korn_test::MessageCapture cap;
    galerkin_truncation(2, 1.0, false, 0);
    EXPECT_EQ(ierr(), 152);
    EXPECT_NE(cap.text().find("Truncation of Galerkin failed: 1 non-positive diagonals!"), std::string::npos)
        << cap.text();
    ierr() = 0;
  }
}

// ---------------------------------------------------------------------------
// Restarts of a kept hierarchy
// ---------------------------------------------------------------------------
TEST_F(GalerkinTest, RecomputeWithKeptInterpolation) {
  const Case cs = cases()[2];
  Hierarchy h;
  h.A = cs.A;
  h.load(cs.icg, cs.P, 40 * h.A.n);
  prepare_opdfn(2);
  galerkin(2, settings(1, false));
  const Csr A2 = level_csr(2);
  const std::vector<int> icg2 = greedy_split(A2);
  const PRows P2 = direct_interpolation(A2, icg2);
  StoreState& st = store();
  const int ilo2 = st.imin[2];
  for (int i = 1; i <= A2.n; ++i) st.icg[at(ilo2 + i - 2)] = icg2[at(i)];
  Hierarchy::write_interpolation(ilo2, st.imax[2], P2, ilo2 - 1);
  prepare_opdfn(3);
  galerkin(3, settings(1, false));
  ASSERT_FALSE(failed());
  // new values on level 1, same structure
  Csr A1 = cs.A;
  for (int i = 1; i <= A1.n; ++i)
    for (int p = A1.ia[at(i - 1)]; p < A1.ia[at(i)]; ++p) A1.a[at(p - 1)] *= (p == A1.ia[at(i - 1)] ? 3.0 : 1.5 + 0.01 * (i % 7));
  h.A.a = A1.a;
  for (int nntyp : {1, 6}) {
    omp_set_num_threads(nntyp == 6 ? 2 : 1);
    recompute_coarse_operators(3, settings(nntyp, false));
    ASSERT_FALSE(failed());
    expect_matches(level_rows(2), dense_galerkin(A1, cs.icg, cs.P), pattern_reference(A1, cs.icg, cs.P, false),
                   "level 2 recomputed");
    const Csr A2n = level_csr(2);
    expect_matches(level_rows(3), dense_galerkin(A2n, icg2, P2), pattern_reference(A2n, icg2, P2, false),
                   "level 3 recomputed");
  }
}

TEST_F(GalerkinTest, OpdfnMovReanchorsTheCoarseLevels) {
  const Case cs = cases()[0];
  Hierarchy h;
  h.A = cs.A;
  h.load(cs.icg, cs.P, 40 * h.A.n);
  prepare_opdfn(2);
  galerkin(2, settings(1, false));
  ASSERT_FALSE(failed());
  const std::vector<Row> before = level_rows(2);
  const int nda0 = store().nda;
  // the same matrix with two explicit zeros more in row 3
  Csr B;
  for (int i = 1; i <= cs.A.n; ++i) {
    std::vector<std::pair<int, double>> off;
    for (int p = cs.A.ia[at(i - 1)] + 1; p < cs.A.ia[at(i)]; ++p) off.push_back({cs.A.ja[at(p - 1)], cs.A.a[at(p - 1)]});
    if (i == 3) {
      off.push_back({cs.A.n, 0.0});
      off.push_back({cs.A.n - 1, 0.0});
    }
    B.add_row(cs.A.a[at(cs.A.ia[at(i - 1)] - 1)], off);
  }
  bind_level1(B.n, B.ia.data(), B.ja.data(), B.a.data(), h.u.data(), h.f.data());
  opdfn_mov(2);
  EXPECT_EQ(store().nda, nda0 + 2);
  const LevelView L = level_view(2);
  EXPECT_EQ(L.ia(L.ilo), B.nna() + 1);
  EXPECT_EQ(level_rows(2), before);
  // nothing moves for the same number of entries
  opdfn_mov(2);
  EXPECT_EQ(store().nda, nda0 + 2);
  EXPECT_EQ(level_rows(2), before);
}

TEST_F(GalerkinTest, VariantNamesAndSettings) {
  EXPECT_EQ(opdfn_variant_name(1), "standard");
  EXPECT_EQ(opdfn_variant_name(2), "determination of row lengths");
  EXPECT_EQ(opdfn_variant_name(3), "determination of row lengths + splitting");
  EXPECT_EQ(opdfn_variant_name(4), "dynamic parallel memory management");
  EXPECT_EQ(opdfn_variant_name(5), "dynamic parallel memory management + splitting");
  EXPECT_EQ(opdfn_variant_name(6), "dynamic memory management using lists");
  EXPECT_EQ(opdfn_variant_name(7), "");
  prm().neg_diag = 7;
  prm().neg_diag_brute = 5;
  prm().maxop_restart = 4;
  input().nntyp_opdfn = 6;
  input().glk_mult_zeros = true;
  input().trunc_threshold = 0.01;
  input().isym = 2;
  const GalerkinSettings s = galerkin_settings();
  EXPECT_EQ(s.neg_diag, 7);
  EXPECT_EQ(s.neg_diag_brute, 5);
  EXPECT_EQ(s.maxop_restart, 4);
  EXPECT_EQ(s.nntyp, 6);
  EXPECT_TRUE(s.mult_zeros);
  EXPECT_EQ(s.trunc_eps, 0.01);
  EXPECT_FALSE(s.symmetric);
}

}  // namespace
