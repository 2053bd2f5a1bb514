// Coarsest-level solvers: every nrc on SPD, non-symmetric, singular (iscale)
// indefinite and zero-diagonal levels against LAPACK solves; the trivial
// levels; kept set-ups; failure codes and texts; the fill of the sparse LU;
// thread repeatability.
#include <gtest/gtest.h>
#include <omp.h>

#include <string>
#include <vector>

#include "log/log.hpp"
#include "log/test_support.hpp"
#include "params/params.hpp"
#include "solve/solve.hpp"
#include "solve/sparse_lu.hpp"
#include "solve_fixtures.hpp"

namespace {

using namespace solve_test;
using korn_test::MessageCapture;
using kornlt::CoarsestArgs;

// A coarsest level in the stacked index space (rows 38.., entries 212..), u = 0.
Level coarse_level(const Csr& A, const Vec& f) {
  Level lv(A, zeros(A.n), f, 37, 211);
  lv.k = 3;
  return lv;
}
Vec minus_mean(Vec v) {
  const double mean = std::accumulate(v.begin(), v.end(), 0.0) / static_cast<double>(v.size());
  for (double& x : v) x -= mean;
  return v;
}
// 5-point coupling -1 around a diagonal of 1: symmetric, eigenvalues from -3 to 5.
Csr indefinite(int nx) { return grid_matrix(nx, nx, 1.0, -1, -1, -1, -1); }

// Non-symmetric, with diagonals of size `diag`: pivoting needed when small.
Csr weak_diagonal(int n, double diag) {
  Csr A;
  unsigned s = 12345;
  auto rnd = [&s]() {
    s = s * 1103515245u + 12345u;
    return static_cast<double>((s >> 8) & 0xFFFF) / 65536.0;
  };
  for (int i = 1; i <= n; ++i) {
    std::vector<std::pair<int, double>> off;
    for (int d : {1, 3, 7, n - 2}) {
      const int j = (i - 1 + d) % n + 1;
      if (j != i && std::none_of(off.begin(), off.end(), [j](auto& o) { return o.first == j; }))
        off.push_back({j, d == n - 2 ? -(0.5 + rnd()) : 0.5 + rnd()});
    }
    A.add_row(diag * (1.0 + rnd()), off);
  }
  return A;
}

class Coarsest : public ::testing::Test {
 protected:
  void SetUp() override {
    kornlt::reset_parameters();
    kornlt::ierr() = 0;
  }
  void TearDown() override {
    st.release();
    kornlt::coarsest_user_solver() = nullptr;
    kornlt::reset_parameters();
    kornlt::ierr() = 0;
  }
  static CoarsestArgs args(int nrc, const int* iscale = nullptr) {
    CoarsestArgs a;
    a.nrc = nrc;
    a.lfil_cl_used = 10;
    a.iscale = iscale;
    a.first_point = 38;
    return a;
  }
  // One cgsolve on a fresh level; returns u.
  Vec solve(const Csr& A, const Vec& f, const CoarsestArgs& a) {
    Level lv = coarse_level(A, f);
    kornlt::cgsolve(lv.view(false), a, st);
    return lv.u;
  }
  kornlt::CoarsestState st;
};

// ---------------------------------------------------------------------------
// Every solver against LAPACK
// ---------------------------------------------------------------------------
TEST_F(Coarsest, EverySolverAgainstDenseReference) {
  // Indefinite and zero-diagonal levels (pivoting needed) for the direct solvers.
  enum Kind { Spd, NonSym, Singular, Indefinite, ZeroDiagonal };
  struct Variant {
    int nrc;
    bool full_pivoting;
    int cldense;
  };
  const Variant variants[] = {{1, false, 1}, {2, false, 1}, {3, false, 1}, {4, false, 1},  {5, false, 1}, {6, false, 1},
                              {6, true, 1},  {7, false, 1}, {8, false, 1}, {10, false, 1}, {10, false, 2}};
  for (const Variant& v : variants) {
    for (Kind kind : {Spd, NonSym, Singular, Indefinite, ZeroDiagonal}) {
      if (kind == NonSym && (v.nrc == 2 || v.nrc == 4)) continue;  // CG needs symmetry
      if (kind >= Indefinite && v.nrc <= 5) continue;              // the iterative ones fail there
      SCOPED_TRACE("nrc " + std::to_string(v.nrc) + " full " + std::to_string(v.full_pivoting) + " cldense " +
                   std::to_string(v.cldense) + " kind " + std::to_string(kind));
      st.release();
      kornlt::prm().full_pivoting = v.full_pivoting;
      kornlt::prm().cldense_ctrl = v.cldense;
      const bool iterative = v.nrc <= 5;
      kornlt::prm().conv_stop = iterative && v.nrc != 1 ? 1e-8 : 0.01;
      const Csr A = kind == Spd          ? poisson(10)
                    : kind == NonSym     ? convection_diffusion(10, 40.0, 15.0)
                    : kind == Singular   ? neumann(10)
                    : kind == Indefinite ? indefinite(6)
                                         : weak_diagonal(60, 0.0);
      const Vec f = test_rhs(A.n, kind == Singular);
      const int one = 1;
      CoarsestArgs a = args(v.nrc, kind == Singular ? &one : nullptr);
      // The dense route is told of the asymmetry; announced symmetric, the
      // inversion sees it by itself.
      a.isym = kind == ZeroDiagonal || (kind == NonSym && v.cldense != 2) ? 2 : 1;
      MessageCapture cap;
      const Vec u = solve(A, f, a);
      ASSERT_EQ(kornlt::ierr(), 0);
      EXPECT_EQ(contains(cap.text(), "symmetric LU dec. requested, but non-symm. stored"),
                kind == NonSym && v.cldense == 2);
      const double r0 = norm2(f), r = true_residual(A, u, f);
      if (iterative) {
        EXPECT_LE(r, kornlt::prm().conv_stop * r0);
        EXPECT_NEAR(st.res_start, r0, 1e-12 * r0);
        EXPECT_NEAR(st.res_end, r, 1e-9 * r0 + 1e-3 * r);
        if (kind != Singular && v.nrc != 1) {
          EXPECT_LE(rel_diff(u, dense_solve(A, f)), 1e-5);
        }
      } else if (kind != Singular) {
        EXPECT_LE(rel_diff(u, dense_solve(A, f)), 1e-10);
      } else {
        // A solution up to a constant: the direct solvers pin the first row,
        // least squares gives the minimal-norm (zero-mean) one.
        EXPECT_LE(r, 1e-11 * r0);
        const Vec ref = dense_solve(A, f, 1.0);
        EXPECT_LE(rel_diff(v.nrc == 8 ? u : minus_mean(u), ref), 1e-9);
        if (v.nrc != 8) {
          EXPECT_EQ(u[0], 0.0);
        }
      }
    }
  }
}

TEST_F(Coarsest, TrivialLevels) {
  Csr one_row;
  one_row.add_row(4.0, {});
  for (int nrc : {1, 2, 6, 7, 10, 99}) {
    EXPECT_EQ(solve(one_row, {3.0}, args(nrc)), Vec{0.75}) << nrc;
    EXPECT_EQ(kornlt::ierr(), 0) << nrc;
    EXPECT_EQ(st.factorisations + st.sweeps, 0) << nrc;
  }
  const int singular = 1;
  Csr two;
  two.add_row(2.0, {{2, -2.0}});
  two.add_row(2.0, {{1, -2.0}});
  EXPECT_EQ(solve(two, {-1.5, 1.5}, args(7, &singular)), (Vec{0.0, 0.75}));
  EXPECT_EQ(st.factorisations, 0);
  MessageCapture cap;
  solve(one_row, {1.0}, args(7, &singular));
  EXPECT_EQ(kornlt::ierr(), 900);
  EXPECT_TRUE(contains(cap.text(), "Singular system with only one unknown in (solve_trivial)!")) << cap.text();
}

// ---------------------------------------------------------------------------
// Kept set-ups
// ---------------------------------------------------------------------------
TEST_F(Coarsest, SetupIsKeptUntilReleasedOrChanged) {
  const std::int64_t memd0 = kornlt::store().memd, memi0 = kornlt::store().memi;
  for (int nrc : {2, 3, 6, 7, 8, 10}) {
    SCOPED_TRACE(nrc);
    const Csr A = nrc == 3 ? convection_diffusion(8, 20.0, 5.0) : poisson(8);
    Level lv = coarse_level(A, test_rhs(A.n));  // the same level arrays throughout
    auto again = [&](int code) {
      std::fill(lv.u.begin(), lv.u.end(), 0.0);
      kornlt::cgsolve(lv.view(false), args(code), st);
      EXPECT_EQ(kornlt::ierr(), 0);
      return lv.u;
    };
    const Vec first = again(nrc);
    const int made = st.factorisations;
    EXPECT_EQ(again(nrc), first);
    EXPECT_EQ(st.factorisations, made);
    EXPECT_GT(kornlt::store().memd, memd0);
    st.release();  // a new setup of the hierarchy
    EXPECT_EQ(kornlt::store().memd, memd0);
    EXPECT_EQ(kornlt::store().memi, memi0);
    again(nrc);
    EXPECT_EQ(st.factorisations, made + 1);
    // Another nrc, then back: built anew each time.
    again(nrc == 7 ? 6 : 7);
    again(nrc);
    EXPECT_EQ(st.factorisations, made + 3);
    // Another level (other bounds) is not solved with the old factors.
    const Csr B = poisson(5);
    if (nrc >= 6) {
      EXPECT_LE(rel_diff(solve(B, test_rhs(B.n), args(nrc)), dense_solve(B, test_rhs(B.n))), 1e-12);
    }
    st.release();
  }
  EXPECT_EQ(kornlt::store().memd, memd0);
  EXPECT_EQ(kornlt::store().memi, memi0);
}

// ---------------------------------------------------------------------------
// Failures: codes and texts
// ---------------------------------------------------------------------------
TEST_F(Coarsest, FailureCodesAndTexts) {
  // Nilpotent (A^2 = 0, zero diagonal) with f in the null space: BI-CGSTAB
  // breaks down for any <rbar> and first guess; ILUT cannot be built.
  Csr nil;
  Vec fnil(10, 0.0);
  for (int i = 1; i <= 10; i += 2) {
    nil.add_row(0.0, {{i + 1, 1.0}});
    nil.add_row(0.0, {});
    fnil[i - 1] = 1.0 + 0.1 * i;
  }
  Csr dup;  // row 3 = -2 (row 1 + row 2)
  dup.add_row(2.0, {{2, -1.0}, {3, -1.0}});
  dup.add_row(2.0, {{1, -1.0}, {3, -1.0}});
  dup.add_row(4.0, {{1, -2.0}, {2, -2.0}});
  struct Case {
    const char* name;
    Csr A;
    Vec f;
    int nrc, milu, cldense;
    bool full;
    int code;
    std::vector<std::string> texts;
  };
  const std::string full_gauss = "Error in matrix decomposition (full Gauss)!";
  const std::string sparse_gauss = "Error in matrix decomposition (sparse Gauss)!";
  const std::string illegal_nrc = "Illegal value of parameter nrc in (cgsolve)!";
  const Vec f64 = test_rhs(64), f3 = test_rhs(3), f49 = test_rhs(49), f16 = test_rhs(16);
  const Case cases[] = {
      {"indefinite, diagonal CG", indefinite(8), f64, 4, 0, 1, false, 920,
       {"Breakdown of CG on coarsest level in (cgc0):", "Coarsest level matrix is not positive definite!"}},
      {"indefinite, ILU(0) CG", indefinite(8), f64, 2, 0, 1, false, 920, {"ILU(0) decomposition failed in (cgc0)"}},
      {"MILU on zero row sums", neumann(6), test_rhs(36, true), 2, 1, 1, false, 920,
       {"ILU(0) decomposition failed in (cgc0)"}},
      {"nilpotent, diagonal BI-CGSTAB", nil, fnil, 5, 0, 1, false, 930,
       {"Re-start of precond. BI-CGSTAB on coarsest level (cgstab0)!",
        "Re-start with modified <rbar> on coarsest level (cgstab0)!",
        "Re-start with new initial guess on coarsest level (cgstab0)!",
        "Breakdown of BI-CGSTAB on coarsest level (cgstab0):", "Coarsest level matrix is singular!",
        "BI-CGSTAB failed on coarsest level (cgstab0) after repeated restart!"}},
      {"nilpotent, ILUT", nil, fnil, 3, 0, 1, false, 930, {"ILUT decomposition failed in (cgstab0)"}},
      {"equal rows, full Gauss", dup, f3, 6, 0, 1, false, 960, {full_gauss}},
      {"equal rows, full pivoting", dup, f3, 6, 0, 1, true, 960, {full_gauss}},
      {"equal rows, sparse Gauss", dup, f3, 7, 0, 1, false, 970, {sparse_gauss}},
      {"equal rows, LAPACK", dup, f3, 10, 0, 1, false, 980,
       {"nrc=10 : general mkl lib error", "Error in dense direct solver"}},
      {"Neumann unpinned, full Gauss", neumann(7), f49, 6, 0, 1, false, 960, {full_gauss}},
      {"Neumann unpinned, sparse Gauss", neumann(7), f49, 7, 0, 1, false, 970, {sparse_gauss}},
      {"no user solver", poisson(4), f16, 9, 0, 1, false, 990, {"No solver currently installed by USER (user_solve)"}},
      {"PARDISO", poisson(4), f16, 11, 0, 1, false, 20, {"invalid value for the coarsest grid solver (cgsolve)!"}},
      {"cldense_ctrl 3", poisson(4), f16, 10, 0, 3, false, 20, {"invalid value for cldense_ctrl (solve-data)!"}},
      {"cldense_ctrl 120", poisson(4), f16, 10, 0, 120, false, 20, {"invalid value for cldense_ctrl (solve-data)!"}},
      {"nrc 0: sparse Gauss", poisson(4), f16, 0, 0, 1, false, -990, {illegal_nrc}},
      {"nrc 12: sparse Gauss", poisson(4), f16, 12, 0, 1, false, -990, {illegal_nrc}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    st.release();
    kornlt::ierr() = 0;
    kornlt::prm().cldense_ctrl = c.cldense;
    kornlt::prm().milu = c.milu;
    kornlt::prm().full_pivoting = c.full;
    MessageCapture cap;
    const Vec u = solve(c.A, c.f, args(c.nrc));
    EXPECT_EQ(kornlt::ierr(), c.code);
    EXPECT_TRUE(contains_in_order(cap.text(), c.texts)) << cap.text();
    if (c.code == -990) {
      EXPECT_LE(rel_diff(u, dense_solve(c.A, c.f)), 1e-12);
    }
  }
  // An installed user solver is called once per solve.
  kornlt::ierr() = 0;
  int calls = 0;
  kornlt::coarsest_user_solver() = [&](const kornlt::LevelView& L) {
    ++calls;
    for (int i = L.ilo; i <= L.ihi; ++i) L.u(i) = -1.0;
  };
  EXPECT_EQ(solve(poisson(4), test_rhs(16), args(9)), Vec(16, -1.0));
  EXPECT_EQ(kornlt::ierr(), 0);
  EXPECT_EQ(calls, 1);
}

// ---------------------------------------------------------------------------
// The sparse LU on its own
// ---------------------------------------------------------------------------
kornlt::CscMatrix to_csc(const Csr& A) {
  kornlt::CscMatrix c;
  c.n = A.n;
  c.cp.assign(static_cast<std::size_t>(A.n) + 1, 0);
  for (int k = 0; k < A.nna(); ++k) ++c.cp[A.ja[k]];
  for (int j = 0; j < A.n; ++j) c.cp[j + 1] += c.cp[j];
  std::vector<int> next(c.cp.begin(), c.cp.end() - 1);
  c.ri.resize(static_cast<std::size_t>(A.nna()));
  c.ax.resize(c.ri.size());
  for (int i = 0; i < A.n; ++i)
    for (int k = A.ia[i]; k < A.ia[i + 1]; ++k) {
      const int pos = next[A.ja[k - 1] - 1]++;
      c.ri[pos] = i;
      c.ax[pos] = A.a[k - 1];
    }
  return c;
}

// Minimum degree keeps the fill of a grid well below the natural (banded)
// order's 2 n nx, and the symbolic count is the fill reached; also after a
// symmetric scaling D A D (1 and 10 in a checkered pattern) whose diagonals
// are no longer the largest of their columns but within the threshold.
TEST_F(Coarsest, SparseLuOrderingKeepsTheFillOfAGridLow) {
  const int nx = 30;
  Csr scaled = poisson(nx);
  auto d = [](int i) { return (i % nx + i / nx) % 2 == 0 ? 1.0 : 10.0; };
  for (int i = 0; i < scaled.n; ++i)
    for (int k = scaled.ia[i]; k < scaled.ia[i + 1]; ++k) scaled.a[k - 1] *= d(i) * d(scaled.ja[k - 1] - 1);
  for (const Csr& A : {poisson(nx), scaled}) {
    const kornlt::CscMatrix m = to_csc(A);
    kornlt::SparseLU lu;
    ASSERT_TRUE(kornlt::spg_alloc(m, lu));
    int bad = -1;
    ASSERT_TRUE(kornlt::spg_lufact(m, lu, 0.01, bad));
    EXPECT_EQ(lu.off_diagonal_pivots, 0);
    EXPECT_LT(lu.entries(), A.n * nx);
    EXPECT_EQ(lu.entries(), 2 * lu.predicted_l + A.n);
    Vec b = test_rhs(A.n), work(b.size());
    kornlt::spg_solve(lu, b.data(), work.data());
    EXPECT_LE(rel_diff(b, dense_solve(A, test_rhs(A.n))), 1e-9);
  }
}

// Two threads twice give the same bits and agree with one thread; the sparse
// Gauss solve is serial.
TEST_F(Coarsest, ThreadedIterativeSolversRepeatAndMatchSerial) {
  kornlt::prm().conv_stop = 1e-5;
  for (int nrc : {2, 3, 4, 5, 7}) {
    SCOPED_TRACE(nrc);
    const Csr A = nrc == 3 || nrc == 5 ? convection_diffusion(12, 30.0, 10.0) : poisson(12);
    std::vector<Vec> runs;
    for (int nt : {1, 2, 2}) {
      Threads th(nt);
      st.release();
      runs.push_back(solve(A, test_rhs(A.n), args(nrc)));
      ASSERT_EQ(kornlt::ierr(), 0);
    }
    EXPECT_EQ(runs[1], runs[2]);
    EXPECT_LE(rel_diff(runs[1], runs[0]), 1e-3);
    if (nrc == 7) {
      EXPECT_EQ(runs[0], runs[1]);
    }
  }
}

}  // namespace
