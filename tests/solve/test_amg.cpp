// The AMG solver end to end through the core call: model problems under CG,
// BI-CGSTAB and GMRES, cycle shapes, the exact two-level cycle on a red-black
// split, star cycles, restriction variants, run modes, and the failure paths
// of indefinite and singular matrices. Results are judged by residuals from
// the caller's matrix, LAPACK solves, and repeated or serial runs where the
// result must not depend on timing.
#include <gtest/gtest.h>
#include <omp.h>

#include <cstring>
#include <string>
#include <vector>

#include "entry/entry.hpp"
#include "entry/problems.hpp"
#include "solve/solve.hpp"
#include "solve_fixtures.hpp"

namespace {

using namespace solve_test;
using korn_test::CoreArgs;
using korn_test::LogCapture;

// Seven-point Laplacian on an m^3 cube.
Csr poisson3d(int m) {
  Csr A;
  auto id = [m](int x, int y, int z) { return (z * m + y) * m + x + 1; };
  for (int z = 0; z < m; ++z)
    for (int y = 0; y < m; ++y)
      for (int x = 0; x < m; ++x) {
        std::vector<std::pair<int, double>> off;
        if (x > 0) off.push_back({id(x - 1, y, z), -1.0});
        if (x < m - 1) off.push_back({id(x + 1, y, z), -1.0});
        if (y > 0) off.push_back({id(x, y - 1, z), -1.0});
        if (y < m - 1) off.push_back({id(x, y + 1, z), -1.0});
        if (z > 0) off.push_back({id(x, y, z - 1), -1.0});
        if (z < m - 1) off.push_back({id(x, y, z + 1), -1.0});
        A.add_row(6.0, off);
      }
  return A;
}

bool bit_equal(const Vec& x, const Vec& y) {
  return x.size() == y.size() && std::memcmp(x.data(), y.data(), x.size() * sizeof(double)) == 0;
}
// Average reduction per cycle of a run.
double rate(const CoreArgs& c) { return std::pow(c.res_out / c.res_in, 1.0 / c.ncyc_done); }
std::size_t count(const std::string& text, const std::string& what) {
  std::size_t n = 0;
  for (std::size_t p = text.find(what); p != std::string::npos; p = text.find(what, p + 1)) ++n;
  return n;
}
// Run-mode switch: run mode, iextent 2, n_default (40 standard coarsening,
// 17 aggressive coarsening of the first level).
int iswit_code(int run_mode, int n_default = 40) { return run_mode * 1000 + 200 + n_default; }

CoreArgs core_args(const Csr& m) {
  korn_test::Csr c;
  c.nnu = m.n;
  c.ia = m.ia;
  c.ja = m.ja;
  c.a = m.a;
  return CoreArgs(c);
}

class Amg : public testing::Test {
 protected:
  void SetUp() override {
    korn_reset_parameters();
    kornlt::ierr() = 0;
    kornlt::prm().mode_mess = -3;
    omp_set_num_threads(1);
  }
  void TearDown() override { release(); }

