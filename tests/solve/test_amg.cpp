// The AMG solver end to end through the core call: hierarchies on 2D and 3D
// Poisson problems with V-cycle and CG, non-symmetric problems under
// BI-CGSTAB and GMRES, stand-alone V, F, W and VV cycles, star cycles and
// dynamic smoothing, the three restriction variants, the run modes that keep,
// reuse, recompute and release a hierarchy, and the failure paths of
// indefinite and singular matrices. Every result is judged against references
// written here: residuals computed from the caller's matrix, dense LAPACK
// solves, and repeated or serial runs where the result must not depend on
// timing.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "entry/entry.hpp"
#include "entry/problems.hpp"
#include "solve/solve.hpp"
#include "store/store.hpp"

extern "C" void dgesv_(const int* n, const int* nrhs, double* a, const int* lda, int* ipiv, double* b,
                       const int* ldb, int* info);

namespace {

using korn_test::CoreArgs;
using korn_test::Csr;
using korn_test::LogCapture;

// ---------------------------------------------------------------------------
// Problems: 1-based CSR, the diagonal first in every row
// ---------------------------------------------------------------------------

// Five-point stencil on an nx x ny grid: centre c and the west, east, south
// and north couplings; neighbours outside the grid are dropped (Dirichlet),
// or with `neumann` the centre is minus the sum of the couplings present.
Csr grid2d(int nx, int ny, double c, double w, double e, double s, double n, bool neumann = false) {
  Csr m;
  m.nnu = nx * ny;
  for (int y = 0; y < ny; ++y)
    for (int x = 0; x < nx; ++x) {
      const int i = y * nx + x + 1;
      std::vector<std::pair<int, double>> off;
      if (x > 0) off.push_back({i - 1, w});
      if (x < nx - 1) off.push_back({i + 1, e});
      if (y > 0) off.push_back({i - nx, s});
      if (y < ny - 1) off.push_back({i + nx, n});
      double d = c;
      if (neumann) {
        d = 0.0;
        for (const auto& o : off) d -= o.second;
      }
      m.add(i, d);
      for (const auto& o : off) m.add(o.first, o.second);
      m.end_row();
    }
  return m;
}

Csr poisson2d(int n, double shift = 0.0) { return grid2d(n, n, 4.0 + shift, -1.0, -1.0, -1.0, -1.0); }

// Seven-point Laplacian on an n^3 cube, Dirichlet boundary.
Csr poisson3d(int n) {
  Csr m;
  m.nnu = n * n * n;
  auto id = [n](int x, int y, int z) { return (z * n + y) * n + x + 1; };
  for (int z = 0; z < n; ++z)
    for (int y = 0; y < n; ++y)
      for (int x = 0; x < n; ++x) {
        m.add(id(x, y, z), 6.0);
        if (x > 0) m.add(id(x - 1, y, z), -1.0);
        if (x < n - 1) m.add(id(x + 1, y, z), -1.0);
        if (y > 0) m.add(id(x, y - 1, z), -1.0);
        if (y < n - 1) m.add(id(x, y + 1, z), -1.0);
        if (z > 0) m.add(id(x, y, z - 1), -1.0);
        if (z < n - 1) m.add(id(x, y, z + 1), -1.0);
        m.end_row();
      }
  return m;
}

// -Laplace u + b . grad u with first-order upwinding, scaled by h^2: a
// non-symmetric M-matrix whose asymmetry grows with the mesh Peclet number.
Csr convection_diffusion(int n, double bx, double by) {
  const double h = 1.0 / (n + 1);
  return grid2d(n, n, 4.0 + h * (bx + by), -1.0 - h * bx, -1.0, -1.0 - h * by, -1.0);
}

// Pure Neumann Laplacian: every row sums to zero, the constants are the null space.
Csr neumann2d(int n) { return grid2d(n, n, 0.0, -1.0, -1.0, -1.0, -1.0, true); }

// ---------------------------------------------------------------------------
// References
// ---------------------------------------------------------------------------

std::vector<double> apply(const Csr& m, const std::vector<double>& x) {
  std::vector<double> y(static_cast<std::size_t>(m.nnu), 0.0);
  for (int i = 0; i < m.nnu; ++i)
    for (int k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k) y[i] += m.a[k] * x[m.ja[k] - 1];
  return y;
}

double norm2(const std::vector<double>& v) {
  double s = 0.0;
  for (double x : v) s += x * x;
  return std::sqrt(s);
}

// || f - A u ||_2, from the caller's matrix.
double true_residual(const Csr& m, const std::vector<double>& f, const std::vector<double>& u) {
  std::vector<double> r = apply(m, u);
  for (std::size_t i = 0; i < r.size(); ++i) r[i] = f[i] - r[i];
  return norm2(r);
}

// Dense LU solve (LAPACK) of (A + c e e^T) x = f; c = 0 is the plain system.
std::vector<double> dense_solve(const Csr& m, std::vector<double> f, double c = 0.0) {
  const int n = m.nnu;
  std::vector<double> d(static_cast<std::size_t>(n) * n, c);
  for (int i = 0; i < n; ++i)
    for (int k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k)
      d[static_cast<std::size_t>(m.ja[k] - 1) * n + i] += m.a[k];
  std::vector<int> ipiv(static_cast<std::size_t>(n));
  const int one = 1;
  int info = 0;
  dgesv_(&n, &one, d.data(), &n, ipiv.data(), f.data(), &n, &info);
  EXPECT_EQ(info, 0);
  return f;
}

// A right-hand side with smooth and oscillating parts.
std::vector<double> test_rhs(int n) {
  std::vector<double> f(static_cast<std::size_t>(n));
  for (int i = 0; i < n; ++i) f[i] = 1.0 + std::sin(1.3 * i) + 0.5 * std::cos(0.7 * i * i);
  return f;
}

double max_rel_diff(const std::vector<double>& x, const std::vector<double>& ref) {
  double d = 0.0, s = 0.0;
  for (std::size_t i = 0; i < x.size(); ++i) {
    d = std::max(d, std::abs(x[i] - ref[i]));
    s = std::max(s, std::abs(ref[i]));
  }
  return d / s;
}

bool bit_equal(const std::vector<double>& x, const std::vector<double>& y) {
  return x.size() == y.size() && std::memcmp(x.data(), y.data(), x.size() * sizeof(double)) == 0;
}

// Average reduction per cycle of a run.
double rate(const CoreArgs& c) { return std::pow(c.res_out / c.res_in, 1.0 / c.ncyc_done); }

std::size_t count(const std::string& text, const std::string& what) {
  std::size_t n = 0;
  for (std::size_t p = text.find(what); p != std::string::npos; p = text.find(what, p + 1)) ++n;
  return n;
}

// Run-mode switch: run mode, iextent 2 (arrays grow in memory), n_default
// (40 standard coarsening, 17 aggressive coarsening of the first level).
int iswit_code(int run_mode, int n_default = 40) { return run_mode * 1000 + 200 + n_default; }

// ---------------------------------------------------------------------------
// Fixture: defaults restored, quiet, one thread unless a test says otherwise,
// and no hierarchy left behind.
// ---------------------------------------------------------------------------
class Amg : public testing::Test {
 protected:
  void SetUp() override {
    threads_ = omp_get_max_threads();
    korn_reset_parameters();
    kornlt::ierr() = 0;
    kornlt::prm().mode_mess = -3;
    omp_set_num_threads(1);
  }
  void TearDown() override {
    release();
    omp_set_num_threads(threads_);
  }

