// Accelerators: CG (new and old), flexible CG, BI-CGSTAB and flexible GMRES
// on SPD, non-symmetric, indefinite, singular and degenerate matrices against
// LAPACK solves and true residuals; breakdown and stop codes with their
// texts; the cycle budget; thread reproducibility.
#include <gtest/gtest.h>
#include <omp.h>

#include <cstring>
#include <string>
#include <vector>

#include "log/log.hpp"
#include "log/test_support.hpp"
#include "params/params.hpp"
#include "solve/solve.hpp"
#include "solve_fixtures.hpp"

namespace {

using namespace solve_test;
using kornlt::AccelSettings;
using kornlt::StopSettings;

kornlt::AccelPrecond jacobi(const Csr& A) {
  return [&A](const kornlt::Vec1<const double>& r, const kornlt::Vec1<double>& z) {
    for (int i = r.lo(); i <= r.hi(); ++i) z(i) = r(i) / A.diag(i - 1);
  };
}
enum Method { kNewCg, kOldCg, kBicg, kGmres, kFlexCg };
const char* method_name(Method m) {
  const char* names[] = {"new_cgc", "old_cgc", "cgstab", "gmres", "flex new_cgc"};
  return names[m];
}
AccelSettings settings(Method m, double tol, int ncyc, int nkdim = 50) {
  AccelSettings s;
  s.ncgrad = m == kNewCg || m == kOldCg ? 1 : m == kBicg ? 2 : m == kGmres ? 3 : 4;
  s.ntyp_cg = m == kOldCg ? 2 : 1;
  s.tol = tol;
  s.ncyc = ncyc;
  s.nkdim = nkdim;
  return s;
}
StopSettings default_stop() {
  StopSettings ss;  // icrits 110, iauto_stop 11
  ss.ncyc_min = 0;
  return ss;
}

struct Outcome {
  int ierr = 0, ncyc_done = 0;
  double res = 0.0;
  Vec u;
  std::string log;
};
// One accelerator call on a copy of the problem from u = 0.
Outcome run(const Csr& A, const Vec& f, const AccelSettings& s, const StopSettings& ss = default_stop(),
            int ncyc_done = 0) {
  korn_test::MessageCapture cap;
  Level lv(A, zeros(A.n), f);
  kornlt::StopState st;
  kornlt::start_stop_state(st, ss, A.n);
  kornlt::ierr() = 0;
  Outcome o;
  o.ncyc_done = ncyc_done;
  o.res = -1.0;
  kornlt::korn_accel(lv.view(false), s, ss, st, o.ncyc_done, o.res);
  o.ierr = kornlt::ierr();
  kornlt::ierr() = 0;
  o.u = lv.u;
  o.log = cap.text();
  return o;
}

// Poisson with a variable diagonal, so that Jacobi is no multiple of I.
Csr spd() {
  Csr A = poisson(6);
  for (int i = 0; i < A.n; ++i) A.a[A.ia[i] - 1] += 0.3 * (i % 5);
  return A;
}

TEST(Accel, ReachesTargetAndAgreesWithDenseSolve) {
  struct Case {
    Method m;
    bool precond, nonsym;
    int nkdim;
  };
  const Case cases[] = {{kNewCg, false, false, 50}, {kNewCg, true, false, 7},  {kOldCg, true, false, 50},
                        {kFlexCg, true, false, 5},  {kBicg, true, false, 50},  {kGmres, false, false, 8},
                        {kBicg, false, true, 30},   {kBicg, true, true, 30},   {kGmres, true, true, 10},
                        {kGmres, false, true, 200}};
  const Csr S = spd(), N = convection_diffusion(10, 40.0, 15.0);
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(method_name(c.m)) + " precond " + std::to_string(c.precond) + " nonsym " +
                 std::to_string(c.nonsym) + " nkdim " + std::to_string(c.nkdim));
    const Csr& A = c.nonsym ? N : S;
    const Vec f = test_rhs(A.n);
    const double tol = (c.nonsym ? 1e-8 : 1e-10) * norm2(f);
    AccelSettings s = settings(c.m, tol, 600, c.nkdim);
    if (c.precond) s.precond = jacobi(A);
    const std::int64_t memd = kornlt::store().memd;
    const Outcome o = run(A, f, s);
    EXPECT_EQ(o.ierr, 0) << o.log;
    EXPECT_EQ(kornlt::store().memd, memd);  // work vectors counted and released
    EXPECT_GT(o.ncyc_done, 0);
    EXPECT_LT(o.ncyc_done, 600);
    const double r = true_residual(A, o.u, f);
    EXPECT_LE(r, tol);
    EXPECT_NEAR(o.res, r, 1e-13 * norm2(f));  // res_out is a true norm
    EXPECT_LE(rel_diff(o.u, dense_solve(A, f)), c.nonsym ? 1e-6 : 1e-8);
    EXPECT_FALSE(contains(o.log, "Breakdown") || contains(o.log, "Negative")) << o.log;
  }
}