  // iswit 0: releases whatever a run mode 4 kept.
  static void release() {
    CoreArgs c = core_args(poisson(3));
    c.iswit = 0;
    c.call();
  }
  // One core call on A u = f from u = 0.
  static CoreArgs solve(const Csr& m, const Vec& f, int ncyc, int iswit = iswit_code(5), double eps = 1e-8,
                        int matrix = 12) {
    CoreArgs c = core_args(m);
    c.f = f;
    c.ncyc = ncyc;
    c.iswit = iswit;
    c.eps = eps;
    c.matrix = matrix;
    c.call();
    return c;
  }
  // Plain cycles: the accelerator digit 0 takes this default.
  static void no_accelerator() {
    const int zero = 0;
    korn_set_ncgrad_default(&zero);
  }
  Threads threads_{1};
};

// Poisson 2D/3D under CG (n_default 17: aggressive coarsening of the first
// level) and convection-diffusion under BI-CGSTAB and GMRES (CG asked for on
// a non-symmetric matrix gives BI-CGSTAB), to the target in few iterations.
TEST_F(Amg, ModelProblemsConvergeInFewIterations) {
  struct Case {
    const char* what;
    Csr m;
    int ncyc, matrix, n_default, threads, max_iter;
  };
  const Csr cd = convection_diffusion(48, 60.0, 30.0);
  const Case cases[] = {
      {"2D 64x64", poisson(64), 11030, 12, 40, 1, 12},
      {"2D 48x48, two threads", poisson(48), 11030, 12, 40, 2, 12},
      {"2D 64x64, aggressive", poisson(64), 11030, 12, 17, 1, 15},
      {"3D 20^3", poisson3d(20), 11030, 12, 40, 1, 12},
      {"3D 14^3, two threads", poisson3d(14), 11030, 12, 40, 2, 12},
      {"3D 20^3, aggressive", poisson3d(20), 11030, 12, 17, 1, 15},
      {"BI-CGSTAB, two threads", cd, 12030, 22, 40, 2, 20},
      {"GMRES, Krylov dimension 5, two threads", cd, 13430, 22, 40, 2, 20},
      {"CG asked for: BI-CGSTAB", cd, 11030, 22, 40, 1, 20},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.what);
    omp_set_num_threads(k.threads);
    const Vec f = test_rhs(k.m.n);
    const CoreArgs c = solve(k.m, f, k.ncyc, iswit_code(4, k.n_default), 1e-8, k.matrix);  // kept: depth visible
    ASSERT_EQ(c.ierr, 0);
    EXPECT_GE(kornlt::store().levels, 3) << "a multigrid hierarchy, not the one-level method";
    EXPECT_GE(c.ncyc_done, 2);
    EXPECT_LE(c.ncyc_done, k.max_iter);
    EXPECT_NEAR(c.res_in, norm2(f), 1e-12 * norm2(f));
    const double r = true_residual(k.m, c.u, f);
    EXPECT_LE(r, 1.0001e-8 * norm2(f));
    EXPECT_NEAR(c.res_out, r, 1e-3 * r + 1e-14 * norm2(f)) << "the reported residual is the true one";
    release();
    EXPECT_EQ(kornlt::store().levels, 0);
  }
}

TEST_F(Amg, SmallCasesMatchDenseSolve) {
  // 20x20: above the one-level limit, small enough for LU. ncyc 0 is the
  // default code; 12030 and 13030 are BI-CGSTAB and GMRES.
  struct Case {
    Csr m;
    int ncyc, matrix, threads;
  };
  const Case cases[] = {{poisson(20), 0, 12, 1}, {poisson(20), 0, 12, 2},
                        {convection_diffusion(20, 80.0, -40.0), 12030, 22, 1},
                        {convection_diffusion(20, 80.0, -40.0), 13030, 22, 1}};
  for (const Case& k : cases) {
    SCOPED_TRACE(std::to_string(k.ncyc) + " threads " + std::to_string(k.threads));
    omp_set_num_threads(k.threads);
    const Vec f = test_rhs(k.m.n);
    const CoreArgs c = solve(k.m, f, k.ncyc, iswit_code(5), 1e-11, k.matrix);
    ASSERT_EQ(c.ierr, 0);
    EXPECT_LE(c.ncyc_done, 15);
    EXPECT_LE(rel_diff(c.u, dense_solve(k.m, f)), 1e-7);
  }
}