  // iswit 0: releases whatever a run mode 4 kept.
  static void release() {
    CoreArgs c(poisson2d(3));
    c.iswit = 0;
    c.call();
  }

  // One core call on A u = f from u = 0.
  static CoreArgs solve(const Csr& m, const std::vector<double>& f, int ncyc, int iswit = iswit_code(5),
                        double eps = 1e-8, int matrix = 12) {
    CoreArgs c(m);
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

 private:
  int threads_ = 1;
};

// ---------------------------------------------------------------------------
// 1. Symmetric model problems under V-cycle and CG
// ---------------------------------------------------------------------------

TEST_F(Amg, PoissonProblemsConvergeInFewIterations) {
  struct Case {
    const char* what;
    Csr m;
    int n_default, threads, max_iter;
  };
  const Case cases[] = {
      {"2D 64x64", poisson2d(64), 40, 1, 12},
      {"2D 48x48, two threads", poisson2d(48), 40, 2, 12},
      {"2D 64x64, aggressive first level", poisson2d(64), 17, 1, 15},
      {"3D 20^3", poisson3d(20), 40, 1, 12},
      {"3D 14^3, two threads", poisson3d(14), 40, 2, 12},
      {"3D 20^3, aggressive first level", poisson3d(20), 17, 1, 15},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.what);
    omp_set_num_threads(k.threads);
    const std::vector<double> f = test_rhs(k.m.nnu);
    // Run mode 4 keeps the hierarchy, so that its depth can be seen.
    const CoreArgs c = solve(k.m, f, 11030, iswit_code(4, k.n_default));
    ASSERT_EQ(c.ierr, 0);
    EXPECT_GE(kornlt::store().levels, 3) << "a multigrid hierarchy, not the one-level method";
    EXPECT_GE(c.ncyc_done, 2);
    EXPECT_LE(c.ncyc_done, k.max_iter);
    const double fnorm = norm2(f);
    EXPECT_NEAR(c.res_in, fnorm, 1e-12 * fnorm);
    const double r = true_residual(k.m, f, c.u);
    EXPECT_LE(r, 1e-8 * fnorm);
    EXPECT_NEAR(c.res_out, r, 1e-3 * r + 1e-14 * fnorm) << "reported residual is the true one";
    release();
    EXPECT_EQ(kornlt::store().levels, 0);
  }
}

TEST_F(Amg, DefaultCycleCodeMatchesDenseSolve) {
  // 20x20 = 400 unknowns: above the one-level limit, small enough for LU.
  const Csr m = poisson2d(20);
  const std::vector<double> f = test_rhs(m.nnu);
  const std::vector<double> ref = dense_solve(m, f);
  for (int threads : {1, 2}) {
    SCOPED_TRACE(threads);
    omp_set_num_threads(threads);
    const CoreArgs c = solve(m, f, 0, iswit_code(5), 1e-10);  // ncyc 0: the default code
    ASSERT_EQ(c.ierr, 0);
    EXPECT_LE(c.ncyc_done, 15);
    EXPECT_LE(max_rel_diff(c.u, ref), 1e-6);
  }
}

TEST_F(Amg, OlderCallSolvesWithAnAbsoluteTarget) {
  kornlt::simple() = kornlt::SimpleControls{};
  Csr m = poisson2d(32);
  std::vector<double> f = test_rhs(m.nnu), u(f.size(), 0.0);
  double fmax = 0.0;
  for (double v : f) fmax = std::max(fmax, std::abs(v));
  int ig = 0, nda = m.nna(), ndia = m.nnu + 1, ndja = m.nna(), ndu = m.nnu, ndf = m.nnu, ndig = 1;
  int matrix = 12, iswtch = 4, iout = 10, iprint = 10606, levelx = 0, ifirst = 10, madapt = 0, nrd = 0,
      nsolco = 0, nru = 0, nwt = 0, ntr = 0, ierr = -99;
  // 1 2 3 20: V-cycle, CG, target eps * max |f| absolute, at most 20 cycles.
  int ncyc = 12320;
  double eps = 1e-8, ecg1 = 0.0, ecg2 = 0.0, ewt2 = 0.0;
  korn_simple(m.a.data(), m.ia.data(), m.ja.data(), u.data(), f.data(), &ig, &nda, &ndia, &ndja, &ndu, &ndf,
              &ndig, &m.nnu, &matrix, &iswtch, &iout, &iprint, &levelx, &ifirst, &ncyc, &eps, &madapt, &nrd,
              &nsolco, &nru, &ecg1, &ecg2, &ewt2, &nwt, &ntr, &ierr);
  ASSERT_EQ(ierr, 0);
  EXPECT_GE(ncyc, 1);  // cycles performed
  EXPECT_LE(ncyc, 15);
  const double r = true_residual(m, f, u);
  EXPECT_LE(r, 1e-8 * fmax);
  EXPECT_NEAR(eps, r, 1e-3 * r + 1e-15);  // final residual norm
  kornlt::simple() = kornlt::SimpleControls{};
}

// ---------------------------------------------------------------------------
// 2. Non-symmetric problems under BI-CGSTAB and GMRES
// ---------------------------------------------------------------------------

TEST_F(Amg, ConvectionDiffusionUnderNonsymmetricAccelerators) {
  struct Case {
    const char* what;
    int ncyc, threads;
  };
  const Case cases[] = {
      {"BI-CGSTAB", 12030, 1},
      {"BI-CGSTAB, two threads", 12030, 2},
      {"GMRES", 13030, 1},
      {"GMRES, Krylov dimension 5", 13430, 2},
      {"CG asked for: BI-CGSTAB", 11030, 1},
  };
  const Csr m = convection_diffusion(48, 60.0, 30.0);
  const std::vector<double> f = test_rhs(m.nnu);
  const double fnorm = norm2(f);
  for (const Case& k : cases) {
    SCOPED_TRACE(k.what);
    omp_set_num_threads(k.threads);
    const CoreArgs c = solve(m, f, k.ncyc, iswit_code(5), 1e-8, 22);
    ASSERT_EQ(c.ierr, 0);
    EXPECT_LE(c.ncyc_done, 20);
    const double r = true_residual(m, f, c.u);
    EXPECT_LE(r, 1.0001e-8 * fnorm);
  }
  // A small one against the dense solve.
  omp_set_num_threads(1);
  const Csr s = convection_diffusion(20, 80.0, -40.0);
  const std::vector<double> fs = test_rhs(s.nnu);
  const std::vector<double> ref = dense_solve(s, fs);
  for (int ncyc : {12030, 13030}) {
    const CoreArgs c = solve(s, fs, ncyc, iswit_code(5), 1e-11, 22);
    ASSERT_EQ(c.ierr, 0) << ncyc;
    EXPECT_LE(max_rel_diff(c.u, ref), 1e-7) << ncyc;
  }
}

// ---------------------------------------------------------------------------
// 3. Stand-alone cycles: shapes, star cycles, dynamic smoothing
// ---------------------------------------------------------------------------

// Hierarchies of known depth for the shape rules: the shape of a cycle only
// matters at levels strictly between the first and the coarsest one.
struct Depth {
  const char* what;
  int n;      // n x n Poisson
  int nptmn;  // coarsest size limit, 0 for the default
  int levels;
};
const Depth kDepths[] = {{"two levels", 20, 0, 2}, {"three levels", 48, 0, 3}, {"five levels", 64, 10, 5}};

// Applies the depth's size limit and checks the depth by a kept setup.
void expect_depth(const Depth& d) {
  if (d.nptmn > 0) korn_set_nptmn(&d.nptmn);
  const Csr m = poisson2d(d.n);
  CoreArgs c(m);
  c.ncyc = 11001;
  c.iswit = iswit_code(4);
  ASSERT_EQ(c.call(), 0);
  ASSERT_EQ(kornlt::store().levels, d.levels);
  c.iswit = 0;
  c.call();
}

TEST_F(Amg, CycleShapesFollowTheirRulesAndBeatV) {
  no_accelerator();
  constexpr int kCycles = 4;
  for (const Depth& d : kDepths) {
    SCOPED_TRACE(d.what);
    ASSERT_NO_FATAL_FAILURE(expect_depth(d));
    const Csr m = poisson2d(d.n);
    const std::vector<double> f = test_rhs(m.nnu);
    std::vector<CoreArgs> runs;
    for (int igam = 1; igam <= 4; ++igam) {
      runs.push_back(solve(m, f, igam * 10000 + kCycles, iswit_code(5), 0.0));
      const CoreArgs& c = runs.back();
      ASSERT_EQ(c.ierr, 0) << "igam " << igam;
      EXPECT_EQ(c.ncyc_done, kCycles) << "igam " << igam;
      EXPECT_NEAR(c.res_out, true_residual(m, f, c.u), 1e-10 * c.res_in) << "igam " << igam;
    }
    const CoreArgs& v = runs[0];
    const CoreArgs& fc = runs[1];
    const CoreArgs& w = runs[2];
    const CoreArgs& vv = runs[3];
    EXPECT_LT(rate(v), 0.2);
    if (d.levels == 2) {
      // Nothing lies between the finest and the coarsest level: every shape is V.
      EXPECT_TRUE(bit_equal(fc.u, v.u));
      EXPECT_TRUE(bit_equal(w.u, v.u));
      EXPECT_TRUE(bit_equal(vv.u, v.u));
      continue;
    }
    for (int j = 1; j <= 3; ++j) {
      EXPECT_FALSE(bit_equal(runs[j].u, v.u)) << "igam " << j + 1 << " must do more than V";
      EXPECT_LE(rate(runs[j]), rate(v)) << "igam " << j + 1;
    }
    if (d.levels == 3) {
      // One level in between, visited twice by F, W and VV alike.
      EXPECT_TRUE(bit_equal(w.u, fc.u));
      EXPECT_TRUE(bit_equal(vv.u, fc.u));
    } else {
      EXPECT_FALSE(bit_equal(w.u, fc.u));
      EXPECT_FALSE(bit_equal(vv.u, fc.u));
      EXPECT_FALSE(bit_equal(vv.u, w.u));
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
  const Csr m = poisson2d(20);
  const std::vector<double> f = test_rhs(m.nnu);
  const CoreArgs c = solve(m, f, 10001, iswit_code(4), 0.0);
  ASSERT_EQ(c.ierr, 0);
  const kornlt::StoreState& st = kornlt::store();
  ASSERT_EQ(st.levels, 2);
  ASSERT_GE(st.icg.size(), static_cast<std::size_t>(m.nnu));
  const bool c_parity = st.icg[0] > 0;
  for (int y = 0; y < 20; ++y)
    for (int x = 0; x < 20; ++x)
      ASSERT_EQ(st.icg[static_cast<std::size_t>(y * 20 + x)] > 0, ((x + y) % 2 == 0) == c_parity)
          << "not a red-black split at " << x << "," << y;
  release();
  EXPECT_EQ(c.ncyc_done, 1);
  EXPECT_LE(c.res_out, 1e-12 * c.res_in);
  EXPECT_LE(max_rel_diff(c.u, dense_solve(m, f)), 1e-12);
  // Plain Gauss-Seidel sweeps over all points: no longer exact.
  kornlt::prm().nrd = 12;
  kornlt::prm().nru = 12;
  const CoreArgs g = solve(m, f, 10001, iswit_code(5), 0.0);
  ASSERT_EQ(g.ierr, 0);
  EXPECT_GT(g.res_out, 1e-6 * g.res_in);
}

TEST_F(Amg, StarCyclesFollowTheirRulesAndConverge) {
  no_accelerator();
  auto star_run = [](const Csr& m, const std::vector<double>& f, int nstar, int ncyc, double eps) {
    korn_set_nstar_typ(&nstar);
    return solve(m, f, ncyc, iswit_code(5), eps);
  };
  {
    SCOPED_TRACE("two levels");
    ASSERT_NO_FATAL_FAILURE(expect_depth(kDepths[0]));
    const Csr m = poisson2d(20);
    const std::vector<double> f = test_rhs(m.nnu);
    const CoreArgs v = solve(m, f, 10003, iswit_code(5), 0.0);
    // Types 1 and 2 improve only on levels strictly between: none here.
    EXPECT_TRUE(bit_equal(star_run(m, f, 1, -10003, 0.0).u, v.u));
    EXPECT_TRUE(bit_equal(star_run(m, f, 2, -10003, 0.0).u, v.u));
    const CoreArgs s3 = star_run(m, f, 3, -10003, 0.0);
    ASSERT_EQ(s3.ierr, 0);
    EXPECT_FALSE(bit_equal(s3.u, v.u));

    // Type 3 ends each cycle with u := e + t (u - e), e the first guess after
    // pre-smoothing, t minimising the residual. Without pre-smoothing and from
    // u = 0, one such cycle is the V-cycle's result scaled by
    // t = (f, A u) / (A u, A u).
    kornlt::prm().nrd = 0;
    const CoreArgs v1 = solve(m, f, 10001, iswit_code(5), 0.0);
    ASSERT_EQ(v1.ierr, 0);
    const CoreArgs s1 = star_run(m, f, 3, -10001, 0.0);
    ASSERT_EQ(s1.ierr, 0);
    const std::vector<double> au = apply(m, v1.u);
    double fa = 0.0, aa = 0.0;
    for (std::size_t i = 0; i < au.size(); ++i) {
      fa += f[i] * au[i];
      aa += au[i] * au[i];
    }
    const double t = fa / aa;
    EXPECT_GT(std::abs(t - 1.0), 1e-6) << "the scaling must be visible";
    std::vector<double> scaled(v1.u);
    for (double& x : scaled) x *= t;
    EXPECT_LE(max_rel_diff(s1.u, scaled), 1e-12);
    EXPECT_LE(s1.res_out, v1.res_out);
    kornlt::prm().nrd = kornlt::kUnsetInt;
  }
  {
    SCOPED_TRACE("three levels");
    ASSERT_NO_FATAL_FAILURE(expect_depth(kDepths[1]));
    const Csr m = poisson2d(48);
    const std::vector<double> f = test_rhs(m.nnu);
    const double fnorm = norm2(f);
    const CoreArgs v = solve(m, f, 10003, iswit_code(5), 0.0);
    // 0 reads as 2.
    const CoreArgs s0 = star_run(m, f, 0, -10003, 0.0);
    const CoreArgs s2 = star_run(m, f, 2, -10003, 0.0);
    EXPECT_TRUE(bit_equal(s0.u, s2.u));
    for (int nstar : {1, 2, 3}) {
      SCOPED_TRACE(nstar);
      EXPECT_FALSE(bit_equal(star_run(m, f, nstar, -10003, 0.0).u, v.u));
      // To the target: stand-alone, under flexible CG (asked for as CG) and
      // under GMRES (asked for as BI-CGSTAB).
      for (int ncyc : {-10030, -11030, -12030}) {
        const CoreArgs c = star_run(m, f, nstar, ncyc, 1e-8);
        ASSERT_EQ(c.ierr, 0) << ncyc;
        EXPECT_LE(c.ncyc_done, ncyc == -10030 ? 20 : 12) << ncyc;
        EXPECT_LE(true_residual(m, f, c.u), 1.0001e-8 * fnorm) << ncyc;
      }
    }
  }
  const int zero = 0;
  korn_set_nstar_typ(&zero);
}

TEST_F(Amg, AcceleratorSubstitutionsShowInTheReport) {
  // Star cycles are no fixed linear operator: CG becomes flexible CG and
  // BI-CGSTAB becomes GMRES. A non-symmetric matrix takes BI-CGSTAB for CG
  // and GMRES for flexible CG.
  kornlt::prm().mode_mess = 0;
  const Csr sym = poisson2d(40);
  const Csr nonsym = convection_diffusion(40, 60.0, 30.0);
  struct Case {
    int ncyc, matrix;
    const char* text;
  };
  const Case cases[] = {{11030, 12, "Acceleration: new Conjugate Gradient["},
                        {-11030, 12, "Acceleration: Flexible CG["},
                        {12030, 12, "Acceleration: BI-CGSTAB["},
                        {-12030, 12, "Acceleration: Flexible GMRES["},
                        {11030, 22, "Acceleration: BI-CGSTAB["},
                        {14030, 22, "Acceleration: Flexible GMRES["},
                        {-11030, 22, "Acceleration: Flexible GMRES["}};
  for (const Case& k : cases) {
    SCOPED_TRACE(std::to_string(k.ncyc) + " matrix " + std::to_string(k.matrix));
    const Csr& m = k.matrix == 12 ? sym : nonsym;
    LogCapture log;
    CoreArgs c(m);
    c.f = test_rhs(m.nnu);
    c.ncyc = k.ncyc;
    c.matrix = k.matrix;
    c.iout = 1;  // the solver report
    ASSERT_EQ(c.call(), 0);
    EXPECT_LE(true_residual(m, c.f, c.u), 1.0001e-8 * norm2(c.f));
    const std::string text = log.text();
    EXPECT_NE(text.find(k.text), std::string::npos) << text;
    EXPECT_EQ(count(text, "Acceleration: "), 1u) << text;
    // Star cycling names its cycle by nstar_typ (0 reads as 2).
    const char* cycle = k.ncyc < 0 ? "levels (*-cycle[2])" : "levels (V-cycle)";
    EXPECT_NE(text.find(cycle), std::string::npos) << text;
  }
}

TEST_F(Amg, DynamicSmoothingFollowsItsTableAndConverges) {
  no_accelerator();
  constexpr int kDyn[] = {0, 10, 11, 20, 21};
  for (const Depth& d : {kDepths[1], kDepths[2]}) {
    SCOPED_TRACE(d.what);
    ASSERT_NO_FATAL_FAILURE(expect_depth(d));
    const Csr m = poisson2d(d.n);
    const std::vector<double> f = test_rhs(m.nnu);
    const double fnorm = norm2(f);
    std::vector<CoreArgs> runs;
    for (int ndyn : kDyn) {
      korn_set_ndyn_smo(&ndyn);
      runs.push_back(solve(m, f, 10004, iswit_code(5), 0.0));
      ASSERT_EQ(runs.back().ierr, 0) << ndyn;
      EXPECT_LT(rate(runs.back()), 0.3) << ndyn;
      // To the target, stand-alone and under CG.
      for (int ncyc : {10030, 11030}) {
        const CoreArgs c = solve(m, f, ncyc);
        ASSERT_EQ(c.ierr, 0) << ndyn << " " << ncyc;
        EXPECT_LE(true_residual(m, f, c.u), 1.0001e-8 * fnorm) << ndyn << " " << ncyc;
      }
    }
    // Twice the smoothing on coarse levels (10, 11) is not worse.
    EXPECT_LE(rate(runs[1]), rate(runs[0]));
    EXPECT_LE(rate(runs[2]), rate(runs[0]));
    if (d.levels == 3) {
      // Level 2 is the only smoothed coarse level: 10 and 11 both give it two
      // calls, 20 and 21 none at all.
      EXPECT_TRUE(bit_equal(runs[1].u, runs[2].u));
      EXPECT_TRUE(bit_equal(runs[3].u, runs[4].u));
      EXPECT_FALSE(bit_equal(runs[1].u, runs[0].u));
      EXPECT_FALSE(bit_equal(runs[3].u, runs[0].u));
      EXPECT_FALSE(bit_equal(runs[3].u, runs[1].u));
    } else {
      for (std::size_t a = 0; a < runs.size(); ++a)
        for (std::size_t b = a + 1; b < runs.size(); ++b)
          EXPECT_FALSE(bit_equal(runs[a].u, runs[b].u)) << kDyn[a] << " vs " << kDyn[b];
    }
  }
  const int zero = 0;
  korn_set_ndyn_smo(&zero);
}

// ---------------------------------------------------------------------------
// 4. Restriction variants
// ---------------------------------------------------------------------------

TEST_F(Amg, RestrictionVariantsGiveTheSameSolution) {
  const Csr m = poisson2d(40);
  const std::vector<double> f = test_rhs(m.nnu);
  const double fnorm = norm2(f);
  auto run = [&](int variant, int threads, bool jacobi) {
    omp_set_num_threads(threads);
    korn_set_irestriction_openmp(&variant);
    if (jacobi) {
      kornlt::prm().nrd = 177;  // two Jacobi sweeps: independent of timing
      kornlt::prm().nru = 177;
    }
    const CoreArgs c = solve(m, f, 11030, iswit_code(5), 1e-10);
    EXPECT_EQ(c.ierr, 0) << variant << " " << threads;
    EXPECT_LE(true_residual(m, f, c.u), 1.0001e-10 * fnorm) << variant << " " << threads;
    kornlt::prm().nrd = kornlt::kUnsetInt;
    kornlt::prm().nru = kornlt::kUnsetInt;
    return c;
  };
  // One thread: the serial scatter (0), the threaded residual with a serial
  // scatter (1) and the gather through the transpose (-1); 2 chooses 0.
  {
    SCOPED_TRACE("one thread");
    const CoreArgs r0 = run(0, 1, false), r1 = run(1, 1, false), rm = run(-1, 1, false), r2 = run(2, 1, false);
    EXPECT_TRUE(bit_equal(r2.u, r0.u));
    EXPECT_EQ(r1.ncyc_done, r0.ncyc_done);
    EXPECT_EQ(rm.ncyc_done, r0.ncyc_done);
    EXPECT_LE(max_rel_diff(r1.u, r0.u), 1e-12);
    EXPECT_LE(max_rel_diff(rm.u, r0.u), 1e-12);
    const CoreArgs j0 = run(0, 1, true), jm = run(-1, 1, true);
    EXPECT_LE(max_rel_diff(jm.u, j0.u), 1e-12);
  }
  // Two threads with Jacobi smoothing: nothing depends on timing, so every
  // variant repeats bit for bit, and 2 chooses -1.
  {
    SCOPED_TRACE("two threads, Jacobi");
    const CoreArgs gather = run(-1, 2, true);
    EXPECT_TRUE(bit_equal(run(-1, 2, true).u, gather.u));
    EXPECT_TRUE(bit_equal(run(2, 2, true).u, gather.u));
    for (int variant : {0, 1}) {
      const CoreArgs c = run(variant, 2, true);
      EXPECT_LE(max_rel_diff(c.u, gather.u), 1e-12) << variant;
    }
    const CoreArgs serial = run(-1, 1, true);
    EXPECT_LE(max_rel_diff(gather.u, serial.u), 1e-8);
  }
  // Two threads with the hybrid Gauss-Seidel default: results may vary with
  // timing, only to rounding.
  {
    SCOPED_TRACE("two threads, Gauss-Seidel");
    const CoreArgs serial = run(0, 1, false);
    for (int variant : {0, -1}) {
      const CoreArgs c = run(variant, 2, false);
      EXPECT_LE(max_rel_diff(c.u, serial.u), 1e-8) << variant;
    }
  }
}

TEST_F(Amg, OnlyTheGatherVariantKeepsTransposedWeights) {
  // The transposed interpolation (iwt, jwt, wt) exists for variant -1 only;
  // 2 chooses -1 on two threads and 0 on one.
  struct Case {
    int variant, threads;
    bool transposed;
  };
  const Case cases[] = {{0, 1, false}, {1, 1, false}, {-1, 1, true}, {2, 1, false},
                        {5, 1, false}, {-1, 2, true},  {2, 2, true},  {5, 2, false}};
  const Csr m = poisson2d(40);
  const std::vector<double> f = test_rhs(m.nnu);
  for (const Case& k : cases) {
    SCOPED_TRACE(std::to_string(k.variant) + " on " + std::to_string(k.threads));
    omp_set_num_threads(k.threads);
    korn_set_irestriction_openmp(&k.variant);
    const CoreArgs c = solve(m, f, 11030, iswit_code(4));
    ASSERT_EQ(c.ierr, 0);
    EXPECT_LE(true_residual(m, f, c.u), 1.0001e-8 * norm2(f));
    const int levels = kornlt::store().levels;
    ASSERT_GE(levels, 3);
    const auto& t = kornlt::solve_state().restriction;
    if (k.transposed) {
      ASSERT_EQ(t.size(), static_cast<std::size_t>(levels));
      // Level k's transpose holds exactly the weights of level k's interpolation.
      for (int lev = 1; lev < levels; ++lev) {
        const kornlt::StoreState& st = kornlt::store();
        const int lo = st.imin[lev], hi = st.imax[lev];
        const std::size_t nw = static_cast<std::size_t>(st.iw[hi] - st.iw[lo - 1]);
        EXPECT_EQ(t[static_cast<std::size_t>(lev)].wt.size(), nw) << "level " << lev;
      }
    } else {
      EXPECT_TRUE(t.empty());
    }
    release();
  }
}

// ---------------------------------------------------------------------------
// 5. Run modes: keep, reuse, new values, new level-1 matrix, release
// ---------------------------------------------------------------------------

TEST_F(Amg, RunModesReuseRecomputeAndRelease) {
  const kornlt::StoreState& st = kornlt::store();
  const Csr a = poisson2d(48);
  // The finest level counts as store though the caller owns it: between
  // runs the counters hold nnu + nna integers and nna + 2 nnu reals.
  const std::int64_t memi0 = a.nnu + a.nna(), memd0 = a.nna() + 2 * a.nnu;
  const std::vector<double> f1 = test_rhs(a.nnu);
  std::vector<double> f2(f1.size());
  for (std::size_t i = 0; i < f2.size(); ++i) f2[i] = std::cos(0.05 * i) - 0.3;
  auto check = [](const CoreArgs& c, const Csr& m, const std::vector<double>& f, const char* what) {
    EXPECT_EQ(c.ierr, 0) << what;
    EXPECT_GE(c.ncyc_done, 1) << what;
    EXPECT_LE(c.ncyc_done, 30) << what;
    EXPECT_LE(true_residual(m, f, c.u), 1.0001e-8 * norm2(f)) << what;
  };

  // 4: setup kept.
  const CoreArgs s4 = solve(a, f1, 11030, iswit_code(4));
  check(s4, a, f1, "setup kept");
  const int levels = st.levels;
  EXPECT_GE(levels, 3);
  EXPECT_GT(st.memi, memi0);
  EXPECT_GT(st.memd, memd0);

  // 1: the same hierarchy for another right-hand side, and for the first one
  // again, which must repeat the first solve bit for bit.
  check(solve(a, f2, 11030, iswit_code(1)), a, f2, "reuse, second right-hand side");
  const CoreArgs again = solve(a, f1, 11030, iswit_code(1));
  check(again, a, f1, "reuse, first right-hand side");
  EXPECT_TRUE(bit_equal(again.u, s4.u));
  EXPECT_EQ(st.levels, levels);

  // 3: new values on the same structure. The same values first: the
  // recomputed operators give the first solution to rounding.
  const CoreArgs r3a = solve(a, f1, 11030, iswit_code(3));
  check(r3a, a, f1, "new values, the same ones");
  EXPECT_LE(max_rel_diff(r3a.u, s4.u), 1e-12);
  // With 2A and 2f every recomputed coarse operator is exactly twice the one
  // before, so the run repeats the last one bit for bit; operators left
  // unchanged would not.
  Csr a2 = a;
  for (double& v : a2.a) v *= 2.0;
  std::vector<double> f1x2(f1);
  for (double& v : f1x2) v *= 2.0;
  const CoreArgs r3 = solve(a2, f1x2, 11030, iswit_code(3));
  check(r3, a2, f1x2, "new values, scaled");
  EXPECT_TRUE(bit_equal(r3.u, r3a.u));
  // 2A plus a diagonal shift, then reused with run mode 1.
  Csr a3 = a2;
  for (int i = 0; i < a3.nnu; ++i) a3.a[a3.ia[i] - 1] += 0.5;
  const CoreArgs r3b = solve(a3, f1, 11030, iswit_code(3));
  check(r3b, a3, f1, "new values, shifted");
  const CoreArgs r3c = solve(a3, f1, 11030, iswit_code(1));
  EXPECT_TRUE(bit_equal(r3c.u, r3b.u)) << "run mode 1 keeps the recomputed operators";
  check(solve(a3, f2, 11030, iswit_code(1)), a3, f2, "new values, reused");

  // 2: a new level-1 matrix on the old coarse operators (those of a3 now).
  const CoreArgs r2 = solve(a2, f1x2, 11030, iswit_code(2));
  check(r2, a2, f1x2, "new level-1 matrix");
  EXPECT_FALSE(bit_equal(r2.u, r3.u)) << "coarse operators must stay those of the last setup";
  const Csr a4 = poisson2d(48, 0.2);
  check(solve(a4, f2, 11030, iswit_code(2)), a4, f2, "new level-1 matrix, shifted");
  EXPECT_EQ(st.levels, levels);

  // 0: everything released, the counters back where they started.
  release();
  EXPECT_EQ(st.levels, 0);
  EXPECT_EQ(st.memi, memi0);
  EXPECT_EQ(st.memd, memd0);

  // 5: setup and release in one call leave the counters balanced too.
  check(solve(a, f1, 11030, iswit_code(5)), a, f1, "setup released");
  EXPECT_EQ(st.memi, memi0);
  EXPECT_EQ(st.memd, memd0);
}

TEST_F(Amg, RestartsWithoutAHierarchyOrWithAnotherSizeAreRefused) {
  kornlt::prm().mode_mess = 0;
  LogCapture log;
  // The log written by one call.
  auto run = [&log](const Csr& m, int mode, std::string& text) {
    const std::size_t before = log.text().size();
    const CoreArgs c = solve(m, test_rhs(m.nnu), 11030, iswit_code(mode));
    text = log.text().substr(before);
    return c;
  };
  const Csr a = poisson2d(30);
  std::string text;
  const CoreArgs c = run(a, 1, text);
  EXPECT_EQ(c.ierr, 51);
  EXPECT_EQ(c.ncyc_done, 0);
  EXPECT_NE(text.find("*** ERROR: KORN re-start requires an initial call with iswit=4!"), std::string::npos) << text;
  ASSERT_EQ(run(a, 4, text).ierr, 0);
  const Csr b = poisson2d(31);
  for (int mode : {1, 2, 3}) {
    EXPECT_EQ(run(b, mode, text).ierr, 53) << mode;
    EXPECT_NE(text.find("*** ERROR: KORN re-start terminated - illegal change in <"), std::string::npos) << text;
    // The failed restart released the hierarchy.
    EXPECT_EQ(kornlt::store().levels, 0);
    EXPECT_EQ(run(a, 1, text).ierr, 51) << mode;
    ASSERT_EQ(run(a, 4, text).ierr, 0);
  }
}

// ---------------------------------------------------------------------------
// 6. Failure paths: indefinite and singular matrices
// ---------------------------------------------------------------------------

TEST_F(Amg, IndefiniteMatrixUnderCgWarnsAndReturns) {
  kornlt::prm().mode_mess = 0;
  struct Case {
    double shift;
    bool reaches_target;  // the warning does not stop the run
  };
  // On the 48x48 grid a shift of 0.05 moves the lowest few eigenvalues below
  // zero, 0.5 a large part of the spectrum.
  for (const Case& k : {Case{0.05, true}, Case{0.5, false}}) {
    SCOPED_TRACE(k.shift);
    const Csr m = poisson2d(48, -k.shift);
    const std::vector<double> f = test_rhs(m.nnu);
    LogCapture log;
    const CoreArgs c = solve(m, f, 11030);
    EXPECT_EQ(c.ierr, -830);
    EXPECT_NE(log.text().find("+++ WARNG: Negative (Ap,p) on level 1 (new_cgc)!"), std::string::npos)
        << log.text();
    EXPECT_LE(c.ncyc_done, 30);
    const double r = true_residual(m, f, c.u);
    EXPECT_NEAR(c.res_out, r, 1e-6 * r + 1e-13 * c.res_in);
    if (k.reaches_target) {
      EXPECT_LE(r, 1.0001e-8 * norm2(f));
    } else {
      EXPECT_GT(r, 1e-8 * norm2(f));
    }
  }
}

TEST_F(Amg, SingularNeumannProblemIsNormalised) {
  const Csr m = neumann2d(20);
  std::vector<double> f = test_rhs(m.nnu);
  double mean = 0.0;
  for (double v : f) mean += v / m.nnu;
  for (double& v : f) v -= mean;  // compatible: (f,1) = 0
  // With (f,1) = 0 and A 1 = 0, (A + 1 1^T) u = f gives A u = f and (u,1) = 0.
  const std::vector<double> ref = dense_solve(m, f, 1.0);
  struct Case {
    int threads, ncyc;
    bool guess;
  };
  for (const Case& k : {Case{1, 11030, false}, Case{2, 11030, false}, Case{1, 11030, true}, Case{1, 10030, false}}) {
    SCOPED_TRACE("threads " + std::to_string(k.threads) + " ncyc " + std::to_string(k.ncyc) +
                 (k.guess ? " with a first guess" : ""));
    omp_set_num_threads(k.threads);
    if (k.ncyc == 10030) no_accelerator();
    kornlt::prm().mode_mess = 0;
    LogCapture log;
    CoreArgs c(m);
    c.f = f;
    c.ncyc = k.ncyc;
    c.matrix = 11;  // symmetric, zero row sums
    c.iout = 1;
    c.eps = 1e-10;
    if (k.guess)
      for (int i = 0; i < m.nnu; ++i) c.u[i] = 3.0 + std::sin(0.1 * i);
    ASSERT_EQ(c.call(), 0) << log.text();
    EXPECT_NE(log.text().find("Scaling:      Solution scaled so that (u,1)=0"), std::string::npos) << log.text();
    EXPECT_LE(c.ncyc_done, 20);
    EXPECT_LE(max_rel_diff(c.u, ref), 1e-6);
    double sum = 0.0, sum_abs = 0.0;
    for (double v : c.u) {
      sum += v;
      sum_abs += std::abs(v);
    }
    EXPECT_LE(std::abs(sum), 1e-12 * sum_abs);
    korn_reset_parameters();
  }
}

TEST_F(Amg, IncompatibleSingularProblemTriggersTheRoundOffWatchOnce) {
  // (f,1) <> 0: the coarsest system has no solution, whatever its solver.
  const Csr m = neumann2d(20);
  const std::vector<double> f = test_rhs(m.nnu);
  struct Case {
    int nrc;
    const char* last_line;  // nullptr: no line for this solver
  };
  const Case cases[] = {{1, "Otherwise, there may be convergence problems for relaxation."},
                        {3, "Otherwise, there may be convergence problems for BI-CGSTAB."},
                        {5, "Otherwise, there may be convergence problems for BI-CGSTAB."},
                        {7, nullptr}};
  for (const Case& k : cases) {
    SCOPED_TRACE(k.nrc);
    korn_reset_parameters();
    no_accelerator();
    kornlt::prm().mode_mess = 0;
    kornlt::prm().nrc = k.nrc;
    LogCapture log;
    const CoreArgs c = solve(m, f, 10006, iswit_code(5), 1e-8, 11);
    EXPECT_LE(c.ierr, 0) << "a warning at most";
    EXPECT_EQ(c.ncyc_done, 6);
    const std::string text = log.text();
    EXPECT_EQ(count(text, "+++ WARNG: Insufficient residual reduction on coarsest level: "), 1u) << text;
    const std::size_t p = text.find("Insufficient residual reduction on coarsest level: ");
    ASSERT_NE(p, std::string::npos);
    const std::string tail = text.substr(p);
    const char* lines[] = {"+++ WARNG: If this happens only after several AMG iterations, most probably\n",
                           "+++ WARNG: you have reached the level of dominant round-off influence\n",
                           "+++ WARNG: (or the coarsest-level system is singular but incompatible).\n"};
    std::size_t q = tail.find('\n') + 1;
    for (const char* line : lines) {
      EXPECT_EQ(tail.compare(q, std::strlen(line), line), 0) << tail;
      q += std::strlen(line);
    }
    if (k.last_line != nullptr) {
      EXPECT_EQ(tail.compare(q, 11 + std::strlen(k.last_line), std::string("+++ WARNG: ") + k.last_line), 0)
          << tail;
    } else {
      EXPECT_EQ(count(text, "Otherwise, there may be convergence problems"), 0u) << text;
    }
  }
}

TEST_F(Amg, SingularMatrixNotDeclaredFailsInTheCoarsestSolver) {
  const kornlt::StoreState& st = kornlt::store();
  kornlt::prm().mode_mess = 0;
  const Csr m = neumann2d(20);
  // What stays counted after a full cleanup: the finest level.
  const std::int64_t memi0 = m.nnu + m.nna(), memd0 = m.nna() + 2 * m.nnu;
  std::vector<double> f = test_rhs(m.nnu);
  double mean = 0.0;
  for (double v : f) mean += v / m.nnu;
  for (double& v : f) v -= mean;
  LogCapture log;
  // matrix 12 claims non-zero row sums: the null space is not pinned, and the
  // sparse LU of the coarsest level meets a zero pivot.
  const CoreArgs c = solve(m, f, 11030, iswit_code(4), 1e-8, 12);
  EXPECT_EQ(c.ierr, 970);
  EXPECT_NE(log.text().find("*** ERROR: Error in matrix decomposition (sparse Gauss)!"), std::string::npos)
      << log.text();
  EXPECT_NE(log.text().find("*** ERROR: ... in (cyc)"), std::string::npos) << log.text();
  // The error exit released the hierarchy even though run mode 4 keeps it.
  EXPECT_EQ(st.levels, 0);
  EXPECT_EQ(st.memi, memi0);
  EXPECT_EQ(st.memd, memd0);
}

}  // namespace