TEST(Accel, IndefiniteMatrixUnderCgGivesNegativeCurvatureWarning) {
  const Csr A = grid_matrix(6, 6, 1.0, -1, -1, -1, -1);  // (A 1, 1) < 0
  const Vec f(static_cast<std::size_t>(A.n), 1.0);
  for (Method m : {kNewCg, kOldCg, kFlexCg}) {
    const Outcome o = run(A, f, settings(m, 1e-10 * norm2(f), 100));
    SCOPED_TRACE(method_name(m));
    EXPECT_TRUE(o.ierr == -830 || o.ierr == 830) << o.ierr << o.log;
    const std::string warning = "+++ WARNG: Negative (Ap,p) on level 1 (" + std::string(method_name(m)) + ")!";
    EXPECT_TRUE(contains(o.log, warning)) << o.log;
    EXPECT_GE(o.res, 0.0);
  }
}

// A = 0: every product with A vanishes.
TEST(Accel, ZeroOperatorBreakdownCodesAndTexts) {
  Csr A;
  for (int i = 0; i < 5; ++i) A.add_row(0.0, {});
  const Vec f(5, 1.0);
  auto cg = [](const std::string& n) {
    return std::vector<std::string>{"+++ WARNG: Zero (Ap,p) on level 1 (" + n + ")!",
                                    ">>> MESSG: Modification of initial guess (" + n + ").",
                                    "*** ERROR: Breakdown of CG on level 1 (" + n + "): too many restarts:",
                                    "*** ERROR: Given matrix is not positive definite (numerically)!\n",
                                    "*** ERROR: ... in (" + n + ")!"};
  };
  struct Case {
    Method m;
    int code;
    std::vector<std::string> texts;
  };
  const Case cases[] = {
      {kNewCg, 830, cg("new_cgc")},
      {kOldCg, 830, cg("old_cgc")},
      {kFlexCg, 830, cg("flex new_cgc")},
      {kBicg, 840, {"+++ WARNG: Re-start of BI-CGSTAB on level 1 (cgstab)!",
                    "+++ WARNG: Re-start with modified <rbar> on level 1 (cgstab)!",
                    "+++ WARNG: Re-start with new initial guess on level 1 (cgstab)!",
                    "*** ERROR: Breakdown of BiCGstab on level 1 (cgstab):", "*** ERROR: Given matrix is singular!",
                    "*** ERROR: BiCGstab failed on level 1 (cgstab) after repeated restart!",
                    "*** ERROR: ... in (cgstab)!"}},
      {kGmres, 850, {"*** ERROR: Given matrix is singular!", "*** ERROR: ... in (gmres)!"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(method_name(c.m));
    const Outcome o = run(A, f, settings(c.m, 1e-8, 50));
    EXPECT_EQ(o.ierr, c.code);
    EXPECT_EQ(o.ncyc_done, 0);
    EXPECT_TRUE(contains_in_order(o.log, c.texts)) << o.log;
    EXPECT_DOUBLE_EQ(o.res, std::sqrt(5.0));  // the true norm of f - 0 u
  }
  AccelSettings s = settings(kNewCg, 0.0, 5);
  s.ntyp_cg = 3;
  const Outcome o = run(poisson(3), test_rhs(9), s);
  EXPECT_EQ(o.ierr, 1);
  EXPECT_TRUE(contains(o.log, "*** ERROR: Illegal value of parameter <ntyp_cg> in (solve)")) << o.log;
}

// Neumann Laplacian with f not orthogonal to the constants: the residual
// cannot go below its constant part, |sum f| / sqrt(n) = 0.5 / 6.
TEST(Accel, SingularInconsistentSystemWithGmresEndsOrderly) {
  const Csr A = neumann(6);
  Vec f = zeros(A.n);
  f[0] = 1.0;
  f[7] = -0.5;
  StopSettings stagnation = default_stop();
  stagnation.num_old_res = 3;
  struct Case {
    bool stagnation_test;
    int nkdim;
    bool precond;
    int code;
  };
  for (const Case& c : {Case{false, 50, true, 850}, Case{true, 10, true, -852}, Case{false, 10, false, 0}}) {
    SCOPED_TRACE("code " + std::to_string(c.code));
    AccelSettings s = settings(kGmres, 1e-10, 300, c.nkdim);
    if (c.precond) s.precond = jacobi(A);
    const Outcome o = run(A, f, s, c.stagnation_test ? stagnation : default_stop());
    EXPECT_EQ(o.ierr, c.code) << o.log;
    if (c.code == 850) {  // the rank loss is caught before the least-squares solution degrades
      EXPECT_TRUE(contains(o.log, "*** ERROR: Breakdown of GMRES on level 1 (gmres):\n"
                                  "*** ERROR: Given matrix is singular!\n*** ERROR: ... in (gmres)!\n")) << o.log;
    }
    if (c.code == -852) {
      EXPECT_TRUE(contains(o.log, "+++ WARNG: GMRES stop: not converged (gmres)!") ||
                  contains(o.log, "+++ WARNG: GMRES stop: stagnation (gmres)!")) << o.log;
    }
    EXPECT_EQ(o.ncyc_done < 300, c.code != 0);  // without a stagnation test the cycle limit ends it
    const double r = true_residual(A, o.u, f);
    EXPECT_NEAR(o.res, r, 1e-12);
    EXPECT_GE(r, 0.5 / 6.0 * (1.0 - 1e-9));
    EXPECT_LE(r, 0.5 / 6.0 * 1.01);
  }
}

// The stopping tests' verdicts as each accelerator's warning code and text.
TEST(Accel, StopWarningsCarryTheAcceleratorsCodesAndTexts) {
  const Csr A = poisson(6);
  const Vec f = test_rhs(A.n);
  StopSettings small_corr = default_stop();  // relative corrections below rel_app_var at once
  small_corr.num_old_apps = 1;
  small_corr.rel_app_var = 1e30;
  StopSettings quasi = default_stop();  // quasi and true residual "differ" under a factor below 1
  quasi.factor_quasi_res = 0.5;
  StopSettings variation = default_stop();  // variation always small, approximations different
  variation.num_old_res = 1;
  variation.factor_res_var = 1e30;
  struct Case {
    const StopSettings* ss;
    Method m;
    int code, steps;
    const char* text;
  };
  const Case cases[] = {
      {&small_corr, kNewCg, -834, 1, "+++ WARNG: CG stop: Relative approximation stagnation (new_cg)."},
      {&quasi, kNewCg, -831, 1, "+++ WARNG: CG stop: quasi and real residual too different (new_cgc)!"},
      {&quasi, kBicg, -841, 1, "+++ WARNG: BiCGstab stop: quasi and real residual too different (cgstab)!"},
      {&variation, kBicg, -842, 2, "+++ WARNG: BiCGstab stop: not converged (cgstab)!"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    AccelSettings s = settings(c.m, 1e-12, 50);
    s.precond = jacobi(A);
    const Outcome o = run(A, f, s, *c.ss);
    EXPECT_EQ(o.ierr, c.code) << o.log;
    EXPECT_EQ(o.ncyc_done, c.steps);
    EXPECT_TRUE(contains(o.log, c.text)) << o.log;
    EXPECT_NEAR(o.res, true_residual(A, o.u, f), 1e-10 * norm2(f));
  }
}

// The cycle budget counts the cycles done before; the hook sees every step;
// a zero residual returns at once without work vectors.
TEST(Accel, CycleBudgetHookAndZeroResidual) {
  const Csr A = poisson(10);
  const Vec f = test_rhs(A.n);
  for (Method m : {kNewCg, kOldCg, kBicg, kGmres, kFlexCg}) {
    SCOPED_TRACE(method_name(m));
    AccelSettings s = settings(m, 0.0, 10, 4);
    s.precond = jacobi(A);
    std::vector<int> seen;
    std::int64_t during = 0;
    s.after_step = [&](int n) { seen.push_back(n), during = kornlt::store().memd; };
    const std::int64_t before = kornlt::store().memd;
    const Outcome o = run(A, f, s, default_stop(), 4);
    EXPECT_EQ(o.ierr, 0) << o.log;
    EXPECT_EQ(o.ncyc_done, 10);
    EXPECT_EQ(seen, (std::vector<int>{5, 6, 7, 8, 9, 10}));
    EXPECT_GE(during - before, 4 * A.n);  // the work vectors are counted while they live
    EXPECT_EQ(kornlt::store().memd, before);
    seen.clear();
    const Outcome z = run(A, zeros(A.n), s, default_stop(), 3);
    EXPECT_EQ(z.ierr, 0);
    EXPECT_EQ(z.ncyc_done, 3);
    EXPECT_EQ(z.res, 0.0);
    EXPECT_TRUE(seen.empty());
    EXPECT_TRUE(contains(z.log, ">>> MESSG: Residual already zero (" + std::string(method_name(m)) + ")!\n")) << z.log;
  }
}

// Repeated 2-thread runs are bit-identical; one thread agrees closely.
TEST(Accel, ThreadedRunsAreReproducible) {
  const Csr N = convection_diffusion(20, 5.0, 2.0), S = poisson(20);
  const Vec f = test_rhs(N.n);
  for (Method m : {kNewCg, kOldCg, kBicg, kGmres, kFlexCg}) {
    SCOPED_TRACE(method_name(m));
    const Csr& A = m == kBicg || m == kGmres ? N : S;
    AccelSettings s = settings(m, 0.0, 12, 10);  // passes a restart
    s.precond = jacobi(A);
    Outcome a, b, c;
    {
      Threads th(2);
      a = run(A, f, s);
      b = run(A, f, s);
    }
    {
      Threads th(1);
      c = run(A, f, s);
    }
    ASSERT_EQ(a.ierr, 0) << a.log;
    EXPECT_EQ(a.ncyc_done, 12);
    EXPECT_EQ(c.ncyc_done, 12);
    EXPECT_EQ(std::memcmp(a.u.data(), b.u.data(), a.u.size() * sizeof(double)), 0);
    EXPECT_EQ(std::memcmp(&a.res, &b.res, sizeof(double)), 0);
    EXPECT_LE(rel_diff(a.u, c.u), 1e-12);
    EXPECT_NEAR(a.res, c.res, 1e-12 * norm2(f));
  }
}

}  // namespace