// Hierarchies of known depth: a cycle's shape only matters at levels strictly
// between the first and the coarsest one.
TEST_F(Amg, CycleShapesFollowTheirRulesAndBeatV) {
  no_accelerator();
  struct Depth {
    int n, nptmn, levels;
  };
  for (const Depth& d : {Depth{20, 0, 2}, Depth{48, 0, 3}, Depth{64, 10, 5}}) {
    SCOPED_TRACE(std::to_string(d.levels) + " levels");
    if (d.nptmn > 0) korn_set_nptmn(&d.nptmn);
    const Csr m = poisson(d.n);
    const Vec f = test_rhs(m.n);
    ASSERT_EQ(solve(m, f, 11001, iswit_code(4)).ierr, 0);
    ASSERT_EQ(kornlt::store().levels, d.levels);
    release();
    std::vector<CoreArgs> runs;  // V, F, W, VV
    for (int igam = 1; igam <= 4; ++igam) {
      runs.push_back(solve(m, f, igam * 10000 + 4, iswit_code(5), 0.0));
      ASSERT_EQ(runs.back().ierr, 0) << igam;
      EXPECT_EQ(runs.back().ncyc_done, 4) << igam;
      EXPECT_NEAR(runs.back().res_out, true_residual(m, runs.back().u, f), 1e-10 * runs.back().res_in) << igam;
    }
    EXPECT_LT(rate(runs[0]), 0.2);
    for (int j = 1; j <= 3; ++j) {
      // Two levels: every shape is V. Three: the middle level is visited
      // twice by F, W and VV alike. Five: all differ.
      EXPECT_EQ(bit_equal(runs[j].u, runs[0].u), d.levels == 2) << j;
      EXPECT_LE(rate(runs[j]), rate(runs[0])) << j;
      if (d.levels > 2) {
        EXPECT_EQ(bit_equal(runs[j].u, runs[1].u), d.levels == 3 || j == 1) << j;
      }
    }
  }
}

TEST_F(Amg, CfRelaxationMakesTheTwoLevelCycleExactOnARedBlackSplit) {
  // On a red-black split of the five-point Laplacian every F-point couples to
  // C-points only, so direct interpolation is the ideal one, -A_ff^-1 A_fc.
  // Pre-smoothing that ends with an F-sweep leaves an error of the form P e_c,
  // which the exact coarse solve removes: one cycle solves the system. A
  // finest level relaxed without its C/F splitting would not.
  no_accelerator();
  const Csr m = poisson(20);
  const Vec f = test_rhs(m.n);
  const CoreArgs c = solve(m, f, 10001, iswit_code(4), 0.0);
  ASSERT_EQ(c.ierr, 0);
  const kornlt::StoreState& st = kornlt::store();
  ASSERT_EQ(st.levels, 2);
  const bool c_parity = st.icg[0] > 0;
  for (int y = 0; y < 20; ++y)
    for (int x = 0; x < 20; ++x)
      ASSERT_EQ(st.icg[static_cast<std::size_t>(y * 20 + x)] > 0, ((x + y) % 2 == 0) == c_parity)
          << "not a red-black split at " << x << "," << y;
  release();
  EXPECT_EQ(c.ncyc_done, 1);
  EXPECT_LE(c.res_out, 1e-12 * c.res_in);
  EXPECT_LE(rel_diff(c.u, dense_solve(m, f)), 1e-12);
  // Plain Gauss-Seidel sweeps over all points: no longer exact.
  kornlt::prm().nrd = kornlt::prm().nru = 12;
  const CoreArgs g = solve(m, f, 10001, iswit_code(5), 0.0);
  ASSERT_EQ(g.ierr, 0);
  EXPECT_GT(g.res_out, 1e-6 * g.res_in);
}

// Star cycles (stand-alone, and under CG asked for, which becomes flexible
// CG) and dynamic smoothing reach the target on three levels.
TEST_F(Amg, StarCyclesAndDynamicSmoothingConverge) {
  no_accelerator();
  const Csr m = poisson(48);
  const Vec f = test_rhs(m.n);
  struct Case {
    int nstar, ndyn, ncyc, max_iter;
  };
  const Case cases[] = {{1, 0, -11030, 12}, {2, 0, -11030, 12}, {3, 0, -11030, 12},
                        {3, 0, -10030, 20}, {0, 10, 10030, 20}, {0, 21, 11030, 12}};
  for (const Case& k : cases) {
    SCOPED_TRACE("nstar " + std::to_string(k.nstar) + " ndyn " + std::to_string(k.ndyn) + " ncyc " +
                 std::to_string(k.ncyc));
    korn_set_nstar_typ(&k.nstar);
    korn_set_ndyn_smo(&k.ndyn);
    const CoreArgs c = solve(m, f, k.ncyc);
    ASSERT_EQ(c.ierr, 0);
    EXPECT_LE(c.ncyc_done, k.max_iter);
    EXPECT_LE(true_residual(m, c.u, f), 1.0001e-8 * norm2(f));
  }
  const int zero = 0;
  korn_set_nstar_typ(&zero);
  korn_set_ndyn_smo(&zero);
}

TEST_F(Amg, RestrictionVariantsGiveTheSameSolution) {
  const Csr m = poisson(40);
  const Vec f = test_rhs(m.n);
  auto run = [&](int variant, int threads, bool jacobi) {
    omp_set_num_threads(threads);
    korn_set_irestriction_openmp(&variant);
    kornlt::prm().nrd = kornlt::prm().nru = jacobi ? 177 : kornlt::kUnsetInt;  // two Jacobi sweeps
    const CoreArgs c = solve(m, f, 11030, iswit_code(5), 1e-10);
    EXPECT_EQ(c.ierr, 0) << variant << " " << threads;
    EXPECT_LE(true_residual(m, c.u, f), 1.0001e-10 * norm2(f)) << variant << " " << threads;
    return c;
  };
  // One thread: the serial scatter (0), the threaded residual with a serial
  // scatter (1) and the gather through the transpose (-1); 2 chooses 0.
  const CoreArgs r0 = run(0, 1, false);
  EXPECT_TRUE(bit_equal(run(2, 1, false).u, r0.u));
  for (int variant : {1, -1}) {
    const CoreArgs c = run(variant, 1, false);
    EXPECT_EQ(c.ncyc_done, r0.ncyc_done) << variant;
    EXPECT_LE(rel_diff(c.u, r0.u), 1e-12) << variant;
  }
  // Two threads with Jacobi smoothing: nothing depends on timing, so -1
  // repeats bit for bit, and 2 chooses it; the others agree to rounding.
  const CoreArgs gather = run(-1, 2, true);
  EXPECT_TRUE(bit_equal(run(-1, 2, true).u, gather.u));
  EXPECT_TRUE(bit_equal(run(2, 2, true).u, gather.u));
  for (int variant : {0, 1}) EXPECT_LE(rel_diff(run(variant, 2, true).u, gather.u), 1e-12) << variant;
  EXPECT_LE(rel_diff(gather.u, run(-1, 1, true).u), 1e-8);
  // Two threads with the hybrid Gauss-Seidel default: only to rounding.
  for (int variant : {0, -1}) EXPECT_LE(rel_diff(run(variant, 2, false).u, r0.u), 1e-8) << variant;
}

TEST_F(Amg, RunModesReuseRecomputeAndRelease) {
  const kornlt::StoreState& st = kornlt::store();
  const Csr a = poisson(48);
  // The finest level counts as store though the caller owns it: between runs
  // the counters hold nnu + nna integers and nna + 2 nnu reals.
  const std::int64_t memi0 = a.n + a.nna(), memd0 = a.nna() + 2 * a.n;
  const Vec f1 = test_rhs(a.n);
  Vec f2(f1.size());
  for (std::size_t i = 0; i < f2.size(); ++i) f2[i] = std::cos(0.05 * i) - 0.3;
  auto run = [](const Csr& m, const Vec& f, int mode, const char* what) {
    const CoreArgs c = solve(m, f, 11030, iswit_code(mode));
    EXPECT_EQ(c.ierr, 0) << what;
    EXPECT_GE(c.ncyc_done, 1) << what;
    EXPECT_LE(c.ncyc_done, 30) << what;
    EXPECT_LE(true_residual(m, c.u, f), 1.0001e-8 * norm2(f)) << what;
    return c;
  };
  // 4: setup kept.
  const CoreArgs s4 = run(a, f1, 4, "setup kept");
  const int levels = st.levels;
  EXPECT_GE(levels, 3);
  EXPECT_GT(st.memi, memi0);
  EXPECT_GT(st.memd, memd0);
  // 1: the same hierarchy for another right-hand side, then the first again,
  // which repeats the first solve bit for bit.
  run(a, f2, 1, "reuse, second right-hand side");
  EXPECT_TRUE(bit_equal(run(a, f1, 1, "reuse, first right-hand side").u, s4.u));
  // 3: new values on the same structure. The same values give the first
  // solution to rounding; 2A and 2f make every recomputed coarse operator
  // exactly twice the one before, so the run repeats bit for bit (operators
  // left unchanged would not).
  const CoreArgs r3a = run(a, f1, 3, "new values, the same ones");
  EXPECT_LE(rel_diff(r3a.u, s4.u), 1e-12);
  Csr a2 = a;
  for (double& v : a2.a) v *= 2.0;
  Vec f1x2(f1);
  for (double& v : f1x2) v *= 2.0;
  const CoreArgs r3 = run(a2, f1x2, 3, "new values, scaled");
  EXPECT_TRUE(bit_equal(r3.u, r3a.u));
  // 2A plus a diagonal shift, then reused with run mode 1.
  Csr a3 = a2;
  for (int i = 0; i < a3.n; ++i) a3.a[a3.ia[i] - 1] += 0.5;
  const CoreArgs r3b = run(a3, f1, 3, "new values, shifted");
  EXPECT_TRUE(bit_equal(run(a3, f1, 1, "recomputed, reused").u, r3b.u));
  // 2: a new level-1 matrix on the old coarse operators (those of a3 now).
  EXPECT_FALSE(bit_equal(run(a2, f1x2, 2, "new level-1 matrix").u, r3.u));
  run(poisson(48, 0.2), f2, 2, "new level-1 matrix, shifted");
  EXPECT_EQ(st.levels, levels);
  // 0: everything released, the counters back where they started; 5: setup
  // and release in one call leave them balanced too.
  release();
  EXPECT_EQ(st.levels, 0);
  EXPECT_EQ(st.memi, memi0);
  EXPECT_EQ(st.memd, memd0);
  run(a, f1, 5, "setup released");
  EXPECT_EQ(st.memi, memi0);
  EXPECT_EQ(st.memd, memd0);
}

TEST_F(Amg, RestartsWithoutAHierarchyOrWithAnotherSizeAreRefused) {
  kornlt::prm().mode_mess = 0;
  LogCapture log;
  std::string text;
  auto run = [&](const Csr& m, int mode) {  // the log of this call in `text`
    const std::size_t before = log.text().size();
    const CoreArgs c = solve(m, test_rhs(m.n), 11030, iswit_code(mode));
    text = log.text().substr(before);
    return c.ierr;
  };
  const Csr a = poisson(30), b = poisson(31);
  EXPECT_EQ(run(a, 1), 51);
  EXPECT_TRUE(contains(text, "*** ERROR: KORN re-start requires an initial call with iswit=4!")) << text;
  ASSERT_EQ(run(a, 4), 0);
  for (int mode : {1, 2, 3}) {
    EXPECT_EQ(run(b, mode), 53) << mode;
    EXPECT_TRUE(contains(text, "*** ERROR: KORN re-start terminated - illegal change in <")) << text;
    EXPECT_EQ(kornlt::store().levels, 0);  // the failed restart released the hierarchy
    EXPECT_EQ(run(a, 1), 51) << mode;
    ASSERT_EQ(run(a, 4), 0);
  }
}

TEST_F(Amg, IndefiniteMatrixUnderCgWarnsAndReturns) {
  kornlt::prm().mode_mess = 0;
  // On 48x48 a shift of 0.05 moves the lowest few eigenvalues below zero, 0.5
  // a large part of the spectrum.
  for (const auto& [shift, reaches_target] : {std::pair{0.05, true}, std::pair{0.5, false}}) {
    SCOPED_TRACE(shift);
    const Csr m = poisson(48, -shift);
    const Vec f = test_rhs(m.n);
    LogCapture log;
    const CoreArgs c = solve(m, f, 11030);
    EXPECT_EQ(c.ierr, -830);
    EXPECT_TRUE(contains(log.text(), "+++ WARNG: Negative (Ap,p) on level 1 (new_cgc)!")) << log.text();
    EXPECT_LE(c.ncyc_done, 30);
    const double r = true_residual(m, c.u, f);
    EXPECT_NEAR(c.res_out, r, 1e-6 * r + 1e-13 * c.res_in);
    EXPECT_EQ(r <= 1.0001e-8 * norm2(f), reaches_target);
  }
}

// matrix 11 (symmetric, zero row sums) pins the null space and scales the
// solution to (u,1) = 0, under CG on two threads and stand-alone from a guess.
TEST_F(Amg, SingularNeumannProblemIsNormalised) {
  const Csr m = neumann(20);
  const Vec f = test_rhs(m.n, true);       // compatible: (f,1) = 0
  const Vec ref = dense_solve(m, f, 1.0);  // A u = f with (u,1) = 0
  for (const auto& [threads, ncyc] : {std::pair{2, 11030}, std::pair{1, 10030}}) {
    SCOPED_TRACE(ncyc);
    omp_set_num_threads(threads);
    no_accelerator();
    CoreArgs c = core_args(m);
    c.f = f;
    c.ncyc = ncyc;
    c.matrix = 11;
    c.eps = 1e-10;
    for (int i = 0; i < m.n; ++i) c.u[i] = 3.0 + std::sin(0.1 * i);
    ASSERT_EQ(c.call(), 0);
    EXPECT_LE(c.ncyc_done, 20);
    EXPECT_LE(rel_diff(c.u, ref), 1e-6);
    EXPECT_LE(std::abs(std::accumulate(c.u.begin(), c.u.end(), 0.0)), 1e-12 * m.n * max_abs(c.u));
  }
}

TEST_F(Amg, SingularFailurePaths) {
  kornlt::prm().mode_mess = 0;
  const Csr m = neumann(20);
  // (f,1) <> 0: the coarsest system has no solution whatever its solver; the
  // round-off watch warns once per run.
  for (int nrc : {1, 7}) {
    no_accelerator();
    kornlt::prm().nrc = nrc;
    LogCapture log;
    const CoreArgs c = solve(m, test_rhs(m.n), 10006, iswit_code(5), 1e-8, 11);
    EXPECT_LE(c.ierr, 0) << nrc;
    EXPECT_EQ(c.ncyc_done, 6) << nrc;
    EXPECT_EQ(count(log.text(), "+++ WARNG: Insufficient residual reduction on coarsest level: "), 1u) << log.text();
    EXPECT_TRUE(contains(log.text(), "+++ WARNG: (or the coarsest-level system is singular but incompatible).\n"));
    korn_reset_parameters();
    kornlt::prm().mode_mess = 0;
  }
  // matrix 12 claims non-zero row sums: the null space is not pinned, and the
  // sparse LU of the coarsest level meets a zero pivot. The error exit
  // releases the hierarchy though run mode 4 keeps it.
  const kornlt::StoreState& st = kornlt::store();
  LogCapture log;
  const CoreArgs c = solve(m, test_rhs(m.n, true), 11030, iswit_code(4), 1e-8, 12);
  EXPECT_EQ(c.ierr, 970);
  EXPECT_TRUE(contains_in_order(log.text(), {"*** ERROR: Error in matrix decomposition (sparse Gauss)!",
                                             "*** ERROR: ... in (cyc)"})) << log.text();
  EXPECT_EQ(st.levels, 0);
  EXPECT_EQ(st.memi, m.n + m.nna());
  EXPECT_EQ(st.memd, m.nna() + 2 * m.n);
}

}  // namespace
